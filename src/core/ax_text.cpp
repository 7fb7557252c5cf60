#include "core/ax_text.h"

#include <utf8proc.h>

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <system_error>

namespace tervain {
namespace {

// Where the cluster after the first `limit` ones starts; npos when the text has no more than
// `limit`. `clusters` is how many were seen, at most limit.
struct GraphemeScan {
  std::size_t clusters = 0;
  std::size_t cut = std::string_view::npos;
};

GraphemeScan scanGraphemes(std::string_view text, std::size_t limit) {
  const auto* bytes = reinterpret_cast<const utf8proc_uint8_t*>(text.data());
  const auto size = static_cast<utf8proc_ssize_t>(text.size());
  GraphemeScan scan;
  utf8proc_ssize_t pos = 0;
  utf8proc_int32_t previous = -1;  // -1: no code point to join with (start, or after bad bytes)
  utf8proc_int32_t state = 0;
  while (pos < size) {
    utf8proc_int32_t codePoint = -1;
    utf8proc_ssize_t length = utf8proc_iterate(bytes + pos, size - pos, &codePoint);
    bool startsCluster = true;
    if (length < 1) {
      length = 1;  // a byte that is not UTF-8 stands alone
      codePoint = -1;
    } else if (previous >= 0) {
      startsCluster = utf8proc_grapheme_break_stateful(previous, codePoint, &state);
    } else {
      state = 0;
    }
    if (startsCluster) {
      if (scan.clusters == limit) {
        scan.cut = static_cast<std::size_t>(pos);
        return scan;
      }
      ++scan.clusters;
    }
    previous = codePoint;
    pos += length;
  }
  return scan;
}

}  // namespace

std::string numberText(std::int64_t value) { return std::to_string(value); }

std::string numberText(bool value) { return value ? "1" : "0"; }

std::string numberText(double value) {
  if (std::isnan(value)) return "nan";
  if (std::isinf(value)) return value < 0 ? "-inf" : "inf";

  // The shortest digits that read back to the same double, as "d.ddde±XX".
  char buffer[64];
  const auto [end, ec] =
      std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::scientific);
  if (ec != std::errc()) return "nan";
  const std::string_view scientific(buffer, static_cast<std::size_t>(end - buffer));

  const std::size_t e = scientific.find('e');
  std::string_view mantissa = scientific.substr(0, e);
  const int exponent = std::atoi(std::string(scientific.substr(e + 1)).c_str());
  std::string sign;
  if (!mantissa.empty() && mantissa.front() == '-') {
    sign = "-";
    mantissa.remove_prefix(1);
  }
  std::string digits;
  for (const char c : mantissa) {
    if (c != '.') digits.push_back(c);
  }

  // The same switch to exponential form as %.17g makes.
  if (exponent < -4 || exponent >= 17) {
    std::string out = sign + digits.substr(0, 1);
    // Not out += "." + ...: GCC 12 warns (-Wrestrict, its bug 105651) about that in release.
    if (digits.size() > 1) out.append(".").append(digits, 1);
    out += exponent < 0 ? "e-" : "e+";
    const int magnitude = std::abs(exponent);
    if (magnitude < 10) out += '0';
    out += std::to_string(magnitude);
    return out;
  }
  if (exponent < 0) {
    return sign + "0." + std::string(static_cast<std::size_t>(-exponent - 1), '0') + digits;
  }
  const auto integerDigits = static_cast<std::size_t>(exponent) + 1;
  if (digits.size() <= integerDigits) {
    return sign + digits + std::string(integerDigits - digits.size(), '0');
  }
  return sign + digits.substr(0, integerDigits) + "." + digits.substr(integerDigits);
}

bool isValidUtf8(std::string_view text) {
  const auto* bytes = reinterpret_cast<const utf8proc_uint8_t*>(text.data());
  const auto size = static_cast<utf8proc_ssize_t>(text.size());
  utf8proc_ssize_t pos = 0;
  while (pos < size) {
    if (bytes[pos] < 0x80) {
      ++pos;
      continue;
    }
    utf8proc_int32_t codePoint = -1;
    const utf8proc_ssize_t length = utf8proc_iterate(bytes + pos, size - pos, &codePoint);
    if (length < 1) return false;
    pos += length;
  }
  return true;
}


std::size_t countGraphemes(std::string_view text, std::size_t limit) {
  return scanGraphemes(text, limit).clusters;
}

std::string truncateGraphemes(std::string text, std::size_t maxCharacters) {
  // Every character takes at least one byte, so short texts need no scan.
  if (text.size() <= maxCharacters) return text;
  const GraphemeScan scan = scanGraphemes(text, maxCharacters);
  if (scan.cut == std::string_view::npos) return text;
  text.resize(scan.cut);
  text += "\u2026";
  return text;
}

}  // namespace tervain
