// ScreenCaptureKit, as far as the macOS adapter uses it: shareable content, a content filter of
// one display, a stream configuration and the one-shot screenshot manager (macOS 14.0).
#pragma once

#include <CoreGraphics/CoreGraphics.h>
#include <Foundation/Foundation.h>

#ifdef __OBJC__

#pragma clang assume_nonnull begin

@interface SCDisplay : NSObject
@property(readonly) CGDirectDisplayID displayID;
@property(readonly) NSInteger width;   // points
@property(readonly) NSInteger height;  // points
@property(readonly) CGRect frame;
@end

@interface SCWindow : NSObject
@end

@interface SCShareableContent : NSObject
+ (void)getShareableContentWithCompletionHandler:
    (void (^)(SCShareableContent* _Nullable shareableContent, NSError* _Nullable error))
        completionHandler;
@property(readonly) NSArray<SCDisplay*>* displays;
@property(readonly) NSArray<SCWindow*>* windows;
@end

@interface SCContentFilter : NSObject
- (instancetype)initWithDisplay:(SCDisplay*)display excludingWindows:(NSArray<SCWindow*>*)excluded;
@property(readonly) CGRect contentRect;     // points, macOS 14.0
@property(readonly) float pointPixelScale;  // macOS 14.0
@end

@interface SCStreamConfiguration : NSObject
@property size_t width;   // pixels
@property size_t height;  // pixels
@property BOOL showsCursor;
@property CGRect sourceRect;  // points, relative to the display
@end

@interface SCScreenshotManager : NSObject
+ (void)captureImageWithFilter:(SCContentFilter*)contentFilter
                 configuration:(SCStreamConfiguration*)config
             completionHandler:(void (^_Nullable)(CGImageRef _Nullable sampleBuffer,
                                                  NSError* _Nullable error))completionHandler;
@end

#pragma clang assume_nonnull end

#endif  // __OBJC__
