#include "approver/pair_link.h"

#include <algorithm>
#include <charconv>
#include <map>

#include "base/codec.h"
#include "base/unicode.h"

namespace sorvane::approver {
namespace {

constexpr std::string_view kStart = "sorvane://pair?";
constexpr std::string_view kVersion = "4";
constexpr std::string_view kCodeLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZ234567";
constexpr std::size_t kCodeCharacters = 16;
constexpr std::size_t kMostHostBytes = 255;

[[noreturn]] void refuse() {
  throw PlaceError(
      "That is no pairing link of this version, or it was cut. Copy all of it, from sorvane:// on, from what sorvane "
      "phone pair shows. Nothing was paired.");
}

std::optional<std::uint16_t> readPort(std::string_view text) {
  std::uint16_t port = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  if (error != std::errc() || end != text.data() + text.size() || port == 0) return std::nullopt;
  return port;
}

/// A name, an address of either family, a link's scope behind a percent sign.
bool isHost(std::string_view text) {
  return !text.empty() && text.size() <= kMostHostBytes && text.front() != '-' &&
         std::all_of(text.begin(), text.end(), [](char c) {
           return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                  std::string_view(".:-_%").find(c) != std::string_view::npos;
         });
}

std::string percentDecoded(std::string_view text) {
  std::string out;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] != '%') {
      out.push_back(text[at]);
      continue;
    }
    const auto byte = base::parseHex(text.substr(at + 1, 2));
    if (!byte || byte->size() != 1) refuse();
    out.push_back(static_cast<char>(byte->front()));
    at += 2;
  }
  return out;
}

using Parameters = std::map<std::string_view, std::string_view>;

Parameters readParameters(std::string_view text) {
  Parameters parameters;
  while (!text.empty()) {
    const std::string_view one = text.substr(0, text.find('&'));
    text.remove_prefix(std::min(text.size(), one.size() + 1));
    const std::size_t sign = one.find('=');
    if (sign == std::string_view::npos || !parameters.emplace(one.substr(0, sign), one.substr(sign + 1)).second)
      refuse();
  }
  return parameters;
}

std::string_view valueOf(const Parameters& parameters, std::string_view name) {
  const auto found = parameters.find(name);
  if (found == parameters.end()) refuse();
  return found->second;
}

PublicKey readKey(std::string_view text) {
  std::string standard(text);
  // The other alphabet's characters stand for nothing here.
  if (standard.find_first_of("+/=") != std::string::npos) refuse();
  std::replace(standard.begin(), standard.end(), '-', '+');
  std::replace(standard.begin(), standard.end(), '_', '/');
  standard.append((4 - standard.size() % 4) % 4, '=');
  const auto bytes = base::parseBase64(standard);
  PublicKey key{};
  if (!bytes || bytes->size() != key.size()) refuse();
  std::copy(bytes->begin(), bytes->end(), key.begin());
  return key;
}

base::SecretText readCode(std::string_view text) {
  base::SecretText code;
  for (char c : text) {
    if (c == '-') continue;
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    if (kCodeLetters.find(c) == std::string_view::npos) refuse();
    code.push_back(c);
  }
  if (code.size() != kCodeCharacters) refuse();
  return code;
}

std::vector<Place> readPlaces(std::string_view hosts, std::string_view port) {
  const auto number = readPort(port);
  if (!number) refuse();
  std::vector<Place> places;
  for (bool more = true; more;) {
    const std::size_t comma = hosts.find(',');
    more = comma != std::string_view::npos;
    std::string host = percentDecoded(hosts.substr(0, comma));
    hosts.remove_prefix(more ? comma + 1 : hosts.size());
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
    if (!isHost(host) || places.size() == kMostPlaces) refuse();
    places.push_back({std::move(host), *number});
  }
  return places;
}

}  // namespace

Place readPlace(std::string_view text) {
  const std::size_t colon = text.rfind(':');
  std::string_view host = text.substr(0, colon);
  const auto port = colon == std::string_view::npos ? std::nullopt : readPort(text.substr(colon + 1));
  const bool inBrackets = host.size() > 2 && host.front() == '[' && host.back() == ']';
  if (inBrackets) host = host.substr(1, host.size() - 2);
  if (!port || !isHost(host) || (!inBrackets && host.find(':') != std::string_view::npos)) {
    throw PlaceError("An address is a host and a port, such as 192.0.2.7:41873 or [2001:db8::7]:41873.");
  }
  return {std::string(host), *port};
}

std::string textOf(const Place& place) {
  const bool hasColon = place.host.find(':') != std::string::npos;
  return (hasColon ? "[" + place.host + "]" : place.host) + ":" + std::to_string(place.port);
}

PairLink readPairLink(std::string_view text) {
  text = base::trimmed(text);
  if (text.size() > kMostLinkBytes || !text.starts_with(kStart)) refuse();
  const Parameters parameters = readParameters(text.substr(kStart.size()));
  if (valueOf(parameters, "v") != kVersion) refuse();
  return {readKey(valueOf(parameters, "key")), readPlaces(valueOf(parameters, "host"), valueOf(parameters, "port")),
          readCode(valueOf(parameters, "code"))};
}

}  // namespace sorvane::approver
