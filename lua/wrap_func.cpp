#include "lua/wrap_func.h"

#include <cxxabi.h>

#include <exception>
#include <memory>
#include <typeinfo>
#include <utility>

#include "lua/internal/handles.h"

// The interpreter's error record; only its pointer type is named here.
struct lua_longjmp;

namespace lua {
namespace detatils {

namespace {

// What one level of nested native calls on a thread reuses from call to call:
// the wrapper of the calling state and the argument handles. A wrapper only
// names its state, so one made earlier for the same state is as good as a new
// one; argument handles are rewritten in place unless a body kept them. This
// keeps a call free of allocations and of most reference-count traffic.
struct CallFrame {
  CallFrame() = default;
  CallFrame(const CallFrame&) = delete;
  CallFrame& operator=(const CallFrame&) = delete;
  ~CallFrame() {
    if (wrapper) HandleAccess::DropCache(*wrapper);
  }

  // What the body sees; normally `wrapper`, unless the body assigned to it.
  boost::shared_ptr<RunTime> rt;
  // The wrapper this level made, with its handle cache on: results that a
  // body makes through CreateAtStack are handed out again on later calls.
  boost::shared_ptr<RunTime> wrapper;
  std::vector<boost::shared_ptr<ObjectRef>> args;
  // Handles of earlier calls with more arguments, for later calls with more.
  std::vector<boost::shared_ptr<ObjectRef>> spare;
  // The host closure's function this level runs, if any.
  const void* running = nullptr;
};

// A call with many arguments should not pin that many handles for the life of
// the thread.
constexpr size_t kMaxPooledHandles = 32;

struct FrameStack {
  std::vector<std::unique_ptr<CallFrame>> levels;
  size_t depth = 0;
};

// The hot path reads only this plain pointer: no initialisation guard, and the
// initial-exec model spares the lookup a shared library's TLS access costs.
__attribute__((tls_model("initial-exec"))) thread_local FrameStack* tStack = nullptr;
__attribute__((tls_model("initial-exec"))) thread_local bool tStackGone = false;

// Frees the thread's frames at thread exit. Natives that run after it (a
// runtime closed by another thread_local's destructor) go without a pool.
struct FrameStackOwner {
  std::unique_ptr<FrameStack> stack;
  ~FrameStackOwner() {
    tStack = nullptr;
    tStackGone = true;
  }
};
thread_local FrameStackOwner tOwner;

FrameStack* ThreadStack() {
  if (tStack != nullptr || tStackGone) return tStack;
  tOwner.stack = std::make_unique<FrameStack>();
  tStack = tOwner.stack.get();
  return tStack;
}

// Takes the frame of the next nesting level for the duration of one call, also
// when a script error unwinds through it.
class FrameLease {
 public:
  __attribute__((always_inline)) FrameLease() : stack_(ThreadStack()) {
    if (stack_ == nullptr) {
      fallback_ = std::make_unique<CallFrame>();
      frame_ = fallback_.get();
      return;
    }
    if (stack_->depth == stack_->levels.size()) stack_->levels.push_back(std::make_unique<CallFrame>());
    frame_ = stack_->levels[stack_->depth].get();
    ++stack_->depth;
  }
  ~FrameLease() {
    if (stack_ != nullptr) --stack_->depth;
    frame_->running = nullptr;
    // A body may assign to its `rt`; only the wrapper made here stays in the frame.
    if (frame_->rt != frame_->wrapper) frame_->rt.reset();
    if (frame_->args.size() > kMaxPooledHandles) frame_->args.resize(kMaxPooledHandles);
  }
  FrameLease(const FrameLease&) = delete;
  FrameLease& operator=(const FrameLease&) = delete;

  CallFrame& Frame() { return *frame_; }

 private:
  FrameStack* stack_;
  std::unique_ptr<CallFrame> fallback_;
  CallFrame* frame_;
};

// Brings the frame's handle count to `n`, through the spare handles.
__attribute__((noinline)) void ResizeArgs(CallFrame& frame, size_t n) {
  std::vector<boost::shared_ptr<ObjectRef>>& args = frame.args;
  while (args.size() > n) {
    if (frame.spare.size() < kMaxPooledHandles) frame.spare.push_back(std::move(args.back()));
    args.pop_back();
  }
  while (args.size() < n) {
    if (frame.spare.empty()) {
      args.emplace_back();
    } else {
      args.push_back(std::move(frame.spare.back()));
      frame.spare.pop_back();
    }
  }
}

__attribute__((always_inline)) inline void PrepareArgs(CallFrame& frame, lua_State* L) {
  const size_t n = static_cast<size_t>(lua_gettop(L));
  // Most functions are called with the same count every time.
  if (frame.args.size() != n) ResizeArgs(frame, n);
  boost::shared_ptr<ObjectRef>* args = frame.args.data();
  for (size_t i = 0; i < n; ++i) HandleAccess::Retarget(args[i], frame.rt, L, static_cast<int>(i) + 1);
}

// Whether the exception being handled is an error the interpreter raised
// (built as C++, it throws a lua_longjmp pointer) rather than the host's.
bool IsInterpreterError() {
  const std::type_info* type = abi::__cxa_current_exception_type();
  return type != nullptr && *type == typeid(lua_longjmp*);
}

template <class Call>
int Invoke(lua_State* L, const void* running, Call&& call) {
  try {
    FrameLease lease;
    CallFrame& frame = lease.Frame();
    frame.running = running;
    if (!frame.wrapper || frame.wrapper->State() != L) {
      // The old wrapper's cached handles may hold it: drop them first.
      if (frame.wrapper) HandleAccess::DropCache(*frame.wrapper);
      frame.rt.reset();
      frame.wrapper = RunTime::Wrap(L);
      HandleAccess::EnableCache(*frame.wrapper);
    }
    if (frame.rt != frame.wrapper) frame.rt = frame.wrapper;
    PrepareArgs(frame, L);
    const int n = call(frame.rt, frame.args);
    if (n < 0) luaL_error(L, "Negative results count: %d", n);
    const int top = lua_gettop(L);
    if (n > top) {
      luaL_error(L, "Stack underflow: the results count is greater than the stack size: %d > %d", n, top);
    }
    return n;
  } catch (const std::exception& e) {
    luaL_error(L, "Cpp: %s", e.what());
    __builtin_unreachable();  // luaL_error raises and never returns
  } catch (...) {
    // The interpreter raises its own errors as C++ exceptions too: those go on.
    if (IsInterpreterError()) throw;
    luaL_error(L, "Cpp: unknown exception");
    __builtin_unreachable();
  }
}

}  // namespace

int CallNative(lua_State* L, NativeBody body) {
  return Invoke(L, nullptr,
                [body](boost::shared_ptr<RunTime>& rt, const std::vector<boost::shared_ptr<ObjectRef>>& args) {
                  return body(rt, args);
                });
}

int CallNativeClosure(lua_State* L) {
  // A script can finalize the function by hand or swap the upvalue
  // (debug.setupvalue); either way there is no function to call.
  const lua_CFunction finalizer = WrapFunc<&UserDataDefaultFinalizer<NativeFunction, true>::Exec>;
  if (!HoldsLiveObject(L, lua_upvalueindex(1), sizeof(NativeFunction), finalizer)) {
    luaL_error(L, "Cpp: native closure without its function");
  }
  const NativeFunction* function = static_cast<const NativeFunction*>(lua_touserdata(L, lua_upvalueindex(1)));
  return Invoke(L, function,
                [function](boost::shared_ptr<RunTime>& rt, const std::vector<boost::shared_ptr<ObjectRef>>& args) {
                  return (*function)(rt, args);
                });
}

bool HoldsLiveObject(lua_State* L, int index, size_t size, lua_CFunction finalizer) {
  if (lua_type(L, index) != LUA_TUSERDATA || lua_rawlen(L, index) != size) return false;
  if (!lua_checkstack(L, 2) || !lua_getmetatable(L, index)) return false;
  lua_pushliteral(L, "__gc");
  lua_rawget(L, -2);
  const bool live = lua_tocfunction(L, -1) == finalizer;
  lua_pop(L, 2);
  return live;
}

bool IsObjectRunning(const void* object) {
  const FrameStack* stack = tStack;
  if (stack == nullptr) return false;
  for (size_t i = 0; i < stack->depth; ++i) {
    if (stack->levels[i]->running == object) return true;
  }
  return false;
}

}  // namespace detatils
}  // namespace lua
