#pragma once

#include "unlock/owner_presence.h"

namespace sorvane::platform {

/// What the owner may be recognised by: a fingerprint where the system's fingerprint service (fprintd) has one of this
/// user's. There is no watch on Linux. Asks the system bus and waits for a moment at most.
unlock::UnlockHardware ownerHardware();

}  // namespace sorvane::platform
