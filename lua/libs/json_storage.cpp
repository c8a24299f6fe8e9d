// json.storage: a script handle to a utils::JsonPersistentStorage, a JSON
// object kept in a file.
#include "lua/libs/json_internal.h"

#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include <json/reader.h>
#include <json/value.h>

#include "lua/internal/json_meta.h"
#include "lua/json.h"
#include "lua/wrap_func.h"
#include "utils/json_storage.h"

namespace lua {
namespace jsonlib {

namespace {

using Storage = std::shared_ptr<utils::JsonPersistentStorage>;

const char kStorageMetatable[] = "corvane.json.storage";

}  // namespace

int OpenStorage(boost::shared_ptr<RunTime>& rt, const Args& args) {
  if (args.size() != 1) rt->Error("Bad arguments, expected: (path)");
  const std::string path = PathArg(rt, 1);
  lua_State* L = rt->State();
  Storage storage = std::make_shared<utils::JsonPersistentStorage>(path);
  std::string error;
  if (!storage->IsLoaded(&error)) return PushFailure(L, error);
  luaL_checkstack(L, RunTime::kPushHeadroom, "json.storage");
  void* block = lua_newuserdata(L, sizeof(Storage));
  // Constructed before the metatable brings the finalizer along.
  new (block) Storage(std::move(storage));
  luaL_setmetatable(L, kStorageMetatable);
  return 1;
}

namespace {

// A copy of the handle's pointer: a script finalizer that the collector runs
// during the method may release the handle, and the store must outlive the call.
Storage StorageArg(boost::shared_ptr<RunTime>& rt, const Args& args, size_t count, const char* usage) {
  lua_State* L = rt->State();
  void* block = luaL_testudata(L, 1, kStorageMetatable);
  if (block == nullptr || lua_rawlen(L, 1) != sizeof(Storage)) {
    // Its finalizer detaches the metatable (debug.getmetatable lets a script call it).
    if (lua_type(L, 1) == LUA_TUSERDATA && lua_getmetatable(L, 1) == 0) {
      rt->Error("Bad argument: the json storage handle was already released");
    }
    rt->Error("Bad argument: expected a json storage handle (call the method with ':')");
  }
  if (args.size() != count) rt->Error(std::string("Bad arguments, expected: ") + usage);
  Storage storage = *static_cast<Storage*>(block);
  if (!storage) rt->Error("Bad argument: the json storage handle was already released");
  return storage;
}

int StorageGet(boost::shared_ptr<RunTime>& rt, const Args& args) {
  const Storage storage = StorageArg(rt, args, 2, "(key)");
  const std::string key = StringArg(rt, 2, "key");
  Json::Value value;
  if (!storage->Get(key, &value)) return rt->NilResult();
  rt->CreateAtStack(value);
  return 1;
}

int StorageSet(boost::shared_ptr<RunTime>& rt, const Args& args) {
  const Storage storage = StorageArg(rt, args, 3, "(key, value)");
  const std::string key = StringArg(rt, 2, "key");
  lua_State* L = rt->State();
  if (lua_isnil(L, 3)) {
    storage->Remove(key);
    return rt->VoidResult();
  }
  // Through the text, so that a stored value follows json.encode's rules.
  std::string text;
  std::string error;
  if (!EncodeValue(L, 3, false, &text, &error, true)) rt->Error("json.storage: " + error);
  Json::Value value;
  std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  if (!reader->parse(text.data(), text.data() + text.size(), &value, &error)) rt->Error("json.storage: " + error);
  storage->Set(key, value);
  return rt->VoidResult();
}

int StorageRemove(boost::shared_ptr<RunTime>& rt, const Args& args) {
  const Storage storage = StorageArg(rt, args, 2, "(key)");
  const bool removed = storage->Remove(StringArg(rt, 2, "key"));
  lua_pushboolean(rt->State(), removed ? 1 : 0);
  return 1;
}

int StorageKeys(boost::shared_ptr<RunTime>& rt, const Args& args) {
  const Storage storage = StorageArg(rt, args, 1, "()");
  const std::vector<std::string> keys = storage->Keys();
  lua_State* L = rt->State();
  luaL_checkstack(L, RunTime::kPushHeadroom, "json.storage");
  lua_createtable(L, static_cast<int>(keys.size()), 0);
  const int table = lua_gettop(L);
  lua_Integer i = 0;
  for (const std::string& key : keys) {
    lua_pushlstring(L, key.data(), key.size());
    lua_rawseti(L, table, ++i);
  }
  const int metas = detatils::PushAllMetadatas(L);
  if (metas != 0) {
    detatils::Annotate(L, metas, table, JsonAnnotatedArray);
    lua_pop(L, 1);
  }
  return 1;
}

int StorageSave(boost::shared_ptr<RunTime>& rt, const Args& args) {
  const Storage storage = StorageArg(rt, args, 1, "()");
  std::string error;
  if (!storage->Save(&error)) return PushFailure(rt->State(), error);
  lua_pushboolean(rt->State(), 1);
  return 1;
}

int StorageReload(boost::shared_ptr<RunTime>& rt, const Args& args) {
  const Storage storage = StorageArg(rt, args, 1, "()");
  std::string error;
  if (!storage->Reload(&error)) return PushFailure(rt->State(), error);
  lua_pushboolean(rt->State(), 1);
  return 1;
}

int StorageToString(boost::shared_ptr<RunTime>& rt, const Args& args) {
  const Storage storage = StorageArg(rt, args, 1, "()");
  const std::string text = "json.storage (" + storage->Path() + ")";
  lua_pushlstring(rt->State(), text.data(), text.size());
  return 1;
}

}  // namespace

// The storage handles' metatable, once per runtime. "__metatable" keeps
// getmetatable away from "__gc"; debug.getmetatable still reaches it, which
// the finalizer and StorageArg allow for.
void CreateStorageMetatable(lua_State* L) {
  static const luaL_Reg kMethods[] = {
      {"get", WrapFunc<&StorageGet>},       {"set", WrapFunc<&StorageSet>},   {"remove", WrapFunc<&StorageRemove>},
      {"keys", WrapFunc<&StorageKeys>},     {"save", WrapFunc<&StorageSave>}, {"reload", WrapFunc<&StorageReload>},
      {nullptr, nullptr}};
  luaL_newmetatable(L, kStorageMetatable);
  luaL_newlib(L, kMethods);
  lua_setfield(L, -2, "__index");
  const lua_CFunction finalizer = WrapFunc<&detatils::UserDataDefaultFinalizer<Storage, true>::Exec>;
  lua_pushcfunction(L, finalizer);
  lua_setfield(L, -2, "__gc");
  lua_pushcfunction(L, WrapFunc<&StorageToString>);
  lua_setfield(L, -2, "__tostring");
  lua_pushliteral(L, "json.storage");
  lua_setfield(L, -2, "__metatable");
  lua_pop(L, 1);
}

}  // namespace jsonlib
}  // namespace lua
