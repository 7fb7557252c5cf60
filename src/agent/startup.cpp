#include "agent/startup.h"

#include <fcntl.h>
#include <pthread.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <system_error>
#include <thread>

#include "agent/agent_context.h"
#include "agent/agent_listener.h"
#include "agent/agent_log.h"
#include "core/agent_wire.h"
#include "core/exec_session.h"
#include "core/posix/login_shell.h"
#include "core/posix/spawn_platform.h"

namespace tervain {

std::uint32_t choosePort(const char* environmentValue) {
  if (environmentValue == nullptr) return AgentWire::port;
  std::string_view text(environmentValue);
  if (text.empty()) return AgentWire::port;
  bool negative = false;
  if (text.front() == '+' || text.front() == '-') {
    negative = text.front() == '-';
    text.remove_prefix(1);
  }
  if (text.empty()) return AgentWire::port;
  std::uint64_t value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return AgentWire::port;
    value = value * 10 + static_cast<std::uint64_t>(c - '0');
    if (value > UINT32_MAX) return AgentWire::port;
  }
  if (negative && value != 0) return AgentWire::port;
  return static_cast<std::uint32_t>(value);
}

std::string usageText() {
  return "usage: TervainVMAgent [--unix PATH] [--desktop x11|headless|auto]\n"
         "\n"
         "Serves the host's requests, one JSON object per line, on vsock port 2035 (or\n"
         "TERVAIN_AGENT_PORT) inside a macOS guest.\n"
         "\n"
         "  --unix PATH   listen on a Unix-domain socket at PATH instead (mode 0600),\n"
         "                for development, tests and hosts that proxy vsock to a socket\n"
         "  --request-grants\n"
         "                ask for the privacy grants the agent lacks (macOS shows its prompts\n"
         "                and lists the agent in System Settings), print each one's state and\n"
         "                exit: 0 when all are granted, 1 otherwise\n"
         "  --desktop KIND  the desktop to drive: x11 (the X display in $DISPLAY), headless\n"
         "                (none), or auto (x11 when $DISPLAY answers, else headless; the\n"
         "                default, and the only choice on macOS)\n"
         "  --help        show this text\n"
         "  --version     show the protocol and build version\n";
}

CommandLine parseCommandLine(int argc, const char* const* argv) {
  CommandLine result;
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg(argv[i]);
    if (arg == "--help" || arg == "-h") {
      result.action = CommandLine::Action::help;
      return result;
    }
    if (arg == "--version") {
      result.action = CommandLine::Action::version;
      return result;
    }
    if (arg == "--request-grants") {
      result.action = CommandLine::Action::requestGrants;
      return result;
    }
    if (arg == "--unix" && i + 1 < argc && argv[i + 1][0] != '\0') {
      result.unixPath = argv[++i];
      continue;
    }
    if (arg == "--desktop" && i + 1 < argc) {
      const std::string_view kind(argv[i + 1]);
      if (kind == "x11" || kind == "headless" || kind == "auto") {
        result.desktop = argv[++i];
        continue;
      }
    }
    result.action = CommandLine::Action::usageError;
    result.problem = arg == "--unix"      ? "--unix needs a socket path"
                     : arg == "--desktop" ? "--desktop takes x11, headless or auto"
                                          : "unknown argument '" + std::string(arg) + "'";
    return result;
  }
  return result;
}

std::string readinessLine(Desktop& desktop) {
  const auto word = [](bool b) { return b ? "true" : "false"; };
  const bool accessibility = desktop.accessibilityTrusted();
  const bool screenRecording = desktop.screenCaptureAccess();
  const bool postEvent = desktop.postEventAccess();
  return std::string("readiness: accessibility=") + word(accessibility) +
         " screenRecording=" + word(screenRecording) + " postEvent=" + word(postEvent);
}

std::string requestGrantsReport(Desktop& desktop) {
  desktop.requestGrants();
  const bool macos = desktop.kind() == "macos";
  struct Grant {
    const char* name;
    bool granted;
    const char* settingsPane;  // System Settings > Privacy & Security > ...
    const char* elsewhere;     // what the grant stands for on other desktops
  };
  const Grant grants[] = {
      {"accessibility", desktop.accessibilityTrusted(), "Accessibility",
       "the accessibility bus of the desktop session must answer"},
      {"screen recording", desktop.screenCaptureAccess(), "Screen & System Audio Recording",
       "a display must answer (DISPLAY)"},
      {"input synthesis", desktop.postEventAccess(), "Accessibility",
       "a display with the XTEST extension must answer (DISPLAY)"},
  };
  std::string report;
  for (const Grant& grant : grants) {
    report += std::string(grant.name) + ": ";
    if (grant.granted) {
      report += "granted\n";
    } else if (macos) {
      report += std::string("not granted \u2014 turn TervainVMAgent on in System Settings > "
                            "Privacy & Security > ") + grant.settingsPane + "\n";
    } else {
      report += std::string("not granted \u2014 ") + grant.elsewhere + "\n";
    }
  }
  if (macos) {
    report +=
        "A screen recording grant given while the agent runs takes effect only after a restart: "
        "launchctl kickstart -k gui/$(id -u)/dev.tervain.vmagent\n";
  }
  return report;
}

std::string execShellLine(const char* disableValue, bool agentShellInstalled,
                          const std::optional<std::string>& withoutAgentShell) {
  ExecSession::Environment environment;
  if (disableValue != nullptr) environment["TERVAIN_DULK_DISABLE"] = disableValue;
  const std::string dulk(ExecSession::defaultDulkPath);
  const auto invocation = ExecSession::shellInvocation(
      "", dulk, environment, [&](const std::string&) { return agentShellInstalled; },
      withoutAgentShell);
  if (!invocation) return "exec: no agent shell at " + dulk + ": exec requests are refused";
  if (invocation->path == dulk) return "exec: commands run under the agent shell " + dulk;
  if (disableValue != nullptr && std::string_view(disableValue) == "1") {
    return "exec: commands run under " + invocation->path + " (TERVAIN_DULK_DISABLE=1)";
  }
  return "exec: no agent shell at " + dulk + ": commands run under the login shell " +
         invocation->path;
}

namespace {

std::string userDescription() {
  const uid_t uid = ::getuid();
  const passwd* entry = ::getpwuid(uid);
  const std::string id = "uid " + std::to_string(uid);
  return entry != nullptr ? "user " + std::string(entry->pw_name) + " (" + id + ")" : id;
}

// SIGTERM and SIGINT stop the agent. They are blocked in every thread from the start of
// serving (threads inherit the mask), and one thread takes them with sigwait: a signal sent at
// any moment waits for that thread, rather than racing a handler against threads still starting.
// Commands the agent runs start with an empty mask (spawnProcess).
sigset_t stopSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  return set;
}

// That thread logs, removes the socket file this agent made and exits with status 0.
void stopOnSignals(std::optional<std::string> socketPath) {
  // The socket file is removed only while it is still the one this agent bound.
  struct stat bound {};
  const bool known = socketPath && ::stat(socketPath->c_str(), &bound) == 0;
  try {
    std::thread([socketPath = std::move(socketPath), bound, known] {
      const sigset_t set = stopSignals();
      int signal = 0;
      int failed = 0;
      while ((failed = ::sigwait(&set, &signal)) == EINTR) {
      }
      if (failed != 0) {
        // Not with this set; were it to happen, the signals act here as they would by default.
        ::pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
        for (;;) ::pause();
      }
      agentLog(std::string("stopping on ") + (signal == SIGINT ? "SIGINT" : "SIGTERM"));
      struct stat now {};
      if (known && ::stat(socketPath->c_str(), &now) == 0 && now.st_dev == bound.st_dev &&
          now.st_ino == bound.st_ino) {
        ::unlink(socketPath->c_str());
      }
      // _Exit runs no exit handlers (other threads are still serving): the stop line is written
      // before it, not left in the log queue.
      flushAgentLog();
      std::_Exit(0);
    }).detach();
  } catch (const std::system_error&) {
    // Nobody would take them: let them end the process as they would by default.
    const sigset_t set = stopSignals();
    ::pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    agentLog("cannot watch for SIGTERM (no thread): the agent stops without clean-up");
  }
}

}  // namespace

std::string desktopLine(Desktop& desktop) { return "desktop: " + std::string(desktop.kind()); }

int runAgent(int argc, const char* const* argv, DesktopChooser chooseDesktop) {
  // A launcher may start us with a standard descriptor closed. The next socket or pipe would then
  // take its number, and an exec child's dup2 onto 0-2 could clobber it: fill the gap first.
  for (int fd = 0; fd <= 2; ++fd) {
    if (::fcntl(fd, F_GETFD) < 0 && errno == EBADF) (void)::open("/dev/null", O_RDWR);
  }
  const CommandLine commandLine = parseCommandLine(argc, argv);
  switch (commandLine.action) {
    case CommandLine::Action::help:
      std::fputs(usageText().c_str(), stdout);
      return 0;
    case CommandLine::Action::version:
      std::printf("TervainVMAgent protocol v%d (build %.*s)\n", AgentWire::version,
                  static_cast<int>(kBuildVersion.size()), kBuildVersion.data());
      return 0;
    case CommandLine::Action::usageError:
      std::fprintf(stderr, "TervainVMAgent: %s\n\n%s", commandLine.problem.c_str(),
                   usageText().c_str());
      return 2;
    case CommandLine::Action::requestGrants:
    case CommandLine::Action::serve:
      break;
  }
  if (commandLine.action == CommandLine::Action::serve) {
    // Before the first thread (the log's, the desktop's), so that every thread inherits it.
    const sigset_t set = stopSignals();
    ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
  }
  std::string problem;
  Desktop* const chosen = chooseDesktop(commandLine.desktop, problem);
  if (chosen == nullptr && problem.starts_with("--")) {
    std::fprintf(stderr, "TervainVMAgent: %s\n\n%s", problem.c_str(), usageText().c_str());
    return 2;
  }
  if (chosen == nullptr) {
    agentLog("FATAL: " + problem);
    return 1;
  }
  Desktop& desktop = *chosen;
  if (commandLine.action == CommandLine::Action::requestGrants) {
    const std::string report = requestGrantsReport(desktop);
    std::fputs(report.c_str(), stdout);
    return report.find("not granted") == std::string::npos ? 0 : 1;
  }

  // Writing to a host that has gone must fail with EPIPE, not end the agent.
  std::signal(SIGPIPE, SIG_IGN);
  posix::tuneAllocator();

  const std::string protocol = "TervainVMAgent protocol v" + std::to_string(AgentWire::version);
  std::optional<AgentListener> listener;
  if (commandLine.unixPath) {
    const std::string& path = *commandLine.unixPath;
    agentLog(protocol + " starting on unix socket " + path);
    agentLog(readinessLine(desktop));
    agentLog(desktopLine(desktop));
    if (!problem.empty()) agentLog(problem);  // why this desktop and not the one asked for
    try {
      listener.emplace(AgentListener::UnixSocket{path});
    } catch (const AgentError& e) {
      agentLog("FATAL: " + std::string(e.what()));
      return 1;
    }
    agentLog("whoever can open " + path + " runs commands as " + userDescription());
  } else {
    const std::uint32_t port = choosePort(std::getenv("TERVAIN_AGENT_PORT"));
    agentLog(protocol + " starting on vsock port " + std::to_string(port));
    agentLog(readinessLine(desktop));
    agentLog(desktopLine(desktop));
    if (!problem.empty()) agentLog(problem);  // why this desktop and not the one asked for
    try {
      listener.emplace(port);
    } catch (const AgentError& e) {
      agentLog("FATAL: " + std::string(e.what()) +
               " \u2014 is this running inside a macOS guest VM? (AF_VSOCK fails ENODEV on a "
               "host)");
      return 1;
    }
    agentLog("the VM's host (any process there that connects to vsock port " +
             std::to_string(port) + ") runs commands as " + userDescription());
  }
  stopOnSignals(commandLine.unixPath);
  agentLog(execShellLine(std::getenv("TERVAIN_DULK_DISABLE"),
                         ::access(std::string(ExecSession::defaultDulkPath).c_str(), X_OK) == 0,
                         posix::shellWithoutAgentShell()));

  // runMainLoop() never returns, so these locals live as long as the process and the accept
  // thread and every connection may refer to them.
  AgentContext context(desktop);
  AgentListener& accepting = *listener;
  std::thread([&accepting, &context] { accepting.run(context); }).detach();
  desktop.runMainLoop();
  std::abort();  // not reached: the main loop never returns
}

}  // namespace tervain
