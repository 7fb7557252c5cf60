// What every connection of one agent process shares.
#pragma once

#include <string>

#include "platform/desktop.h"

namespace tervain {

// Built once at start-up and never changed afterwards, so connection threads read it without
// locks. Tests build their own with a scripted desktop and shorter limits.
struct AgentContext {
  explicit AgentContext(Desktop& d) : desktop(d) {}

  Desktop& desktop;
};

}  // namespace tervain
