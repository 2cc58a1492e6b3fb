#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/date.h"
#include "base/secret_text.h"

namespace sorvane::phone {

/// Raw Curve25519 public key.
using PublicKey = std::array<std::uint8_t, 32>;
/// P-256 public key in X9.63 form, uncompressed.
using PresenceKey = std::array<std::uint8_t, 65>;

struct PairedPhone {
  PublicKey publicKey{};
  PresenceKey presenceKey{};
  bool hardwarePresenceKey = false;  ///< as the phone said; nobody checks it
  std::string deviceName;
  base::Date pairedAt;
};

/// Registry keeps one record of the link: who the computer is, where it listened, whom it knows. Its text holds a
/// private key. Failures are base::Error. Any thread.
class Registry {
 public:
  virtual ~Registry() = default;
  /// nullopt when none was saved.
  virtual std::optional<base::SecretText> load() = 0;
  virtual void save(const base::SecretText& record) = 0;
};

}  // namespace sorvane::phone
