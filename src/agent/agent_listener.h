// The listening socket and its accept loop.
#pragma once

#include <cstdint>
#include <string>

#include "agent/agent_context.h"
#include "core/unique_fd.h"

namespace tervain {

class AgentListener {
 public:
  struct UnixSocket {
    std::string path;
  };

  // Listens on the vsock port (backlog 4). Throws AgentError "vsock listen(:PORT)".
  explicit AgentListener(std::uint32_t port);
  // Listens on a Unix-domain socket (mode 0600). Throws AgentError "unix listen(PATH)".
  explicit AgentListener(const UnixSocket& socket);

  AgentListener(const AgentListener&) = delete;
  AgentListener& operator=(const AgentListener&) = delete;

  // The accept loop; never returns. The socket stays open for the life of the listener.
  [[noreturn]] void run(AgentContext& context);

  // One round of the loop: accepts one connection and starts its handler thread, or logs an
  // accept failure and pauses for a second (EINTR is retried at once, silently).
  void acceptOne(AgentContext& context);

  int descriptor() const { return fd.get(); }

 private:
  const UniqueFd fd;
};

}  // namespace tervain
