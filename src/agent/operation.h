// What an operation is: a free function over the state of one connection, listed in the one
// table of operations (operations.h) under its wire name.
#pragma once

#include <string_view>
#include <variant>

#include "agent/agent_context.h"
#include "agent/ax_registry.h"
#include "core/json.h"
#include "core/line_split_buffer.h"
#include "core/reply.h"
#include "platform/desktop.h"

namespace tervain {

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
