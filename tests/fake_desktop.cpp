#include "fake_desktop.h"

#include <cstdlib>
#include <stdexcept>

namespace tervain::testing {
namespace {

// A created event that counts itself among the living until it is released.
struct LiveFakeEvent final : FakeEvent {
  LiveFakeEvent(FakeEvent e, std::shared_ptr<std::atomic<int>> counter)
      : FakeEvent(std::move(e)), counter(std::move(counter)) {
    ++*this->counter;
  }
  ~LiveFakeEvent() override { --*counter; }
  std::shared_ptr<std::atomic<int>> counter;
};

FakeEvent& asFake(InputEvent& event) {
  auto* fake = dynamic_cast<FakeEvent*>(&event);
  if (fake == nullptr) throw std::logic_error("not a FakeDesktop event");
  return *fake;
}

}  // namespace

FakeDesktop::FakeDesktop() {
  systemWide = addElement(FakeNode{});
  onOpen = [](const std::string&, std::function<void(std::optional<std::string>)> done) {
    done(std::nullopt);
  };
  onCapture = [](int, std::int64_t w, std::int64_t h) {
    CapturedImage image;
    image.jpeg = std::string("\xFF\xD8\xFF\xE0 fake jpeg \xFF\xD9", 16);
    image.width = w;
    image.height = h;
    return image;
  };
}

ElementRef FakeDesktop::addElement(FakeNode node) {
  std::lock_guard lock(mutex);
  nodes.push_back(std::make_unique<FakeNode>(std::move(node)));
  return std::make_shared<FakeElement>(static_cast<int>(nodes.size()), live);
}

int FakeDesktop::idOf(const Element& element) const {
  const auto* fake = dynamic_cast<const FakeElement*>(&element);
  if (fake == nullptr) throw std::logic_error("not a FakeDesktop element");
  return fake->id;
}

FakeNode& FakeDesktop::node(const Element& element) {
  std::lock_guard lock(mutex);
  return *nodes.at(static_cast<std::size_t>(idOf(element) - 1));
}

FakeNode& FakeDesktop::node(const ElementRef& element) { return node(*element); }

std::vector<FakeDesktop::CaptureRequest> FakeDesktop::captures() const {
  std::lock_guard lock(mutex);
  return captureRequests;
}

std::vector<TimelineStep> FakeDesktop::timeline() const {
  std::lock_guard lock(mutex);
  return steps;
}

std::vector<FakeEvent> FakeDesktop::posted() const {
  std::vector<FakeEvent> events;
  for (const TimelineStep& step : timeline()) {
    if (step.kind == TimelineStep::Kind::post) events.push_back(step.event);
  }
  return events;
}

std::uint32_t FakeDesktop::totalSleepMicros() const {
  std::uint32_t total = 0;
  for (const TimelineStep& step : timeline()) total += step.micros;
  return total;
}

bool FakeDesktop::accessibilityTrusted() {
  ++grantQueries;
  return accessibility;
}
bool FakeDesktop::screenCaptureAccess() {
  ++grantQueries;
  return screenRecording;
}
bool FakeDesktop::postEventAccess() {
  ++grantQueries;
  return postEvents;
}

std::vector<std::uint32_t> FakeDesktop::activeDisplayList(std::uint32_t maxDisplays) {
  std::vector<std::uint32_t> ids;
  for (const Display& d : displays) {
    if (ids.size() == maxDisplays) break;
    ids.push_back(d.id);
  }
  return ids;
}

std::int64_t FakeDesktop::displayPixelsWide(std::uint32_t display) {
  for (const Display& d : displays) {
    if (d.id == display) return d.width;
  }
  return 0;
}

std::int64_t FakeDesktop::displayPixelsHigh(std::uint32_t display) {
  for (const Display& d : displays) {
    if (d.id == display) return d.height;
  }
  return 0;
}

bool FakeDesktop::displayIsMain(std::uint32_t display) {
  for (const Display& d : displays) {
    if (d.id == display) return d.main;
  }
  return false;
}

std::optional<Point> FakeDesktop::pointerLocation() { return pointer; }

InputEventPtr FakeDesktop::make(FakeEvent event) {
  if (refuseEvent && refuseEvent(event)) return nullptr;
  std::lock_guard lock(mutex);
  event.serial = ++serial;
  return std::make_unique<LiveFakeEvent>(std::move(event), liveEvents);
}

InputEventPtr FakeDesktop::createMouseEvent(EventType type, Point at, MouseButton button) {
  FakeEvent e;
  e.kind = FakeEvent::Kind::mouse;
  e.type = type;
  e.at = at;
  e.button = button;
  return make(std::move(e));
}

InputEventPtr FakeDesktop::createKeyboardEvent(std::uint16_t virtualKey, bool keyDown) {
  FakeEvent e;
  e.kind = FakeEvent::Kind::keyboard;
  e.virtualKey = virtualKey;
  e.keyDown = keyDown;
  return make(std::move(e));
}

InputEventPtr FakeDesktop::createScrollWheelEvent(ScrollUnit unit, std::uint32_t wheelCount,
                                                  std::int32_t wheel1, std::int32_t wheel2,
                                                  std::int32_t wheel3) {
  FakeEvent e;
  e.kind = FakeEvent::Kind::scroll;
  e.type = EventType::scrollWheel;
  e.unit = unit;
  e.wheelCount = wheelCount;
  e.wheel1 = wheel1;
  e.wheel2 = wheel2;
  e.wheel3 = wheel3;
  return make(std::move(e));
}

void FakeDesktop::setIntegerValueField(InputEvent& event, EventField field, std::int64_t value) {
  if (field == EventField::mouseEventClickState) asFake(event).clickState = value;
}

void FakeDesktop::setFlags(InputEvent& event, EventFlags flags) { asFake(event).flags = flags; }

void FakeDesktop::keyboardSetUnicodeString(InputEvent& event, const std::u16string& units) {
  asFake(event).unicode = units;
}

void FakeDesktop::postEvent(InputEvent& event) {
  FakeEvent copy = asFake(event);
  std::lock_guard lock(mutex);
  steps.push_back({TimelineStep::Kind::post, std::move(copy), 0});
}

void FakeDesktop::sleepMicros(std::uint32_t micros) {
  std::lock_guard lock(mutex);
  steps.push_back({TimelineStep::Kind::sleep, FakeEvent{}, micros});
}

ElementRef FakeDesktop::createApplicationElement(std::int32_t pid) {
  {
    std::lock_guard lock(mutex);
    applicationElementsCreated.push_back(pid);
  }
  const auto it = applications.find(pid);
  if (it != applications.end()) return it->second;
  // A process with no scripted tree: an element whose every read fails.
  FakeNode dead;
  dead.actionNamesResult = AXError::cannotComplete;
  return addElement(std::move(dead));
}

ElementRef FakeDesktop::createSystemWideElement() { return systemWide; }

AXResult FakeDesktop::setMessagingTimeout(const Element& element, float seconds) {
  const int id = idOf(element);
  std::lock_guard lock(mutex);
  messagingTimeouts.emplace_back(id, seconds);
  return AXError::success;
}

AXResult FakeDesktop::copyAttributeValue(const Element& element, const std::string& attribute,
                                         AXValue& out) {
  FakeNode& n = node(element);
  if (const auto e = n.attributeErrors.find(attribute); e != n.attributeErrors.end()) {
    return e->second;
  }
  const auto it = n.attributes.find(attribute);
  if (it == n.attributes.end()) return AXError::attributeUnsupported;
  out = it->second;
  return AXError::success;
}

AXResult FakeDesktop::copyActionNames(const Element& element, AXValue& out) {
  FakeNode& n = node(element);
  if (n.actionNamesResult != AXError::success) return n.actionNamesResult;
  out = n.actionNames;
  return AXError::success;
}

AXResult FakeDesktop::performAction(const Element& element, const std::string& action) {
  FakeNode& n = node(element);
  {
    std::lock_guard lock(mutex);
    performed.emplace_back(idOf(element), action);
  }
  const auto it = n.performResults.find(action);
  return it == n.performResults.end() ? AXError::success : it->second;
}

AXResult FakeDesktop::isAttributeSettable(const Element& element, const std::string& attribute,
                                          bool& settable) {
  FakeNode& n = node(element);
  if (n.settableResult != AXError::success) return n.settableResult;
  const auto it = n.settable.find(attribute);
  settable = it != n.settable.end() && it->second;
  return AXError::success;
}

AXResult FakeDesktop::setAttributeValue(const Element& element, const std::string& attribute,
                                        const AXWritableValue& value) {
  FakeNode& n = node(element);
  {
    std::lock_guard lock(mutex);
    written.emplace_back(idOf(element), value);
  }
  const auto it = n.setResults.find(attribute);
  return it == n.setResults.end() ? AXError::success : it->second;
}

AXResult FakeDesktop::copyElementAtPosition(const Element&, float x, float y, ElementRef& out) {
  {
    std::lock_guard lock(mutex);
    hitTests.emplace_back(x, y);
  }
  if (elementAtResult == AXError::success) out = elementAtPoint;
  return elementAtResult;
}

std::optional<std::int32_t> FakeDesktop::frontmostApplicationPid() { return frontmost; }

std::optional<std::string> FakeDesktop::runningApplicationName(std::int32_t pid) {
  const auto it = applicationNames.find(pid);
  if (it == applicationNames.end()) return std::nullopt;
  return it->second;
}

bool FakeDesktop::fileExists(const std::string& path) {
  std::lock_guard lock(mutex);
  existenceChecks.push_back(path);
  return existingFiles.count(path) != 0;
}

void FakeDesktop::openApplication(const std::string& path,
                                  std::function<void(std::optional<std::string>)> completion) {
  {
    std::lock_guard lock(mutex);
    opened.push_back(path);
  }
  onOpen(path, std::move(completion));
}

ShareableContent FakeDesktop::copyShareableContent() {
  ShareableContent content;
  content.error = shareableContentError;
  if (content.error) return content;
  for (std::size_t i = 0; i < captureDisplays.size(); ++i) {
    content.displays.push_back(std::make_shared<FakeDisplay>(static_cast<int>(i)));
  }
  return content;
}

ContentFilterGeometry FakeDesktop::contentFilterGeometry(const ShareableDisplay& display) {
  const auto& fake = dynamic_cast<const FakeDisplay&>(display);
  return captureDisplays.at(static_cast<std::size_t>(fake.index)).geometry;
}

CapturedImage FakeDesktop::captureImage(const ShareableDisplay& display, std::int64_t pixelWidth,
                                        std::int64_t pixelHeight, bool showsCursor,
                                        double jpegQuality) {
  const auto& fake = dynamic_cast<const FakeDisplay&>(display);
  {
    std::lock_guard lock(mutex);
    captureRequests.push_back({fake.index, pixelWidth, pixelHeight, showsCursor, jpegQuality});
  }
  return onCapture(fake.index, pixelWidth, pixelHeight);
}

void FakeDesktop::runMainLoop() { std::abort(); }

}  // namespace tervain::testing
