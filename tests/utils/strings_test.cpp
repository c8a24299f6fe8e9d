#include "utils/strings.h"

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

// An exactly sized heap copy without terminator: ASan flags reads past it.
class Range {
 public:
  explicit Range(const std::string& text) : size_(text.size()), bytes_(new char[text.size()]) {
    std::memcpy(bytes_.get(), text.data(), size_);
  }
  const char* begin() const { return bytes_.get(); }
  const char* end() const { return bytes_.get() + size_; }

 private:
  size_t size_;
  std::unique_ptr<char[]> bytes_;
};

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
    Range range(c.haystack);
    auto expect = [&](long offset) { return offset < 0 ? range.end() : range.begin() + offset; };
    EXPECT_EQ(utils::FindStr(range.begin(), range.end(), c.needle), expect(c.exact));
    EXPECT_EQ(utils::FindStrIgnoreCase(range.begin(), range.end(), c.needle), expect(c.folded));
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
  struct Case {
    const char* text;
    bool ok;
    size_t offset;
  };
  const Case cases[] = {{"\xC3\xA9", true, 99},
                        {"\xF8\x80\x80\x80\x80\xFC\x80\x80\x80\x80\x80", true, 99},
                        {"", true, 99},
                        {"abc", false, 0},
                        {"\xC3\xA9\x61", false, 2},
                        {"\xC3", false, 0},
                        {"\xC3\xA9\xE2\x82", false, 2},
                        {"\xFE\x80", false, 0},
                        {"\xC3\xA9\xFF", false, 2}};
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(std::string(c.text)));
    size_t offset = 99;
    EXPECT_EQ(utils::CheckUtf8String(c.text, &offset), c.ok);
    EXPECT_EQ(offset, c.offset);
  }
  EXPECT_FALSE(utils::CheckUtf8String("a", nullptr));
}

TEST(Strings, SplitAtTheFirstDelimiterOrIntoPieces) {
  std::string first, second;
  EXPECT_TRUE(utils::SplitString(" key : a:b ", ":", true, &first, &second));
  EXPECT_EQ(first + "|" + second, "key|a:b");
  EXPECT_TRUE(utils::SplitString("a=>b", "=>", false, &first, &second));
  EXPECT_EQ(first + "|" + second, "a|b");
  EXPECT_FALSE(utils::SplitString(" alone ", ":", true, &first, &second));
  EXPECT_EQ(first + "|" + second, "alone|");

  using Pieces = std::vector<std::string>;
  Pieces parts{"stale"};
  utils::SplitString(",a,;b,,", ",;", false, &parts);
  EXPECT_EQ(parts, (Pieces{"", "a", "", "b", "", ""}));
  utils::SplitString(",a,;b,,", ",;", true, &parts);
  EXPECT_EQ(parts, (Pieces{"a", "b"}));
  utils::SplitString("", ",", false, &parts);
  EXPECT_EQ(parts, (Pieces{""}));
  utils::SplitString("a,b", "", true, &parts);
  EXPECT_EQ(parts, (Pieces{"a,b"}));
  const std::vector<char> bytes{'x', ' ', 'y'};
  utils::SplitString(bytes.begin(), bytes.end(), " ", false, &parts);
  EXPECT_EQ(parts, (Pieces{"x", "y"}));
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
