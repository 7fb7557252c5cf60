// The private desktop the desktop tests run in: scripts/desktop started once for the whole test
// binary, its environment (DISPLAY, the session bus, ...) copied into this process, and torn down
// at the end of the run.
#pragma once

#include <string>

namespace tervain::testing {

// Why the desktop tests cannot run here (empty when they can). Set before the first test.
const std::string& desktopUnavailable();

}  // namespace tervain::testing

// At the top of a desktop test: skips it, with the reason, when there is no desktop.
#define REQUIRE_TEST_DESKTOP()                                                     \
  do {                                                                             \
    if (!::tervain::testing::desktopUnavailable().empty()) {                       \
      GTEST_SKIP() << ::tervain::testing::desktopUnavailable();                    \
    }                                                                              \
  } while (false)
