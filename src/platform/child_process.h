// Starting a helper program that shares only the standard streams with the agent.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "platform/desktop.h"

namespace tervain {

// Starts the program at path with the given arguments (argv[0] is path) and the agent's
// environment. The child inherits standard input, output and error and no other descriptor, and
// gets SIGPIPE back at its default (the agent ignores it). Returns 0 with the child's pid, or the
// error number of a failure to start it (a missing or non-executable program included).
int spawnWithStandardStreams(const std::string& path, const std::vector<std::string>& arguments,
                             pid_t& pid);

// Waits, without limit, for the child to end and reaps it. Returns 0 with its exit status (or,
// when a signal ended it, the signal's number), or the error number when it cannot be waited
// for.
int waitForExit(pid_t pid, int& status);

// Launches an application by name through a command-line tool that resolves names
// (`TOOL -a NAME`) and waits for it: launched when it exits 0, notFound with
// "open -a exited N" otherwise, failed with the system's text when it cannot be started or
// waited for. For desktops whose platform offers such a tool.
LaunchResult launchWithOpenTool(const std::string& tool, const std::string& name);

}  // namespace tervain
