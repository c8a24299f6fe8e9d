// lua::WrapFunc: turns a native function body into a lua_CFunction. The
// arguments arrive as handles, the body's result count is checked, and a host
// exception thrown by the body reaches the script as the error "Cpp: <what()>".
// Also the finalizer that destroys host objects kept in place in a userdata.
#pragma once

#include <cstddef>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <lua.hpp>

#include "object_ref.h"
#include "runtime.h"

namespace lua {

template <NativeBody Body>
int WrapFunc(lua_State* L);

namespace detatils {

// The adapter's steps for one call of `body` from the state `L`.
int CallNative(lua_State* L, NativeBody body);
// The C closure made by RunTime::CreateAtStack(const NativeFunction&): calls the
// NativeFunction kept in its first upvalue the way CallNative calls a body.
int CallNativeClosure(lua_State* L);

// Whether the slot is a full userdata of `size` bytes whose metatable names
// `finalizer` as its "__gc": one whose object is still to be destroyed. A
// finalizer detaches the metatable when it destroys the object, so a script
// that calls "__gc" by hand leaves a userdata that fails this test.
bool HoldsLiveObject(lua_State* L, int index, size_t size, lua_CFunction finalizer);
// Whether a native call on this thread is running the object (a host
// closure's function) right now.
bool IsObjectRunning(const void* object);

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
    // Scripts reach "__gc" too (debug.getmetatable): anything but a live
    // object of ours is left alone, which also makes a second call harmless.
    if (!HoldsLiveObject(L, index, sizeof(T), &WrapFunc<&Exec>)) return 0;
    T* object = static_cast<T*>(lua_touserdata(L, index));
    if (IsObjectRunning(object)) rt->Error("Cannot release an object while it runs");
    // Detached before the destructor runs, so nothing it sets off can
    // destroy the object again.
    lua_pushnil(L);
    lua_setmetatable(L, index);
    object->~T();
    return 0;
  }
};

}  // namespace detatils

template <NativeBody Body>
int WrapFunc(lua_State* L) {
  return detatils::CallNative(L, Body);
}

}  // namespace lua
