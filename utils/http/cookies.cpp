#include "utils/http/cookies.h"

#include <algorithm>
#include <ctime>

#include "utils/string_to_int.h"
#include "utils/strings.h"

namespace utils {

namespace {

// RFC 6265, section 5.1.3: host equal, or a suffix after a dot, and never an
// IP address matched by suffix.
bool DomainMatches(const std::string& host, const std::string& domain) {
  if (host == domain) return true;
  if (host.size() <= domain.size()) return false;
  if (host.compare(host.size() - domain.size(), domain.size(), domain) != 0) return false;
  if (host[host.size() - domain.size() - 1] != '.') return false;
  return host.find_first_not_of("0123456789.") != std::string::npos && host.find(':') == std::string::npos;
}

// RFC 6265, section 5.1.4.
bool PathMatches(const std::string& requestPath, const std::string& cookiePath) {
  if (requestPath.compare(0, cookiePath.size(), cookiePath) != 0) return false;
  return requestPath.size() == cookiePath.size() || cookiePath.back() == '/' ||
         requestPath[cookiePath.size()] == '/';
}

std::string DefaultPath(const std::string& requestPath) {
  if (requestPath.empty() || requestPath[0] != '/') return "/";
  const size_t slash = requestPath.rfind('/');
  return slash == 0 ? "/" : requestPath.substr(0, slash);
}

// Only "is this date before now" matters; dates we cannot read count as future.
bool ExpiresInPast(const std::string& date) {
  std::tm tm{};
  const char* formats[] = {"%a, %d %b %Y %H:%M:%S", "%a, %d-%b-%Y %H:%M:%S", "%a, %d-%b-%y %H:%M:%S"};
  for (const char* format : formats) {
    tm = std::tm{};
    if (strptime(date.c_str(), format, &tm) != nullptr) return timegm(&tm) < std::time(nullptr);
  }
  return false;
}

}  // namespace

void CookieJar::Store(const std::string& setCookie, const std::string& host,
                      const std::string& requestPath) {
  std::vector<std::string> parts;
  SplitString(setCookie, ";", false, &parts);
  std::string name;
  std::string value;
  if (!SplitString(parts[0], "=", true, &name, &value) || name.empty()) return;
  Cookie cookie;
  cookie.name = name;
  cookie.value = value;
  cookie.domain = ToLower(host);
  cookie.path = DefaultPath(requestPath);
  bool remove = value.empty();
  for (size_t i = 1; i < parts.size(); ++i) {
    std::string key;
    std::string attribute;
    SplitString(parts[i], "=", true, &key, &attribute);
    if (SameIgnoreCase(key, "Domain")) {
      const std::string domain = ToLower(TrimLeading(attribute, '.'));
      if (domain.empty()) continue;
      if (!DomainMatches(cookie.domain, domain)) return;
      cookie.domain = domain;
      cookie.hostOnly = false;
    } else if (SameIgnoreCase(key, "Path")) {
      if (!attribute.empty() && attribute[0] == '/') cookie.path = attribute;
    } else if (SameIgnoreCase(key, "Secure")) {
      cookie.secure = true;
    } else if (SameIgnoreCase(key, "Max-Age")) {
      long long seconds = 0;
      if (StringToInt(attribute.data(), attribute.data() + attribute.size(), &seconds, true, nullptr) &&
          seconds <= 0) {
        remove = true;
      }
    } else if (SameIgnoreCase(key, "Expires")) {
      if (ExpiresInPast(attribute)) remove = true;
    }
  }
  cookies_.erase(std::remove_if(cookies_.begin(), cookies_.end(),
                                [&](const Cookie& c) {
                                  return c.name == cookie.name && c.domain == cookie.domain &&
                                         c.path == cookie.path;
                                }),
                 cookies_.end());
  if (!remove) cookies_.push_back(cookie);
}

std::string CookieJar::CookieHeader(const std::string& host, const std::string& path,
                                    bool secure) const {
  const std::string lowerHost = ToLower(host);
  const std::string requestPath = path.empty() ? "/" : path;
  std::string header;
  for (const Cookie& cookie : cookies_) {
    if (cookie.secure && !secure) continue;
    if (cookie.hostOnly ? lowerHost != cookie.domain : !DomainMatches(lowerHost, cookie.domain)) continue;
    if (!PathMatches(requestPath, cookie.path)) continue;
    if (!header.empty()) header += "; ";
    header += cookie.name + "=" + cookie.value;
  }
  return header;
}

}  // namespace utils
