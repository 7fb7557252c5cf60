// Waiting for helper programs, and launching through a command-line tool that resolves names.
#pragma once

#include <sys/types.h>

#include <string>

#include "core/errno_or.h"
#include "platform/desktop.h"

namespace tervain {

// Waits, without limit, for the child to end and reaps it. Its exit status (or, when a signal
// ended it, the signal's number), or the errno when it cannot be waited for.
ErrnoOr<int> waitForExit(pid_t pid);

// Launches an application by name through a command-line tool that resolves names
// (`TOOL -a NAME`) and waits for it: launched when it exits 0, notFound with
// "open -a exited N" otherwise, failed with the system's text when it cannot be started or
// waited for. The tool shares only the agent's standard streams. For desktops whose platform
// offers such a tool.
LaunchResult launchWithOpenTool(const std::string& tool, const std::string& name);

}  // namespace tervain
