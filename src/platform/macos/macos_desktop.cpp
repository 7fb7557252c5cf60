// Grants, displays, the pointer, input events, sleeping and the main run loop: plain C over
// CoreGraphics and ApplicationServices.
#include "platform/macos/macos_desktop.h"

#include <ApplicationServices/ApplicationServices.h>
#include <unistd.h>

#include "platform/macos/cf_ref.h"
#include "platform/platform_desktop.h"

namespace tervain {

Desktop& platformDesktop() {
  static macos::MacDesktop desktop;
  return desktop;
}

namespace macos {
namespace {

// The portable modifiers as CoreGraphics event flags.
CGEventFlags flagsOf(Modifiers modifiers) {
  CGEventFlags flags = 0;
  if (modifiers & Modifier::shift) flags |= kCGEventFlagMaskShift;
  if (modifiers & Modifier::control) flags |= kCGEventFlagMaskControl;
  if (modifiers & Modifier::option) flags |= kCGEventFlagMaskAlternate;
  if (modifiers & Modifier::command) flags |= kCGEventFlagMaskCommand;
  if (modifiers & Modifier::fn) flags |= kCGEventFlagMaskSecondaryFn;
  return flags;
}

CGMouseButton cgButton(MouseButton button) {
  switch (button) {
    case MouseButton::right:
      return kCGMouseButtonRight;
    case MouseButton::center:
      return kCGMouseButtonCenter;
    case MouseButton::left:
      break;
  }
  return kCGMouseButtonLeft;
}

CGEventType buttonEventType(MouseButton button, bool down) {
  switch (button) {
    case MouseButton::right:
      return down ? kCGEventRightMouseDown : kCGEventRightMouseUp;
    case MouseButton::center:
      return down ? kCGEventOtherMouseDown : kCGEventOtherMouseUp;
    case MouseButton::left:
      break;
  }
  return down ? kCGEventLeftMouseDown : kCGEventLeftMouseUp;
}

CGEventType moveEventType(std::optional<MouseButton> held) {
  if (!held) return kCGEventMouseMoved;
  switch (*held) {
    case MouseButton::right:
      return kCGEventRightMouseDragged;
    case MouseButton::center:
      return kCGEventOtherMouseDragged;
    case MouseButton::left:
      break;
  }
  return kCGEventLeftMouseDragged;
}

// Posts at the HID event tap. Pointer and scroll events keep the flags they were created with
// unless modifiers are asked for; key events always carry exactly the ones asked for.
bool post(CGEventRef created, std::optional<Modifiers> modifiers) {
  const CFRef<CGEventRef> event(created);
  if (!event) return false;
  if (modifiers) CGEventSetFlags(event.get(), flagsOf(*modifiers));
  CGEventPost(kCGHIDEventTap, event.get());
  return true;
}

std::optional<Modifiers> ifAny(Modifiers modifiers) {
  if (modifiers == 0) return std::nullopt;
  return modifiers;
}

void keepAlive(CFRunLoopTimerRef, void*) {}

}  // namespace

MacDesktop::MacDesktop() {
  (void)CGMainDisplayID();
  enterCocoaMultithreadedMode();
}

std::string_view MacDesktop::kind() const { return "macos"; }

bool MacDesktop::accessibilityTrusted() { return AXIsProcessTrusted() != 0; }
bool MacDesktop::screenCaptureAccess() { return CGPreflightScreenCaptureAccess(); }
bool MacDesktop::postEventAccess() { return CGPreflightPostEventAccess(); }

std::vector<DisplayInfo> MacDesktop::displays(std::uint32_t maxDisplays) {
  std::vector<CGDirectDisplayID> ids(maxDisplays);
  std::uint32_t count = 0;
  if (CGGetActiveDisplayList(maxDisplays, ids.data(), &count) != kCGErrorSuccess) return {};
  ids.resize(count < maxDisplays ? count : maxDisplays);
  std::vector<DisplayInfo> listed;
  for (const CGDirectDisplayID id : ids) {
    listed.push_back({id, static_cast<std::int64_t>(CGDisplayPixelsWide(id)),
                      static_cast<std::int64_t>(CGDisplayPixelsHigh(id)), CGDisplayIsMain(id) != 0});
  }
  return listed;
}

std::optional<Point> MacDesktop::pointerLocation() {
  const CFRef<CGEventRef> event(CGEventCreate(nullptr));
  if (!event) return std::nullopt;
  const CGPoint at = CGEventGetLocation(event.get());
  return Point{at.x, at.y};
}

Modifiers MacDesktop::supportedModifiers() const { return Modifier::all; }

bool MacDesktop::postPointerMove(Point at, std::optional<MouseButton> held, Modifiers modifiers) {
  return post(CGEventCreateMouseEvent(nullptr, moveEventType(held), CGPoint{at.x, at.y},
                                      held ? cgButton(*held) : kCGMouseButtonLeft),
              ifAny(modifiers));
}

bool MacDesktop::postMouseButton(MouseButton button, bool down, Point at, int clickCount,
                                 Modifiers modifiers) {
  const CFRef<CGEventRef> event(CGEventCreateMouseEvent(
      nullptr, buttonEventType(button, down), CGPoint{at.x, at.y}, cgButton(button)));
  if (!event) return false;
  // The click state makes the second press a double-click and the third a triple-click.
  CGEventSetIntegerValueField(event.get(), kCGMouseEventClickState, clickCount);
  if (modifiers != 0) CGEventSetFlags(event.get(), flagsOf(modifiers));
  CGEventPost(kCGHIDEventTap, event.get());
  return true;
}

bool MacDesktop::postScroll(std::int32_t verticalLines, std::int32_t horizontalLines,
                            Modifiers modifiers) {
  // Wheel 1 is vertical, wheel 2 horizontal.
  return post(CGEventCreateScrollWheelEvent2(nullptr, kCGScrollEventUnitLine, 2, verticalLines,
                                             horizontalLines, 0),
              ifAny(modifiers));
}

bool MacDesktop::postKey(std::uint16_t keyCode, bool down, Modifiers modifiers) {
  // Always set, also to none: a new key event picks up the modifiers currently held on the
  // keyboard.
  return post(CGEventCreateKeyboardEvent(nullptr, keyCode, down), modifiers);
}

bool MacDesktop::typeText(const std::u16string& chunk) {
  // Virtual key 0 with a Unicode string attached: the application takes the string as typed
  // text, whatever the keyboard layout. Both events exist before either is posted, so a failure
  // never leaves a key down.
  const CFRef<CGEventRef> down(CGEventCreateKeyboardEvent(nullptr, 0, true));
  const CFRef<CGEventRef> up(CGEventCreateKeyboardEvent(nullptr, 0, false));
  if (!down || !up) return false;
  // UniChar and char16_t are both 16-bit UTF-16 code units, distinct only to the type system.
  static_assert(sizeof(UniChar) == sizeof(char16_t));
  const auto* units = reinterpret_cast<const UniChar*>(chunk.data());
  CGEventKeyboardSetUnicodeString(down.get(), chunk.size(), units);
  CGEventKeyboardSetUnicodeString(up.get(), chunk.size(), units);
  CGEventPost(kCGHIDEventTap, down.get());
  CGEventPost(kCGHIDEventTap, up.get());
  return true;
}

void MacDesktop::sleepMicros(std::uint32_t micros) {
  // usleep may refuse a second or more; the input delays are all well below that, but a whole
  // second at a time keeps longer sleeps correct too.
  while (micros >= 1'000'000) {
    ::sleep(1);
    micros -= 1'000'000;
  }
  ::usleep(micros);
}

void MacDesktop::runMainLoop() {
  // CFRunLoopRun returns as soon as the loop has nothing to wait on; a timer that never fires
  // in practice keeps it waiting, so the main thread parks here serving the main queue.
  constexpr CFTimeInterval kFarFuture = 1.0e10;
  const CFRef<CFRunLoopTimerRef> timer(CFRunLoopTimerCreate(
      kCFAllocatorDefault, CFAbsoluteTimeGetCurrent() + kFarFuture, kFarFuture, 0, 0, keepAlive,
      nullptr));
  if (timer) CFRunLoopAddTimer(CFRunLoopGetCurrent(), timer.get(), kCFRunLoopCommonModes);
  for (;;) CFRunLoopRun();
}

}  // namespace macos
}  // namespace tervain
