// main() of the desktop tests, with the environment that starts and stops the desktop.
//
// The desktop is scripts/desktop running a shell that prints the variables of the desktop and
// then waits for its input to end: closing that input at the end of the run tears the desktop
// down, and so does this process dying, since the pipe then closes by itself.
#include "test_desktop.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

namespace tervain::testing {
namespace {

std::string unavailable;

bool onPath(const std::string& program) {
  const char* path = std::getenv("PATH");
  std::string list = path == nullptr ? "" : path;
  std::size_t start = 0;
  while (start <= list.size()) {
    const std::size_t colon = std::min(list.find(':', start), list.size());
    if (::access((list.substr(start, colon - start) + "/" + program).c_str(), X_OK) == 0) {
      return true;
    }
    start = colon + 1;
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
    if (unavailable.empty()) start();
    // CI has every package: a desktop that cannot run there is a failure, not a skip.
    const char* required = std::getenv("TERVAIN_REQUIRE_DESKTOP");
    if (!unavailable.empty() && required != nullptr && std::string(required) == "1") {
      FAIL() << unavailable;
    }
  }

  void TearDown() override {
    if (child <= 0) return;
    ::close(input);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    int status = 0;
    while (::waitpid(child, &status, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > deadline) {
        ADD_FAILURE() << "scripts/desktop did not tear down in 20 s; killed";
        ::kill(-child, SIGKILL);
        ::waitpid(child, &status, 0);
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    child = -1;
  }

 private:
  void start() {
    int toChild[2], fromChild[2];
    if (::pipe2(toChild, O_CLOEXEC) != 0 || ::pipe2(fromChild, O_CLOEXEC) != 0) {
      unavailable = "no pipes for the desktop";
      return;
    }
    const std::string script = std::string(TERVAIN_SOURCE_DIR) + "/scripts/desktop";
    child = ::fork();
    if (child == 0) {
      ::setpgid(0, 0);  // so a desktop that hangs can be stopped as a whole
      ::dup2(toChild[0], 0);
      ::dup2(fromChild[1], 1);
      ::setenv("TERVAIN_SKIP_DEPS", "1", 1);
      const char* report =
          "env | grep -E '^(DISPLAY|DBUS_SESSION_BUS_ADDRESS|XDG_RUNTIME_DIR|NO_AT_BRIDGE|"
          "QT_LINUX_ACCESSIBILITY_ALWAYS_ON|GSETTINGS_BACKEND)='; echo ready; exec cat >/dev/null";
      ::execl(script.c_str(), script.c_str(), "sh", "-c", report, static_cast<char*>(nullptr));
      ::_exit(127);
    }
    ::close(toChild[0]);
    ::close(fromChild[1]);
    input = toChild[1];
    std::string text;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (text.find("ready\n") == std::string::npos) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      pollfd p{fromChild[0], POLLIN, 0};
      char buffer[4096];
      const ssize_t got = left.count() > 0 && ::poll(&p, 1, static_cast<int>(left.count())) == 1
                              ? ::read(fromChild[0], buffer, sizeof buffer)
                              : 0;
      if (got <= 0) {
        unavailable = "scripts/desktop did not start a desktop (see its messages above)";
        ::close(fromChild[0]);
        return;
      }
      text.append(buffer, static_cast<std::size_t>(got));
    }
    ::close(fromChild[0]);
    std::size_t start = 0;
    for (std::size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
      const std::string line = text.substr(start, end - start);
      const std::size_t eq = line.find('=');
      if (eq != std::string::npos) ::setenv(line.substr(0, eq).c_str(), line.c_str() + eq + 1, 1);
    }
  }

  pid_t child = -1;
  int input = -1;
};

}  // namespace

const std::string& desktopUnavailable() { return unavailable; }

}  // namespace tervain::testing

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  ::testing::AddGlobalTestEnvironment(new tervain::testing::DesktopEnvironment);
  return RUN_ALL_TESTS();
}
