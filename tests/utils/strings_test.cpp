#include "utils/strings.h"

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

TEST(Strings, FindStaysInsideTheRange) {
  struct Case {
    std::string haystack;
    const char* needle;
    long exact;  // offset, -1 for "returns end"
    long folded;
  };
  const Case cases[] = {
      {"Content-Length: 5", "Length", 8, 8},
      {"Content-Length: 5", "length", -1, 8},
      {"abc", "", 0, 0},
      {"ab", "abc", -1, -1},
      {"aaab", "aab", 1, 1},
      {"abcAB", "AB", 3, 0},
      {"cab", "ab", 1, 1},  // match ending exactly at `end`
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.haystack + " / " + c.needle);
    // An exactly sized heap copy without terminator: ASan flags reads past it.
    const std::vector<char> bytes(c.haystack.begin(), c.haystack.end());
    const char* begin = bytes.data();
    const char* end = begin + bytes.size();
    auto expect = [&](long offset) { return offset < 0 ? end : begin + offset; };
    EXPECT_EQ(utils::FindStr(begin, end, c.needle), expect(c.exact));
    EXPECT_EQ(utils::FindStrIgnoreCase(begin, end, c.needle), expect(c.folded));
  }
  // A match that would continue past `end` is no match.
  const char text[] = "abcdef";
  EXPECT_EQ(utils::FindStr(text, text + 4, "def"), text + 4);
  EXPECT_EQ(utils::FindStrIgnoreCase(text, text + 4, "DEF"), text + 4);
  EXPECT_EQ(utils::FindStrIgnoreCase(text, nullptr, "DEF"), text + 3);
}

TEST(Strings, CaseInsensitiveComparisonIsAConsistentOrder) {
  EXPECT_TRUE(utils::SameIgnoreCase("Content-Type", std::string("content-TYPE")));
  EXPECT_FALSE(utils::SameIgnoreCase("[", "{"));
  EXPECT_FALSE(utils::LessIgnoreCase("ABC", "abc") || utils::LessIgnoreCase("abc", "ABC"));
  EXPECT_TRUE(utils::LessIgnoreCase("abc", "ABD"));
  EXPECT_TRUE(utils::LessIgnoreCase("ab", "AB\x01"));
  EXPECT_TRUE(utils::LessIgnoreCase("z", "\xC3"));  // bytes compare unsigned
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
