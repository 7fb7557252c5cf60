// Linux: glibc (2.34 and later) can close every descriptor from 3 upwards in the child as a file
// action; 0, 1 and 2 stay open unless the actions replace them.
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include "core/posix/spawn_platform.h"

namespace tervain::posix {

int inheritInChild(posix_spawn_file_actions_t* actions, int fd) {
  (void)actions;
  (void)fd;
  return 0;
}

int closeOtherDescriptorsInChild(posix_spawn_file_actions_t* actions, short* flags) {
  (void)flags;
  return ::posix_spawn_file_actions_addclosefrom_np(actions, 3);
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
