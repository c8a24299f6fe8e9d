#include "utils/env.h"

#include <string>

#include <gtest/gtest.h>

namespace {

TEST(Env, SetEmptyAndUnsetAreDistinctAndMalformedNamesOrValuesAreRefused) {
  std::string value = "stale";
  utils::UnsetEnv("CORVANE_T_ENV");
  EXPECT_FALSE(utils::GetEnv("CORVANE_T_ENV", &value));
  EXPECT_TRUE(value.empty());
  ASSERT_TRUE(utils::SetEnv("CORVANE_T_ENV", ""));
  EXPECT_TRUE(utils::GetEnv("CORVANE_T_ENV", &value));
  EXPECT_TRUE(value.empty());
  ASSERT_TRUE(utils::SetEnv("CORVANE_T_ENV", "a=b c"));
  EXPECT_TRUE(utils::GetEnv("CORVANE_T_ENV", &value) && utils::GetEnv("CORVANE_T_ENV", nullptr));
  EXPECT_EQ(value, "a=b c");
  EXPECT_TRUE(utils::UnsetEnv("CORVANE_T_ENV"));
  for (const std::string& name : {std::string(), std::string("A=B"), std::string("A\0B", 3)}) {
    EXPECT_FALSE(utils::SetEnv(name, "x") || utils::UnsetEnv(name) || utils::GetEnv(name, nullptr));
  }
  // The NUL would otherwise set CORVANE_T_ENV to "cut".
  EXPECT_FALSE(utils::SetEnv("CORVANE_T_ENV", std::string("cut\0rest", 8)));
  EXPECT_FALSE(utils::GetEnv("CORVANE_T_ENV", nullptr));
}

}  // namespace
