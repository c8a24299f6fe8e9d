#include "utils/segments.h"

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

std::vector<std::string> Collect(utils::SegmentIterator it) {
  std::vector<std::string> out;
  while (it.HasNext()) out.push_back(it.Next().to_string());
  return out;
}

TEST(Segments, ExtractMessageFindsTheTextBetweenMarkers) {
  const std::string text = "HTTP/1.1 200 OK\r\nX-Id: <abc>\r\n\r\nbody";
  // Exactly sized copy without terminator, so reads past `end` are caught.
  std::unique_ptr<char[]> bytes(new char[text.size()]);
  std::memcpy(bytes.get(), text.data(), text.size());
  const char* begin = bytes.get();
  const char* end = begin + text.size();

  EXPECT_EQ(utils::ExtractMessage(begin, end, "X-Id: ", "\r\n", false), "<abc>");
  EXPECT_EQ(utils::ExtractMessage(begin, end, "<", ">", true), "<abc>");
  EXPECT_EQ(utils::ExtractMessage(begin, end, "\r\n\r\n", "", false), "body");
  EXPECT_EQ(utils::ExtractMessage(begin, end, nullptr, " ", false), "HTTP/1.1");
  boost::string_view empty = utils::ExtractMessage(begin, end, "<abc", ">", false);
  EXPECT_TRUE(empty.empty());
  EXPECT_EQ(empty.data(), begin + 27);  // found, though empty
  EXPECT_EQ(utils::ExtractMessage(begin, end, "missing", "\r\n", false).data(), nullptr);
  EXPECT_EQ(utils::ExtractMessage(begin, end, "body", "y", false).data(), nullptr);
  EXPECT_EQ(utils::ExtractMessage("a[b]c", nullptr, "[", "]", false), "b");
}

TEST(Segments, IteratorYieldsEveryPieceIncludingEmptyOnes) {
  using Pieces = std::vector<std::string>;
  EXPECT_EQ(Collect({"a,,b,", ","}), (Pieces{"a", "", "b", ""}));
  EXPECT_EQ(Collect({"a\r\nb\r\n\r\nc", "\r\n"}), (Pieces{"a", "b", "", "c"}));
  EXPECT_EQ(Collect({"", ","}), (Pieces{""}));
  EXPECT_EQ(Collect({"a,b", ""}), (Pieces{"a,b"}));
  EXPECT_EQ(Collect({"x,a,b,y", ",", 2, 5}), (Pieces{"a", "b"}));
  EXPECT_EQ(Collect({"a,b", ",", 10, 2}), (Pieces{""}));

  utils::SegmentIterator it("a", ",");
  EXPECT_EQ(it.Next(), "a");
  EXPECT_FALSE(it.HasNext());
  EXPECT_EQ(it.Next().data(), nullptr);
}

TEST(Segments, SegmentAndRunByIndex) {
  const std::string text = "a.b.c.d";
  boost::string_view out;
  EXPECT_TRUE(utils::GetSegment(text, ".", 2, &out));
  EXPECT_EQ(out, "c");
  EXPECT_EQ(out.data(), text.data() + 4);
  EXPECT_FALSE(utils::GetSegment(text, ".", 4, &out));
  EXPECT_TRUE(utils::GetSegment(text, ".", 0, &out, 2));
  EXPECT_EQ(out, "b");
  EXPECT_TRUE(utils::GetSegment(text, ".", 3, nullptr));

  EXPECT_TRUE(utils::GetSegmentSeq(text, ".", 1, 2, &out));
  EXPECT_EQ(out, "b.c");
  EXPECT_TRUE(utils::GetSegmentSeq(text, ".", 2, boost::string_view::npos, &out));
  EXPECT_EQ(out, "c.d");
  EXPECT_TRUE(utils::GetSegmentSeq(text, ".", 3, 9, &out));
  EXPECT_EQ(out, "d");
  EXPECT_TRUE(utils::GetSegmentSeq(text, ".", 1, 0, &out));
  EXPECT_EQ(out, "");
  EXPECT_EQ(out.data(), text.data() + 2);
  EXPECT_FALSE(utils::GetSegmentSeq(text, ".", 4, 1, &out));
  EXPECT_TRUE(utils::GetSegmentSeq(text, ".", 0, 2, &out, 0, 5));
  EXPECT_EQ(out, "a.b");
}

}  // namespace
