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

struct PeerThread : std::thread {
  using std::thread::thread;
  ~PeerThread() {
    if (joinable()) join();
  }
};

}  // namespace nettest
