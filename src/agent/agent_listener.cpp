#include "agent/agent_listener.h"

#include <cerrno>
#include <chrono>
#include <memory>
#include <system_error>
#include <thread>

#include "agent/agent_log.h"
#include "agent/connection_handler.h"
#include "core/reply.h"
#include "core/socket_io.h"
#include "vsock/tervain_vsock.h"

namespace tervain {
namespace {

constexpr int kVsockBacklog = 4;
// The development socket serves test suites that open many connections at once.
constexpr int kUnixBacklog = 128;

UniqueFd checked(int result, const std::string& what) {
  if (result < 0) throw AgentError::posix(what, -result);
  return UniqueFd(result);
}

}  // namespace

AgentListener::AgentListener(std::uint32_t port)
    : fd(checked(tervain_vsock_listen(port, kVsockBacklog),
                 "vsock listen(:" + std::to_string(port) + ")")) {}

AgentListener::AgentListener(const UnixSocket& socket)
    : fd(checked(tervain_unix_listen(socket.path.c_str(), kUnixBacklog),
                 "unix listen(" + socket.path + ")")) {}

void AgentListener::run(AgentContext& context) {
  for (;;) acceptOne(context);
}

void AgentListener::acceptOne(AgentContext& context) {
  const int c = tervain_accept(fd.get());
  if (c == -EINTR) return;
  if (c < 0) {
    agentLog("accept failed (errno " + std::to_string(-c) + "); retrying");
    std::this_thread::sleep_for(std::chrono::seconds(1));
    return;
  }
  UniqueFd connection(c);
  tervain_set_nosigpipe(c);
  if (!context.connections.take(1)) {
    // Over the limit: say why and close at once, so the loop goes on accepting (and refusing)
    // rather than leaving hosts waiting in the backlog. A line this short fits the empty send
    // buffer of a new socket, so the write does not wait.
    const std::string limit = std::to_string(context.connections.limit);
    writeAll(c, serializeReply(Reply::failure("too many connections: the agent serves at most " +
                                              limit + " at once")) +
                    "\n");
    connection.reset();
    agentLog("connection refused: " + limit + " connections are open, the limit (fd " +
             std::to_string(c) + ")");
    return;
  }
  agentLog("host connected (fd " + std::to_string(c) + ")");
  try {
    auto handler = std::make_unique<ConnectionHandler>(c, context);
    // The thread owns the handler; nothing else keeps a list of connections.
    // run() contains its own failures; this guard only keeps a stray one from ending the agent.
    std::thread([h = std::move(handler), &context]() mutable {
      try {
        h->run();
      } catch (...) {
      }
      h.reset();  // the connection's refs and buffers go before its place is given back
      context.connections.give(1);
    }).detach();
    (void)connection.release();  // the handler's run() closes it
  } catch (const std::exception&) {
    // No thread to serve it (a process out of threads or memory): drop the connection, keep
    // accepting.
    connection.reset();
    context.connections.give(1);
    agentLog("host disconnected (fd " + std::to_string(c) + ")");
  }
}

}  // namespace tervain
