#include "utils/segments.h"

#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

namespace {

TEST(Segments, ExtractMessageFindsTheTextBetweenMarkers) {
  const std::string text = "HTTP/1.1 200 OK\r\nX-Id: <abc>\r\n\r\nbody";
  // Exactly sized copy without terminator, so reads past `end` are caught.
  const std::vector<char> bytes(text.begin(), text.end());
  const char* begin = bytes.data();
  const char* end = begin + text.size();
  EXPECT_EQ(utils::ExtractMessage(begin, end, "X-Id: ", "\r\n", false), "<abc>");
  EXPECT_EQ(utils::ExtractMessage(begin, end, "<", ">", true), "<abc>");
  EXPECT_EQ(utils::ExtractMessage(begin, end, "\r\n\r\n", "", false), "body");
  EXPECT_EQ(utils::ExtractMessage(begin, end, nullptr, " ", false), "HTTP/1.1");
  EXPECT_EQ(utils::ExtractMessage(begin, end, "<abc", ">", false).data(), begin + 27);  // found, though empty
  EXPECT_EQ(utils::ExtractMessage(begin, end, "missing", "\r\n", false).data(), nullptr);
  EXPECT_EQ(utils::ExtractMessage(begin, end, "body", "y", false).data(), nullptr);
  EXPECT_EQ(utils::ExtractMessage("a[b]c", nullptr, "[", "]", false), "b");
}

TEST(Segments, IteratorYieldsEveryPieceIncludingEmptyOnes) {
  auto pieces = [](utils::SegmentIterator it) {
    std::string out;
    while (it.HasNext()) out += it.Next().to_string() + "|";
    EXPECT_EQ(it.Next().data(), nullptr);
    return out;
  };
  EXPECT_EQ(pieces({"a,,b,", ","}), "a||b||");
  EXPECT_EQ(pieces({"a\r\nb\r\n\r\nc", "\r\n"}), "a|b||c|");
  EXPECT_EQ(pieces({"", ","}), "|");
  EXPECT_EQ(pieces({"a,b", ""}), "a,b|");
  EXPECT_EQ(pieces({"x,a,b,y", ",", 2, 5}), "a|b|");
  EXPECT_EQ(pieces({"a,b", ",", 10, 2}), "|");
}

TEST(Segments, SegmentAndRunByIndex) {
  const std::string text = "a.b.c.d";
  boost::string_view out;
  EXPECT_TRUE(utils::GetSegment(text, ".", 2, &out));
  EXPECT_EQ(out.data(), text.data() + 4);
  EXPECT_EQ(out, "c");
  EXPECT_FALSE(utils::GetSegment(text, ".", 4, &out));
  EXPECT_TRUE(utils::GetSegment(text, ".", 0, &out, 2));
  EXPECT_EQ(out, "b");
  EXPECT_TRUE(utils::GetSegment(text, ".", 3, nullptr));
  // First segment, count of segments, and the run expected (or "-" for a failure).
  const std::tuple<size_t, size_t, const char*> runs[] = {
      {1, 2, "b.c"}, {2, boost::string_view::npos, "c.d"}, {3, 9, "d"}, {4, 1, "-"}, {1, 0, ""}};
  for (const auto& [first, count, expected] : runs) {
    const bool ok = utils::GetSegmentSeq(text, ".", first, count, &out);
    EXPECT_EQ(ok ? out.to_string() : "-", expected) << first << " " << count;
  }
  EXPECT_EQ(out.data(), text.data() + 2);  // where the empty run of the last case stands
  EXPECT_TRUE(utils::GetSegmentSeq(text, ".", 0, 2, &out, 0, 5));
  EXPECT_EQ(out, "a.b");
}

}  // namespace
