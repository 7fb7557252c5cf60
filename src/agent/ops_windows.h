// Window operations: "windows", "window_action".
#pragma once

#include "agent/operation.h"

namespace tervain {

Reply opWindows(OperationContext& context, const Json& request);
Reply opWindowAction(OperationContext& context, const Json& request);

}  // namespace tervain
