// The workspace: the frontmost application, running applications' names, file existence and
// opening an application. Objective-C++ (ARC) because AppKit offers these only as classes.
//
// Every entry point drains its own autorelease pool: the callers are long-lived POSIX threads
// that have none of their own.
#import <AppKit/AppKit.h>
#import <Foundation/Foundation.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "platform/macos/macos_desktop.h"

namespace tervain::macos {
namespace {

NSString* _Nullable toNSString(const std::string& text) {
  return [[NSString alloc] initWithBytes:text.data()
                                  length:text.size()
                                encoding:NSUTF8StringEncoding];
}

std::optional<std::string> toStdString(NSString* _Nullable text) {
  if (!text) return std::nullopt;
  const char* utf8 = text.UTF8String;
  if (!utf8) return std::nullopt;
  return std::string(utf8);
}

}  // namespace

void enterCocoaMultithreadedMode() {
  @autoreleasepool {
    [NSThread detachNewThreadWithBlock:^{
    }];
  }
}

std::optional<std::int32_t> MacDesktop::frontmostApplicationPid() {
  @autoreleasepool {
    NSRunningApplication* app = NSWorkspace.sharedWorkspace.frontmostApplication;
    if (!app) return std::nullopt;
    return static_cast<std::int32_t>(app.processIdentifier);
  }
}

std::optional<std::string> MacDesktop::runningApplicationName(std::int32_t pid) {
  @autoreleasepool {
    NSRunningApplication* app =
        [NSRunningApplication runningApplicationWithProcessIdentifier:static_cast<pid_t>(pid)];
    if (!app) return std::nullopt;
    return toStdString(app.localizedName);
  }
}

bool MacDesktop::fileExists(const std::string& path) {
  @autoreleasepool {
    NSString* nsPath = toNSString(path);
    return nsPath && [NSFileManager.defaultManager fileExistsAtPath:nsPath];
  }
}

void MacDesktop::openApplication(const std::string& path,
                                 std::function<void(std::optional<std::string> error)> completion) {
  @autoreleasepool {
    NSString* nsPath = toNSString(path);
    if (!nsPath) {
      completion(std::string("the application path is not valid UTF-8"));
      return;
    }
    // The block owns its own copy of the completion: it may run after the caller stopped
    // waiting, on a queue of the workspace's choosing.
    auto done = std::make_shared<std::function<void(std::optional<std::string>)>>(
        std::move(completion));
    [NSWorkspace.sharedWorkspace
        openApplicationAtURL:[NSURL fileURLWithPath:nsPath]
               configuration:[NSWorkspaceOpenConfiguration configuration]
           completionHandler:^(NSRunningApplication* _Nullable, NSError* _Nullable error) {
             @autoreleasepool {
               if (error) {
                 (*done)(toStdString(error.localizedDescription).value_or(std::string()));
               } else {
                 (*done)(std::nullopt);
               }
             }
           }];
  }
}

}  // namespace tervain::macos
