// Proxy handshake answers. The first byte picks the parser; the rest is what
// the proxy sent. The CONNECT head is fed byte by byte as the tunnel reads it.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "utils/net/internal/proxy_answer.h"

namespace {

using namespace utils::impl;

void HttpHead(const uint8_t* data, size_t size) {
  ProxyHeadReader reader;
  ProxyHeadReader::State state = ProxyHeadReader::kNeedMore;
  size_t fed = 0;
  while (fed < size && state == ProxyHeadReader::kNeedMore) {
    state = reader.Feed(static_cast<char>(data[fed++]));
  }
  // Never more than the cap, and a complete head ends where it was found.
  if (reader.Head().size() > ProxyHeadReader::kMaxHeadBytes) std::abort();
  if (state == ProxyHeadReader::kComplete && reader.Head().size() != fed) std::abort();
  ProxyConnectAnswer answer;
  if (ParseProxyConnectHead(reader.Head().data(), reader.Head().size(), &answer)) {
    if (answer.status < 100 || answer.status > 999) std::abort();
    if (answer.reason.find('\n') != std::string::npos) std::abort();
  }
}

void Socks5(const uint8_t* data, size_t size) {
  uint8_t method = 0;
  for (bool offered : {false, true}) {
    if (ParseSocks5MethodReply(data, size, offered, &method) == Socks5Accepted &&
        method != kSocks5MethodNoAuth && !(offered && method == kSocks5MethodUserPassword)) {
      std::abort();
    }
  }
  ParseSocks5AuthReply(data, size);
  const size_t expected = Socks5ConnectReplySize(data, size);
  uint8_t reply = 0xEE;
  const Socks5Answer answer = ParseSocks5ConnectReply(data, size, &reply);
  if (answer != Socks5Malformed && expected != size) std::abort();
  if (answer == Socks5Accepted && reply != 0) std::abort();
  Socks5ReplyText(reply);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  if (data[0] & 1) {
    HttpHead(data + 1, size - 1);
  } else {
    Socks5(data + 1, size - 1);
  }
  return 0;
}
