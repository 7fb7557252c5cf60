/* The system's <spawn.h>, plus the one Darwin extension the agent uses: keeping a descriptor
 * open in the child of a spawn made with POSIX_SPAWN_CLOEXEC_DEFAULT. */
#pragma once
#include_next <spawn.h>

#ifdef __cplusplus
extern "C" {
#endif
int posix_spawn_file_actions_addinherit_np(posix_spawn_file_actions_t* actions, int fd);
#ifdef __cplusplus
}
#endif
