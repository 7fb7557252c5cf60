// A window of the test's own on the test desktop: a real X client that records the events the
// agent's input produces, and shows a known colour for the capture to find.
#pragma once

#include <X11/Xlib.h>

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace tervain::testing {

class XWindow {
 public:
  // A window at x, y of width x height in a solid colour (0xRRGGBB), above every other window
  // and with the keyboard focus. Uses a connection of its own.
  XWindow(int x, int y, int width, int height, unsigned long colour);
  ~XWindow();
  XWindow(const XWindow&) = delete;
  XWindow& operator=(const XWindow&) = delete;

  bool valid() const { return window != 0; }
  Display* display() const { return connection; }

  // Every event that arrives within the time, or until count events have come.
  std::vector<XEvent> events(std::size_t count, std::chrono::milliseconds within);
  // The characters of the key presses events() has read so far, and forgets them. Each is
  // looked up in the server's keymap as the event is read.
  std::u32string takeTypedText();

 private:
  Display* connection = nullptr;
  Window window = 0;
  std::u32string typed;
};

// A top-level window of an application, as the window manager lists it.
struct TopLevel {
  Window id = 0;
  int x = 0, y = 0;  // its origin on the screen
  pid_t pid = 0;     // _NET_WM_PID, 0 when not set
};

// The first top-level window whose WM_CLASS name is resName; nothing within the time.
std::optional<TopLevel> findTopLevel(Display* display, const std::string& resName,
                                     std::chrono::milliseconds within);

}  // namespace tervain::testing
