#include "utils/net/proxy_tunnel.h"

#include <netinet/in.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "utils/base64.h"
#include "utils/log.h"
#include "utils/net/internal/proxy_answer.h"
#include "utils/net/sockaddr.h"
#include "utils/time.h"

namespace utils {

namespace {

using Error_t = AbstractCancellableClient::Error_t;

constexpr const char* kModule = "utils::ProxyTunnel";

// SOCKS5 carries names and credentials with a one-byte length.
constexpr size_t kSocks5MaxField = 255;
constexpr uint8_t kSocks5CommandConnect = 0x01;
constexpr uint8_t kSocks5UserPasswordVersion = 0x01;

Error_t Refuse(std::string* error, const std::string& reason) {
  CORVANE_LOG(UtilsLogger(), zullog::SeverityError, kModule) << reason;
  if (error != nullptr) *error = reason;
  return AbstractCancellableClient::ErrorFailed;
}

// Control characters or blanks in the target would let it inject header
// lines into the CONNECT request.
bool IsSafeTargetHost(const std::string& host) {
  if (host.empty()) return false;
  return std::none_of(host.begin(), host.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte <= 0x20 || byte == 0x7F;
  });
}

std::string Authority(const std::string& host, unsigned short port) {
  const std::string portText = std::to_string(port);
  return IsValidIp6Addr(host) ? "[" + host + "]:" + portText : host + ":" + portText;
}

Error_t HttpConnect(const std::string& host, unsigned short port, const NetProxyInfo& proxy,
                    AbstractCancellableClient* client, const Deadline& deadline,
                    std::string* error) {
  const std::string authority = Authority(host, port);
  std::string request = "CONNECT " + authority + " HTTP/1.1\r\nHost: " + authority + "\r\n";
  if (proxy.HasCredentials()) {
    request +=
        "Proxy-Authorization: Basic " + Base64Encode(proxy.login + ":" + proxy.password) + "\r\n";
  }
  request += "\r\n";
  Error_t result = SendAll(client, request.data(), request.size(), nullptr, deadline.LeftMs());
  if (result != AbstractCancellableClient::ErrorNone) return result;

  impl::ProxyHeadReader reader;
  impl::ProxyHeadReader::State state = impl::ProxyHeadReader::kNeedMore;
  while (state == impl::ProxyHeadReader::kNeedMore) {
    char byte;
    result = RecvAll(client, &byte, 1, nullptr, deadline.LeftMs());
    if (result != AbstractCancellableClient::ErrorNone) return result;
    state = reader.Feed(byte);
  }
  if (state == impl::ProxyHeadReader::kTooLong) {
    return Refuse(error, "Proxy answer head exceeds " +
                             std::to_string(impl::ProxyHeadReader::kMaxHeadBytes) + " bytes");
  }
  impl::ProxyConnectAnswer answer;
  if (!impl::ParseProxyConnectHead(reader.Head().data(), reader.Head().size(), &answer)) {
    return Refuse(error, "Malformed proxy answer to CONNECT " + authority);
  }
  if (answer.status >= 200 && answer.status < 300) return AbstractCancellableClient::ErrorNone;
  std::string reason = std::to_string(answer.status);
  if (!answer.reason.empty()) reason += " " + answer.reason;
  // 407 is the proxy's own "credentials needed"; some proxies answer a wrong
  // password with 401 instead.
  if (answer.status == 407 || answer.status == 401) {
    return Refuse(error, std::string(proxy.HasCredentials() ? "Proxy rejected the credentials: "
                                                            : "Proxy requires credentials: ") +
                             reason);
  }
  return Refuse(error, "Proxy refused CONNECT " + authority + ": " + reason);
}

// Sends a SOCKS5 message and reads an answer of exactly answerSize bytes.
Error_t Socks5Exchange(AbstractCancellableClient* client, const std::vector<uint8_t>& message,
                       uint8_t* answer, size_t answerSize, const Deadline& deadline) {
  const Error_t result =
      SendAll(client, message.data(), message.size(), nullptr, deadline.LeftMs());
  if (result != AbstractCancellableClient::ErrorNone) return result;
  return RecvAll(client, answer, answerSize, nullptr, deadline.LeftMs());
}

void AppendField(std::vector<uint8_t>* message, const std::string& field) {
  message->push_back(static_cast<uint8_t>(field.size()));
  message->insert(message->end(), field.begin(), field.end());
}

std::vector<uint8_t> Socks5ConnectRequest(const std::string& host, unsigned short port) {
  std::vector<uint8_t> request = {impl::kSocks5Version, kSocks5CommandConnect, 0x00};
  in6_addr address6;
  in_addr address4;
  if (InetPton(AF_INET, host.c_str(), &address4) == 1) {
    request.push_back(impl::kSocks5AddressIPv4);
    const auto* bytes = reinterpret_cast<const uint8_t*>(&address4);
    request.insert(request.end(), bytes, bytes + sizeof(address4));
  } else if (InetPton(AF_INET6, host.c_str(), &address6) == 1) {
    request.push_back(impl::kSocks5AddressIPv6);
    const auto* bytes = reinterpret_cast<const uint8_t*>(&address6);
    request.insert(request.end(), bytes, bytes + sizeof(address6));
  } else {
    // The proxy resolves names itself: the target may be unknown to our resolver.
    request.push_back(impl::kSocks5AddressDomain);
    AppendField(&request, host);
  }
  request.push_back(static_cast<uint8_t>(port >> 8));
  request.push_back(static_cast<uint8_t>(port & 0xFF));
  return request;
}

Error_t Socks5Connect(const std::string& host, unsigned short port, const NetProxyInfo& proxy,
                      AbstractCancellableClient* client, const Deadline& deadline,
                      std::string* error) {
  if (host.size() > kSocks5MaxField) {
    return Refuse(error, "Target host name too long for a SOCKS5 proxy");
  }
  const bool withPassword = proxy.HasCredentials();
  if (withPassword &&
      (proxy.login.size() > kSocks5MaxField || proxy.password.size() > kSocks5MaxField)) {
    return Refuse(error, "Proxy credentials too long for SOCKS5");
  }

  std::vector<uint8_t> greeting = {impl::kSocks5Version, 1, impl::kSocks5MethodNoAuth};
  if (withPassword) {
    greeting[1] = 2;
    greeting.push_back(impl::kSocks5MethodUserPassword);
  }
  uint8_t answer[kSocks5MaxField + 7];
  Error_t result = Socks5Exchange(client, greeting, answer, 2, deadline);
  if (result != AbstractCancellableClient::ErrorNone) return result;
  uint8_t method = 0;
  switch (impl::ParseSocks5MethodReply(answer, 2, withPassword, &method)) {
    case impl::Socks5Accepted:
      break;
    case impl::Socks5Refused:
      return Refuse(error, withPassword ? "SOCKS5 proxy accepts none of the offered methods"
                                        : "SOCKS5 proxy requires credentials");
    default:
      return Refuse(error, "Malformed SOCKS5 method selection");
  }

  if (method == impl::kSocks5MethodUserPassword) {
    std::vector<uint8_t> login = {kSocks5UserPasswordVersion};
    AppendField(&login, proxy.login);
    AppendField(&login, proxy.password);
    result = Socks5Exchange(client, login, answer, 2, deadline);
    if (result != AbstractCancellableClient::ErrorNone) return result;
    switch (impl::ParseSocks5AuthReply(answer, 2)) {
      case impl::Socks5Accepted:
        break;
      case impl::Socks5Refused:
        return Refuse(error, "SOCKS5 proxy rejected the credentials");
      default:
        return Refuse(error, "Malformed SOCKS5 authentication answer");
    }
  }

  // The reply's length depends on its address type, told by its fifth byte.
  constexpr size_t kReplyPrefix = 5;
  result = Socks5Exchange(client, Socks5ConnectRequest(host, port), answer, kReplyPrefix, deadline);
  if (result != AbstractCancellableClient::ErrorNone) return result;
  const size_t replySize = impl::Socks5ConnectReplySize(answer, kReplyPrefix);
  if (replySize == 0) return Refuse(error, "Malformed SOCKS5 connect answer");
  result =
      RecvAll(client, answer + kReplyPrefix, replySize - kReplyPrefix, nullptr, deadline.LeftMs());
  if (result != AbstractCancellableClient::ErrorNone) return result;
  uint8_t reply = 0;
  switch (impl::ParseSocks5ConnectReply(answer, replySize, &reply)) {
    case impl::Socks5Accepted:
      return AbstractCancellableClient::ErrorNone;
    case impl::Socks5Refused:
      return Refuse(error, "SOCKS5 proxy refused " + Authority(host, port) + ": " +
                               impl::Socks5ReplyText(reply));
    default:
      return Refuse(error, "Malformed SOCKS5 connect answer");
  }
}

}  // namespace

Error_t ConnectThroughProxy(const std::string& host, unsigned short port, const NetProxyInfo& proxy,
                            AbstractCancellableClient* client, int timeoutMs, std::string* error) {
  if (!IsSafeTargetHost(host)) return Refuse(error, "Invalid proxy target host");
  const Deadline deadline(timeoutMs);
  switch (proxy.type) {
    case NetProxyTypeHttp:
    case NetProxyTypeHttps:
      return HttpConnect(host, port, proxy, client, deadline, error);
    case NetProxyTypeSocks5:
      return Socks5Connect(host, port, proxy, client, deadline, error);
    default:
      return Refuse(error,
                    "Unsupported proxy type " + std::to_string(static_cast<int>(proxy.type)));
  }
}

}  // namespace utils
