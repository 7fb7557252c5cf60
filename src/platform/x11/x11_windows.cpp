#include "platform/x11/x11_windows.h"

#include <X11/Xatom.h>
#include <X11/Xutil.h>

#include <algorithm>
#include <climits>
#include <cstdlib>

namespace tervain::x11 {
namespace {

constexpr long kMaxWindows = 4096;
constexpr long kPagerSource = 2;

// The 32-bit items of a window property of that type; empty when it has none.
std::vector<unsigned long> longsProperty(Display* display, Window window, const char* name,
                                         Atom type, long maxItems) {
  Atom actualType = 0;
  int format = 0;
  unsigned long count = 0, after = 0;
  unsigned char* data = nullptr;
  std::vector<unsigned long> out;
  if (XGetWindowProperty(display, window, XInternAtom(display, name, False), 0, maxItems, False,
                         type, &actualType, &format, &count, &after, &data) == Success &&
      data != nullptr && format == 32 && actualType == type) {
    const auto* items = reinterpret_cast<const unsigned long*>(data);  // Xlib widens to long
    out.assign(items, items + count);
  }
  if (data != nullptr) XFree(data);
  return out;
}

std::string titleOf(Display* display, Window window) {
  Atom actualType = 0;
  int format = 0;
  unsigned long count = 0, after = 0;
  unsigned char* data = nullptr;
  std::string title;
  const Atom utf8 = XInternAtom(display, "UTF8_STRING", False);
  if (XGetWindowProperty(display, window, XInternAtom(display, "_NET_WM_NAME", False), 0, 4096,
                         False, utf8, &actualType, &format, &count, &after, &data) == Success &&
      data != nullptr && format == 8 && actualType == utf8) {
    title.assign(reinterpret_cast<const char*>(data), count);
  }
  if (data != nullptr) XFree(data);
  if (!title.empty()) return title;
  char* name = nullptr;
  if (XFetchName(display, window, &name) != 0 && name != nullptr) title = name;
  if (name != nullptr) XFree(name);
  return title;
}

std::vector<Window> clientList(Display* display) {
  std::vector<Window> out;
  for (const unsigned long w : longsProperty(display, DefaultRootWindow(display),
                                             "_NET_CLIENT_LIST", XA_WINDOW, kMaxWindows)) {
    out.push_back(static_cast<Window>(w));
  }
  return out;
}

std::optional<std::int32_t> pidOf(Display* display, Window window) {
  const auto pid = longsProperty(display, window, "_NET_WM_PID", XA_CARDINAL, 1);
  if (pid.empty()) return std::nullopt;
  return static_cast<std::int32_t>(pid[0]);
}

// A client message to the root window, as EWMH asks of pagers.
bool sendToRoot(Connection& connection, Window window, const char* type,
                std::initializer_list<long> data) {
  return connection.run([&](Display* display) {
    XEvent event{};
    event.xclient.type = ClientMessage;
    event.xclient.window = window;
    event.xclient.message_type = XInternAtom(display, type, False);
    event.xclient.format = 32;
    int i = 0;
    for (const long item : data) event.xclient.data.l[i++] = item;
    return XSendEvent(display, DefaultRootWindow(display), False,
                      SubstructureRedirectMask | SubstructureNotifyMask, &event) != 0;
  });
}

}  // namespace

std::vector<ClientWindow> clientWindowsOf(Connection& connection, std::int32_t pid) {
  std::vector<ClientWindow> out;
  connection.run([&](Display* display) {
    const Window root = DefaultRootWindow(display);
    for (const Window window : clientList(display)) {
      if (pidOf(display, window) != pid) continue;
      ClientWindow client;
      client.id = window;
      client.title = titleOf(display, window);
      XWindowAttributes attributes{};
      Window child = 0;
      if (XGetWindowAttributes(display, window, &attributes) == 0 ||
          XTranslateCoordinates(display, window, root, 0, 0, &client.x, &client.y, &child) ==
              False) {
        Connection::takeRequestFailure();  // the window went away meanwhile
        continue;
      }
      const auto extents = longsProperty(display, window, "_NET_FRAME_EXTENTS", XA_CARDINAL, 4);
      if (extents.size() == 4) {
        client.left = static_cast<int>(extents[0]);
        client.right = static_cast<int>(extents[1]);
        client.top = static_cast<int>(extents[2]);
        client.bottom = static_cast<int>(extents[3]);
      }
      client.x -= client.left;
      client.y -= client.top;
      client.width = attributes.width + client.left + client.right;
      client.height = attributes.height + client.top + client.bottom;
      out.push_back(std::move(client));
    }
    return true;
  });
  return out;
}

std::optional<ClientWindow> matchWindow(const std::vector<ClientWindow>& candidates,
                                        const std::string& title, std::optional<int> frameX,
                                        std::optional<int> frameY) {
  if (candidates.empty()) return std::nullopt;
  if (candidates.size() == 1) return candidates.front();
  // An empty title says nothing: an untitled window must not win over the nearest one.
  std::vector<const ClientWindow*> named;
  for (const ClientWindow& c : candidates) {
    if (!title.empty() && c.title == title) named.push_back(&c);
  }
  if (named.empty()) {
    for (const ClientWindow& c : candidates) named.push_back(&c);
  }
  if (!frameX || !frameY) return *named.front();
  const auto distance = [&](const ClientWindow* c) {
    return static_cast<long long>(std::llabs(static_cast<long long>(c->x) - *frameX)) +
           std::llabs(static_cast<long long>(c->y) - *frameY);
  };
  return **std::min_element(named.begin(), named.end(),
                            [&](auto* a, auto* b) { return distance(a) < distance(b); });
}

bool activateWindow(Connection& connection, Window window) {
  return sendToRoot(connection, window, "_NET_ACTIVE_WINDOW", {kPagerSource, CurrentTime, 0});
}

bool minimizeWindow(Connection& connection, Window window) {
  return connection.run([window](Display* display) {
    return XIconifyWindow(display, window, DefaultScreen(display)) != 0;
  });
}

bool unminimizeWindow(Connection& connection, Window window) {
  // Mapping takes an iconic window back to the normal state (ICCCM); activating raises it.
  return connection.run([window](Display* display) {
    XMapWindow(display, window);
    return true;
  }) && activateWindow(connection, window);
}

bool closeWindow(Connection& connection, Window window) {
  return sendToRoot(connection, window, "_NET_CLOSE_WINDOW", {CurrentTime, kPagerSource});
}

bool moveWindow(Connection& connection, const ClientWindow& window, int x, int y) {
  // Static gravity: x and y place the client itself, whatever the frame; the frame's extents
  // turn the outer frame's position into the client's.
  constexpr long kStaticGravity = 10;
  constexpr long kFlags = kStaticGravity | (1L << 8) | (1L << 9) | (kPagerSource << 12);
  return sendToRoot(
      connection, window.id, "_NET_MOVERESIZE_WINDOW",
      {kFlags, static_cast<long>(x) + window.left, static_cast<long>(y) + window.top, 0, 0});
}

bool resizeWindow(Connection& connection, const ClientWindow& window, int width, int height) {
  constexpr long kFlags = (1L << 10) | (1L << 11) | (kPagerSource << 12);
  const long w = std::max(1L, static_cast<long>(width) - window.left - window.right);
  const long h = std::max(1L, static_cast<long>(height) - window.top - window.bottom);
  return sendToRoot(connection, window.id, "_NET_MOVERESIZE_WINDOW", {kFlags, 0, 0, w, h});
}

std::optional<std::vector<std::int32_t>> clientPids(Connection& connection) {
  std::optional<std::vector<std::int32_t>> pids;
  connection.run([&](Display* display) {
    const Atom list = XInternAtom(display, "_NET_CLIENT_LIST", False);
    int count = 0;
    Atom* properties = XListProperties(display, DefaultRootWindow(display), &count);
    const bool kept = properties != nullptr &&
                      std::find(properties, properties + count, list) != properties + count;
    if (properties != nullptr) XFree(properties);
    if (!kept) return true;
    pids.emplace();
    for (const Window window : clientList(display)) {
      const auto pid = pidOf(display, window);
      if (pid && std::find(pids->begin(), pids->end(), *pid) == pids->end()) {
        pids->push_back(*pid);
      }
    }
    Connection::takeRequestFailure();  // a window that went away meanwhile has no pid
    return true;
  });
  return pids;
}

}  // namespace tervain::x11
