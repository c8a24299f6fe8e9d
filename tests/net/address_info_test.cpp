#include "utils/net/address_info.h"

#include <netdb.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

TEST(ConnectionMode, TextIsCaseInsensitiveAndUnknownTextKeepsTheDefault) {
  using namespace utils;
  const struct {
    const char* text;
    ConnectionMode defaultMode;
    ConnectionMode expected;
  } cases[] = {
      {"auto", ConnectionModeIPv4, ConnectionModeAuto},
      {"", ConnectionModeIPv4, ConnectionModeAuto},
      {"ip4", ConnectionModeAuto, ConnectionModeIPv4},
      {"IP6", ConnectionModeAuto, ConnectionModeIPv6},
      {"ip4/6", ConnectionModeAuto, ConnectionModeIPv4ThenIPv6},
      {"IP6/4", ConnectionModeAuto, ConnectionModeIPv6ThenIPv4},
      {" ip4", ConnectionModeIPv6, ConnectionModeIPv6},
      {"ip4 ", ConnectionModeIPv6ThenIPv4, ConnectionModeIPv6ThenIPv4},
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
    Kinds expected;
    for (const auto& kind : resolver) {
      if (kind.first == first) expected.push_back(kind);
    }
    for (const auto& kind : resolver) {
      if (kind.first != first) expected.push_back(kind);
    }
    EXPECT_EQ(KindsOf(records), expected);

    // ai_next still follows the resolver from its head, the record nobody points to.
    const addrinfo* head = nullptr;
    for (const addrinfo* candidate : records) {
      bool pointedTo = false;
      for (const addrinfo* r : records) pointedTo = pointedTo || r->ai_next == candidate;
      if (!pointedTo) head = candidate;
    }
    std::vector<const addrinfo*> chain;
    for (const addrinfo* p = head; p != nullptr; p = p->ai_next) chain.push_back(p);
    EXPECT_EQ(KindsOf(chain), resolver);

    EXPECT_EQ(info->Next(), nullptr);
    EXPECT_EQ(info->Rewind(), records.front());
    EXPECT_EQ(info->Next(), records.front());
  }
}

TEST(GetAddressInfo, LocalPathIsCutToTheAddressFieldWithoutResolving) {
  addrinfo hints{};
  hints.ai_family = AF_UNIX;
  hints.ai_socktype = SOCK_STREAM;
  const std::string longPath(200, 'p');
  std::string error = "untouched";
  auto info =
      utils::GetAddressInfo(longPath, "ignored", &hints, utils::AddressOrderIPv6First, &error);
  ASSERT_NE(dynamic_cast<utils::LocalAddressInfo*>(info.get()), nullptr);
  EXPECT_EQ(error, "untouched");
  const addrinfo* record = info->Next();
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(info->Next(), nullptr);
  EXPECT_EQ(info->Rewind(), record);
  EXPECT_EQ(record->ai_family, AF_UNIX);
  EXPECT_EQ(record->ai_socktype, SOCK_STREAM);
  EXPECT_EQ(record->ai_next, nullptr);
  EXPECT_EQ(record->ai_addrlen, sizeof(sockaddr_un));
  const auto* address = reinterpret_cast<const sockaddr_un*>(record->ai_addr);
  EXPECT_EQ(std::string(address->sun_path), longPath.substr(0, sizeof(address->sun_path) - 1));

  // An abstract name (leading NUL) counts only family and name.
  const std::string abstractName("\0corvane", 8);
  info = utils::GetAddressInfo(abstractName, "", &hints, utils::AddressOrderNone, nullptr);
  record = info->Next();
  EXPECT_EQ(record->ai_addrlen, abstractName.size() + 2);
  EXPECT_EQ(std::memcmp(reinterpret_cast<const sockaddr_un*>(record->ai_addr)->sun_path,
                        abstractName.data(), abstractName.size()),
            0);
}

TEST(GetAddressInfo, FailureGivesEmptyPointerAndResolverText) {
  addrinfo hints{};
  hints.ai_flags = AI_NUMERICHOST;  // a name fails without asking any server
  std::string error;
  EXPECT_EQ(utils::GetAddressInfo("not-an-address", "80", &hints, utils::AddressOrderNone, &error),
            nullptr);
  EXPECT_EQ(error, gai_strerror(EAI_NONAME));
  EXPECT_EQ(utils::GetAddressInfo("not-an-address", "80", &hints, utils::AddressOrderNone, nullptr),
            nullptr);
}

}  // namespace
