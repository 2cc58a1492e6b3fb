#pragma once

#include <string>
#include <vector>

struct ifaddrs;
struct sockaddr;

namespace sorvane::phone {

/// Addresses by which others on the network reach this computer, IPv4 first, at most kMostAddresses: those of
/// interfaces that are up, without loopback and link-local ones, which need more than an address. Empty where there is
/// no such address.
inline constexpr std::size_t kMostAddresses = 6;
std::vector<std::string> localAddresses();
/// The same of a list of interfaces.
std::vector<std::string> addressesIn(const ifaddrs* list);
/// What is left where there is none: this computer, as it reaches itself.
inline constexpr char kLoopbackAddress[] = "127.0.0.1";

/// The numeric text of a socket's address, without its port; an IPv4 address that came over an IPv6 socket as IPv4.
/// Empty for another family.
std::string addressText(const sockaddr& address);

/// What a connection from there is counted with, because whoever has one address of it has them all: an IPv6 network of
/// 64 bits (RFC 6177), all of 127.0.0.0/8, otherwise the one address. Empty for another family.
std::string sourceNetwork(const sockaddr& address);

}  // namespace sorvane::phone
