#include "fake_desktop.h"

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace tervain::testing {
namespace {

std::string number(double v) {
  char text[64];
  std::snprintf(text, sizeof text, "%.17g", v);
  return text;
}

std::string point(Point at) { return "(" + number(at.x) + "," + number(at.y) + ")"; }

std::string buttonName(MouseButton button) {
  switch (button) {
    case MouseButton::left:
      return "left";
    case MouseButton::right:
      return "right";
    case MouseButton::center:
      return "center";
  }
  return "?";
}

std::string modifiersSuffix(Modifiers modifiers, bool always) {
  if (modifiers == 0 && !always) return {};
  char text[32];
  std::snprintf(text, sizeof text, " mods 0x%x", static_cast<unsigned>(modifiers));
  return text;
}

}  // namespace

std::string describe(const TimelineStep& step) {
  if (step.kind == TimelineStep::Kind::sleep) return "sleep " + std::to_string(step.micros);
  const FakeInput& e = step.input;
  switch (e.kind) {
    case FakeInput::Kind::move:
      return "move " + point(e.at) + (e.button ? " held " + buttonName(*e.button) : "") +
             modifiersSuffix(e.modifiers, false);
    case FakeInput::Kind::button:
      return std::string(e.down ? "press " : "release ") + buttonName(*e.button) + " " +
             point(e.at) + " click " + std::to_string(e.clickCount) +
             modifiersSuffix(e.modifiers, false);
    case FakeInput::Kind::scroll:
      return "scroll (" + std::to_string(e.vertical) + "," + std::to_string(e.horizontal) + ")" +
             modifiersSuffix(e.modifiers, false);
    case FakeInput::Kind::key:
      return "key " + std::to_string(e.keyCode) + (e.down ? " down" : " up") +
             modifiersSuffix(e.modifiers, true);
    case FakeInput::Kind::text:
      return "text " + std::to_string(e.text.size()) + " units";
  }
  return "?";
}

FakeDesktop::FakeDesktop() {
  onLaunch = [](const std::string&, std::function<void(LaunchResult)> done) { done({}); };
  onCapture = [](int, std::int64_t w, std::int64_t h) {
    CapturedImage image;
    image.bytes = std::string("\xFF\xD8\xFF\xE0 fake jpeg \xFF\xD9", 16);
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

std::vector<FakeDesktop::Capture> FakeDesktop::captures() const {
  std::lock_guard lock(mutex);
  return captureRequests;
}

std::vector<TimelineStep> FakeDesktop::timeline() const {
  std::lock_guard lock(mutex);
  return steps;
}

std::vector<FakeInput> FakeDesktop::posted() const {
  std::vector<FakeInput> events;
  for (const TimelineStep& step : timeline()) {
    if (step.kind == TimelineStep::Kind::post) events.push_back(step.input);
  }
  return events;
}

std::uint32_t FakeDesktop::totalSleepMicros() const {
  std::uint32_t total = 0;
  for (const TimelineStep& step : timeline()) total += step.micros;
  return total;
}


std::vector<DisplayInfo> FakeDesktop::displays(std::uint32_t maxDisplays) {
  std::vector<DisplayInfo> listed;
  for (const DisplayInfo& d : screens) {
    if (listed.size() == maxDisplays) break;
    listed.push_back(d);
  }
  return listed;
}

std::optional<Point> FakeDesktop::pointerLocation() { return pointer; }

bool FakeDesktop::post(FakeInput input) {
  if (refuseInput && refuseInput(input)) return false;
  std::lock_guard lock(mutex);
  steps.push_back({TimelineStep::Kind::post, std::move(input), 0});
  return true;
}

bool FakeDesktop::postPointerMove(Point at, std::optional<MouseButton> held, Modifiers mods) {
  return post({.kind = FakeInput::Kind::move, .at = at, .button = held, .modifiers = mods});
}

bool FakeDesktop::postMouseButton(MouseButton button, bool down, Point at, int clickCount,
                                  Modifiers mods) {
  return post({.kind = FakeInput::Kind::button, .at = at, .button = button, .down = down,
               .clickCount = clickCount, .modifiers = mods});
}

bool FakeDesktop::postScroll(std::int32_t verticalLines, std::int32_t horizontalLines,
                             Modifiers mods) {
  return post({.kind = FakeInput::Kind::scroll, .modifiers = mods, .vertical = verticalLines,
               .horizontal = horizontalLines});
}

bool FakeDesktop::postKey(std::uint16_t keyCode, bool down, Modifiers mods) {
  return post({.kind = FakeInput::Kind::key, .down = down, .modifiers = mods, .keyCode = keyCode});
}

bool FakeDesktop::typeText(const std::u16string& chunk) {
  return post({.kind = FakeInput::Kind::text, .text = chunk});
}

void FakeDesktop::sleepMicros(std::uint32_t micros) {
  std::lock_guard lock(mutex);
  steps.push_back({TimelineStep::Kind::sleep, FakeInput{}, micros});
}

ElementRef FakeDesktop::applicationElement(std::int32_t pid) {
  if (onApplicationElement) onApplicationElement(pid);
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

AXResult FakeDesktop::elementAtPoint(float x, float y, float timeoutSeconds, ElementRef& out) {
  {
    std::lock_guard lock(mutex);
    hitTests.push_back({x, y, timeoutSeconds});
  }
  if (elementAtResult == AXError::success) out = elementAt;
  return elementAtResult;
}

AXResult FakeDesktop::windowAction(const Element& window, WindowAction action, Point to) {
  std::lock_guard lock(mutex);
  windowCalls.push_back({idOf(window), action, to});
  return windowActionResult;
}

ClipboardText FakeDesktop::readClipboard() {
  std::lock_guard lock(mutex);
  return clipboard;
}

std::optional<std::string> FakeDesktop::writeClipboard(const std::string& text) {
  std::lock_guard lock(mutex);
  if (clipboardWriteError) return clipboardWriteError;
  clipboard = {text.empty() ? ClipboardText::Status::empty : ClipboardText::Status::text, text, {}};
  return std::nullopt;
}

std::optional<std::int32_t> FakeDesktop::frontmostApplicationPid() { return frontmost; }

std::optional<std::string> FakeDesktop::runningApplicationName(std::int32_t pid) {
  const auto it = applicationNames.find(pid);
  if (it == applicationNames.end()) return std::nullopt;
  return it->second;
}

void FakeDesktop::launchApplication(const std::string& name,
                                    std::function<void(LaunchResult)> completion) {
  {
    std::lock_guard lock(mutex);
    launched.push_back(name);
  }
  onLaunch(name, std::move(completion));
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

CapturedImage FakeDesktop::captureImage(const ShareableDisplay& display,
                                        const CaptureRequest& request) {
  const auto& fake = dynamic_cast<const FakeDisplay&>(display);
  {
    std::lock_guard lock(mutex);
    captureRequests.push_back({fake.index, request});
  }
  return onCapture(fake.index, request.pixelWidth, request.pixelHeight);
}

void FakeDesktop::runMainLoop() { std::abort(); }

}  // namespace tervain::testing
