// Linux: pipe2() makes both ends close-on-exec atomically, and glibc (2.34 and later) can close
// every descriptor from 3 upwards in the child as a file action.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "core/posix/spawn_platform.h"

namespace tervain::posix {

int makeCloexecPipe(int fds[2]) { return ::pipe2(fds, O_CLOEXEC) == 0 ? 0 : errno; }

int closeOtherDescriptorsInChild(posix_spawn_file_actions_t* actions, short* flags) {
  (void)flags;
  return ::posix_spawn_file_actions_addclosefrom_np(actions, 3);
}

// 1 MiB is the largest size an unprivileged process may ask for by default (fs.pipe-max-size).
// The kernel allocates the buffer's pages only as data arrives.
void enlargeOutputPipe(int fd) { (void)::fcntl(fd, F_SETPIPE_SZ, 1 << 20); }

}  // namespace tervain::posix
