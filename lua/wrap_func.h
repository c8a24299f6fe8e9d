// lua::WrapFunc: turns a native function body into a lua_CFunction. The
// arguments arrive as handles, the body's result count is checked, and a host
// exception thrown by the body reaches the script as the error "Cpp: <what()>".
// Also the finalizer that destroys host objects kept in place in a userdata.
#pragma once

#include <vector>

#include <boost/shared_ptr.hpp>
#include <lua.hpp>

#include "lua/object_ref.h"
#include "lua/runtime.h"

namespace lua {

namespace detatils {

// The adapter's steps for one call of `body` from the state `L`.
int CallNative(lua_State* L, NativeBody body);
// The C closure made by RunTime::CreateAtStack(const NativeFunction&): calls the
// NativeFunction kept in its first upvalue the way CallNative calls a body.
int CallNativeClosure(lua_State* L);

// Destroys the T that a full userdata holds in place; used as its "__gc".
template <class T, bool InPlace>
class UserDataDefaultFinalizer;

template <class T>
class UserDataDefaultFinalizer<T, true> {
 public:
  static int Exec(boost::shared_ptr<RunTime>& rt, const std::vector<boost::shared_ptr<ObjectRef>>& args) {
    if (args.size() != 1) rt->Error("Expected 1 argument");
    lua_State* L = rt->State();
    const int index = args[0]->StackIndex();
    if (lua_type(L, index) == LUA_TUSERDATA) static_cast<T*>(lua_touserdata(L, index))->~T();
    return 0;
  }
};

}  // namespace detatils

template <NativeBody Body>
int WrapFunc(lua_State* L) {
  return detatils::CallNative(L, Body);
}

}  // namespace lua
