// utils::AbstractCancellableClient: a connection whose every wait (connect,
// send, receive, sleep) has a time-out and can be cut short by Cancel from
// another thread; plus whole-buffer transfers under one deadline.
// Time-outs are in milliseconds: positive is a limit, 0 means do not wait,
// negative means wait without limit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "../noncopyable.h"

namespace utils {

// One thread drives a client; any thread may call Cancel. A Cancel that
// arrives while nothing waits cancels the next wait or sleep.
class AbstractCancellableClient : private Noncopyable {
 public:
  typedef int32_t Error_t;
  static constexpr Error_t ErrorTimedOut = -2;
  static constexpr Error_t ErrorFailed = -1;
  static constexpr Error_t ErrorNone = 0;
  static constexpr Error_t ErrorEndOfStream = 1;
  static constexpr Error_t ErrorCanceled = 2;

  // "operation timed out", "operation failed", "no errors", "end of stream",
  // "operation is canceled", or "unknown error code".
  static const char* ErrorCodeToString(Error_t code);

  virtual Error_t Connect(const std::string& host, const std::string& service, int timeoutMs) = 0;
  virtual Error_t Sleep(int ms) = 0;
  virtual Error_t Close() = 0;
  virtual void Reset() = 0;
  virtual Error_t Cancel() = 0;
  // One transfer of at most size bytes; the count goes to *received / *sent.
  virtual Error_t Recv(void* buffer, size_t size, size_t* received, int timeoutMs) = 0;
  virtual Error_t Send(const void* data, size_t size, size_t* sent, int timeoutMs) = 0;
  virtual ~AbstractCancellableClient() = default;
};

// Move the whole buffer; a positive time-out is one deadline for all of it.
// On any result but ErrorNone the count moved so far is stored (an end of
// stream in the middle of RecvAll gives ErrorEndOfStream and a partial count).
AbstractCancellableClient::Error_t SendAll(AbstractCancellableClient* client, const void* data,
                                           size_t size, size_t* sent, int timeoutMs);
AbstractCancellableClient::Error_t RecvAll(AbstractCancellableClient* client, void* buffer,
                                           size_t size, size_t* received, int timeoutMs);

// Throws std::runtime_error(what + ": " + the code's text) for any code but
// ErrorNone.
void ThrowIfFailed(AbstractCancellableClient::Error_t code, const std::string& what);

}  // namespace utils
