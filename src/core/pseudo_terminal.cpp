#include "core/pseudo_terminal.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <termios.h>

#include <array>
#include <cerrno>

namespace tervain {

ErrnoOr<PseudoTerminal> openPseudoTerminal(std::uint16_t rows, std::uint16_t cols) {
  // O_NOCTTY: the agent itself must never gain a controlling terminal. Close-on-exec is set right
  // after; a spawn in between cannot inherit it either, as every spawn keeps only 0, 1 and 2.
  UniqueFd master(::posix_openpt(O_RDWR | O_NOCTTY));
  if (!master) return Errno{errno};
  if (::fcntl(master.get(), F_SETFD, FD_CLOEXEC) != 0 || ::grantpt(master.get()) != 0 ||
      ::unlockpt(master.get()) != 0) {
    return Errno{errno};
  }
  std::array<char, 128> name{};
  if (const int rc = ::ptsname_r(master.get(), name.data(), name.size()); rc != 0) {
    return Errno{rc > 0 ? rc : errno};
  }
  if (!setTerminalSize(master.get(), rows, cols)) return Errno{errno};
  return PseudoTerminal{std::move(master), std::string(name.data())};
}

bool setTerminalSize(int master, std::uint16_t rows, std::uint16_t cols) {
  winsize size{};
  size.ws_row = rows;
  size.ws_col = cols;
  return ::ioctl(master, TIOCSWINSZ, &size) == 0;
}

}  // namespace tervain
