// Screen capture through ScreenCaptureKit and JPEG or PNG encoding through NSBitmapImageRep.
// Objective-C++ (ARC) because ScreenCaptureKit offers only classes and completion handlers.
//
// The seam's capture calls are blocking: each bridges one completion handler with a dispatch
// semaphore and waits without a limit of its own (the caller, on a worker thread, owns the
// deadline). What the handler hands over lives in a shared box the block co-owns, so a late
// answer never writes into a frame that has gone.
#import <AppKit/AppKit.h>
#import <Foundation/Foundation.h>
#import <ScreenCaptureKit/ScreenCaptureKit.h>
#include <CoreGraphics/CoreGraphics.h>
#include <dispatch/dispatch.h>

#include <memory>
#include <optional>
#include <string>

#include "platform/macos/cf_ref.h"
#include "platform/macos/macos_desktop.h"

namespace tervain::macos {
namespace {

class MacShareableDisplay final : public ShareableDisplay {
 public:
  explicit MacShareableDisplay(SCDisplay* display) : display(display) {}
  SCDisplay* get() const { return display; }

 private:
  SCDisplay* display;  // strong under ARC
};

std::string describe(NSError* _Nullable error) {
  if (!error) return std::string();
  const char* text = error.localizedDescription.UTF8String;
  return text ? std::string(text) : std::string();
}

SCContentFilter* wholeDisplayFilter(const ShareableDisplay& display) {
  SCDisplay* scDisplay = static_cast<const MacShareableDisplay&>(display).get();
  return [[SCContentFilter alloc] initWithDisplay:scDisplay excludingWindows:@[]];
}

struct ContentBox {
  SCShareableContent* _Nullable content = nil;
  NSError* _Nullable error = nil;
};

struct ImageBox {
  CFRef<CGImageRef> image;
  NSError* _Nullable error = nil;
};

}  // namespace

ShareableContent MacDesktop::copyShareableContent() {
  @autoreleasepool {
    auto box = std::make_shared<ContentBox>();
    dispatch_semaphore_t done = dispatch_semaphore_create(0);
    [SCShareableContent getShareableContentWithCompletionHandler:^(
                            SCShareableContent* _Nullable content, NSError* _Nullable error) {
      box->content = content;
      box->error = error;
      dispatch_semaphore_signal(done);
    }];
    dispatch_semaphore_wait(done, DISPATCH_TIME_FOREVER);

    ShareableContent result;
    if (box->error || !box->content) {
      result.error = box->error ? describe(box->error) : std::string("no shareable content");
      return result;
    }
    NSArray<SCDisplay*>* displays = box->content.displays;
    for (NSUInteger i = 0; i < displays.count; ++i) {
      result.displays.push_back(std::make_shared<const MacShareableDisplay>(displays[i]));
    }
    return result;
  }
}

ContentFilterGeometry MacDesktop::contentFilterGeometry(const ShareableDisplay& display) {
  @autoreleasepool {
    SCContentFilter* filter = wholeDisplayFilter(display);
    const CGRect rect = filter.contentRect;
    ContentFilterGeometry geometry;
    geometry.width = rect.size.width;
    geometry.height = rect.size.height;
    geometry.pointPixelScale = filter.pointPixelScale;
    return geometry;
  }
}

CapturedImage MacDesktop::captureImage(const ShareableDisplay& display,
                                       const CaptureRequest& request) {
  @autoreleasepool {
    SCContentFilter* filter = wholeDisplayFilter(display);
    SCStreamConfiguration* configuration = [[SCStreamConfiguration alloc] init];
    configuration.width = request.pixelWidth > 0 ? static_cast<size_t>(request.pixelWidth) : 0;
    configuration.height = request.pixelHeight > 0 ? static_cast<size_t>(request.pixelHeight) : 0;
    configuration.showsCursor = request.showsCursor;
    if (request.region) {
      configuration.sourceRect = CGRect{CGPoint{request.region->x, request.region->y},
                                        CGSize{request.region->width, request.region->height}};
    }

    auto box = std::make_shared<ImageBox>();
    dispatch_semaphore_t done = dispatch_semaphore_create(0);
    [SCScreenshotManager
        captureImageWithFilter:filter
                 configuration:configuration
             completionHandler:^(CGImageRef _Nullable image, NSError* _Nullable error) {
               // The image is only lent for the duration of the handler.
               box->image = CFRef<CGImageRef>::retain(image);
               box->error = error;
               dispatch_semaphore_signal(done);
             }];
    dispatch_semaphore_wait(done, DISPATCH_TIME_FOREVER);

    CapturedImage captured;
    if (box->error || !box->image) {
      captured.status = CapturedImage::Status::captureFailed;
      captured.error = box->error ? describe(box->error) : std::string("no image was captured");
      return captured;
    }
    CGImageRef image = box->image.get();
    captured.width = static_cast<std::int64_t>(CGImageGetWidth(image));
    captured.height = static_cast<std::int64_t>(CGImageGetHeight(image));

    NSBitmapImageRep* bitmap = [[NSBitmapImageRep alloc] initWithCGImage:image];
    NSData* encoded =
        request.format == ImageFormat::png
            ? [bitmap representationUsingType:NSBitmapImageFileTypePNG properties:@{}]
            : [bitmap representationUsingType:NSBitmapImageFileTypeJPEG
                                   properties:@{NSImageCompressionFactor : @(request.quality)}];
    if (!encoded) {
      captured.status = CapturedImage::Status::encodingFailed;
      return captured;
    }
    captured.bytes.assign(static_cast<const char*>(encoded.bytes), encoded.length);
    return captured;
  }
}

}  // namespace tervain::macos
