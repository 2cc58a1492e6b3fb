#pragma once

#include <cstdint>
#include <string_view>

#include "base/secret_text.h"
#include "crypto/passphrase_key.h"

namespace sorvane::unlock {

/// PassphraseVerifier tells whether a passphrase is the right one without keeping it: the Argon2id output for a salt of
/// its own. Immutable.
struct PassphraseVerifier {
  static constexpr std::size_t kHashBytes = crypto::SymmetricKey::kBytes;

  base::Bytes salt;
  base::Bytes hash;
  std::uint32_t memoryKiB = 0;
  std::uint32_t iterations = 0;
  bool operator==(const PassphraseVerifier&) const = default;

  /// A verifier with a fresh salt. What new ones cost is the default of PassphraseCost; a test may ask for less. Takes
  /// a moment and throws as crypto::passphraseKey does.
  static PassphraseVerifier make(std::string_view passphrase, const crypto::PassphraseCost& cost = {});
  /// Whether the passphrase is the one; compared in constant time. Takes a moment and throws as crypto::passphraseKey
  /// does, at once for a cost out of bounds.
  bool check(std::string_view passphrase) const;
  /// Whether salt, hash and cost are such that `check` would compute.
  bool isComputable() const;
};

}  // namespace sorvane::unlock
