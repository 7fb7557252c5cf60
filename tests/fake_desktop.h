// A scripted desktop for the tests: grants, displays, pointer, accessibility trees, workspace and
// capture are set up by the test; every posted input and every sleep is recorded in one
// timeline, so pacing is checked exactly and without waiting.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/desktop.h"

namespace tervain::testing {

// One input the operations posted, as the seam received it.
struct FakeInput {
  enum class Kind { move, button, scroll, key, text };
  Kind kind = Kind::move;
  Point at;                           // move, button
  std::optional<MouseButton> button;  // button: the button; move: the one held, if any
  bool down = false;                  // button, key
  int clickCount = 0;                 // button
  Modifiers modifiers = 0;
  std::int32_t vertical = 0, horizontal = 0;  // scroll
  std::uint16_t keyCode = 0;                  // key
  std::u16string text;                        // text
};

// One step of the recorded timeline: a posted input or a sleep.
struct TimelineStep {
  enum class Kind { post, sleep };
  Kind kind;
  FakeInput input;
  std::uint32_t micros = 0;
};

// One line per step ("press left (10,20) click 1", "sleep 40000", "key 6 down mods 0x9"), so
// tests compare whole sequences at once. Coordinates are printed exactly (%.17g).
std::string describe(const TimelineStep& step);

// One scripted accessibility element. Attributes not in the map read as
// kAXErrorAttributeUnsupported unless an error is scripted for them.
struct FakeNode {
  std::map<std::string, AXValue> attributes;
  std::map<std::string, AXResult> attributeErrors;
  AXResult actionNamesResult = AXError::success;
  AXValue actionNames = std::vector<std::string>{};
  std::map<std::string, AXResult> performResults;  // default success
  std::map<std::string, bool> settable;           // default false
  AXResult settableResult = AXError::success;
  std::map<std::string, AXResult> setResults;      // default success
};

class FakeElement final : public Element {
 public:
  FakeElement(int id, std::shared_ptr<std::atomic<int>> live) : id(id), live(std::move(live)) {
    ++*this->live;
  }
  ~FakeElement() override { --*live; }
  const int id;

 private:
  std::shared_ptr<std::atomic<int>> live;
};

class FakeDisplay final : public ShareableDisplay {
 public:
  explicit FakeDisplay(int index) : index(index) {}
  const int index;
};

class FakeDesktop final : public Desktop {
 public:
  FakeDesktop();

  // ---- Scripting -----------------------------------------------------------------------------
  bool accessibility = true, screenRecording = true, postEvents = true;

  std::vector<DisplayInfo> screens;
  std::optional<Point> pointer = Point{0, 0};
  Modifiers modifiers = Modifier::all;  // what supportedModifiers() answers

  // Consulted before every input is posted; returning true makes that post fail.
  std::function<bool(const FakeInput&)> refuseInput;

  // Accessibility: elements are made by the test and live in the desktop.
  ElementRef addElement(FakeNode node);
  FakeNode& node(const ElementRef& element);
  FakeNode& node(const Element& element);
  int idOf(const Element& element) const;
  std::map<std::int32_t, ElementRef> applications;  // pid -> application element
  // Called with the pid at the start of every applicationElement(), before the lookup: lets a
  // test change the tree between the polls of an operation that waits.
  std::function<void(std::int32_t pid)> onApplicationElement;
  AXResult elementAtResult = AXError::noValue;
  ElementRef elementAt;                             // returned with elementAtResult
  // Records: (element id, what) in call order.
  std::vector<std::pair<int, float>> messagingTimeouts;
  std::vector<std::pair<int, std::string>> performed;
  std::vector<std::pair<int, AXWritableValue>> written;
  struct HitTest {
    float x, y, timeoutSeconds;
  };
  std::vector<HitTest> hitTests;
  std::vector<std::int32_t> applicationElementsCreated;
  int liveElements() const { return *live; }

  // Windows: what windowAction answers, and each call (element id, action, point).
  AXResult windowActionResult = AXError::success;
  struct WindowCall {
    int id;
    WindowAction action;
    Point to;
  };
  std::vector<WindowCall> windowCalls;

  // Clipboard: read answers `clipboard`; a write stores its text there as text, or fails with
  // clipboardWriteError.
  ClipboardText clipboard;
  std::optional<std::string> clipboardWriteError;

  // Workspace.
  std::optional<std::int32_t> frontmost;
  std::vector<std::int32_t> regularApplications;
  std::map<std::int32_t, std::string> applicationNames;
  // Decides what a launch does; by default the completion runs at once: launched.
  std::function<void(const std::string& name, std::function<void(LaunchResult)> completion)>
      onLaunch;
  std::vector<std::string> launched;

  // Capture.
  std::optional<std::string> shareableContentError;
  struct CaptureDisplay {
    ContentFilterGeometry geometry;
  };
  std::vector<CaptureDisplay> captureDisplays;
  // Produces the image for a capture; by default a small JPEG-like payload of the asked size.
  std::function<CapturedImage(int displayIndex, std::int64_t w, std::int64_t h)> onCapture;
  struct Capture {
    int displayIndex;
    CaptureRequest request;
  };
  std::vector<Capture> captures() const;

  // ---- Records -------------------------------------------------------------------------------
  std::vector<TimelineStep> timeline() const;
  std::vector<FakeInput> posted() const;
  std::uint32_t totalSleepMicros() const;

  // ---- Desktop -------------------------------------------------------------------------------
  std::string_view kind() const override { return kindName; }
  bool accessibilityTrusted() override { return accessibility; }
  bool screenCaptureAccess() override { return screenRecording; }
  bool postEventAccess() override { return postEvents; }
  void requestGrants() override { ++grantRequests; }
  std::string kindName = "fake";
  int grantRequests = 0;
  std::vector<DisplayInfo> displays(std::uint32_t maxDisplays) override;
  std::optional<Point> pointerLocation() override;
  Modifiers supportedModifiers() const override { return modifiers; }
  bool postPointerMove(Point at, std::optional<MouseButton> held, Modifiers modifiers) override;
  bool postMouseButton(MouseButton button, bool down, Point at, int clickCount,
                       Modifiers modifiers) override;
  bool postScroll(std::int32_t verticalLines, std::int32_t horizontalLines,
                  Modifiers modifiers) override;
  bool postKey(std::uint16_t keyCode, bool down, Modifiers modifiers) override;
  bool typeText(const std::u16string& chunk) override;
  void sleepMicros(std::uint32_t micros) override;
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
  AXResult windowAction(const Element& window, WindowAction action, Point to) override;
  ClipboardText readClipboard() override;
  std::optional<std::string> writeClipboard(const std::string& text) override;
  std::optional<std::int32_t> frontmostApplicationPid() override;
  std::vector<std::int32_t> regularApplicationPids() override { return regularApplications; }
  std::optional<std::string> runningApplicationName(std::int32_t pid) override;
  void launchApplication(const std::string& name,
                         std::function<void(LaunchResult)> completion) override;
  ShareableContent copyShareableContent() override;
  ContentFilterGeometry contentFilterGeometry(const ShareableDisplay& display) override;
  CapturedImage captureImage(const ShareableDisplay& display,
                             const CaptureRequest& request) override;
  [[noreturn]] void runMainLoop() override;

 private:
  bool post(FakeInput input);

  mutable std::mutex mutex;
  std::vector<TimelineStep> steps;
  std::shared_ptr<std::atomic<int>> live = std::make_shared<std::atomic<int>>(0);
  std::vector<std::unique_ptr<FakeNode>> nodes;  // by element id - 1
  std::vector<Capture> captureRequests;
};

}  // namespace tervain::testing
