// Handle plumbing shared by the runtime, the handles and the adapter: index
// checks the C interface leaves to its caller, handle construction, and
// in-place reuse of handles on hot paths.
#pragma once

#include <cstddef>
#include <utility>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <lua.hpp>

#include "lua/internal/block_pool.h"
#include "lua/object_ref.h"
#include "lua/runtime.h"

namespace lua {
namespace detatils {

// Whether `index` may be handed to lua_type and friends. Negative indices below
// the bottom and upvalue indices outside a C function would read foreign memory.
inline bool IsAcceptableIndex(lua_State* L, int index) {
  if (index > 0 || index == LUA_REGISTRYINDEX) return true;
  if (index > LUA_REGISTRYINDEX) return index != 0 && -index <= lua_gettop(L);
  lua_Debug ar;
  return lua_getstack(L, 0, &ar) != 0;
}

// Whether lua_topointer can tell two values of this type apart; for the other
// types it returns null, so handles skip the call.
inline bool HasIdentity(int type) {
  constexpr unsigned kIdentityTypes = (1u << LUA_TLIGHTUSERDATA) | (1u << LUA_TTABLE) | (1u << LUA_TFUNCTION) |
                                      (1u << LUA_TUSERDATA) | (1u << LUA_TTHREAD);
  return type >= 0 && ((1u << type) & kIdentityTypes) != 0;
}

// A handle and its count block from the thread's block pool. boost::make_shared
// is avoided: it costs two extra atomic count updates (it returns a copy of a
// temporary), dearer than the allocations it saves.
template <class Handle>
boost::shared_ptr<Handle> NewHandle(boost::shared_ptr<RunTime> rt, int index) {
  void* block = AllocateSmallBlock(sizeof(Handle));
  Handle* handle = nullptr;
  try {
    handle = new (block) Handle(std::move(rt), index);
  } catch (...) {
    FreeSmallBlock(block, sizeof(Handle));
    throw;
  }
  return boost::shared_ptr<Handle>(handle, SmallBlockDelete<Handle>(), SmallBlockAllocator<Handle>());
}

class HandleAccess {
 public:
  // Enough for the arguments and results of a call or two.
  static constexpr size_t kMaxCachedHandles = 8;

  // A handle to the slot `absIndex`: a TableRef for a table, else an ObjectRef.
  static boost::shared_ptr<ObjectRef> Make(boost::shared_ptr<RunTime> rt, int absIndex) {
    lua_State* L = rt->State();
    const int type = lua_type(L, absIndex);
    if (type == LUA_TTABLE) return NewHandle<TableRef>(std::move(rt), absIndex);
    // Made empty and filled here, which spares the constructor's second type query.
    boost::shared_ptr<ObjectRef> handle = NewHandle<ObjectRef>(std::move(rt), 0);
    Point(*handle, L, type, absIndex);
    return handle;
  }

  // Points `handle` at the slot `absIndex`. A handle nobody else holds is
  // rewritten in place when its kind (table or not) still fits, which saves an
  // allocation and the reference-count traffic of a new handle. A weak_ptr to
  // such a handle would see it move; handles are not meant to be held weakly.
  static void Retarget(boost::shared_ptr<ObjectRef>& handle, const boost::shared_ptr<RunTime>& rt,
                       int absIndex) {
    Retarget(handle, rt, rt->State(), absIndex);
  }
  // As above, with `L` the state of `rt`.
  static void Retarget(boost::shared_ptr<ObjectRef>& handle, const boost::shared_ptr<RunTime>& rt, lua_State* L,
                       int absIndex) {
    const int type = lua_type(L, absIndex);
    ObjectRef* current = handle.get();
    if (current != nullptr && handle.unique() && (current->type_ == LUA_TTABLE) == (type == LUA_TTABLE)) {
      Point(*current, L, type, absIndex);
      if (current->rt_ != rt) current->rt_ = rt;
      return;
    }
    Replace(handle, rt, absIndex);
  }

  // A handle to the slot `absIndex` of `rt` for the CreateAtStack family.
  // Where the runtime's cache is on, a non-table slot gets a cached handle
  // that nobody else holds any more, rewritten in place: handing it out costs
  // one count update, and dropping it one, against four (the runtime's count
  // taken and given back, the handle's two) and two pool blocks for a new one.
  // `type` is the slot's type, which the caller may know without asking.
  static boost::shared_ptr<ObjectRef> Cached(RunTime& rt, int absIndex, int type) {
    if (rt.handleCacheOn_ && type != LUA_TTABLE) {
      for (boost::shared_ptr<ObjectRef>& handle : rt.handleCache_) {
        if (handle.unique()) {
          Point(*handle, rt.state_, type, absIndex);
          return handle;
        }
      }
    }
    return Uncached(rt, absIndex, type);
  }

  static void EnableCache(RunTime& rt) { rt.handleCacheOn_ = true; }

  // Breaks the cycle between the runtime and its cached handles. The handles
  // are released after the runtime is done with them, since the last of them
  // may hold the last reference to it.
  static void DropCache(RunTime& rt) noexcept {
    rt.handleCacheOn_ = false;
    std::vector<boost::shared_ptr<ObjectRef>> handles;
    handles.swap(rt.handleCache_);
  }

 private:
  // The slow paths, kept out of line so that the hot ones stay small.
  __attribute__((noinline)) static void Replace(boost::shared_ptr<ObjectRef>& handle,
                                                const boost::shared_ptr<RunTime>& rt, int absIndex) {
    handle = Make(rt, absIndex);
  }
  __attribute__((noinline)) static boost::shared_ptr<ObjectRef> Uncached(RunTime& rt, int absIndex, int type) {
    boost::shared_ptr<ObjectRef> handle = Make(rt.shared_from_this(), absIndex);
    if (rt.handleCacheOn_ && type != LUA_TTABLE && rt.handleCache_.size() < kMaxCachedHandles) {
      rt.handleCache_.push_back(handle);
    }
    return handle;
  }

  static void Point(ObjectRef& handle, lua_State* L, int type, int absIndex) {
    handle.type_ = type;
    handle.index_ = absIndex;
    handle.pointer_ = HasIdentity(type) ? lua_topointer(L, absIndex) : nullptr;
  }
};

inline boost::shared_ptr<ObjectRef> CachedHandle(RunTime& rt, int absIndex) {
  return HandleAccess::Cached(rt, absIndex, lua_type(rt.State(), absIndex));
}

// As CachedHandle, for a slot just filled with a value of `type`.
inline boost::shared_ptr<ObjectRef> CachedHandle(RunTime& rt, int absIndex, int type) {
  return HandleAccess::Cached(rt, absIndex, type);
}

inline boost::shared_ptr<ObjectRef> MakeHandle(boost::shared_ptr<RunTime> rt, int absIndex) {
  return HandleAccess::Make(std::move(rt), absIndex);
}

}  // namespace detatils
}  // namespace lua
