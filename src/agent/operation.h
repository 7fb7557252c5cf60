// What an operation is: a free function over the state of one connection, listed in the one
// table of operations (operations.h) under its wire name.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string_view>
#include <variant>
#include <vector>

#include "agent/agent_context.h"
#include "agent/ax_registry.h"
#include "core/json.h"
#include "core/line_split_buffer.h"
#include "core/reply.h"
#include "core/socket_io.h"
#include "platform/desktop.h"

namespace tervain {

// A press that a connection holds ("mouse_down", "key_down") until its release or the
// connection's end: a mouse button, or else a key, with the modifiers held with it.
struct HeldPress {
  std::optional<MouseButton> button;
  std::uint16_t keyCode = 0;  // when not a button
  Point at;                   // where the button went down
  Modifiers modifiers = 0;
};

// The state of one connection that operations may use. Owned by the connection's handler and
// used only on its thread; the agent context and the desktop are shared read-only (the desktop
// is safe for parallel calls).
struct OperationContext {
  OperationContext(int fd, AgentContext& agent, LineSplitBuffer& lines)
      : fd(fd), agent(agent), desktop(agent.desktop), lines(lines) {}

  int fd;                 // the connected socket, for streaming operations' own writes
  AgentContext& agent;
  Desktop& desktop;
  AXRegistry refs;        // element refs of this connection, released with it
  LineSplitBuffer& lines; // bytes read and not yet taken as lines (exec takes them over)
  // What this connection holds pressed, in the order pressed; released in reverse order when
  // the connection ends, so a host that goes away never leaves a key down in the guest.
  std::vector<HeldPress> held;

  // Waits up to `wait` and says whether the host closed the connection meanwhile, taking no
  // bytes from it: the pause of an operation that polls, cut short when nobody awaits its reply.
  bool hostClosedWithin(std::chrono::milliseconds wait) const {
    return peerClosedWithin(fd, wait);
  }
};

// An ordinary operation: the parsed request in, its reply out. Never throws by design; the
// dispatcher still turns an escaped exception into a failure reply.
using ReplyOperation = Reply (*)(OperationContext&, const Json& request);
// A streaming operation: gets the raw request line and writes to the socket itself. Returns
// whether the connection goes on.
using StreamingOperation = bool (*)(OperationContext&, std::string_view requestLine);

// One row of the table.
struct Operation {
  std::string_view name;
  std::variant<ReplyOperation, StreamingOperation> function;  // its kind: reply or streaming
};

}  // namespace tervain
