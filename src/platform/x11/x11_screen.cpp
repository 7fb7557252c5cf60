#include "platform/x11/x11_screen.h"

#include <algorithm>

#include <X11/Xatom.h>
#include <X11/extensions/Xrandr.h>

namespace tervain::x11 {

namespace {

// The monitors as the server reports them now; the last request waits for its reply.
void fetchMonitors(Display* display, std::vector<Monitor>& result) {
  result.clear();
  const Window root = DefaultRootWindow(display);
  int event = 0, error = 0;
  if (XRRQueryExtension(display, &event, &error)) {
    int count = 0;
    XRRMonitorInfo* info = XRRGetMonitors(display, root, True, &count);
    for (int i = 0; info != nullptr && i < count; ++i) {
      result.push_back({static_cast<std::uint32_t>(info[i].name), info[i].x, info[i].y,
                        info[i].width, info[i].height, info[i].primary != 0});
    }
    if (info != nullptr) XRRFreeMonitors(info);
  }
  if (result.empty()) {
    Screen* screen = DefaultScreenOfDisplay(display);
    result.push_back({0, 0, 0, WidthOfScreen(screen), HeightOfScreen(screen), true});
  }
  bool anyPrimary = false;
  for (const Monitor& m : result) anyPrimary = anyPrimary || m.primary;
  if (!anyPrimary) result.front().primary = true;
}

}  // namespace

std::vector<Monitor> MonitorList::current() {
  std::lock_guard lock(mutex);
  const bool answered = connection.runAwaited([this](Display* display) {
    bool stale = cached.empty() || generation != connection.generation();
    if (generation != connection.generation()) {
      int event = 0, error = 0;
      if (XRRQueryExtension(display, &event, &error)) {
        XRRSelectInput(display, DefaultRootWindow(display),
                       RRScreenChangeNotifyMask | RRCrtcChangeNotifyMask |
                           RROutputChangeNotifyMask);
      }
      generation = connection.generation();
    }
    // What the server has sent, read without waiting: only RandR's notices come here, and any
    // of them means the list changed. (A server that hung up shows here too.)
    for (int i = 0; i < 10'000 && XEventsQueued(display, QueuedAfterReading) > 0; ++i) {
      XEvent event;
      XNextEvent(display, &event);
      stale = true;
    }
    if (stale) fetchMonitors(display, cached);
    return true;
  });
  if (!answered) {
    cached.clear();
    return {};
  }
  return cached;
}

std::optional<PointerPosition> pointer(Connection& connection) {
  PointerPosition position;
  // One request, whose reply says the server has handled it: no further round trip.
  const bool answered = connection.runAwaited([&position](Display* display) {
    Window rootReturn = 0, child = 0;
    int windowX = 0, windowY = 0;
    return XQueryPointer(display, DefaultRootWindow(display), &rootReturn, &child, &position.x,
                         &position.y, &windowX, &windowY, &position.buttonsAndModifiers) == True;
  });
  if (!answered) return std::nullopt;
  return position;
}

namespace {

// The first 32-bit item of a window property, when it has one of the type.
std::optional<unsigned long> cardinalProperty(Display* display, Window window, const char* name,
                                              Atom type) {
  Atom actualType = 0;
  int format = 0;
  unsigned long count = 0, after = 0;
  unsigned char* data = nullptr;
  const Atom property = XInternAtom(display, name, False);
  std::optional<unsigned long> value;
  if (XGetWindowProperty(display, window, property, 0, 1, False, type, &actualType, &format,
                         &count, &after, &data) == Success &&
      data != nullptr && count == 1 && format == 32) {
    value = *reinterpret_cast<const unsigned long*>(data);  // Xlib widens 32-bit items to long
  }
  if (data != nullptr) XFree(data);
  return value;
}

}  // namespace

std::optional<std::int32_t> activeWindowPid(Connection& connection) {
  std::optional<std::int32_t> pid;
  connection.run([&pid](Display* display) {
    const auto window =
        cardinalProperty(display, DefaultRootWindow(display), "_NET_ACTIVE_WINDOW", XA_WINDOW);
    if (!window || *window == 0) return true;
    if (const auto value = cardinalProperty(display, *window, "_NET_WM_PID", XA_CARDINAL)) {
      pid = static_cast<std::int32_t>(*value);
    }
    return true;
  });
  return pid;
}

std::vector<std::int32_t> pidsOfWindowsAt(Connection& connection, int x, int y) {
  std::vector<std::int32_t> pids;
  connection.run([&](Display* display) {
    const Window root = DefaultRootWindow(display);
    Atom actualType = 0;
    int format = 0;
    unsigned long count = 0, after = 0;
    unsigned char* data = nullptr;
    const Atom list = XInternAtom(display, "_NET_CLIENT_LIST_STACKING", False);
    constexpr long kMaxWindows = 4096;
    if (XGetWindowProperty(display, root, list, 0, kMaxWindows, False, XA_WINDOW, &actualType,
                           &format, &count, &after, &data) != Success ||
        data == nullptr || format != 32) {
      if (data != nullptr) XFree(data);
      return true;
    }
    // Bottom to top in the list: walk it backwards for topmost first.
    const auto* windows = reinterpret_cast<const unsigned long*>(data);
    for (unsigned long i = count; i-- > 0;) {
      const Window window = windows[i];
      XWindowAttributes attributes{};
      if (XGetWindowAttributes(display, window, &attributes) == 0 ||
          attributes.map_state != IsViewable) {
        continue;
      }
      int left = 0, top = 0;
      Window child = 0;
      if (XTranslateCoordinates(display, window, root, 0, 0, &left, &top, &child) == False) {
        continue;
      }
      if (x < left || y < top || x >= left + attributes.width || y >= top + attributes.height) {
        continue;
      }
      const auto pid = cardinalProperty(display, window, "_NET_WM_PID", XA_CARDINAL);
      if (!pid) continue;
      const auto value = static_cast<std::int32_t>(*pid);
      if (std::find(pids.begin(), pids.end(), value) == pids.end()) pids.push_back(value);
    }
    XFree(data);
    return true;
  });
  return pids;
}

}  // namespace tervain::x11
