// The wire's key identities in X terms: the virtual key codes of the US layout that hosts send,
// and Unicode characters, as X keysyms.
#pragma once

#include <cstdint>
#include <optional>

namespace tervain::x11 {

using KeySymValue = unsigned long;  // an X KeySym, kept out of Xlib's headers here

// The keysym of a virtual key code of the wire's key table; nothing for a code outside it.
std::optional<KeySymValue> keysymForKeyCode(std::uint16_t keyCode);

// The keysym that types a Unicode code point: Latin-1 characters are their own keysym, line
// feed and tab are the Return and Tab keys, every other character is 0x1000000 + code point.
KeySymValue keysymForCodePoint(char32_t codePoint);

}  // namespace tervain::x11
