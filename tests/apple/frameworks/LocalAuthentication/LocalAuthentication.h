#pragma once

// Declarations of LocalAuthentication, written for this project from its documentation: the names that
// src/platform/macos uses and no others.

#include <Foundation/Foundation.h>
#include <Security/Security.h>

#ifdef __OBJC__

// LAPublicDefines.h
typedef NSInteger LAPolicy;
enum {
  LAPolicyDeviceOwnerAuthenticationWithBiometrics = 1,
  LAPolicyDeviceOwnerAuthentication = 2,
  LAPolicyDeviceOwnerAuthenticationWithWatch = 3,
  LAPolicyDeviceOwnerAuthenticationWithBiometricsOrWatch = 4,
};
typedef NSInteger LABiometryType;
typedef NSInteger LAAccessControlOperation;
enum { LAAccessControlOperationUseItem = 1 };

// LAError.h
extern NSErrorDomain const LAErrorDomain;

@interface LAContext : NSObject
@property(copy) NSString* localizedFallbackTitle;
@property(readonly) LABiometryType biometryType;
- (BOOL)canEvaluatePolicy:(LAPolicy)policy error:(NSError* __autoreleasing*)error;
- (void)evaluatePolicy:(LAPolicy)policy
       localizedReason:(NSString*)localizedReason
                 reply:(void (^)(BOOL success, NSError* error))reply;
- (void)evaluateAccessControl:(SecAccessControlRef)accessControl
                    operation:(LAAccessControlOperation)operation
              localizedReason:(NSString*)localizedReason
                        reply:(void (^)(BOOL success, NSError* error))reply;
- (void)invalidate;
@end

#endif
