// Every build that is not for macOS serves a headless desktop.
#include "platform/headless_desktop.h"
#include "platform/platform_desktop.h"

namespace tervain {

Desktop& platformDesktop() {
  static HeadlessDesktop desktop;
  return desktop;
}

}  // namespace tervain
