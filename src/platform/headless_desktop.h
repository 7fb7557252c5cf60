// The desktop of a machine without one: every build that is not for macOS.
#pragma once

#include "platform/desktop.h"

namespace tervain {

// No grants, no displays, no pointer, no frontmost application; events cannot be created and
// capture lists no displays. Accessibility calls answer kAXErrorAPIDisabled. Sleeping and file
// existence are real.
class HeadlessDesktop : public Desktop {
 public:
  bool accessibilityTrusted() override { return false; }
  bool screenCaptureAccess() override { return false; }
  bool postEventAccess() override { return false; }

  std::vector<std::uint32_t> activeDisplayList(std::uint32_t) override { return {}; }
  std::int64_t displayPixelsWide(std::uint32_t) override { return 0; }
  std::int64_t displayPixelsHigh(std::uint32_t) override { return 0; }
  bool displayIsMain(std::uint32_t) override { return false; }

  std::optional<Point> pointerLocation() override { return std::nullopt; }

  InputEventPtr createMouseEvent(EventType, Point, MouseButton) override { return nullptr; }
  InputEventPtr createKeyboardEvent(std::uint16_t, bool) override { return nullptr; }
  InputEventPtr createScrollWheelEvent(ScrollUnit, std::uint32_t, std::int32_t, std::int32_t,
                                       std::int32_t) override {
    return nullptr;
  }
  void setIntegerValueField(InputEvent&, EventField, std::int64_t) override {}
  void setFlags(InputEvent&, EventFlags) override {}
  void keyboardSetUnicodeString(InputEvent&, const std::u16string&) override {}
  void postEvent(InputEvent&) override {}

  void sleepMicros(std::uint32_t micros) override;

  ElementRef createApplicationElement(std::int32_t pid) override;
  ElementRef createSystemWideElement() override;
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
  AXResult copyElementAtPosition(const Element&, float, float, ElementRef&) override {
    return AXError::apiDisabled;
  }

  std::optional<std::int32_t> frontmostApplicationPid() override { return std::nullopt; }
  std::optional<std::string> runningApplicationName(std::int32_t) override {
    return std::nullopt;
  }
  bool fileExists(const std::string& path) override;
  void openApplication(const std::string& path,
                       std::function<void(std::optional<std::string>)> completion) override;

  ShareableContent copyShareableContent() override { return {}; }
  ContentFilterGeometry contentFilterGeometry(const ShareableDisplay&) override { return {}; }
  CapturedImage captureImage(const ShareableDisplay&, std::int64_t, std::int64_t, bool,
                             double) override;

  [[noreturn]] void runMainLoop() override;
};

}  // namespace tervain
