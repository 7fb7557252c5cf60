// The desktop of the platform this build is for, chosen by the build.
#pragma once

#include <string>
#include <string_view>

#include "platform/desktop.h"

namespace tervain {

// The process-wide desktop named by --desktop ("x11", "headless" or "auto"), made on first use.
// nullptr with the reason in problem when this build or platform cannot serve that choice: a
// reason that starts with "--" is a misuse of the command line, any other one a fault of this
// machine. A desktop with a problem set is a fallback, and problem says why (for the log).
Desktop* platformDesktop(std::string_view choice, std::string& problem);

}  // namespace tervain
