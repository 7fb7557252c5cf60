// Pseudo-terminals for commands that run on a terminal of their own.
#pragma once

#include <cstdint>
#include <string>

#include "core/errno_or.h"
#include "core/unique_fd.h"

namespace tervain {

struct PseudoTerminal {
  UniqueFd master;           // close-on-exec; the agent's side
  std::string terminalPath;  // the terminal device a child opens (e.g. /dev/pts/3)
};

// A new pseudo-terminal of rows x cols, its terminal side not opened by anyone yet. Returns the
// errno of the step that failed.
ErrnoOr<PseudoTerminal> openPseudoTerminal(std::uint16_t rows, std::uint16_t cols);

// Sets the terminal's size through its master; the kernel then sends SIGWINCH to the terminal's
// foreground process group. False (errno set) when the ioctl fails.
bool setTerminalSize(int master, std::uint16_t rows, std::uint16_t cols);

}  // namespace tervain
