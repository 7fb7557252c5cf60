#include "platform/x11/x11_capture.h"

#include <X11/Xutil.h>
#include <X11/extensions/Xfixes.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include <algorithm>
#include <memory>

namespace tervain::x11 {
namespace {

bool isBgrx(const XImage& image) {
  return image.bits_per_pixel == 32 && image.byte_order == LSBFirst &&
         image.red_mask == 0xff0000 && image.green_mask == 0xff00 && image.blue_mask == 0xff;
}

void destroyImage(XImage*& image) {
  if (image != nullptr) XDestroyImage(image);
  image = nullptr;
}

}  // namespace

Capture::~Capture() {
  connection.run([this](Display* display) {
    releaseSharedLocked(display);
    return true;
  });
  destroyImage(image);
}

void Capture::releaseSharedLocked(Display* display) {
  if (!shared) return;
  XShmDetach(display, &segment);
  XSync(display, False);
  ::shmdt(segment.shmaddr);
  image->data = nullptr;  // the segment, not Xlib's heap
  destroyImage(image);
  shared = false;
  segment = {};
  segmentBytes = 0;
}

// The server went away and a new one answers: the old one's segment and its verdict on shared
// memory mean nothing to it.
void Capture::forgetServerLocked() {
  if (shared) ::shmdt(segment.shmaddr);
  if (image != nullptr && shared) image->data = nullptr;
  destroyImage(image);
  shared = false;
  shmBroken = false;
  segment = {};
  segmentBytes = 0;
}

bool Capture::sharedMemory() {
  std::lock_guard lock(mutex);
  return connection.run([this](Display* display) {
    return !shmBroken && XShmQueryExtension(display) == True;
  });
}

bool Capture::grabLocked(Display* display, const Area& area, std::string& error) {
  if (generation != connection.generation()) {
    forgetServerLocked();
    generation = connection.generation();
  }
  const Window root = DefaultRootWindow(display);
  Screen* screen = DefaultScreenOfDisplay(display);
  if (area.width <= 0 || area.height <= 0 || area.x < 0 || area.y < 0 ||
      area.x + area.width > WidthOfScreen(screen) || area.y + area.height > HeightOfScreen(screen)) {
    error = "the area is outside the screen";
    return false;
  }
  if (!shmBroken && XShmQueryExtension(display) == True) {
    if (shared && (image->width != area.width || image->height != area.height) &&
        !resizeSharedLocked(display, screen, area)) {
      releaseSharedLocked(display);
    }
    if (!shared) {
      destroyImage(image);
      XShmSegmentInfo& info = segment;
      info = {};
      image = XShmCreateImage(display, DefaultVisualOfScreen(screen),
                              static_cast<unsigned>(DefaultDepthOfScreen(screen)), ZPixmap,
                              nullptr, &info, static_cast<unsigned>(area.width),
                              static_cast<unsigned>(area.height));
      if (image != nullptr) {
        // Room for the whole screen whatever this grab's size, so that later grabs of other
        // sizes reuse it; the kernel backs only the pages a grab writes.
        const std::size_t imageBytes = static_cast<std::size_t>(image->bytes_per_line) *
                                       static_cast<std::size_t>(image->height);
        const std::size_t screenBytes = static_cast<std::size_t>(WidthOfScreen(screen)) *
                                        static_cast<std::size_t>(HeightOfScreen(screen)) *
                                        static_cast<std::size_t>((image->bits_per_pixel + 7) / 8);
        segmentBytes = std::max(imageBytes, screenBytes);
        info.shmid = ::shmget(IPC_PRIVATE, segmentBytes, IPC_CREAT | 0600);
        info.shmaddr = info.shmid < 0 ? nullptr : static_cast<char*>(::shmat(info.shmid, nullptr, 0));
        info.readOnly = False;
        if (info.shmaddr != nullptr && info.shmaddr != reinterpret_cast<char*>(-1)) {
          image->data = info.shmaddr;
          Connection::takeRequestFailure();
          XShmAttach(display, &info);
          XSync(display, False);
          const bool refused = Connection::takeRequestFailure();
          // Removed now, freed when both sides have detached (also if we die).
          ::shmctl(info.shmid, IPC_RMID, nullptr);
          shared = !refused;
        } else if (info.shmid >= 0) {
          ::shmctl(info.shmid, IPC_RMID, nullptr);
        }
      }
      if (!shared) {
        if (image != nullptr && image->data == info.shmaddr) {
          ::shmdt(info.shmaddr);
          image->data = nullptr;
        }
        destroyImage(image);
        shmBroken = true;
      }
    }
    if (shared) {
      // A request with a reply: its error, if any, has come in when it returns.
      const bool got = XShmGetImage(display, root, image, area.x, area.y, AllPlanes) == True;
      if (!Connection::takeRequestFailure() && got) return true;
      // A server on another machine (or in another IPC namespace) cannot see the segment.
      releaseSharedLocked(display);
      shmBroken = true;
    }
  }
  destroyImage(image);
  image = XGetImage(display, root, area.x, area.y, static_cast<unsigned>(area.width),
                    static_cast<unsigned>(area.height), AllPlanes, ZPixmap);
  if (image == nullptr) {
    error = "XGetImage returned nothing";
    return false;
  }
  return true;
}

// A grab of another size (a region after the whole screen, or back) puts a new image header on
// the same segment when it fits. Making and faulting in a new segment costs far more than the
// grab itself (tens of milliseconds at 1080p), and hosts alternate region and full captures.
bool Capture::resizeSharedLocked(Display* display, Screen* screen, const Area& area) {
  XImage* resized = XShmCreateImage(display, DefaultVisualOfScreen(screen),
                                    static_cast<unsigned>(DefaultDepthOfScreen(screen)), ZPixmap,
                                    nullptr, &segment, static_cast<unsigned>(area.width),
                                    static_cast<unsigned>(area.height));
  if (resized == nullptr) return false;
  if (static_cast<std::size_t>(resized->bytes_per_line) * static_cast<std::size_t>(resized->height) >
      segmentBytes) {
    destroyImage(resized);
    return false;
  }
  resized->data = segment.shmaddr;
  image->data = nullptr;  // the segment, not Xlib's heap
  destroyImage(image);
  image = resized;
  return true;
}

void Capture::drawCursorLocked(Display* display, const Area& area) {
  int event = 0, errorBase = 0;
  if (!XFixesQueryExtension(display, &event, &errorBase)) return;
  XFixesCursorImage* cursor = XFixesGetCursorImage(display);
  if (cursor == nullptr) return;
  const int left = cursor->x - cursor->xhot - area.x;
  const int top = cursor->y - cursor->yhot - area.y;
  for (int row = std::max(0, -top); row < cursor->height && top + row < area.height; ++row) {
    auto* line = reinterpret_cast<std::uint8_t*>(image->data) +
                 static_cast<std::ptrdiff_t>(top + row) * image->bytes_per_line;
    for (int col = std::max(0, -left); col < cursor->width && left + col < area.width; ++col) {
      // Premultiplied ARGB in the low 32 bits of an unsigned long.
      const auto argb = static_cast<std::uint32_t>(cursor->pixels[row * cursor->width + col]);
      const std::uint32_t alpha = argb >> 24;
      if (alpha == 0) continue;
      std::uint8_t* px = line + static_cast<std::ptrdiff_t>(left + col) * 4;
      for (int c = 0; c < 3; ++c) {
        const std::uint32_t source = (argb >> (8 * c)) & 0xff;
        px[c] = static_cast<std::uint8_t>(std::min<std::uint32_t>(
            255, source + (px[c] * (255 - alpha) + 127) / 255));
      }
    }
  }
  XFree(cursor);
}

bool Capture::grab(const Area& area, bool withCursor,
                   const std::function<void(const Pixels&)>& use, std::string& error) {
  std::lock_guard lock(mutex);
  bool grabbed = false;
  // The grab, and the cursor's image after it, wait for their replies.
  const bool answered = connection.runAwaited([&](Display* display) {
    grabbed = grabLocked(display, area, error);
    if (grabbed && !isBgrx(*image)) {
      error = "the screen's visual is not 24-bit TrueColor (depth " +
              std::to_string(image->depth) + ", " + std::to_string(image->bits_per_pixel) +
              " bits a pixel)";
      grabbed = false;
    }
    if (grabbed && withCursor) drawCursorLocked(display, area);
    return grabbed;
  });
  if (!answered) {
    if (error.empty()) error = "the X display does not answer";
    return false;
  }
  // The pixels are ours until the next grab, which waits for this one's lock.
  use({reinterpret_cast<const std::uint8_t*>(image->data), image->width, image->height,
       image->bytes_per_line});
  return true;
}

}  // namespace tervain::x11
