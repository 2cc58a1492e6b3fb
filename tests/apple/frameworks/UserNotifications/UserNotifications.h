#pragma once

// Declarations of UserNotifications, written for this project from its documentation: the names that src/platform/macos
// uses and no others.

#include <Foundation/Foundation.h>

#ifdef __OBJC__

typedef NSUInteger UNAuthorizationOptions;
enum : NSUInteger { UNAuthorizationOptionAlert = 1 << 2 };

@interface UNNotificationContent : NSObject
@end
@interface UNMutableNotificationContent : UNNotificationContent
@property(copy) NSString* title;
@property(copy) NSString* body;
@end

@class UNNotificationTrigger;
@interface UNNotificationRequest : NSObject
+ (instancetype)requestWithIdentifier:(NSString*)identifier
                              content:(UNNotificationContent*)content
                              trigger:(UNNotificationTrigger*)trigger;
@end

@interface UNUserNotificationCenter : NSObject
+ (UNUserNotificationCenter*)currentNotificationCenter;
- (void)requestAuthorizationWithOptions:(UNAuthorizationOptions)options
                      completionHandler:(void (^)(BOOL granted, NSError* error))completionHandler;
- (void)addNotificationRequest:(UNNotificationRequest*)request
         withCompletionHandler:(void (^)(NSError* error))completionHandler;
@end

#endif
