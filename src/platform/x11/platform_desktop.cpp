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
  if (choice == "headless") return &headless;
  if (choice != "x11" && choice != "auto") {
    problem = "--desktop takes x11, headless or auto";
    return nullptr;
  }
  const char* display = std::getenv("DISPLAY");
  const bool named = display != nullptr && display[0] != '\0';
  // A display that answers now; one that stops answering later shows in the grants, and comes
  // back when it answers again.
  if (named && x11.screenCaptureAccess()) return &x11;
  const std::string why = named ? "the X display " + std::string(display) + " does not answer"
                                : "DISPLAY names no X display";
  if (choice == "x11") {
    problem = why + ": cannot serve --desktop x11";
    return nullptr;
  }
  // Without DISPLAY, headless is simply what this machine is; with one, the fallback is news.
  if (named) problem = why + ": serving the headless desktop";
  return &headless;
}

}  // namespace tervain
