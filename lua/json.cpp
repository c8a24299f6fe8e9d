#include "lua/json.h"

#include <algorithm>
#include <exception>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "lua/internal/handles.h"
#include "lua/internal/json_meta.h"
#include "utils/internal/native_stack.h"

namespace lua {

namespace {

const char kInvalidReference[] = "Invalid reference";

// The key's text as tostring() gives it.
std::string KeyText(lua_State* L, int index) {
  size_t length = 0;
  if (lua_type(L, index) == LUA_TSTRING) {
    const char* text = lua_tolstring(L, index, &length);
    return std::string(text, length);
  }
  const char* text = luaL_tolstring(L, index, &length);
  std::string result(text, length);
  lua_pop(L, 1);
  return result;
}

// jsoncpp addresses array elements with 32-bit indices, and an array's size is
// its last index + 1, so the largest usable key is UINT_MAX.
bool ArrayKey(lua_State* L, int index, Json::ArrayIndex* position) {
  if (!lua_isinteger(L, index)) return false;
  const lua_Integer key = lua_tointeger(L, index);
  if (key < 1 || static_cast<unsigned long long>(key) > std::numeric_limits<Json::ArrayIndex>::max()) {
    return false;
  }
  *position = static_cast<Json::ArrayIndex>(key - 1);
  return true;
}

// An array is as long as its last index, so a few keys could ask for
// gigabytes of nulls: one longer than kMaxSparseLength and more than
// kMaxLengthPerPair times its number of pairs is refused.
constexpr unsigned long long kMaxSparseLength = 1000000;
constexpr unsigned long long kMaxLengthPerPair = 4;

// Script values to Json::Value. Tables are walked on the raw stack; every
// level restores the stack it found.
class LuaToJson {
 public:
  explicit LuaToJson(RunTime& rt) : rt_(rt), L_(rt.State()) {
    rt_.EnsureFreeStackSlots(RunTime::kPushHeadroom);
    metas_ = detatils::PushAllMetadatas(L_);
  }

  Json::Value Value(int index, int depth) {
    switch (lua_type(L_, index)) {
      case LUA_TNIL: return Json::Value();
      case LUA_TBOOLEAN: return Json::Value(lua_toboolean(L_, index) != 0);
      case LUA_TNUMBER:
        if (lua_isinteger(L_, index)) return Json::Value(static_cast<Json::Int64>(lua_tointeger(L_, index)));
        return Json::Value(lua_tonumber(L_, index));
      case LUA_TTABLE: return Table(index, depth);
      case LUA_TLIGHTUSERDATA:
        if (lua_touserdata(L_, index) == JsonNullValue()) return Json::Value();
        break;
      default: break;
    }
    return Json::Value(KeyText(L_, index));
  }

  Json::Value Table(int index, int depth) {
    const lua_Integer type = detatils::AnnotationOf(L_, metas_, index);
    switch (type) {
      case JsonAnnotatedObject: return Object(index, depth);
      case JsonAnnotatedArray: return Array(index, depth);
      case JsonNotAnnotated: return ArrayOrObject(index, depth);
      default: break;
    }
    throw RunTimeError("AsJsonValue(): bad annotated type: '" + std::to_string(type) + "'");
  }

  Json::Value Array(int index, int depth) {
    Enter(depth);
    Json::Value result(Json::arrayValue);
    unsigned long long pairs = 0;  // counted when an index first goes far
    lua_pushnil(L_);
    while (lua_next(L_, index) != 0) {  // [key, value]
      if (lua_type(L_, -2) != LUA_TNUMBER) throw RunTimeError(kInvalidReference);
      Json::ArrayIndex position = 0;
      if (!ArrayKey(L_, -2, &position)) {
        throw RunTimeError("AsJsonArray(): invalid array index: '" + KeyText(L_, -2) + "'");
      }
      if (position >= result.size()) {
        if (pairs == 0) pairs = PairCount(index);
        CheckLength(position, pairs);
      }
      result[position] = Value(lua_gettop(L_), depth + 1);
      lua_pop(L_, 1);
    }
    return result;
  }

  Json::Value Object(int index, int depth) {
    Enter(depth);
    Json::Value result(Json::objectValue);
    lua_pushnil(L_);
    while (lua_next(L_, index) != 0) {  // [key, value]
      // Named first: luaL_tolstring pushes above the value.
      const std::string name = KeyText(L_, -2);
      result[name] = Value(lua_gettop(L_), depth + 1);
      lua_pop(L_, 1);
    }
    return result;
  }

  // Each value is converted once and kept with its key until the keys have
  // decided between array and object; building both side by side would copy
  // every nested value once per level.
  Json::Value ArrayOrObject(int index, int depth) {
    Enter(depth);
    struct Entry {
      bool positional;
      Json::ArrayIndex position;
      std::string name;
      Json::Value value;
    };
    std::vector<Entry> entries;
    bool arrayLike = true;
    Json::ArrayIndex last = 0;
    lua_pushnil(L_);
    while (lua_next(L_, index) != 0) {  // [key, value]
      Entry entry{false, 0, std::string(), Json::Value()};
      if (ArrayKey(L_, -2, &entry.position)) {
        entry.positional = true;
        last = std::max(last, entry.position);
      } else {
        arrayLike = false;
        entry.name = KeyText(L_, -2);
      }
      entry.value = Value(lua_gettop(L_), depth + 1);
      entries.push_back(std::move(entry));
      lua_pop(L_, 1);
    }
    if (arrayLike) {
      if (!entries.empty()) CheckLength(last, entries.size());
      Json::Value result(Json::arrayValue);
      for (Entry& entry : entries) result[entry.position] = std::move(entry.value);
      return result;
    }
    Json::Value result(Json::objectValue);
    for (Entry& entry : entries) {
      // An integer key's text is its decimal form, as tostring() gives it.
      const std::string name =
          entry.positional ? std::to_string(static_cast<unsigned long long>(entry.position) + 1) : entry.name;
      result[name] = std::move(entry.value);
    }
    return result;
  }

 private:
  static void CheckLength(Json::ArrayIndex last, unsigned long long pairs) {
    const unsigned long long length = static_cast<unsigned long long>(last) + 1;
    if (length > kMaxSparseLength && length > kMaxLengthPerPair * pairs) {
      throw RunTimeError("AsJsonValue(): array too sparse (index " + std::to_string(length) + " with " +
                         std::to_string(pairs) + " elements)");
    }
  }

  unsigned long long PairCount(int index) {
    unsigned long long pairs = 0;
    lua_pushnil(L_);
    while (lua_next(L_, index) != 0) {
      lua_pop(L_, 1);
      ++pairs;
    }
    return pairs;
  }

  void Enter(int depth) {
    if (depth >= kMaxJsonDepth) {
      throw RunTimeError("AsJsonValue(): tables nested deeper than " + std::to_string(kMaxJsonDepth) +
                         " levels (a table that contains itself?)");
    }
    if (utils::NativeStackLeft() < utils::kNativeStackReserve) {
      throw RunTimeError("AsJsonValue(): tables nested too deep for the thread's stack");
    }
    rt_.EnsureFreeStackSlots(RunTime::kPushHeadroom);
  }

  RunTime& rt_;
  lua_State* L_;
  int metas_ = 0;
};

// Json::Value to script values, annotating every table it makes. The table of
// metadata and the two shared metadata tables sit on the stack below the
// value while it is built.
class JsonToLua {
 public:
  explicit JsonToLua(RunTime& rt) : rt_(rt), L_(rt.State()) {
    rt_.EnsureFreeStackSlots(RunTime::kPushHeadroom);
    base_ = lua_gettop(L_);
    metas_ = detatils::PushAllMetadatas(L_);
    if (metas_ != 0) {
      detatils::PushSharedMetadata(L_, JsonAnnotatedObject);
      objectMeta_ = lua_gettop(L_);
      detatils::PushSharedMetadata(L_, JsonAnnotatedArray);
      arrayMeta_ = lua_gettop(L_);
    }
  }

  // Pushes the converted value, then drops the helpers below it.
  void Convert(const Json::Value& value) {
    Push(value, 0);
    if (lua_gettop(L_) > base_ + 1) {
      lua_replace(L_, base_ + 1);
      lua_settop(L_, base_ + 1);
    }
  }

 private:
  void Push(const Json::Value& value, int depth) {
    switch (value.type()) {
      case Json::intValue:
      case Json::uintValue:
        // Above the signed range jsoncpp throws, which is the caller's error.
        lua_pushinteger(L_, static_cast<lua_Integer>(value.asInt64()));
        return;
      case Json::realValue: lua_pushnumber(L_, value.asDouble()); return;
      case Json::stringValue: lua_pushstring(L_, value.asCString()); return;
      case Json::booleanValue: lua_pushboolean(L_, value.asBool() ? 1 : 0); return;
      case Json::arrayValue: PushArray(value, depth); return;
      case Json::objectValue: PushObject(value, depth); return;
      default: lua_pushnil(L_); return;
    }
  }

  void PushArray(const Json::Value& value, int depth) {
    Enter(depth);
    lua_createtable(L_, static_cast<int>(value.size()), 0);
    const int table = lua_gettop(L_);
    Annotate(table, arrayMeta_);
    for (auto it = value.begin(); it != value.end(); ++it) {
      if (it->isNull()) continue;
      Push(*it, depth + 1);
      lua_rawseti(L_, table, static_cast<lua_Integer>(it.index()) + 1);
    }
  }

  void PushObject(const Json::Value& value, int depth) {
    Enter(depth);
    lua_createtable(L_, 0, static_cast<int>(value.size()));
    const int table = lua_gettop(L_);
    Annotate(table, objectMeta_);
    for (auto it = value.begin(); it != value.end(); ++it) {
      if (it->isNull()) continue;
      const char* end = nullptr;
      const char* name = it.memberName(&end);
      lua_pushlstring(L_, name, static_cast<size_t>(end - name));
      Push(*it, depth + 1);
      lua_rawset(L_, table);
    }
  }

  void Annotate(int table, int metadata) {
    if (metas_ == 0) return;
    lua_pushvalue(L_, table);
    lua_pushvalue(L_, metadata);
    lua_rawset(L_, metas_);
  }

  void Enter(int depth) {
    if (depth >= kMaxJsonDepth) {
      throw RunTimeError("ConvertToLuaObject(): JSON nested deeper than " + std::to_string(kMaxJsonDepth) +
                         " levels");
    }
    if (utils::NativeStackLeft() < utils::kNativeStackReserve) {
      throw RunTimeError("ConvertToLuaObject(): JSON nested too deep for the thread's stack");
    }
    rt_.EnsureFreeStackSlots(RunTime::kPushHeadroom);
  }

  RunTime& rt_;
  lua_State* L_;
  int base_ = 0;
  int metas_ = 0;
  int objectMeta_ = 0;
  int arrayMeta_ = 0;
};

}  // namespace

Json::Value ObjectRef::AsJsonValue() const {
  switch (type_) {
    case LUA_TNUMBER:
      CheckRef(LUA_TNUMBER);
      if (lua_isinteger(L(), index_)) return Json::Value(static_cast<Json::Int64>(lua_tointeger(L(), index_)));
      return Json::Value(lua_tonumber(L(), index_));
    case LUA_TBOOLEAN: return Json::Value(AsBool());
    case LUA_TNIL: return Json::Value();
    case LUA_TLIGHTUSERDATA:
      if (IsValid() && lua_touserdata(L(), index_) == JsonNullValue()) return Json::Value();
      break;
    default: break;
  }
  return Json::Value(AsString());
}

Json::Value TableRef::AsJsonValue() const {
  CheckRef(LUA_TTABLE);
  RunTime::StackCleaner cleaner(GetRunTime());
  return LuaToJson(*GetRunTime()).Table(StackIndex(), 0);
}

Json::Value TableRef::AsJsonArray() const {
  CheckRef(LUA_TTABLE);
  RunTime::StackCleaner cleaner(GetRunTime());
  return LuaToJson(*GetRunTime()).Array(StackIndex(), 0);
}

Json::Value TableRef::AsJsonObject() const {
  CheckRef(LUA_TTABLE);
  RunTime::StackCleaner cleaner(GetRunTime());
  return LuaToJson(*GetRunTime()).Object(StackIndex(), 0);
}

Json::Value TableRef::AsJsonArrayOrObject() const {
  CheckRef(LUA_TTABLE);
  RunTime::StackCleaner cleaner(GetRunTime());
  return LuaToJson(*GetRunTime()).ArrayOrObject(StackIndex(), 0);
}

boost::shared_ptr<ObjectRef> RunTime::ConvertToLuaObject(const Json::Value& value) {
  JsonToLua(*this).Convert(value);
  return detatils::MakeHandle(shared_from_this(), lua_gettop(state_));
}

boost::shared_ptr<ObjectRef> RunTime::CreateAtStack(const Json::Value& value) {
  const int top = lua_gettop(state_);
  try {
    return ConvertToLuaObject(value);
  } catch (const std::exception& e) {
    lua_settop(state_, top);
    throw RunTimeError(std::string("CreateAtStack(): convert from Json to Lua error: ") + e.what());
  }
}

std::vector<boost::shared_ptr<ObjectRef>> RunTime::RunFile(const std::string& path, const Json::Value& args,
                                                           bool clearStack) {
  CreateAtStack(args);
  return RunImpl(ChunkKind::File, path, clearStack);
}

}  // namespace lua
