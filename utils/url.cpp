#include "utils/url.h"

#include <uriparser/Uri.h>

#include <charconv>
#include <cstdlib>
#include <memory>
#include <utility>

#include "utils/log.h"
#include "utils/string_pair_list.h"

namespace utils {

namespace {

constexpr const char* kModule = "utils";
constexpr unsigned kMaxPort = 65535;

// Owns what uriparser allocates for one parsed URI.
class ParsedUri {
 public:
  ParsedUri() = default;
  ~ParsedUri() {
    if (parsed_) uriFreeUriMembersA(&uri_);
  }
  ParsedUri(const ParsedUri&) = delete;
  ParsedUri& operator=(const ParsedUri&) = delete;

  // On failure *errorOffset (when not null) is where the syntax broke.
  bool Parse(const std::string& text, size_t* errorOffset) {
    const char* errorPos = nullptr;
    const int rc = uriParseSingleUriExA(&uri_, text.data(), text.data() + text.size(), &errorPos);
    // uriparser frees its partial result itself when it fails.
    parsed_ = rc == URI_SUCCESS;
    if (!parsed_ && errorOffset != nullptr) {
      *errorOffset = errorPos != nullptr ? static_cast<size_t>(errorPos - text.data()) : 0;
    }
    return parsed_;
  }
  bool Normalize() { return uriNormalizeSyntaxA(&uri_) == URI_SUCCESS; }

  UriUriA& Get() { return uri_; }

 private:
  UriUriA uri_{};
  bool parsed_ = false;
};

struct QueryListDeleter {
  void operator()(UriQueryListA* list) const { uriFreeQueryListA(list); }
};
using QueryListPtr = std::unique_ptr<UriQueryListA, QueryListDeleter>;

struct MallocDeleter {
  void operator()(char* text) const { std::free(text); }
};
using MallocString = std::unique_ptr<char, MallocDeleter>;

std::string RangeText(const UriTextRangeA& range) {
  if (range.first == nullptr || range.afterLast == nullptr) return std::string();
  return std::string(range.first, range.afterLast);
}

UriTextRangeA TextRange(const std::string& text) {
  return UriTextRangeA{text.data(), text.data() + text.size()};
}

// uriToString writes a parsed IPv6 host as eight zero-padded groups; a copy
// that presents the host text as an IPvFuture literal makes it write the
// address as it was given, still in brackets. The copy only borrows.
std::string Recompose(const UriUriA& uri) {
  UriUriA view = uri;
  if (view.hostData.ip6 != nullptr) {
    view.hostData.ip6 = nullptr;
    view.hostData.ipFuture = view.hostText;
  }
  int required = 0;
  if (uriToStringCharsRequiredA(&view, &required) != URI_SUCCESS) return std::string();
  std::string text(static_cast<size_t>(required) + 1, '\0');
  int written = 0;
  if (uriToStringA(&text[0], &view, required + 1, &written) != URI_SUCCESS) return std::string();
  // `written` counts the terminator.
  text.resize(written > 0 ? static_cast<size_t>(written) - 1 : 0);
  return text;
}

// Applies `piece` to each NUL-free run of `text`, calling `nul` between runs:
// uriparser's escaping functions stop at the first NUL byte.
template <typename Piece, typename Nul>
void ForEachNulFreeRun(const std::string& text, Piece piece, Nul nul) {
  size_t start = 0;
  for (;;) {
    const size_t stop = text.find('\0', start);
    piece(text.data() + start, text.data() + (stop == std::string::npos ? text.size() : stop));
    if (stop == std::string::npos) return;
    nul();
    start = stop + 1;
  }
}

}  // namespace

bool Url::Parse(const std::string& url, bool normalize) {
  Clear();
  if (url.empty()) return false;
  ParsedUri parsed;
  size_t errorOffset = 0;
  if (!parsed.Parse(url, &errorOffset)) {
    // The URL itself may carry a password, so only the position is logged.
    CORVANE_LOG(UtilsLogger(), zullog::SeverityDebug, kModule)
        << "Url::Parse(): syntax error at offset " << errorOffset;
    return false;
  }
  if (normalize && !parsed.Normalize()) return false;
  const UriUriA& uri = parsed.Get();

  portText_ = RangeText(uri.portText);
  if (!portText_.empty()) {
    unsigned port = 0;
    const char* end = portText_.data() + portText_.size();
    const auto result = std::from_chars(portText_.data(), end, port);
    if (result.ec != std::errc() || result.ptr != end || port > kMaxPort) {
      CORVANE_LOG(UtilsLogger(), zullog::SeverityDebug, kModule)
          << "Url::Parse(): port out of range: " << portText_;
      Clear();
      return false;
    }
    port_ = static_cast<int>(port);
  }

  scheme_ = RangeText(uri.scheme);
  userInfo_ = RangeText(uri.userInfo);
  host_ = RangeText(uri.hostText);
  query_ = RangeText(uri.query);
  fragment_ = RangeText(uri.fragment);
  // The same rule uriToString follows: a path after an authority, or one
  // flagged absolute, starts with '/'.
  if (uri.absolutePath || (uri.hostText.first != nullptr && uri.pathHead != nullptr)) {
    path_ = "/";
  }
  for (const UriPathSegmentA* segment = uri.pathHead; segment != nullptr;
       segment = segment->next) {
    segments_.push_back(RangeText(segment->text));
    if (segment != uri.pathHead) path_ += '/';
    path_ += segments_.back();
  }
  uri_ = Recompose(uri);
  return true;
}

void Url::Clear() {
  scheme_.clear();
  userInfo_.clear();
  host_.clear();
  portText_.clear();
  port_ = 0;
  path_.clear();
  query_.clear();
  fragment_.clear();
  uri_.clear();
  segments_.clear();
}

std::string UrlEscape(const std::string& text) {
  std::string escaped;
  // Every byte may grow to three characters, plus the terminator.
  std::string buffer(text.size() * 3 + 1, '\0');
  ForEachNulFreeRun(
      text,
      [&](const char* first, const char* afterLast) {
        const char* end = uriEscapeExA(first, afterLast, &buffer[0], URI_FALSE, URI_FALSE);
        escaped.append(buffer.data(), static_cast<size_t>(end - buffer.data()));
      },
      [&] { escaped += "%00"; });
  return escaped;
}

std::string UrlUnescape(const std::string& text) {
  std::string unescaped;
  ForEachNulFreeRun(
      text,
      [&](const char* first, const char* afterLast) {
        std::string run(first, afterLast);
        const char* end = uriUnescapeInPlaceExA(&run[0], URI_FALSE, URI_BR_DONT_TOUCH);
        unescaped.append(run.data(), static_cast<size_t>(end - run.data()));
      },
      [&] { unescaped += '\0'; });
  return unescaped;
}

bool ParseUrlEscapedUserInfo(const std::string& userInfo, std::string* user,
                             std::string* password) {
  std::string userPart;
  std::string passwordPart;
  if (!userInfo.empty()) {
    // Let the parser judge the text in the one place user info may stand;
    // anything it takes for more than user info (a '/', '?', '#') is rejected.
    ParsedUri probe;
    if (!probe.Parse("x://" + userInfo + "@x", nullptr)) return false;
    const UriTextRangeA& range = probe.Get().userInfo;
    if (range.first == nullptr ||
        static_cast<size_t>(range.afterLast - range.first) != userInfo.size()) {
      return false;
    }
    const size_t colon = userInfo.find(':');
    userPart = UrlUnescape(userInfo.substr(0, colon));
    if (colon != std::string::npos) passwordPart = UrlUnescape(userInfo.substr(colon + 1));
  }
  if (user != nullptr) user->swap(userPart);
  if (password != nullptr) password->swap(passwordPart);
  return true;
}

std::string MakeUrlEscapedUserInfo(const std::string& user, const std::string& password) {
  std::string userInfo = UrlEscape(user);
  if (!password.empty()) {
    userInfo += ':';
    userInfo += UrlEscape(password);
  }
  return userInfo;
}

std::string BuildUserInfo(const std::string& user, const std::string& password) {
  return user.empty() ? std::string() : MakeUrlEscapedUserInfo(user, password);
}

bool ParseQuery(const std::string& query, StringPairList* list) {
  const size_t start = !query.empty() && query[0] == '?' ? 1 : 0;
  // The decoder hands keys and values back as C strings.
  if (query.find('\0') != std::string::npos || query.find("%00") != std::string::npos) {
    return false;
  }
  if (start == query.size()) return true;
  UriQueryListA* head = nullptr;
  const int rc = uriDissectQueryMallocExA(&head, nullptr, query.data() + start,
                                          query.data() + query.size(), URI_TRUE, URI_BR_DONT_TOUCH);
  QueryListPtr owned(head);
  if (rc != URI_SUCCESS) return false;
  for (const UriQueryListA* item = head; item != nullptr; item = item->next) {
    if (list != nullptr) list->AddValue(item->key, item->value != nullptr ? item->value : "");
  }
  return true;
}

std::string BuildQueryString(const StringPairList& list) {
  if (list.Size() == 0) return std::string();
  std::vector<std::string> keys(list.Size());
  std::vector<std::string> values(list.Size());
  std::vector<UriQueryListA> items(list.Size());
  for (size_t i = 0; i < list.Size(); ++i) {
    list.Value(i, &keys[i], &values[i]);
    items[i].key = keys[i].c_str();
    // "=" keeps a pair with both parts empty; an empty text would drop it.
    const bool keyAlone = values[i].empty() && !keys[i].empty();
    items[i].value = keyAlone ? nullptr : values[i].c_str();
    items[i].next = i + 1 < list.Size() ? &items[i + 1] : nullptr;
  }
  char* composed = nullptr;
  const int rc = uriComposeQueryMallocExA(&composed, items.data(), URI_TRUE, URI_FALSE);
  MallocString owned(composed);
  if (rc != URI_SUCCESS || composed == nullptr) return std::string();
  return std::string(composed);
}

std::string BuildUrl(const std::string& scheme, const std::string& userInfo,
                     const std::string& host, const std::string& port, const std::string& path,
                     const std::string& query, const std::string& fragment) {
  UriUriA uri{};
  if (!scheme.empty()) uri.scheme = TextRange(scheme);
  const bool hasAuthority = !host.empty() || !userInfo.empty() || !port.empty();
  if (hasAuthority) {
    uri.hostText = TextRange(host);
    // A reg-name never holds ':'; uriToString brackets IPvFuture text verbatim.
    if (host.find(':') != std::string::npos) uri.hostData.ipFuture = uri.hostText;
    if (!userInfo.empty()) uri.userInfo = TextRange(userInfo);
    if (!port.empty()) uri.portText = TextRange(port);
  }
  // uriToString copies segment text verbatim, so the whole path can travel as
  // one segment; only its leading '/' is expressed through the structure.
  const bool leadingSlash = !path.empty() && path[0] == '/';
  UriPathSegmentA segment{};
  segment.text = TextRange(path);
  if (leadingSlash) ++segment.text.first;
  // After an authority even "/" needs its (empty) segment for the slash to
  // be written; without one the absolute flag writes it.
  if (hasAuthority ? !path.empty() : segment.text.first != segment.text.afterLast) {
    uri.pathHead = uri.pathTail = &segment;
  }
  if (!hasAuthority) uri.absolutePath = leadingSlash ? URI_TRUE : URI_FALSE;
  if (!query.empty()) uri.query = TextRange(query);
  if (!fragment.empty()) uri.fragment = TextRange(fragment);
  return Recompose(uri);
}

bool ModifyUrlUserInfo(const std::string& url, const std::string& userInfo, std::string* result) {
  if (!ParseUrlEscapedUserInfo(userInfo, nullptr, nullptr)) return false;
  ParsedUri parsed;
  if (!parsed.Parse(url, nullptr)) return false;
  UriUriA view = parsed.Get();
  if (view.hostText.first == nullptr) return false;
  view.userInfo = userInfo.empty() ? UriTextRangeA{nullptr, nullptr} : TextRange(userInfo);
  std::string text = Recompose(view);
  if (result != nullptr) result->swap(text);
  return true;
}

bool NetProxyInfoFromUrl(const std::string& url, NetProxyInfo* info) {
  if (url.empty()) return false;
  Url parsed;
  // "host:port" would otherwise read as scheme "host" with path "port".
  if (!parsed.Parse(url.find("://") == std::string::npos ? "http://" + url : url, true)) {
    return false;
  }
  NetProxyInfo proxy;
  if (!NetProxyTypeFromString(parsed.Scheme(), &proxy.type) || parsed.Host().empty()) {
    return false;
  }
  if (!ParseUrlEscapedUserInfo(parsed.UserInfo(), &proxy.login, &proxy.password)) return false;
  int defaultPort = 80;
  if (proxy.type == NetProxyTypeHttps) defaultPort = 443;
  if (proxy.type == NetProxyTypeSocks5) defaultPort = 1080;
  proxy.host = parsed.Host();
  proxy.port = static_cast<unsigned short>(parsed.Port(defaultPort));
  if (info != nullptr) *info = std::move(proxy);
  return true;
}

}  // namespace utils
