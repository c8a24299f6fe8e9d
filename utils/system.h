// Network interfaces, the default route and Wi-Fi signal quality.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace utils {

struct NetworkInterface {
  std::string name;     // interface label ("eth0", or an alias such as "eth0:1")
  std::string address;  // dotted IPv4 address
};

// Appends one entry per IPv4 address of every interface, in the order the
// kernel lists them; an interface with several addresses appears once for each.
// False (nothing appended) when the interfaces cannot be enumerated.
bool GetNetworkInterfaces(std::vector<NetworkInterface>* interfaces);

// Name of the interface that carries the default IPv4 route (the one with the
// lowest metric when there are several), from /proc/net/route. Empty when there
// is none or the table cannot be read.
std::string GetDefaultGwIface();

// The same, from the text of a routing table in /proc/net/route's format.
std::string GetDefaultGwIfaceFromRouteTable(const std::string& table);

// Maps a signal strength in dBm linearly onto 0..100, rounded to the nearest
// integer: `best` gives 100, `worst` gives 0, and values beyond either end are
// clamped. With best == worst the map is a step: 100 from `best` up, 0 below.
int WiFiSignalStrengthToQuality(int64_t strength, int64_t best = -20, int64_t worst = -85);

}  // namespace utils
