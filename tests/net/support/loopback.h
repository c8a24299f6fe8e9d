// Raw loopback endpoints for the client tests, written directly on the socket
// interface so that they share no code with what they test.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <string>
#include <utility>

namespace nettest {

// Owns a descriptor.
class Fd {
 public:
  explicit Fd(int descriptor = -1) : descriptor_(descriptor) {}
  ~Fd() {
    if (descriptor_ >= 0) close(descriptor_);
  }
  Fd(Fd&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  Fd& operator=(Fd&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
  }

  int Get() const { return descriptor_; }
  bool Valid() const { return descriptor_ >= 0; }

 private:
  int descriptor_;
};

// 127.0.0.1 or ::1 with the port.
inline socklen_t LoopbackAddress(int family, int port, sockaddr_storage* address) {
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

// A listening TCP socket on 127.0.0.1 or ::1 (IPv6 only); port 0 picks one.
class Listener {
 public:
  explicit Listener(int family = AF_INET, int port = 0, int backlog = 16) : socket_(socket(family, SOCK_STREAM, 0)) {
    const int on = 1;
    if (family == AF_INET6) setsockopt(socket_.Get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof(on));
    sockaddr_storage address;
    socklen_t length = LoopbackAddress(family, port, &address);
    if (bind(socket_.Get(), reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        listen(socket_.Get(), backlog) != 0 ||
        getsockname(socket_.Get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      throw std::runtime_error("cannot listen on loopback port " + std::to_string(port));
    }
    // Both families keep the port at the same offset.
    port_ = ntohs(reinterpret_cast<sockaddr_in*>(&address)->sin_port);
  }
  int Port() const { return port_; }
  std::string Service() const { return std::to_string(port_); }
  // The next connection, or an invalid Fd when none arrives in time.
  Fd Accept(int timeoutMs = 5000) {
    pollfd entry = {socket_.Get(), POLLIN, 0};
    if (poll(&entry, 1, timeoutMs) != 1) return Fd();
    return Fd(accept(socket_.Get(), nullptr, nullptr));
  }

 private:
  Fd socket_;
  int port_ = 0;
};

// A listener that never accepts and whose queue is already full, so that a
// further connect gets no answer at all.
class SilentListener {
 public:
  explicit SilentListener(int family = AF_INET, int port = 0)
      : listener_(family, port, 0), filler_(socket(family, SOCK_STREAM, 0)) {
    // With a backlog of 0 the kernel still queues one connection; that one is
    // taken by the filler so that later connects stay unanswered.
    sockaddr_storage address;
    const socklen_t length = LoopbackAddress(family, listener_.Port(), &address);
    if (connect(filler_.Get(), reinterpret_cast<sockaddr*>(&address), length) != 0) {
      throw std::runtime_error("cannot fill the listen queue");
    }
  }
  std::string Service() const { return listener_.Service(); }

 private:
  Listener listener_;
  Fd filler_;
};

// Blocking helpers for the peer side.
inline void SendText(int descriptor, const std::string& text) {
  size_t sent = 0;
  while (sent < text.size()) {
    const ssize_t count = send(descriptor, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) throw std::runtime_error("peer send failed");
    sent += static_cast<size_t>(count);
  }
}

// Reads until size bytes or end of stream (or timeoutMs without data).
inline std::string ReceiveText(int descriptor, size_t size, int timeoutMs = 5000) {
  std::string text;
  char buffer[4096];
  while (text.size() < size) {
    pollfd entry = {descriptor, POLLIN, 0};
    if (poll(&entry, 1, timeoutMs) != 1) break;
    const ssize_t count = recv(descriptor, buffer, std::min(sizeof(buffer), size - text.size()), 0);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    text.append(buffer, static_cast<size_t>(count));
  }
  return text;
}

}  // namespace nettest
