#include "lua/internal/containment.h"

#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <condition_variable>
#include <cstdlib>
#include <map>
#include <thread>
#include <utility>

#include "lua/runtime.h"

namespace lua {
namespace detatils {

namespace {

using Clock = std::chrono::steady_clock;

// Close and an interrupt are the two sides of a store-then-load handshake
// (see Close). Interrupts are rare and a call's close is not, so where the
// kernel offers a barrier across the process's threads, the interrupting
// side takes it and Close's store goes without a fence of its own: a fenced
// store costs about as much as the rest of Close. Elsewhere both sides stay
// sequentially consistent. ThreadSanitizer cannot see the kernel's barrier.
bool ProcessBarrierAvailable() {
#if defined(__SANITIZE_THREAD__)
  return false;
#else
  static const bool available = syscall(SYS_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0, 0) == 0;
  return available;
#endif
}

// The interrupting side's half: after its count is raised, and before it
// reads whether the call is open.
void InterruptingSideBarrier() {
  if (ProcessBarrierAvailable()) syscall(SYS_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0, 0);
}

// One thread for every deadline in the process, started by the first call
// that has a time limit: hosts that set none get no thread. It never ends; a
// function-local object would be destroyed under a call still registered.
class Watchdog {
 public:
  static Watchdog& Instance() {
    static Watchdog* instance = new Watchdog();
    return *instance;
  }

  void Add(std::uint64_t callId, Clock::time_point deadline, CallControl* control) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!started_) {
      std::thread([this] { Run(); }).detach();
      started_ = true;
    }
    entries_.emplace(deadline, Entry{callId, control});
    wake_.notify_one();
  }

  // Returns only when the watchdog no longer holds `control` for this call.
  void Remove(std::uint64_t callId, CallControl* control) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = entries_.begin(); it != entries_.end(); ++it) {
      if (it->second.control == control && it->second.callId == callId) {
        entries_.erase(it);
        return;
      }
    }
  }

 private:
  struct Entry {
    std::uint64_t callId;
    CallControl* control;
  };

  void Run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      if (entries_.empty()) {
        wake_.wait(lock);
        continue;
      }
      const auto first = entries_.begin();
      if (Clock::now() < first->first) {
        // A copy: wait_until reads the deadline again after waking, and Remove
        // may have erased the entry while the mutex was released.
        const Clock::time_point deadline = first->first;
        wake_.wait_until(lock, deadline);
        continue;
      }
      const Entry entry = first->second;
      entries_.erase(first);
      // Under our mutex, so Remove cannot return while the control is in use.
      entry.control->InterruptCall(entry.callId, InterruptCause::Deadline);
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::multimap<Clock::time_point, Entry> entries_;
  bool started_ = false;
};

// Each hook call may count at most this many instructions.
constexpr std::uint64_t kMaxHookCount = INT_MAX;

int HookCountFor(std::uint64_t left) {
  return static_cast<int>(left < kMaxHookCount ? (left == 0 ? 1 : left) : kMaxHookCount);
}

}  // namespace

void* LimitedAlloc(void* ud, void* ptr, std::size_t osize, std::size_t nsize) {
  MemoryAccount& account = RunTime::MemoryOf(ud);
  const std::size_t old = ptr != nullptr ? osize : 0;
  if (nsize == 0) {
    std::free(ptr);
    account.used -= old;
    return nullptr;
  }
  if (nsize > old && account.enforcing && account.limit != 0 &&
      account.used - old + nsize > account.limit) {
    return nullptr;  // the interpreter collects and retries once, then raises its memory error
  }
  void* block = std::realloc(ptr, nsize);
  if (block != nullptr) account.used = account.used - old + nsize;
  return block;
}

void CallControl::Open(std::chrono::milliseconds timeout, std::uint64_t instructions) {
  timeout_ = timeout;
  budget_ = instructions;
  budgetLeft_ = instructions;
  savedHook_ = lua_gethook(state_);
  savedMask_ = lua_gethookmask(state_);
  savedCount_ = lua_gethookcount(state_);
  if (budget_ != 0) lua_sethook(state_, &CallControl::Hook, LUA_MASKCOUNT, HookCountFor(budgetLeft_));
  cause_.store(InterruptCause::None, std::memory_order_release);
  const std::uint64_t id = ++callId_;
  // An Interrupt racing with the start may see the call or not; either is right.
  call_.store(2 * id + 1, std::memory_order_release);
  watched_ = timeout_.count() > 0;
  if (watched_) Watchdog::Instance().Add(id, Clock::now() + timeout_, this);
}

void CallControl::Close() {
  if (ProcessBarrierAvailable()) {
    call_.store(2 * callId_, std::memory_order_release);
    std::atomic_signal_fence(std::memory_order_seq_cst);
  } else {
    call_.store(2 * callId_);
  }
  // An Interrupt that saw the call open may be arming it: wait for it. One
  // that comes later finds the call closed (the two sides are ordered as if
  // both were sequentially consistent), so a call without interrupts never
  // takes the mutex.
  if (interrupting_.load() != 0) {
    std::lock_guard<std::mutex> wait(mutex_);
  }
  if (watched_) Watchdog::Instance().Remove(callId_, this);
  watched_ = false;
  // No other thread touches the hook once the call is closed.
  if (budget_ != 0 || Cause() != InterruptCause::None || lua_gethook(state_) == &CallControl::Hook) {
    lua_sethook(state_, savedHook_, savedMask_, savedCount_);
  }
}

void CallControl::ArmLocked() {
  // Every instruction raises the error again, so a pcall that catches it only
  // moves it up a level. lua_sethook is safe against the running interpreter:
  // that is how an interrupt reaches a state from a signal handler too.
  lua_sethook(state_, &CallControl::Hook, LUA_MASKCOUNT, 1);
  // Hooks belong to each coroutine: the ones being resumed need theirs too.
  for (lua_State* thread : resumed_) lua_sethook(thread, &CallControl::Hook, LUA_MASKCOUNT, 1);
  if (canceller_) {
    canceller_();
    canceller_ = nullptr;
  }
}

bool CallControl::Interrupt(InterruptCause cause) {
  interrupting_.fetch_add(1);
  InterruptingSideBarrier();
  const std::uint64_t call = call_.load();
  const bool open = (call & 1) != 0;
  if (open) InterruptIfStill(call, cause);
  interrupting_.fetch_sub(1);
  return open;
}

void CallControl::InterruptCall(std::uint64_t callId, InterruptCause cause) {
  interrupting_.fetch_add(1);
  InterruptingSideBarrier();
  InterruptIfStill(2 * callId + 1, cause);
  interrupting_.fetch_sub(1);
}

void CallControl::InterruptIfStill(std::uint64_t call, InterruptCause cause) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (call_.load() != call || Cause() != InterruptCause::None) return;
  cause_.store(cause, std::memory_order_release);
  ArmLocked();
}

bool CallControl::InstallCanceller(std::function<void()> canceller) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (Cause() != InterruptCause::None) return false;
  // Outside a call nothing could cancel the wait anyway.
  if ((call_.load() & 1) != 0) canceller_ = std::move(canceller);
  return true;
}

void CallControl::EnterCoroutine(lua_State* thread) {
  std::lock_guard<std::mutex> lock(mutex_);
  resumed_.push_back(thread);
  if (Cause() != InterruptCause::None || budget_ != 0) {
    lua_sethook(thread, &CallControl::Hook, LUA_MASKCOUNT,
                Cause() != InterruptCause::None ? 1 : HookCountFor(budgetLeft_));
  }
}

void CallControl::LeaveCoroutine() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!resumed_.empty()) resumed_.pop_back();
}

void CallControl::RemoveCanceller() {
  std::lock_guard<std::mutex> lock(mutex_);
  canceller_ = nullptr;
}

std::string CallControl::Describe() const {
  switch (Cause()) {
    case InterruptCause::Deadline:
      return "interrupted: deadline of " + std::to_string(timeout_.count()) + " ms";
    case InterruptCause::Budget:
      return "interrupted: budget of " + std::to_string(budget_) + " instructions";
    case InterruptCause::Cancel:
      return "interrupted: canceled by the host";
    case InterruptCause::None:
      break;
  }
  return std::string();
}

void CallControl::Hook(lua_State* L, lua_Debug* ar) {
  RunTime* owner = RunTime::Owner(L);
  if (owner == nullptr) return;
  CallControl& control = owner->Control();
  if (control.Cause() == InterruptCause::None && ar->event == LUA_HOOKCOUNT && control.budget_ != 0) {
    const std::uint64_t counted = static_cast<std::uint64_t>(HookCountFor(control.budgetLeft_));
    control.budgetLeft_ = control.budgetLeft_ > counted ? control.budgetLeft_ - counted : 0;
    if (control.budgetLeft_ != 0) {
      lua_sethook(L, &CallControl::Hook, LUA_MASKCOUNT, HookCountFor(control.budgetLeft_));
      return;
    }
    std::lock_guard<std::mutex> lock(control.mutex_);
    if (control.Cause() == InterruptCause::None) {
      control.cause_.store(InterruptCause::Budget, std::memory_order_release);
      control.ArmLocked();
    }
  }
  if (control.Cause() == InterruptCause::None) return;
  const std::string message = control.Describe();
  luaL_error(L, "%s", message.c_str());
}

namespace {

// Keeps the coroutine on the control's list while it runs, so that an
// interrupt can reach it; unwinds with the script errors that pass through.
class ResumeScope {
 public:
  ResumeScope(lua_State* L, lua_State* thread) : owner_(RunTime::Owner(L)) {
    if (owner_ != nullptr && thread != nullptr) {
      owner_->Control().EnterCoroutine(thread);
    } else {
      owner_ = nullptr;
    }
  }
  ~ResumeScope() {
    if (owner_ != nullptr) owner_->Control().LeaveCoroutine();
  }
  ResumeScope(const ResumeScope&) = delete;
  ResumeScope& operator=(const ResumeScope&) = delete;

 private:
  RunTime* owner_;
};

// coroutine.resume: the library's own, called from upvalue 1.
int ResumeTracked(lua_State* L) {
  ResumeScope scope(L, lua_tothread(L, 1));
  // [co, args...] -> [resume, co, args...] -> [results of resume...]
  lua_pushvalue(L, lua_upvalueindex(1));
  lua_insert(L, 1);
  lua_call(L, lua_gettop(L) - 1, LUA_MULTRET);
  return lua_gettop(L);
}

// The function coroutine.wrap returns: resumes upvalue 2 through the tracked
// resume in upvalue 1 and raises its error as the library's wrap does.
int WrappedCoroutine(lua_State* L) {
  const int nargs = lua_gettop(L);
  luaL_checkstack(L, 2, "too many arguments to resume");
  // [args...] -> [args..., resume, co] -> [resume, co, args...]
  lua_pushvalue(L, lua_upvalueindex(1));
  lua_pushvalue(L, lua_upvalueindex(2));
  lua_rotate(L, 1, 2);
  // -> [ok, values...] or [false, error]
  lua_call(L, nargs + 1, LUA_MULTRET);
  if (lua_toboolean(L, 1)) {
    lua_remove(L, 1);
    return lua_gettop(L);
  }
  if (lua_type(L, 2) == LUA_TSTRING) {
    // [false, error, where] -> [false, error, where .. error]
    luaL_where(L, 1);
    lua_pushvalue(L, 2);
    lua_concat(L, 2);
    return lua_error(L);
  }
  lua_pushvalue(L, 2);
  return lua_error(L);
}

int WrapTracked(lua_State* L) {
  luaL_checktype(L, 1, LUA_TFUNCTION);
  // [f] -> [f, co] with f moved onto co's own stack as its body
  lua_State* thread = lua_newthread(L);
  lua_pushvalue(L, 1);
  lua_xmove(L, thread, 1);
  // -> [f, resume, co] -> [f, closure(resume, co)]
  lua_pushvalue(L, lua_upvalueindex(1));  // the tracked resume
  lua_insert(L, -2);
  lua_pushcclosure(L, WrappedCoroutine, 2);
  return 1;
}

}  // namespace

void TrackCoroutines(lua_State* L) {
  if (lua_getglobal(L, "coroutine") != LUA_TTABLE) {
    lua_pop(L, 1);
    return;
  }
  // [coroutine, resume] -> [coroutine, tracked, tracked] -> [coroutine, tracked]
  lua_getfield(L, -1, "resume");
  lua_pushcclosure(L, ResumeTracked, 1);
  lua_pushvalue(L, -1);
  lua_setfield(L, -3, "resume");
  // -> [coroutine, wrap(tracked)] -> [coroutine]
  lua_pushcclosure(L, WrapTracked, 1);
  lua_setfield(L, -2, "wrap");
  lua_pop(L, 1);
}

void ApplySandbox(lua_State* L) {
  // Written against the libraries as opened: the originals that the wrappers
  // keep are upvalues, out of reach without the debug library.
  static const char kProfile[] = R"lua(
local load, type, next, rawget, error, setmetatable, collectgarbage, select =
      load, type, next, rawget, error, setmetatable, collectgarbage, select
local loaded = package.loaded

_G.io, loaded.io = nil, nil
_G.debug, loaded.debug = nil, nil
local os = {time = os.time, clock = os.clock, date = os.date, difftime = os.difftime}
_G.os, loaded.os = os, os
_G.dofile, _G.loadfile = nil, nil
string.dump = nil

package.loadlib, package.searchpath = nil, nil
package.path, package.cpath = "", ""
package.searchers = {}

-- An environment passed as nil is one, so only one that was given goes on.
_G.load = function(chunk, name, mode, ...)
  if select("#", ...) == 0 then return load(chunk, name, "t") end
  return load(chunk, name, "t", (...))
end

local gcAllowed = {count = true, step = true, collect = true, isrunning = true}
_G.collectgarbage = function(option, arg)
  option = option or "collect"
  if not gcAllowed[option] then
    error("collectgarbage: option '" .. tostring(option) .. "' is not allowed here", 2)
  end
  return collectgarbage(option, arg)
end

-- A finalizer would run whenever the collector does, outside any call and
-- its limits.
_G.setmetatable = function(t, mt)
  if type(mt) == "table" and rawget(mt, "__gc") ~= nil then
    error("setmetatable: finalizers (__gc) are not allowed here", 2)
  end
  return setmetatable(t, mt)
end

local function strip(lib, names)
  if type(lib) ~= "table" then return end
  for _, name in next, names do lib[name] = nil end
end
strip(loaded.cv, {"setenv", "expand_path", "get_dir_contents", "get_devfile_numbers",
                  "get_disk_space_info"})
strip(loaded.json, {"load", "save", "storage"})
if type(loaded.xml) == "table" then
  strip(loaded.xml.sax, {"parseFile"})
  strip(loaded.xml.dom, {"parseFile"})
end
)lua";
  if (luaL_loadbuffer(L, kProfile, sizeof(kProfile) - 1, "=sandbox") != LUA_OK ||
      lua_pcall(L, 0, 0, 0) != LUA_OK) {
    std::string message = lua_tostring(L, -1) != nullptr ? lua_tostring(L, -1) : "unknown error";
    lua_pop(L, 1);
    throw RunTimeError("sandbox: " + message);
  }
}

}  // namespace detatils
}  // namespace lua
