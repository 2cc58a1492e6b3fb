#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>

#include "crypto/key.h"

namespace sorvane::crypto {

/// A Curve25519 public key as RFC 7748 writes it. Any 32 bytes are one.
using AgreementPublicKey = std::array<std::uint8_t, 32>;

/// AgreementKey is a private key of X25519 (RFC 7748) in guarded memory. Move-only. Any thread.
class AgreementKey {
 public:
  static constexpr std::size_t kBytes = SymmetricKey::kBytes;

  static AgreementKey random();
  /// nullopt unless there are exactly 32 bytes; any 32 are a key. The caller wipes its own copy.
  static std::optional<AgreementKey> fromBytes(std::span<const std::uint8_t> bytes);

  const AgreementPublicKey& publicKey() const { return publicKey_; }
  std::span<const std::uint8_t, kBytes> bytes() const { return secret_.bytes(); }
  AgreementKey clone() const;

  /// The shared secret with another's public key, raw: a key is derived from it before anything is sealed. nullopt when
  /// it is all zero (RFC 7748 section 6.1), which only a public key of low order gives.
  std::optional<SymmetricKey> agree(const AgreementPublicKey& peer) const;

 private:
  explicit AgreementKey(SymmetricKey secret);
  SymmetricKey secret_;
  AgreementPublicKey publicKey_{};
};

}  // namespace sorvane::crypto
