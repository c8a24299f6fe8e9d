#include "utils/net/cancellable_client.h"

#include <stdexcept>

#include "utils/time.h"

namespace utils {

namespace {

using Error_t = AbstractCancellableClient::Error_t;

// Calls transfer(offset, left, &moved, waitMs) until size bytes have moved.
template <typename Transfer>
Error_t TransferAll(size_t size, size_t* moved, int timeoutMs, Transfer transfer) {
  const Deadline deadline(timeoutMs);
  size_t done = 0;
  while (done < size) {
    size_t count = 0;
    // Once the deadline has passed, the next wait gives up at once rather than block.
    const Error_t result = transfer(done, size - done, &count, deadline.LeftMs());
    if (result != AbstractCancellableClient::ErrorNone) {
      if (moved != nullptr) *moved = done;
      return result;
    }
    done += count;
  }
  if (moved != nullptr) *moved = size;
  return AbstractCancellableClient::ErrorNone;
}

}  // namespace

const char* AbstractCancellableClient::ErrorCodeToString(Error_t code) {
  switch (code) {
    case ErrorTimedOut:
      return "operation timed out";
    case ErrorFailed:
      return "operation failed";
    case ErrorNone:
      return "no errors";
    case ErrorEndOfStream:
      return "end of stream";
    case ErrorCanceled:
      return "operation is canceled";
    default:
      return "unknown error code";
  }
}

Error_t SendAll(AbstractCancellableClient* client, const void* data, size_t size, size_t* sent,
                int timeoutMs) {
  const char* bytes = static_cast<const char*>(data);
  return TransferAll(size, sent, timeoutMs,
                     [&](size_t offset, size_t left, size_t* count, int waitMs) {
                       return client->Send(bytes + offset, left, count, waitMs);
                     });
}

Error_t RecvAll(AbstractCancellableClient* client, void* buffer, size_t size, size_t* received,
                int timeoutMs) {
  char* bytes = static_cast<char*>(buffer);
  return TransferAll(size, received, timeoutMs,
                     [&](size_t offset, size_t left, size_t* count, int waitMs) {
                       return client->Recv(bytes + offset, left, count, waitMs);
                     });
}

void ThrowIfFailed(AbstractCancellableClient::Error_t code, const std::string& what) {
  if (code == AbstractCancellableClient::ErrorNone) return;
  throw std::runtime_error(what + ": " + AbstractCancellableClient::ErrorCodeToString(code));
}

}  // namespace utils
