// Adding an operation: write its function in its family's file, declare it in the family's
// header, and add one row here.
#include "agent/operations.h"

#include "agent/ops_ax.h"
#include "agent/ops_clipboard.h"
#include "agent/ops_exec.h"
#include "agent/ops_input.h"
#include "agent/ops_misc.h"
#include "agent/ops_screenshot.h"
#include "agent/ops_shell_drain.h"
#include "agent/ops_windows.h"

namespace tervain {
namespace {

constexpr Operation kOperations[] = {
    {"exec", runExec},
    {"shell-events", runShellEvents},
    {"ping", opPing},
    {"screenshot", opScreenshot},
    {"ax_dump", opAXDump},
    {"ax_element_at", opAXElementAt},
    {"ax_action", opAXAction},
    {"ax_set_value", opAXSetValue},
    {"ax_focus", opAXFocus},
    {"click", opClick},
    {"move", opMove},
    {"drag", opDrag},
    {"type", opType},
    {"key", opKey},
    {"scroll", opScroll},
    {"mouse_down", opMouseDown},
    {"mouse_up", opMouseUp},
    {"key_down", opKeyDown},
    {"key_up", opKeyUp},
    {"cursor_position", opCursorPosition},
    {"launch_app", opLaunchApp},
    {"find", opFind},
    {"wait_for", opWaitFor},
    {"windows", opWindows},
    {"window_action", opWindowAction},
    {"clipboard_get", opClipboardGet},
    {"clipboard_set", opClipboardSet},
};

}  // namespace

std::span<const Operation> operationTable() { return kOperations; }

void endOperations(OperationContext& context) noexcept { releaseHeldInput(context); }

}  // namespace tervain
