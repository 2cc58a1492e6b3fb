#include "platform/macos/owner_hardware.h"

#import <LocalAuthentication/LocalAuthentication.h>

#include "platform/macos/owner_check_rules.h"

namespace sorvane::platform {

unlock::UnlockHardware ownerHardware() {
  @autoreleasepool {
    LAContext* const context = [[LAContext alloc] init];
    // The kind is known after the context was asked whether there is any.
    const bool hasBiometry = [context canEvaluatePolicy:LAPolicyDeviceOwnerAuthenticationWithBiometrics error:nil];
    return {.biometry = hasBiometry ? biometryOf(context.biometryType) : unlock::Biometry::none,
            .watch = [context canEvaluatePolicy:LAPolicyDeviceOwnerAuthenticationWithWatch error:nil] == YES};
  }
}

}  // namespace sorvane::platform
