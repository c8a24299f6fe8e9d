// utils::NetProxyInfo: where a connection goes through a proxy, and how the
// proxy's type is named in URLs and script tables ("http", "https", "socks5").
// A plain value; relies on nothing but the standard library.
#pragma once

#include <string>

namespace utils {

enum NetProxyType : int {
  NetProxyTypeHttp = 0,    // HTTP CONNECT over a plain connection to the proxy
  NetProxyTypeHttps = 1,   // HTTP CONNECT over TLS to the proxy
  NetProxyTypeSocks5 = 2,  // SOCKS5 (no authentication or username/password)
};

struct NetProxyInfo {
  std::string host;  // empty: no proxy
  unsigned short port = 0;
  std::string login;  // non-empty: the proxy asks for credentials
  std::string password;
  NetProxyType type = NetProxyTypeHttp;

  bool IsSet() const { return !host.empty(); }
  bool HasCredentials() const { return !login.empty(); }
};

// "http", "https" or "socks5"; the empty string for a value outside the enumeration.
const char* NetProxyTypeToString(NetProxyType type);

// Case-insensitive match of one of the three names; *type (when not null) is
// written only on success.
bool NetProxyTypeFromString(const std::string& name, NetProxyType* type);

}  // namespace utils
