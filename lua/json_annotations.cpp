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
// the sets of deferred annotations, one per kind.
const char kSharedMetadataKeys[3] = {};
const char kDeferredKeys[2] = {};
// A set's slots: its open batch, which decodes append to, and that batch's
// count; the number of sealed batches, and the number at which they are
// pruned next. Sealed batch i and its size are at 2i - 1 and 2i.
constexpr lua_Integer kOpenSlot = -1;
constexpr lua_Integer kOpenCountSlot = -2;
constexpr lua_Integer kSealedSlot = 0;
constexpr lua_Integer kPruneSlot = -3;
// The open batch is sealed by the decode that takes it past this many
// entries, so a large document gets a batch of its own.
constexpr lua_Integer kSealCount = 4096;
constexpr lua_Integer kMinPruneBatches = 4;
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

// Pushes a new batch with room for `size` tables. Its values are weak, so
// that listing a table does not keep it alive.
void NewBatch(lua_State* L, int size) {
  lua_createtable(L, size, 0);
  lua_createtable(L, 0, 1);
  lua_pushliteral(L, "v");
  lua_setfield(L, -2, "__mode");
  lua_setmetatable(L, -2);
}

void WriteSlot(lua_State* L, int table, lua_Integer slot, lua_Integer value) {
  lua_pushinteger(L, value);
  lua_rawseti(L, table, slot);
}

// Pushes the runtime's set of deferred annotations of one kind.
void PushSet(lua_State* L, int type) {
  if (lua_rawgetp(L, LUA_REGISTRYINDEX, &kDeferredKeys[type]) == LUA_TTABLE) return;
  lua_pop(L, 1);
  lua_createtable(L, 0, 4);
  const int set = lua_gettop(L);
  WriteSlot(L, set, kOpenCountSlot, 0);
  WriteSlot(L, set, kSealedSlot, 0);
  WriteSlot(L, set, kPruneSlot, kMinPruneBatches);
  lua_pushvalue(L, set);
  lua_rawsetp(L, LUA_REGISTRYINDEX, &kDeferredKeys[type]);
}

// Pushes the open batch of the set at `set`, making one when there is none.
void PushOpenBatch(lua_State* L, int set) {
  if (lua_rawgeti(L, set, kOpenSlot) == LUA_TTABLE) return;
  lua_pop(L, 1);
  NewBatch(L, 0);
  lua_pushvalue(L, -1);
  lua_rawseti(L, set, kOpenSlot);
  WriteSlot(L, set, kOpenCountSlot, 0);
}

lua_Integer ReadSlot(lua_State* L, int table, lua_Integer slot) {
  lua_rawgeti(L, table, slot);
  const lua_Integer value = lua_tointeger(L, -1);
  lua_pop(L, 1);
  return value;
}

// The live tables in `batch`, counted up to `limit`. Entries of collected
// tables are nil, and lua_next skips them without leaving the interpreter.
lua_Integer CountLive(lua_State* L, int batch, lua_Integer limit) {
  lua_Integer live = 0;
  lua_pushnil(L);
  while (lua_next(L, batch) != 0) {
    lua_pop(L, 1);
    if (++live >= limit) {
      lua_pop(L, 1);
      break;
    }
  }
  return live;
}

// The number of sealed batches of the set at `set`. A script that reaches
// the registry (debug.getregistry) can write anything into a set: the count
// is taken no further than the set's entries go, so that a loop over them
// ends, and a batch that is not a table is skipped where one is read.
lua_Integer SealedCount(lua_State* L, int set) {
  const lua_Integer n = ReadSlot(L, set, kSealedSlot);
  return std::max<lua_Integer>(0, std::min<lua_Integer>(n, static_cast<lua_Integer>(lua_rawlen(L, set) / 2)));
}

// The open batch's count. A decode that takes it to kSealCount seals the
// batch, so a stored count is below that; anything else was written by a
// script and counts as 0.
lua_Integer OpenCount(lua_State* L, int set) {
  const lua_Integer count = ReadSlot(L, set, kOpenCountSlot);
  return count >= 0 && count < kSealCount ? count : 0;
}

// Appends the batch at `batch` with `size` entries to the sealed ones.
void AppendSealed(lua_State* L, int set, int batch, lua_Integer size) {
  const lua_Integer n = SealedCount(L, set) + 1;
  lua_pushvalue(L, batch);
  lua_rawseti(L, set, 2 * n - 1);
  WriteSlot(L, set, 2 * n, size);
  WriteSlot(L, set, kSealedSlot, n);
}

// Moves the sealed batches of the set at `set`, with their sizes, into a new
// table that it pushes, and returns their number. Whoever walks them next
// may make tables, and so run a finalizer that decodes and seals: that one
// finds the set empty rather than half walked.
lua_Integer TakeSealed(lua_State* L, int set) {
  const lua_Integer n = SealedCount(L, set);
  lua_createtable(L, static_cast<int>(2 * n), 0);
  const int taken = lua_gettop(L);
  for (lua_Integer i = 1; i <= 2 * n; ++i) {
    lua_rawgeti(L, set, i);
    lua_rawseti(L, taken, i);
    lua_pushnil(L);
    lua_rawseti(L, set, i);
  }
  WriteSlot(L, set, kSealedSlot, 0);
  return n;
}

// Drops the sealed batches whose tables have all been collected, and moves
// the live tables of those the collector has thinned to under a quarter into
// one merged batch, so that keeping a table or two of every document costs
// one batch rather than one each.
void Prune(lua_State* L, int set) {
  luaL_checkstack(L, RunTime::kPushHeadroom, "json annotations");
  const lua_Integer n = TakeSealed(L, set);
  const int old = lua_gettop(L);
  NewBatch(L, 0);
  const int merged = lua_gettop(L);
  lua_Integer mergedSize = 0;
  for (lua_Integer b = 1; b <= n; ++b) {
    if (lua_rawgeti(L, old, 2 * b - 1) != LUA_TTABLE) {
      lua_pop(L, 1);
      continue;
    }
    const int batch = lua_gettop(L);
    const lua_Integer size = ReadSlot(L, old, 2 * b);
    const lua_Integer limit = size / 4 + 1;
    const lua_Integer live = CountLive(L, batch, limit);
    if (live >= limit) {
      AppendSealed(L, set, batch, size);
    } else if (live > 0) {
      lua_pushnil(L);
      while (lua_next(L, batch) != 0) lua_rawseti(L, merged, ++mergedSize);
    }
    lua_pop(L, 1);
  }
  if (mergedSize > 0) AppendSealed(L, set, merged, mergedSize);
  lua_pop(L, 2);
  WriteSlot(L, set, kPruneSlot, std::max(kMinPruneBatches, 2 * SealedCount(L, set)));
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
    PushSet(L_, type);
    sets_[type] = lua_gettop(L_);
    PushOpenBatch(L_, sets_[type]);
    lists_[type] = lua_gettop(L_);
    counts_[type] = OpenCount(L_, sets_[type]);
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

// A sealed batch costs nothing until a prune, which drops it whole once its
// document is collected: no entry is copied for a table that is gone.
void DeferredAnnotations::Finish() {
  for (int type = 0; type < 2; ++type) {
    const int set = sets_[type];
    const int list = lists_[type];
    if (list == 0) continue;
    const lua_Integer count = counts_[type];
    lua_rawgeti(L_, set, kOpenSlot);
    const bool open = lua_rawequal(L_, -1, list) != 0;
    lua_pop(L_, 1);
    if (open && count < kSealCount) {
      WriteSlot(L_, set, kOpenCountSlot, count);
      continue;
    }
    if (open) {
      lua_pushnil(L_);
      lua_rawseti(L_, set, kOpenSlot);
      WriteSlot(L_, set, kOpenCountSlot, 0);
    }
    AppendSealed(L_, set, list, count);
    if (SealedCount(L_, set) >= ReadSlot(L_, set, kPruneSlot)) Prune(L_, set);
  }
}

// For each kind: every live table of the sealed batches, then of the open
// batch below its stored count, gets metas[table] = metadata. The open
// batch's entries are cleared as they are recorded: growing the table of
// metadata may run a finalizer that decodes, and what it lists stays for the
// next flush.
void FlushDeferredAnnotations(lua_State* L, int metas) {
  luaL_checkstack(L, RunTime::kPushHeadroom, "json annotations");
  for (int type = 0; type < 2; ++type) {
    if (lua_rawgetp(L, LUA_REGISTRYINDEX, &kDeferredKeys[type]) != LUA_TTABLE) {
      lua_pop(L, 1);
      continue;
    }
    const int set = lua_gettop(L);
    PushSharedMetadata(L, type);
    const int metadata = lua_gettop(L);

    const lua_Integer n = TakeSealed(L, set);
    const int sealed = lua_gettop(L);
    WriteSlot(L, set, kPruneSlot, kMinPruneBatches);
    for (lua_Integer b = 1; b <= n; ++b) {
      if (lua_rawgeti(L, sealed, 2 * b - 1) != LUA_TTABLE) {
        lua_pop(L, 1);
        continue;
      }
      const int batch = lua_gettop(L);
      lua_pushnil(L);
      while (lua_next(L, batch) != 0) {  // [batch, key, table]
        if (lua_type(L, -1) != LUA_TTABLE) {
          lua_pop(L, 1);
          continue;
        }
        lua_pushvalue(L, metadata);
        lua_rawset(L, metas);
      }
      lua_pop(L, 1);
    }
    lua_pop(L, 1);

    if (lua_rawgeti(L, set, kOpenSlot) == LUA_TTABLE) {
      const int list = lua_gettop(L);
      const lua_Integer count = OpenCount(L, set);
      for (lua_Integer i = 1; i <= count; ++i) {
        if (lua_rawgeti(L, list, i) != LUA_TTABLE) {
          lua_pop(L, 1);
          continue;
        }
        lua_pushvalue(L, metadata);
        lua_rawset(L, metas);
        lua_pushnil(L);
        lua_rawseti(L, list, i);
      }
      // What a finalizer listed meanwhile moves down to the front, unless a
      // decode sealed the batch with it.
      lua_rawgeti(L, set, kOpenSlot);
      const bool open = lua_rawequal(L, -1, list) != 0;
      lua_pop(L, 1);
      if (open && count > 0) {
        lua_Integer now = ReadSlot(L, set, kOpenCountSlot);
        if (now < count || now >= kSealCount) now = count;
        for (lua_Integer i = count + 1; i <= now; ++i) {
          lua_rawgeti(L, list, i);
          lua_rawseti(L, list, i - count);
          lua_pushnil(L);
          lua_rawseti(L, list, i);
        }
        WriteSlot(L, set, kOpenCountSlot, now - count);
      }
    }
    lua_pop(L, 3);
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
