#pragma once

#include <functional>
#include <optional>
#include <string>

#include "base/secret_text.h"

namespace sorvane::platform {

// The little of the system's authentication modules (PAM) that the owner check needs. The library is loaded when it is
// first asked for, so that sorvane also runs where it is not installed.

/// Whether the library is there.
bool isPamThere();

/// What the modules show and ask. Called on the thread of `authenticate`.
struct PamConversation {
  /// The answer to a prompt; nullopt: the person gave up, and so does the check.
  std::function<std::optional<base::SecretText>(const std::string& prompt, bool echo)> ask;
  std::function<void(const std::string& text)> show;
};

enum class PamResult {
  granted,      ///< after a question that was answered
  unasked,      ///< nobody was asked: the account has no password, or a module let it pass
  notAccepted,  ///< a wrong password, or an account that may not be used
  failed,       ///< the modules could not work
};

/// Checks that the person is `user`, with the modules of `service`, whose file must exist: without one the modules of
/// "other" would decide. Blocks as long as the person does.
PamResult pamAuthenticate(const std::string& service, const std::string& user, const PamConversation& conversation);

}  // namespace sorvane::platform
