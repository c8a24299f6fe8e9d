#include "utils/net/internal/proxy_answer.h"

#include <cstring>

namespace utils {
namespace impl {

namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

constexpr uint8_t kSocks5ReplySucceeded = 0x00;

// RFC 1929 (2) fixes the version of this reply at 1; some servers answer with
// the SOCKS version 5 instead, which is accepted.
constexpr uint8_t kSocks5AuthVersion = 0x01;

}  // namespace

ProxyHeadReader::State ProxyHeadReader::Feed(char byte) {
  if (head_.size() >= kMaxHeadBytes) return kTooLong;
  head_.push_back(byte);
  if (byte != '\n') return kNeedMore;
  const size_t size = head_.size();
  if (size >= 2 && head_[size - 2] == '\n') return kComplete;
  if (size >= 3 && head_[size - 2] == '\r' && head_[size - 3] == '\n') return kComplete;
  return kNeedMore;
}

bool ParseProxyConnectHead(const char* data, size_t size, ProxyConnectAnswer* answer) {
  if (size == 0) return false;
  const char* lineEnd = static_cast<const char*>(std::memchr(data, '\n', size));
  size_t length = lineEnd != nullptr ? static_cast<size_t>(lineEnd - data) : size;
  if (length > 0 && data[length - 1] == '\r') --length;
  // "HTTP/d.d SSS" is twelve bytes.
  if (length < 12 || std::memcmp(data, "HTTP/", 5) != 0 || !IsDigit(data[5]) || data[6] != '.' ||
      !IsDigit(data[7]) || data[8] != ' ') {
    return false;
  }
  const char* code = data + 9;
  if (code[0] < '1' || code[0] > '9' || !IsDigit(code[1]) || !IsDigit(code[2])) return false;
  if (length > 12 && data[12] != ' ') return false;
  answer->status = (code[0] - '0') * 100 + (code[1] - '0') * 10 + (code[2] - '0');
  answer->reason = length > 13 ? std::string(data + 13, length - 13) : std::string();
  return true;
}

Socks5Answer ParseSocks5MethodReply(const uint8_t* data, size_t size, bool offeredUserPassword,
                                    uint8_t* method) {
  if (size != 2 || data[0] != kSocks5Version) return Socks5Malformed;
  *method = data[1];
  if (data[1] == kSocks5MethodNoneAcceptable) return Socks5Refused;
  if (data[1] == kSocks5MethodNoAuth) return Socks5Accepted;
  if (data[1] == kSocks5MethodUserPassword && offeredUserPassword) return Socks5Accepted;
  // A method we did not offer.
  return Socks5Malformed;
}

Socks5Answer ParseSocks5AuthReply(const uint8_t* data, size_t size) {
  if (size != 2 || (data[0] != kSocks5AuthVersion && data[0] != kSocks5Version)) {
    return Socks5Malformed;
  }
  return data[1] == 0 ? Socks5Accepted : Socks5Refused;
}

size_t Socks5ConnectReplySize(const uint8_t* data, size_t size) {
  // VER REP RSV ATYP, then the bound address and a two-byte port.
  constexpr size_t kFixed = 4;
  constexpr size_t kPort = 2;
  if (size < kFixed + 1) return 0;
  switch (data[3]) {
    case kSocks5AddressIPv4:
      return kFixed + 4 + kPort;
    case kSocks5AddressIPv6:
      return kFixed + 16 + kPort;
    case kSocks5AddressDomain:
      return kFixed + 1 + data[4] + kPort;
    default:
      return 0;
  }
}

Socks5Answer ParseSocks5ConnectReply(const uint8_t* data, size_t size, uint8_t* reply) {
  const size_t expected = Socks5ConnectReplySize(data, size);
  if (expected == 0 || size != expected || data[0] != kSocks5Version || data[2] != 0) {
    return Socks5Malformed;
  }
  *reply = data[1];
  return data[1] == kSocks5ReplySucceeded ? Socks5Accepted : Socks5Refused;
}

const char* Socks5ReplyText(uint8_t reply) {
  switch (reply) {
    case 0x00:
      return "succeeded";
    case 0x01:
      return "general SOCKS server failure";
    case 0x02:
      return "connection not allowed by ruleset";
    case 0x03:
      return "network unreachable";
    case 0x04:
      return "host unreachable";
    case 0x05:
      return "connection refused";
    case 0x06:
      return "TTL expired";
    case 0x07:
      return "command not supported";
    case 0x08:
      return "address type not supported";
    default:
      return "unassigned reply code";
  }
}

}  // namespace impl
}  // namespace utils
