#include <string>

#include <gtest/gtest.h>

#include "embedded_tricky.h"
#include "support/shared.h"

namespace {

TEST(EmbedText, HeaderHoldsTheFileByteForByte) {
  EXPECT_EQ(std::string(kTrickyText, sizeof(kTrickyText) - 1),
            testsupport::ReadWholeFile(CORVANE_SOURCE_DIR "/tests/libs/fixtures/embed_tricky.txt"));
}

}  // namespace
