// Foundation, as far as the macOS adapter's Objective-C++ uses it. NSObject is declared as a
// root class of its own: there is no Foundation runtime to link against, only declarations to
// check calls against.
#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <CoreGraphics/CoreGraphics.h>
#include <dispatch/dispatch.h>
#include <stdint.h>

#ifdef __OBJC__

// arm64: BOOL is the C++ bool.
typedef bool BOOL;
typedef long NSInteger;
typedef unsigned long NSUInteger;
typedef double NSTimeInterval;

// The null object pointer (objc.h).
#ifndef nil
#ifdef __cplusplus
#define nil nullptr
#else
#define nil ((id)0)
#endif
#endif

#pragma clang assume_nonnull begin

@protocol NSObject
@end
@protocol NSCopying
@end

__attribute__((objc_root_class))
@interface NSObject <NSObject>
+ (instancetype)alloc;
+ (instancetype)new;
- (instancetype)init;
@end

typedef NSUInteger NSStringEncoding;
enum : NSStringEncoding { NSUTF8StringEncoding = 4 };

@interface NSString : NSObject <NSCopying>
- (nullable instancetype)initWithBytes:(const void*)bytes
                                length:(NSUInteger)len
                              encoding:(NSStringEncoding)encoding;
@property(nullable, readonly) const char* UTF8String;
@end

@interface NSNumber : NSObject <NSCopying>
+ (NSNumber*)numberWithDouble:(double)value;
+ (NSNumber*)numberWithFloat:(float)value;
@end

@interface NSData : NSObject <NSCopying>
@property(readonly) const void* bytes;
@property(readonly) NSUInteger length;
@end

@interface NSArray<__covariant ObjectType> : NSObject <NSCopying>
+ (instancetype)arrayWithObjects:(const ObjectType _Nonnull[_Nonnull])objects
                           count:(NSUInteger)cnt;
@property(readonly) NSUInteger count;
- (ObjectType)objectAtIndexedSubscript:(NSUInteger)idx;
@end

@interface NSDictionary<__covariant KeyType, __covariant ObjectType> : NSObject <NSCopying>
+ (instancetype)dictionaryWithObjects:(const ObjectType _Nonnull[_Nonnull])objects
                              forKeys:(const KeyType<NSCopying> _Nonnull[_Nonnull])keys
                                count:(NSUInteger)cnt;
@end

@interface NSError : NSObject <NSCopying>
@property(readonly, copy) NSString* localizedDescription;
@end

@interface NSURL : NSObject <NSCopying>
+ (NSURL*)fileURLWithPath:(NSString*)path;
+ (NSURL*)fileURLWithPath:(NSString*)path isDirectory:(BOOL)isDir;
@end

@interface NSFileManager : NSObject
@property(class, readonly, strong) NSFileManager* defaultManager;
- (BOOL)fileExistsAtPath:(NSString*)path;
@end

@interface NSThread : NSObject
+ (void)detachNewThreadWithBlock:(void (^)(void))block;
@property(class, readonly) BOOL isMultiThreaded;
@end

#pragma clang assume_nonnull end

#endif  // __OBJC__
