// Launching an application by name the way Linux desktops do: a desktop entry (a ".desktop"
// file in the XDG application folders) found by its file name or its Name, else a program of
// that name on PATH. The program starts detached, in a session of its own, with its standard
// streams on /dev/null, so it outlives the agent and never writes into the agent's log.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tervain::x11 {

// What the launch depends on in the environment, read once by the caller.
struct LaunchEnvironment {
  std::string home;          // $HOME
  std::string dataHome;      // $XDG_DATA_HOME (empty: $HOME/.local/share)
  std::string dataDirs;      // $XDG_DATA_DIRS (empty: /usr/local/share:/usr/share)
  std::string path;          // $PATH
  static LaunchEnvironment current();
};

struct LaunchTarget {
  std::vector<std::string> argv;   // argv[0] is resolved through PATH when it has no slash
  std::string workingDirectory;    // empty: the agent's
  std::string source;              // the desktop entry's path, or the program's
};

// The argument vector of a desktop entry's Exec value: quoting and escapes undone, field codes
// for files and URLs dropped (nothing is opened), %c the entry's name, %k its path, %i its icon
// option, %% a percent sign. Nothing when the value is malformed (an open quote, an unknown
// field code) or names no program.
std::optional<std::vector<std::string>> parseExec(std::string_view exec, const std::string& name,
                                                  const std::string& icon,
                                                  const std::string& entryPath);

// Resolves a name: a desktop entry "NAME.desktop" in the application folders (user's first),
// else one whose Name is NAME (letter case ignored), else an executable file NAME on PATH.
// Hidden entries and entries that are not applications do not count. Nothing when none fits.
std::optional<LaunchTarget> resolveApplication(const std::string& name,
                                               const LaunchEnvironment& environment);

// Starts the target detached (own session, standard streams on /dev/null, reaped by a thread of
// its own when it ends). Returns 0, or the error number of the failure to start it (the program
// missing or not executable, the working directory missing included).
int startDetached(const LaunchTarget& target, const LaunchEnvironment& environment);

}  // namespace tervain::x11
