#include <string>

#include <gtest/gtest.h>

#include "utils/http/cookies.h"
#include "utils/http/digest_auth.h"
#include "utils/http/response.h"

namespace {

namespace digest = utils::digest_auth;

bool Parse(const std::string& head, utils::HttpResponse* response) {
  return utils::ParseHttpResponseHead(head.data(), head.data() + head.size(), response);
}

TEST(ResponseHead, ReadsStatusLineAndHeadersInWireOrderOrRejectsTheHead) {
  utils::HttpResponse response;
  ASSERT_TRUE(
      Parse("HTTP/1.0 404 Not  Found\r\nA: 1\r\nSet-Cookie: x=1\r\nno colon\r\nbare\rcr: z\r\n"
            "Set-Cookie:x=2 \r\nFolded: a\r\n  b\r\n\tc\r\n\r\n",
            &response));
  EXPECT_EQ(response.StatusCode, 404);
  EXPECT_EQ(response.StatusPhrase, "Not  Found");
  EXPECT_EQ(response.HttpVersion, "1.0");
  std::string key;
  std::string value;
  std::string all;
  for (size_t i = 0; response.Headers.Value(i, &key, &value); ++i) all += key + "=" + value + ";";
  EXPECT_EQ(all, "A=1;Set-Cookie=x=1;Set-Cookie=x=2;Folded=a b c;");
  // Bare line feeds, and no reason phrase.
  ASSERT_TRUE(Parse("HTTP/1.1 204\nX: y\n\n", &response));
  EXPECT_EQ(response.StatusCode, 204);
  EXPECT_EQ(response.StatusPhrase, "");
  EXPECT_EQ(response.Headers.Size(), 1u);
  // Malformed status lines.
  for (const char* head :
       {"", "HTTP/1.1\r\n\r\n", "HTTP/1.1 20\r\n\r\n", "HTTP/1.1 2000 OK\r\n\r\n", "HTTP/11 200 OK\r\n\r\n",
        "http/1.1 200 OK\r\n\r\n", "ICY 200 OK\r\n\r\n", "HTTP/1.1 abc\r\n\r\n"}) {
    response.StatusCode = 7;
    EXPECT_FALSE(Parse(head, &response)) << head;
    EXPECT_EQ(response.StatusCode, 0) << head;
    EXPECT_EQ(response.Headers.Size(), 0u) << head;
  }
}

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
TEST(DigestAuth, AnswersOtherChallengeFormsAndRefusesWhatItCannotAnswer) {
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
  for (const char* value : {"Basic realm=\"r\"", "Digest realm=\"r\"", "Digestive nonce=\"n\"",
                            "Digest nonce=\"n\", algorithm=SHA-256", "Digest nonce=\"n\", qop=\"auth-int\"", ""}) {
    EXPECT_FALSE(digest::ParseChallenge(value, nullptr)) << value;
  }
}

TEST(CookieJar, SendsCookiesByHostPathAndSecurityUntilTheyAreReplaced) {
  utils::CookieJar jar;
  jar.Store("a=1", "Example.org", "/login/form");
  jar.Store("b=2; Path=/; Domain=.example.org; HttpOnly", "www.example.org", "/");
  jar.Store("c=3; Secure; Path=/", "example.org", "/");
  jar.Store("evil=1; Domain=other.org", "example.org", "/");
  jar.Store("=novalue", "example.org", "/");

  EXPECT_EQ(jar.CookieHeader("example.org", "/login", false), "a=1; b=2");
  EXPECT_EQ(jar.CookieHeader("example.org", "/login/x", true), "a=1; b=2; c=3");
  EXPECT_EQ(jar.CookieHeader("example.org", "/loginx", false), "b=2");
  EXPECT_EQ(jar.CookieHeader("sub.example.org", "/login", false), "b=2");  // a=1 is host-only
  EXPECT_EQ(jar.CookieHeader("badexample.org", "/", true), "");
  EXPECT_EQ(jar.CookieHeader("other.org", "/", true), "");
  // A later cookie replaces an earlier one; an expired one removes it.
  jar.Store("s=old; Path=/", "h", "/");
  jar.Store("s=new; Path=/", "h", "/");
  jar.Store("t=1; Path=/", "h", "/");
  EXPECT_EQ(jar.CookieHeader("h", "/", false), "s=new; t=1");
  jar.Store("s=x; Path=/; Max-Age=0", "h", "/");
  jar.Store("t=x; Path=/; Expires=Thu, 01 Jan 1970 00:00:00 GMT", "h", "/");
  EXPECT_EQ(jar.CookieHeader("h", "/", false), "");
  // An IP address never matches a Domain by suffix.
  jar.Store("ip=1; Domain=0.0.1", "127.0.0.1", "/");
  EXPECT_EQ(jar.CookieHeader("127.0.0.1", "/", false), "");
}

}  // namespace
