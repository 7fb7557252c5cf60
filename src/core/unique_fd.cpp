#include "core/unique_fd.h"

#include <unistd.h>

#include <cerrno>

namespace tervain {

// close() is never retried: on Linux the descriptor is released even when close() reports
// EINTR, and by the time of a retry another thread may have been handed the same number.
void UniqueFd::reset(int replacement) {
  if (fd >= 0 && fd != replacement) (void)::close(fd);
  fd = replacement;
}

int UniqueFd::closeChecked() {
  if (fd < 0) return 0;
  const int rc = ::close(release());
  return rc == 0 || errno == EINTR ? 0 : errno;
}

}  // namespace tervain
