// utils::CookieJar: the cookies one request execution collects from
// Set-Cookie headers (RFC 6265) and sends on its later hops (redirects, an
// authentication retry). Nothing persists beyond the jar's life.
#pragma once

#include <string>
#include <vector>

namespace utils {

// A plain value; one thread at a time.
class CookieJar {
 public:
  // Stores the cookie of one Set-Cookie value received from host for
  // requestPath. A cookie whose Domain does not cover host is ignored; an
  // empty value, Max-Age 0 or less, or an Expires date ("1970") in the past
  // removes it instead. Expiry dates are otherwise not tracked: the jar lives
  // for one call.
  void Store(const std::string& setCookie, const std::string& host,
             const std::string& requestPath);

  // "a=1; b=2" for a request to host and path, or empty when nothing matches.
  // Secure cookies go only over secure connections.
  std::string CookieHeader(const std::string& host, const std::string& path, bool secure) const;

 private:
  struct Cookie {
    std::string name;
    std::string value;
    std::string domain;  // lower case, without a leading dot
    bool hostOnly = true;
    std::string path;
    bool secure = false;
  };

  std::vector<Cookie> cookies_;
};

}  // namespace utils
