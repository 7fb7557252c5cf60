// Linux: exec falls back to the user's login shell.
#include <pwd.h>
#include <unistd.h>

#include <vector>

#include "core/posix/login_shell.h"

namespace tervain::posix {

std::optional<std::string> shellWithoutAgentShell() {
  std::vector<char> buffer(16 * 1024);
  passwd entry{};
  passwd* found = nullptr;
  if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 &&
      found != nullptr && found->pw_shell != nullptr && found->pw_shell[0] != '\0') {
    return std::string(found->pw_shell);
  }
  return std::string("/bin/sh");
}

}  // namespace tervain::posix
