#include "utils/time.h"

#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "support/shared.h"

namespace {

// Callers hand LeftMs() straight to poll-style waits, so "no wait" and
// "no limit" must survive, and a passed deadline must never turn negative.
TEST(Deadline, CountsDownToZeroAndPassesNonPositiveTimeOutsThrough) {
  EXPECT_EQ(utils::Deadline(0).LeftMs(), 0);
  EXPECT_EQ(utils::Deadline(-250).LeftMs(), -250);
  const utils::Deadline later(60000);
  EXPECT_GT(later.LeftMs(), 0);
  EXPECT_LE(later.LeftMs(), 60000);
  const utils::Deadline soon(1);
  utils::Sleep(5);
  EXPECT_EQ(soon.LeftMs(), 0);
}

TEST(ParseTime, ReadsUtcAndRejectsWhatDoesNotFitExactly) {
  const char* kFull = "%Y-%m-%d %H:%M:%S";
  const std::tuple<const char*, const char*, int64_t> cases[] = {
      {"2024-03-01 12:34:56", kFull, 1709296496000},
      {"1970-01-01 00:00:00", kFull, 0},
      {"2024-02-29", "%Y-%m-%d", 1709164800000},
      {"2024-03", "%Y-%m", 1709251200000},
      {"2024-03-01T12:00:00+0200", "%Y-%m-%dT%H:%M:%S%z", 1709287200000},
      {"1700000000", "%s", 1700000000000},
      {"2024-04-31", "%Y-%m-%d", -1},
      {"2024-03-01 12:34:56 ", kFull, -1},  // trailing text
      {"2024-03", "%Y-%m-%d", -1},          // text ends early
      {"2024-13-01", "%Y-%m-%d", -1},
      {"1969-12-31", "%Y-%m-%d", -1},  // before the epoch
      {"yesterday", kFull, -1},
  };
  for (const auto& [text, format, ms] : cases) EXPECT_EQ(utils::ParseTime(text, format, true), ms) << text;
  EXPECT_EQ(utils::ParseTime(std::string("2024-03-01\0junk", 15), "%Y-%m-%d", true), -1);
}

TEST(ParseTime, LocalTimeFollowsDaylightSaving) {
  // A POSIX rule needs no tzdata: Central European Time with summer time
  // from the last Sunday of March 02:00 to the last Sunday of October 03:00.
  // mktime reads TZ afresh on every call.
  testsupport::ScopedEnv tz("TZ", "CET-1CEST,M3.5.0,M10.5.0/3");
  const char* kFull = "%Y-%m-%d %H:%M:%S";
  // Winter is UTC+1, summer UTC+2.
  EXPECT_EQ(utils::ParseTime("2024-01-15 12:00:00", kFull, false), 1705316400000);
  EXPECT_EQ(utils::ParseTime("2024-07-15 12:00:00", kFull, false), 1721037600000);
  // 02:30 on 31 March 2024 does not exist locally; it moves forward by the
  // hour-long gap to 03:30 CEST.
  EXPECT_EQ(utils::ParseTime("2024-03-31 02:30:00", kFull, false), 1711848600000);
  // The repeated hour of 27 October resolves to one of its two instants.
  int64_t repeated = utils::ParseTime("2024-10-27 02:30:00", kFull, false);
  EXPECT_TRUE(repeated == 1729989000000 || repeated == 1729989000000 + 3600000) << repeated;
  EXPECT_EQ(utils::ParseTime("2024-07-15 12:00:00", kFull, true), 1721044800000);
  EXPECT_EQ(utils::ParseTime("2024-03-01T12:00:00+0200", "%Y-%m-%dT%H:%M:%S%z", false), 1709287200000);
  EXPECT_EQ(utils::ParseTime("1700000000", "%s", false), 1700000000000);
}

}  // namespace
