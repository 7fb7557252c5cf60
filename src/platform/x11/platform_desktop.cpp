// Linux with the X11 libraries: the X11 desktop or the headless one, as --desktop says.
#include "platform/platform_desktop.h"

#include <cstdlib>

#include "platform/headless_desktop.h"
#include "platform/x11/x11_desktop.h"

namespace tervain {

Desktop* platformDesktop(std::string_view choice, std::string& problem) {
  // Made once, on the first call, and kept for the life of the process.
  static X11Desktop x11;
  static HeadlessDesktop headless;
  if (choice == "x11") return &x11;
  if (choice == "headless") return &headless;
  if (choice == "auto") {
    const char* display = std::getenv("DISPLAY");
    // A display that answers now; one that stops answering later shows in the grants.
    if (display != nullptr && display[0] != '\0' && x11.screenCaptureAccess()) return &x11;
    return &headless;
  }
  problem = "--desktop takes x11, headless or auto";
  return nullptr;
}

}  // namespace tervain
