// Plain-text renderings of replies, for people reading a terminal or a log.
#pragma once

#include <string>

#include "client/tervain_client.h"

namespace tervain::client {

// Protocol version, displays and grants, one fact per line.
std::string renderPing(const PingInfo& ping);

// One element on one line: ref, role (with subrole), title, value, frame and state, e.g.
//   e7 AXButton "Save" [612,400 80x24] disabled
std::string renderNode(const AXNode& node);

// The application's name, then every element indented two spaces per level.
std::string renderTree(const AXTree& tree);

}  // namespace tervain::client
