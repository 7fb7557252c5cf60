#include "agent/connection_handler.h"

#include <unistd.h>

#include <cerrno>
#include <exception>
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
    {"cursor_position", [](ConnectionHandler& h, const Json&) { return h.opCursorPosition(); }},
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
  ::close(fd);
  agentLog("host disconnected (fd " + std::to_string(fd) + ")");
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
