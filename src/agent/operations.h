// The table of operations: every op the agent answers, in the order requests are matched.
#pragma once

#include <span>

#include "agent/operation.h"

namespace tervain {

// Built once, immutable: the streaming operations ("exec", "shell-events"), then the ordinary
// ones in their fixed dispatch order.
std::span<const Operation> operationTable();

// Undoes what a connection's operations leave behind (input still held). Called once, on the
// connection's thread, when the connection ends, whatever ended it; never throws.
void endOperations(OperationContext& context) noexcept;

}  // namespace tervain
