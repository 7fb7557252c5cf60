#include "platform/child_process.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstring>

#include "core/posix/spawn_platform.h"

extern char** environ;

namespace tervain {
int spawnWithStandardStreams(const std::string& path, const std::vector<std::string>& arguments,
                             pid_t& pid) {
  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(path.c_str()));
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  if (const int rc = posix_spawn_file_actions_init(&actions)) return rc;
  if (const int rc = posix_spawnattr_init(&attributes)) {
    posix_spawn_file_actions_destroy(&actions);
    return rc;
  }

  short flags = POSIX_SPAWN_SETSIGDEF;
  sigset_t defaults;
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  // Descriptors the agent holds (other connections, exec pipes) must not leak into a child that
  // can outlive them.
  int rc = posix::keepOnlyStandardStreamsInChild(&actions, &flags);
  if (rc == 0) rc = posix_spawnattr_setsigdefault(&attributes, &defaults);
  if (rc == 0) rc = posix_spawnattr_setflags(&attributes, flags);
  if (rc == 0) rc = posix_spawn(&pid, path.c_str(), &actions, &attributes, argv.data(), environ);

  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  return rc;
}

int waitForExit(pid_t pid, int& status) {
  int raw = 0;
  while (::waitpid(pid, &raw, 0) < 0) {
    if (errno != EINTR) return errno;
  }
  status = WIFSIGNALED(raw) ? WTERMSIG(raw) : WEXITSTATUS(raw);
  return 0;
}

LaunchResult launchWithOpenTool(const std::string& tool, const std::string& name) {
  pid_t pid = -1;
  if (const int rc = spawnWithStandardStreams(tool, {"-a", name}, pid)) {
    return {LaunchResult::Status::failed, std::strerror(rc)};
  }
  int status = 0;
  if (const int rc = waitForExit(pid, status)) {
    return {LaunchResult::Status::failed, std::strerror(rc)};
  }
  if (status != 0) {
    return {LaunchResult::Status::notFound, "open -a exited " + std::to_string(status)};
  }
  return {LaunchResult::Status::launched, {}};
}

}  // namespace tervain
