// The agent's vocabulary on the wire, in one place: accessibility attribute, role and action
// names, accessibility result codes, and the modifier flags of key chords and input events.
//
// Hosts see the same names on every platform. They are the macOS accessibility names because the
// first desktop was macOS; a desktop adapter converts its platform's names and codes to these and
// back, and nothing above the adapters speaks any other vocabulary.
#pragma once

#include <cstdint>
#include <string>

namespace tervain {

// ---- Accessibility names ---------------------------------------------------------------------

namespace AX {
// Attributes. Built once: every element of a dump reads most of them.
inline const std::string role = "AXRole";
inline const std::string subrole = "AXSubrole";
inline const std::string title = "AXTitle";
inline const std::string value = "AXValue";
inline const std::string enabled = "AXEnabled";
inline const std::string focused = "AXFocused";
inline const std::string position = "AXPosition";
inline const std::string size = "AXSize";
inline const std::string children = "AXChildren";
inline const std::string identifier = "AXIdentifier";
inline const std::string windows = "AXWindows";
inline const std::string main = "AXMain";
inline const std::string minimized = "AXMinimized";
// Actions.
inline const std::string press = "AXPress";
}  // namespace AX

// ---- Accessibility result codes (signed 32-bit, the macOS values) ------------------------------

using AXResult = std::int32_t;
namespace AXError {
inline constexpr AXResult success = 0;
inline constexpr AXResult failure = -25200;
inline constexpr AXResult illegalArgument = -25201;
inline constexpr AXResult invalidUIElement = -25202;
inline constexpr AXResult invalidUIElementObserver = -25203;
inline constexpr AXResult cannotComplete = -25204;
inline constexpr AXResult attributeUnsupported = -25205;
inline constexpr AXResult actionUnsupported = -25206;
inline constexpr AXResult notificationUnsupported = -25207;
inline constexpr AXResult notImplemented = -25208;
inline constexpr AXResult notificationAlreadyRegistered = -25209;
inline constexpr AXResult notificationNotRegistered = -25210;
inline constexpr AXResult apiDisabled = -25211;
inline constexpr AXResult noValue = -25212;
inline constexpr AXResult parameterizedAttributeUnsupported = -25213;
inline constexpr AXResult notEnoughPrecision = -25214;
}  // namespace AXError

// ---- Modifiers -------------------------------------------------------------------------------

// A set of modifier keys held during an input event. Portable bits: each desktop adapter maps
// them to its platform's own flags.
using Modifiers = std::uint32_t;
namespace Modifier {
inline constexpr Modifiers shift = 1u << 0;
inline constexpr Modifiers control = 1u << 1;
inline constexpr Modifiers option = 1u << 2;
inline constexpr Modifiers command = 1u << 3;
inline constexpr Modifiers fn = 1u << 4;
inline constexpr Modifiers all = shift | control | option | command | fn;
}  // namespace Modifier

}  // namespace tervain
