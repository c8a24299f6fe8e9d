// Small helpers shared by the network tests.
#pragma once

#include <chrono>
#include <string>

#include "net/support/loopback.h"
#include "support/shared.h"
#include "utils/env.h"
#include "utils/net/base_socket_client.h"
#include "utils/net/proxy_tunnel.h"

namespace nettest {

using Client = utils::BaseSocketClient;
using Clock = std::chrono::steady_clock;
using testsupport::ElapsedMs;

// Trust settings leak between tests through the process environment.
inline void ClearTlsEnvironment() {
  for (const char* name :
       {"CORVANE_OPENSSL_CA_FILE", "CORVANE_OPENSSL_CA_PATH",
        "CORVANE_OPENSSL_SUPPRESS_CA_VERIFICATION", "CORVANE_OPENSSL_STRICT_CA_VERIFICATION"}) {
    utils::UnsetEnv(name);
  }
}

inline Client::Error_t ConnectLoopback(Client* client, const std::string& service) {
  return client->Connect("127.0.0.1", service, 5000);
}

// Connects to a proxy listening on the loopback and asks it for a tunnel.
inline Client::Error_t Tunnel(Client* client, const std::string& proxyService,
                              const utils::NetProxyInfo& proxy, const std::string& host, int port,
                              std::string* error = nullptr, int timeoutMs = 5000) {
  const Client::Error_t result = ConnectLoopback(client, proxyService);
  if (result != Client::ErrorNone) return result;
  return utils::ConnectThroughProxy(host, static_cast<unsigned short>(port), proxy, client,
                                    timeoutMs, error);
}

// One HTTP/1.0 GET of "/"; the body once the server has ended the stream,
// which nginx does after an HTTP/1.0 answer (with close_notify under TLS).
inline Client::Error_t HttpGet(Client* client, std::string* body) {
  const std::string request = "GET / HTTP/1.0\r\nHost: localhost\r\n\r\n";
  std::string response(4096, '\0');
  size_t received = 0;
  Client::Error_t result = utils::SendAll(client, request.data(), request.size(), nullptr, 5000);
  if (result == Client::ErrorNone) {
    result = utils::RecvAll(client, &response[0], response.size(), &received, 5000);
  }
  *body = response.substr(0, received);
  body->erase(0, body->find("\r\n\r\n") + 4);
  return result == Client::ErrorEndOfStream ? Client::ErrorNone : result;
}

}  // namespace nettest
