#pragma once

// Declarations of the Security framework, written for this project from its documentation: the names that
// src/platform/macos uses and no others.

#include <CoreFoundation/CoreFoundation.h>

#ifdef __cplusplus
extern "C" {
#endif

// SecBase.h
enum {
  errSecSuccess = 0,
  errSecParam = -50,
  errSecUserCanceled = -128,
  errSecNotAvailable = -25291,
  errSecAuthFailed = -25293,
  errSecNoAccessForItem = -25243,
  errSecDuplicateItem = -25299,
  errSecItemNotFound = -25300,
  errSecInteractionNotAllowed = -25308,
  errSecInteractionRequired = -25315,
  errSecInDarkWake = -25320,
  errSecMissingEntitlement = -34018,
};
CFStringRef SecCopyErrorMessageString(OSStatus status, void* reserved);

// SecItem.h
extern const CFStringRef kSecClass;
extern const CFStringRef kSecClassGenericPassword;
extern const CFStringRef kSecAttrService;
extern const CFStringRef kSecAttrAccount;
extern const CFStringRef kSecAttrAccessGroup;
extern const CFStringRef kSecAttrAccessible;
extern const CFStringRef kSecAttrAccessibleWhenUnlockedThisDeviceOnly;
extern const CFStringRef kSecMatchLimit;
extern const CFStringRef kSecMatchLimitOne;
extern const CFStringRef kSecMatchLimitAll;
extern const CFStringRef kSecReturnAttributes;
extern const CFStringRef kSecReturnData;
extern const CFStringRef kSecUseDataProtectionKeychain;
extern const CFStringRef kSecValueData;
OSStatus SecItemAdd(CFDictionaryRef attributes, CFTypeRef* result);
OSStatus SecItemCopyMatching(CFDictionaryRef query, CFTypeRef* result);
OSStatus SecItemUpdate(CFDictionaryRef query, CFDictionaryRef attributesToUpdate);
OSStatus SecItemDelete(CFDictionaryRef query);

// SecAccessControl.h
typedef struct __SecAccessControl* SecAccessControlRef;
typedef CFOptionFlags SecAccessControlCreateFlags;
enum { kSecAccessControlDevicePasscode = 1u << 4 };
SecAccessControlRef SecAccessControlCreateWithFlags(CFAllocatorRef allocator, CFTypeRef protection,
                                                    SecAccessControlCreateFlags flags, CFErrorRef* error);

// SecTask.h
typedef struct __SecTask* SecTaskRef;
SecTaskRef SecTaskCreateFromSelf(CFAllocatorRef allocator);
CFTypeRef SecTaskCopyValueForEntitlement(SecTaskRef task, CFStringRef entitlement, CFErrorRef* error);

#ifdef __cplusplus
}
#endif
