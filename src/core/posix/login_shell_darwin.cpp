// macOS: no fallback; exec refuses when the agent shell is missing.
#include "core/posix/login_shell.h"

namespace tervain::posix {

std::optional<std::string> shellWithoutAgentShell() { return std::nullopt; }

}  // namespace tervain::posix
