// utils::Sockaddr, an IPv4 or IPv6 endpoint by value, and the small address
// helpers around it (text conversion, validation, byte order, error texts).
// Thin synchronous wrappers over the socket interface: nothing here logs,
// throws or keeps global state. The socket structures are only forward
// declared; include <netinet/in.h> to fill or read them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

struct sockaddr;
struct sockaddr_in;
struct sockaddr_in6;
struct sockaddr_storage;
struct in6_addr;

namespace utils {

// Holds one zero-initialised sockaddr_storage whose family is 0 (unspecified),
// AF_INET or AF_INET6; every byte behind the family's structure stays zero.
class Sockaddr {
 public:
  Sockaddr();
  // An IPv4 literal, else an IPv6 literal; anything else leaves it unspecified.
  Sockaddr(const char* text, unsigned int port);
  explicit Sockaddr(const sockaddr_storage& address);
  explicit Sockaddr(const sockaddr& address);
  // Copied as they are, whatever their family field says.
  explicit Sockaddr(const sockaddr_in& address);
  explicit Sockaddr(const sockaddr_in6& address);

  void Reset();
  void Reset(const char* text, unsigned int port);
  void Reset(const sockaddr_storage& address);
  void Reset(const sockaddr& address);
  void Reset(const sockaddr_in& address);
  void Reset(const sockaddr_in6& address);

  // Unspecified addresses are equal; families other than IPv4/IPv6 never are.
  bool operator==(const Sockaddr& other) const;
  bool operator!=(const Sockaddr& other) const { return !(*this == other); }

  bool IsUnspec() const;
  bool IsIP() const;
  bool IsIPv4() const;
  bool IsIPv6() const;
  int GetAddrFamilyType() const;
  // Only ::1 and exactly 127.0.0.1: the rest of 127.0.0.0/8 is not treated as
  // loopback on purpose.
  bool IsLoopback() const;

  // Host order in and out; no effect (and 0, *ok false) unless IPv4 or IPv6.
  void SetPort(unsigned short port);
  unsigned short GetPort(bool* ok) const;
  // Zeroes the address, keeping family and port.
  void SetAnyAddr();
  // sizeof(sockaddr_in) or sizeof(sockaddr_in6); 0 when unspecified.
  unsigned int GetSockaddrLen() const;
  // Numeric address without port or brackets; empty when unspecified.
  std::string GetTextAddr() const;

  sockaddr* AsSockaddr();
  const sockaddr* AsSockaddr() const;
  sockaddr_storage* AsSockaddrStorage();
  const sockaddr_storage* AsSockaddrStorage() const;
  // Null unless the family matches.
  sockaddr_in* AsSockaddrIn();
  const sockaddr_in* AsSockaddrIn() const;
  sockaddr_in6* AsSockaddrIn6();
  const sockaddr_in6* AsSockaddrIn6() const;

  // The size and alignment of sockaddr_storage on Linux; checked where the
  // real structure is visible.
  static constexpr size_t kStorageSize = 128;
  static constexpr size_t kStorageAlign = 8;

 private:
  alignas(kStorageAlign) unsigned char storage_[kStorageSize];
};

unsigned short GetPort(const sockaddr& address, bool* ok);
unsigned short GetPort(const sockaddr_storage& address, bool* ok);
std::string GetTextAddr(const sockaddr& address);
std::string GetTextAddr(const sockaddr_storage& address);

// inet_pton / inet_ntop with their results unchanged.
int InetPton(int af, const char* text, void* buf);
const char* InetNtop(int af, const void* addr, char* buf, unsigned int len);

// Literals only: host names, bracketed IPv6 and "addr:port" are not valid.
bool IsValidIpAddr(const char* text);
bool IsValidIpAddr(const std::string& text);
bool IsValidIp4Addr(const char* text);
bool IsValidIp4Addr(const std::string& text);
bool IsValidIp6Addr(const char* text);
bool IsValidIp6Addr(const std::string& text);

// True for the sizes of sockaddr_in and sockaddr_in6 only.
bool IsValidSockaddrLen(size_t len);

in6_addr GetIn6AddrAny();

uint16_t HostToNetwork16(uint16_t value);
uint32_t HostToNetwork32(uint32_t value);
uint16_t NetworkToHost16(uint16_t value);
uint32_t NetworkToHost32(uint32_t value);

std::string GAIStrError(int code);
// strerror of the calling thread's current errno.
std::string SockStrError();

}  // namespace utils
