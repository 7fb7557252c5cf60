#include "core/utf16.h"

namespace tervain {

std::u16string utf8ToUtf16(std::string_view text) {
  std::u16string out;
  out.reserve(text.size());
  std::size_t i = 0;
  const std::size_t n = text.size();
  const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(text[at]); };
  while (i < n) {
    const unsigned char lead = byte(i);
    if (lead < 0x80) {
      out.push_back(lead);
      ++i;
      continue;
    }
    std::size_t length = 0;
    char32_t cp = 0;
    char32_t minimum = 0;
    if (lead >= 0xC2 && lead <= 0xDF) {
      length = 2, cp = lead & 0x1F, minimum = 0x80;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      length = 3, cp = lead & 0x0F, minimum = 0x800;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      length = 4, cp = lead & 0x07, minimum = 0x10000;
    }
    std::size_t taken = 1;
    bool valid = length != 0;
    while (valid && taken < length) {
      if (i + taken >= n || (byte(i + taken) & 0xC0) != 0x80) {
        valid = false;
        break;
      }
      cp = (cp << 6) | (byte(i + taken) & 0x3F);
      ++taken;
    }
    if (valid && (cp < minimum || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))) {
      valid = false;
    }
    if (!valid) {
      out.push_back(u'\uFFFD');
      i += 1;
      continue;
    }
    if (cp >= 0x10000) {
      cp -= 0x10000;
      out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
    } else {
      out.push_back(static_cast<char16_t>(cp));
    }
    i += length;
  }
  return out;
}

std::string utf16ToUtf8(std::u16string_view units) {
  std::string out;
  out.reserve(units.size());
  const std::size_t n = units.size();
  for (std::size_t i = 0; i < n; ++i) {
    char32_t cp = units[i];
    if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < n && units[i + 1] >= 0xDC00 &&
        units[i + 1] <= 0xDFFF) {
      cp = 0x10000 + ((cp - 0xD800) << 10) + (units[i + 1] - 0xDC00);
      ++i;
    } else if (cp >= 0xD800 && cp <= 0xDFFF) {
      cp = 0xFFFD;
    }
    if (cp < 0x80) {
      out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
      out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
      out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
      out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
  }
  return out;
}

}  // namespace tervain
