#include "utils/net_proxy_info.h"

#include <strings.h>

#include <cstring>

namespace utils {

namespace {

struct ProxyTypeName {
  NetProxyType type;
  const char* name;
};

constexpr ProxyTypeName kProxyTypeNames[] = {
    {NetProxyTypeHttp, "http"},
    {NetProxyTypeHttps, "https"},
    {NetProxyTypeSocks5, "socks5"},
};

}  // namespace

const char* NetProxyTypeToString(NetProxyType type) {
  for (const auto& entry : kProxyTypeNames) {
    if (entry.type == type) return entry.name;
  }
  return "";
}

bool NetProxyTypeFromString(const std::string& name, NetProxyType* type) {
  for (const auto& entry : kProxyTypeNames) {
    if (name.size() == std::strlen(entry.name) && strcasecmp(name.c_str(), entry.name) == 0) {
      if (type != nullptr) *type = entry.type;
      return true;
    }
  }
  return false;
}

}  // namespace utils
