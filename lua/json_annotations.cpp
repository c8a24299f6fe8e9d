// The JSON annotations: which tables are arrays and which objects, kept in
// the json library's table of metadata, the lists that decoding defers them
// in, and json.null.
#include "lua/json.h"

#include <algorithm>
#include <string>

#include "lua/internal/json_meta.h"

namespace lua {

namespace {

// Registry keys of the shared metadata tables, one per annotation, and of
// the lists of deferred annotations, one per kind.
const char kSharedMetadataKeys[3] = {};
const char kDeferredKeys[2] = {};
// Where a list of deferred annotations keeps its count and the count at
// which it is compacted next.
constexpr lua_Integer kCountSlot = 0;
constexpr lua_Integer kCompactSlot = -1;
constexpr lua_Integer kMinCompactCount = 4096;
// json.null's address.
const char kJsonNull = 0;

const char kInvalidReference[] = "Invalid reference";

}  // namespace

namespace detatils {

namespace {

// Pushes the table of metadata without recording the deferred annotations.
int PushMetadatasAsTheyAre(lua_State* L) {
  lua_getfield(L, LUA_REGISTRYINDEX, LUA_LOADED_TABLE);  // [loaded]
  if (lua_type(L, -1) == LUA_TTABLE) {
    lua_pushliteral(L, "json");
    if (lua_rawget(L, -2) == LUA_TTABLE) {  // [loaded, json]
      lua_pushstring(L, GetAllMetadatasTableName().c_str());
      if (lua_rawget(L, -2) == LUA_TTABLE) {  // [loaded, json, metas]
        lua_replace(L, -3);
        lua_pop(L, 1);
        return lua_gettop(L);
      }
      lua_pop(L, 1);
    }
    lua_pop(L, 1);
  }
  lua_pop(L, 1);
  return 0;
}

// Pushes a new list of deferred annotations of one kind with room for `size`
// entries, and makes it the runtime's list of that kind. Its values are weak,
// so that listing a table does not keep it alive.
void NewDeferredList(lua_State* L, int type, int size) {
  lua_createtable(L, size, 2);
  lua_createtable(L, 0, 1);
  lua_pushliteral(L, "v");
  lua_setfield(L, -2, "__mode");
  lua_setmetatable(L, -2);
  lua_pushinteger(L, 0);
  lua_rawseti(L, -2, kCountSlot);
  lua_pushinteger(L, kMinCompactCount);
  lua_rawseti(L, -2, kCompactSlot);
  lua_pushvalue(L, -1);
  lua_rawsetp(L, LUA_REGISTRYINDEX, &kDeferredKeys[type]);
}

// Pushes the runtime's list of deferred annotations of one kind.
void PushDeferredList(lua_State* L, int type) {
  if (lua_rawgetp(L, LUA_REGISTRYINDEX, &kDeferredKeys[type]) == LUA_TTABLE) return;
  lua_pop(L, 1);
  NewDeferredList(L, type, 0);
}

lua_Integer ReadSlot(lua_State* L, int list, lua_Integer slot) {
  lua_rawgeti(L, list, slot);
  const lua_Integer value = lua_tointeger(L, -1);
  lua_pop(L, 1);
  return value;
}

void WriteSlot(lua_State* L, int list, lua_Integer slot, lua_Integer value) {
  lua_pushinteger(L, value);
  lua_rawseti(L, list, slot);
}

}  // namespace

int PushAllMetadatas(lua_State* L) {
  const int metas = PushMetadatasAsTheyAre(L);
  if (metas != 0) FlushDeferredAnnotations(L, metas);
  return metas;
}

DeferredAnnotations::DeferredAnnotations(lua_State* L, bool nested) : L_(L) {
  luaL_checkstack(L_, RunTime::kPushHeadroom, "json annotations");
  const int metas = PushMetadatasAsTheyAre(L_);
  if (metas == 0) return;
  if (nested) {
    metas_ = metas;
    return;
  }
  lua_pop(L_, 1);
  for (int type = 0; type < 2; ++type) {
    PushDeferredList(L_, type);
    lists_[type] = lua_gettop(L_);
    counts_[type] = ReadSlot(L_, lists_[type], kCountSlot);
  }
}

void DeferredAnnotations::Add(int index, int type) {
  if (metas_ != 0) {
    Annotate(L_, metas_, index, type);
    return;
  }
  const int list = lists_[type];
  if (list == 0) return;
  lua_pushvalue(L_, index);
  lua_rawseti(L_, list, ++counts_[type]);
}

// The entries of tables that were collected meanwhile are dropped by
// copying the others into a new list: compacting in place would keep the
// room of the largest document ever decoded.
void DeferredAnnotations::Finish() {
  // Per kind: [.. list ..] -> [.. list .., fresh] -> [.. fresh ..], the new
  // list taking the old one's slot.
  for (int type = 0; type < 2; ++type) {
    const int list = lists_[type];
    if (list == 0) continue;
    const lua_Integer count = counts_[type];
    WriteSlot(L_, list, kCountSlot, count);
    if (count < ReadSlot(L_, list, kCompactSlot)) continue;
    lua_Integer kept = 0;
    for (lua_Integer i = 1; i <= count; ++i) {
      if (lua_rawgeti(L_, list, i) != LUA_TNIL) ++kept;
      lua_pop(L_, 1);
    }
    NewDeferredList(L_, type, static_cast<int>(kept));
    const int fresh = lua_gettop(L_);
    lua_Integer slot = 0;
    for (lua_Integer i = 1; i <= count; ++i) {
      if (lua_rawgeti(L_, list, i) == LUA_TNIL) {
        lua_pop(L_, 1);
      } else {
        lua_rawseti(L_, fresh, ++slot);
      }
    }
    WriteSlot(L_, fresh, kCountSlot, slot);
    WriteSlot(L_, fresh, kCompactSlot, std::max(kMinCompactCount, 2 * slot));
    lua_replace(L_, list);
  }
}

// For each kind: [list] -> [list, metadata] -> metas[table] = metadata for
// every table listed, whose entry becomes nil -> [].
void FlushDeferredAnnotations(lua_State* L, int metas) {
  luaL_checkstack(L, RunTime::kPushHeadroom, "json annotations");
  for (int type = 0; type < 2; ++type) {
    if (lua_rawgetp(L, LUA_REGISTRYINDEX, &kDeferredKeys[type]) != LUA_TTABLE) {
      lua_pop(L, 1);
      continue;
    }
    const int list = lua_gettop(L);
    const lua_Integer count = ReadSlot(L, list, kCountSlot);
    if (count > 0) {
      PushSharedMetadata(L, type);
      const int metadata = lua_gettop(L);
      for (lua_Integer i = 1; i <= count; ++i) {
        if (lua_rawgeti(L, list, i) == LUA_TNIL) {
          lua_pop(L, 1);
          continue;
        }
        lua_pushvalue(L, metadata);
        lua_rawset(L, metas);
        lua_pushnil(L);
        lua_rawseti(L, list, i);
      }
      // Growing the table of metadata may have run a finalizer that listed
      // more tables; they move down to the front.
      const lua_Integer now = ReadSlot(L, list, kCountSlot);
      for (lua_Integer i = count + 1; i <= now; ++i) {
        lua_rawgeti(L, list, i);
        lua_rawseti(L, list, i - count);
        lua_pushnil(L);
        lua_rawseti(L, list, i);
      }
      WriteSlot(L, list, kCountSlot, now - count);
      lua_pop(L, 1);
    }
    lua_pop(L, 1);
  }
}

void PushSharedMetadata(lua_State* L, int type) {
  const void* key = &kSharedMetadataKeys[type];
  if (lua_rawgetp(L, LUA_REGISTRYINDEX, key) == LUA_TTABLE) return;
  lua_pop(L, 1);
  lua_createtable(L, 0, 1);
  lua_pushinteger(L, type);
  lua_setfield(L, -2, "type");
  lua_pushvalue(L, -1);
  lua_rawsetp(L, LUA_REGISTRYINDEX, key);
}

lua_Integer AnnotationOf(lua_State* L, int metas, int index) {
  if (metas == 0) return JsonNotAnnotated;
  lua_pushvalue(L, index);
  if (lua_rawget(L, metas) != LUA_TTABLE) {
    lua_pop(L, 1);
    return JsonNotAnnotated;
  }
  lua_pushliteral(L, "type");
  lua_rawget(L, -2);
  int isInteger = 0;
  const lua_Integer type = lua_tointegerx(L, -1, &isInteger);
  lua_pop(L, 2);
  return isInteger ? type : static_cast<lua_Integer>(JsonNotAnnotated);
}

void Annotate(lua_State* L, int metas, int index, int type) {
  lua_pushvalue(L, index);
  PushSharedMetadata(L, type);
  lua_rawset(L, metas);
}

}  // namespace detatils

const std::string& GetAllMetadatasTableName() {
  static const std::string name("_$meta");
  return name;
}

void* JsonNullValue() {
  return const_cast<char*>(&kJsonNull);
}

boost::shared_ptr<TableRef> GetAllMetadatasTable(const boost::shared_ptr<RunTime>& rt) {
  rt->EnsureFreeStackSlots(RunTime::kPushHeadroom);
  if (detatils::PushAllMetadatas(rt->State()) == 0) return boost::shared_ptr<TableRef>();
  return boost::static_pointer_cast<TableRef>(rt->ObjectAtStackTop());
}

boost::shared_ptr<TableRef> GetMetadataTable(const boost::shared_ptr<ObjectRef>& obj) {
  if (!obj || !obj->IsValid()) throw RunTimeError(kInvalidReference);
  const boost::shared_ptr<RunTime>& rt = obj->GetRunTime();
  lua_State* L = rt->State();
  rt->EnsureFreeStackSlots(RunTime::kPushHeadroom);
  const int top = lua_gettop(L);
  const int metas = detatils::PushAllMetadatas(L);
  if (metas == 0) return boost::shared_ptr<TableRef>();
  lua_pushvalue(L, obj->StackIndex());
  if (lua_rawget(L, metas) != LUA_TTABLE) {  // [metas, metadata]
    lua_settop(L, top);
    return boost::shared_ptr<TableRef>();
  }
  lua_replace(L, metas);
  return boost::static_pointer_cast<TableRef>(rt->ObjectAtStackTop());
}

JsonAnnotatedType GetJsonAnnotatedType(const boost::shared_ptr<ObjectRef>& obj) {
  if (!obj || !obj->IsValid()) throw RunTimeError(kInvalidReference);
  const boost::shared_ptr<RunTime>& rt = obj->GetRunTime();
  RunTime::StackCleaner cleaner(rt);
  rt->EnsureFreeStackSlots(RunTime::kPushHeadroom);
  lua_State* L = rt->State();
  const int metas = detatils::PushAllMetadatas(L);
  return static_cast<JsonAnnotatedType>(detatils::AnnotationOf(L, metas, obj->StackIndex()));
}

void SetJsonAnnotatedType(const boost::shared_ptr<ObjectRef>& obj, JsonAnnotatedType type) {
  if (!obj || !obj->IsValid()) throw RunTimeError(kInvalidReference);
  const std::string number = std::to_string(static_cast<int>(type));
  if (obj->Type() != LUA_TTABLE) {
    throw RunTimeError("SetJsonAnnotatedType(): an attempt to annotate lua '" + obj->TypeName() + "' type as '" +
                       number + "'");
  }
  if (type != JsonAnnotatedObject && type != JsonAnnotatedArray && type != JsonNotAnnotated) {
    throw RunTimeError("SetJsonAnnotatedType(): invalid annotation type '" + number + "'");
  }
  const boost::shared_ptr<RunTime>& rt = obj->GetRunTime();
  RunTime::StackCleaner cleaner(rt);
  rt->EnsureFreeStackSlots(RunTime::kPushHeadroom);
  lua_State* L = rt->State();
  const int metas = detatils::PushAllMetadatas(L);
  if (metas != 0) detatils::Annotate(L, metas, obj->StackIndex(), type);
}

}  // namespace lua
