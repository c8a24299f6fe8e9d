#include "utils/strings.h"

#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

TEST(Strings, TrimCaseAndHexHelpersUseOnlyTheCClasses) {
  EXPECT_EQ(utils::TrimString(" \t\r\n\v\fa b\r\n"), "a b");
  EXPECT_EQ(utils::TrimString(" \t "), "");
  EXPECT_EQ(utils::TrimLeading("--a-b--", '-'), "a-b--");
  EXPECT_EQ(utils::TrimTrailing("--a-b--", '-'), "--a-b");
  EXPECT_EQ(utils::TrimBothEnds("--a-b--", '-'), "a-b");
  EXPECT_EQ(utils::TrimBothEnds("----", '-'), "");
  EXPECT_EQ(utils::ToLower("AbZ@[`{\xC3\x89"), "abz@[`{\xC3\x89");
  EXPECT_EQ(utils::ToUpper("aBz@[`{\xC3\xA9"), "ABZ@[`{\xC3\xA9");
  EXPECT_TRUE(utils::IsHexString("") && utils::IsHexString("09afAF"));
  EXPECT_FALSE(utils::IsHexString("0x1") || utils::IsHexString(std::string("a\0b", 3)));
}

// Short random texts over a few letters in both cases (and '[' '{' beside
// them, which differ by the case bit, and a byte above 0x7F) meet every kind
// of overlap and matches that end exactly at `end`; each is searched in an
// exactly sized copy, so ASan flags reads past the range.
TEST(Strings, FindAndCaseInsensitiveComparisonAgreeWithTheStandardOnes) {
  std::mt19937 rng(3);
  auto randomText = [&rng](size_t minSize, size_t maxSize) {
    std::string t(minSize + rng() % (maxSize - minSize + 1), ' ');
    for (char& c : t) c = "aAbB[{\xC3"[rng() % 7];
    return t;
  };
  for (int i = 0; i < 20000; ++i) {
    const std::string haystack = randomText(1, 8), needle = randomText(0, 3);
    SCOPED_TRACE(haystack + " / " + needle);
    const std::vector<char> bytes(haystack.begin(), haystack.end());
    const char* begin = bytes.data();
    const char* end = begin + bytes.size();
    auto at = [&](size_t offset) { return offset == std::string::npos ? end : begin + offset; };
    const std::string lowerHaystack = utils::ToLower(haystack), lowerNeedle = utils::ToLower(needle);
    ASSERT_EQ(utils::FindStr(begin, end, needle.c_str()), at(haystack.find(needle)));
    ASSERT_EQ(utils::FindStrIgnoreCase(begin, end, needle.c_str()), at(lowerHaystack.find(lowerNeedle)));
    // std::string compares bytes as unsigned char.
    ASSERT_EQ(utils::SameIgnoreCase(haystack, needle), lowerHaystack == lowerNeedle);
    ASSERT_EQ(utils::LessIgnoreCase(haystack, needle), lowerHaystack < lowerNeedle);
  }
  // A match that would continue past `end` is no match; a null `end` is the terminator.
  const char text[] = "abcdef";
  EXPECT_EQ(utils::FindStr(text, text + 4, "def"), text + 4);
  EXPECT_EQ(utils::FindStrIgnoreCase(text, text + 4, "DEF"), text + 4);
  EXPECT_EQ(utils::FindStrIgnoreCase(text, nullptr, "DEF"), text + 3);
}

TEST(Strings, MultiByteCheckRejectsAsciiAndBrokenSequences) {
  // The offset of the first bad byte; 99 (untouched) when the text passes.
  const std::pair<const char*, size_t> cases[] = {{"\xC3\xA9", 99},
                                                  {"\xF8\x80\x80\x80\x80\xFC\x80\x80\x80\x80\x80", 99},
                                                  {"", 99},
                                                  {"abc", 0},
                                                  {"\xC3\xA9\x61", 2},
                                                  {"\xC3", 0},
                                                  {"\xC3\xA9\xE2\x82", 2},
                                                  {"\xFE\x80", 0},
                                                  {"\xC3\xA9\xFF", 2}};
  for (const auto& [text, bad] : cases) {
    size_t offset = 99;
    EXPECT_EQ(utils::CheckUtf8String(text, &offset), bad == 99) << testing::PrintToString(std::string(text));
    EXPECT_EQ(offset, bad);
  }
  EXPECT_FALSE(utils::CheckUtf8String("a", nullptr));
}

TEST(Strings, SplitAtTheFirstDelimiterOrIntoPieces) {
  auto pair = [](const char* text, const char* delimiter, bool trim) {
    std::string first, second;
    const bool found = utils::SplitString(text, delimiter, trim, &first, &second);
    return (found ? "" : "none ") + first + "|" + second;
  };
  EXPECT_EQ(pair(" key : a:b ", ":", true), "key|a:b");
  EXPECT_EQ(pair("a=>b", "=>", false), "a|b");
  EXPECT_EQ(pair(" alone ", ":", true), "none alone|");
  auto pieces = [](const std::string& text, const char* delimiters, bool skipEmpty) {
    std::vector<std::string> parts{"stale"};
    utils::SplitString(text, delimiters, skipEmpty, &parts);
    return testing::PrintToString(parts);
  };
  EXPECT_EQ(pieces(",a,;b,,", ",;", false), R"({ "", "a", "", "b", "", "" })");
  EXPECT_EQ(pieces(",a,;b,,", ",;", true), R"({ "a", "b" })");
  EXPECT_EQ(pieces("", ",", false), R"({ "" })");
  EXPECT_EQ(pieces("a,b", "", true), R"({ "a,b" })");
  std::vector<std::string> parts;
  const std::vector<char> bytes{'x', ' ', 'y'};
  utils::SplitString(bytes.begin(), bytes.end(), " ", false, &parts);
  EXPECT_EQ(parts, (std::vector<std::string>{"x", "y"}));
}

TEST(Strings, IniFieldIsFoundFromTheStartOffset) {
  const std::string text =
      "[main]\r\n"
      "  name = first value \r\n"
      "names=wrong\n"
      "other:\n"
      "name: second\n";
  EXPECT_EQ(utils::GetIniField(text, "name", 0), "first value");
  EXPECT_EQ(utils::GetIniField(text, "name", text.find("names")), "second");
  EXPECT_EQ(utils::GetIniField(text, "names", 0), "wrong");
  EXPECT_EQ(utils::GetIniField(text, "other", 0), "");
  EXPECT_EQ(utils::GetIniField(text, "name", text.size() + 5), "");
}

}  // namespace
