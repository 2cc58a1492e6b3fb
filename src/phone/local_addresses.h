#pragma once

#include <string>
#include <vector>

struct sockaddr;

namespace sorvane::phone {

/// Addresses by which others on the network reach this computer, IPv4 first, at most kMostAddresses: those of
/// interfaces that are up, without loopback and link-local ones, which need more than an address. The loopback address
/// where there is no other.
inline constexpr std::size_t kMostAddresses = 6;
std::vector<std::string> localAddresses();

/// The numeric text of a socket's address, without its port; an IPv4 address that came over an IPv6 socket as IPv4.
/// Empty for another family.
std::string addressText(const sockaddr& address);

}  // namespace sorvane::phone
