// utils::ConnectThroughProxy: turns a client connected to a proxy into one
// connected to a target, by an HTTP CONNECT request (proxy types "http" and
// "https") or a SOCKS5 handshake (type "socks5").
#pragma once

#include <string>

#include "cancellable_client.h"
#include "../net_proxy_info.h"

namespace utils {

// The client must already be connected to the proxy (for "https" over TLS,
// which the caller starts). The HTTP types send Basic proxy credentials when
// the description has a login; SOCKS5 offers no authentication and, with a
// login, username/password, and leaves name resolution to the proxy.
// timeoutMs is one deadline for the whole handshake. Results: ErrorNone with
// the tunnel open; ErrorFailed for a refusal, a malformed answer or a target
// that cannot be expressed (the reason goes to *error when not null, and to
// the log); ErrorEndOfStream when the proxy closed mid-handshake;
// ErrorTimedOut; ErrorCanceled.
AbstractCancellableClient::Error_t ConnectThroughProxy(const std::string& host, unsigned short port,
                                                       const NetProxyInfo& proxy,
                                                       AbstractCancellableClient* client,
                                                       int timeoutMs, std::string* error = nullptr);

}  // namespace utils
