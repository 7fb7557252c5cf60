#include "agent/startup.h"

#include <fcntl.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "agent/agent_context.h"
#include "agent/agent_listener.h"
#include "agent/agent_log.h"
#include "core/agent_wire.h"
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
    case CommandLine::Action::serve:
      break;
  }
  std::string problem;
  Desktop* const chosen = chooseDesktop(commandLine.desktop, problem);
  if (chosen == nullptr) {
    std::fprintf(stderr, "TervainVMAgent: %s\n\n%s", problem.c_str(), usageText().c_str());
    return 2;
  }
  Desktop& desktop = *chosen;

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
    try {
      listener.emplace(AgentListener::UnixSocket{path});
    } catch (const AgentError& e) {
      agentLog("FATAL: " + std::string(e.what()));
      return 1;
    }
  } else {
    const std::uint32_t port = choosePort(std::getenv("TERVAIN_AGENT_PORT"));
    agentLog(protocol + " starting on vsock port " + std::to_string(port));
    agentLog(readinessLine(desktop));
    agentLog(desktopLine(desktop));
    try {
      listener.emplace(port);
    } catch (const AgentError& e) {
      agentLog("FATAL: " + std::string(e.what()) +
               " \u2014 is this running inside a macOS guest VM? (AF_VSOCK fails ENODEV on a "
               "host)");
      return 1;
    }
  }

  // runMainLoop() never returns, so these locals live as long as the process and the accept
  // thread and every connection may refer to them.
  AgentContext context(desktop);
  AgentListener& accepting = *listener;
  std::thread([&accepting, &context] { accepting.run(context); }).detach();
  desktop.runMainLoop();
  std::abort();  // not reached: the main loop never returns
}

}  // namespace tervain
