#include "core/request_members.h"

#include <cmath>

namespace tervain {
namespace {

// 2^63 as a double: the first value past the signed 64-bit range.
constexpr double kTwo63 = 9223372036854775808.0;

std::optional<std::int64_t> doubleToInt64(double value) {
  if (!std::isfinite(value) || value < -kTwo63 || value >= kTwo63) return std::nullopt;
  return static_cast<std::int64_t>(value);
}

}  // namespace

std::optional<Json> parseRequestObject(std::string_view line) {
  // The JSON reader stops at a raw NUL as if the text ended there, so "{...}\0 anything" would
  // pass as the object before it. JSON allows no raw NUL anywhere (not even inside a string), so
  // a line holding one is not a request: the agent and any strict proxy must agree on that.
  if (line.find('\0') != std::string_view::npos) return std::nullopt;
  Json parsed = Json::parse(line.begin(), line.end(), nullptr, /*allow_exceptions=*/false);
  if (!parsed.is_object()) return std::nullopt;
  return parsed;
}

const Json* member(const Json& request, std::string_view key) {
  if (!request.is_object()) return nullptr;
  const auto it = request.find(key);
  return it == request.end() ? nullptr : &*it;
}

std::optional<std::int64_t> integerMember(const Json& request, std::string_view key) {
  const Json* value = member(request, key);
  if (value == nullptr) return std::nullopt;
  if (value->is_number_integer() && !value->is_number_unsigned()) {
    return value->get<std::int64_t>();
  }
  if (value->is_number_unsigned()) {
    const auto u = value->get<std::uint64_t>();
    if (u > static_cast<std::uint64_t>(INT64_MAX)) return std::nullopt;
    return static_cast<std::int64_t>(u);
  }
  if (value->is_number_float()) {
    const double d = value->get<double>();
    if (!std::isfinite(d) || std::trunc(d) != d) return std::nullopt;
    return doubleToInt64(d);
  }
  return std::nullopt;
}

std::optional<std::int64_t> truncatedIntegerMember(const Json& request, std::string_view key) {
  if (auto exact = integerMember(request, key)) return exact;
  const Json* value = member(request, key);
  if (value == nullptr || !value->is_number_float()) return std::nullopt;
  return doubleToInt64(std::trunc(value->get<double>()));
}

const std::string* stringMember(const Json& request, std::string_view key) {
  const Json* value = member(request, key);
  if (value == nullptr || !value->is_string()) return nullptr;
  return value->get_ptr<const std::string*>();
}

std::optional<std::int32_t> narrowToInt32(std::int64_t value) {
  if (value < INT32_MIN || value > INT32_MAX) return std::nullopt;
  return static_cast<std::int32_t>(value);
}

std::optional<std::int64_t> roundHalfAwayFromZero(double value) {
  if (!std::isfinite(value)) return std::nullopt;
  return doubleToInt64(std::round(value));  // std::round rounds halves away from zero
}

bool truthy(const Json* value) {
  if (value == nullptr) return false;
  if (value->is_boolean()) return value->get<bool>();
  if (value->is_number_integer()) return value->get<std::int64_t>() != 0;
  if (value->is_number_float()) return value->get<double>() != 0.0;
  return false;
}

}  // namespace tervain
