// The one way the agent starts a program: posix_spawn with a child that holds only descriptors
// 0, 1 and 2, every signal at its default disposition and none blocked.
#pragma once

#include <sys/types.h>

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "core/errno_or.h"

namespace tervain {

struct SpawnOptions {
  // The program; no PATH search.
  std::string path;
  // The arguments after argv[0] (which is path).
  std::vector<std::string> arguments;
  // The complete environment as NAME=value entries; nothing: the agent's own.
  std::optional<std::vector<std::string>> environment;
  // The child's working directory; nothing: the agent's.
  std::optional<std::string> workingDirectory;
  // The descriptors that become the child's 0, 1 and 2; -1 leaves the agent's own in place.
  // The caller keeps (and closes) them.
  std::array<int, 3> standardStreams{-1, -1, -1};
  enum class Group {
    inherit,     // the agent's process group
    newGroup,    // leader of a new process group, so the group can be signalled as a whole
    newSession,  // leader of a new session (and so of a group), without a controlling terminal
  };
  Group group = Group::inherit;
  // A terminal device (a pseudo-terminal's terminal side) that the child, a new session's
  // leader, opens as its 0, 1 and 2 instead of standardStreams; it becomes the child's
  // controlling terminal. Needs Group::newSession.
  std::optional<std::string> terminal;
};

// Starts the program. The child has descriptors 0 to 2 and nothing else, whatever the agent
// holds or other threads open meanwhile; signals the agent ignores (SIGPIPE; SIGINT and SIGHUP
// when started with nohup or &) are back at their defaults, and its signal mask is empty.
// Returns the child's pid (the caller reaps it), or the errno of a failure to start it: a missing
// program (ENOENT), one that cannot be run (EACCES), a working directory that cannot be entered.
ErrnoOr<pid_t> spawnProcess(const SpawnOptions& options);

}  // namespace tervain
