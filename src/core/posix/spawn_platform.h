// The few process-spawning details that differ between Linux and macOS. CMake picks the one
// implementation file that matches the platform (spawn_linux.cpp or spawn_darwin.cpp), so shared
// code needs no conditional compilation.
#pragma once

#include <spawn.h>

namespace tervain::posix {

// Keeps the parent's descriptor fd (one of 0, 1 and 2) open in the child, for a standard stream
// that no dup2 action fills. Returns 0 or an errno.
int inheritInChild(posix_spawn_file_actions_t* actions, int fd);

// Adds to a spawn's set-up whatever keeps every descriptor other than 0, 1 and 2 out of the
// child. Call it after the actions that fill 0, 1 and 2. `flags` receives any attribute flags
// this needs, to be OR-ed into the caller's own before posix_spawnattr_setflags(). Returns 0 or
// an errno.
int closeOtherDescriptorsInChild(posix_spawn_file_actions_t* actions, short* flags);

// Sets the allocator up for a long-running server with bursts of large buffers (4 MiB request
// lines, 64 KiB read buffers per connection): large blocks go back to the system when freed, so
// the process returns to its resting size after a burst. Call once at start-up.
void tuneAllocator();

// Lets a command's pipe hold more before its writer blocks, where the platform allows it: a busy
// command and the session then trade the processor far less often, for output and for input
// alike. Best effort; the pipe works the same either way.
void enlargePipe(int fd);

}  // namespace tervain::posix
