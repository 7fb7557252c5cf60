// A scripted desktop for the tests: grants, displays, pointer, accessibility trees, workspace and
// capture are set up by the test; every created and posted event and every sleep is recorded in
// one timeline, so pacing is checked exactly and without waiting.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "platform/desktop.h"

namespace tervain::testing {

struct FakeEvent : InputEvent {
  enum class Kind { mouse, keyboard, scroll };
  Kind kind = Kind::mouse;
  int serial = 0;  // creation order, from 1
  // Mouse
  EventType type = EventType::mouseMoved;
  Point at;
  MouseButton button = MouseButton::left;
  std::optional<std::int64_t> clickState;
  // Keyboard
  std::uint16_t virtualKey = 0;
  bool keyDown = false;
  std::optional<EventFlags> flags;
  std::u16string unicode;
  // Scroll
  ScrollUnit unit = ScrollUnit::line;
  std::uint32_t wheelCount = 0;
  std::int32_t wheel1 = 0, wheel2 = 0, wheel3 = 0;
};

// One step of the recorded timeline: a posted event (a copy as it was posted) or a sleep.
struct TimelineStep {
  enum class Kind { post, sleep };
  Kind kind;
  FakeEvent event;
  std::uint32_t micros = 0;
};

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
  std::atomic<int> grantQueries{0};

  struct Display {
    std::uint32_t id;
    std::int64_t width, height;
    bool main;
  };
  std::vector<Display> displays;
  std::optional<Point> pointer = Point{0, 0};

  // Consulted before every event creation; returning true makes that creation fail.
  std::function<bool(const FakeEvent&)> refuseEvent;

  // Accessibility: elements are made by the test and live in the desktop.
  ElementRef addElement(FakeNode node);
  FakeNode& node(const ElementRef& element);
  FakeNode& node(const Element& element);
  int idOf(const Element& element) const;
  std::map<std::int32_t, ElementRef> applications;  // pid -> application element
  ElementRef systemWide;
  AXResult elementAtResult = AXError::noValue;
  ElementRef elementAtPoint;                        // returned with elementAtResult
  // Records: (element id, what) in call order.
  std::vector<std::pair<int, float>> messagingTimeouts;
  std::vector<std::pair<int, std::string>> performed;
  std::vector<std::pair<int, AXWritableValue>> written;
  std::vector<std::pair<float, float>> hitTests;
  std::vector<std::int32_t> applicationElementsCreated;
  int liveElements() const { return *live; }

  // Workspace.
  std::optional<std::int32_t> frontmost;
  std::map<std::int32_t, std::string> applicationNames;
  std::set<std::string> existingFiles;
  std::vector<std::string> existenceChecks;
  // Decides what an open does; by default the completion runs at once with no error.
  std::function<void(const std::string& path,
                     std::function<void(std::optional<std::string>)> completion)>
      onOpen;
  std::vector<std::string> opened;

  // Capture.
  std::optional<std::string> shareableContentError;
  struct CaptureDisplay {
    ContentFilterGeometry geometry;
  };
  std::vector<CaptureDisplay> captureDisplays;
  // Produces the image for a capture; by default a small JPEG-like payload of the asked size.
  std::function<CapturedImage(int displayIndex, std::int64_t w, std::int64_t h)> onCapture;
  struct CaptureRequest {
    int displayIndex;
    std::int64_t width, height;
    bool showsCursor;
    double quality;
  };
  std::vector<CaptureRequest> captures() const;

  // ---- Records -------------------------------------------------------------------------------
  std::vector<TimelineStep> timeline() const;
  std::vector<FakeEvent> posted() const;
  std::uint32_t totalSleepMicros() const;
  int eventsCreated() const { return serial; }
  int eventsAlive() const { return *liveEvents; }

  // ---- Desktop -------------------------------------------------------------------------------
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
  AXResult copyElementAtPosition(const Element& systemWideElement, float x, float y,
                                 ElementRef& out) override;
  std::optional<std::int32_t> frontmostApplicationPid() override;
  std::optional<std::string> runningApplicationName(std::int32_t pid) override;
  bool fileExists(const std::string& path) override;
  void openApplication(const std::string& path,
                       std::function<void(std::optional<std::string>)> completion) override;
  ShareableContent copyShareableContent() override;
  ContentFilterGeometry contentFilterGeometry(const ShareableDisplay& display) override;
  CapturedImage captureImage(const ShareableDisplay& display, std::int64_t pixelWidth,
                             std::int64_t pixelHeight, bool showsCursor,
                             double jpegQuality) override;
  [[noreturn]] void runMainLoop() override;

 private:
  InputEventPtr make(FakeEvent event);

  mutable std::mutex mutex;
  int serial = 0;
  std::shared_ptr<std::atomic<int>> liveEvents = std::make_shared<std::atomic<int>>(0);
  std::vector<TimelineStep> steps;
  std::shared_ptr<std::atomic<int>> live = std::make_shared<std::atomic<int>>(0);
  std::vector<std::unique_ptr<FakeNode>> nodes;  // by element id - 1
  std::vector<CaptureRequest> captureRequests;
};

}  // namespace tervain::testing
