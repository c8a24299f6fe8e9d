#include "net/support/loopback.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>

namespace nettest {

Fd::~Fd() {
  if (descriptor_ >= 0) close(descriptor_);
}

Fd& Fd::operator=(Fd&& other) noexcept {
  if (this != &other) {
    if (descriptor_ >= 0) close(descriptor_);
    descriptor_ = other.Release();
  }
  return *this;
}

int Fd::Release() {
  const int descriptor = descriptor_;
  descriptor_ = -1;
  return descriptor;
}

namespace {

socklen_t LoopbackAddress(int family, int port, sockaddr_storage* address) {
  *address = sockaddr_storage{};
  if (family == AF_INET6) {
    auto* in6 = reinterpret_cast<sockaddr_in6*>(address);
    in6->sin6_family = AF_INET6;
    in6->sin6_addr = in6addr_loopback;
    in6->sin6_port = htons(static_cast<uint16_t>(port));
    return sizeof(*in6);
  }
  auto* in4 = reinterpret_cast<sockaddr_in*>(address);
  in4->sin_family = AF_INET;
  in4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  in4->sin_port = htons(static_cast<uint16_t>(port));
  return sizeof(*in4);
}

}  // namespace

Listener::Listener(int family, int port, int backlog) : socket_(socket(family, SOCK_STREAM, 0)) {
  const int on = 1;
  setsockopt(socket_.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  if (family == AF_INET6) setsockopt(socket_.Get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof(on));
  sockaddr_storage address;
  socklen_t length = LoopbackAddress(family, port, &address);
  if (bind(socket_.Get(), reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      listen(socket_.Get(), backlog) != 0 ||
      getsockname(socket_.Get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    throw std::runtime_error("cannot listen on loopback port " + std::to_string(port));
  }
  port_ = ntohs(family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&address)->sin6_port
                                   : reinterpret_cast<sockaddr_in*>(&address)->sin_port);
}

Fd Listener::Accept(int timeoutMs) {
  pollfd entry = {socket_.Get(), POLLIN, 0};
  if (poll(&entry, 1, timeoutMs) != 1) return Fd();
  return Fd(accept(socket_.Get(), nullptr, nullptr));
}

SilentListener::SilentListener(int family, int port) : listener_(family, port, 0) {
  // With a backlog of 0 the kernel still queues one connection; that one is
  // taken by the filler so that later connects stay unanswered.
  filler_ = Fd(socket(family, SOCK_STREAM, 0));
  sockaddr_storage address;
  const socklen_t length = LoopbackAddress(family, listener_.Port(), &address);
  if (connect(filler_.Get(), reinterpret_cast<sockaddr*>(&address), length) != 0) {
    throw std::runtime_error("cannot fill the listen queue");
  }
}

void SendText(int descriptor, const std::string& text) {
  size_t sent = 0;
  while (sent < text.size()) {
    const ssize_t count = send(descriptor, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) throw std::runtime_error("peer send failed");
    sent += static_cast<size_t>(count);
  }
}

std::string ReceiveText(int descriptor, size_t size, int timeoutMs) {
  std::string text;
  char buffer[4096];
  while (text.size() < size) {
    pollfd entry = {descriptor, POLLIN, 0};
    if (poll(&entry, 1, timeoutMs) != 1) break;
    const size_t want = std::min(sizeof(buffer), size - text.size());
    const ssize_t count = recv(descriptor, buffer, want, 0);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    text.append(buffer, static_cast<size_t>(count));
  }
  return text;
}

}  // namespace nettest
