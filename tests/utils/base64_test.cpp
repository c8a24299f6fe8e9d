#include "utils/base64.h"

#include <cstdint>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include "utils/internal/base64_codec.h"

namespace {

using utils::impl::Base64Path;

std::vector<Base64Path> AvailablePaths() {
  std::vector<Base64Path> paths;
  for (Base64Path path : {Base64Path::kScalar, Base64Path::kSsse3, Base64Path::kAvx2}) {
    if (utils::impl::Base64PathAvailable(path)) paths.push_back(path);
  }
  return paths;
}

std::string EncodeWith(Base64Path path, const std::string& data) {
  std::string text(utils::Base64EncodedSize(data.size()), '\0');
  size_t n = utils::impl::Base64EncodeWith(path, reinterpret_cast<const uint8_t*>(data.data()), data.size(), &text[0]);
  EXPECT_EQ(n, text.size());
  return text;
}

std::string DecodeWith(Base64Path path, const std::string& text, bool* ok) {
  std::vector<uint8_t> out(utils::Base64DecodedMaxSize(text.size()) + 1);
  size_t size = 0;
  *ok = utils::impl::Base64DecodeStrictWith(path, text.data(), text.size(), out.data(), &size);
  return *ok ? std::string(out.begin(), out.begin() + size) : std::string();
}

std::string RandomBytes(std::mt19937* rng, size_t size) {
  std::string bytes(size, '\0');
  for (char& c : bytes) c = static_cast<char>((*rng)() & 0xff);
  return bytes;
}

TEST(Base64, EveryLengthMatchesOpenSslAndRoundTrips) {
  std::mt19937 rng(7);
  // Long enough for several vector blocks plus every tail length.
  for (size_t size = 0; size <= 200; ++size) {
    std::string data = RandomBytes(&rng, size);
    std::string expected(utils::Base64EncodedSize(size) + 1, '\0');
    expected.resize(EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&expected[0]),
                                    reinterpret_cast<const unsigned char*>(data.data()), static_cast<int>(size)));
    for (Base64Path path : AvailablePaths()) {
      SCOPED_TRACE(testing::Message() << "path " << static_cast<int>(path) << " size " << size);
      ASSERT_EQ(EncodeWith(path, data), expected);
      bool ok = false;
      ASSERT_EQ(DecodeWith(path, expected, &ok), data);
      ASSERT_TRUE(ok);
    }
  }
}

TEST(Base64, PaddingRulesHoldWithAndWithoutAVectorPrefix) {
  const std::pair<std::string, std::string> valid[] = {{"Zg==", "f"}, {"Zg", "f"}, {"Zm8", "fo"}, {"Zh==", "f"}};
  // 96 valid characters in front let the vector loops run before the tail.
  for (const std::string& prefix : {std::string(), std::string(96, 'A')}) {
    const std::string prefixBytes(prefix.size() / 4 * 3, '\0');
    for (Base64Path path : AvailablePaths()) {
      SCOPED_TRACE(testing::Message() << "path " << static_cast<int>(path) << " prefix " << prefix.size());
      bool ok = false;
      for (const auto& [text, plain] : valid) {
        EXPECT_EQ(DecodeWith(path, prefix + text, &ok), prefixBytes + plain) << text;
        EXPECT_TRUE(ok) << text;
      }
      for (const char* text :
           {"Zg=", "Zg===", "Z", "Z===", "Zm9v=", "=", "==", "Zm8==", "Zg==Zg==", "Zg=g", "Zm9v\n"}) {
        DecodeWith(path, prefix + text, &ok);
        EXPECT_FALSE(ok) << text;
      }
    }
  }
}

TEST(Base64, StrictDecodeRejectsABadCharacterAtEveryPosition) {
  std::mt19937 rng(11);
  const std::string valid = utils::Base64Encode(RandomBytes(&rng, 150));  // 200, no padding
  const char bad[] = {'*', '-', '_', '.', ' ', '\n', '\0', '\x80', '\xff', '@', '[', '`', '{', '=', ':', ','};
  for (Base64Path path : AvailablePaths()) {
    for (size_t pos = 0; pos < valid.size(); ++pos) {
      for (char c : bad) {
        // '=' in the last two places is well-formed padding.
        if (c == '=' && pos + 2 >= valid.size()) continue;
        std::string text = valid;
        text[pos] = c;
        bool ok = true;
        DecodeWith(path, text, &ok);
        ASSERT_FALSE(ok) << "path " << static_cast<int>(path) << " position " << pos << " char " << int(c);
      }
    }
  }
}

TEST(Base64, PublicDecodeSkipsOnlyWhitespaceWhenAskedAndHonoursRangeEnds) {
  std::mt19937 rng(5);
  const std::string data = RandomBytes(&rng, 120);
  const std::string valid = utils::Base64Encode(data);
  for (size_t pos = 0; pos <= valid.size(); ++pos) {
    std::string text = valid;
    text.insert(pos, pos % 2 ? "\r\n" : " \t");
    std::string out;
    EXPECT_FALSE(utils::Base64Decode(text, &out));
    EXPECT_TRUE(out.empty());
    ASSERT_TRUE(utils::Base64Decode(text, &out, utils::Base64Mode::kSkipWhitespace)) << pos;
    EXPECT_EQ(out, data);
  }
  std::string out;
  EXPECT_TRUE(utils::Base64Decode("Zg==\n", nullptr, &out, utils::Base64Mode::kSkipWhitespace));
  EXPECT_EQ(out, "f");
  EXPECT_FALSE(utils::Base64Decode("Zm9v*", nullptr, &out, utils::Base64Mode::kSkipWhitespace));
  EXPECT_FALSE(utils::Base64Decode("Zg==\nZg==", nullptr, &out, utils::Base64Mode::kSkipWhitespace));
  const char text[] = "SGk=garbage";
  ASSERT_TRUE(utils::Base64Decode(text, text + 4, &out));
  EXPECT_EQ(out, "Hi");
  EXPECT_FALSE(utils::Base64Decode(text, nullptr, &out));
  EXPECT_TRUE(out.empty());
  EXPECT_FALSE(utils::Base64Decode(std::string("AA\0=", 4), &out));
}

}  // namespace
