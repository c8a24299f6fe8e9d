#include "utils/http/digest_auth.h"

#include <cstdio>
#include <random>

#include "utils/md5.h"
#include "utils/strings.h"

namespace utils {
namespace digest_auth {

namespace {

bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// Splits "k1=v1, k2="v, 2"" into pairs; quoted values honour backslash escapes
// (RFC 9110, section 5.6.4). Calls take(key, value) for each pair.
template <typename Take>
void ForEachParam(const std::string& text, size_t pos, Take take) {
  const size_t n = text.size();
  while (pos < n) {
    while (pos < n && (IsSpace(text[pos]) || text[pos] == ',')) ++pos;
    const size_t keyBegin = pos;
    while (pos < n && text[pos] != '=' && text[pos] != ',' && !IsSpace(text[pos])) ++pos;
    std::string key = text.substr(keyBegin, pos - keyBegin);
    while (pos < n && IsSpace(text[pos])) ++pos;
    std::string value;
    if (pos < n && text[pos] == '=') {
      ++pos;
      while (pos < n && IsSpace(text[pos])) ++pos;
      if (pos < n && text[pos] == '"') {
        for (++pos; pos < n && text[pos] != '"'; ++pos) {
          if (text[pos] == '\\' && pos + 1 < n) ++pos;
          value.push_back(text[pos]);
        }
        if (pos < n) ++pos;
      } else {
        const size_t valueBegin = pos;
        while (pos < n && text[pos] != ',' && !IsSpace(text[pos])) ++pos;
        value = text.substr(valueBegin, pos - valueBegin);
      }
    }
    if (!key.empty()) take(key, value);
  }
}

// Quoted-string content: backslash and double quote need escaping.
std::string Quote(const std::string& text) {
  std::string quoted = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') quoted.push_back('\\');
    quoted.push_back(c);
  }
  quoted.push_back('"');
  return quoted;
}

}  // namespace

bool ParseChallenge(const std::string& headerValue, Challenge* challenge) {
  size_t pos = 0;
  while (pos < headerValue.size() && IsSpace(headerValue[pos])) ++pos;
  static const char kScheme[] = "Digest";
  const size_t schemeSize = sizeof(kScheme) - 1;
  if (headerValue.size() < pos + schemeSize + 1 ||
      !SameIgnoreCase(boost::string_view(headerValue).substr(pos, schemeSize), kScheme) ||
      !IsSpace(headerValue[pos + schemeSize])) {
    return false;
  }
  Challenge parsed;
  bool qopGiven = false;
  ForEachParam(headerValue, pos + schemeSize, [&](const std::string& key, const std::string& value) {
    if (SameIgnoreCase(key, "realm")) {
      parsed.realm = value;
    } else if (SameIgnoreCase(key, "nonce")) {
      parsed.nonce = value;
    } else if (SameIgnoreCase(key, "opaque")) {
      parsed.opaque = value;
    } else if (SameIgnoreCase(key, "algorithm")) {
      parsed.algorithm = value;
    } else if (SameIgnoreCase(key, "qop")) {
      qopGiven = true;
      std::vector<std::string> options;
      SplitString(value, ", \t", true, &options);
      for (const auto& option : options) {
        if (SameIgnoreCase(option, "auth")) parsed.qopAuth = true;
      }
    }
  });
  if (parsed.nonce.empty()) return false;
  if (qopGiven && !parsed.qopAuth) return false;
  if (parsed.algorithm.empty() || SameIgnoreCase(parsed.algorithm, "MD5")) {
    parsed.algorithm = "MD5";
  } else if (SameIgnoreCase(parsed.algorithm, "MD5-sess")) {
    parsed.algorithm = "MD5-sess";
  } else {
    return false;
  }
  if (challenge != nullptr) *challenge = parsed;
  return true;
}

std::string BuildAuthorization(const Challenge& challenge, const std::string& user,
                               const std::string& password, const std::string& method,
                               const std::string& uri, const std::string& cnonce,
                               unsigned nonceCount) {
  char nc[9];
  std::snprintf(nc, sizeof(nc), "%08x", nonceCount);
  std::string ha1 = Md5Hex(user + ":" + challenge.realm + ":" + password);
  if (challenge.algorithm == "MD5-sess") ha1 = Md5Hex(ha1 + ":" + challenge.nonce + ":" + cnonce);
  const std::string ha2 = Md5Hex(method + ":" + uri);
  const std::string response =
      challenge.qopAuth
          ? Md5Hex(ha1 + ":" + challenge.nonce + ":" + nc + ":" + cnonce + ":auth:" + ha2)
          : Md5Hex(ha1 + ":" + challenge.nonce + ":" + ha2);
  std::string header = "Digest username=" + Quote(user) + ", realm=" + Quote(challenge.realm) +
                       ", nonce=" + Quote(challenge.nonce) + ", uri=" + Quote(uri) +
                       ", algorithm=" + challenge.algorithm + ", response=" + Quote(response);
  if (challenge.qopAuth) header += ", qop=auth, nc=" + std::string(nc) + ", cnonce=" + Quote(cnonce);
  if (!challenge.opaque.empty()) header += ", opaque=" + Quote(challenge.opaque);
  return header;
}

std::string MakeClientNonce() {
  std::random_device device;
  static const char kHex[] = "0123456789abcdef";
  std::string nonce;
  for (int i = 0; i < 4; ++i) {
    const unsigned value = device();
    for (int shift = 28; shift >= 0; shift -= 4) nonce.push_back(kHex[(value >> shift) & 0xF]);
  }
  return nonce;
}

}  // namespace digest_auth
}  // namespace utils
