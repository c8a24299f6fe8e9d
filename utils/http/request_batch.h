// utils::HttpRequestBatch: many requests at once on the calling thread. Each
// request runs utils::PerformHttpRequest on a small stack of its own; every
// wait of every request goes into one poll loop, so no threads are started
// and the requests share the thread's connection pool.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "request.h"
#include "../noncopyable.h"

namespace utils {

struct HttpBatchRequest {
  std::string method;
  std::string url;
  HttpRequestParams params;
  HttpBodySource* source = nullptr;  // as in the streaming PerformHttpRequest
  HttpBodySink sink;
};

struct HttpBatchResult {
  int code = 0;  // the status code, or an HttpRequestError
  std::string body;
  HttpResponse response;  // head, or ErrorText after a failure
  int64_t timeMs = 0;
};

class HttpRequestBatch : private Noncopyable {
 public:
  static constexpr size_t kDefaultConcurrency = 16;
  static constexpr size_t kMaxConcurrency = 256;

  // At most `concurrency` requests (1 to kMaxConcurrency) are under way at once.
  explicit HttpRequestBatch(size_t concurrency = kDefaultConcurrency);

  // Performs every request and returns the results in the same order. Name
  // resolution of host names still blocks the loop while it runs.
  std::vector<HttpBatchResult> Run(const std::vector<HttpBatchRequest>& requests);
  // From any thread: the requests under way end with HttpRequestCanceled,
  // those not yet started are not started. A Cancel before Run cancels it.
  void Cancel();

 private:
  size_t concurrency_;
  std::atomic<bool> cancelled_{false};
  struct Loop;
  std::atomic<Loop*> loop_{nullptr};
};

}  // namespace utils
