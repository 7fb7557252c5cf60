// UTF-8 to UTF-16 conversion for text that the platform takes as UTF-16 code units.
#pragma once

#include <string>
#include <string_view>

namespace tervain {

// The UTF-16 code units of a UTF-8 text; characters above U+FFFF become surrogate pairs. Bytes
// that do not form a valid sequence (stray continuation bytes, overlong forms, encoded
// surrogates, values above U+10FFFF, truncated sequences) become one U+FFFD each.
std::u16string utf8ToUtf16(std::string_view text);

}  // namespace tervain
