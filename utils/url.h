// URL parsing, escaping, user info, queries and building, on top of uriparser
// (kept out of this header). Components travel in their escaped form unless a
// function says it unescapes; nothing here is thread-bound.
#pragma once

#include <string>
#include <vector>

#include "net_proxy_info.h"

namespace utils {

class StringPairList;

// One parsed URL (an absolute URL or a relative reference). A plain value:
// components are copied out of the parser, so the object owns all its text.
class Url {
 public:
  // Replaces the content with `url`. Empty input, syntax errors and ports
  // above 65535 fail and leave the object empty. With `normalize`, scheme and
  // host are lower-cased, percent escapes of unreserved characters decoded,
  // other escapes upper-cased and "." / ".." segments removed.
  bool Parse(const std::string& url, bool normalize = true);

  const std::string& Scheme() const { return scheme_; }
  const std::string& UserInfo() const { return userInfo_; }
  // IPv6 literals come without their brackets.
  const std::string& Host() const { return host_; }
  // The digits after ':', empty when the URL names no port.
  const std::string& PortText() const { return portText_; }
  int Port(int defaultPort) const { return portText_.empty() ? defaultPort : port_; }
  // "/" joined segments, with the leading "/" of an absolute path.
  const std::string& Path() const { return path_; }
  const std::string& Query() const { return query_; }
  const std::string& Fragment() const { return fragment_; }
  // The whole URL as the parser recomposes it (normalised when asked).
  const std::string& Uri() const { return uri_; }
  // Escaped segments between slashes; "/a/" gives "a" and "", "/" gives "".
  const std::vector<std::string>& PathSegments() const { return segments_; }

 private:
  void Clear();

  std::string scheme_;
  std::string userInfo_;
  std::string host_;
  std::string portText_;
  int port_ = 0;
  std::string path_;
  std::string query_;
  std::string fragment_;
  std::string uri_;
  std::vector<std::string> segments_;
};

// Percent-encodes every byte except ALPHA, DIGIT and "-._~" (NUL included).
std::string UrlEscape(const std::string& text);

// Decodes %XX groups; malformed groups stay as they are and '+' stays '+'.
std::string UrlUnescape(const std::string& text);

// Splits an escaped "user[:password]" at its first ':' and unescapes both
// parts. False, outputs untouched, when the text is not valid user info
// (a raw '@', '/', space, a broken escape, ...). Empty input gives two empties.
bool ParseUrlEscapedUserInfo(const std::string& userInfo, std::string* user,
                             std::string* password);

// Escaped "user:password", or just "user" when the password is empty.
std::string MakeUrlEscapedUserInfo(const std::string& user, const std::string& password);

// Like MakeUrlEscapedUserInfo, but empty without a user: a password alone
// authenticates nobody and would only leak into the URL.
std::string BuildUserInfo(const std::string& user, const std::string& password);

// Appends the pairs of a query ("a=1&b=2", a leading '?' allowed) to `list`
// unescaped, '+' read as a space, in order, repeats kept; "a" gives value "".
// False when the query holds a NUL byte, raw or as %00, which the decoder
// cannot hand back intact.
bool ParseQuery(const std::string& query, StringPairList* list);

// The pairs escaped and joined with '&' and '='; spaces become '+', and a pair
// with an empty value is written as its key alone. Keys and values end at
// their first NUL byte (ParseQuery never yields one).
std::string BuildQueryString(const StringPairList& list);

// Assembles escaped components as given. An authority ("//") is written when
// host, user info or port is non-empty; a host holding ':' is an IPv6 literal
// and gets brackets; a path without its leading '/' gets one after a host.
std::string BuildUrl(const std::string& scheme, const std::string& userInfo,
                     const std::string& host, const std::string& port, const std::string& path,
                     const std::string& query, const std::string& fragment);

// `url` with its user info replaced by the escaped `userInfo` (empty removes
// it), everything else kept as written. False when `url` does not parse, has
// no host to carry user info, or `userInfo` is not valid user info.
bool ModifyUrlUserInfo(const std::string& url, const std::string& userInfo, std::string* result);

// Reads "scheme://[login[:password]@]host[:port][/]" into `info`, the scheme
// being a proxy type name ("http" when the text has no "://"). A missing port
// becomes the type's usual one: 80, 443 or 1080. False, `info` untouched, for
// unknown schemes, missing hosts and malformed URLs.
bool NetProxyInfoFromUrl(const std::string& url, NetProxyInfo* info);

}  // namespace utils
