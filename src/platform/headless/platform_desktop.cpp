// A build for neither macOS nor X11 serves a headless desktop.
#include "platform/headless_desktop.h"
#include "platform/platform_desktop.h"

namespace tervain {

Desktop* platformDesktop(std::string_view choice, std::string& problem) {
  static HeadlessDesktop desktop;
  if (choice == "x11") {
    problem = "this agent was built without the X11 libraries: --desktop x11 is not available";
    return nullptr;
  }
  return &desktop;
}

}  // namespace tervain
