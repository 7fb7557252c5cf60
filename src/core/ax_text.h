// Text forms of accessibility values as the host sees them.
//
// Numbers are written the way the guest platform's number objects print themselves, so that a
// value reads the same whether the host gets it from the agent or from the platform's own tools;
// long texts are cut by user-perceived characters (extended grapheme clusters), never inside one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace tervain {

// Decimal text of an integer: "42", "-7".
std::string numberText(std::int64_t value);

// A real in the shortest form that reads back to the same double: "0.5", "0.1", "-2.25". Whole
// values have no fraction ("3"). Like printf's %g, the form turns exponential below 1e-4 and at
// or above 1e17 ("1e-05", "1.5e+20"). Non-finite values print as "nan", "inf" and "-inf".
std::string numberText(double value);

// Booleans are number objects on the platform and print as "1" and "0".
std::string numberText(bool value);

// The number of extended grapheme clusters in UTF-8 text, counting no further than limit (so the
// answer is at most limit). An invalid byte counts as a character of its own.
std::size_t countGraphemes(std::string_view text, std::size_t limit);

// Text with more than maxCharacters extended grapheme clusters keeps its first maxCharacters and
// gets "…" (U+2026) appended; shorter text is returned unchanged.
std::string truncateGraphemes(std::string text, std::size_t maxCharacters);

// True when text is well-formed UTF-8 (no stray bytes, overlong forms or surrogates).
bool isValidUtf8(std::string_view text);

}  // namespace tervain
