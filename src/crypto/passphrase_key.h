#pragma once

#include <cstdint>
#include <span>

#include "base/error.h"
#include "base/secret_text.h"
#include "crypto/key.h"

namespace sorvane::crypto {

/// What deriving a key of a passphrase costs. Stored beside the salt, so it may come from a damaged or hostile file:
/// it is held against the bounds below before anything is computed.
struct PassphraseCost {
  std::uint32_t memoryKiB = 65536;
  std::uint32_t iterations = 3;
  bool operator==(const PassphraseCost&) const = default;
};
inline constexpr std::uint32_t kMinPassphraseMemoryKiB = 8, kMaxPassphraseMemoryKiB = 1'048'576;
inline constexpr std::uint32_t kMinPassphraseIterations = 1, kMaxPassphraseIterations = 10;
/// The salt length of libsodium's Argon2 (crypto_pwhash_SALTBYTES).
inline constexpr std::size_t kPassphraseSaltBytes = 16;

/// Whether the cost lies within the bounds.
constexpr bool isWithinBounds(const PassphraseCost& cost) {
  return cost.memoryKiB >= kMinPassphraseMemoryKiB && cost.memoryKiB <= kMaxPassphraseMemoryKiB &&
         cost.iterations >= kMinPassphraseIterations && cost.iterations <= kMaxPassphraseIterations;
}

/// PassphraseKeyError tells why no key was derived.
class PassphraseKeyError : public base::Error {
 public:
  enum class Case {
    invalidLength,    ///< the cost is out of bounds
    invalidPassword,  ///< empty, or no UTF-8
    invalidSalt,      ///< not kPassphraseSaltBytes long
    primitiveFailed,  ///< mostly: not enough memory
  };
  explicit PassphraseKeyError(Case kind);
  Case kind() const { return kind_; }

 private:
  Case kind_;
};

/// Derives the key of a passphrase: Argon2id 1.3 (RFC 9106), one lane, 32 bytes, of the UTF-8 bytes of the passphrase
/// in Unicode form NFC. Takes the time and memory that the cost says. Safe from any thread. Throws PassphraseKeyError.
SymmetricKey passphraseKey(std::string_view passphrase, std::span<const std::uint8_t> salt, const PassphraseCost& cost);

/// The same of bytes as they are.
SymmetricKey passphraseKeyOfBytes(std::span<const std::uint8_t> password, std::span<const std::uint8_t> salt,
                                  const PassphraseCost& cost);

}  // namespace sorvane::crypto
