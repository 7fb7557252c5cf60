// Status operations ("ping", "cursor_position") and "launch_app".
#pragma once

#include "agent/operation.h"

namespace tervain {

Reply opPing(OperationContext& context, const Json& request);
Reply opCursorPosition(OperationContext& context, const Json& request);
// Launches through the desktop and waits for its answer within the agent's launch timeout.
Reply opLaunchApp(OperationContext& context, const Json& request);

}  // namespace tervain
