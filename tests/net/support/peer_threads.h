// Loopback peers that run on a thread of the test: an echo server, and a
// peer that answers canned bytes and records what the client sent. Each
// serves one connection.
#pragma once

#include <string>
#include <thread>
#include <vector>

#include "net/support/loopback.h"

namespace nettest {

// Echoes one connection until its end.
class EchoServer {
 public:
  EchoServer();
  ~EchoServer();
  int Port() const { return listener_.Port(); }

 private:
  Listener listener_;
  std::thread thread_;
};

// Answers one connection with fixed bytes after reading what the client sent
// (up to a blank line, or a given count), in one turn or several. Then it
// either holds the connection open or half-closes it, and waits for the
// client to go.
class CannedPeer {
 public:
  enum Ending { kHoldOpen, kCloseAfterAnswer };
  struct Turn {
    size_t requestBytes;  // 0: up to a blank line
    std::string answer;
  };

  explicit CannedPeer(std::string answer, size_t requestBytes = 0, Ending ending = kHoldOpen)
      : CannedPeer(std::vector<Turn>{{requestBytes, std::move(answer)}}, ending) {}
  explicit CannedPeer(std::vector<Turn> turns, Ending ending = kHoldOpen);
  ~CannedPeer();
  std::string Service() const { return listener_.Service(); }
  // What the client sent; call once the client has closed.
  std::string Request();

 private:
  void Serve();

  Listener listener_;
  std::vector<Turn> turns_;
  Ending ending_;
  std::string request_;
  std::thread thread_;
};

}  // namespace nettest
