// Compact JSON output, faster than the object model's own dump and with the same strictness.
#pragma once

#include <string>
#include <string_view>

#include "core/json.h"

namespace tervain {

// Appends the compact form of value (no whitespace, raw UTF-8, keys in the object's order) to
// out. Returns false, leaving out in an unspecified state, when the value cannot be written:
// a string that is not valid UTF-8, or a number that is not finite.
bool appendCompactJson(std::string& out, const Json& value);

// Appends a JSON string literal; false when text is not valid UTF-8.
bool appendJsonString(std::string& out, std::string_view text);

}  // namespace tervain
