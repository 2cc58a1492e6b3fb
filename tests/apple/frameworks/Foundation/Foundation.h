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
@end

@interface NSError : NSObject
@property(readonly) NSInteger code;
@property(readonly) NSString* domain;
@property(readonly) NSString* localizedDescription;
@end

#endif
