#include "desktop_session.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string_view>
#include <thread>

#include "child_process.h"

namespace tervain::testing {

using namespace std::chrono_literals;

namespace {

// Runs inside the desktop: starts the applications, reports the environment, and waits for its
// input to close before stopping them.
constexpr const char* kInside = R"sh(
out="$1"; shift
pids=""
for app in "$@"; do "$app" >"$out.$app.log" 2>&1 & pids="$pids $!"; done
trap 'kill $pids 2>/dev/null; wait' EXIT
xprop -root AT_SPI_BUS >"$out.bus" 2>/dev/null
{ echo "pids$pids"; env; } >"$out.tmp" && mv "$out.tmp" "$out"
cat >/dev/null
)sh";

bool readFile(const std::string& path, std::string& out) {
  std::ifstream in(path);
  if (!in) return false;
  std::stringstream all;
  all << in.rdbuf();
  out = all.str();
  return true;
}

}  // namespace

DesktopSession::DesktopSession(const std::vector<std::string>& applications) {
  char pattern[] = "/tmp/tervain-session.XXXXXX";
  if (mkdtemp(pattern) == nullptr) {
    failure = "no temporary directory";
    return;
  }
  dir = pattern;
  const std::string report = dir + "/env";
  int input[2];
  if (pipe2(input, O_CLOEXEC) != 0) {
    failure = "no pipe";
    return;
  }
  std::vector<std::string> argv = {TERVAIN_SOURCE_DIR "/scripts/desktop", "sh", "-c", kInside,
                                   "inside", report};
  argv.insert(argv.end(), applications.begin(), applications.end());
  const int devnull = open("/dev/null", O_WRONLY | O_CLOEXEC);
  script = spawnProgram(argv, {.env = {{"TERVAIN_SKIP_DEPS", "1"}},
                               .stdinFd = input[0],
                               .stdoutFd = devnull,
                               .newGroup = true});
  close(devnull);
  close(input[0]);
  holdFd = input[1];
  if (script < 0) {
    failure = "scripts/desktop could not be started";
    return;
  }

  std::string text;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!readFile(report, text)) {
    if (waitForChild(script, 0ms)) {
      script = -1;
      failure = "scripts/desktop exited before the desktop came up";
      return;
    }
    if (std::chrono::steady_clock::now() > deadline) {
      failure = "the desktop did not come up in 30 s";
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    if (line.rfind("pids ", 0) == 0) {
      std::istringstream numbers(line.substr(5));
      pid_t pid = 0;
      while (numbers >> pid) applicationPids.push_back(pid);
    } else if (const auto eq = line.find('='); eq != std::string::npos) {
      env[line.substr(0, eq)] = line.substr(eq + 1);
    }
  }
  std::string prop;
  readFile(report + ".bus", prop);
  const auto open = prop.find('"');
  const auto close = prop.rfind('"');
  if (open != std::string::npos && close > open) bus = prop.substr(open + 1, close - open - 1);
  if (bus.empty()) failure = "no accessibility bus on the desktop";
}

DesktopSession::~DesktopSession() {
  if (holdFd >= 0) close(holdFd);
  // The desktop stops its applications and then itself; bounded, then forced.
  if (script > 0 && !waitForChild(script, 15s)) {
    kill(-script, SIGKILL);
    waitForChild(script, 5s);
  }
  std::error_code ignored;
  if (!dir.empty()) std::filesystem::remove_all(dir, ignored);
}

}  // namespace tervain::testing
