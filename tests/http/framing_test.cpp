#include "utils/http/framing.h"

#include <string>

#include <gtest/gtest.h>

#include "utils/http/chunked_decoder.h"

namespace {

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
      {"A\n\rx\n\n", 6},
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
      {"Content-Length::42\r\nContent-Length: 9\r\n", 9},
      {"ContentLength: 7\r\n", 7},
      {"X-Original-Content-Length: 5\r\n", 5},  // matched anywhere, on purpose
      {"Content-Length: 99999999999999999999\r\n", -1},
  };
  for (const auto& c : cases) EXPECT_EQ(utils::ParseContentLength(c.head, nullptr), c.length) << c.head;
  const std::string text = "Content-Length: 12345";
  // The end bounds the number as well as the search.
  EXPECT_EQ(utils::ParseContentLength(text.data(), text.data() + text.size() - 2), 123);
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

}  // namespace
