// The clipboard: the general pasteboard's plain text. Objective-C++ (ARC) because AppKit offers
// the pasteboard only as a class. Each entry point drains its own autorelease pool.
#import <AppKit/AppKit.h>
#import <Foundation/Foundation.h>

#include <optional>
#include <string>
#include <utility>

#include "platform/macos/macos_desktop.h"

namespace tervain::macos {

ClipboardText MacDesktop::readClipboard() {
  @autoreleasepool {
    NSPasteboard* pasteboard = NSPasteboard.generalPasteboard;
    NSArray<NSPasteboardType>* types = pasteboard.types;
    if (types.count == 0) return {ClipboardText::Status::empty, {}, {}};
    NSString* text = [pasteboard stringForType:NSPasteboardTypeString];
    if (text == nil) {
      // Name what it holds instead: its first type ("public.png", ...).
      const char* first = types.firstObject.UTF8String;
      return {ClipboardText::Status::notText, {}, first != nullptr ? first : "another type"};
    }
    const char* bytes = text.UTF8String;
    if (bytes == nullptr) return {ClipboardText::Status::failed, {}, "its text has no UTF-8 form"};
    std::string value(bytes, [text lengthOfBytesUsingEncoding:NSUTF8StringEncoding]);
    if (value.empty()) return {ClipboardText::Status::empty, {}, {}};
    return {ClipboardText::Status::text, std::move(value), {}};
  }
}

std::optional<std::string> MacDesktop::writeClipboard(const std::string& text) {
  @autoreleasepool {
    NSString* value = [[NSString alloc] initWithBytes:text.data()
                                               length:text.size()
                                             encoding:NSUTF8StringEncoding];
    if (value == nil) return "the text is not valid UTF-8";
    NSPasteboard* pasteboard = NSPasteboard.generalPasteboard;
    [pasteboard clearContents];
    if (![pasteboard setString:value forType:NSPasteboardTypeString]) {
      return "the pasteboard refused the text";
    }
    return std::nullopt;
  }
}

}  // namespace tervain::macos
