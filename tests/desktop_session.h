// A private headless desktop: scripts/desktop running the named applications until the session
// is destroyed. The desktop ends when the session closes the pipe it holds, so a test process
// that dies takes its desktop with it. The desktop tests run in one shared by the whole binary
// (its main starts it and copies its environment into the process); a group of tests that needs
// applications of its own starts another.
#pragma once

#include <sys/types.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace tervain::testing {

class DesktopSession {
 public:
  // Starts the desktop and the applications (program names, run without arguments) and waits,
  // bounded, until the desktop reports its environment. ok() tells whether it came up.
  explicit DesktopSession(const std::vector<std::string>& applications);
  ~DesktopSession();
  DesktopSession(const DesktopSession&) = delete;
  DesktopSession& operator=(const DesktopSession&) = delete;

  bool ok() const { return failure.empty(); }
  const std::string& why() const { return failure; }
  // The environment of the desktop's applications (DISPLAY, DBUS_SESSION_BUS_ADDRESS, ...).
  const std::map<std::string, std::string>& environment() const { return env; }
  // The accessibility bus's address.
  const std::string& accessibilityBus() const { return bus; }
  // The applications' pids, in the order given.
  const std::vector<pid_t>& pids() const { return applicationPids; }

 private:
  pid_t script = -1;
  int holdFd = -1;  // the command's standard input: closing it ends the desktop
  std::string dir;
  std::string failure;
  std::map<std::string, std::string> env;
  std::string bus;
  std::vector<pid_t> applicationPids;
};

// Why the shared desktop of the desktop tests cannot run here (empty when it can).
const std::string& desktopUnavailable();

}  // namespace tervain::testing

// At the top of a desktop test: skips it, with the reason, when there is no desktop.
#define REQUIRE_TEST_DESKTOP()                                                     \
  do {                                                                             \
    if (!::tervain::testing::desktopUnavailable().empty()) {                       \
      GTEST_SKIP() << ::tervain::testing::desktopUnavailable();                    \
    }                                                                              \
  } while (false)
