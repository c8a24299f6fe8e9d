#include "utils/system.h"

#include <cstdint>
#include <limits>
#include <string>

#include <gtest/gtest.h>

namespace {

TEST(DefaultRoute, LowestMetricUpDefaultRouteWins) {
  const std::string header = "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n";
  struct Case {
    std::string rows;
    const char* iface;
  };
  const Case cases[] = {
      {"eth0\t00000000\t010200C0\t0003\t0\t0\t0\t00000000\t0\t0\t0\n"
       "eth0\t000200C0\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0\n",
       "eth0"},
      {"wlan0\t00000000\t0101A8C0\t0003\t0\t0\t600\t00000000\t0\t0\t0\n"
       "eth1\t00000000\t0100000A\t0003\t0\t0\t100\t00000000\t0\t0\t0\n",
       "eth1"},
      // A route that is down, then a host route that only looks like a default.
      {"eth0\t00000000\t010200C0\t0002\t0\t0\t0\t00000000\t0\t0\t0\n"
       "eth1\t00000000\t010200C0\t0003\t0\t0\t0\tFFFFFFFF\t0\t0\t0\n",
       ""},
      {"broken line\n"
       "ppp0\t00000000\t00000000\t0001\t0\t0\t0\t00000000\t0\t0\t0\n",
       "ppp0"},
      {"", ""},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(utils::GetDefaultGwIfaceFromRouteTable(header + c.rows), c.iface) << c.rows;
  }
}

TEST(WiFiQuality, MapsLinearlyAndClamps) {
  constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
  constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
  struct Case {
    int64_t strength, best, worst;
    int quality;
  };
  // Ordinary readings are among the cv examples; here the ends, reversed and equal bounds, and extremes.
  const Case cases[] = {{-85, -20, -85, 0},  {-84, -20, -85, 2},    {-50, -50, -50, 100},
                        {-51, -50, -50, 0},  {-85, -85, -20, 100},  {-20, -85, -20, 0},
                        {0, kMax, kMin, 50}, {kMin, kMax, kMin, 0}, {kMax, 0, -100, 100}};
  for (const Case& c : cases) {
    EXPECT_EQ(utils::WiFiSignalStrengthToQuality(c.strength, c.best, c.worst), c.quality)
        << c.strength << " " << c.best << " " << c.worst;
  }
}

}  // namespace
