// Input synthesis: "click", "move", "drag", "scroll", "mouse_down", "mouse_up" (pointer) and
// "type", "key", "key_down", "key_up" (keyboard). Each blocks the connection's thread for its
// pacing and answers once the last event is posted. What "mouse_down" and "key_down" press stays
// held, per connection, until its release or the connection's end (releaseHeldInput).
#pragma once

#include "agent/operation.h"

namespace tervain {

Reply opClick(OperationContext& context, const Json& request);
Reply opMove(OperationContext& context, const Json& request);
Reply opDrag(OperationContext& context, const Json& request);
Reply opScroll(OperationContext& context, const Json& request);
Reply opType(OperationContext& context, const Json& request);
Reply opKey(OperationContext& context, const Json& request);
Reply opMouseDown(OperationContext& context, const Json& request);
Reply opMouseUp(OperationContext& context, const Json& request);
Reply opKeyDown(OperationContext& context, const Json& request);
Reply opKeyUp(OperationContext& context, const Json& request);

// Releases whatever the connection still holds, last pressed first, and forgets it. Best
// effort: a release that cannot be posted is skipped and the rest go on.
void releaseHeldInput(OperationContext& context) noexcept;

}  // namespace tervain
