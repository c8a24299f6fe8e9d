// Socket addresses, literal checks and the resolver's address lists.
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "utils/net/address_info.h"
#include "utils/net/sockaddr.h"

namespace {

// The literal checks and the parser must agree on every text.
TEST(Sockaddr, TextConstructorTakesLiteralsOnly) {
  const struct {
    const char* text;
    unsigned int port;
    int family;
    unsigned short expectedPort;
    bool loopback;
  } cases[] = {
      {"10.0.0.1", 80, AF_INET, 80, false},
      {"127.0.0.1", 1, AF_INET, 1, true},
      {"127.0.0.2", 1, AF_INET, 1, false},  // loopback is one address per family
      {"::1", 443, AF_INET6, 443, true},
      {"::ffff:127.0.0.1", 1, AF_INET6, 1, false},
      {"fe80::1:2", 0x12345, AF_INET6, 0x2345, false},  // only the low 16 bits
      {"localhost", 80, AF_UNSPEC, 0, false},
      {"[::1]", 80, AF_UNSPEC, 0, false},
      {"256.1.1.1", 80, AF_UNSPEC, 0, false},
      {"", 80, AF_UNSPEC, 0, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    utils::Sockaddr address(c.text, c.port);
    EXPECT_EQ(address.GetAddrFamilyType(), c.family);
    bool ok = false;
    EXPECT_EQ(address.GetPort(&ok), c.expectedPort);
    EXPECT_EQ(ok, c.family != AF_UNSPEC);
    EXPECT_EQ(address.GetTextAddr(), c.family == AF_UNSPEC ? "" : c.text);
    EXPECT_EQ(address.IsLoopback(), c.loopback);
    EXPECT_EQ(address.GetSockaddrLen(), c.family == AF_INET    ? sizeof(sockaddr_in)
                                        : c.family == AF_INET6 ? sizeof(sockaddr_in6)
                                                               : 0u);
    EXPECT_EQ(utils::IsValidSockaddrLen(address.GetSockaddrLen()), c.family != AF_UNSPEC);
    EXPECT_EQ(utils::IsValidIp4Addr(c.text), c.family == AF_INET);
    EXPECT_EQ(utils::IsValidIp6Addr(std::string(c.text)), c.family == AF_INET6);
    EXPECT_EQ(utils::IsValidIpAddr(c.text), c.family != AF_UNSPEC);
    // Changes apply to IP families only; the port is stored in network order.
    EXPECT_EQ(address.AsSockaddrIn() != nullptr, c.family == AF_INET);
    EXPECT_EQ(address.AsSockaddrIn6() != nullptr, c.family == AF_INET6);
    address.SetPort(0x1234);
    address.SetAnyAddr();
    EXPECT_EQ(reinterpret_cast<const sockaddr_in*>(address.AsSockaddr())->sin_port,
              c.family == AF_UNSPEC ? 0 : htons(0x1234));
    EXPECT_EQ(address.GetTextAddr(), c.family == AF_INET ? "0.0.0.0" : c.family == AF_INET6 ? "::" : "");
  }
  EXPECT_FALSE(utils::IsValidIpAddr(static_cast<const char*>(nullptr)));
  // A failed parse leaves every byte zero, so it equals a fresh object.
  EXPECT_TRUE(utils::Sockaddr("nonsense", 1234) == utils::Sockaddr());
}

TEST(Sockaddr, EqualityComparesWhatTheFamilyDefines) {
  EXPECT_FALSE(utils::Sockaddr("10.0.0.1", 80) == utils::Sockaddr("10.0.0.1", 81));
  EXPECT_FALSE(utils::Sockaddr("::1", 80) == utils::Sockaddr("127.0.0.1", 80));

  // IPv4: the padding behind address and port does not count.
  sockaddr_in raw{};
  raw.sin_family = AF_INET;
  raw.sin_port = htons(80);
  inet_pton(AF_INET, "10.0.0.1", &raw.sin_addr);
  std::memset(raw.sin_zero, 0xAB, sizeof(raw.sin_zero));
  EXPECT_TRUE(utils::Sockaddr(raw) == utils::Sockaddr("10.0.0.1", 80));

  // IPv6: the scope id counts.
  sockaddr_in6 scoped{};
  scoped.sin6_family = AF_INET6;
  const utils::Sockaddr plain(scoped);
  scoped.sin6_scope_id = 2;
  EXPECT_TRUE(utils::Sockaddr(scoped) != plain);

  // Copying from a generic sockaddr keeps only IP families.
  sockaddr_storage local{};
  local.ss_family = AF_UNIX;
  EXPECT_TRUE(utils::Sockaddr(local).IsUnspec());
  EXPECT_TRUE(utils::Sockaddr(*utils::Sockaddr("::1", 5).AsSockaddr()) == utils::Sockaddr("::1", 5));
}

TEST(ConnectionMode, TextIsCaseInsensitiveAndUnknownTextKeepsTheDefault) {
  using namespace utils;
  const struct {
    const char* text;
    ConnectionMode defaultMode;
    ConnectionMode expected;
  } cases[] = {
      {"auto", ConnectionModeIPv4, ConnectionModeAuto},          {"ip4", ConnectionModeAuto, ConnectionModeIPv4},
      {"ip4/6", ConnectionModeAuto, ConnectionModeIPv4ThenIPv6},
      {"IP6/4", ConnectionModeAuto, ConnectionModeIPv6ThenIPv4}, {" ip4", ConnectionModeIPv6, ConnectionModeIPv6},
      {"ip46", ConnectionModeIPv4, ConnectionModeIPv4},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(GetConnectionMode(c.text, c.defaultMode), c.expected) << '"' << c.text << '"';
  }
}

using Kinds = std::vector<std::pair<int, int>>;  // family and socket type per record

Kinds KindsOf(const std::vector<const addrinfo*>& records) {
  Kinds kinds;
  for (const addrinfo* r : records) kinds.emplace_back(r->ai_family, r->ai_socktype);
  return kinds;
}

// Both loopback addresses, three socket types each, from the real resolver
// (no name, so nothing leaves the machine).
std::shared_ptr<utils::AddressInfo> Loopback(utils::AddressOrder order) {
  addrinfo hints{};
  return utils::GetAddressInfo("", "8080", &hints, order, nullptr);
}

std::vector<const addrinfo*> Walk(utils::AddressInfo& info) {
  std::vector<const addrinfo*> records;
  while (const addrinfo* record = info.Next()) records.push_back(record);
  return records;
}

TEST(GetAddressInfo, FamilyOrderIsStableAndNeverRelinksRecords) {
  auto plain = Loopback(utils::AddressOrderNone);
  ASSERT_NE(plain, nullptr);
  const Kinds resolver = KindsOf(Walk(*plain));
  ASSERT_GE(resolver.size(), 2u);

  for (auto order : {utils::AddressOrderIPv4First, utils::AddressOrderIPv6First}) {
    const int first = order == utils::AddressOrderIPv4First ? AF_INET : AF_INET6;
    auto info = Loopback(order);
    ASSERT_NE(info, nullptr);
    const std::vector<const addrinfo*> records = Walk(*info);
    // The first family's records, then the others, each in resolver order.
    Kinds expected = resolver;
    std::stable_partition(expected.begin(), expected.end(),
                          [first](const std::pair<int, int>& kind) { return kind.first == first; });
    EXPECT_EQ(KindsOf(records), expected);

    // ai_next still follows the resolver from its head (each kind is there once).
    std::vector<const addrinfo*> chain = {*std::find_if(
        records.begin(), records.end(), [&](const addrinfo* r) { return KindsOf({r})[0] == resolver[0]; })};
    while (chain.back()->ai_next != nullptr) chain.push_back(chain.back()->ai_next);
    EXPECT_EQ(KindsOf(chain), resolver);

    EXPECT_EQ(info->Next(), nullptr);
    EXPECT_EQ(info->Rewind(), records.front());
    EXPECT_EQ(info->Next(), records.front());
  }
}

TEST(GetAddressInfo, LocalPathsAndFailuresNeedNoResolverCall) {
  addrinfo hints{};
  hints.ai_family = AF_UNIX;
  hints.ai_socktype = SOCK_STREAM;
  const std::string longPath(200, 'p');
  std::string error;
  auto info = utils::GetAddressInfo(longPath, "ignored", &hints, utils::AddressOrderIPv6First, &error);
  ASSERT_NE(dynamic_cast<utils::LocalAddressInfo*>(info.get()), nullptr);
  const addrinfo* record = info->Next();
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(info->Next(), nullptr);
  EXPECT_EQ(record->ai_family, AF_UNIX);
  EXPECT_EQ(record->ai_addrlen, sizeof(sockaddr_un));
  const auto* address = reinterpret_cast<const sockaddr_un*>(record->ai_addr);
  EXPECT_EQ(std::string(address->sun_path), longPath.substr(0, sizeof(address->sun_path) - 1));

  // An abstract name (leading NUL) counts only family and name.
  const std::string abstractName("\0corvane", 8);
  info = utils::GetAddressInfo(abstractName, "", &hints, utils::AddressOrderNone, nullptr);
  record = info->Next();
  EXPECT_EQ(record->ai_addrlen, abstractName.size() + 2);
  EXPECT_EQ(std::memcmp(reinterpret_cast<const sockaddr_un*>(record->ai_addr)->sun_path, abstractName.data(),
                        abstractName.size()),
            0);

  hints = addrinfo{};
  hints.ai_flags = AI_NUMERICHOST;  // a name fails without asking any server
  EXPECT_EQ(utils::GetAddressInfo("not-an-address", "80", &hints, utils::AddressOrderNone, &error), nullptr);
  EXPECT_EQ(error, gai_strerror(EAI_NONAME));
  EXPECT_EQ(utils::GetAddressInfo("not-an-address", "80", &hints, utils::AddressOrderNone, nullptr), nullptr);
}

}  // namespace
