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

bool isLoopback(const in_addr& address) {
  return ntohl(address.s_addr) >> 24U == 127;
}

in_addr mappedIn(const in6_addr& address) {
  in_addr four{};
  std::memcpy(&four, &address.s6_addr[12], sizeof four);
  return four;
}

bool isReachable(const ifaddrs& one) {
  if (one.ifa_addr == nullptr || (one.ifa_flags & IFF_UP) == 0 || (one.ifa_flags & IFF_LOOPBACK) != 0) return false;
  if (one.ifa_addr->sa_family == AF_INET) {
    constexpr std::uint32_t kLinkLocal = 0xA9FE0000;  // 169.254.0.0/16 (RFC 3927)
    const in_addr address = as<sockaddr_in>(*one.ifa_addr).sin_addr;
    return !isLoopback(address) && (ntohl(address.s_addr) & 0xFFFF0000U) != kLinkLocal;
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
  return numeric(AF_INET, mappedIn(six.sin6_addr));
}

std::string sourceNetwork(const sockaddr& address) {
  constexpr char kLoopback[] = "127.0.0.0/8";
  if (address.sa_family == AF_INET && isLoopback(as<sockaddr_in>(address).sin_addr)) return kLoopback;
  if (address.sa_family != AF_INET6) return addressText(address);
  auto six = as<sockaddr_in6>(address).sin6_addr;
  if (IN6_IS_ADDR_V4MAPPED(&six)) return isLoopback(mappedIn(six)) ? kLoopback : addressText(address);
  constexpr std::size_t kNetworkBytes = 8;
  std::fill(std::begin(six.s6_addr) + kNetworkBytes, std::end(six.s6_addr), std::uint8_t{0});
  return numeric(AF_INET6, six) + "/64";
}

std::vector<std::string> localAddresses() {
  ifaddrs* list = nullptr;
  if (::getifaddrs(&list) != 0) return {};
  const std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)> owner(list, &::freeifaddrs);
  return addressesIn(list);
}

std::vector<std::string> addressesIn(const ifaddrs* list) {
  std::vector<std::string> addresses;
  for (const int family : {AF_INET, AF_INET6}) {
    for (const ifaddrs* one = list; one != nullptr; one = one->ifa_next) {
      if (!isReachable(*one) || one->ifa_addr->sa_family != family) continue;
      const auto text = addressText(*one->ifa_addr);
      const bool isNew = std::find(addresses.begin(), addresses.end(), text) == addresses.end();
      if (isNew && !text.empty() && addresses.size() < kMostAddresses) addresses.push_back(text);
    }
  }
  return addresses;
}

}  // namespace sorvane::phone
