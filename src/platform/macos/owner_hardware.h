#pragma once

#include "unlock/owner_presence.h"

namespace sorvane::platform {

/// What the owner may be recognised by on this Mac, as far as it is set up and within reach now.
unlock::UnlockHardware ownerHardware();

}  // namespace sorvane::platform
