// The one vocabulary on the wire: AT-SPI roles as the accessibility roles and subroles a host
// already knows from a macOS guest.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tervain::atspi {

struct AXRoleNames {
  std::string role;     // "AXButton", or "AT-SPI:" + the AT-SPI name for a role with no match
  std::string subrole;  // empty when the role has none
};

// The AX role and subrole of an AT-SPI role (AtspiRole's number). A text or entry that is
// multi-line reads as AXTextArea, so the caller passes that state.
AXRoleNames axRoleNames(std::uint32_t atspiRole, bool multiLine);

// True when the table has an entry for the role (it does not fall back to "AT-SPI:").
bool hasAXRole(std::uint32_t atspiRole);

// AT-SPI's own name of a role ("push button"); "unknown" for a number it does not define.
std::string atspiRoleName(std::uint32_t atspiRole);

}  // namespace tervain::atspi
