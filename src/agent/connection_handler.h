// One host connection, from accept to close: reads request lines, routes each to its operation
// through the table of operations, writes the replies.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "agent/agent_context.h"
#include "agent/operation.h"
#include "core/json.h"
#include "core/line_split_buffer.h"
#include "core/reply.h"

namespace tervain {

// Answers request lines in order on the calling thread. Owns the socket: run() closes it when
// the connection ends. Holds no operation: each is a free function in its family's file, found
// through the table (operations.cpp).
class ConnectionHandler {
 public:
  ConnectionHandler(int fd, AgentContext& context);
  ConnectionHandler(const ConnectionHandler&) = delete;
  ConnectionHandler& operator=(const ConnectionHandler&) = delete;

  // Serves the connection until it ends, then closes the socket and logs the disconnect.
  void run();

  // The reply bytes (without the line feed) for one ordinary request line, or for a line
  // already parsed (nothing when it did not parse as an object).
  std::string handle(std::string_view requestLine);
  std::string handleRequest(const std::optional<Json>& request);

  // The reply for one ordinary request line, or for a line already parsed.
  Reply dispatch(std::string_view requestLine);
  Reply dispatchRequest(const std::optional<Json>& request);

  // What the operations of this connection share (its socket, refs, pending bytes).
  OperationContext& operations() { return context; }

 private:
  LineSplitBuffer lines;
  OperationContext context;
};

// The "op" of a parsed request, when it is an object whose "op" is a string.
std::optional<std::string> requestOp(const Json& request);

}  // namespace tervain
