#pragma once

// Declarations of Core Graphics, written for this project from its documentation: the names that src/platform/macos
// uses and no others.

#include <CoreFoundation/CoreFoundation.h>

#ifdef __cplusplus
extern "C" {
#endif

// CGSession.h
CFDictionaryRef CGSessionCopyCurrentDictionary(void);

#ifdef __cplusplus
}
#endif
