// URL parsing and everything fed from it must survive any bytes; the escaping,
// user-info and query round trips must give back what went in.
#include <cstddef>
#include <cstdint>
#include <string>

#include "utils/net_proxy_info.h"
#include "utils/string_pair_list.h"
#include "utils/url.h"

namespace {

bool SamePairs(const utils::StringPairList& a, const utils::StringPairList& b) {
  if (a.Size() != b.Size()) return false;
  for (size_t i = 0; i < a.Size(); ++i) {
    std::string keyA, valueA, keyB, valueB;
    a.Value(i, &keyA, &valueA);
    b.Value(i, &keyB, &valueB);
    if (keyA != keyB || valueA != valueB) return false;
  }
  return true;
}

void CheckQueryRoundTrip(const std::string& query) {
  utils::StringPairList pairs;
  if (!utils::ParseQuery(query, &pairs)) return;
  utils::StringPairList again;
  if (!utils::ParseQuery(utils::BuildQueryString(pairs), &again) || !SamePairs(pairs, again)) {
    __builtin_trap();
  }
}

void ExerciseUrl(const std::string& text, bool normalize) {
  utils::Url url;
  if (!url.Parse(text, normalize)) return;
  if (url.Port(-1) < -1 || url.Port(-1) > 65535) __builtin_trap();
  size_t segmentBytes = 0;
  for (const auto& segment : url.PathSegments()) segmentBytes += segment.size();
  if (segmentBytes > url.Path().size()) __builtin_trap();
  CheckQueryRoundTrip(url.Query());
  const std::string built =
      utils::BuildUrl(url.Scheme(), url.UserInfo(), url.Host(), url.PortText(), url.Path(),
                      url.Query(), url.Fragment());
  utils::Url reparsed;
  reparsed.Parse(built, normalize);
  reparsed.Parse(url.Uri(), normalize);
  std::string user, password;
  utils::ParseUrlEscapedUserInfo(url.UserInfo(), &user, &password);
  std::string modified;
  utils::ModifyUrlUserInfo(text, utils::BuildUserInfo(user, password), &modified);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  ExerciseUrl(text, false);
  ExerciseUrl(text, true);
  CheckQueryRoundTrip(text);

  if (utils::UrlUnescape(utils::UrlEscape(text)) != text) __builtin_trap();
  const size_t cut = size > 0 ? data[0] % (size + 1) : 0;
  const std::string user = text.substr(0, cut);
  const std::string password = text.substr(cut);
  std::string parsedUser, parsedPassword;
  if (!utils::ParseUrlEscapedUserInfo(utils::MakeUrlEscapedUserInfo(user, password), &parsedUser,
                                      &parsedPassword) ||
      parsedUser != user || parsedPassword != password) {
    __builtin_trap();
  }

  utils::NetProxyInfo proxy;
  utils::NetProxyInfoFromUrl(text, &proxy);
  return 0;
}
