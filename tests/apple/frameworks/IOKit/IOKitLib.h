#pragma once

// Declarations of IOKit, written for this project from its documentation: the names that src/platform/macos uses and no
// others.

#include <CoreFoundation/CoreFoundation.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef unsigned int mach_port_t;
typedef int kern_return_t;
typedef kern_return_t IOReturn;
typedef mach_port_t io_object_t;
typedef io_object_t io_connect_t;
typedef io_object_t io_service_t;
typedef struct IONotificationPort* IONotificationPortRef;
typedef void (*IOServiceInterestCallback)(void* refcon, io_service_t service, uint32_t messageType,
                                          void* messageArgument);

CFRunLoopSourceRef IONotificationPortGetRunLoopSource(IONotificationPortRef notify);
void IONotificationPortDestroy(IONotificationPortRef notify);
kern_return_t IOServiceClose(io_connect_t connect);

#ifdef __cplusplus
}
#endif
