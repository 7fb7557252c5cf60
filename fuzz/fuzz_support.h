// Shared set-up of the fuzz targets.
#pragma once

#include <string_view>

#include "agent/agent_context.h"
#include "fake_desktop.h"

namespace tervain::fuzzing {

// A desktop with every grant, one display, a small accessibility tree and a capture, so the
// operations get past their grant checks and into their own rules.
void scriptDesktop(testing::FakeDesktop& desktop);

// Limits that keep one input fast: no real waits, no real programs started.
void quietContext(AgentContext& context);

bool isStreamingOp(std::string_view op);
// Operations that would start real programs or wait on threads; fuzzed through their own
// targets instead.
bool isSlowOp(std::string_view op);

}  // namespace tervain::fuzzing
