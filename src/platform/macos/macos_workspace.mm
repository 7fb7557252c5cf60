// The workspace: the frontmost application, running applications' names and launching an
// application by name. Objective-C++ (ARC) because AppKit offers these only as classes.
//
// Every entry point drains its own autorelease pool: the callers are long-lived POSIX threads
// that have none of their own.
#import <AppKit/AppKit.h>
#import <Foundation/Foundation.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "platform/child_process.h"
#include "platform/macos/cf_ref.h"
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
  return toUtf8((__bridge CFStringRef)text);
}

}  // namespace

void enterCocoaMultithreadedMode() {
  @autoreleasepool {
    [NSThread detachNewThreadWithBlock:^{
    }];
  }
}

void touchWorkspace() {
  @autoreleasepool {
    (void)NSWorkspace.sharedWorkspace.frontmostApplication;
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

std::vector<std::int32_t> MacDesktop::regularApplicationPids() {
  @autoreleasepool {
    std::vector<std::int32_t> pids;
    for (NSRunningApplication* app in NSWorkspace.sharedWorkspace.runningApplications) {
      if (app.activationPolicy == NSApplicationActivationPolicyRegular) {
        pids.push_back(static_cast<std::int32_t>(app.processIdentifier));
      }
    }
    return pids;
  }
}

namespace {

// Opens the bundle at path with a default configuration; the completion runs once, on a queue
// of the workspace's choosing.
void openBundle(NSString* path, std::function<void(LaunchResult)> completion) {
  // The block owns its own copy of the completion: it may run after the caller stopped waiting.
  auto done = std::make_shared<std::function<void(LaunchResult)>>(std::move(completion));
  [NSWorkspace.sharedWorkspace
      openApplicationAtURL:[NSURL fileURLWithPath:path]
             configuration:[NSWorkspaceOpenConfiguration configuration]
         completionHandler:^(NSRunningApplication* _Nullable, NSError* _Nullable error) {
           @autoreleasepool {
             if (error) {
               (*done)({LaunchResult::Status::failed,
                        toStdString(error.localizedDescription).value_or(std::string())});
             } else {
               (*done)({LaunchResult::Status::launched, {}});
             }
           }
         }];
}

}  // namespace

void MacDesktop::launchApplication(const std::string& name,
                                   std::function<void(LaunchResult)> completion) {
  const std::string bundle = name.ends_with(".app") ? name : name + ".app";
  @autoreleasepool {
    for (const char* folder :
         {"/Applications/", "/System/Applications/", "/System/Applications/Utilities/"}) {
      NSString* path = toNSString(folder + bundle);
      if (!path) {
        completion({LaunchResult::Status::failed, "the application path is not valid UTF-8"});
        return;
      }
      if ([NSFileManager.defaultManager fileExistsAtPath:path]) {
        openBundle(path, std::move(completion));
        return;
      }
    }
  }
  // No bundle in the usual folders: "open -a" knows every other place an application can be.
  completion(launchWithOpenTool("/usr/bin/open", name));
}

}  // namespace tervain::macos
