// Starting and waiting for programs in tests: the one way the harness starts a child process.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tervain::testing {

// How spawnProgram starts a child: its environment is this process's less unsetEnv plus env;
// each standard stream is the descriptor given, or this process's own when -1.
struct SpawnOptions {
  std::map<std::string, std::string> env;
  std::vector<std::string> unsetEnv;
  int stdinFd = -1;
  int stdoutFd = -1;
  int stderrFd = -1;
  bool newGroup = false;  // lead a process group of its own, to be stopped as a whole
  // A terminal device the child opens as 0, 1 and 2 once it leads a new session: its controlling
  // terminal (the streams above are then unused).
  std::string terminal;
};

// Starts argv[0] (a path) with posix_spawn: safe in a process with threads, and the child gets
// no descriptor but its standard streams that is close-on-exec here. The pid, or -1 with errno.
pid_t spawnProgram(const std::vector<std::string>& argv, const SpawnOptions& options = {});

// Waits, bounded, for a child; its raw wait status, or nothing when it still runs at the limit.
std::optional<int> waitForChild(pid_t pid, std::chrono::milliseconds limit);

}  // namespace tervain::testing
