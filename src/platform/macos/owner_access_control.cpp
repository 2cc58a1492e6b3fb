#include "platform/macos/owner_access_control.h"

namespace sorvane::platform {

Owned<SecAccessControlRef> ownerAccessControl() {
  return Owned<SecAccessControlRef>(SecAccessControlCreateWithFlags(
      kCFAllocatorDefault, kSecAttrAccessibleWhenUnlockedThisDeviceOnly, kSecAccessControlDevicePasscode, nullptr));
}

}  // namespace sorvane::platform
