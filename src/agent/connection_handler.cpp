#include "agent/connection_handler.h"

#include <unistd.h>

#include <cerrno>
#include <exception>
#include <new>
#include <string>
#include <vector>

#include "agent/agent_log.h"
#include "agent/operations.h"
#include "core/agent_wire.h"
#include "core/request_members.h"
#include "core/socket_io.h"
#include "core/unique_fd.h"

namespace tervain {
namespace {

Reply malformedRequest() {
  return Reply::failure("malformed request (want one JSON object per line with an \"op\")");
}

const Operation* findOperation(std::string_view op) {
  for (const Operation& entry : operationTable()) {
    if (entry.name == op) return &entry;
  }
  return nullptr;
}

}  // namespace

std::optional<std::string> requestOp(const Json& request) {
  const std::string* op = stringMember(request, "op");
  if (op == nullptr) return std::nullopt;
  return *op;
}

ConnectionHandler::ConnectionHandler(int fd, AgentContext& agent) : context(fd, agent, lines) {}

void ConnectionHandler::run() {
  const int fd = context.fd;
  UniqueFd socket(fd);
  // This connection's part of the bytes all connections may hold of unfinished lines. Only
  // what stays after the complete lines were taken counts.
  LimitShare pending(context.agent.pendingLineBytes);
  auto serve = [this, fd, &pending] {
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
        // Parsed once; a streaming operation gets the raw line, everything else its reply
        // written.
        const std::optional<Json> request = parseRequestObject(*line);
        const std::optional<std::string> op = request ? requestOp(*request) : std::nullopt;
        const Operation* entry = op ? findOperation(*op) : nullptr;
        if (entry != nullptr) {
          if (const auto* stream = std::get_if<StreamingOperation>(&entry->function)) {
            keepGoing = (*stream)(context, *line);
            continue;
          }
        }
        std::string reply = handleRequest(request);
        reply.push_back('\n');
        keepGoing = writeAll(fd, reply);
      }
      if (!keepGoing) break;
      if (lines.pendingBytes() > AgentWire::maxPendingLineBytes) {
        agentLog("request line longer than " + std::to_string(AgentWire::maxPendingLineBytes) +
                 " bytes without a line feed: connection closed (fd " + std::to_string(fd) + ")");
        break;
      }
      if (!pending.hold(lines.pendingBytes())) {
        agentLog("unfinished request lines of all connections would pass " +
                 std::to_string(context.agent.pendingLineBytes.limit) +
                 " bytes: connection closed (fd " + std::to_string(fd) + ")");
        break;
      }
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
  // Keys and buttons the host left held are released whatever ended the connection.
  endOperations(context);
  pending.hold(0);
  socket.reset();
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
  const Operation* entry = findOperation(*op);
  const auto* call = entry != nullptr ? std::get_if<ReplyOperation>(&entry->function) : nullptr;
  if (call == nullptr) {
    return Reply::failure("unknown op '" + *op + "' (agent protocol v" +
                          std::to_string(AgentWire::version) + ")");
  }
  try {
    return (*call)(context, *request);
  } catch (const std::exception& e) {
    return Reply::failure(*op + " failed inside the agent: " + e.what());
  } catch (...) {
    return Reply::failure(*op + " failed inside the agent");
  }
}

}  // namespace tervain
