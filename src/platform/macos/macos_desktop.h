// The desktop of a macOS guest: the seam forwarded to the platform, one call per method.
//
// Plain C++ over the C interfaces (grants, displays, events, accessibility) in the .cpp files;
// the workspace and ScreenCaptureKit, which have no C interface, in the .mm files. This header
// stays free of platform types so both kinds of file include it.
#pragma once

#include "platform/desktop.h"

namespace tervain::macos {

// Safe to call from any thread: every method only forwards to thread-safe platform services
// and keeps no state of its own.
class MacDesktop final : public Desktop {
 public:
  // Touches CoreGraphics once (CGMainDisplayID): a process that never did has been seen to
  // abort inside ScreenCaptureKit. Also tells Cocoa that the process is multithreaded, since the
  // agent's own threads are plain POSIX threads.
  MacDesktop();

  bool accessibilityTrusted() override;
  bool screenCaptureAccess() override;
  bool postEventAccess() override;

  std::vector<std::uint32_t> activeDisplayList(std::uint32_t maxDisplays) override;
  std::int64_t displayPixelsWide(std::uint32_t display) override;
  std::int64_t displayPixelsHigh(std::uint32_t display) override;
  bool displayIsMain(std::uint32_t display) override;

  std::optional<Point> pointerLocation() override;

  InputEventPtr createMouseEvent(EventType type, Point at, MouseButton button) override;
  InputEventPtr createKeyboardEvent(std::uint16_t virtualKey, bool keyDown) override;
  InputEventPtr createScrollWheelEvent(ScrollUnit unit, std::uint32_t wheelCount,
                                       std::int32_t wheel1, std::int32_t wheel2,
                                       std::int32_t wheel3) override;
  void setIntegerValueField(InputEvent& event, EventField field, std::int64_t value) override;
  void setFlags(InputEvent& event, EventFlags flags) override;
  void keyboardSetUnicodeString(InputEvent& event, const std::u16string& units) override;
  void postEvent(InputEvent& event) override;

  void sleepMicros(std::uint32_t micros) override;

  ElementRef createApplicationElement(std::int32_t pid) override;
  ElementRef createSystemWideElement() override;
  AXResult setMessagingTimeout(const Element& element, float seconds) override;
  AXResult copyAttributeValue(const Element& element, const std::string& attribute,
                              AXValue& out) override;
  AXResult copyActionNames(const Element& element, AXValue& out) override;
  AXResult performAction(const Element& element, const std::string& action) override;
  AXResult isAttributeSettable(const Element& element, const std::string& attribute,
                               bool& settable) override;
  AXResult setAttributeValue(const Element& element, const std::string& attribute,
                             const AXWritableValue& value) override;
  AXResult copyElementAtPosition(const Element& systemWide, float x, float y,
                                 ElementRef& out) override;

  // In macos_workspace.mm.
  std::optional<std::int32_t> frontmostApplicationPid() override;
  std::optional<std::string> runningApplicationName(std::int32_t pid) override;
  bool fileExists(const std::string& path) override;
  void openApplication(const std::string& path,
                       std::function<void(std::optional<std::string> error)> completion) override;

  // In macos_capture.mm.
  ShareableContent copyShareableContent() override;
  ContentFilterGeometry contentFilterGeometry(const ShareableDisplay& display) override;
  CapturedImage captureImage(const ShareableDisplay& display, std::int64_t pixelWidth,
                             std::int64_t pixelHeight, bool showsCursor,
                             double jpegQuality) override;

  // Runs the main run loop (CFRunLoopRun), which also serves the main dispatch queue and keeps
  // the workspace's view of running applications fresh.
  [[noreturn]] void runMainLoop() override;
};

// Defined in macos_workspace.mm: starts and ends one NSThread, after which Cocoa treats the
// process as multithreaded and guards its shared state accordingly.
void enterCocoaMultithreadedMode();

}  // namespace tervain::macos
