// One host connection, from accept to close.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "agent/agent_context.h"
#include "agent/ax_registry.h"
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

  // Screen capture: one display as a JPEG, captured off this thread within a deadline.
  Reply opScreenshot(const Json& request);

  // Input synthesis. Each blocks this thread for its pacing and answers once the last event is
  // posted.
  Reply opClick(const Json& request);
  Reply opMove(const Json& request);
  Reply opDrag(const Json& request);
  Reply opScroll(const Json& request);
  Reply opType(const Json& request);
  Reply opKey(const Json& request);

  // Application launch through the workspace, or "open -a" when no bundle is found.
  Reply opLaunchApp(const Json& request);

  // Accessibility operations (ops_ax.cpp).
  Reply opAXDump(const Json& request);
  Reply opAXElementAt(const Json& request);
  Reply opAXAction(const Json& request);
  Reply opAXSetValue(const Json& request);
  Reply opAXFocus(const Json& request);

  // The element that the request's "ref" names on this connection, or null.
  ElementRef resolveRef(const Json& request) const;
  // The failure reply for a ref that names nothing (or an element that has gone away).
  static Reply staleRefReply(const Json& request);
  // Operator-facing text for a platform accessibility result code.
  static std::string describe(AXResult code);

  // One node of a dump, appended to out as JSON text: registers the element, reads its
  // attributes and, while depth and the shared budget allow, its children. The budget is shared
  // by the whole walk.
  void buildNode(const ElementRef& element, int depth, int maxDepth, std::int64_t& budget,
                 std::string& out);
  // Attribute readers; nothing when the read fails or the value is of another type.
  struct Frame {
    std::int64_t x, y, w, h;
  };
  std::optional<std::string> copyString(const Element& element, const std::string& attribute);
  std::optional<bool> copyBool(const Element& element, const std::string& attribute);
  std::optional<Frame> copyFrame(const Element& element);
  std::optional<std::string> copyValueDescription(const Element& element);

 private:
  // The capture itself, run on a worker thread: success or error reply, never throws.
  static Reply captureDisplay(Desktop& desktop, std::int64_t index);

  const int fd;
  LineSplitBuffer lines;
  AXRegistry axRegistry;  // refs of this connection, released with the handler
  AgentContext& context;
  Desktop& desktop;
};

}  // namespace tervain
