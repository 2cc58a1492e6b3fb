#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

#include "base/clock.h"
#include "base/secret_text.h"
#include "unlock/passphrase_verifier.h"
#include "unlock/unlock_error.h"

namespace sorvane::unlock {

/// How the passphrase combines with the system check; stored as the name of the case, offered in this order.
enum class PassphraseRequirement {
  off,         ///< no passphrase
  withSystem,  ///< the passphrase and the system check
  only,        ///< the passphrase alone
};
inline constexpr std::array kPassphraseRequirements{PassphraseRequirement::off, PassphraseRequirement::withSystem,
                                                    PassphraseRequirement::only};
std::string_view word(PassphraseRequirement requirement);
std::optional<PassphraseRequirement> passphraseRequirementOf(std::string_view word);
/// The more it asks the higher.
int strictness(PassphraseRequirement requirement);

/// What opens the vault. A fresh one has no passphrase and follows the session.
struct UnlockConfiguration {
  std::optional<PassphraseVerifier> passphrase;
  PassphraseRequirement requirement = PassphraseRequirement::off;
  bool followsSession = true;
  std::int64_t failedAttempts = 0;        ///< wrong passphrases in a row
  std::optional<base::Date> lastFailure;  ///< of the last of them
  /// Why these were put in the place of others that could not be read; stays until a backup is restored, since nobody
  /// knows what else was changed.
  std::optional<UnlockError::Case> resetCause;
  bool operator==(const UnlockConfiguration&) const = default;
};

/// How a configuration that was just read stands to the one that an attempt went by. Whoever changes it writes what
/// asks more first, so that a change that was cut off never reads as one that somebody forged to ask less.
enum class Agreement { same, asksMore, damaged };
Agreement agreementOf(const UnlockConfiguration& stored, const UnlockConfiguration& inForce);

/// The configuration as compact JSON with the keys in the order of the fields; absent fields are left out.
base::SecretText encodeConfiguration(const UnlockConfiguration& configuration);

/// Reads what encodeConfiguration writes. nullopt for everything else: text that is no JSON, a field of another type, a
/// missing `requirement`, `followsSession` or `failedAttempts`, a verifier that could not be computed, a requirement
/// without the passphrase it needs. Unknown keys are passed over.
std::optional<UnlockConfiguration> decodeConfiguration(std::string_view text);

}  // namespace sorvane::unlock
