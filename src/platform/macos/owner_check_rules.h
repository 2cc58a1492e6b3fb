#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "unlock/owner_presence.h"

namespace sorvane::platform {

/// What the answers are used for.
enum class OwnerCheckPurpose {
  lock,       ///< the lock of the vault and its settings
  approvals,  ///< requests of agents: whatever the system takes for its owner, the password too
};

/// How a question is put to the system.
struct OwnerCheckPlan {
  enum class By {
    biometryOrWatch,      ///< the policy of that name
    ownerAuthentication,  ///< the policy that takes the login password as well
    accessControl,        ///< the use of an item that the login password guards
  };
  By by = By::ownerAuthentication;
  /// On the button beside the quick way: empty means no button, nullopt the system's own title.
  std::optional<std::string_view> fallbackTitle{};
  /// Whether it is found out first that the check can be made; where not, nothing is shown.
  bool looksFirst = false;
  bool operator==(const OwnerCheckPlan&) const = default;
};

OwnerCheckPlan planOf(unlock::OwnerPresence::Check check, OwnerCheckPurpose purpose);

/// What the system told about a check, with the code of its error; 0: no error of this kind was given with it.
struct OwnerCheckReport {
  bool isGranted = false;
  long code = 0;
};

/// The person's cancel, and our own, are Cancelled; every other code is Failed with what can be done about it.
unlock::OwnerPresence::Answer answerOf(const OwnerCheckReport& report);

/// Why nobody can be asked on this machine, from the code that the system gave when it was asked whether it could check
/// its owner; nullopt for 0 and for whatever may pass.
std::optional<std::string> obstacleOf(long code);

/// The reason as the system's prompt shows it: its lines with control characters escaped; nullopt where there would be
/// nothing to read. The prompt ends the sentence itself.
std::optional<std::string> promptText(std::string_view reason);

/// The kinds of biometry by the system's number.
unlock::Biometry biometryOf(long type);

}  // namespace sorvane::platform
