#include "utils/http/request_batch.h"

#include <poll.h>
#include <sys/mman.h>
#include <ucontext.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <new>
#include <memory>
#include <mutex>

#include "utils/net/base_socket_client.h"
#include "utils/net/cancelable_block_operation_point.h"
#include "utils/time.h"

namespace utils {

namespace {

// PerformHttpRequest and a TLS handshake need a few tens of KiB; the rest is
// headroom. Pages are only touched when used.
constexpr size_t kStackBytes = 512 * 1024;
constexpr size_t kGuardBytes = 4096;

// One request on its own stack.
struct Fiber {
  ucontext_t context;
  void* stack = nullptr;
  size_t index = 0;
  BaseSocketClient client;
  bool finished = false;
  // The wait it is parked in: what poll(2) was asked, and until when.
  pollfd* entries = nullptr;
  unsigned long count = 0;
  int64_t deadlineMs = -1;  // -1: none
  int result = 0;

  Fiber() {
    stack = mmap(nullptr, kStackBytes + kGuardBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK,
                 -1, 0);
    if (stack == MAP_FAILED) throw std::bad_alloc();
    // Below the stack, so that an overflow faults instead of writing elsewhere.
    mprotect(stack, kGuardBytes, PROT_NONE);
  }
  ~Fiber() { munmap(stack, kStackBytes + kGuardBytes); }
  Fiber(const Fiber&) = delete;
  Fiber& operator=(const Fiber&) = delete;
};

}  // namespace

struct HttpRequestBatch::Loop : impl::PollScheduler {
  const std::vector<HttpBatchRequest>* requests = nullptr;
  std::vector<HttpBatchResult>* results = nullptr;
  ucontext_t main;
  Fiber* current = nullptr;
  std::vector<std::unique_ptr<Fiber>> fibers;
  std::mutex cancelLock;  // Cancel from another thread against fibers coming and going

  int Poll(pollfd* entries, unsigned long count, int timeoutMs) override {
    if (current == nullptr) return poll(entries, count, timeoutMs);
    Fiber* fiber = current;
    fiber->entries = entries;
    fiber->count = count;
    fiber->deadlineMs = timeoutMs < 0 ? -1 : GetMonotonicTimeInMs() + timeoutMs;
    swapcontext(&fiber->context, &main);
    return fiber->result;
  }

  static void Start(unsigned int high, unsigned int low) {
    Loop* loop = reinterpret_cast<Loop*>((static_cast<uintptr_t>(high) << 32) | low);
    Fiber* fiber = loop->current;
    const HttpBatchRequest& request = (*loop->requests)[fiber->index];
    HttpBatchResult& result = (*loop->results)[fiber->index];
    const int64_t startMs = GetMonotonicTimeInMs();
    try {
      result.code = PerformHttpRequest(&fiber->client, request.method, request.url, request.params, request.source,
                                       request.sink, &result.body, &result.response);
    } catch (const std::exception& error) {
      result.code = HttpRequestFailed;
      result.response.SetErrorText(error.what());
    } catch (...) {
      // Nothing may unwind past the fiber's first frame.
      result.code = HttpRequestFailed;
      result.response.SetErrorText("unexpected exception");
    }
    result.timeMs = GetMonotonicTimeInMs() - startMs;
    fiber->finished = true;
    // Returning would end the thread's context chain: go back explicitly.
    setcontext(&loop->main);
  }

  void Resume(Fiber* fiber) {
    current = fiber;
    swapcontext(&main, &fiber->context);
    current = nullptr;
  }

  void Launch(Fiber* fiber, size_t index) {
    fiber->index = index;
    fiber->finished = false;
    getcontext(&fiber->context);
    fiber->context.uc_stack.ss_sp = static_cast<char*>(fiber->stack) + kGuardBytes;
    fiber->context.uc_stack.ss_size = kStackBytes;
    fiber->context.uc_link = &main;
    const uintptr_t self = reinterpret_cast<uintptr_t>(this);
    makecontext(&fiber->context, reinterpret_cast<void (*)()>(&Loop::Start), 2,
                static_cast<unsigned int>(self >> 32), static_cast<unsigned int>(self & 0xffffffffu));
    Resume(fiber);
  }

  void CancelAll() {
    std::lock_guard<std::mutex> lock(cancelLock);
    for (const auto& fiber : fibers) fiber->client.Cancel();
  }
};

HttpRequestBatch::HttpRequestBatch(size_t concurrency)
    : concurrency_(std::max<size_t>(1, std::min(concurrency, kMaxConcurrency))) {}

void HttpRequestBatch::Cancel() {
  cancelled_ = true;
  Loop* loop = loop_.load();
  if (loop != nullptr) loop->CancelAll();
}

std::vector<HttpBatchResult> HttpRequestBatch::Run(const std::vector<HttpBatchRequest>& requests) {
  std::vector<HttpBatchResult> results(requests.size());
  Loop loop;
  loop.requests = &requests;
  loop.results = &results;
  const size_t width = std::min(concurrency_, requests.size());
  {
    std::lock_guard<std::mutex> lock(loop.cancelLock);
    for (size_t i = 0; i < width; ++i) loop.fibers.emplace_back(new Fiber());
  }
  loop_ = &loop;
  // A Cancel that came before the fibers existed reached none of them.
  if (cancelled_) loop.CancelAll();
  // Whatever way Run ends, the thread's waits go back to poll(2).
  struct Installed {
    impl::PollScheduler* previous;
    ~Installed() { impl::SetThreadPollScheduler(previous); }
  } installed{impl::SetThreadPollScheduler(&loop)};
  size_t next = 0;
  std::vector<Fiber*> idle;
  for (const auto& fiber : loop.fibers) idle.push_back(fiber.get());
  // A wait polls at most two descriptors (its own and its client's wake-up
  // pipe): with room reserved, nothing in the loop allocates or throws while
  // fibers are parked on their stacks.
  std::vector<pollfd> entries;
  entries.reserve(width * 2);
  idle.reserve(width);
  for (;;) {
    while (!idle.empty() && next < requests.size()) {
      Fiber* fiber = idle.back();
      idle.pop_back();
      if (cancelled_) {
        results[next].code = HttpRequestCanceled;
        results[next].response.SetErrorText("request canceled before it started");
        idle.push_back(fiber);
        ++next;
        continue;
      }
      loop.Launch(fiber, next++);
      if (fiber->finished) idle.push_back(fiber);
    }
    if (idle.size() == loop.fibers.size()) break;  // none waiting, nothing left

    entries.clear();
    int64_t nearest = -1;
    for (const auto& fiber : loop.fibers) {
      if (fiber->finished || fiber->entries == nullptr) continue;
      for (unsigned long i = 0; i < fiber->count; ++i) {
        entries.push_back(fiber->entries[i]);
        entries.back().revents = 0;
      }
      if (fiber->deadlineMs >= 0 && (nearest < 0 || fiber->deadlineMs < nearest)) nearest = fiber->deadlineMs;
    }
    const int timeoutMs =
        nearest < 0 ? -1 : static_cast<int>(std::max<int64_t>(0, nearest - GetMonotonicTimeInMs()));
    const int ready = poll(entries.data(), entries.size(), timeoutMs);
    const int pollErrno = errno;
    if (ready < 0 && pollErrno == EINTR) continue;
    const int64_t nowMs = GetMonotonicTimeInMs();
    size_t at = 0;
    for (const auto& fiber : loop.fibers) {
      if (fiber->finished || fiber->entries == nullptr) continue;
      int count = 0;
      for (unsigned long i = 0; i < fiber->count; ++i, ++at) {
        fiber->entries[i].revents = ready > 0 ? entries[at].revents : 0;
        if (fiber->entries[i].revents != 0) ++count;
      }
      const bool expired = fiber->deadlineMs >= 0 && nowMs >= fiber->deadlineMs;
      if (count == 0 && !expired && ready >= 0) continue;
      // A poll that failed outright fails every parked wait.
      fiber->result = ready < 0 ? -1 : count;
      fiber->entries = nullptr;
      errno = ready < 0 ? pollErrno : 0;
      loop.Resume(fiber.get());
      if (fiber->finished) idle.push_back(fiber.get());
    }
  }
  {
    std::lock_guard<std::mutex> lock(loop.cancelLock);
    loop_ = nullptr;
    loop.fibers.clear();
  }
  return results;
}

}  // namespace utils
