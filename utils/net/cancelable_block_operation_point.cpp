#include "utils/net/cancelable_block_operation_point.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>

#include "utils/error.h"
#include "utils/time.h"

namespace utils {
namespace impl {

namespace {

thread_local PollScheduler* threadScheduler = nullptr;

int Poll(pollfd* entries, nfds_t count, int timeoutMs) {
  return threadScheduler != nullptr ? threadScheduler->Poll(entries, count, timeoutMs)
                                    : poll(entries, count, timeoutMs);
}

bool SetNonBlocking(int descriptor) {
  const int flags = fcntl(descriptor, F_GETFL, 0);
  return flags != -1 && fcntl(descriptor, F_SETFL, flags | O_NONBLOCK) != -1;
}

enum class PipeByte { kTaken, kNone, kBroken };

// Another waiter may have taken the byte between poll and read (EAGAIN).
PipeByte TakeWakeUpByte(int readEnd) {
  unsigned char byte;
  const ssize_t count = read(readEnd, &byte, 1);
  if (count == 1) return PipeByte::kTaken;
  if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
    return PipeByte::kNone;
  }
  return PipeByte::kBroken;
}

}  // namespace

PollScheduler* SetThreadPollScheduler(PollScheduler* scheduler) {
  PollScheduler* previous = threadScheduler;
  threadScheduler = scheduler;
  return previous;
}

CancelableBlockOperationPoint::CancelableBlockOperationPoint() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw Error("pipe() failed");
  if (!SetNonBlocking(ends[0]) || !SetNonBlocking(ends[1])) {
    const int savedErrno = errno;
    close(ends[0]);
    close(ends[1]);
    throw Error("fcntl() failed", savedErrno);
  }
  readEnd_ = ends[0];
  writeEnd_ = ends[1];
}

CancelableBlockOperationPoint::~CancelableBlockOperationPoint() {
  close(readEnd_);
  close(writeEnd_);
  readEnd_ = -1;
  writeEnd_ = -1;
}

int CancelableBlockOperationPoint::WaitFor(int descriptor, OperationType_t type, int timeoutMs) {
  short events;
  switch (type) {
    case OperationRead:
      events = POLLIN;
      break;
    case OperationWrite:
    case OperationConnect:
      events = POLLOUT;
      break;
    case OperationExcept:
      events = POLLPRI;
      break;
    default:
      return WaitFailed;
  }
  // The pipe comes first so that a cancellation wins over readiness.
  pollfd entries[2] = {{readEnd_, POLLIN, 0}, {descriptor, events, 0}};
  // One deadline across the polls that EINTR or a stolen wake-up byte interrupt.
  const Deadline deadline(timeoutMs);
  for (;;) {
    const int ready = Poll(entries, 2, deadline.LeftMs());
    if (ready == 0) return WaitTimedOut;
    if (ready < 0) {
      if (errno != EINTR) return WaitFailed;
    } else {
      if (entries[0].revents == 0) return WaitReady;
      switch (TakeWakeUpByte(readEnd_)) {
        case PipeByte::kTaken:
          return WaitCanceled;
        case PipeByte::kBroken:
          return WaitFailed;
        case PipeByte::kNone:
          break;
      }
    }
  }
}

int CancelableBlockOperationPoint::Sleep(int ms) {
  pollfd entry = {readEnd_, POLLIN, 0};
  const Deadline deadline(ms);
  for (;;) {
    const int ready = Poll(&entry, 1, deadline.LeftMs());
    if (ready == 0) return 0;
    if (ready < 0) {
      if (errno != EINTR) return 2;
    } else {
      switch (TakeWakeUpByte(readEnd_)) {
        case PipeByte::kTaken:
          return 1;
        case PipeByte::kBroken:
          return 2;
        case PipeByte::kNone:
          break;
      }
    }
  }
}

bool CancelableBlockOperationPoint::Cancel() {
  const unsigned char wakeUp = 0;
  ssize_t written;
  do {
    written = write(writeEnd_, &wakeUp, 1);
  } while (written < 0 && errno == EINTR);
  return written == 1;
}

}  // namespace impl
}  // namespace utils
