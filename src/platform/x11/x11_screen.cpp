#include "platform/x11/x11_screen.h"

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

}  // namespace tervain::x11
