// Screen capture of the root window: XShm (XGetImage when the server has no MIT-SHM or cannot
// share memory with us), the cursor composited from XFixes when asked, JPEG through
// libjpeg-turbo.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "platform/x11/image_encoding.h"
#include "platform/x11/x11_connection.h"

#include <X11/Xlib.h>
#include <X11/extensions/XShm.h>

namespace tervain::x11 {

// A rectangle of the root window, in pixels.
struct Area {
  int x = 0, y = 0, width = 0, height = 0;
};

class Capture {
 public:
  // Capture uses a connection of its own, so a capture never waits behind input.
  explicit Capture(Connection& connection) : connection(connection) {}
  ~Capture();
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;

  // Grabs the area (which must lie inside the root window), draws the cursor over it when
  // asked, and hands the pixels to use while they are valid. Captures run one at a time. Returns
  // false with the reason in error when the display does not answer, the area is outside the
  // screen, or the visual is not one use() can take.
  bool grab(const Area& area, bool withCursor, const std::function<void(const Pixels&)>& use,
            std::string& error);

  // True when grabs go through shared memory (for the benchmarks and the tests).
  bool sharedMemory();

 private:
  bool grabLocked(Display* display, const Area& area, std::string& error);
  void releaseSharedLocked(Display* display);
  bool resizeSharedLocked(Display* display, Screen* screen, const Area& area);
  void forgetServerLocked();
  void drawCursorLocked(Display* display, const Area& area);

  Connection& connection;
  std::mutex mutex;
  XImage* image = nullptr;  // the last grab (shared: reused while the size stays)
  bool shared = false;      // image lives in the shared segment below
  bool shmBroken = false;   // the server could not attach a segment: XGetImage from now on
  XShmSegmentInfo segment{};  // the shared image points here: it lives as long as the image
  std::size_t segmentBytes = 0;  // the segment's size: room for the whole screen
  std::uint64_t generation = 0;  // the connection's opening the state above belongs to
};

}  // namespace tervain::x11
