#include "utils/http/response.h"

#include <string>

#include <gtest/gtest.h>

namespace {

bool Parse(const std::string& head, utils::HttpResponse* response) {
  return utils::ParseHttpResponseHead(head.data(), head.data() + head.size(), response);
}

TEST(ResponseHead, ReadsStatusLineAndHeadersInWireOrder) {
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
  const std::pair<std::string, std::string> expected[] = {
      {"A", "1"}, {"Set-Cookie", "x=1"}, {"Set-Cookie", "x=2"}, {"Folded", "a b c"}};
  ASSERT_EQ(response.Headers.Size(), 4u);
  for (size_t i = 0; i < 4; ++i) {
    ASSERT_TRUE(response.Headers.Value(i, &key, &value));
    EXPECT_EQ(key, expected[i].first);
    EXPECT_EQ(value, expected[i].second);
  }
  // Bare line feeds, and no reason phrase.
  ASSERT_TRUE(Parse("HTTP/1.1 204\nX: y\n\n", &response));
  EXPECT_EQ(response.StatusCode, 204);
  EXPECT_EQ(response.StatusPhrase, "");
  EXPECT_EQ(response.Headers.Size(), 1u);
}

TEST(ResponseHead, RejectsMalformedStatusLines) {
  for (const char* head :
       {"", "HTTP/1.1\r\n\r\n", "HTTP/1.1 20\r\n\r\n", "HTTP/1.1 2000 OK\r\n\r\n", "HTTP/11 200 OK\r\n\r\n",
        "http/1.1 200 OK\r\n\r\n", "ICY 200 OK\r\n\r\n", "HTTP/1.1 abc\r\n\r\n"}) {
    utils::HttpResponse response;
    response.StatusCode = 7;
    EXPECT_FALSE(Parse(head, &response)) << head;
    EXPECT_EQ(response.StatusCode, 0) << head;
    EXPECT_EQ(response.Headers.Size(), 0u) << head;
  }
}

}  // namespace
