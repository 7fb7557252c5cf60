#include "x_window.h"

#include <X11/Xatom.h>
#include <X11/Xutil.h>
#include <X11/keysym.h>
#include <poll.h>

#include <thread>
#include <utility>

namespace tervain::testing {

XWindow::XWindow(int x, int y, int width, int height, unsigned long colour) {
  connection = XOpenDisplay(nullptr);
  if (connection == nullptr) return;
  XSetWindowAttributes attributes{};
  attributes.background_pixel = colour;
  attributes.override_redirect = True;  // placed exactly where asked, no frame
  attributes.event_mask = KeyPressMask | KeyReleaseMask | ButtonPressMask | ButtonReleaseMask |
                          PointerMotionMask | ExposureMask | StructureNotifyMask;
  window = XCreateWindow(connection, DefaultRootWindow(connection), x, y,
                         static_cast<unsigned>(width), static_cast<unsigned>(height), 0,
                         CopyFromParent, InputOutput, CopyFromParent,
                         CWBackPixel | CWOverrideRedirect | CWEventMask, &attributes);
  XMapRaised(connection, window);
  // Mapped and drawn before anything is sent to it.
  for (int i = 0; i < 200; ++i) {
    XEvent event;
    if (XCheckTypedWindowEvent(connection, window, Expose, &event)) break;
    ::poll(nullptr, 0, 10);
  }
  // The window manager may still move the focus on its own: insist until it stays here.
  for (int i = 0; i < 100; ++i) {
    XSetInputFocus(connection, window, RevertToParent, CurrentTime);
    XSync(connection, False);
    ::poll(nullptr, 0, 5);
    Window focused = 0;
    int revert = 0;
    XGetInputFocus(connection, &focused, &revert);
    if (focused == window) break;
  }
  XEvent drop;
  while (XCheckMaskEvent(connection, ~0L, &drop)) {
  }
}

XWindow::~XWindow() {
  if (connection == nullptr) return;
  if (window != 0) XDestroyWindow(connection, window);
  XCloseDisplay(connection);
}

std::vector<XEvent> XWindow::events(std::size_t count, std::chrono::milliseconds within) {
  std::vector<XEvent> result;
  const auto deadline = std::chrono::steady_clock::now() + within;
  while (result.size() < count) {
    while (XPending(connection) > 0 && result.size() < count) {
      XEvent event;
      XNextEvent(connection, &event);
      if (event.type == MappingNotify) {
        XRefreshKeyboardMapping(&event.xmapping);
        continue;
      }
      if (event.type == Expose || event.type == MotionNotify) continue;
      if (event.type == KeyPress) {
        // The server's keymap as it is now, as a client sees it once it has handled the
        // mapping change that came before the key (Xlib's own cache may lag behind).
        int per = 0;
        KeySym* syms =
            XGetKeyboardMapping(connection, static_cast<KeyCode>(event.xkey.keycode), 1, &per);
        KeySym keysym = syms == nullptr ? NoSymbol : syms[0];
        if (syms != nullptr && (event.xkey.state & ShiftMask) != 0 && per > 1 &&
            syms[1] != NoSymbol) {
          keysym = syms[1];
        }
        if (syms != nullptr) XFree(syms);
        if (keysym == XK_Return) {
          typed += U'\n';
        } else if (keysym >= 0x1000000) {
          typed += static_cast<char32_t>(keysym & 0xffffff);
        } else if (keysym >= 0x20 && keysym <= 0xff) {
          typed += static_cast<char32_t>(keysym);
        } else if (keysym != XK_Shift_L) {
          typed += U'?';
        }
      }
      result.push_back(event);
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (result.size() >= count || left.count() <= 0) break;
    pollfd p{ConnectionNumber(connection), POLLIN, 0};
    ::poll(&p, 1, static_cast<int>(left.count()));
  }
  return result;
}

std::u32string XWindow::takeTypedText() { return std::exchange(typed, {}); }

std::optional<TopLevel> findTopLevel(Display* display, const std::string& resName,
                                     std::chrono::milliseconds within) {
  const Atom clients = XInternAtom(display, "_NET_CLIENT_LIST", False);
  const Atom pidAtom = XInternAtom(display, "_NET_WM_PID", False);
  const auto deadline = std::chrono::steady_clock::now() + within;
  while (std::chrono::steady_clock::now() < deadline) {
    Atom type = 0;
    int format = 0;
    unsigned long count = 0, after = 0;
    unsigned char* data = nullptr;
    if (XGetWindowProperty(display, DefaultRootWindow(display), clients, 0, 1024, False,
                           XA_WINDOW, &type, &format, &count, &after, &data) == Success &&
        data != nullptr) {
      const auto* windows = reinterpret_cast<const unsigned long*>(data);
      for (unsigned long i = 0; i < count; ++i) {
        XClassHint hint{};
        if (XGetClassHint(display, windows[i], &hint) == 0) continue;
        const bool factory = std::string(hint.res_name) == resName;
        XFree(hint.res_name);
        XFree(hint.res_class);
        if (!factory) continue;
        TopLevel found{windows[i]};
        ::Window child = 0;
        XTranslateCoordinates(display, found.id, DefaultRootWindow(display), 0, 0, &found.x,
                              &found.y, &child);
        unsigned char* pidData = nullptr;
        unsigned long n = 0;
        if (XGetWindowProperty(display, found.id, pidAtom, 0, 1, False, XA_CARDINAL, &type,
                               &format, &n, &after, &pidData) == Success && pidData != nullptr) {
          if (n == 1) found.pid = static_cast<pid_t>(*reinterpret_cast<unsigned long*>(pidData));
          XFree(pidData);
        }
        XFree(data);
        return found;
      }
      XFree(data);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return std::nullopt;
}

}  // namespace tervain::testing
