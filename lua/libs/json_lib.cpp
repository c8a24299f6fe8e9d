// The json script library: JSON text and files to script values and back,
// json.null, array and object annotation, and a handle to a file-backed store.
// Decoding parses with simdjson and builds Lua values from its tree; encoding writes
// through utils::JsonWriter. Both follow the host conversion's rules: arrays
// and objects are annotated, null members and elements are left out, and the
// annotation decides how a table is written back where its keys allow both
// forms (an empty table, or one with index keys only).
#include "lua/libs/json_internal.h"

#include <cstring>
#include <mutex>
#include <string>

#include "lua/internal/json_meta.h"
#include "lua/json.h"
#include "lua/libs/libs.h"
#include "lua/libs/register.h"
#include "lua/wrap_func.h"

namespace lua {
namespace jsonlib {

// Reads {pretty = bool} at `index` (absent or nil: defaults).
bool ReadPretty(boost::shared_ptr<RunTime>& rt, int index) {
  lua_State* L = rt->State();
  const int type = lua_type(L, index);
  if (type == LUA_TNONE || type == LUA_TNIL) return false;
  if (type != LUA_TTABLE) rt->Error("Bad argument: options must be a table");
  bool pretty = false;
  lua_pushnil(L);
  while (lua_next(L, index) != 0) {  // [key, value]
    if (lua_type(L, -2) != LUA_TSTRING || std::strcmp(lua_tostring(L, -2), "pretty") != 0) {
      rt->Error(std::string("Bad argument: unknown option '") + luaL_tolstring(L, -2, nullptr) + "'");
    }
    if (lua_type(L, -1) != LUA_TBOOLEAN) rt->Error("Bad argument: pretty must be a boolean");
    pretty = lua_toboolean(L, -1) != 0;
    lua_pop(L, 1);
  }
  return pretty;
}

std::string StringArg(boost::shared_ptr<RunTime>& rt, int index, const char* name) {
  lua_State* L = rt->State();
  if (lua_type(L, index) != LUA_TSTRING) rt->Error(std::string("Bad argument: ") + name + " must be a string");
  size_t size = 0;
  const char* text = lua_tolstring(L, index, &size);
  return std::string(text, size);
}

// The system would end the path at a NUL and use another file.
std::string PathArg(boost::shared_ptr<RunTime>& rt, int index) {
  std::string path = StringArg(rt, index, "path");
  if (path.find('\0') != std::string::npos) rt->Error("Bad argument: path contains a NUL byte");
  return path;
}

int PushFailure(lua_State* L, const std::string& message) {
  lua_pushnil(L);
  lua_pushlstring(L, message.data(), message.size());
  return 2;
}

namespace {

int Decode(boost::shared_ptr<RunTime>& rt, const Args& args) {
  if (args.size() != 1) rt->Error("Bad arguments, expected: (text)");
  lua_State* L = rt->State();
  if (lua_type(L, 1) != LUA_TSTRING) rt->Error("Bad argument: text must be a string");
  size_t size = 0;
  const char* text = lua_tolstring(L, 1, &size);
  std::string error;
  if (DecodeText(L, text, size, &error)) return 1;
  return PushFailure(L, error);
}

int Encode(boost::shared_ptr<RunTime>& rt, const Args& args) {
  if (args.empty() || args.size() > 2) rt->Error("Bad arguments, expected: (value[, {pretty = bool}])");
  const bool pretty = ReadPretty(rt, 2);
  std::string text;
  std::string error;
  if (!EncodeValue(rt->State(), 1, pretty, &text, &error)) rt->Error("json.encode: " + error);
  lua_pushlstring(rt->State(), text.data(), text.size());
  return 1;
}

// json.array([t]) and json.object([t]): annotate t (or a new table), return it.
int Annotate(boost::shared_ptr<RunTime>& rt, const Args& args, JsonAnnotatedType type, const char* usage) {
  lua_State* L = rt->State();
  if (args.size() > 1) rt->Error(std::string("Bad arguments, expected: ") + usage);
  const int argType = lua_type(L, 1);
  if (argType == LUA_TNONE || argType == LUA_TNIL) {
    lua_settop(L, 0);
    lua_newtable(L);
  } else if (argType != LUA_TTABLE) {
    rt->Error("Bad argument: expected a table");
  }
  luaL_checkstack(L, RunTime::kPushHeadroom, "json");
  const int metas = detatils::PushAllMetadatas(L);
  if (metas != 0) {
    detatils::Annotate(L, metas, 1, type);
    lua_pop(L, 1);
  }
  lua_settop(L, 1);
  return 1;
}

int MakeArray(boost::shared_ptr<RunTime>& rt, const Args& args) {
  return Annotate(rt, args, JsonAnnotatedArray, "([table])");
}

int MakeObject(boost::shared_ptr<RunTime>& rt, const Args& args) {
  return Annotate(rt, args, JsonAnnotatedObject, "([table])");
}

// The table of metadata's __index and __newindex: a script that reads or
// writes it directly sees the annotations that decoding deferred.
int MetadatasIndex(lua_State* L) {
  detatils::FlushDeferredAnnotations(L, 1);
  lua_settop(L, 2);
  lua_rawget(L, 1);
  return 1;
}

int MetadatasNewIndex(lua_State* L) {
  detatils::FlushDeferredAnnotations(L, 1);
  lua_settop(L, 3);
  lua_rawset(L, 1);
  return 0;
}

void InitJsonLib(boost::shared_ptr<RunTime>& rt, boost::shared_ptr<TableRef>& table) {
  RunTime::StackCleaner cleaner(rt);
  const boost::shared_ptr<TableRef> metas = rt->CreateWeakTableAtStack(RunTime::WeakKeys);
  lua_State* L = rt->State();
  lua_getmetatable(L, metas->StackIndex());
  lua_pushcfunction(L, MetadatasIndex);
  lua_setfield(L, -2, "__index");
  lua_pushcfunction(L, MetadatasNewIndex);
  lua_setfield(L, -2, "__newindex");
  lua_pop(L, 1);
  table->Set(GetAllMetadatasTableName(), metas);
  table->Set("null", JsonNullValue());
  rt->EnsureFreeStackSlots(RunTime::kPushHeadroom);
  CreateStorageMetatable(rt->State());
}

}  // namespace

}  // namespace jsonlib

void RegisterJsonLib() {
  using namespace jsonlib;
  // "null" and the table of metadata are placeholders that InitJsonLib fills.
  const luaL_Reg kJsonLib[] = {
      {"decode", WrapFunc<&Decode>},
      {"encode", WrapFunc<&Encode>},
      {"array", WrapFunc<&MakeArray>},
      {"object", WrapFunc<&MakeObject>},
      {"load", WrapFunc<&Load>},
      {"save", WrapFunc<&Save>},
      {"storage", WrapFunc<&OpenStorage>},
      {"null", nullptr},
      {GetAllMetadatasTableName().c_str(), nullptr},
  };
  static std::once_flag once;
  detail::RegisterLibOnce(once, "json", kJsonLib, InitJsonLib);
}

}  // namespace lua
