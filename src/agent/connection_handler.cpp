#include "agent/connection_handler.h"

#include <unistd.h>

#include <cerrno>
#include <exception>
#include <new>
#include <string>
#include <vector>

#include "agent/agent_log.h"
#include "core/agent_wire.h"
#include "core/request_members.h"
#include "vsock/tervain_vsock.h"

namespace tervain {
namespace {

using OpCall = Reply (*)(ConnectionHandler&, const Json&);

struct OpEntry {
  std::string_view name;
  OpCall call;
};

// The operations in the order they are matched. "exec" and "shell-events" never get here:
// run() routes them before dispatch.
constexpr OpEntry kOperations[] = {
    {"ping", [](ConnectionHandler& h, const Json&) { return h.opPing(); }},
    {"screenshot", [](ConnectionHandler& h, const Json& r) { return h.opScreenshot(r); }},
    {"ax_dump", [](ConnectionHandler& h, const Json& r) { return h.opAXDump(r); }},
    {"ax_element_at", [](ConnectionHandler& h, const Json& r) { return h.opAXElementAt(r); }},
    {"ax_action", [](ConnectionHandler& h, const Json& r) { return h.opAXAction(r); }},
    {"ax_set_value", [](ConnectionHandler& h, const Json& r) { return h.opAXSetValue(r); }},
    {"ax_focus", [](ConnectionHandler& h, const Json& r) { return h.opAXFocus(r); }},
    {"click", [](ConnectionHandler& h, const Json& r) { return h.opClick(r); }},
    {"move", [](ConnectionHandler& h, const Json& r) { return h.opMove(r); }},
    {"drag", [](ConnectionHandler& h, const Json& r) { return h.opDrag(r); }},
    {"type", [](ConnectionHandler& h, const Json& r) { return h.opType(r); }},
    {"key", [](ConnectionHandler& h, const Json& r) { return h.opKey(r); }},
    {"scroll", [](ConnectionHandler& h, const Json& r) { return h.opScroll(r); }},
    {"cursor_position", [](ConnectionHandler& h, const Json&) { return h.opCursorPosition(); }},
    {"launch_app", [](ConnectionHandler& h, const Json& r) { return h.opLaunchApp(r); }},
};

Reply malformedRequest() {
  return Reply::failure("malformed request (want one JSON object per line with an \"op\")");
}

}  // namespace

ConnectionHandler::ConnectionHandler(int fd, AgentContext& context)
    : fd(fd), context(context), desktop(context.desktop) {}

std::optional<std::string> ConnectionHandler::requestOp(const Json& request) {
  const std::string* op = stringMember(request, "op");
  if (op == nullptr) return std::nullopt;
  return *op;
}

void ConnectionHandler::run() {
  auto serve = [this] {
    std::vector<char> buffer(AgentWire::readChunkBytes);
    for (;;) {
      const ssize_t n = ::read(fd, buffer.data(), buffer.size());
      if (n == 0) break;
      if (n < 0) {
        if (errno == EINTR) continue;
        break;
      }
      lines.append(std::string_view(buffer.data(), static_cast<std::size_t>(n)));

      bool keepGoing = true;
      while (keepGoing) {
        const std::optional<std::string_view> line = lines.next();
        if (!line) break;
        if (line->empty()) continue;
        const std::optional<Json> request = parseRequestObject(*line);
        const std::optional<std::string> op = request ? requestOp(*request) : std::nullopt;
        if (op == AgentWire::Exec::op) {
          runExec(*line);  // takes over the rest of the connection
          keepGoing = false;
          break;
        }
        if (op == AgentWire::ShellEvents::op) {
          runShellEvents(*line);
          continue;
        }
        std::string reply = handleRequest(request);
        reply.push_back('\n');
        keepGoing = writeAll(reply);
      }
      if (!keepGoing || lines.pendingBytes() > AgentWire::maxPendingLineBytes) break;
    }
  };
  // Whatever fails inside one connection (memory running out above all) ends that connection,
  // never the agent with every other connection and command. Unwinding has freed the
  // connection's buffers (and killed an exec's group) by the time the line is logged.
  const std::string_view failure = [&serve]() -> std::string_view {
    try {
      serve();
      return {};
    } catch (const std::bad_alloc&) {
      return "out of memory";
    } catch (const std::exception&) {
      return "an internal error";
    } catch (...) {
      return "an internal error";
    }
  }();
  ::close(fd);
  try {
    if (!failure.empty()) {
      agentLog("connection ended by " + std::string(failure) + " (fd " + std::to_string(fd) +
               ")");
    }
    agentLog("host disconnected (fd " + std::to_string(fd) + ")");
  } catch (...) {
    // Not even a log line fits: the connection is closed all the same.
  }
}

std::string ConnectionHandler::handle(std::string_view requestLine) {
  return handleRequest(parseRequestObject(requestLine));
}

std::string ConnectionHandler::handleRequest(const std::optional<Json>& request) {
  return serializeReply(dispatchRequest(request));
}

Reply ConnectionHandler::dispatch(std::string_view requestLine) {
  return dispatchRequest(parseRequestObject(requestLine));
}

Reply ConnectionHandler::dispatchRequest(const std::optional<Json>& request) {
  if (!request) return malformedRequest();
  const std::optional<std::string> op = requestOp(*request);
  if (!op) return malformedRequest();
  for (const OpEntry& entry : kOperations) {
    if (entry.name != *op) continue;
    try {
      return entry.call(*this, *request);
    } catch (const std::exception& e) {
      return Reply::failure(*op + " failed inside the agent: " + e.what());
    } catch (...) {
      return Reply::failure(*op + " failed inside the agent");
    }
  }
  return Reply::failure("unknown op '" + *op + "' (agent protocol v" +
                        std::to_string(AgentWire::version) + ")");
}

bool ConnectionHandler::writeAll(std::string_view bytes) {
  while (!bytes.empty()) {
    const long n = tervain_write(fd, bytes.data(), bytes.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

}  // namespace tervain
