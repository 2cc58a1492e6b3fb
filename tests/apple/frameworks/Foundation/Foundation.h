#pragma once

// Declarations of Foundation, written for this project from its documentation: the names that src/platform/macos uses
// and no others. Only the compiler reads them; nothing behind them runs where there is no macOS.

#include <CoreFoundation/CoreFoundation.h>

#ifdef __OBJC__

typedef bool BOOL;
typedef long NSInteger;
typedef unsigned long NSUInteger;
#define YES __objc_yes
#define NO __objc_no
#define nil __null

@class NSString;

@protocol NSObject
- (BOOL)isKindOfClass:(Class)aClass;
@end

__attribute__((objc_root_class))
@interface NSObject<NSObject>
+ (instancetype)alloc;
+ (Class)class;
- (instancetype)init;
@end

@interface NSString : NSObject
+ (instancetype)stringWithUTF8String:(const char*)text;
@property(readonly) const char* UTF8String;
- (BOOL)isEqualToString:(NSString*)text;
@end

@interface NSException : NSObject
@end

@interface NSData : NSObject
+ (instancetype)data;
- (instancetype)initWithBytesNoCopy:(void*)bytes
                             length:(NSUInteger)length
                        deallocator:(void (^)(void* bytes, NSUInteger length))deallocator;
@property(readonly) NSUInteger length;
@property(readonly) const void* bytes;
@end

@interface NSUUID : NSObject
+ (instancetype)UUID;
@property(readonly) NSString* UUIDString;
@end

@interface NSBundle : NSObject
@property(class, readonly) NSBundle* mainBundle;
@property(readonly) NSString* bundleIdentifier;
@end

typedef double NSTimeInterval;
@interface NSTimer : NSObject
+ (NSTimer*)scheduledTimerWithTimeInterval:(NSTimeInterval)seconds
                                   repeats:(BOOL)repeats
                                     block:(void (^)(NSTimer*))block;
@end

typedef struct {
  unsigned long state;
  id __unsafe_unretained* itemsPtr;
  unsigned long* mutationsPtr;
  unsigned long extra[5];
} NSFastEnumerationState;
@protocol NSFastEnumeration
- (NSUInteger)countByEnumeratingWithState:(NSFastEnumerationState*)state
                                  objects:(id __unsafe_unretained[])buffer
                                    count:(NSUInteger)count;
@end

@interface NSArray : NSObject <NSFastEnumeration>
+ (instancetype)arrayWithObject:(id)object;
@end
@interface NSMutableArray : NSArray
+ (instancetype)array;
- (void)addObject:(id)object;
@end

typedef NSString* NSNotificationName;
@class NSOperationQueue;
@interface NSNotification : NSObject
@property(readonly) NSNotificationName name;
@end
@interface NSNotificationCenter : NSObject
- (id<NSObject>)addObserverForName:(NSNotificationName)name
                            object:(id)object
                             queue:(NSOperationQueue*)queue
                        usingBlock:(void (^)(NSNotification*))block;
- (void)removeObserver:(id)observer;
@end

typedef NSString* NSErrorDomain;
@interface NSError : NSObject
@property(readonly) NSInteger code;
@property(readonly) NSErrorDomain domain;
@property(readonly) NSString* localizedDescription;
@end

#endif
