#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>

#include "base/secret_text.h"
#include "crypto/key.h"

namespace sorvane::crypto {

/// A P-256 public key in X9.63 form: 04, then both coordinates.
using PresencePublicKey = std::array<std::uint8_t, 65>;

/// PresenceKey is a private key of ECDSA over P-256 with SHA-256 (FIPS 186-4), its scalar in guarded memory. Move-only.
/// Any thread.
class PresenceKey {
 public:
  static constexpr std::size_t kBytes = SymmetricKey::kBytes;

  static PresenceKey random();
  /// The scalar, 32 bytes, big-endian; nullopt unless it lies between 1 and the curve's order less one. The caller
  /// wipes its own copy.
  static std::optional<PresenceKey> fromBytes(std::span<const std::uint8_t> scalar);

  const PresencePublicKey& publicKey() const { return publicKey_; }
  std::span<const std::uint8_t, kBytes> bytes() const { return scalar_.bytes(); }
  PresenceKey clone() const;

  /// The signature of `message` in DER. Not the same from one call to the next.
  base::Bytes sign(std::span<const std::uint8_t> message) const;

 private:
  PresenceKey(SymmetricKey scalar, const PresencePublicKey& publicKey);
  SymmetricKey scalar_;
  PresencePublicKey publicKey_{};
};

/// Whether the bytes are a point of the curve in uncompressed form: a key that something can be verified under.
bool isPresenceKey(const PresencePublicKey& key) noexcept;
/// Whether `signature` is one of `message` under `key`, in strict DER with nothing behind it. Foreign bytes of any kind
/// are false, also a key that is no point of the curve; never throws.
bool verifyPresence(const PresencePublicKey& key, std::span<const std::uint8_t> message,
                    std::span<const std::uint8_t> signature) noexcept;

}  // namespace sorvane::crypto
