// Linux: pipe2() makes both ends close-on-exec atomically, so no child spawned by another thread
// in between can inherit them.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "core/unique_fd.h"

namespace tervain {

ErrnoOr<PipeEnds> makePipe(int flags) {
  int ends[2] = {-1, -1};
  if (::pipe2(ends, O_CLOEXEC | flags) != 0) return Errno{errno};
  return PipeEnds{UniqueFd(ends[0]), UniqueFd(ends[1])};
}

}  // namespace tervain
