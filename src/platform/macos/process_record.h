#pragma once

#include <sys/types.h>

#include <optional>

#include "base/system.h"

namespace sorvane::platform {

/// What the kernel's table has of a process, whoever's it is: on the way from a shell to its terminal stands root's
/// login, of which the calls for the user's own processes tell nothing. The name is cut after 16 characters for
/// another user's process and after 32 for one of this user. nullopt for a process that is gone.
std::optional<base::ProcessInfo> processRecord(pid_t pid);

}  // namespace sorvane::platform
