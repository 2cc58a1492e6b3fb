#pragma once

#include <optional>
#include <string>

#include "approver/terminal.h"
#include "base/error.h"
#include "base/secret_text.h"

namespace sorvane::approver {

/// PassphraseError: none was given that can be taken. The sentence is shown as it stands.
class PassphraseError : public base::Error {
 public:
  using Error::Error;
};

/// A stolen key file can be tried at leisure, so it is longer than one that guards a running program.
inline constexpr std::size_t kFewestCharacters = 12;

/// Where a passphrase comes from: the terminal, or the first line of a file that is open already.
struct PassphraseSource {
  Terminal& terminal;
  std::optional<int> fd;
};

/// The passphrase of a key file that exists. Throws PassphraseError and Interrupted.
base::SecretText askPassphrase(const PassphraseSource& source);
/// A new one, typed twice on a terminal. Throws PassphraseError, and Interrupted.
base::SecretText askNewPassphrase(const PassphraseSource& source);

}  // namespace sorvane::approver
