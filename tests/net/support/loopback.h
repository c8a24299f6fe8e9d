// Raw loopback endpoints for the client tests, written directly on the socket
// interface so that they share no code with what they test.
#pragma once

#include <string>

namespace nettest {

// Owns a descriptor.
class Fd {
 public:
  explicit Fd(int descriptor = -1) : descriptor_(descriptor) {}
  ~Fd();
  Fd(Fd&& other) noexcept : descriptor_(other.Release()) {}
  Fd& operator=(Fd&& other) noexcept;
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;

  int Get() const { return descriptor_; }
  bool Valid() const { return descriptor_ >= 0; }
  int Release();

 private:
  int descriptor_;
};

// A listening TCP socket on 127.0.0.1 or ::1 (IPv6 only); port 0 picks one.
class Listener {
 public:
  explicit Listener(int family = 2 /* AF_INET */, int port = 0, int backlog = 16);
  int Port() const { return port_; }
  std::string Service() const { return std::to_string(port_); }
  // The next connection, or an invalid Fd when none arrives in time.
  Fd Accept(int timeoutMs = 5000);
  int Descriptor() const { return socket_.Get(); }

 private:
  Fd socket_;
  int port_ = 0;
};

// A listener on 127.0.0.1 that never accepts and whose queue is already full,
// so that a further connect gets no answer at all.
class SilentListener {
 public:
  SilentListener(int family = 2 /* AF_INET */, int port = 0);
  int Port() const { return listener_.Port(); }
  std::string Service() const { return listener_.Service(); }

 private:
  Listener listener_;
  Fd filler_;
};

// Blocking helpers for the peer side.
void SendText(int descriptor, const std::string& text);
// Reads until size bytes or end of stream (or timeoutMs without data).
std::string ReceiveText(int descriptor, size_t size, int timeoutMs = 5000);

}  // namespace nettest
