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

// A created event; the reference is released when the portable code lets go of the event.
class MacInputEvent final : public InputEvent {
 public:
  explicit MacInputEvent(CGEventRef event) : event(event) {}
  CGEventRef get() const { return event.get(); }

 private:
  CFRef<CGEventRef> event;
};

InputEventPtr wrap(CGEventRef event) {
  if (!event) return nullptr;
  return std::make_unique<MacInputEvent>(event);
}

// Every event the portable code hands back was made by this adapter.
CGEventRef eventOf(InputEvent& event) { return static_cast<MacInputEvent&>(event).get(); }

void keepAlive(CFRunLoopTimerRef, void*) {}

}  // namespace

MacDesktop::MacDesktop() {
  (void)CGMainDisplayID();
  enterCocoaMultithreadedMode();
}

bool MacDesktop::accessibilityTrusted() { return AXIsProcessTrusted() != 0; }
bool MacDesktop::screenCaptureAccess() { return CGPreflightScreenCaptureAccess(); }
bool MacDesktop::postEventAccess() { return CGPreflightPostEventAccess(); }

std::vector<std::uint32_t> MacDesktop::activeDisplayList(std::uint32_t maxDisplays) {
  std::vector<CGDirectDisplayID> ids(maxDisplays);
  std::uint32_t count = 0;
  if (CGGetActiveDisplayList(maxDisplays, ids.data(), &count) != kCGErrorSuccess) return {};
  ids.resize(count < maxDisplays ? count : maxDisplays);
  return {ids.begin(), ids.end()};
}

std::int64_t MacDesktop::displayPixelsWide(std::uint32_t display) {
  return static_cast<std::int64_t>(CGDisplayPixelsWide(display));
}

std::int64_t MacDesktop::displayPixelsHigh(std::uint32_t display) {
  return static_cast<std::int64_t>(CGDisplayPixelsHigh(display));
}

bool MacDesktop::displayIsMain(std::uint32_t display) { return CGDisplayIsMain(display) != 0; }

std::optional<Point> MacDesktop::pointerLocation() {
  const CFRef<CGEventRef> event(CGEventCreate(nullptr));
  if (!event) return std::nullopt;
  const CGPoint at = CGEventGetLocation(event.get());
  return Point{at.x, at.y};
}

InputEventPtr MacDesktop::createMouseEvent(EventType type, Point at, MouseButton button) {
  return wrap(CGEventCreateMouseEvent(nullptr, static_cast<CGEventType>(type),
                                      CGPoint{at.x, at.y}, static_cast<CGMouseButton>(button)));
}

InputEventPtr MacDesktop::createKeyboardEvent(std::uint16_t virtualKey, bool keyDown) {
  return wrap(CGEventCreateKeyboardEvent(nullptr, virtualKey, keyDown));
}

InputEventPtr MacDesktop::createScrollWheelEvent(ScrollUnit unit, std::uint32_t wheelCount,
                                                 std::int32_t wheel1, std::int32_t wheel2,
                                                 std::int32_t wheel3) {
  return wrap(CGEventCreateScrollWheelEvent2(nullptr, static_cast<CGScrollEventUnit>(unit),
                                             wheelCount, wheel1, wheel2, wheel3));
}

void MacDesktop::setIntegerValueField(InputEvent& event, EventField field, std::int64_t value) {
  CGEventSetIntegerValueField(eventOf(event), static_cast<CGEventField>(field), value);
}

void MacDesktop::setFlags(InputEvent& event, EventFlags flags) {
  CGEventSetFlags(eventOf(event), static_cast<CGEventFlags>(flags));
}

void MacDesktop::keyboardSetUnicodeString(InputEvent& event, const std::u16string& units) {
  // UniChar and char16_t are both 16-bit UTF-16 code units, distinct only to the type system.
  static_assert(sizeof(UniChar) == sizeof(char16_t));
  CGEventKeyboardSetUnicodeString(eventOf(event), units.size(),
                                  reinterpret_cast<const UniChar*>(units.data()));
}

void MacDesktop::postEvent(InputEvent& event) { CGEventPost(kCGHIDEventTap, eventOf(event)); }

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
