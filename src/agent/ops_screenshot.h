// "screenshot": one display as a JPEG, captured off the connection's thread within a deadline.
#pragma once

#include "agent/operation.h"

namespace tervain {

Reply opScreenshot(OperationContext& context, const Json& request);

}  // namespace tervain
