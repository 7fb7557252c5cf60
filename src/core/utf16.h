// Conversion between UTF-8 and the UTF-16 code units that platform text APIs speak.
#pragma once

#include <string>
#include <string_view>

namespace tervain {

// The UTF-16 code units of a UTF-8 text; characters above U+FFFF become surrogate pairs. Bytes
// that do not form a valid sequence (stray continuation bytes, overlong forms, encoded
// surrogates, values above U+10FFFF, truncated sequences) become one U+FFFD each.
std::u16string utf8ToUtf16(std::string_view text);

// The UTF-8 text of UTF-16 code units. A surrogate without its partner (which platform strings
// may hold) becomes U+FFFD and the conversion goes on: a title or value is never cut short.
std::string utf16ToUtf8(std::u16string_view units);

}  // namespace tervain
