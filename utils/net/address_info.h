// Name resolution: utils::GetAddressInfo resolves a host and service into a
// cursor over resolver records, optionally ordered by address family, and
// utils::GetConnectionMode turns the text of a connection mode ("auto", "ip4",
// "ip6", "ip4/6", "ip6/4") into a mode. Synchronous (getaddrinfo); no logging.
#pragma once

#include <memory>
#include <string>
#include <vector>

struct addrinfo;

namespace utils {

// Stored and passed as integers by callers: the values are fixed.
enum AddressOrder : int {
  AddressOrderNone = 0,       // the resolver's order
  AddressOrderIPv4First = 1,  // stable: AF_INET, then AF_INET6, then the rest
  AddressOrderIPv6First = 2,  // stable: AF_INET6, then AF_INET, then the rest
};

enum ConnectionMode : int {
  ConnectionModeAuto = 0,          // "auto" or ""
  ConnectionModeIPv4 = 1,          // "ip4"
  ConnectionModeIPv6 = 2,          // "ip6"
  ConnectionModeIPv4ThenIPv6 = 3,  // "ip4/6"
  ConnectionModeIPv6ThenIPv4 = 4,  // "ip6/4"
};

// A cursor over resolver records, used by one thread. Records stay valid for
// the object's life; pointers from Next must not outlive it.
class AddressInfo {
 public:
  virtual ~AddressInfo() = default;
  // The record under the cursor, then advances; null once exhausted.
  virtual const addrinfo* Next() = 0;
  // Back to the first record, which it returns (null for an empty list).
  virtual const addrinfo* Rewind() = 0;
};

// One local-socket record built in place; the resolver is not asked.
class LocalAddressInfo : public AddressInfo {
 public:
  // The path is cut to what sockaddr_un holds with its terminating NUL. A
  // path starting with NUL names an abstract socket, whose address length
  // counts only the name.
  LocalAddressInfo(const std::string& path, int socketType, int protocol);
  ~LocalAddressInfo() override;

  const addrinfo* Next() override;
  const addrinfo* Rewind() override;

 private:
  struct Record;
  std::unique_ptr<Record> record_;
  bool consumed_ = false;
};

// Owns a getaddrinfo list and walks it in the resolver's order.
class RemoteAddressInfo : public AddressInfo {
 public:
  // Takes the list over (freed with freeaddrinfo).
  explicit RemoteAddressInfo(addrinfo* list) noexcept;
  ~RemoteAddressInfo() override;
  RemoteAddressInfo(const RemoteAddressInfo&) = delete;
  RemoteAddressInfo& operator=(const RemoteAddressInfo&) = delete;

  const addrinfo* Next() override;
  const addrinfo* Rewind() override;

 protected:
  addrinfo* list_;

 private:
  addrinfo* cursor_;
};

// The same list walked through a vector of its records sorted by family. The
// records are never relinked: ai_next keeps the resolver's order, so a
// record's ai_next says whether it was the resolver's last, not the cursor's.
class OrderedRemoteAddressInfo : public RemoteAddressInfo {
 public:
  // Any order value other than the two family orders keeps the resolver's.
  OrderedRemoteAddressInfo(addrinfo* list, AddressOrder order);

  const addrinfo* Next() override;
  const addrinfo* Rewind() override;

 private:
  std::vector<const addrinfo*> records_;
  size_t cursor_ = 0;
};

// True when the record is a local (AF_UNIX) one.
bool CheckLocalAddress(const addrinfo* info);

// Strict weak orders on address families for the two stable sorts.
bool FromIPv4ToIPv6CmpLess(int familyA, int familyB);
bool FromIPv6ToIPv4CmpLess(int familyA, int familyB);

// Case-insensitive; "" is ConnectionModeAuto; unknown text (blanks included)
// gives defaultMode.
ConnectionMode GetConnectionMode(const std::string& text, ConnectionMode defaultMode);

// AF_UNIX hints build a LocalAddressInfo for the path in host (service
// ignored). Otherwise getaddrinfo with null node/service for empty strings;
// on failure an empty pointer and the resolver's text in *error (when not null).
std::shared_ptr<AddressInfo> GetAddressInfo(const std::string& host, const std::string& service,
                                            const addrinfo* hints, AddressOrder order,
                                            std::string* error);

// Takes over a getaddrinfo list (freed with freeaddrinfo), walked in `order`.
std::shared_ptr<AddressInfo> WrapAddressList(addrinfo* list, AddressOrder order);

}  // namespace utils
