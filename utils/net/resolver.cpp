#include "utils/net/internal/resolver.h"

#include <fcntl.h>
#include <netdb.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <system_error>
#include <thread>

#include "utils/net/sockaddr.h"

namespace utils {
namespace impl {

namespace {

std::atomic<ResolveFunction> gResolve{nullptr};

int Resolve(const char* node, const char* service, const addrinfo* hints, addrinfo** result) {
  const ResolveFunction resolve = gResolve.load(std::memory_order_acquire);
  return resolve != nullptr ? resolve(node, service, hints, result) : getaddrinfo(node, service, hints, result);
}

// Shared by the waiting caller and the lookup thread; whichever lets go last
// closes the pipe and frees a list nobody took.
struct Lookup {
  std::mutex mutex;
  std::string host;
  std::string service;
  addrinfo hints{};
  bool hasHints = false;
  int code = 0;
  addrinfo* list = nullptr;
  int pipe[2] = {-1, -1};

  ~Lookup() {
    if (list != nullptr) freeaddrinfo(list);
    for (int fd : pipe) {
      if (fd >= 0) close(fd);
    }
  }
};

void RunLookup(const std::shared_ptr<Lookup>& lookup) {
  addrinfo* list = nullptr;
  const int code = Resolve(lookup->host.empty() ? nullptr : lookup->host.c_str(),
                           lookup->service.empty() ? nullptr : lookup->service.c_str(),
                           lookup->hasHints ? &lookup->hints : nullptr, &list);
  std::lock_guard<std::mutex> lock(lookup->mutex);
  lookup->code = code;
  lookup->list = code == 0 ? list : nullptr;
  const char done = 1;
  // A full pipe cannot happen: one byte, once.
  (void)!write(lookup->pipe[1], &done, 1);
}

}  // namespace

void SetResolveFunctionForTesting(ResolveFunction resolve) {
  gResolve.store(resolve, std::memory_order_release);
}

int ResolveCancellable(CancelableBlockOperationPoint& point, const std::string& host,
                       const std::string& service, const addrinfo* hints, AddressOrder order,
                       int timeoutMs, std::shared_ptr<AddressInfo>* result, std::string* error) {
  // Local sockets, address literals and the wildcard never ask a server.
  const bool local = hints != nullptr && hints->ai_family == AF_UNIX;
  if (local || host.empty() || IsValidIpAddr(host)) {
    *result = GetAddressInfo(host, service, hints, order, error);
    return *result ? WaitReady : WaitFailed;
  }
  auto lookup = std::make_shared<Lookup>();
  lookup->host = host;
  lookup->service = service;
  if (hints != nullptr) {
    lookup->hints = *hints;
    lookup->hasHints = true;
  }
  if (pipe2(lookup->pipe, O_CLOEXEC | O_NONBLOCK) != 0) {
    *error = "cannot create a pipe for the lookup";
    return WaitFailed;
  }
  try {
    std::thread([lookup] { RunLookup(lookup); }).detach();
  } catch (const std::system_error&) {
    *result = GetAddressInfo(host, service, hints, order, error);
    return *result ? WaitReady : WaitFailed;
  }
  // Timed out or canceled: the thread keeps the lookup alive and frees its
  // result; a result that came at the same moment goes with it.
  const int waited = point.WaitFor(lookup->pipe[0], OperationRead, timeoutMs);
  if (waited != WaitReady) return waited;
  std::lock_guard<std::mutex> lock(lookup->mutex);
  char done = 0;
  if (read(lookup->pipe[0], &done, 1) != 1) {
    *error = "lookup failed";
    return WaitFailed;
  }
  if (lookup->code != 0) {
    *error = GAIStrError(lookup->code);
    return WaitFailed;
  }
  addrinfo* list = lookup->list;
  lookup->list = nullptr;  // owned by the wrapper from here, even if it throws
  *result = WrapAddressList(list, order);
  return WaitReady;
}

}  // namespace impl
}  // namespace utils
