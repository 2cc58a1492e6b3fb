#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "crypto/key.h"

namespace sorvane::crypto {

// Key bytes from other secrets. Each writes as many bytes as `out` has room for; the caller wipes them.

/// HKDF with SHA-256 (RFC 5869), extract and expand. Throws CryptoFailure for more than 255 * 32 bytes.
void hkdfSha256(std::span<const std::uint8_t> inputKey, std::span<const std::uint8_t> salt,
                std::span<const std::uint8_t> info, std::span<std::uint8_t> out);

/// PBKDF2 with HMAC-SHA256 (RFC 8018). Throws CryptoFailure for fewer than 1 or more than 10,000,000 rounds.
inline constexpr std::int64_t kMaxPbkdf2Rounds = 10'000'000;
void pbkdf2Sha256(std::span<const std::uint8_t> password, std::span<const std::uint8_t> salt, std::int64_t rounds,
                  std::span<std::uint8_t> out);

}  // namespace sorvane::crypto
