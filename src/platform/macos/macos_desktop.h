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

  std::string_view kind() const override;

  bool accessibilityTrusted() override;
  bool screenCaptureAccess() override;
  bool postEventAccess() override;
  // AXIsProcessTrustedWithOptions with the prompt option, CGRequestScreenCaptureAccess and
  // CGRequestPostEventAccess: each shows the system's prompt once and adds the agent to its list.
  void requestGrants() override;

  std::vector<DisplayInfo> displays(std::uint32_t maxDisplays) override;
  std::optional<Point> pointerLocation() override;

  Modifiers supportedModifiers() const override;
  bool postPointerMove(Point at, std::optional<MouseButton> held, Modifiers modifiers) override;
  bool postMouseButton(MouseButton button, bool down, Point at, int clickCount,
                       Modifiers modifiers) override;
  bool postScroll(std::int32_t verticalLines, std::int32_t horizontalLines,
                  Modifiers modifiers) override;
  bool postKey(std::uint16_t keyCode, bool down, Modifiers modifiers) override;
  bool typeText(const std::u16string& chunk) override;
  void sleepMicros(std::uint32_t micros) override;

  // In macos_accessibility.cpp.
  ElementRef applicationElement(std::int32_t pid) override;
  AXResult setMessagingTimeout(const Element& element, float seconds) override;
  AXResult copyAttributeValue(const Element& element, const std::string& attribute,
                              AXValue& out) override;
  AXResult copyActionNames(const Element& element, AXValue& out) override;
  AXResult performAction(const Element& element, const std::string& action) override;
  AXResult isAttributeSettable(const Element& element, const std::string& attribute,
                               bool& settable) override;
  AXResult setAttributeValue(const Element& element, const std::string& attribute,
                             const AXWritableValue& value) override;
  AXResult elementAtPoint(float x, float y, float timeoutSeconds, ElementRef& out) override;
  // Raise is AXRaise, minimise and unminimise set AXMinimized, close presses the window's
  // AXCloseButton, move and resize set AXPosition and AXSize.
  AXResult windowAction(const Element& window, WindowAction action, Point to) override;

  // In macos_pasteboard.mm: the general pasteboard's plain text.
  ClipboardText readClipboard() override;
  std::optional<std::string> writeClipboard(const std::string& text) override;

  // In macos_workspace.mm. A launch looks for NAME.app in /Applications,
  // /System/Applications and /System/Applications/Utilities, in that order, and opens the first
  // found through the workspace; with no bundle found, `/usr/bin/open -a NAME` resolves the
  // name, on the calling thread.
  std::optional<std::int32_t> frontmostApplicationPid() override;
  std::optional<std::string> runningApplicationName(std::int32_t pid) override;
  // The running applications whose activation policy is regular (those in the Dock).
  std::vector<std::int32_t> regularApplicationPids() override;
  void launchApplication(const std::string& name,
                         std::function<void(LaunchResult)> completion) override;

  // In macos_capture.mm.
  ShareableContent copyShareableContent() override;
  ContentFilterGeometry contentFilterGeometry(const ShareableDisplay& display) override;
  CapturedImage captureImage(const ShareableDisplay& display,
                             const CaptureRequest& request) override;

  // Runs the main run loop (CFRunLoopRun), which also serves the main dispatch queue and keeps
  // the workspace's view of running applications fresh.
  [[noreturn]] void runMainLoop() override;
};

// Defined in macos_workspace.mm: starts and ends one NSThread, after which Cocoa treats the
// process as multithreaded and guards its shared state accordingly.
void enterCocoaMultithreadedMode();

// Defined in macos_workspace.mm: creates the shared workspace on the calling (main) thread, so it
// registers for the notifications that keep its running applications current.
void touchWorkspace();

}  // namespace tervain::macos
