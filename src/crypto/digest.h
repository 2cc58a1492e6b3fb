#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>

namespace sorvane::crypto {

using Sha256Digest = std::array<std::uint8_t, 32>;

/// SHA-256 (FIPS 180-4).
Sha256Digest sha256(std::span<const std::uint8_t> bytes);
/// The same as 64 lower-case hexadecimal digits.
std::string sha256Hex(std::span<const std::uint8_t> bytes);

}  // namespace sorvane::crypto
