// "exec": hands the socket and the unread buffered bytes to an exec session for the rest of
// the connection.
#pragma once

#include "agent/operation.h"

namespace tervain {

// Always ends the connection (returns false).
bool runExec(OperationContext& context, std::string_view requestLine);

}  // namespace tervain
