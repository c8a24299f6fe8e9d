#include "utils/http/digest_auth.h"

#include <string>

#include <gtest/gtest.h>

namespace {

namespace digest = utils::digest_auth;

// Extracts the quoted or plain value of one parameter from an Authorization value.
std::string Param(const std::string& header, const std::string& name) {
  const size_t at = header.find(" " + name + "=");
  if (at == std::string::npos) return "<absent>";
  size_t begin = at + name.size() + 2;
  if (header[begin] == '"') return header.substr(begin + 1, header.find('"', begin + 1) - begin - 1);
  return header.substr(begin, header.find(',', begin) - begin);
}

// Digest with qop, both algorithms and the request counter are checked by the
// scripted peer's own computation; the forms it never sends are checked here.
TEST(DigestAuth, AnswersOtherChallengeForms) {
  digest::Challenge challenge;
  ASSERT_TRUE(digest::ParseChallenge("digest realm=\"a, \\\"b\\\"\",nonce=abc", &challenge));
  EXPECT_EQ(challenge.realm, "a, \"b\"");
  EXPECT_EQ(challenge.nonce, "abc");
  EXPECT_FALSE(challenge.qopAuth);
  EXPECT_EQ(challenge.algorithm, "MD5");
  const std::string plain = digest::BuildAuthorization(challenge, "u", "p", "GET", "/", "c", 1);
  EXPECT_NE(plain.find("realm=\"a, \\\"b\\\"\""), std::string::npos) << plain;
  EXPECT_EQ(Param(plain, "qop"), "<absent>");
  // RFC 2069: MD5(MD5(u:realm:p):nonce:MD5(GET:/)).
  EXPECT_EQ(Param(plain, "response"), "297e82bc7f173902610c81024c637dcb");
  ASSERT_TRUE(digest::ParseChallenge("Digest realm=\"r\", nonce=\"n\", algorithm=md5-sess, qop=auth", &challenge));
  EXPECT_EQ(Param(digest::BuildAuthorization(challenge, "u", "p", "GET", "/", "c", 1), "algorithm"), "MD5-sess");
  EXPECT_EQ(digest::MakeClientNonce().size(), 32u);
  EXPECT_NE(digest::MakeClientNonce(), digest::MakeClientNonce());
}

TEST(DigestAuth, RefusesChallengesItCannotAnswer) {
  for (const char* value : {"Basic realm=\"r\"", "Digest realm=\"r\"", "Digestive nonce=\"n\"",
                            "Digest nonce=\"n\", algorithm=SHA-256", "Digest nonce=\"n\", qop=\"auth-int\"", ""}) {
    EXPECT_FALSE(digest::ParseChallenge(value, nullptr)) << value;
  }
}

}  // namespace
