// HTTP Digest access authentication (RFC 7616) for a client: reading a
// "WWW-Authenticate: Digest ..." challenge and answering it. Only MD5 and
// MD5-sess, with qop "auth" or without qop (RFC 2069); SHA-256 and auth-int
// are refused rather than answered wrongly.
#pragma once

#include <string>

namespace utils {
namespace digest_auth {

struct Challenge {
  std::string realm;
  std::string nonce;
  std::string opaque;     // echoed back when the server sent one
  std::string algorithm;  // "MD5" (also when absent) or "MD5-sess"
  bool qopAuth = false;   // the server offered qop "auth"
};

// Reads the value of one WWW-Authenticate header. False when it is not a
// Digest challenge we can answer (another scheme, no nonce, an unsupported
// algorithm, or a qop list without "auth").
bool ParseChallenge(const std::string& headerValue, Challenge* challenge);

// The value of the Authorization header for one request. cnonce is the
// client's random nonce (hex); nonceCount starts at 1 for each new nonce.
std::string BuildAuthorization(const Challenge& challenge, const std::string& user,
                               const std::string& password, const std::string& method,
                               const std::string& uri, const std::string& cnonce,
                               unsigned nonceCount);

// A fresh random client nonce: 16 bytes as 32 hex digits.
std::string MakeClientNonce();

}  // namespace digest_auth
}  // namespace utils
