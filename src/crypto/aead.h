#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "base/secret_text.h"
#include "crypto/key.h"

namespace sorvane::crypto {

// Both ciphers write the combined form: 12-byte random nonce, ciphertext, 16-byte tag.
inline constexpr std::size_t kNonceBytes = 12;
inline constexpr std::size_t kTagBytes = 16;

/// AES-256-GCM (NIST SP 800-38D). Seals `plain` under a fresh random nonce; `associated` is authenticated and not
/// stored.
base::Bytes seal(const SymmetricKey& key, std::span<const std::uint8_t> plain, std::string_view associated);

/// The plain bytes as wiped text, or nullopt when the box was altered, cut, or made under another key or other
/// associated data.
std::optional<base::SecretText> open(const SymmetricKey& key, std::span<const std::uint8_t> box,
                                     std::string_view associated);

/// The same under ChaCha20-Poly1305 (RFC 8439).
base::Bytes sealChaCha(const SymmetricKey& key, std::span<const std::uint8_t> plain, std::string_view associated);
std::optional<base::SecretText> openChaCha(const SymmetricKey& key, std::span<const std::uint8_t> box,
                                           std::string_view associated);

}  // namespace sorvane::crypto
