// lua::RunTime: one Lua 5.3 interpreter state and its value stack, the
// exceptions that carry script errors to the host, and StackCleaner, the scope
// guard that restores the stack. Handles (lua/object_ref.h) and native
// functions (lua/wrap_func.h) reach the interpreter through a RunTime.
//
// A RunTime is always held by boost::shared_ptr. It takes no lock: one thread at
// a time may use it and every handle made from it.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <initializer_list>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>
#include <json/value.h>
#include <lua.hpp>

#include "../utils/noncopyable.h"

namespace lua {

class ObjectRef;
class TableRef;
class RunTime;

namespace detatils {
class CallControl;
struct MemoryAccount;
class HandleAccess;
}  // namespace detatils

// How RunTime::Create(const RunTimeOptions&) builds a state for scripts the
// host does not trust.
struct RunTimeOptions {
  // What the state may hold while a host call runs; 0 means no limit. Past it
  // the script gets the interpreter's ordinary memory error.
  size_t memoryLimitBytes = 0;
  // Leaves out what reaches files, the process or the interpreter's insides
  // (docs/embedding.md lists it).
  bool sandbox = false;
};

// Script error, load error, bad stack index, wrong type, stack overflow.
class RunTimeError : public std::runtime_error {
 public:
  explicit RunTimeError(const std::string& message) : std::runtime_error(message) {}
};

// A call that a limit or Cancel stopped. what() starts with "interrupted: "
// and names the cause: "deadline of N ms", "budget of N instructions" or
// "canceled by the host".
class RunTimeInterrupted : public RunTimeError {
 public:
  explicit RunTimeInterrupted(const std::string& message) : RunTimeError(message) {}
};

// Raised only from the interpreter's panic handler; the runtime is unusable after it.
class RunTimePanic : public std::runtime_error {
 public:
  explicit RunTimePanic(const std::string& message) : std::runtime_error(message) {}
};

// Passed to RunTime::CreateResultAtStack to return nil.
struct NilResultPlaceholder {};

// The signature of a native function body: `rt` wraps the calling state, `args`
// holds one handle per argument. Returns how many results it left on the stack.
using NativeBody = int (*)(boost::shared_ptr<RunTime>& rt,
                           const std::vector<boost::shared_ptr<ObjectRef>>& args);
using NativeFunction = std::function<int(boost::shared_ptr<RunTime>& rt,
                                         const std::vector<boost::shared_ptr<ObjectRef>>& args)>;

class RunTime : public boost::enable_shared_from_this<RunTime>, private utils::Noncopyable {
 public:
  enum WeakTableType { WeakKeys = 0, WeakValues = 1, WeakKeysAndValues = 2 };

  class StackCleaner;

  RunTime(lua_State* state, bool wrapped);
  ~RunTime();

  // A fresh state with the standard and every registered native library, and
  // the executable's directory on package.path. Closed when the object dies.
  static boost::shared_ptr<RunTime> Create();
  // The same, with a memory limit kept by the runtime's own allocator and,
  // when asked, the sandbox profile.
  static boost::shared_ptr<RunTime> Create(const RunTimeOptions& options);
  // A non-owning view of a state somebody else owns; nothing is opened or installed.
  static boost::shared_ptr<RunTime> Wrap(lua_State* state);

  void Init();
  void LoadLibs();

  lua_State* State() const { return state_; }
  bool IsValid() const { return valid_; }
  // Made with RunTimeOptions::sandbox; libraries refuse file access then. A
  // Wrap'd view answers for the runtime that owns the state.
  bool IsSandboxed() const;

  // Stack discipline. Indices follow the Lua C interface; 0 names no slot.
  int StackTopIndex() const { return lua_gettop(state_); }
  int AbsStackIndex(int index) const { return index == 0 ? 0 : lua_absindex(state_, index); }
  bool IsStackEmpty() const { return lua_gettop(state_) == 0; }
  void PopFromStack(int n) { lua_settop(state_, -n - 1); }
  void ClearStack() { lua_settop(state_, 0); }
  void Remove(int index);
  // Removes the handle's slot only while the handle is still valid.
  void Remove(const boost::shared_ptr<ObjectRef>& object);
  int ObjType(int index) const { return lua_type(state_, index); }
  const void* ObjPointer(int index) const { return lua_topointer(state_, index); }
  // What a push site reserves before it pushes. One step pushes a value and a
  // few temporaries (a key, a metatable, what the luaL_ helpers use inside),
  // never near 10, so the sites need not count exactly; a site that pushes a
  // known number of values more asks for that number plus this.
  static constexpr int kPushHeadroom = 10;
  // Room for max(n, kPushHeadroom) more values, or RunTimeError.
  void EnsureFreeStackSlots(int n) {
    if (!lua_checkstack(state_, n > kPushHeadroom ? n : kPushHeadroom)) ThrowStackOverflow();
  }
  bool ReserveFreeStackSlots(int n) { return lua_checkstack(state_, n) != 0; }

  // Running code. Scripts find their arguments in the global "init_data". The
  // results stay on the stack; the caller restores it (normally with a
  // StackCleaner taken before the call).
  std::vector<boost::shared_ptr<ObjectRef>> RunFile(const std::string& path, bool clearStack);
  std::vector<boost::shared_ptr<ObjectRef>> RunFile(
      const std::string& path, const std::vector<boost::shared_ptr<ObjectRef>>& args,
      bool clearStack);
  std::vector<boost::shared_ptr<ObjectRef>> RunFile(const std::string& path,
                                                    const std::vector<std::string>& args,
                                                    bool clearStack);
  std::vector<boost::shared_ptr<ObjectRef>> RunFile(const std::string& path, int argc,
                                                    const char** argv, bool clearStack);
  std::vector<boost::shared_ptr<ObjectRef>> RunFile(const std::string& path,
                                                    const boost::shared_ptr<TableRef>& args,
                                                    bool clearStack);
  // init_data is `args` converted by CreateAtStack(const Json::Value&); it
  // must be an object or an array.
  std::vector<boost::shared_ptr<ObjectRef>> RunFile(const std::string& path, const Json::Value& args,
                                                    bool clearStack);
  std::vector<boost::shared_ptr<ObjectRef>> RunString(const std::string& code, bool clearStack);
  std::vector<boost::shared_ptr<ObjectRef>> RunString(
      const std::string& code, const std::vector<boost::shared_ptr<ObjectRef>>& args,
      bool clearStack);
  std::vector<boost::shared_ptr<ObjectRef>> RunFunc(
      const std::string& globalName, const std::vector<boost::shared_ptr<ObjectRef>>& args);
  std::vector<boost::shared_ptr<ObjectRef>> RunFunc(
      const boost::shared_ptr<ObjectRef>& func,
      const std::vector<boost::shared_ptr<ObjectRef>>& args);
  // The same for a braced argument list, RunFunc("f", {a, b}): the handles are
  // read where they stand, with no vector made and no count taken for them.
  std::vector<boost::shared_ptr<ObjectRef>> RunFunc(const std::string& globalName,
                                                    std::initializer_list<boost::shared_ptr<ObjectRef>> args);
  std::vector<boost::shared_ptr<ObjectRef>> RunFunc(const boost::shared_ptr<ObjectRef>& func,
                                                    std::initializer_list<boost::shared_ptr<ObjectRef>> args);
  // Protected call of the function below the nargs top values, with a traceback
  // added to the error message; throws RunTimeError on failure.
  void Pcall(int nargs, int nresults);
  // One handle per slot above `base`, bottom first; nothing is popped.
  std::vector<boost::shared_ptr<ObjectRef>> ExtractRetVals(int base);

  // Globals, module path, collector.
  // Pushes the global's value and returns a handle to it.
  boost::shared_ptr<ObjectRef> GetGlobalObject(const std::string& name);
  void SetGlobalObject(const std::string& name, const boost::shared_ptr<ObjectRef>& value);
  // New patterns go after the existing ones, so they have the lowest priority.
  void AddPackagePath(const std::string& pattern);
  void AddPackagePaths(const std::vector<std::string>& patterns);
  void SetGcPause(int percent) { lua_gc(state_, LUA_GCSETPAUSE, percent); }
  void SetGcStepMultiplier(int percent) { lua_gc(state_, LUA_GCSETSTEPMUL, percent); }
  void CollectGarbage() { lua_gc(state_, LUA_GCCOLLECT, 0); }

  [[noreturn]] static void PanicHandler(lua_State* state);

  // Limits for each top-level host call (RunString, RunFile, RunFunc), each
  // measured from its own start; 0 means no limit. The time limit also bounds
  // every blocking native wait inside the call. A call that goes over throws
  // RunTimeInterrupted; the runtime stays usable.
  void SetCallLimits(std::chrono::milliseconds timeout, std::uint64_t instructions);
  // Any thread, while the runtime lives: interrupts the call in progress,
  // whether it runs script code or waits in a native function, and tells
  // whether there was one. Without a call in progress it does nothing.
  bool Cancel();
  class CancellableWait;
  // The runtime that created the state (RunTime::Create), not a Wrap'd view;
  // null for states made elsewhere. Found through the state's extra space,
  // not the allocator, so a host may replace the allocator.
  static RunTime* Owner(lua_State* state);
  // Internal: the call control of this runtime, and the memory account an
  // allocator user data (a RunTime made with options) leads to.
  detatils::CallControl& Control() { return *control_; }
  static detatils::MemoryAccount& MemoryOf(void* allocatorUserData);

  // Handles. Each CreateAtStack pushes one value and returns a handle to it.
  boost::shared_ptr<ObjectRef> ObjectAtStack(int index);
  boost::shared_ptr<ObjectRef> ObjectAtStackTop() { return ObjectAtStack(lua_gettop(state_)); }
  boost::shared_ptr<ObjectRef> CreateNilAtStack();
  boost::shared_ptr<TableRef> CreateTableAtStack();
  boost::shared_ptr<ObjectRef> CreateAtStack(bool value);
  boost::shared_ptr<ObjectRef> CreateAtStack(int value);
  boost::shared_ptr<ObjectRef> CreateAtStack(long long value);
  boost::shared_ptr<ObjectRef> CreateAtStack(double value);
  boost::shared_ptr<ObjectRef> CreateAtStack(void* value);
  // Strings are pushed as C strings: the text ends at the first NUL byte.
  boost::shared_ptr<ObjectRef> CreateAtStack(const char* value);
  boost::shared_ptr<ObjectRef> CreateAtStack(const std::string& value);
  // A copy of the handle's slot.
  boost::shared_ptr<ObjectRef> CreateAtStack(const boost::shared_ptr<ObjectRef>& value);
  boost::shared_ptr<ObjectRef> CreateAtStack(const boost::shared_ptr<TableRef>& value);
  boost::shared_ptr<ObjectRef> CreateAtStack(const ObjectRef* value);
  boost::shared_ptr<ObjectRef> CreateAtStack(lua_CFunction value);
  // A C closure whose upvalues are copies of the given slots, in order.
  boost::shared_ptr<ObjectRef> CreateAtStack(lua_CFunction value,
                                             const std::vector<boost::shared_ptr<ObjectRef>>& upvalues);
  // A script function that calls a copy of `value`, kept in a userdata that
  // destroys it when collected.
  boost::shared_ptr<ObjectRef> CreateAtStack(const NativeFunction& value);
  // The JSON value converted (lua/json.h): arrays and objects become tables
  // annotated as such, null members and elements are left out. On failure the
  // stack is restored and RunTimeError names the cause.
  boost::shared_ptr<ObjectRef> CreateAtStack(const Json::Value& value);
  // As CreateAtStack(const Json::Value&) without the guard: a failure leaves
  // the partly built value on the stack.
  boost::shared_ptr<ObjectRef> ConvertToLuaObject(const Json::Value& value);

  // Results for native function bodies: an empty string or table becomes nil.
  boost::shared_ptr<ObjectRef> CreateResultAtStack(const std::string& value);
  boost::shared_ptr<ObjectRef> CreateResultAtStack(const char* value);
  boost::shared_ptr<ObjectRef> CreateResultAtStack(const boost::shared_ptr<ObjectRef>& value);
  boost::shared_ptr<ObjectRef> CreateResultAtStack(const boost::shared_ptr<TableRef>& value);
  boost::shared_ptr<ObjectRef> CreateResultAtStack(const NilResultPlaceholder& value);
  int VoidResult() { return 0; }
  int NilResult();

  // Argument checks and errors for native function bodies. They raise script
  // errors, which leave the body at once; outside a native function they panic.
  void CheckArgsCount(int n);
  void CheckArgsCount(const std::vector<boost::shared_ptr<ObjectRef>>& args, size_t n);
  void CheckType(const boost::shared_ptr<ObjectRef>& object, int type, const std::string& what);
  void CheckType(int index, int type, const std::string& what);
  [[noreturn]] void Error(const std::string& message);

  // A table whose fields are the entries of a {nullptr, nullptr}-terminated
  // list; entries without a function become false.
  boost::shared_ptr<TableRef> CreateLibTable(const std::vector<luaL_Reg>& regs);
  boost::shared_ptr<TableRef> CreateWeakTableAtStack(WeakTableType type);
  // Upvalue n of the running C function; only inside a native function.
  boost::shared_ptr<ObjectRef> GetUpValue(int n);

 private:
  friend class detatils::HandleAccess;
  enum class ChunkKind { File, String };

  // The arguments value must already be on the top of the stack.
  std::vector<boost::shared_ptr<ObjectRef>> RunImpl(ChunkKind kind, const std::string& source,
                                                    bool clearStack);
  void PushArgsTable(const std::vector<boost::shared_ptr<ObjectRef>>& args);
  void PushArgsTable(const std::vector<std::string>& args);
  [[noreturn]] static void ThrowStackOverflow();
  // Pushes the message handler for a RunFunc call.
  void PrepareCall(size_t nargs);
  // The RunFunc overloads, over the arguments wherever they are kept.
  std::vector<boost::shared_ptr<ObjectRef>> CallGlobal(const std::string& globalName,
                                                       const boost::shared_ptr<ObjectRef>* args, size_t nargs);
  std::vector<boost::shared_ptr<ObjectRef>> CallHandle(const boost::shared_ptr<ObjectRef>& func,
                                                       const boost::shared_ptr<ObjectRef>* args, size_t nargs);
  // The function of `type` is on the top, the handler below it.
  std::vector<boost::shared_ptr<ObjectRef>> CallPushedFunction(int base, int type,
                                                               const boost::shared_ptr<ObjectRef>* args,
                                                               size_t nargs);
  // Pcall with the message handler already at `handler`, directly below the
  // function; removes it afterwards.
  void PcallWithHandlerAt(int handler, int nargs, int nresults);
  // Runs a top-level call under the limits; nested calls run as they are.
  template <class Body>
  std::vector<boost::shared_ptr<ObjectRef>> Contained(Body&& body);
  class CallScope;
  void RegisterOwner();

  bool wrapped_;
  bool valid_;
  lua_State* state_;

  std::unique_ptr<detatils::CallControl> control_;
  std::unique_ptr<detatils::MemoryAccount> memory_;
  std::chrono::milliseconds callTimeout_{0};
  std::uint64_t callInstructions_ = 0;
  int callDepth_ = 0;
  bool sandboxed_ = false;

  // Handles that the CreateAtStack family hands out again once nobody holds
  // them (lua/internal/handles.h). They hold this runtime, so the cache is on
  // only where something breaks that cycle: the handle Create returns, or the
  // native-call frame that owns a wrapper.
  std::vector<boost::shared_ptr<ObjectRef>> handleCache_;
  bool handleCacheOn_ = false;
};

// Installs, for its own life, the function that wakes the wait a native
// function is about to block in (it runs on Cancel's thread, under a mutex, so
// it must be quick and thread-safe, like a client's Cancel). Made and
// destroyed on the script's thread, inside the native function.
class RunTime::CancellableWait : private utils::Noncopyable {
 public:
  CancellableWait(lua_State* state, std::function<void()> canceller);
  ~CancellableWait();
  // True when the call was interrupted before the wait (it should not even
  // begin) or since.
  bool Cancelled() const;
  // The script error for an interrupted wait: "interrupted: " and the cause.
  std::string Reason() const;

 private:
  RunTime* owner_;
};

// Sets the stack top back to the index saved at construction when it goes out
// of scope; it only pops, never pushes.
// Inline: hosts take one around every call.
class RunTime::StackCleaner : private utils::Noncopyable {
 public:
  explicit StackCleaner(const boost::shared_ptr<RunTime>& rt)
      : index_(rt ? lua_gettop(rt->State()) : 0), rt_(rt), uncaughtAtEntry_(std::uncaught_exceptions()) {}
  // Saves AbsStackIndex(index); 0 clears the whole stack at scope end.
  StackCleaner(const boost::shared_ptr<RunTime>& rt, int index)
      : index_(rt ? rt->AbsStackIndex(index) : 0), rt_(rt), uncaughtAtEntry_(std::uncaught_exceptions()) {}
  ~StackCleaner() {
    if (!rt_) return;
    lua_State* L = rt_->State();
    const int top = lua_gettop(L);
    if (top <= index_) return;
    if (std::uncaught_exceptions() > uncaughtAtEntry_) {
      // A script error in flight sits on the top, and the interpreter copies it
      // from there when it catches the error: keep it just above the saved index.
      if (top > index_ + 1) {
        lua_copy(L, -1, index_ + 1);
        lua_settop(L, index_ + 1);
      }
    } else {
      lua_settop(L, index_);
    }
  }

  void Disable() { rt_.reset(); }

 private:
  int index_;
  boost::shared_ptr<RunTime> rt_;
  int uncaughtAtEntry_;
};

}  // namespace lua
