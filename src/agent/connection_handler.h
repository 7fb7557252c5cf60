// One host connection, from accept to close.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "agent/agent_context.h"
#include "core/json.h"
#include "core/line_split_buffer.h"
#include "core/reply.h"

namespace tervain {

// Reads request lines from its socket and answers each in order on the calling thread. Owns the
// socket: run() closes it when the connection ends. Every operation is a method that takes the
// request and returns its reply; nothing is thrown across that boundary.
class ConnectionHandler {
 public:
  ConnectionHandler(int fd, AgentContext& context);
  ConnectionHandler(const ConnectionHandler&) = delete;
  ConnectionHandler& operator=(const ConnectionHandler&) = delete;

  // Serves the connection until it ends, then closes the socket and logs the disconnect.
  void run();

  // The "op" of a parsed request, when it is an object whose "op" is a string.
  static std::optional<std::string> requestOp(const Json& request);

  // The reply bytes (without the line feed) for one ordinary request line.
  std::string handle(std::string_view requestLine);
  std::string handleRequest(const std::optional<Json>& request);

  // The reply for one request line, or for a line already parsed (nothing when it did not
  // parse as an object).
  Reply dispatch(std::string_view requestLine);
  Reply dispatchRequest(const std::optional<Json>& request);

  // Writes every byte to the socket; false when the connection failed.
  bool writeAll(std::string_view bytes);

  // Streaming operations: each gets the raw request line and writes to the socket itself.
  // runExec() hands the socket and the unread buffered bytes to an exec session; the connection
  // ends when it returns. runShellEvents() writes one reply line and the connection goes on.
  void runExec(std::string_view requestLine);
  void runShellEvents(std::string_view requestLine);

  // Status operations.
  Reply opPing();
  Reply opCursorPosition();

 private:
  const int fd;
  LineSplitBuffer lines;
  AgentContext& context;
  Desktop& desktop;
};

}  // namespace tervain
