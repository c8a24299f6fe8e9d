#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

#include "embedded_tricky.h"
#include "embedded_xml.h"

namespace {

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  EXPECT_TRUE(file) << path;
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

TEST(EmbedText, HeaderHoldsTheFileByteForByte) {
  EXPECT_EQ(std::string(corvane_test::kXmlText, sizeof(corvane_test::kXmlText) - 1),
            ReadFile(CORVANE_SOURCE_DIR "/lua/libs/xml.lua"));
  EXPECT_EQ(std::string(kTrickyText, sizeof(kTrickyText) - 1),
            ReadFile(CORVANE_SOURCE_DIR "/tests/libs/fixtures/embed_tricky.txt"));
}

}  // namespace
