#include "utils/system.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <sstream>

#include "utils/files.h"

namespace utils {

namespace {

struct IfAddrsFree {
  void operator()(struct ifaddrs* list) const { ::freeifaddrs(list); }
};

// Route flag "up", from <linux/route.h> (not included: it clashes with <net/route.h>).
const unsigned long kRouteUp = 0x0001;

bool ParseUnsigned(const std::string& text, int base, unsigned long* value) {
  if (text.empty() || text[0] == '-' || text[0] == '+') return false;
  char* end = nullptr;
  errno = 0;
  *value = std::strtoul(text.c_str(), &end, base);
  return errno == 0 && *end == '\0';
}

}  // namespace

bool GetNetworkInterfaces(std::vector<NetworkInterface>* interfaces) {
  struct ifaddrs* raw = nullptr;
  if (::getifaddrs(&raw) != 0) return false;
  std::unique_ptr<struct ifaddrs, IfAddrsFree> list(raw);
  for (struct ifaddrs* entry = raw; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) continue;
    const auto* address = reinterpret_cast<const struct sockaddr_in*>(entry->ifa_addr);
    char text[INET_ADDRSTRLEN];
    if (::inet_ntop(AF_INET, &address->sin_addr, text, sizeof text) == nullptr) continue;
    interfaces->push_back(NetworkInterface{entry->ifa_name, text});
  }
  return true;
}

std::string GetDefaultGwIfaceFromRouteTable(const std::string& table) {
  std::istringstream lines(table);
  std::string line;
  std::getline(lines, line);  // column titles
  std::string best;
  unsigned long bestMetric = 0;
  while (std::getline(lines, line)) {
    // Iface Destination Gateway Flags RefCnt Use Metric Mask ...; numbers in hex
    // except the counters and the metric, which are decimal.
    std::istringstream fields(line);
    std::string iface, destination, gateway, flags, refCount, use, metric, mask;
    if (!(fields >> iface >> destination >> gateway >> flags >> refCount >> use >> metric >>
          mask)) {
      continue;
    }
    unsigned long flagBits, metricValue, destinationBits, maskBits;
    if (!ParseUnsigned(flags, 16, &flagBits) || !ParseUnsigned(destination, 16, &destinationBits) ||
        !ParseUnsigned(mask, 16, &maskBits) || !ParseUnsigned(metric, 10, &metricValue)) {
      continue;
    }
    if (destinationBits != 0 || maskBits != 0 || (flagBits & kRouteUp) == 0) continue;
    if (best.empty() || metricValue < bestMetric) {
      best = iface;
      bestMetric = metricValue;
    }
  }
  return best;
}

std::string GetDefaultGwIface() {
  std::string table;
  if (!ReadFile("/proc/net/route", &table)) return std::string();
  return GetDefaultGwIfaceFromRouteTable(table);
}

int WiFiSignalStrengthToQuality(int64_t strength, int64_t best, int64_t worst) {
  if (best == worst) return strength >= best ? 100 : 0;
  // In double: the differences of extreme 64-bit arguments overflow integers.
  double fraction = (static_cast<double>(strength) - static_cast<double>(worst)) /
                    (static_cast<double>(best) - static_cast<double>(worst));
  if (!(fraction > 0.0)) return 0;
  if (fraction >= 1.0) return 100;
  return static_cast<int>(std::lround(fraction * 100.0));
}

}  // namespace utils
