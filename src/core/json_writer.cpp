// A direct writer over the JSON object model. Replies are written on every request, and the
// model's own serialiser goes through a general output adapter character by character; this one
// copies runs of plain bytes at once and validates UTF-8 in the same pass.
#include "core/json_writer.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstring>

namespace tervain {
namespace {

// 0: copy as is; 1: needs an escape; 2: start of a multi-byte UTF-8 sequence (validate).
constexpr std::array<std::uint8_t, 256> makeClasses() {
  std::array<std::uint8_t, 256> classes{};
  for (int c = 0; c < 0x20; ++c) classes[c] = 1;
  classes['"'] = 1;
  classes['\\'] = 1;
  for (int c = 0x80; c < 0x100; ++c) classes[c] = 2;
  return classes;
}
constexpr auto kClasses = makeClasses();

// Length of the valid UTF-8 sequence at p (at most end), or 0 when it is not valid.
std::size_t utf8SequenceLength(const std::uint8_t* p, const std::uint8_t* end) {
  const std::uint8_t b = p[0];
  std::size_t len;
  std::uint32_t min;
  if (b >= 0xC2 && b <= 0xDF) {
    len = 2;
    min = 0x80;
  } else if (b >= 0xE0 && b <= 0xEF) {
    len = 3;
    min = 0x800;
  } else if (b >= 0xF0 && b <= 0xF4) {
    len = 4;
    min = 0x10000;
  } else {
    return 0;
  }
  if (static_cast<std::size_t>(end - p) < len) return 0;
  std::uint32_t cp = b & (0x7F >> len);
  for (std::size_t i = 1; i < len; ++i) {
    if ((p[i] & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (p[i] & 0x3F);
  }
  if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
  return len;
}

void appendEscape(std::string& out, std::uint8_t c) {
  switch (c) {
    case '"': out += "\\\""; return;
    case '\\': out += "\\\\"; return;
    case '\b': out += "\\b"; return;
    case '\f': out += "\\f"; return;
    case '\n': out += "\\n"; return;
    case '\r': out += "\\r"; return;
    case '\t': out += "\\t"; return;
    default: {
      static constexpr char kHex[] = "0123456789abcdef";
      const char u[6] = {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 15]};
      out.append(u, 6);
    }
  }
}

template <typename T>
void appendInteger(std::string& out, T value) {
  char buffer[24];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  out.append(buffer, result.ptr);
}

bool appendDouble(std::string& out, double value) {
  if (!std::isfinite(value)) return false;
  char buffer[32];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  const std::string_view text(buffer, static_cast<std::size_t>(result.ptr - buffer));
  out.append(text);
  // Keep a real a real on the wire: 2.0 stays "2.0", not "2".
  if (text.find_first_of(".eE") == std::string_view::npos) out += ".0";
  return true;
}

}  // namespace

bool appendJsonString(std::string& out, std::string_view text) {
  const auto* p = reinterpret_cast<const std::uint8_t*>(text.data());
  const auto* end = p + text.size();
  out.push_back('"');
  const auto* run = p;
  while (p < end) {
    const std::uint8_t cls = kClasses[*p];
    if (cls == 0) {
      ++p;
      continue;
    }
    if (cls == 2) {
      const std::size_t len = utf8SequenceLength(p, end);
      if (len == 0) return false;
      p += len;
      continue;
    }
    out.append(reinterpret_cast<const char*>(run), static_cast<std::size_t>(p - run));
    appendEscape(out, *p);
    ++p;
    run = p;
  }
  out.append(reinterpret_cast<const char*>(run), static_cast<std::size_t>(p - run));
  out.push_back('"');
  return true;
}

bool appendCompactJson(std::string& out, const Json& value) {
  switch (value.type()) {
    case Json::value_t::null:
      out += "null";
      return true;
    case Json::value_t::boolean:
      out += value.get<bool>() ? "true" : "false";
      return true;
    case Json::value_t::number_integer:
      appendInteger(out, value.get<std::int64_t>());
      return true;
    case Json::value_t::number_unsigned:
      appendInteger(out, value.get<std::uint64_t>());
      return true;
    case Json::value_t::number_float:
      return appendDouble(out, value.get<double>());
    case Json::value_t::string:
      return appendJsonString(out, value.get_ref<const std::string&>());
    case Json::value_t::array: {
      out.push_back('[');
      bool first = true;
      for (const Json& item : value) {
        if (!first) out.push_back(',');
        first = false;
        if (!appendCompactJson(out, item)) return false;
      }
      out.push_back(']');
      return true;
    }
    case Json::value_t::object: {
      out.push_back('{');
      bool first = true;
      for (const auto& [key, item] : value.items()) {
        if (!first) out.push_back(',');
        first = false;
        if (!appendJsonString(out, key)) return false;
        out.push_back(':');
        if (!appendCompactJson(out, item)) return false;
      }
      out.push_back('}');
      return true;
    }
    default:  // binary and discarded values never belong in a reply
      return false;
  }
}

}  // namespace tervain
