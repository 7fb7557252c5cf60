// The desktop of a machine without one: every build that has no desktop adapter.
#pragma once

#include "platform/desktop.h"

namespace tervain {

// No grants, no displays, no pointer, no frontmost application; no input can be posted and
// capture lists no displays; there is no clipboard. Accessibility calls answer AXError::apiDisabled. Sleeping is real.
class HeadlessDesktop : public Desktop {
 public:
  std::string_view kind() const override { return "headless"; }

  bool accessibilityTrusted() override { return false; }
  bool screenCaptureAccess() override { return false; }
  bool postEventAccess() override { return false; }

  std::vector<DisplayInfo> displays(std::uint32_t) override { return {}; }
  std::optional<Point> pointerLocation() override { return std::nullopt; }

  Modifiers supportedModifiers() const override { return Modifier::all; }
  bool postPointerMove(Point, std::optional<MouseButton>, Modifiers) override { return false; }
  bool postMouseButton(MouseButton, bool, Point, int, Modifiers) override { return false; }
  bool postScroll(std::int32_t, std::int32_t, Modifiers) override { return false; }
  bool postKey(std::uint16_t, bool, Modifiers) override { return false; }
  bool typeText(const std::u16string&) override { return false; }
  void sleepMicros(std::uint32_t micros) override;

  ElementRef applicationElement(std::int32_t pid) override;
  AXResult setMessagingTimeout(const Element&, float) override { return AXError::apiDisabled; }
  AXResult copyAttributeValue(const Element&, const std::string&, AXValue&) override {
    return AXError::apiDisabled;
  }
  AXResult copyActionNames(const Element&, AXValue&) override { return AXError::apiDisabled; }
  AXResult performAction(const Element&, const std::string&) override {
    return AXError::apiDisabled;
  }
  AXResult isAttributeSettable(const Element&, const std::string&, bool&) override {
    return AXError::apiDisabled;
  }
  AXResult setAttributeValue(const Element&, const std::string&, const AXWritableValue&) override {
    return AXError::apiDisabled;
  }
  AXResult elementAtPoint(float, float, float, ElementRef&) override {
    return AXError::apiDisabled;
  }

  AXResult windowAction(const Element&, WindowAction, Point) override {
    return AXError::apiDisabled;
  }
  ClipboardText readClipboard() override;
  std::optional<std::string> writeClipboard(const std::string&) override;

  std::optional<std::int32_t> frontmostApplicationPid() override { return std::nullopt; }
  std::vector<std::int32_t> regularApplicationPids() override { return {}; }
  std::optional<std::string> runningApplicationName(std::int32_t) override {
    return std::nullopt;
  }
  void launchApplication(const std::string& name,
                         std::function<void(LaunchResult)> completion) override;

  ShareableContent copyShareableContent() override { return {}; }
  ContentFilterGeometry contentFilterGeometry(const ShareableDisplay&) override { return {}; }
  CapturedImage captureImage(const ShareableDisplay&, const CaptureRequest&) override;

  [[noreturn]] void runMainLoop() override;
};

}  // namespace tervain
