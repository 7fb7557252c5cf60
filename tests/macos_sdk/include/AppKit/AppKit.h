// AppKit, as far as the macOS adapter uses it: the workspace, running applications and JPEG
// encoding through a bitmap image representation.
#pragma once

#include <CoreGraphics/CoreGraphics.h>
#include <Foundation/Foundation.h>
#include <sys/types.h>

#ifdef __OBJC__

#pragma clang assume_nonnull begin

@interface NSRunningApplication : NSObject
+ (nullable instancetype)runningApplicationWithProcessIdentifier:(pid_t)pid;
@property(readonly) pid_t processIdentifier;
@property(nullable, readonly, copy) NSString* localizedName;
@end

@interface NSWorkspaceOpenConfiguration : NSObject <NSCopying>
+ (instancetype)configuration;
@end

@interface NSWorkspace : NSObject
@property(class, readonly, strong) NSWorkspace* sharedWorkspace;
@property(nullable, readonly, strong) NSRunningApplication* frontmostApplication;
- (void)openApplicationAtURL:(NSURL*)applicationURL
               configuration:(NSWorkspaceOpenConfiguration*)configuration
           completionHandler:(void (^_Nullable)(NSRunningApplication* _Nullable app,
                                                NSError* _Nullable error))completionHandler;
@end

typedef enum NSBitmapImageFileType : NSUInteger {
  NSBitmapImageFileTypeTIFF = 0,
  NSBitmapImageFileTypeBMP = 1,
  NSBitmapImageFileTypeGIF = 2,
  NSBitmapImageFileTypeJPEG = 3,
  NSBitmapImageFileTypePNG = 4,
  NSBitmapImageFileTypeJPEG2000 = 5,
} NSBitmapImageFileType;

typedef NSString* NSBitmapImageRepPropertyKey;
extern NSBitmapImageRepPropertyKey const NSImageCompressionFactor;

@interface NSImageRep : NSObject <NSCopying>
@end

@interface NSBitmapImageRep : NSImageRep
- (instancetype)initWithCGImage:(CGImageRef)cgImage;
- (nullable NSData*)representationUsingType:(NSBitmapImageFileType)storageType
                                 properties:(NSDictionary<NSBitmapImageRepPropertyKey, id>*)
                                                properties;
@end

#pragma clang assume_nonnull end

#endif  // __OBJC__
