#pragma once

// Declarations of IOKit, written for this project from its documentation: the names that src/platform/macos uses and no
// others.

#define kIOMessageCanSystemSleep 0xE0000270u
#define kIOMessageSystemWillSleep 0xE0000280u
#define kIOMessageSystemHasPoweredOn 0xE0000300u
