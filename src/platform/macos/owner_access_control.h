#pragma once

#include <Security/Security.h>

#include "platform/macos/core_foundation.h"

namespace sorvane::platform {

/// What an item is guarded by that only the login password opens, on this computer alone; empty when the system does
/// not make one.
Owned<SecAccessControlRef> ownerAccessControl();

}  // namespace sorvane::platform
