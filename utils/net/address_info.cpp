#include "utils/net/address_info.h"

#include <netdb.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cctype>
#include <cstring>

#include "utils/net/sockaddr.h"

namespace utils {

struct LocalAddressInfo::Record {
  addrinfo info;
  sockaddr_un address;
};

LocalAddressInfo::LocalAddressInfo(const std::string& path, int socketType, int protocol)
    : record_(new Record()) {
  sockaddr_un& address = record_->address;
  std::memset(&address, 0, sizeof(address));
  address.sun_family = AF_UNIX;
  // One byte short of the field, so the path always ends with a NUL.
  const size_t pathBytes = std::min(path.size(), sizeof(address.sun_path) - 1);
  std::memcpy(address.sun_path, path.data(), pathBytes);

  socklen_t length = sizeof(address);
  if (!path.empty() && path[0] == '\0') {
    // Abstract names are not NUL-terminated: the length must cover the family
    // and the name only.
    length = static_cast<socklen_t>(std::min(path.size() + 2, sizeof(address)));
  }

  addrinfo& info = record_->info;
  std::memset(&info, 0, sizeof(info));
  info.ai_family = AF_UNIX;
  info.ai_socktype = socketType;
  info.ai_protocol = protocol;
  info.ai_addrlen = length;
  info.ai_addr = reinterpret_cast<sockaddr*>(&address);
}

LocalAddressInfo::~LocalAddressInfo() = default;

const addrinfo* LocalAddressInfo::Next() {
  if (consumed_) return nullptr;
  consumed_ = true;
  return &record_->info;
}

const addrinfo* LocalAddressInfo::Rewind() {
  consumed_ = false;
  return &record_->info;
}

RemoteAddressInfo::RemoteAddressInfo(addrinfo* list) noexcept : list_(list), cursor_(list) {}

RemoteAddressInfo::~RemoteAddressInfo() {
  if (list_ != nullptr) freeaddrinfo(list_);
}

const addrinfo* RemoteAddressInfo::Next() {
  const addrinfo* current = cursor_;
  if (cursor_ != nullptr) cursor_ = cursor_->ai_next;
  return current;
}

const addrinfo* RemoteAddressInfo::Rewind() {
  cursor_ = list_;
  return cursor_;
}

OrderedRemoteAddressInfo::OrderedRemoteAddressInfo(addrinfo* list, AddressOrder order)
    : RemoteAddressInfo(list) {
  try {
    for (const addrinfo* record = list; record != nullptr; record = record->ai_next) {
      records_.push_back(record);
    }
  } catch (...) {
    // A constructor that fails leaves the list with its caller.
    list_ = nullptr;
    throw;
  }
  auto byFamily = [](bool (*less)(int, int)) {
    return
        [less](const addrinfo* a, const addrinfo* b) { return less(a->ai_family, b->ai_family); };
  };
  if (order == AddressOrderIPv4First) {
    std::stable_sort(records_.begin(), records_.end(), byFamily(FromIPv4ToIPv6CmpLess));
  } else if (order == AddressOrderIPv6First) {
    std::stable_sort(records_.begin(), records_.end(), byFamily(FromIPv6ToIPv4CmpLess));
  }
}

const addrinfo* OrderedRemoteAddressInfo::Next() {
  if (cursor_ >= records_.size()) return nullptr;
  return records_[cursor_++];
}

const addrinfo* OrderedRemoteAddressInfo::Rewind() {
  cursor_ = 0;
  return records_.empty() ? nullptr : records_.front();
}

bool CheckLocalAddress(const addrinfo* info) { return info->ai_family == AF_UNIX; }

bool FromIPv4ToIPv6CmpLess(int familyA, int familyB) {
  if (familyA == familyB) return false;
  if (familyA == AF_INET) return true;
  return familyA == AF_INET6 && familyB != AF_INET;
}

bool FromIPv6ToIPv4CmpLess(int familyA, int familyB) {
  if (familyA == familyB) return false;
  if (familyA == AF_INET6) return true;
  return familyA == AF_INET && familyB != AF_INET6;
}

ConnectionMode GetConnectionMode(const std::string& text, ConnectionMode defaultMode) {
  std::string lower(text);
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (lower.empty() || lower == "auto") return ConnectionModeAuto;
  if (lower == "ip4") return ConnectionModeIPv4;
  if (lower == "ip6") return ConnectionModeIPv6;
  if (lower == "ip4/6") return ConnectionModeIPv4ThenIPv6;
  if (lower == "ip6/4") return ConnectionModeIPv6ThenIPv4;
  return defaultMode;
}

std::shared_ptr<AddressInfo> GetAddressInfo(const std::string& host, const std::string& service,
                                            const addrinfo* hints, AddressOrder order,
                                            std::string* error) {
  if (hints != nullptr && hints->ai_family == AF_UNIX) {
    return std::make_shared<LocalAddressInfo>(host, hints->ai_socktype, hints->ai_protocol);
  }
  addrinfo* list = nullptr;
  const int code = getaddrinfo(host.empty() ? nullptr : host.c_str(),
                               service.empty() ? nullptr : service.c_str(), hints, &list);
  if (code != 0) {
    if (error != nullptr) *error = GAIStrError(code);
    return nullptr;
  }
  return WrapAddressList(list, order);
}

std::shared_ptr<AddressInfo> WrapAddressList(addrinfo* list, AddressOrder order) {
  // Freed here unless an AddressInfo has taken it over.
  std::unique_ptr<addrinfo, void (*)(addrinfo*)> owned(list, freeaddrinfo);
  std::shared_ptr<AddressInfo> result;
  if (order == AddressOrderNone) {
    result = std::make_shared<RemoteAddressInfo>(list);
  } else {
    result = std::make_shared<OrderedRemoteAddressInfo>(list, order);
  }
  owned.release();
  return result;
}

}  // namespace utils
