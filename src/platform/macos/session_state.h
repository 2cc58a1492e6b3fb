#pragma once

#include <optional>

#include "unlock/session_signals.h"

namespace sorvane::platform {

/// The session of this process as the window server has it now: whether its screen is locked, and whether it is the
/// one in front. nullopt for a process outside of any, as over ssh.
std::optional<unlock::SessionState> currentSession();

}  // namespace sorvane::platform
