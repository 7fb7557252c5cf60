// "shell-events": drains the agent shell's event spool into one reply line.
#pragma once

#include "agent/operation.h"

namespace tervain {

// Writes one reply line. The connection goes on (true) whatever the write did: a socket that
// has gone shows on the next read.
bool runShellEvents(OperationContext& context, std::string_view requestLine);

}  // namespace tervain
