#pragma once

// Declarations of IOKit, written for this project from its documentation: the names that src/platform/macos uses and no
// others.

#include <IOKit/IOKitLib.h>

#ifdef __cplusplus
extern "C" {
#endif

io_connect_t IORegisterForSystemPower(void* refcon, IONotificationPortRef* thePortRef,
                                      IOServiceInterestCallback callback, io_object_t* notifier);
IOReturn IODeregisterForSystemPower(io_object_t* notifier);
IOReturn IOAllowPowerChange(io_connect_t kernelPort, intptr_t notificationID);

#ifdef __cplusplus
}
#endif
