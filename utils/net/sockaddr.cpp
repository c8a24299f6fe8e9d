#include "utils/net/sockaddr.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace utils {

static_assert(sizeof(sockaddr_storage) == Sockaddr::kStorageSize, "sockaddr_storage size");
static_assert(alignof(sockaddr_storage) <= Sockaddr::kStorageAlign, "sockaddr_storage alignment");

namespace {

// inet_ntop needs at most INET6_ADDRSTRLEN (46) bytes.
constexpr size_t kTextAddrBufferSize = 50;

unsigned short PortOf(const sockaddr_storage& address, bool* ok) {
  unsigned short port = 0;
  bool ip = true;
  if (address.ss_family == AF_INET) {
    port = ntohs(reinterpret_cast<const sockaddr_in&>(address).sin_port);
  } else if (address.ss_family == AF_INET6) {
    port = ntohs(reinterpret_cast<const sockaddr_in6&>(address).sin6_port);
  } else {
    ip = false;
  }
  if (ok != nullptr) *ok = ip;
  return port;
}

std::string TextOf(const sockaddr_storage& address) {
  char buffer[kTextAddrBufferSize];
  const char* text = nullptr;
  if (address.ss_family == AF_INET) {
    text = inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in&>(address).sin_addr, buffer,
                     sizeof(buffer));
  } else if (address.ss_family == AF_INET6) {
    text = inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6&>(address).sin6_addr, buffer,
                     sizeof(buffer));
  }
  return text != nullptr ? std::string(text) : std::string();
}

// A bare sockaddr may be shorter than sockaddr_storage; copy only what its
// family says it holds.
void CopyByFamily(const sockaddr& from, sockaddr_storage* to) {
  std::memset(to, 0, sizeof(*to));
  if (from.sa_family == AF_INET6) {
    std::memcpy(to, &from, sizeof(sockaddr_in6));
  } else if (from.sa_family == AF_INET) {
    std::memcpy(to, &from, sizeof(sockaddr_in));
  }
}

}  // namespace

Sockaddr::Sockaddr() { Reset(); }
Sockaddr::Sockaddr(const char* text, unsigned int port) { Reset(text, port); }
Sockaddr::Sockaddr(const sockaddr_storage& address) { Reset(address); }
Sockaddr::Sockaddr(const sockaddr& address) { Reset(address); }
Sockaddr::Sockaddr(const sockaddr_in& address) { Reset(address); }
Sockaddr::Sockaddr(const sockaddr_in6& address) { Reset(address); }

void Sockaddr::Reset() { std::memset(storage_, 0, sizeof(storage_)); }

void Sockaddr::Reset(const char* text, unsigned int port) {
  Reset();
  if (text == nullptr) return;
  const auto networkPort = htons(static_cast<uint16_t>(port & 0xFFFF));
  sockaddr_in* in4 = reinterpret_cast<sockaddr_in*>(storage_);
  if (inet_pton(AF_INET, text, &in4->sin_addr) == 1) {
    in4->sin_family = AF_INET;
    in4->sin_port = networkPort;
    return;
  }
  Reset();
  sockaddr_in6* in6 = reinterpret_cast<sockaddr_in6*>(storage_);
  if (inet_pton(AF_INET6, text, &in6->sin6_addr) == 1) {
    in6->sin6_family = AF_INET6;
    in6->sin6_port = networkPort;
    return;
  }
  Reset();
}

void Sockaddr::Reset(const sockaddr_storage& address) {
  CopyByFamily(reinterpret_cast<const sockaddr&>(address), AsSockaddrStorage());
}

void Sockaddr::Reset(const sockaddr& address) { CopyByFamily(address, AsSockaddrStorage()); }

void Sockaddr::Reset(const sockaddr_in& address) {
  Reset();
  std::memcpy(storage_, &address, sizeof(address));
}

void Sockaddr::Reset(const sockaddr_in6& address) {
  Reset();
  std::memcpy(storage_, &address, sizeof(address));
}

bool Sockaddr::operator==(const Sockaddr& other) const {
  const int family = GetAddrFamilyType();
  if (family != other.GetAddrFamilyType()) return false;
  if (family == AF_UNSPEC) return true;
  if (family == AF_INET6) {
    const sockaddr_in6* a = AsSockaddrIn6();
    const sockaddr_in6* b = other.AsSockaddrIn6();
    return std::memcmp(&a->sin6_addr, &b->sin6_addr, sizeof(a->sin6_addr)) == 0 &&
           a->sin6_port == b->sin6_port && a->sin6_flowinfo == b->sin6_flowinfo &&
           a->sin6_scope_id == b->sin6_scope_id;
  }
  if (family == AF_INET) {
    const sockaddr_in* a = AsSockaddrIn();
    const sockaddr_in* b = other.AsSockaddrIn();
    return a->sin_addr.s_addr == b->sin_addr.s_addr && a->sin_port == b->sin_port;
  }
  return false;
}

bool Sockaddr::IsUnspec() const { return GetAddrFamilyType() == AF_UNSPEC; }
bool Sockaddr::IsIP() const { return IsIPv4() || IsIPv6(); }
bool Sockaddr::IsIPv4() const { return GetAddrFamilyType() == AF_INET; }
bool Sockaddr::IsIPv6() const { return GetAddrFamilyType() == AF_INET6; }
int Sockaddr::GetAddrFamilyType() const { return AsSockaddrStorage()->ss_family; }

bool Sockaddr::IsLoopback() const {
  if (const sockaddr_in6* in6 = AsSockaddrIn6()) {
    return IN6_IS_ADDR_LOOPBACK(&in6->sin6_addr);
  }
  if (const sockaddr_in* in4 = AsSockaddrIn()) {
    return in4->sin_addr.s_addr == htonl(INADDR_LOOPBACK);
  }
  return false;
}

void Sockaddr::SetPort(unsigned short port) {
  if (sockaddr_in6* in6 = AsSockaddrIn6()) {
    in6->sin6_port = htons(port);
  } else if (sockaddr_in* in4 = AsSockaddrIn()) {
    in4->sin_port = htons(port);
  }
}

unsigned short Sockaddr::GetPort(bool* ok) const { return PortOf(*AsSockaddrStorage(), ok); }

void Sockaddr::SetAnyAddr() {
  if (sockaddr_in6* in6 = AsSockaddrIn6()) {
    std::memset(&in6->sin6_addr, 0, sizeof(in6->sin6_addr));
  } else if (sockaddr_in* in4 = AsSockaddrIn()) {
    std::memset(&in4->sin_addr, 0, sizeof(in4->sin_addr));
  }
}

unsigned int Sockaddr::GetSockaddrLen() const {
  if (IsIPv4()) return sizeof(sockaddr_in);
  if (IsIPv6()) return sizeof(sockaddr_in6);
  return 0;
}

std::string Sockaddr::GetTextAddr() const { return TextOf(*AsSockaddrStorage()); }

sockaddr* Sockaddr::AsSockaddr() { return reinterpret_cast<sockaddr*>(storage_); }
const sockaddr* Sockaddr::AsSockaddr() const { return reinterpret_cast<const sockaddr*>(storage_); }
sockaddr_storage* Sockaddr::AsSockaddrStorage() {
  return reinterpret_cast<sockaddr_storage*>(storage_);
}
const sockaddr_storage* Sockaddr::AsSockaddrStorage() const {
  return reinterpret_cast<const sockaddr_storage*>(storage_);
}
sockaddr_in* Sockaddr::AsSockaddrIn() {
  return IsIPv4() ? reinterpret_cast<sockaddr_in*>(storage_) : nullptr;
}
const sockaddr_in* Sockaddr::AsSockaddrIn() const {
  return IsIPv4() ? reinterpret_cast<const sockaddr_in*>(storage_) : nullptr;
}
sockaddr_in6* Sockaddr::AsSockaddrIn6() {
  return IsIPv6() ? reinterpret_cast<sockaddr_in6*>(storage_) : nullptr;
}
const sockaddr_in6* Sockaddr::AsSockaddrIn6() const {
  return IsIPv6() ? reinterpret_cast<const sockaddr_in6*>(storage_) : nullptr;
}

unsigned short GetPort(const sockaddr& address, bool* ok) {
  sockaddr_storage copy;
  CopyByFamily(address, &copy);
  return PortOf(copy, ok);
}

unsigned short GetPort(const sockaddr_storage& address, bool* ok) { return PortOf(address, ok); }

std::string GetTextAddr(const sockaddr& address) {
  sockaddr_storage copy;
  CopyByFamily(address, &copy);
  return TextOf(copy);
}

std::string GetTextAddr(const sockaddr_storage& address) { return TextOf(address); }

int InetPton(int af, const char* text, void* buf) { return inet_pton(af, text, buf); }

const char* InetNtop(int af, const void* addr, char* buf, unsigned int len) {
  return inet_ntop(af, addr, buf, len);
}

bool IsValidIp4Addr(const char* text) {
  in_addr address;
  return text != nullptr && inet_pton(AF_INET, text, &address) == 1;
}

bool IsValidIp6Addr(const char* text) {
  in6_addr address;
  return text != nullptr && inet_pton(AF_INET6, text, &address) == 1;
}

bool IsValidIpAddr(const char* text) { return IsValidIp4Addr(text) || IsValidIp6Addr(text); }

// The std::string overloads go through c_str(): text with an embedded NUL is
// judged by its part before the NUL, as the socket interface would see it.
bool IsValidIpAddr(const std::string& text) { return IsValidIpAddr(text.c_str()); }
bool IsValidIp4Addr(const std::string& text) { return IsValidIp4Addr(text.c_str()); }
bool IsValidIp6Addr(const std::string& text) { return IsValidIp6Addr(text.c_str()); }

bool IsValidSockaddrLen(size_t len) {
  return len == sizeof(sockaddr_in) || len == sizeof(sockaddr_in6);
}

in6_addr GetIn6AddrAny() {
  in6_addr any;
  std::memset(&any, 0, sizeof(any));
  return any;
}

uint16_t HostToNetwork16(uint16_t value) { return htons(value); }
uint32_t HostToNetwork32(uint32_t value) { return htonl(value); }
uint16_t NetworkToHost16(uint16_t value) { return ntohs(value); }
uint32_t NetworkToHost32(uint32_t value) { return ntohl(value); }

std::string GAIStrError(int code) { return gai_strerror(code); }

std::string SockStrError() { return std::strerror(errno); }

}  // namespace utils
