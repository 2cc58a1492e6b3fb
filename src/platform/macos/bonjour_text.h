#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sorvane::platform {

/// The text records of a service, "key=value" each, as one resource record (RFC 6763, section 6). What follows the
/// first
/// "=" is the value; a record without one is a key alone. nullopt when one of them has no key, a key with characters
/// other than printable ASCII, or more than 255 bytes.
std::optional<std::vector<std::uint8_t>> bonjourText(const std::vector<std::string>& records);

/// Whether such a resource record, of any origin, gives the key this value.
bool bonjourTextHas(std::string_view text, const std::string& key, std::string_view value);

/// A service's name as it can be announced: well-formed UTF-8 of at most 63 bytes (RFC 6763, section 4.1.1).
std::string bonjourName(std::string_view name);

}  // namespace sorvane::platform
