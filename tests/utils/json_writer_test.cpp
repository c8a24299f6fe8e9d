// Ordinary numbers, escapes and indentation come back through the json
// library's round-trip tests and corpus; here what scripts cannot reach.
#include "utils/json_writer.h"

#include <cmath>
#include <limits>
#include <string>

#include <gtest/gtest.h>
#include <json/value.h>

#include "utils/json_check.h"

namespace {

TEST(JsonWriter, NonFiniteNumbersAreRefusedAndIntegersKeepEveryDigit) {
  utils::JsonWriter writer(false);
  EXPECT_FALSE(writer.Double(std::nan("")));
  EXPECT_FALSE(writer.Double(-std::numeric_limits<double>::infinity()));
  writer.Integer(std::numeric_limits<long long>::min());
  writer.Unsigned(std::numeric_limits<unsigned long long>::max());
  EXPECT_EQ(writer.Text(), "-922337203685477580818446744073709551615");
}

TEST(JsonWriter, StrictStringsMustBeUtf8AndLenientOnesReplaceBadBytes) {
  // Overlong, encoded surrogate, above U+10FFFF, cut short, stray continuation.
  for (const char* bad : {"ab\xC0\xAF", "ab\xED\xA0\x80", "ab\xF4\x90\x80\x80", "ab\xE2\x82", "ab\x80"}) {
    utils::JsonWriter strict(false);
    strict.Null();
    size_t offset = 0;
    EXPECT_FALSE(strict.String(bad, std::char_traits<char>::length(bad), &offset)) << bad;
    EXPECT_EQ(offset, 2u);
    EXPECT_EQ(strict.Text(), "null");  // left as it was
  }
  utils::JsonWriter lenient(false);
  lenient.LenientString(
      "a\xFF"
      "b",
      3);
  EXPECT_EQ(lenient.Text(),
            "\"a\xEF\xBF\xBD"
            "b\"");
  // The runner writes its results this way.
  Json::Value doc(Json::objectValue);
  doc["list"].append(Json::Value(Json::objectValue));
  doc["list"].append(std::numeric_limits<double>::infinity());
  doc["text"] = "x\xFFy";
  doc["big"] = Json::Value(Json::UInt64(1) << 63);
  EXPECT_EQ(utils::WriteJson(doc, false),
            "{\"big\":9223372036854775808,\"list\":[{},null],\"text\":\"x\xEF\xBF\xBDy\"}");
}

TEST(JsonCheck, DepthIsCountedPerContainer) {
  const std::string three = "[{\"a\":[]}]";
  size_t offset = 0;
  std::string reason;
  EXPECT_TRUE(utils::CheckJsonText(three.data(), three.data() + three.size(), 3, &offset, &reason));
  EXPECT_FALSE(utils::CheckJsonText(three.data(), three.data() + three.size(), 2, &offset, &reason));
  EXPECT_EQ(offset, 6u);
}

}  // namespace
