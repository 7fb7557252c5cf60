#include "platform/child_process.h"

#include <sys/wait.h>

#include <cerrno>
#include <cstring>

#include "core/spawn.h"

namespace tervain {

ErrnoOr<int> waitForExit(pid_t pid) {
  int raw = 0;
  while (::waitpid(pid, &raw, 0) < 0) {
    if (errno != EINTR) return Errno{errno};
  }
  return WIFSIGNALED(raw) ? WTERMSIG(raw) : WEXITSTATUS(raw);
}

LaunchResult launchWithOpenTool(const std::string& tool, const std::string& name) {
  const ErrnoOr<pid_t> pid = spawnProcess({.path = tool, .arguments = {"-a", name}});
  if (!pid) return {LaunchResult::Status::failed, std::strerror(pid.error())};
  const ErrnoOr<int> status = waitForExit(*pid);
  if (!status) return {LaunchResult::Status::failed, std::strerror(status.error())};
  if (*status != 0) {
    return {LaunchResult::Status::notFound, "open -a exited " + std::to_string(*status)};
  }
  return {LaunchResult::Status::launched, {}};
}

}  // namespace tervain
