#pragma once

// Declarations of AppKit, written for this project from its documentation: the names that src/platform/macos uses and
// no others.

#include <Foundation/Foundation.h>

#ifdef __OBJC__

extern NSNotificationName const NSWorkspaceWillSleepNotification;
extern NSNotificationName const NSWorkspaceDidWakeNotification;
extern NSNotificationName const NSWorkspaceSessionDidResignActiveNotification;
extern NSNotificationName const NSWorkspaceSessionDidBecomeActiveNotification;
extern NSNotificationName const NSWorkspaceWillPowerOffNotification;

@interface NSWorkspace : NSObject
@property(class, readonly) NSWorkspace* sharedWorkspace;
@property(readonly) NSNotificationCenter* notificationCenter;
@end

typedef NSString* NSPasteboardType;
extern NSPasteboardType const NSPasteboardTypeString;
typedef NSUInteger NSPasteboardContentsOptions;
enum : NSUInteger { NSPasteboardContentsCurrentHostOnly = 1 << 0 };

@interface NSPasteboardItem : NSObject
- (BOOL)setData:(NSData*)data forType:(NSPasteboardType)type;
@end

@interface NSPasteboard : NSObject
@property(class, readonly) NSPasteboard* generalPasteboard;
@property(readonly) NSInteger changeCount;
- (NSInteger)clearContents;
- (NSInteger)prepareForNewContentsWithOptions:(NSPasteboardContentsOptions)options;
- (BOOL)writeObjects:(NSArray*)objects;
- (NSData*)dataForType:(NSPasteboardType)type;
@end

#endif
