#include "agent/agent_listener.h"

#include <cerrno>
#include <chrono>
#include <memory>
#include <system_error>
#include <thread>

#include "agent/agent_log.h"
#include "agent/connection_handler.h"
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
  agentLog("host connected (fd " + std::to_string(c) + ")");
  auto handler = std::make_unique<ConnectionHandler>(c, context);
  try {
    // The thread owns the handler; nothing else keeps a list of connections.
    // run() contains its own failures; this guard only keeps a stray one from ending the agent.
    std::thread([h = std::move(handler)] {
      try {
        h->run();
      } catch (...) {
      }
    }).detach();
    (void)connection.release();  // the handler's run() closes it
  } catch (const std::system_error&) {
    // No thread to serve it (a process out of threads): drop the connection, keep accepting.
    connection.reset();
    agentLog("host disconnected (fd " + std::to_string(c) + ")");
  }
}

}  // namespace tervain
