// The desktop of the platform this build is for, chosen by the build.
#pragma once

#include "platform/desktop.h"

namespace tervain {

// The process-wide desktop adapter, made on first use.
Desktop& platformDesktop();

}  // namespace tervain
