#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "crypto/key.h"

namespace sorvane::crypto {

/// HMAC-SHA256 (RFC 2104) as 64 lower-case hexadecimal digits.
std::string hmacSha256Hex(const SymmetricKey& key, std::span<const std::uint8_t> bytes);

}  // namespace sorvane::crypto
