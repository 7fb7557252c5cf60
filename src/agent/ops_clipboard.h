// Clipboard operations: "clipboard_get", "clipboard_set".
#pragma once

#include "agent/operation.h"

namespace tervain {

Reply opClipboardGet(OperationContext& context, const Json& request);
Reply opClipboardSet(OperationContext& context, const Json& request);

}  // namespace tervain
