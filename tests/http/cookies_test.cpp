#include "utils/http/cookies.h"

#include <gtest/gtest.h>

namespace {

TEST(CookieJar, SendsCookiesByHostPathAndSecurity) {
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
}

TEST(CookieJar, LaterCookieReplacesAndExpiredOneRemoves) {
  utils::CookieJar jar;
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
