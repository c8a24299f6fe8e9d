// Name resolution that a client's wait can abandon: getaddrinfo has no
// time-out and cannot be interrupted, so a lookup of a name runs on a thread
// of its own while the caller waits on a pipe together with its Cancel pipe.
#pragma once

#include <memory>
#include <string>

#include "utils/net/address_info.h"
#include "utils/net/cancelable_block_operation_point.h"

struct addrinfo;

namespace utils {
namespace impl {

// getaddrinfo's signature; tests put in one that never answers.
using ResolveFunction = int (*)(const char* node, const char* service, const addrinfo* hints,
                                addrinfo** result);
// nullptr restores getaddrinfo.
void SetResolveFunctionForTesting(ResolveFunction resolve);

// As GetAddressInfo, bounded by timeoutMs (negative: no bound) and by Cancel
// on `point`. Returns a WaitResult: WaitReady with *result set, WaitFailed
// with the resolver's text in *error, WaitTimedOut or WaitCanceled. An
// abandoned lookup finishes on its thread, which then frees what it found.
int ResolveCancellable(CancelableBlockOperationPoint& point, const std::string& host,
                       const std::string& service, const addrinfo* hints, AddressOrder order,
                       int timeoutMs, std::shared_ptr<AddressInfo>* result, std::string* error);

}  // namespace impl
}  // namespace utils
