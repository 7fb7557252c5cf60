#include "agent/agent_log.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace tervain {

void agentLog(std::string_view message) {
  static constexpr std::string_view kPrefix = "[TervainVMAgent] ";
  std::string line;
  line.reserve(kPrefix.size() + message.size() + 1);
  line.append(kPrefix).append(message).push_back('\n');
  const char* p = line.data();
  std::size_t left = line.size();
  while (left > 0) {
    const ssize_t n = ::write(STDERR_FILENO, p, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;  // nowhere to log to; the agent goes on regardless
    p += n;
    left -= static_cast<std::size_t>(n);
  }
}

AgentError AgentError::posix(std::string what, std::int32_t errnoValue) {
  std::string description = what + " failed: " + std::strerror(errnoValue);
  return AgentError(std::move(what), errnoValue, description);
}

AgentError::AgentError(std::string phrase, std::int32_t errnoValue,
                       const std::string& description)
    : std::runtime_error(description), phrase_(std::move(phrase)), errno_(errnoValue) {}

}  // namespace tervain
