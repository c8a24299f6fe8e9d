// utils::impl::CancelableBlockOperationPoint: waits for a descriptor to become
// ready, or for a wake-up byte written into a private pipe by Cancel from any
// thread. Each byte cancels exactly one wait; a Cancel while nothing waits is
// kept for the next wait or sleep.
#pragma once

#include "../noncopyable.h"

struct pollfd;

namespace utils {
namespace impl {

// A cooperative scheduler that takes over the waits of the calling thread,
// so that several clients can wait side by side in one poll loop (see
// utils::HttpRequestBatch). Poll keeps poll(2)'s contract.
class PollScheduler {
 public:
  virtual ~PollScheduler() = default;
  virtual int Poll(pollfd* entries, unsigned long count, int timeoutMs) = 0;
};

// Installs the calling thread's scheduler (null: poll(2) again) and returns
// the one it replaces.
PollScheduler* SetThreadPollScheduler(PollScheduler* scheduler);

enum OperationType_t : int {
  OperationRead = 0,     // POLLIN
  OperationWrite = 1,    // POLLOUT
  OperationConnect = 2,  // POLLOUT: a non-blocking connect has finished
  OperationExcept = 3,   // POLLPRI
};

enum WaitResult : int {
  WaitReady = 0,  // ready, or in error: the next operation finds out
  WaitCanceled = 1,
  WaitFailed = 2,
  WaitTimedOut = 3,
};

// WaitFor and Sleep belong to the thread that drives the descriptor; Cancel
// may be called from any thread at any time.
class CancelableBlockOperationPoint : private Noncopyable {
 public:
  // Throws utils::Error ("pipe() failed", "fcntl() failed").
  CancelableBlockOperationPoint();
  ~CancelableBlockOperationPoint();

  // Time-out in ms: positive is a limit, 0 polls once, negative waits without
  // limit. Cancellation wins over readiness when both are there.
  int WaitFor(int descriptor, OperationType_t type, int timeoutMs);
  // 0 when the time has passed, 1 when canceled, 2 on failure.
  int Sleep(int ms);
  // True when the wake-up byte was written.
  bool Cancel();

 private:
  int readEnd_ = -1;
  int writeEnd_ = -1;
};

}  // namespace impl
}  // namespace utils
