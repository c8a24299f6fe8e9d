#include "utils/json_writer.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string>

#include <gtest/gtest.h>
#include <json/value.h>

#include "utils/json_check.h"

namespace {

TEST(JsonWriter, NumbersReadBackAsTheSameValue) {
  const struct {
    double value;
    const char* text;
  } cases[] = {
      {0.1, "0.1"},          {2.0, "2.0"},       {-0.0, "-0.0"},
      {1e21, "1e+21"},       {5e-324, "5e-324"}, {1.7976931348623157e308, "1.7976931348623157e+308"},
      {123456.789, "123456.789"},
  };
  for (const auto& c : cases) {
    utils::JsonWriter writer(false);
    ASSERT_TRUE(writer.Double(c.value));
    EXPECT_EQ(writer.Text(), c.text);
    EXPECT_EQ(std::strtod(writer.Text().c_str(), nullptr), c.value);
  }
  utils::JsonWriter writer(false);
  EXPECT_FALSE(writer.Double(std::nan("")));
  EXPECT_FALSE(writer.Double(-std::numeric_limits<double>::infinity()));
  writer.Integer(std::numeric_limits<long long>::min());
  writer.Unsigned(std::numeric_limits<unsigned long long>::max());
  EXPECT_EQ(writer.Text(), "-922337203685477580818446744073709551615");
}

TEST(JsonWriter, StringsAreEscapedAndMustBeUtf8) {
  utils::JsonWriter writer(false);
  const char raw[] = "\"\\/\b\f\n\r\t\x01\x1f\x7f \xC3\xA9\xF0\x9F\x98\x80\0";
  const std::string text(raw, sizeof raw - 1);
  ASSERT_TRUE(writer.String(text.data(), text.size()));
  EXPECT_EQ(writer.Text(), "\"\\\"\\\\/\\b\\f\\n\\r\\t\\u0001\\u001f\x7f \xC3\xA9\xF0\x9F\x98\x80\\u0000\"");

  // Overlong, encoded surrogate, above U+10FFFF, cut short, stray continuation.
  const char* const bad[] = {"ab\xC0\xAF", "ab\xED\xA0\x80", "ab\xF4\x90\x80\x80", "ab\xE2\x82", "ab\x80"};
  for (const char* b : bad) {
    utils::JsonWriter strict(false);
    strict.Null();
    size_t offset = 0;
    EXPECT_FALSE(strict.String(b, std::char_traits<char>::length(b), &offset)) << b;
    EXPECT_EQ(offset, 2u);
    EXPECT_EQ(strict.Text(), "null");  // left as it was
  }
  utils::JsonWriter lenient(false);
  lenient.LenientString("a\xFF" "b", 3);
  EXPECT_EQ(lenient.Text(), "\"a\xEF\xBF\xBD" "b\"");
}

TEST(JsonWriter, DocumentsCompactAndIndented) {
  Json::Value doc(Json::objectValue);
  doc["list"].append(1);
  doc["list"].append(Json::Value(Json::objectValue));
  doc["list"].append(std::numeric_limits<double>::infinity());
  doc["empty"] = Json::Value(Json::arrayValue);
  doc["text"] = "x\xFFy";
  EXPECT_EQ(utils::WriteJson(doc, false), "{\"empty\":[],\"list\":[1,{},null],\"text\":\"x\xEF\xBF\xBDy\"}");
  EXPECT_EQ(utils::WriteJson(doc["list"], true), "[\n  1,\n  {},\n  null\n]");
  EXPECT_EQ(utils::WriteJson(Json::Value(Json::UInt64(1) << 63), false), "9223372036854775808");
}

TEST(JsonCheck, NumbersFollowTheGrammar) {
  for (const char* good : {"0", "-0", "12", "0.5", "-1.25e+10", "1E-7", "1e007"}) {
    EXPECT_TRUE(utils::IsJsonNumber(good, good + std::char_traits<char>::length(good))) << good;
  }
  for (const char* bad : {"", "-", "01", "+1", ".5", "1.", "1e", "1e+", "0x1", "1 2", "NaN", "--1"}) {
    EXPECT_FALSE(utils::IsJsonNumber(bad, bad + std::char_traits<char>::length(bad))) << bad;
  }
}

TEST(JsonCheck, DepthIsCountedPerContainer) {
  const std::string three = "[{\"a\":[]}]";
  size_t offset = 0;
  std::string reason;
  EXPECT_TRUE(utils::CheckJsonText(three.data(), three.data() + three.size(), 3, &offset, &reason));
  EXPECT_FALSE(utils::CheckJsonText(three.data(), three.data() + three.size(), 2, &offset, &reason));
  EXPECT_EQ(offset, 6u);
  EXPECT_EQ(reason, "nesting deeper than 2 levels");
  const std::string scalar = " \"ok\" ";
  EXPECT_TRUE(utils::CheckJsonText(scalar.data(), scalar.data() + scalar.size(), 0, nullptr, nullptr));
}

}  // namespace
