// Key chords ("cmd+shift+z") and the US-layout virtual key codes they name.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "core/vocabulary.h"

namespace tervain {

// One key press: the virtual key code (the macOS US-layout codes are the wire's key identity on
// every desktop) and the modifiers held while it is pressed.
struct KeyStroke {
  std::uint16_t keyCode = 0;
  Modifiers modifiers = 0;

  friend bool operator==(const KeyStroke&, const KeyStroke&) = default;
};

namespace KeyMap {

// Modifier name -> modifier (11 names). Built once on first use; immutable afterwards, so any
// thread may read it.
const std::unordered_map<std::string, Modifiers>& modifierFlags();

// Key name -> virtual key code of the US (ANSI) layout (76 names). Built once on first use.
const std::unordered_map<std::string, std::uint16_t>& keyCodes();

// The key-name aliases ("enter" -> "return", "escape" -> "esc", ...); every other name is
// returned unchanged. Expects a lower-cased name.
std::string normalizeKeyName(std::string_view name);

// Parses a chord: lower-cased, split at "+" with empty parts dropped, the last part is the key
// (aliases applied) and every earlier part a modifier. Unknown modifiers are skipped on purpose
// ("hyper+s" presses plain "s"). Nothing when there are no parts or the key is unknown.
std::optional<KeyStroke> stroke(std::string_view chord);

}  // namespace KeyMap
}  // namespace tervain
