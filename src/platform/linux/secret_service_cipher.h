#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "base/secret_text.h"
#include "crypto/key.h"

namespace sorvane::platform {

/// SecretServiceCipher is the client's side of the session algorithm "dh-ietf1024-sha256-aes128-cbc-pkcs7" of the
/// freedesktop Secret Service API (section "Transfer of Secrets"). It is chosen over "plain" because the bus daemon and
/// the D-Bus library keep messages in memory that nobody wipes, and because a recorded bus trace would show the values.
/// It keeps out whoever only listens; a program that stands between the two is not kept out. Failures of the library
/// are crypto::CryptoFailure.
class SecretServiceCipher {
 public:
  static constexpr char kAlgorithm[] = "dh-ietf1024-sha256-aes128-cbc-pkcs7";
  static constexpr std::size_t kGroupBytes = 128;
  static constexpr std::size_t kKeyBytes = 16;

  /// A fresh key pair in the second Oakley group (RFC 2409 section 6.2).
  SecretServiceCipher();
  SecretServiceCipher(const SecretServiceCipher&) = delete;
  SecretServiceCipher& operator=(const SecretServiceCipher&) = delete;

  /// The public number, big-endian, kGroupBytes long.
  const base::Bytes& publicKey() const { return publicKey_; }

  enum class Agreement { agreed, repeat, refused };
  /// Derives the key from the service's public number. `repeat` asks for a fresh pair: the shared number begins with a
  /// zero byte, which services write in two ways. `refused` is a number outside the group.
  Agreement agree(std::span<const std::uint8_t> servicePublicKey);

  struct Sealed {
    base::Bytes parameters;  ///< the initialisation vector
    base::Bytes value;
  };
  /// Only after `agreed`.
  Sealed encrypt(const base::SecretText& value) const;
  /// nullopt when what came is no message under this key, as far as the padding tells.
  std::optional<base::SecretText> decrypt(std::span<const std::uint8_t> parameters,
                                          std::span<const std::uint8_t> value) const;

 private:
  base::SecretText privateKey_;
  base::Bytes publicKey_;
  base::SecretText key_;
};

}  // namespace sorvane::platform
