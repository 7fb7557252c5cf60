// Start-up of the agent process: command line, port choice, banner and readiness.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/desktop.h"

namespace tervain {

inline constexpr std::string_view kBuildVersion = "0.1.0";

// The port from TERVAIN_AGENT_PORT's value (nothing when the variable is absent). An absent or
// empty value, or one that is not a strict base-10 unsigned 32-bit number ("+" allowed, "-" only
// with a zero magnitude, nothing else around the digits), gives the default port.
std::uint32_t choosePort(const char* environmentValue);

struct CommandLine {
  enum class Action { serve, help, version, requestGrants, usageError };
  Action action = Action::serve;
  std::optional<std::string> unixPath;  // --unix PATH: listen there instead of on vsock
  std::string desktop = "auto";         // --desktop x11|headless|auto
  std::string problem;                  // what was wrong, for usageError
};

CommandLine parseCommandLine(int argc, const char* const* argv);
std::string usageText();

// "readiness: accessibility=... screenRecording=... postEvent=...", queried now.
std::string readinessLine(Desktop& desktop);

// The start-up line that says how exec runs commands, from TERVAIN_DULK_DISABLE's value, whether
// the agent shell is installed and the platform's shell for when it is not.
std::string execShellLine(const char* disableValue, bool agentShellInstalled,
                          const std::optional<std::string>& withoutAgentShell);

// What --request-grants prints: one line per grant with its state and, for a missing one, what
// to do; then the note about screen recording. Asks the desktop to prompt first.
std::string requestGrantsReport(Desktop& desktop);

// "desktop: x11" (or "headless", "macos"): which desktop the agent drives, logged after the
// readiness line.
std::string desktopLine(Desktop& desktop);

// Makes the desktop named by --desktop ("x11", "headless" or "auto"): the process-wide desktop,
// or nullptr with the reason in problem when this build or platform cannot serve that choice.
using DesktopChooser = Desktop* (*)(std::string_view choice, std::string& problem);

// The whole agent: parses the command line, chooses the desktop, logs, listens, serves for
// good. Returns only with an exit status (help, version, usage error, or a listener that could
// not be made).
int runAgent(int argc, const char* const* argv, DesktopChooser chooseDesktop);

}  // namespace tervain
