// macOS: there is no pipe2(), so close-on-exec is set right after pipe(). A spawn closes every
// descriptor its file actions do not name (POSIX_SPAWN_CLOEXEC_DEFAULT), which covers the moment
// in between.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "core/unique_fd.h"

namespace tervain {

ErrnoOr<PipeEnds> makePipe(int flags) {
  int ends[2] = {-1, -1};
  if (::pipe(ends) != 0) return Errno{errno};
  PipeEnds made{UniqueFd(ends[0]), UniqueFd(ends[1])};
  for (const UniqueFd* end : {&made.read, &made.write}) {
    if (::fcntl(end->get(), F_SETFD, FD_CLOEXEC) != 0) return Errno{errno};
    if ((flags & O_NONBLOCK) != 0 &&
        ::fcntl(end->get(), F_SETFL, ::fcntl(end->get(), F_GETFL) | O_NONBLOCK) != 0) {
      return Errno{errno};
    }
  }
  return made;
}

}  // namespace tervain
