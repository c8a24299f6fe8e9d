#include "utils/net/address_info.h"

#include <netdb.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

using utils::ConnectionMode;

TEST(ConnectionMode, TextIsCaseInsensitiveAndUnknownTextKeepsTheDefault) {
  struct Case {
    const char* text;
    ConnectionMode defaultMode;
    ConnectionMode expected;
  };
  const Case cases[] = {
      {"auto", utils::ConnectionModeIPv4, utils::ConnectionModeAuto},
      {"", utils::ConnectionModeIPv4, utils::ConnectionModeAuto},
      {"ip4", utils::ConnectionModeAuto, utils::ConnectionModeIPv4},
      {"IP6", utils::ConnectionModeAuto, utils::ConnectionModeIPv6},
      {"ip4/6", utils::ConnectionModeAuto, utils::ConnectionModeIPv4ThenIPv6},
      {"IP6/4", utils::ConnectionModeAuto, utils::ConnectionModeIPv6ThenIPv4},
      {" ip4", utils::ConnectionModeIPv6, utils::ConnectionModeIPv6},
      {"ip4 ", utils::ConnectionModeIPv6ThenIPv4, utils::ConnectionModeIPv6ThenIPv4},
      {"ip46", utils::ConnectionModeIPv4, utils::ConnectionModeIPv4},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(utils::GetConnectionMode(c.text, c.defaultMode), c.expected) << '"' << c.text << '"';
  }
}

TEST(AddressOrder, PredicatesRankPreferredFamilyThenOtherThenRest) {
  const int families[] = {AF_INET, AF_INET6, AF_UNIX, AF_UNSPEC};
  auto rank4 = [](int f) { return f == AF_INET ? 0 : f == AF_INET6 ? 1 : 2; };
  auto rank6 = [](int f) { return f == AF_INET6 ? 0 : f == AF_INET ? 1 : 2; };
  for (int a : families) {
    for (int b : families) {
      EXPECT_EQ(utils::FromIPv4ToIPv6CmpLess(a, b), rank4(a) < rank4(b)) << a << " " << b;
      EXPECT_EQ(utils::FromIPv6ToIPv4CmpLess(a, b), rank6(a) < rank6(b)) << a << " " << b;
    }
  }
}

// The loopback addresses of both families, three socket types each, from the
// real resolver (no name, so nothing leaves the machine).
std::shared_ptr<utils::AddressInfo> LoopbackRecords(utils::AddressOrder order) {
  addrinfo hints;
  std::memset(&hints, 0, sizeof(hints));
  hints.ai_family = AF_UNSPEC;
  return utils::GetAddressInfo("", "8080", &hints, order, nullptr);
}

std::vector<const addrinfo*> Walk(utils::AddressInfo& info) {
  std::vector<const addrinfo*> records;
  while (const addrinfo* record = info.Next()) records.push_back(record);
  return records;
}

TEST(GetAddressInfo, FamilyOrderIsStableAndNeverRelinksRecords) {
  auto plain = LoopbackRecords(utils::AddressOrderNone);
  ASSERT_NE(plain, nullptr);
  const std::vector<const addrinfo*> resolverOrder = Walk(*plain);
  ASSERT_GE(resolverOrder.size(), 2u);

  for (auto order : {utils::AddressOrderIPv4First, utils::AddressOrderIPv6First}) {
    auto ordered = LoopbackRecords(order);
    ASSERT_NE(ordered, nullptr);
    const int first = order == utils::AddressOrderIPv4First ? AF_INET : AF_INET6;
    const std::vector<const addrinfo*> records = Walk(*ordered);
    ASSERT_EQ(records.size(), resolverOrder.size());

    // Expected: the resolver's records of the first family, then the others,
    // each group in the resolver's relative order (compared by socket type).
    std::vector<std::pair<int, int>> expected;
    for (const addrinfo* r : resolverOrder) {
      if (r->ai_family == first) expected.emplace_back(r->ai_family, r->ai_socktype);
    }
    for (const addrinfo* r : resolverOrder) {
      if (r->ai_family != first) expected.emplace_back(r->ai_family, r->ai_socktype);
    }
    std::vector<std::pair<int, int>> actual;
    for (const addrinfo* r : records) actual.emplace_back(r->ai_family, r->ai_socktype);
    EXPECT_EQ(actual, expected);

    // ai_next still follows the resolver: the chain from the resolver's head
    // (the record nobody points to) visits the records in resolver order.
    const addrinfo* head = nullptr;
    for (const addrinfo* candidate : records) {
      bool pointedTo = false;
      for (const addrinfo* r : records) pointedTo = pointedTo || r->ai_next == candidate;
      if (!pointedTo) head = candidate;
    }
    std::vector<std::pair<int, int>> chain;
    for (const addrinfo* p = head; p != nullptr; p = p->ai_next) {
      chain.emplace_back(p->ai_family, p->ai_socktype);
    }
    std::vector<std::pair<int, int>> resolver;
    for (const addrinfo* r : resolverOrder) resolver.emplace_back(r->ai_family, r->ai_socktype);
    EXPECT_EQ(chain, resolver);

    EXPECT_EQ(ordered->Next(), nullptr);
    EXPECT_EQ(ordered->Rewind(), records.front());
    EXPECT_EQ(ordered->Next(), records.front());
  }
}

TEST(GetAddressInfo, LocalPathIsCutToTheAddressFieldWithoutResolving) {
  addrinfo hints;
  std::memset(&hints, 0, sizeof(hints));
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
  auto abstractInfo =
      utils::GetAddressInfo(abstractName, "", &hints, utils::AddressOrderNone, nullptr);
  const addrinfo* abstractRecord = abstractInfo->Next();
  EXPECT_EQ(abstractRecord->ai_addrlen, abstractName.size() + 2);
  EXPECT_EQ(std::memcmp(reinterpret_cast<const sockaddr_un*>(abstractRecord->ai_addr)->sun_path,
                        abstractName.data(), abstractName.size()),
            0);
}

TEST(GetAddressInfo, FailureGivesEmptyPointerAndResolverText) {
  addrinfo hints;
  std::memset(&hints, 0, sizeof(hints));
  hints.ai_flags = AI_NUMERICHOST;  // a name fails without asking any server
  std::string error;
  auto info =
      utils::GetAddressInfo("not-an-address", "80", &hints, utils::AddressOrderNone, &error);
  EXPECT_EQ(info, nullptr);
  EXPECT_EQ(error, gai_strerror(EAI_NONAME));
  EXPECT_EQ(utils::GetAddressInfo("not-an-address", "80", &hints, utils::AddressOrderNone, nullptr),
            nullptr);
}

}  // namespace
