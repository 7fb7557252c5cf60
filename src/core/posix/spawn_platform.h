// The few process-spawning details that differ between Linux and macOS. CMake picks the one
// implementation file that matches the platform (spawn_linux.cpp or spawn_darwin.cpp), so shared
// code needs no conditional compilation.
#pragma once

#include <spawn.h>

namespace tervain::posix {

// Creates a pipe whose two ends are both close-on-exec, so that no other child of the process
// inherits them by accident. Returns 0, or the errno of the failed call (fds untouched then).
int makeCloexecPipe(int fds[2]);

// Adds to a spawn's set-up whatever keeps every descriptor other than 0, 1 and 2 out of the
// child. Call it after the dup2 actions that fill 0, 1 and 2. `flags` receives any attribute flags
// this needs, to be OR-ed into the caller's own before posix_spawnattr_setflags(). Returns 0 or
// an errno.
int closeOtherDescriptorsInChild(posix_spawn_file_actions_t* actions, short* flags);

// Lets a command's output pipe hold more before its writer blocks, where the platform allows it:
// a busy command and the session then trade the processor far less often. Best effort; the pipe
// works the same either way.
void enlargeOutputPipe(int fd);

}  // namespace tervain::posix
