// Linux: pipe2() makes both ends close-on-exec atomically, and glibc (2.34 and later) can close
// every descriptor from 3 upwards in the child as a file action.
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <cerrno>

#include "core/posix/spawn_platform.h"

namespace tervain::posix {

int makeCloexecPipe(int fds[2]) { return ::pipe2(fds, O_CLOEXEC) == 0 ? 0 : errno; }

int closeOtherDescriptorsInChild(posix_spawn_file_actions_t* actions, short* flags) {
  (void)flags;
  return ::posix_spawn_file_actions_addclosefrom_np(actions, 3);
}

int keepOnlyStandardStreamsInChild(posix_spawn_file_actions_t* actions, short* flags) {
  return closeOtherDescriptorsInChild(actions, flags);
}

// glibc raises its mmap threshold each time a large block is freed, after which 4 MiB line
// buffers come from the heap and stay resident once freed; and every thread that allocates may
// get an arena of its own that keeps its free memory. A fixed threshold and a few arenas keep a
// server with hundreds of short-lived connection threads near its resting size.
void tuneAllocator() {
  (void)::mallopt(M_MMAP_THRESHOLD, 64 * 1024);
  (void)::mallopt(M_ARENA_MAX, 4);
}

// 1 MiB is the largest size an unprivileged process may ask for by default (fs.pipe-max-size).
// The kernel allocates the buffer's pages only as data arrives.
void enlargePipe(int fd) { (void)::fcntl(fd, F_SETPIPE_SZ, 1 << 20); }

}  // namespace tervain::posix
