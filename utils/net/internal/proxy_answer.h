// Parsers of what a proxy answers during a tunnel handshake: the head of an
// HTTP CONNECT response and the SOCKS5 replies (RFC 1928, RFC 1929). They take
// bytes and return results; the I/O lives in the proxy tunnel.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace utils {
namespace impl {

// Collects a CONNECT response head one byte at a time: bytes of the tunnel
// may follow the head at once, so nothing past it may be read. Capped.
class ProxyHeadReader {
 public:
  static constexpr size_t kMaxHeadBytes = 16 * 1024;
  enum State { kNeedMore, kComplete, kTooLong };

  // The head ends with an empty line; bare LF line ends are accepted (RFC 9112
  // (2.2) lets a recipient do so).
  State Feed(char byte);
  const std::string& Head() const { return head_; }

 private:
  std::string head_;
};

struct ProxyConnectAnswer {
  int status = 0;      // 100..999
  std::string reason;  // the status line's reason phrase, may be empty
};

// Parses the status line of a head: "HTTP/d.d SSS[ reason]". False when it is
// not one.
bool ParseProxyConnectHead(const char* data, size_t size, ProxyConnectAnswer* answer);

constexpr uint8_t kSocks5Version = 5;
constexpr uint8_t kSocks5MethodNoAuth = 0x00;
constexpr uint8_t kSocks5MethodUserPassword = 0x02;
constexpr uint8_t kSocks5MethodNoneAcceptable = 0xFF;
constexpr uint8_t kSocks5AddressIPv4 = 0x01;
constexpr uint8_t kSocks5AddressDomain = 0x03;
constexpr uint8_t kSocks5AddressIPv6 = 0x04;

enum Socks5Answer : int {
  Socks5Accepted = 0,
  Socks5Refused = 1,  // a well-formed "no"
  Socks5Malformed = 2,
};

// The two-byte method selection. *method gets the chosen method when the
// answer is well-formed; an acceptable one must be among those offered.
Socks5Answer ParseSocks5MethodReply(const uint8_t* data, size_t size, bool offeredUserPassword,
                                    uint8_t* method);

// The two-byte username/password status.
Socks5Answer ParseSocks5AuthReply(const uint8_t* data, size_t size);

// Bytes of a CONNECT reply as far as its first five bytes tell (they fix the
// bound address's length); 0 when fewer than five are given or the address
// type is unknown.
size_t Socks5ConnectReplySize(const uint8_t* data, size_t size);

// A whole CONNECT reply; *reply gets the reply code when well-formed.
Socks5Answer ParseSocks5ConnectReply(const uint8_t* data, size_t size, uint8_t* reply);

// RFC 1928 (6) text of a reply code.
const char* Socks5ReplyText(uint8_t reply);

}  // namespace impl
}  // namespace utils
