#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "crypto/digest.h"
#include "crypto/key.h"

namespace sorvane::crypto {

/// HMAC-SHA256 (RFC 2104) under a key of any length. The key of a person's secret is a SymmetricKey's bytes.
Sha256Digest hmacSha256(std::span<const std::uint8_t> key, std::span<const std::uint8_t> bytes);
/// The same as 64 lower-case hexadecimal digits.
std::string hmacSha256Hex(const SymmetricKey& key, std::span<const std::uint8_t> bytes);

}  // namespace sorvane::crypto
