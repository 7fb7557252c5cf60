// macOS: there is no pipe2(), so close-on-exec is set right after pipe(); the spawn closes every
// descriptor that the file actions do not name (POSIX_SPAWN_CLOEXEC_DEFAULT), which also covers
// descriptors that other threads create without the flag.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "core/posix/spawn_platform.h"

#ifndef POSIX_SPAWN_CLOEXEC_DEFAULT
#define POSIX_SPAWN_CLOEXEC_DEFAULT 0x4000
#endif

namespace tervain::posix {

int makeCloexecPipe(int fds[2]) {
  int made[2] = {-1, -1};
  if (::pipe(made) != 0) return errno;
  for (int fd : made) {
    if (::fcntl(fd, F_SETFD, FD_CLOEXEC) != 0) {
      const int saved = errno;
      ::close(made[0]);
      ::close(made[1]);
      return saved;
    }
  }
  fds[0] = made[0];
  fds[1] = made[1];
  return 0;
}

int closeOtherDescriptorsInChild(posix_spawn_file_actions_t* actions, short* flags) {
  (void)actions;
  *flags = static_cast<short>(*flags | POSIX_SPAWN_CLOEXEC_DEFAULT);
  return 0;
}

int keepOnlyStandardStreamsInChild(posix_spawn_file_actions_t* actions, short* flags) {
  // With CLOEXEC_DEFAULT even 0, 1 and 2 close unless the file actions name them.
  for (int fd = 0; fd <= 2; ++fd) {
    if (const int rc = posix_spawn_file_actions_addinherit_np(actions, fd)) return rc;
  }
  return closeOtherDescriptorsInChild(actions, flags);
}

// The system allocator already hands large blocks back to the system.
void tuneAllocator() {}

// Darwin pipes grow on their own (up to 64 KiB) and offer no call to grow them further.
void enlargePipe(int fd) { (void)fd; }

}  // namespace tervain::posix
