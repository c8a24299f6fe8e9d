#include "utils/string_pair_list.h"

#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

// Pairs as "k=v;k=v", through the ToString that RemovalAndJoinKeepTheOrder checks.
std::string All(const utils::StringPairList& list) { return list.ToString("=", ";"); }

utils::StringPairList Make(const Pairs& pairs) {
  utils::StringPairList list;
  for (const auto& p : pairs) list.AddValue(p.first, p.second);
  return list;
}

TEST(StringPairList, LookupsHonourOrderDuplicatesAndCase) {
  utils::StringPairList list = Make({{"A", "1"}, {"a", "2"}, {"b", "3"}, {"A", "4"}});
  size_t index = 99;  // left as it was on a miss
  auto found = [&](bool last, const char* key, bool ignoreCase) {
    std::string value;
    const bool ok =
        last ? list.LastValue(key, &value, ignoreCase, &index) : list.Value(key, &value, ignoreCase, &index);
    return (ok ? value : "none") + "@" + std::to_string(index);
  };
  EXPECT_EQ(found(false, "a", true), "1@0");
  EXPECT_EQ(found(false, "a", false), "2@1");
  EXPECT_EQ(found(true, "a", true), "4@3");
  EXPECT_EQ(found(false, "B", false), "none@3");
  EXPECT_EQ(found(true, "c", true), "none@3");
  EXPECT_TRUE(list.Value("B", nullptr, true, nullptr));

  std::vector<std::string> values{"kept"};
  EXPECT_TRUE(list.ValueList("A", values, true));
  EXPECT_EQ(values, (std::vector<std::string>{"kept", "1", "2", "4"}));
  EXPECT_FALSE(list.ValueList("x", values, true));
  EXPECT_EQ(list.Keys(), (std::set<std::string>{"A", "a", "b"}));
  std::string value;
  EXPECT_FALSE(list.Value(4, nullptr, &value));
}

TEST(StringPairList, RemovalAndJoinKeepTheOrder) {
  utils::StringPairList list = Make({{"A", "1"}, {"a", "2"}, {"b", "3"}, {"A", "4"}});
  EXPECT_TRUE(list.Remove("A", true));
  EXPECT_EQ(All(list), "a=2;b=3;A=4");
  EXPECT_TRUE(list.Remove(1));
  EXPECT_FALSE(list.Remove(2));
  EXPECT_FALSE(list.Remove("b", false));
  EXPECT_EQ(All(list), "a=2;A=4");

  list = Make({{"x", "1"}, {"y", "2"}, {"X", "3"}, {"x", "4"}});
  EXPECT_TRUE(list.RemoveAll("x", false));
  EXPECT_EQ(All(list), "y=2;X=3");
  EXPECT_TRUE(list.RemoveAll("x", true));
  EXPECT_EQ(All(list), "y=2");
  list.AddValue("z", "3");
  list.Join(list);
  EXPECT_EQ(list.ToString(": ", "\r\n"), "y: 2\r\nz: 3\r\ny: 2\r\nz: 3");
  // The pair separator goes in only once the text is non-empty.
  EXPECT_EQ(Make({{"", ""}, {"k", "v"}}).ToString("", ";"), "kv");
}

TEST(ParseFromString, EntriesItemsAndPieces) {
  // Entries are appended to what the list holds; a failure keeps those before it.
  const std::tuple<const char*, bool, const char*> cases[] = {
      {"a=1;b=2", true, "a=1;b=2"},
      {"host = example.org; port=80, verbose", true, "host=example.org;port=80;verbose="},
      {"a=1\r\nb=2\n\n;,c", true, "a=1;b=2;c="},
      {"name = John  Smith", true, "name=John Smith"},
      {"a=\"x,y\"", true, "a=x,y"},
      {"a\\nb=c", true, "a\nb=c"},
      {"a=1;b\\t=2", false, "a=1"},
      {"a=1;b\\", false, "a=1"},
      {"a\\\\b", false, ""},
  };
  for (const auto& [text, ok, pairs] : cases) {
    utils::StringPairList list = Make({{"old", "0"}});
    EXPECT_EQ(utils::ParseFromString(text, &list), ok) << text;
    EXPECT_EQ(All(list), std::string("old=0") + (*pairs ? ";" : "") + pairs) << text;
  }
  EXPECT_FALSE(utils::ParseFromString("a=1", nullptr));
}

}  // namespace
