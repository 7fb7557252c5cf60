// macOS: the spawn closes every descriptor that the file actions do not name
// (POSIX_SPAWN_CLOEXEC_DEFAULT), which also covers descriptors that other threads create without
// close-on-exec; a standard stream the child keeps is named by an inherit action.
#include <spawn.h>

#include "core/posix/spawn_platform.h"

#ifndef POSIX_SPAWN_CLOEXEC_DEFAULT
#define POSIX_SPAWN_CLOEXEC_DEFAULT 0x4000
#endif

namespace tervain::posix {

int inheritInChild(posix_spawn_file_actions_t* actions, int fd) {
  return posix_spawn_file_actions_addinherit_np(actions, fd);
}

int closeOtherDescriptorsInChild(posix_spawn_file_actions_t* actions, short* flags) {
  (void)actions;
  *flags = static_cast<short>(*flags | POSIX_SPAWN_CLOEXEC_DEFAULT);
  return 0;
}

// The system allocator already hands large blocks back to the system.
void tuneAllocator() {}

// Darwin pipes grow on their own (up to 64 KiB) and offer no call to grow them further.
void enlargePipe(int fd) { (void)fd; }

}  // namespace tervain::posix
