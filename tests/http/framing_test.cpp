#include "utils/http/framing.h"

#include <sys/socket.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "net/support/loopback.h"
#include "utils/http/chunked_decoder.h"
#include "utils/net/base_socket_client.h"

namespace {

using Client = utils::BaseSocketClient;

// Offset of the head end in text, or -1.
long HeadEnd(const std::string& text) {
  const char* end = utils::ExtractHttpResponseRequestHeader(text.data(), text.data() + text.size());
  return end == nullptr ? -1 : end - text.data();
}

TEST(Framing, HeadEndIsFoundForBothLineEndings) {
  const struct {
    std::string text;
    long end;
  } cases[] = {
      {"HTTP/1.1 200 OK\r\nA: b\r\n\r\nbody", 25},
      {"HTTP/1.1 200 OK\nA: b\n\nbody", 22},
      {"HTTP/1.1 200 OK\nA: b\n\r\nbody", 23},
      {"HTTP/1.1 200 OK\rA: b\r\r\rbody", -1},
      {"\nX\n\n", 4},  // a leading line feed is not an empty line
      {"\n", -1},
      {"\n\r", -1},
      {"A\n\rx\n\n", 6},
      {"", -1},
  };
  for (const auto& c : cases) EXPECT_EQ(HeadEnd(c.text), c.end) << c.text;
  EXPECT_EQ(utils::ExtractHttpResponseRequestHeader(nullptr, nullptr), nullptr);
}

TEST(Framing, HeadEndAgreesOnEveryPrefix) {
  // A receiver checks after every byte: no prefix may report an end early.
  const std::string head = "HTTP/1.0 302 Found\r\nLocation: /x\n\r\n";
  for (size_t n = 0; n < head.size(); ++n) EXPECT_EQ(HeadEnd(head.substr(0, n)), -1) << n;
  EXPECT_EQ(HeadEnd(head), static_cast<long>(head.size()));
}

TEST(Framing, LineEndsBehindLineFeed) {
  const std::string text = "ab\r\ncd";
  EXPECT_EQ(utils::ExtractHttpLine(text.data(), text.data() + text.size()), text.data() + 4);
  EXPECT_EQ(utils::ExtractHttpLine(text.data() + 4, text.data() + text.size()), nullptr);
  EXPECT_EQ(utils::ExtractHttpLine(text.data(), text.data()), nullptr);
}

TEST(Framing, ContentLengthIsFoundLeniently) {
  const struct {
    const char* head;
    int64_t length;
  } cases[] = {
      {"HTTP/1.1 200 OK\r\ncontent-length:  42\r\n\r\n", 42},
      {"Content-Length: \t7", 7},
      {"Content-Length::42\r\n", -1},
      {"Content-Length::42\r\nContent-Length: 9\r\n", 9},
      {"ContentLength: 7\r\n", 7},
      {"X-Original-Content-Length: 5\r\n", 5},  // matched anywhere, on purpose
      {"Content-Length: abc\r\nContentLength: 3\r\n", 3},
      {"Content-Length: -1\r\n", -1},
      {"Content-Length: 99999999999999999999\r\n", -1},
      {"Content-Type: text/plain\r\n", -1},
      {"Content-Length", -1},
      {"", -1},
  };
  for (const auto& c : cases) EXPECT_EQ(utils::ParseContentLength(c.head, nullptr), c.length) << c.head;
  const std::string text = "Content-Length: 12345";
  // The end bounds the number as well as the search.
  EXPECT_EQ(utils::ParseContentLength(text.data(), text.data() + text.size() - 2), 123);
  EXPECT_EQ(utils::ParseContentLength(text.data(), text.data()), -1);
  EXPECT_EQ(utils::ParseContentLength(nullptr, nullptr), -1);
}

TEST(Framing, ChunkedStringDecodesWhatItCan) {
  const struct {
    std::string body;
    std::string decoded;
  } cases[] = {
      {"4\r\nWiki\r\n5\r\npedia\r\n0\r\n\r\n", "Wikipedia"},
      {"4;name=value\r\nWiki\r\n0\r\n\r\n", "Wiki"},
      {"zz\r\nWiki\r\n", ""},
      {"10\r\nabc", "abc"},
      {"3\r\nabc\r\n0\r\n\r\n3\r\ndef\r\n", "abcdef"},  // a zero chunk does not stop it
      {"3\r\nabcXY2\r\nde\r\n", "abcde"},               // the CRLF after data is not checked
      {"3\nabc", ""},                                   // the size line needs CRLF
      {"3\r\nabc\r\nTrailer: x\r\n\r\n", "abc"},
      {std::string("2\r\na\0\r\n", 7), std::string("a\0", 2)},
      {"", ""},
  };
  for (const auto& c : cases) EXPECT_EQ(utils::ParseChunkedEncodedString(c.body), c.decoded) << c.body;
}

// The incremental decoder must give the same result however the input is cut.
TEST(ChunkedDecoder, AgreesWholeByteByByteAndSplitAnywhere) {
  const std::string body = "4;ext=1\r\nWiki\r\n5\r\npedia\n0\r\nTrailer: x\r\n\r\nNEXT";
  const size_t bodyEnd = body.size() - 4;
  for (size_t split = 0; split <= body.size(); ++split) {
    utils::ChunkedDecoder decoder(1024);
    std::string out;
    size_t used = 0;
    auto result = decoder.Feed(body.data(), split, &out, &used);
    size_t total = used;
    if (result == utils::ChunkedDecoder::kNeedMore) {
      result = decoder.Feed(body.data() + split, body.size() - split, &out, &used);
      total += used;
    }
    EXPECT_EQ(result, utils::ChunkedDecoder::kDone) << split;
    EXPECT_EQ(out, "Wikipedia") << split;
    EXPECT_EQ(total, bodyEnd) << split;
  }
  utils::ChunkedDecoder decoder(1024);
  std::string out;
  auto result = utils::ChunkedDecoder::kNeedMore;
  for (size_t i = 0; i < bodyEnd; ++i) {
    ASSERT_EQ(result, utils::ChunkedDecoder::kNeedMore) << i;
    result = decoder.Feed(&body[i], 1, &out, nullptr);
  }
  EXPECT_EQ(result, utils::ChunkedDecoder::kDone);
  EXPECT_EQ(out, "Wikipedia");
}

TEST(ChunkedDecoder, RejectsMalformedAndOversizedBodies) {
  const struct {
    std::string body;
    utils::ChunkedDecoder::Result result;
  } cases[] = {
      {"zz\r\n", utils::ChunkedDecoder::kMalformed},
      {" 4\r\n", utils::ChunkedDecoder::kMalformed},
      {"4x\r\n", utils::ChunkedDecoder::kMalformed},
      {"4\r\nabcdXY\r\n", utils::ChunkedDecoder::kMalformed},
      {"FFFFFFFFFFFFFFFFFF\r\n", utils::ChunkedDecoder::kMalformed},
      {"11\r\n", utils::ChunkedDecoder::kTooLarge},
      {"8\r\n12345678\r\n9\r\n", utils::ChunkedDecoder::kTooLarge},
      {std::string(utils::ChunkedDecoder::kMaxLineBytes + 1, '1'), utils::ChunkedDecoder::kMalformed},
  };
  for (const auto& c : cases) {
    utils::ChunkedDecoder decoder(16);
    std::string out;
    EXPECT_EQ(decoder.Feed(c.body.data(), c.body.size(), &out, nullptr), c.result) << c.body;
  }
}

// A connected client and the raw peer socket it talks to.
struct Pair {
  Pair() {
    EXPECT_EQ(client.Connect("127.0.0.1", listener.Service(), 5000), Client::ErrorNone);
    peer = listener.Accept();
  }
  nettest::Listener listener;
  Client client;
  nettest::Fd peer;
};

TEST(Framing, ByteWiseHeadReceiverLeavesTheBodyUnread) {
  Pair pair;
  nettest::SendText(pair.peer.Get(), "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nbody");
  char buffer[256];
  size_t received = 0;
  Client::Error_t error = -9;
  ASSERT_TRUE(utils::RecvHttpRequestResponseHeader(&pair.client, buffer, sizeof(buffer), &received,
                                                   &error, 5000));
  EXPECT_EQ(error, Client::ErrorNone);
  EXPECT_EQ(std::string(buffer, received), "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\n");
  EXPECT_EQ(utils::RecvAll(&pair.client, buffer, 4, &received, 5000), Client::ErrorNone);
  EXPECT_EQ(std::string(buffer, 4), "body");
}

TEST(Framing, HeadReceiversReportFullBufferAndEndOfStream) {
  {
    Pair pair;
    nettest::SendText(pair.peer.Get(), "HTTP/1.1 200 OK\r\nX-Long-Header: 0123456789\r\n\r\n");
    char buffer[16];
    size_t received = 0;
    Client::Error_t error = -9;
    EXPECT_FALSE(utils::RecvHttpRequestResponseHeader(&pair.client, buffer, sizeof(buffer), &received,
                                                      &error, 5000));
    EXPECT_EQ(error, Client::ErrorNone);
    EXPECT_EQ(received, 16u);
  }
  {
    Pair pair;
    nettest::SendText(pair.peer.Get(), "HTTP/1.1 200");
    shutdown(pair.peer.Get(), SHUT_WR);
    char buffer[64];
    size_t received = 0;
    Client::Error_t error = -9;
    EXPECT_FALSE(utils::RecvHttpRequestResponseHeader(&pair.client, buffer, sizeof(buffer), &received,
                                                      &error, 5000));
    EXPECT_EQ(error, Client::ErrorEndOfStream);
    EXPECT_EQ(received, 12u);
  }
  {
    Pair pair;
    char buffer[64];
    Client::Error_t error = -9;
    EXPECT_FALSE(utils::RecvHttpRequestResponseHeader(&pair.client, buffer, sizeof(buffer), nullptr,
                                                      &error, 100));
    EXPECT_EQ(error, Client::ErrorTimedOut);
    EXPECT_FALSE(utils::RecvHttpRequestResponseHeader(nullptr, buffer, sizeof(buffer), nullptr, &error, 0));
    EXPECT_FALSE(utils::RecvHttpRequestResponseHeader(&pair.client, buffer, 0, nullptr, &error, 0));
  }
}

TEST(Framing, BlockHeadReceiverReturnsTheBodyStart) {
  {
    Pair pair;
    const std::string head = "HTTP/1.1 200 OK\nContent-Length: 10\n\n";
    nettest::SendText(pair.peer.Get(), head + "0123456789");
    char buffer[256];
    size_t headSize = 0;
    size_t extraSize = 0;
    Client::Error_t error = -9;
    // The two parts may arrive in separate reads; the receiver keeps reading
    // until the head is complete, so only the extra size can vary.
    ASSERT_TRUE(utils::RecvExtractHttpHeader(&pair.client, buffer, sizeof(buffer), &headSize, &extraSize,
                                             &error, 5000));
    EXPECT_EQ(headSize, head.size());
    EXPECT_LE(extraSize, 10u);
    EXPECT_EQ(std::string(buffer + headSize, extraSize), std::string("0123456789").substr(0, extraSize));
  }
  {
    Pair pair;
    nettest::SendText(pair.peer.Get(), std::string(40, 'x'));
    char buffer[32];
    size_t headSize = 1;
    size_t extraSize = 0;
    Client::Error_t error = -9;
    EXPECT_FALSE(utils::RecvExtractHttpHeader(&pair.client, buffer, sizeof(buffer), &headSize, &extraSize,
                                              &error, 5000));
    EXPECT_EQ(headSize, 0u);
    EXPECT_EQ(extraSize, 32u);
    EXPECT_EQ(error, Client::ErrorNone);
  }
}

}  // namespace
