// The shell exec uses when the agent shell is not installed. CMake picks the implementation that
// matches the platform (login_shell_linux.cpp or login_shell_darwin.cpp).
#pragma once

#include <optional>
#include <string>

namespace tervain::posix {

// Linux: the agent's user's login shell from the password database ("/bin/sh" when the entry
// names none or there is no entry), since a Linux guest has no agent shell to install. macOS:
// nothing, because every macOS guest image must carry the agent shell and exec refuses without it.
std::optional<std::string> shellWithoutAgentShell();

}  // namespace tervain::posix
