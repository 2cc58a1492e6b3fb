#include "phone/local_addresses.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>

namespace sorvane::phone {
namespace {

/// An address as the family's own structure; sockaddr alone is not aligned for it.
template <typename Address>
Address as(const sockaddr& address) {
  Address own{};
  std::memcpy(&own, &address, sizeof own);
  return own;
}

template <typename Bytes>
std::string numeric(int family, const Bytes& bytes) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  return ::inet_ntop(family, &bytes, text.data(), static_cast<socklen_t>(text.size())) == nullptr ? "" : text.data();
}

bool isReachable(const ifaddrs& one) {
  if (one.ifa_addr == nullptr || (one.ifa_flags & IFF_UP) == 0 || (one.ifa_flags & IFF_LOOPBACK) != 0) return false;
  if (one.ifa_addr->sa_family == AF_INET) {
    constexpr std::uint32_t kLinkLocal = 0xA9FE0000;  // 169.254.0.0/16 (RFC 3927)
    return (ntohl(as<sockaddr_in>(*one.ifa_addr).sin_addr.s_addr) & 0xFFFF0000U) != kLinkLocal;
  }
  if (one.ifa_addr->sa_family != AF_INET6) return false;
  const auto address = as<sockaddr_in6>(*one.ifa_addr);
  return !IN6_IS_ADDR_LINKLOCAL(&address.sin6_addr) && !IN6_IS_ADDR_LOOPBACK(&address.sin6_addr);
}

}  // namespace

std::string addressText(const sockaddr& address) {
  if (address.sa_family == AF_INET) return numeric(AF_INET, as<sockaddr_in>(address).sin_addr);
  if (address.sa_family != AF_INET6) return {};
  const auto six = as<sockaddr_in6>(address);
  if (!IN6_IS_ADDR_V4MAPPED(&six.sin6_addr)) return numeric(AF_INET6, six.sin6_addr);
  in_addr four{};
  std::memcpy(&four, &six.sin6_addr.s6_addr[12], sizeof four);
  return numeric(AF_INET, four);
}

std::vector<std::string> localAddresses() {
  ifaddrs* list = nullptr;
  if (::getifaddrs(&list) != 0) return {"127.0.0.1"};
  const std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)> owner(list, &::freeifaddrs);
  std::vector<std::string> addresses;
  for (const int family : {AF_INET, AF_INET6}) {
    for (const ifaddrs* one = list; one != nullptr; one = one->ifa_next) {
      if (!isReachable(*one) || one->ifa_addr->sa_family != family) continue;
      const auto text = addressText(*one->ifa_addr);
      const bool isNew = std::find(addresses.begin(), addresses.end(), text) == addresses.end();
      if (isNew && !text.empty() && addresses.size() < kMostAddresses) addresses.push_back(text);
    }
  }
  if (addresses.empty()) addresses.emplace_back("127.0.0.1");
  return addresses;
}

}  // namespace sorvane::phone
