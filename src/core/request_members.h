// Readers of request members.
//
// Nothing a host sends may end the process: every reader answers "absent" for a member that is
// missing, of the wrong type, or out of the range the caller can represent.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "core/json.h"

namespace tervain {

// Parses one request line. Yields the value only when the whole line is JSON whose top level is
// an object (a raw NUL byte anywhere makes it malformed); never throws.
std::optional<Json> parseRequestObject(std::string_view line);

// The member's value, or null when the request is not an object or lacks the key.
const Json* member(const Json& request, std::string_view key);

// An exact integer: a JSON number whose value is a whole number within the signed 64-bit range.
// 10, 10.0 and 1e1 are integers; 10.5, 1e400, "10" and true are not.
std::optional<std::int64_t> integerMember(const Json& request, std::string_view key);

// As integerMember(), but a number with a fraction is truncated toward zero (3.9 gives 3,
// -3.9 gives -3). A non-finite or out-of-range number counts as absent.
std::optional<std::int64_t> truncatedIntegerMember(const Json& request, std::string_view key);

// The member when it is a JSON string.
const std::string* stringMember(const Json& request, std::string_view key);

// Narrows an integer to a signed 32-bit value; nothing when it does not fit.
std::optional<std::int32_t> narrowToInt32(std::int64_t value);

// Rounds half away from zero into a signed 64-bit integer; nothing for a non-finite or
// out-of-range value.
std::optional<std::int64_t> roundHalfAwayFromZero(double value);

// Truth of an optional JSON value: a boolean is itself, a number is true when not zero, and
// everything else (absent, null, strings, arrays, objects) is false.
bool truthy(const Json* value);

}  // namespace tervain
