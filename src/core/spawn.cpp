#include "core/spawn.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>

#include "core/posix/spawn_platform.h"

extern "C" {
extern char** environ;
}

namespace tervain {
namespace {

// posix_spawn's set-up objects, destroyed whichever way the spawn goes.
struct SpawnSetup {
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  int error = 0;

  SpawnSetup() {
    error = ::posix_spawn_file_actions_init(&actions);
    if (error != 0) return;
    error = ::posix_spawnattr_init(&attributes);
    if (error != 0) ::posix_spawn_file_actions_destroy(&actions);
  }
  ~SpawnSetup() {
    if (error != 0) return;
    ::posix_spawnattr_destroy(&attributes);
    ::posix_spawn_file_actions_destroy(&actions);
  }
  SpawnSetup(const SpawnSetup&) = delete;
  SpawnSetup& operator=(const SpawnSetup&) = delete;
};

std::vector<char*> pointers(const std::vector<std::string>& strings, const std::string* first) {
  std::vector<char*> result;
  result.reserve(strings.size() + 2);
  if (first != nullptr) result.push_back(const_cast<char*>(first->c_str()));
  for (const std::string& s : strings) result.push_back(const_cast<char*>(s.c_str()));
  result.push_back(nullptr);
  return result;
}

int prepare(SpawnSetup& setup, const SpawnOptions& options) {
  posix_spawn_file_actions_t* actions = &setup.actions;
  // An ignored signal stays ignored across exec: the agent ignores SIGPIPE itself, and an agent
  // started with "&" or nohup has SIGINT, SIGQUIT and SIGHUP ignored too. Every child starts
  // with all signals at their defaults, or "yes | head" would never end by SIGPIPE and a
  // forwarded interrupt would do nothing. The mask is cleared too, whatever the thread blocks.
  short flags = POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK;
  sigset_t defaults;
  sigset_t mask;
  sigfillset(&defaults);
  sigemptyset(&mask);
  int rc = ::posix_spawnattr_setsigdefault(&setup.attributes, &defaults);
  if (rc == 0) rc = ::posix_spawnattr_setsigmask(&setup.attributes, &mask);
  if (rc == 0 && options.group == SpawnOptions::Group::newGroup) {
    flags = static_cast<short>(flags | POSIX_SPAWN_SETPGROUP);
    rc = ::posix_spawnattr_setpgroup(&setup.attributes, 0);
  }
  if (options.group == SpawnOptions::Group::newSession) {
    flags = static_cast<short>(flags | POSIX_SPAWN_SETSID);
  }
  if (options.terminal) {
    // The session leader opens it without O_NOCTTY after setsid(), which makes it the
    // controlling terminal, so the terminal's signals (^C, SIGWINCH, hang-up) reach the command.
    const char* path = options.terminal->c_str();
    if (rc == 0) rc = ::posix_spawn_file_actions_addopen(actions, 0, path, O_RDWR, 0);
    if (rc == 0) rc = ::posix_spawn_file_actions_adddup2(actions, 0, 1);
    if (rc == 0) rc = ::posix_spawn_file_actions_adddup2(actions, 0, 2);
  }
  for (int target = 0; target < 3 && rc == 0 && !options.terminal; ++target) {
    const int source = options.standardStreams[static_cast<std::size_t>(target)];
    rc = source >= 0 ? ::posix_spawn_file_actions_adddup2(actions, source, target)
                     : posix::inheritInChild(actions, target);
  }
  if (rc == 0 && options.workingDirectory) {
    rc = ::posix_spawn_file_actions_addchdir_np(actions, options.workingDirectory->c_str());
  }
  if (rc == 0) rc = posix::closeOtherDescriptorsInChild(actions, &flags);
  if (rc == 0) rc = ::posix_spawnattr_setflags(&setup.attributes, flags);
  return rc;
}

}  // namespace

ErrnoOr<pid_t> spawnProcess(const SpawnOptions& options) {
  SpawnSetup setup;
  if (setup.error != 0) return Errno{setup.error};
  if (const int rc = prepare(setup, options)) return Errno{rc};
  const std::vector<char*> argv = pointers(options.arguments, &options.path);
  std::vector<char*> envp;
  if (options.environment) envp = pointers(*options.environment, nullptr);
  pid_t child = -1;
  const int rc = ::posix_spawn(&child, options.path.c_str(), &setup.actions, &setup.attributes,
                               argv.data(), options.environment ? envp.data() : environ);
  if (rc != 0) return Errno{rc};
  return child;
}

}  // namespace tervain
