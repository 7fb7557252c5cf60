#include "desktop_session.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string_view>
#include <thread>

namespace tervain::testing {
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
  // Everything the child needs is built before fork: only async-signal-safe calls after it.
  std::vector<char*> args;
  for (std::string& a : argv) args.push_back(a.data());
  args.push_back(nullptr);
  std::vector<std::string> environment = {"TERVAIN_SKIP_DEPS=1"};
  for (char** e = environ; *e != nullptr; ++e) {
    if (std::string_view(*e).rfind("TERVAIN_SKIP_DEPS=", 0) != 0) environment.emplace_back(*e);
  }
  std::vector<char*> envp;
  for (std::string& e : environment) envp.push_back(e.data());
  envp.push_back(nullptr);
  const int devnull = open("/dev/null", O_WRONLY | O_CLOEXEC);
  script = fork();
  if (script == 0) {
    dup2(input[0], 0);
    dup2(devnull, 1);
    execve(args[0], args.data(), envp.data());
    _exit(127);
  }
  close(devnull);
  close(input[0]);
  holdFd = input[1];

  std::string text;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!readFile(report, text)) {
    int status = 0;
    if (waitpid(script, &status, WNOHANG) == script) {
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
  if (script > 0) {
    // The desktop stops its applications and then itself; bounded, then forced.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
    int status = 0;
    while (waitpid(script, &status, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > deadline) {
        kill(script, SIGKILL);
        waitpid(script, &status, 0);
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
  if (!dir.empty()) {
    const std::string command = "rm -rf '" + dir + "'";
    [[maybe_unused]] const int ignored = std::system(command.c_str());
  }
}

}  // namespace tervain::testing
