// Accessibility operations: "ax_dump", "ax_element_at", "ax_action", "ax_set_value", "ax_focus",
// "find", "wait_for".
#pragma once

#include <string>

#include "agent/operation.h"

namespace tervain {

Reply opAXDump(OperationContext& context, const Json& request);
Reply opAXElementAt(OperationContext& context, const Json& request);
Reply opAXAction(OperationContext& context, const Json& request);
Reply opAXSetValue(OperationContext& context, const Json& request);
Reply opAXFocus(OperationContext& context, const Json& request);
Reply opFind(OperationContext& context, const Json& request);
Reply opWaitFor(OperationContext& context, const Json& request);

// Operator-facing text for an accessibility result code.
std::string describeAXResult(AXResult code);

// Shared by the operations that take refs or need the accessibility grant.
// The refusal when the agent lacks the accessibility grant.
Reply accessibilityNotGranted();
// The element that the request's "ref" names on this connection, or null.
ElementRef resolveRef(const OperationContext& context, const Json& request);
// The failure reply for a ref that names nothing (or an element that has gone away).
Reply staleRefReply(const Json& request);
// The reply to an action on an element (what names it in a failure): success; success with a
// note that says how to check (verify) when the application did not confirm in time; the
// stale-ref failure; or "<what> failed (<result>)".
Reply actionOutcome(AXResult code, const Json& request, const std::string& what,
                    const char* verify);

}  // namespace tervain
