#pragma once

#include <string>

#include "base/secret_text.h"
#include "cli/session.h"

namespace sorvane::cli {

/// The variable that names the program which asks for a passphrase where there is no terminal: an absolute path, or a
/// name that is looked up in PATH. It gets the prompt as its argument; the first line that it prints is the passphrase,
/// and any exit code but 0 means that none was given.
inline constexpr char kAskpassVariable[] = "SORVANE_ASKPASS";

/// The most bytes of a passphrase, as on the terminal of sorvaned: one that is longer is refused, never cut.
inline constexpr std::size_t kMostPassphraseBytes = 1024;

/// Whether a person types here, so that a wrong passphrase may be asked for again.
bool isTypedHere(const Options& options);

/// A passphrase, typed on the terminal without echo, or from the program in SORVANE_ASKPASS where there is no terminal
/// or --no-input was given. Never from an argument, standard input or the environment. Throws Failure when none came.
base::SecretText readPassphrase(const Options& options, const std::string& what);

/// A new one, asked for twice; whether the two agree and are long enough is the application's to say.
struct NewPassphrase {
  base::SecretText text, confirmation;
};
NewPassphrase readNewPassphrase(const Options& options);

}  // namespace sorvane::cli
