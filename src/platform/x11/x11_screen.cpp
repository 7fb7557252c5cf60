#include "platform/x11/x11_screen.h"

#include <X11/Xatom.h>
#include <X11/extensions/Xrandr.h>

namespace tervain::x11 {

std::vector<Monitor> monitors(Connection& connection) {
  std::vector<Monitor> result;
  const bool answered = connection.run([&result](Display* display) {
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
    return true;
  });
  if (!answered) return {};
  bool anyPrimary = false;
  for (const Monitor& m : result) anyPrimary = anyPrimary || m.primary;
  if (!anyPrimary) result.front().primary = true;
  return result;
}

std::optional<PointerPosition> pointer(Connection& connection) {
  PointerPosition position;
  const bool answered = connection.run([&position](Display* display) {
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

}  // namespace tervain::x11
