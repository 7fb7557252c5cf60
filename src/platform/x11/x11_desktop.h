// The desktop of an X11 session (Xorg or Xvfb): a conversion-only adapter from the desktop
// seam to the X11 building blocks beside it. Every rule of the operations stays above the seam;
// here, values change shape only: wire key codes to keysyms, modifier flags to modifier keys,
// points to root window pixels (one point is one pixel on X11, and the global origin is the
// root window's), UTF-16 chunks to code points.
//
// Accessibility goes to the AT-SPI adapter (src/platform/atspi/), which speaks to applications
// over the session's accessibility bus; the X server adds what AT-SPI does not know: which
// window is on top at a point, and which one is active.
#pragma once

#include <string>

#include "platform/atspi/atspi_accessibility.h"
#include "platform/desktop.h"
#include "platform/x11/app_launch.h"
#include "platform/x11/x11_capture.h"
#include "platform/x11/x11_clipboard.h"
#include "platform/x11/x11_connection.h"
#include "platform/x11/x11_input.h"
#include "platform/x11/x11_screen.h"

namespace tervain {

class X11Desktop : public Desktop {
 public:
  // displayName: an X display name; empty means $DISPLAY. Nothing is opened before first use.
  explicit X11Desktop(std::string displayName = {});

  std::string_view kind() const override { return "x11"; }

  // "Accessibility" on X11: the session's accessibility bus answers.
  bool accessibilityTrusted() override;
  bool screenCaptureAccess() override;
  bool postEventAccess() override;

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

  // ---- Accessibility, through AT-SPI --------------------------------------------------------
  ElementRef applicationElement(std::int32_t pid) override;
  AXResult setMessagingTimeout(const Element& element, float seconds) override;
  AXResult copyAttributeValue(const Element& element, const std::string& attribute,
                              AXValue& out) override;
  void copyAttributeValues(const std::vector<ElementRef>& elements,
                           const std::vector<std::string>& attributes,
                           std::vector<std::vector<std::pair<AXResult, AXValue>>>& out,
                           std::vector<std::pair<AXResult, AXValue>>* actionNames) override;
  AXResult copyActionNames(const Element& element, AXValue& out) override;
  AXResult performAction(const Element& element, const std::string& action) override;
  AXResult isAttributeSettable(const Element& element, const std::string& attribute,
                               bool& settable) override;
  AXResult setAttributeValue(const Element& element, const std::string& attribute,
                             const AXWritableValue& value) override;
  AXResult elementAtPoint(float x, float y, float timeoutSeconds, ElementRef& out) override;

  // Windows are AT-SPI frames; actions go to the window manager for the X window matched to
  // the frame (x11_windows.h says how).
  AXResult windowAction(const Element& window, WindowAction action, Point to) override;
  ClipboardText readClipboard() override;
  std::optional<std::string> writeClipboard(const std::string& text) override;

  std::optional<std::int32_t> frontmostApplicationPid() override;
  // The applications on the accessibility bus that own a window manager client window.
  std::vector<std::int32_t> regularApplicationPids() override;
  std::optional<std::string> runningApplicationName(std::int32_t pid) override;
  void launchApplication(const std::string& name,
                         std::function<void(LaunchResult)> completion) override;

  ShareableContent copyShareableContent() override;
  ContentFilterGeometry contentFilterGeometry(const ShareableDisplay& display) override;
  CapturedImage captureImage(const ShareableDisplay& display,
                             const CaptureRequest& request) override;

  [[noreturn]] void runMainLoop() override;

 private:
  // Gives windows read with an empty AXTitle their X window's title.
  void fillWindowTitles(const std::vector<ElementRef>& elements,
                        const std::vector<std::string>& attributes,
                        std::vector<std::vector<std::pair<AXResult, AXValue>>>& out);

  x11::Connection inputConnection;
  x11::Connection captureConnection;  // captures never wait behind input
  x11::Input input{inputConnection};
  x11::Capture capture{captureConnection};
  x11::JpegEncoder jpeg;  // used inside a grab only, so one capture at a time
  x11::MonitorList captureMonitors{captureConnection};
  x11::LaunchEnvironment launchEnvironment = x11::LaunchEnvironment::current();
  atspi::AtspiAccessibility accessibility;
  x11::Clipboard clipboard;  // its thread and connection start on first use
};

}  // namespace tervain
