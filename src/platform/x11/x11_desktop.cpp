#include "platform/x11/x11_desktop.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <fstream>
#include <map>
#include <thread>
#include <utility>

#include "platform/x11/x11_keys.h"
#include "platform/x11/x11_screen.h"
#include "platform/x11/x11_windows.h"

// Xlib defines Status as a macro; the seam's LaunchResult::Status and CapturedImage::Status
// are what this file means.
#undef Status

namespace tervain {
namespace {

// One monitor as the capture side lists it.
class X11Display final : public ShareableDisplay {
 public:
  explicit X11Display(const x11::Monitor& monitor) : monitor(monitor) {}
  x11::Monitor monitor;
};

x11::ModifierKeys modifierKeys(Modifiers modifiers) {
  x11::ModifierKeys keys = 0;
  if (modifiers & Modifier::shift) keys |= x11::ModifierKey::shift;
  if (modifiers & Modifier::control) keys |= x11::ModifierKey::control;
  if (modifiers & Modifier::option) keys |= x11::ModifierKey::alt;
  if (modifiers & Modifier::command) keys |= x11::ModifierKey::super;
  return keys;
}

// Root window pixels of a point; coordinates outside int's range are clamped (X clamps to the
// screen anyway).
int pixel(double coordinate) {
  if (!std::isfinite(coordinate)) return 0;
  return static_cast<int>(std::clamp(std::round(coordinate), -1e9, 1e9));
}

unsigned int buttonNumber(MouseButton button) {
  switch (button) {
    case MouseButton::left: return 1;
    case MouseButton::center: return 2;
    case MouseButton::right: return 3;
  }
  return 1;
}

// A surrogate pair may be split between two chunks: the high half waits here, per thread (one
// request at a time runs on a connection's thread), for the chunk after it.
thread_local char16_t pendingHighSurrogate = 0;

std::u32string codePoints(const std::u16string& chunk) {
  std::u32string out;
  for (const char16_t unit : chunk) {
    if (pendingHighSurrogate != 0) {
      const char16_t high = std::exchange(pendingHighSurrogate, 0);
      if (unit >= 0xdc00 && unit <= 0xdfff) {
        out += static_cast<char32_t>(0x10000 + ((high - 0xd800) << 10) + (unit - 0xdc00));
        continue;
      }
      out += U'\uFFFD';
    }
    if (unit >= 0xd800 && unit <= 0xdbff) {
      pendingHighSurrogate = unit;
    } else if (unit >= 0xdc00 && unit <= 0xdfff) {
      out += U'\uFFFD';
    } else {
      out += unit;
    }
  }
  return out;
}

}  // namespace

X11Desktop::X11Desktop(std::string displayName)
    : inputConnection(displayName), captureConnection(displayName), clipboard(displayName) {
  // AT-SPI knows every application's windows but not which lies on top at a point; the window
  // manager's stacking list does.
  accessibility.setWindowStack([this](double x, double y) {
    return x11::pidsOfWindowsAt(inputConnection, static_cast<int>(x), static_cast<int>(y));
  });
}

bool X11Desktop::accessibilityTrusted() { return accessibility.busReachable(); }

bool X11Desktop::screenCaptureAccess() { return captureConnection.answers(); }

bool X11Desktop::postEventAccess() { return input.available(); }

std::vector<DisplayInfo> X11Desktop::displays(std::uint32_t maxDisplays) {
  std::vector<DisplayInfo> result;
  // The capture's list, kept up to date by RandR's notices: a ping asks the server nothing.
  for (const x11::Monitor& m : captureMonitors.current()) {
    if (result.size() == maxDisplays) break;
    result.push_back({m.id, m.width, m.height, m.primary});
  }
  return result;
}

std::optional<Point> X11Desktop::pointerLocation() {
  const auto at = x11::pointer(inputConnection);
  if (!at) return std::nullopt;
  return Point{static_cast<double>(at->x), static_cast<double>(at->y)};
}

Modifiers X11Desktop::supportedModifiers() const {
  // X has no fn key: it never reaches applications as a modifier.
  return Modifier::shift | Modifier::control | Modifier::option | Modifier::command;
}

bool X11Desktop::postPointerMove(Point at, std::optional<MouseButton>, Modifiers modifiers) {
  // The server knows which buttons are down: a motion with one held is a drag by itself.
  return input.moveTo(pixel(at.x), pixel(at.y), modifierKeys(modifiers));
}

bool X11Desktop::postMouseButton(MouseButton button, bool down, Point at, int,
                                 Modifiers modifiers) {
  // X buttons act where the pointer is, and clients count multiple clicks by their timing.
  return input.moveTo(pixel(at.x), pixel(at.y)) &&
         input.button(buttonNumber(button), down, modifierKeys(modifiers));
}

bool X11Desktop::postScroll(std::int32_t verticalLines, std::int32_t horizontalLines,
                            Modifiers modifiers) {
  return input.scroll(verticalLines, horizontalLines, modifierKeys(modifiers));
}

bool X11Desktop::postKey(std::uint16_t keyCode, bool down, Modifiers modifiers) {
  const auto keysym = x11::keysymForKeyCode(keyCode);
  return keysym && input.key(*keysym, down, modifierKeys(modifiers));
}

bool X11Desktop::typeText(const std::u16string& chunk) {
  const std::u32string text = codePoints(chunk);
  return text.empty() || input.type(text);
}

void X11Desktop::sleepMicros(std::uint32_t micros) {
  std::this_thread::sleep_for(std::chrono::microseconds(micros));
}

ElementRef X11Desktop::applicationElement(std::int32_t pid) {
  return accessibility.applicationElement(pid);
}

AXResult X11Desktop::setMessagingTimeout(const Element& element, float seconds) {
  return accessibility.setMessagingTimeout(element, seconds);
}

AXResult X11Desktop::copyAttributeValue(const Element& element, const std::string& attribute,
                                        AXValue& out) {
  return accessibility.copyAttributeValue(element, attribute, out);
}

void X11Desktop::copyAttributeValues(const std::vector<ElementRef>& elements,
                                     const std::vector<std::string>& attributes,
                                     std::vector<std::vector<std::pair<AXResult, AXValue>>>& out,
                                     std::vector<std::pair<AXResult, AXValue>>* actionNames) {
  accessibility.copyAttributeValues(elements, attributes, out, actionNames);
  fillWindowTitles(elements, attributes, out);
}

// A GTK window with a header bar has no accessible name, while the window manager shows it a
// title: a window (AXRole AXWindow, when the role is read with the title) whose AXTitle reads
// empty gets its X window's, matched as window actions match it (its application's client
// windows, the nearest to its frame when AXPosition is read too).
void X11Desktop::fillWindowTitles(const std::vector<ElementRef>& elements,
                                  const std::vector<std::string>& attributes,
                                  std::vector<std::vector<std::pair<AXResult, AXValue>>>& out) {
  const auto column = [&](const char* name) -> std::optional<std::size_t> {
    const auto at = std::find(attributes.begin(), attributes.end(), name);
    if (at == attributes.end()) return std::nullopt;
    return static_cast<std::size_t>(at - attributes.begin());
  };
  const auto title = column("AXTitle");
  const auto role = column("AXRole");
  if (!title || !role) return;
  const auto position = column("AXPosition");
  std::map<std::int32_t, std::vector<x11::ClientWindow>> windowsOfPid;
  for (std::size_t i = 0; i < elements.size() && i < out.size(); ++i) {
    auto& row = out[i];
    const auto* roleName = std::get_if<std::string>(&row[*role].second);
    const auto* text = std::get_if<std::string>(&row[*title].second);
    const bool untitled = (row[*title].first == AXError::success && text != nullptr &&
                           text->empty()) ||
                          row[*title].first == AXError::noValue;
    if (!elements[i] || !untitled || row[*role].first != AXError::success ||
        roleName == nullptr || *roleName != "AXWindow") {
      continue;
    }
    const auto pid = accessibility.pidOfElement(*elements[i]);
    if (!pid) continue;
    auto [known, fresh] = windowsOfPid.try_emplace(*pid);
    if (fresh) known->second = x11::clientWindowsOf(inputConnection, *pid);
    const Point* at = nullptr;
    if (position && row[*position].first == AXError::success) {
      at = std::get_if<Point>(&row[*position].second);
    }
    const auto window = x11::matchWindow(known->second, "",
                                         at ? std::optional<int>(pixel(at->x)) : std::nullopt,
                                         at ? std::optional<int>(pixel(at->y)) : std::nullopt);
    if (window && !window->title.empty()) row[*title] = {AXError::success, window->title};
  }
}

AXResult X11Desktop::copyActionNames(const Element& element, AXValue& out) {
  return accessibility.copyActionNames(element, out);
}

AXResult X11Desktop::performAction(const Element& element, const std::string& action) {
  return accessibility.performAction(element, action);
}

AXResult X11Desktop::isAttributeSettable(const Element& element, const std::string& attribute,
                                         bool& settable) {
  return accessibility.isAttributeSettable(element, attribute, settable);
}

AXResult X11Desktop::setAttributeValue(const Element& element, const std::string& attribute,
                                       const AXWritableValue& value) {
  return accessibility.setAttributeValue(element, attribute, value);
}

AXResult X11Desktop::elementAtPoint(float x, float y, float timeoutSeconds, ElementRef& out) {
  return accessibility.elementAtPoint(x, y, timeoutSeconds, out);
}

AXResult X11Desktop::windowAction(const Element& window, WindowAction action, Point to) {
  const auto pid = accessibility.pidOfElement(window);
  if (!pid) return AXError::invalidUIElement;
  std::vector<std::vector<std::pair<AXResult, AXValue>>> reads;
  const ElementRef handle(std::shared_ptr<const Element>(), &window);  // not owned
  accessibility.copyAttributeValues({handle}, {"AXTitle", "AXPosition"}, reads);
  if (reads[0][0].first == AXError::invalidUIElement) return AXError::invalidUIElement;
  const auto* title = std::get_if<std::string>(&reads[0][0].second);
  const auto* at = std::get_if<Point>(&reads[0][1].second);
  const auto target =
      x11::matchWindow(x11::clientWindowsOf(inputConnection, *pid), title ? *title : "",
                       at ? std::optional<int>(pixel(at->x)) : std::nullopt,
                       at ? std::optional<int>(pixel(at->y)) : std::nullopt);
  if (!target) return AXError::failure;  // no client window of that application
  bool sent = false;
  switch (action) {
    case WindowAction::raise: sent = x11::activateWindow(inputConnection, target->id); break;
    case WindowAction::minimize: sent = x11::minimizeWindow(inputConnection, target->id); break;
    case WindowAction::unminimize:
      sent = x11::unminimizeWindow(inputConnection, target->id);
      break;
    case WindowAction::close: sent = x11::closeWindow(inputConnection, target->id); break;
    case WindowAction::move:
      sent = x11::moveWindow(inputConnection, *target, pixel(to.x), pixel(to.y));
      break;
    case WindowAction::resize:
      sent = x11::resizeWindow(inputConnection, *target, pixel(to.x), pixel(to.y));
      break;
  }
  return sent ? AXError::success : AXError::cannotComplete;
}

ClipboardText X11Desktop::readClipboard() { return clipboard.read(); }

std::optional<std::string> X11Desktop::writeClipboard(const std::string& text) {
  return clipboard.write(text);
}

std::vector<std::int32_t> X11Desktop::regularApplicationPids() {
  std::vector<std::int32_t> pids = accessibility.applicationPids();
  // Without the window manager's list, every application on the bus counts.
  if (const auto withWindows = x11::clientPids(inputConnection)) {
    std::erase_if(pids, [&](std::int32_t pid) {
      return std::find(withWindows->begin(), withWindows->end(), pid) == withWindows->end();
    });
  }
  return pids;
}

// The window manager's active window, else the application of AT-SPI's active frame.
std::optional<std::int32_t> X11Desktop::frontmostApplicationPid() {
  if (const auto pid = x11::activeWindowPid(inputConnection)) return pid;
  return accessibility.frontmostApplicationPid();
}

// The application's name on the accessibility bus ("gtk3-widget-factory"), else the process's
// own name, which the kernel cuts at 15 bytes.
std::optional<std::string> X11Desktop::runningApplicationName(std::int32_t pid) {
  if (auto name = accessibility.runningApplicationName(pid)) return name;
  std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
  std::string name;
  if (!comm || !std::getline(comm, name) || name.empty()) return std::nullopt;
  return name;
}

void X11Desktop::launchApplication(const std::string& name,
                                   std::function<void(LaunchResult)> completion) {
  const auto target = x11::resolveApplication(name, launchEnvironment);
  if (!target) {
    completion({LaunchResult::Status::notFound,
                "no desktop entry or program of that name"});
    return;
  }
  if (const int error = x11::startDetached(*target, launchEnvironment)) {
    completion({LaunchResult::Status::failed, std::strerror(error)});
    return;
  }
  completion({LaunchResult::Status::launched, {}});
}

ShareableContent X11Desktop::copyShareableContent() {
  ShareableContent content;
  const std::vector<x11::Monitor> monitors = captureMonitors.current();
  if (monitors.empty()) {
    content.error = "the X display does not answer";
    return content;
  }
  for (const x11::Monitor& m : monitors) content.displays.push_back(std::make_shared<X11Display>(m));
  return content;
}

ContentFilterGeometry X11Desktop::contentFilterGeometry(const ShareableDisplay& display) {
  const auto& m = static_cast<const X11Display&>(display).monitor;
  return {static_cast<double>(m.width), static_cast<double>(m.height), 1.0f};
}

CapturedImage X11Desktop::captureImage(const ShareableDisplay& display,
                                       const CaptureRequest& request) {
  const auto& m = static_cast<const X11Display&>(display).monitor;
  CapturedImage image;
  x11::Area area{m.x, m.y, m.width, m.height};
  if (request.region) {
    // Points relative to the display are pixels on X11; the region is cut to the display.
    const int left = std::clamp(pixel(request.region->x), 0, m.width);
    const int top = std::clamp(pixel(request.region->y), 0, m.height);
    const int right = std::clamp(pixel(request.region->x + request.region->width), left, m.width);
    const int bottom = std::clamp(pixel(request.region->y + request.region->height), top, m.height);
    area = {m.x + left, m.y + top, right - left, bottom - top};
  }
  const int width = static_cast<int>(std::clamp<std::int64_t>(request.pixelWidth, 1, 1 << 15));
  const int height = static_cast<int>(std::clamp<std::int64_t>(request.pixelHeight, 1, 1 << 15));
  const int quality = static_cast<int>(std::lround(request.quality * 100));

  std::vector<std::uint8_t> scaled;
  x11::Encoded encoded;
  std::string error;
  const bool grabbed = capture.grab(area, request.showsCursor, [&](const x11::Pixels& pixels) {
    x11::Pixels source = pixels;
    if (pixels.width != width || pixels.height != height) {
      source = x11::scaleNearest(pixels, width, height, scaled);
    }
    encoded = request.format == ImageFormat::png ? x11::encodePng(source)
                                                 : jpeg.encode(source, quality);
  }, error);
  if (!grabbed) {
    image.status = CapturedImage::Status::captureFailed;
    image.error = error;
    return image;
  }
  if (!encoded.ok) {
    image.status = CapturedImage::Status::encodingFailed;
    image.error = encoded.error;
    return image;
  }
  image.bytes = std::move(encoded.bytes);
  image.width = width;
  image.height = height;
  return image;
}

void X11Desktop::runMainLoop() {
  for (;;) ::pause();
}

}  // namespace tervain
