// Small helpers shared by the network tests.
#pragma once

#include <chrono>
#include <string>
#include <thread>

#include "net/support/loopback.h"
#include "support/shared.h"
#include "utils/env.h"
#include "utils/net/base_socket_client.h"

namespace nettest {

using Client = utils::BaseSocketClient;
using Clock = std::chrono::steady_clock;
using testsupport::ElapsedMs;

// The trust settings: CA file, CA directory, suppression, strictness.
const char* const kTlsVariables[] = {"CORVANE_OPENSSL_CA_FILE", "CORVANE_OPENSSL_CA_PATH",
                                     "CORVANE_OPENSSL_SUPPRESS_CA_VERIFICATION",
                                     "CORVANE_OPENSSL_STRICT_CA_VERIFICATION"};

// Trust settings leak between tests through the process environment.
inline void ClearTlsEnvironment() {
  for (const char* name : kTlsVariables) utils::UnsetEnv(name);
}

// A client connected to a loopback listener, and the accepted peer.
struct Connected {
  Connected() {
    client.Connect("127.0.0.1", listener.Service(), 5000);
    peer = listener.Accept();
  }
  Listener listener;
  Client client;
  Fd peer;
};

// A thread that is joined when it goes out of scope.
struct PeerThread : std::thread {
  using std::thread::thread;
  ~PeerThread() {
    if (joinable()) join();
  }
};

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
