// What keeps a script inside the limits its host set: the per-runtime call
// control that Cancel, the deadline watchdog and the instruction hook share,
// the allocator that keeps the memory limit, and the sandbox profile.
//
// Lock order: Watchdog::mutex_, then CallControl::mutex, then whatever a
// canceller takes (a client's pipe, a sleep's condition variable); the whole
// order is in docs/embedding.md, "Locks and their order".
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <lua.hpp>

namespace lua {
namespace detatils {

enum class InterruptCause : int { None = 0, Deadline = 1, Budget = 2, Cancel = 3 };

// Counts what the state holds; refuses growth past the limit only while
// `enforcing`, that is inside a host call, where a memory error unwinds into
// the call's protected frame instead of reaching the panic handler.
struct MemoryAccount {
  std::size_t used = 0;
  std::size_t limit = 0;
  bool enforcing = false;
};
void* LimitedAlloc(void* ud, void* ptr, std::size_t osize, std::size_t nsize);

// One per runtime. The script's thread opens and closes calls; Cancel and the
// watchdog interrupt them from other threads. The canceller and the resume
// chain are guarded by the mutex; `cause_` and `call_` are atomics read
// without it.
class CallControl {
 public:
  explicit CallControl(lua_State* state) : state_(state) {}

  // Script thread, at the start and end of a top-level call.
  void Open(std::chrono::milliseconds timeout, std::uint64_t instructions);
  void Close();

  // Any thread. Interrupts the open call, once; false when no call is open.
  bool Interrupt(InterruptCause cause);
  // The watchdog's variant: only the call it was registered for.
  void InterruptCall(std::uint64_t callId, InterruptCause cause);

  // Native waits (RunTime::CancellableWait). Install returns false, and
  // installs nothing, when the call is already interrupted.
  bool InstallCanceller(std::function<void()> canceller);
  void RemoveCanceller();

  // A coroutine being resumed (script thread); hooks are per coroutine, so an
  // interrupt must reach the ones on the resume chain as well.
  void EnterCoroutine(lua_State* thread);
  void LeaveCoroutine();

  InterruptCause Cause() const { return cause_.load(std::memory_order_acquire); }
  // "interrupted: deadline of 500 ms", "interrupted: canceled by the host", ...
  std::string Describe() const;

  // The instruction hook: counts the budget down and raises the interruption.
  static void Hook(lua_State* L, lua_Debug* ar);

 private:
  void ArmLocked();
  // Arms the interrupt when `call` (see call_) is still the one open.
  void InterruptIfStill(std::uint64_t call, InterruptCause cause);

  lua_State* state_;
  std::atomic<InterruptCause> cause_{InterruptCause::None};

  // 2 * call number, plus 1 while that call is open. Written by the script's
  // thread only, so opening and closing a call takes no lock.
  std::atomic<std::uint64_t> call_{0};
  std::atomic<int> interrupting_{0};

  std::mutex mutex_;
  std::function<void()> canceller_;
  std::vector<lua_State*> resumed_;

  // Script thread only.
  std::uint64_t callId_ = 0;
  std::chrono::milliseconds timeout_{0};
  std::uint64_t budget_ = 0;
  std::uint64_t budgetLeft_ = 0;
  bool watched_ = false;
  lua_Hook savedHook_ = nullptr;
  int savedMask_ = 0;
  int savedCount_ = 0;
};

// Replaces coroutine.resume and coroutine.wrap with equivalents that keep the
// resume chain on the state's CallControl.
void TrackCoroutines(lua_State* L);

// Removes what an untrusted script must not reach; runs once on a new state
// with every library open.
void ApplySandbox(lua_State* L);

}  // namespace detatils
}  // namespace lua
