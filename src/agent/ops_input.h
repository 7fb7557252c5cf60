// Input synthesis: "click", "move", "drag", "scroll" (pointer) and "type", "key" (keyboard).
// Each blocks the connection's thread for its pacing and answers once the last event is posted.
#pragma once

#include "agent/operation.h"

namespace tervain {

Reply opClick(OperationContext& context, const Json& request);
Reply opMove(OperationContext& context, const Json& request);
Reply opDrag(OperationContext& context, const Json& request);
Reply opScroll(OperationContext& context, const Json& request);
Reply opType(OperationContext& context, const Json& request);
Reply opKey(OperationContext& context, const Json& request);

}  // namespace tervain
