#include "utils/md5.h"

#include <string>

#include <gtest/gtest.h>

namespace {

// RFC 1321, appendix A.5: empty, short, just under one block and over one.
const std::pair<std::string, std::string> kVectors[] = {
    {"", "d41d8cd98f00b204e9800998ecf8427e"},
    {"abc", "900150983cd24fb0d6963f7d28e17f72"},
    {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "d174ab98d277d9f5a5611c2c9f419d9f"},
    {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
     "57edf4a22be3c955ac49da2e2107b67a"},
};

TEST(Md5, KnownVectorsOneShotAndSplitAtEveryOffset) {
  utils::Md5 md5;
  for (const auto& [text, hex] : kVectors) {
    EXPECT_EQ(utils::Md5Hex(text), hex);
    for (size_t split = 0; split <= text.size(); ++split) {
      md5.Update(text.substr(0, split));
      md5.Update(text.data() + split, text.size() - split);
      // Final also starts the object over, which the next round relies on.
      ASSERT_EQ(md5.Final(), hex) << text << " split at " << split;
    }
  }
}

}  // namespace
