// Owned descriptors: every descriptor the programs hold lives in a UniqueFd, which closes it
// exactly once. Raw close() calls exist only here and in the C socket layer.
#pragma once

#include "core/errno_or.h"

namespace tervain {

class UniqueFd {
 public:
  UniqueFd() = default;
  // Takes ownership of fd (a negative value means none).
  explicit UniqueFd(int fd) : fd(fd) {}
  ~UniqueFd() { reset(); }

  UniqueFd(UniqueFd&& other) noexcept : fd(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return fd; }
  bool valid() const { return fd >= 0; }
  explicit operator bool() const { return valid(); }

  // Gives the descriptor up without closing it; this holds none afterwards.
  [[nodiscard]] int release() {
    const int held = fd;
    fd = -1;
    return held;
  }

  // Closes the held descriptor (its close error ignored) and takes fd instead.
  void reset(int replacement = -1);

  // Closes the held descriptor and says how that went: 0, or the errno of a close that reported
  // a failure (a file whose last writes did not reach the disk). The descriptor is gone either
  // way, EINTR included: it is never closed twice.
  int closeChecked();

 private:
  int fd = -1;
};

struct PipeEnds {
  UniqueFd read;
  UniqueFd write;
};

// A pipe whose two ends are close-on-exec from birth; flags may add O_NONBLOCK (to both ends).
ErrnoOr<PipeEnds> makePipe(int flags = 0);

}  // namespace tervain
