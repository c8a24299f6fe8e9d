#include "utils/system.h"

#include <cstdint>
#include <limits>
#include <string>
#include <tuple>
#include <utility>

#include <gtest/gtest.h>

namespace {

TEST(DefaultRoute, LowestMetricUpDefaultRouteWins) {
  const std::string header = "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n";
  auto row = [](const char* iface, const char* destination, const char* flags, const char* metric, const char* mask) {
    return std::string(iface) + "\t" + destination + "\t010200C0\t" + flags + "\t0\t0\t" + metric + "\t" + mask +
           "\t0\t0\t0\n";
  };
  const std::pair<std::string, const char*> cases[] = {
      {row("eth0", "00000000", "0003", "0", "00000000") + row("eth0", "000200C0", "0001", "0", "00FFFFFF"), "eth0"},
      {row("wlan0", "00000000", "0003", "600", "00000000") + row("eth1", "00000000", "0003", "100", "00000000"),
       "eth1"},
      // A route that is down, then a host route that only looks like a default.
      {row("eth0", "00000000", "0002", "0", "00000000") + row("eth1", "00000000", "0003", "0", "FFFFFFFF"), ""},
      {"broken line\n" + row("ppp0", "00000000", "0001", "0", "00000000"), "ppp0"},
      {"", ""},
  };
  for (const auto& [rows, iface] : cases) {
    EXPECT_EQ(utils::GetDefaultGwIfaceFromRouteTable(header + rows), iface) << rows;
  }
}

TEST(WiFiQuality, MapsLinearlyAndClamps) {
  constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
  constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
  // Ordinary readings are among the cv examples; here the ends, reversed and equal bounds, and extremes.
  // Strength, best, worst and the quality they give.
  const std::tuple<int64_t, int64_t, int64_t, int> cases[] = {
      {-85, -20, -85, 0}, {-84, -20, -85, 2},  {-50, -50, -50, 100},  {-51, -50, -50, 0},  {-85, -85, -20, 100},
      {-20, -85, -20, 0}, {0, kMax, kMin, 50}, {kMin, kMax, kMin, 0}, {kMax, 0, -100, 100}};
  for (const auto& [strength, best, worst, quality] : cases) {
    EXPECT_EQ(utils::WiFiSignalStrengthToQuality(strength, best, worst), quality) << strength << " " << best;
  }
}

}  // namespace
