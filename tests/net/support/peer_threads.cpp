#include "net/support/peer_threads.h"

#include <poll.h>
#include <sys/socket.h>

namespace nettest {

EchoServer::EchoServer()
    : thread_([this] {
        Fd peer = listener_.Accept(10000);
        char buffer[4096];
        ssize_t count;
        while (peer.Valid() && (count = recv(peer.Get(), buffer, sizeof(buffer), 0)) > 0) {
          SendText(peer.Get(), std::string(buffer, static_cast<size_t>(count)));
        }
      }) {}

EchoServer::~EchoServer() { thread_.join(); }

CannedPeer::CannedPeer(std::vector<Turn> turns, Ending ending)
    : turns_(std::move(turns)), ending_(ending), thread_([this] { Serve(); }) {}

CannedPeer::~CannedPeer() {
  if (thread_.joinable()) thread_.join();
}

std::string CannedPeer::Request() {
  if (thread_.joinable()) thread_.join();
  return request_;
}

void CannedPeer::Serve() {
  Fd client = listener_.Accept(10000);
  if (!client.Valid()) return;
  for (const Turn& turn : turns_) {
    const size_t start = request_.size();
    char byte;
    while (turn.requestBytes == 0 ? request_.find("\r\n\r\n", start) == std::string::npos
                                  : request_.size() - start < turn.requestBytes) {
      pollfd entry = {client.Get(), POLLIN, 0};
      if (poll(&entry, 1, 5000) != 1 || recv(client.Get(), &byte, 1, 0) != 1) break;
      request_ += byte;
    }
    SendText(client.Get(), turn.answer);
  }
  // A half-close ends the stream without the reset that closing with unread
  // bytes would cause.
  if (ending_ == kCloseAfterAnswer) shutdown(client.Get(), SHUT_WR);
  char drain[256];
  pollfd entry = {client.Get(), POLLIN, 0};
  while (poll(&entry, 1, 5000) == 1 && recv(client.Get(), drain, sizeof(drain), 0) > 0) {
  }
}

}  // namespace nettest
