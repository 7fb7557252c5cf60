// main() of the desktop tests: one private desktop for the whole run, its environment (DISPLAY,
// the session bus, ...) copied into this process, torn down at the end.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>

#include "desktop_session.h"

namespace tervain::testing {
namespace {

std::string unavailable;

bool onPath(const std::string& program) {
  std::istringstream dirs(std::getenv("PATH") == nullptr ? "" : std::getenv("PATH"));
  for (std::string dir; std::getline(dirs, dir, ':');) {
    if (::access((dir + "/" + program).c_str(), X_OK) == 0) return true;
  }
  return false;
}

class DesktopEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    for (const char* program : {"Xvfb", "openbox", "dbus-run-session", "gtk3-widget-factory"}) {
      if (!onPath(program)) {
        unavailable = std::string(program) +
                      " is not installed: the desktop tests are skipped (scripts/deps installs it)";
        break;
      }
    }
    if (unavailable.empty()) {
      desktop = std::make_unique<DesktopSession>(std::vector<std::string>{});
      if (!desktop->ok()) unavailable = "no desktop: " + desktop->why();
      for (const auto& [name, value] : desktop->environment()) {
        for (const char* wanted : {"DISPLAY", "DBUS_SESSION_BUS_ADDRESS", "XDG_RUNTIME_DIR",
                                   "NO_AT_BRIDGE", "QT_LINUX_ACCESSIBILITY_ALWAYS_ON",
                                   "GSETTINGS_BACKEND"}) {
          if (name == wanted) ::setenv(name.c_str(), value.c_str(), 1);
        }
      }
    }
    // CI has every package: a desktop that cannot run there is a failure, not a skip.
    const char* required = std::getenv("TERVAIN_REQUIRE_DESKTOP");
    if (!unavailable.empty() && required != nullptr && std::string(required) == "1") {
      FAIL() << unavailable;
    }
  }

  void TearDown() override { desktop.reset(); }

 private:
  std::unique_ptr<DesktopSession> desktop;
};

}  // namespace

const std::string& desktopUnavailable() { return unavailable; }

}  // namespace tervain::testing

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  ::testing::AddGlobalTestEnvironment(new tervain::testing::DesktopEnvironment);
  return RUN_ALL_TESTS();
}
