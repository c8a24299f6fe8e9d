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
  for (const auto& c : cases) {
    EXPECT_EQ(HeadEnd(c.text), c.end) << c.text;
    // A receiver checks after every byte: no prefix may report an end early.
    for (long n = 0; n < c.end; ++n) EXPECT_EQ(HeadEnd(c.text.substr(0, n)), -1) << c.text << n;
  }
  EXPECT_EQ(utils::ExtractHttpResponseRequestHeader(nullptr, nullptr), nullptr);
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

// The incremental decoder must give the same result however the input is cut:
// one byte at a time up to any point, then the rest at once.
TEST(ChunkedDecoder, AgreesHoweverTheInputIsCut) {
  const std::string body = "4;ext=1\r\nWiki\r\n5\r\npedia\n0\r\nTrailer: x\r\n\r\nNEXT";
  const size_t bodyEnd = body.size() - 4;
  for (size_t split = 0; split <= bodyEnd; ++split) {
    utils::ChunkedDecoder decoder(1024);
    std::string out;
    size_t used = 0;
    auto result = utils::ChunkedDecoder::kNeedMore;
    for (size_t i = 0; i < split; ++i) {
      ASSERT_EQ(result, utils::ChunkedDecoder::kNeedMore) << split << " " << i;
      result = decoder.Feed(&body[i], 1, &out, nullptr);
    }
    if (result == utils::ChunkedDecoder::kNeedMore) {
      result = decoder.Feed(body.data() + split, body.size() - split, &out, &used);
      EXPECT_EQ(split + used, bodyEnd) << split;
    }
    EXPECT_EQ(result, utils::ChunkedDecoder::kDone) << split;
    EXPECT_EQ(out, "Wikipedia") << split;
  }
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

// What each head receiver makes of what the peer sent (then, with `ended`,
// closed): the byte-wise one stops right behind the head, the block one
// hands back the body start it read along.
TEST(Framing, HeadReceiversStopAtTheHeadAFullBufferOrTheEnd) {
  const struct {
    std::string sent;
    bool ended;
    size_t room;
    bool found;
    Client::Error_t error;
    size_t received;  // the head's size, or all that was read
  } cases[] = {
      {"HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nbody", false, 256, true, Client::ErrorNone, 38},
      {"HTTP/1.1 200 OK\nContent-Length: 4\n\nbody", false, 256, true, Client::ErrorNone, 35},
      {"HTTP/1.1 200 OK\r\nX-Long-Header: 0123456789\r\n\r\n", false, 16, false, Client::ErrorNone, 16},
      {"HTTP/1.1 200", true, 64, false, Client::ErrorEndOfStream, 12},
      {"", false, 64, false, Client::ErrorTimedOut, 0},
  };
  for (const auto& c : cases) {
    for (bool block : {false, true}) {
      nettest::Listener listener;
      Client client;
      ASSERT_EQ(client.Connect("127.0.0.1", listener.Service(), 5000), Client::ErrorNone);
      const nettest::Fd peer = listener.Accept();
      nettest::SendText(peer.Get(), c.sent);
      if (c.ended) shutdown(peer.Get(), SHUT_WR);
      std::vector<char> buffer(c.room);
      size_t received = 99;
      size_t extra = 0;
      Client::Error_t error = -9;
      const bool found =
          block ? utils::RecvExtractHttpHeader(&client, buffer.data(), c.room, &received, &extra, &error, 200)
                : utils::RecvHttpRequestResponseHeader(&client, buffer.data(), c.room, &received, &error, 200);
      EXPECT_EQ(found, c.found) << block << c.sent;
      EXPECT_EQ(error, c.error) << block << c.sent;
      if (block && !found) {
        EXPECT_EQ(received, 0u) << c.sent;
        received = extra;  // without a head, all that was read counts as extra
      }
      EXPECT_EQ(received, c.received) << block << c.sent;
      if (!found) continue;
      std::string rest(buffer.data() + received, extra);
      char tail[4];
      size_t got = 0;
      if (rest.size() < 4) {
        EXPECT_EQ(utils::RecvAll(&client, tail, 4 - rest.size(), &got, 5000), Client::ErrorNone);
        rest.append(tail, got);
      }
      EXPECT_EQ(rest, "body") << block << c.sent;
    }
  }
  char buffer[8];
  Client::Error_t error = -9;
  EXPECT_FALSE(utils::RecvHttpRequestResponseHeader(nullptr, buffer, sizeof(buffer), nullptr, &error, 0));
}

}  // namespace
