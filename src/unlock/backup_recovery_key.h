#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "base/secret_text.h"
#include "crypto/key.h"

namespace sorvane::unlock {

// A recovery key is 20 random bytes that a person writes down: base32 (RFC 4648, section 6, no padding) in groups of
// five characters joined by "-", the last of two.
inline constexpr std::size_t kRecoveryKeyBytes = 20;
inline constexpr std::size_t kMinRecoveryKeyBytes = 16;
inline constexpr std::size_t kRecoveryGroupCharacters = 5;

base::SecretText newRecoveryKey();
/// The text form of a key's bytes.
base::SecretText recoveryKeyText(std::span<const std::uint8_t> bytes);

/// The bytes of a typed key: letters of either case, and characters that are neither letters nor numbers do not count.
/// nullopt when the rest is not the canonical base32 of at least kMinRecoveryKeyBytes.
std::optional<base::SecretText> recoveryKeyBytes(std::string_view typed);

/// The number, from 1, of the one group that has a wrong length, when the typed key is divided into as many groups as a
/// key has; nullopt when the lengths do not tell.
std::optional<int> suspectRecoveryGroup(std::string_view typed);

/// The key that wraps a backup's data key. Throws CryptoError badRecoveryKey.
crypto::SymmetricKey recoveryWrappingKey(std::string_view typed);

}  // namespace sorvane::unlock
