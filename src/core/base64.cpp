// Table-driven base64.
//
// Encoding looks up 12 bits at a time in a table of character pairs, so each 3-byte group costs
// two 16-bit loads. Decoding uses four tables whose entries are the 6-bit value already shifted
// into place within a 24-bit group; an invalid character maps to a value with bit 24 set, so one
// OR of the four lookups both assembles the group and flags any invalid character in it.
#include "core/base64.h"

#include <array>
#include <bit>
#include <cstring>

namespace tervain::base64 {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::uint32_t kBad = 0x01000000;

struct Tables {
  std::array<std::uint16_t, 4096> pairs{};  // 12 bits -> two characters, in memory order
  std::array<std::uint32_t, 256> d0{}, d1{}, d2{}, d3{};
};

constexpr Tables makeTables() {
  Tables t;
  for (unsigned i = 0; i < 4096; ++i) {
    const auto hi = static_cast<std::uint8_t>(kAlphabet[i >> 6]);
    const auto lo = static_cast<std::uint8_t>(kAlphabet[i & 63]);
    // Stored so that a memcpy of the 16-bit value writes hi then lo on a little-endian host;
    // big-endian hosts are handled at the use site.
    t.pairs[i] = static_cast<std::uint16_t>(hi | (lo << 8));
  }
  for (unsigned c = 0; c < 256; ++c) {
    t.d0[c] = t.d1[c] = t.d2[c] = t.d3[c] = kBad;
  }
  for (unsigned v = 0; v < 64; ++v) {
    const auto c = static_cast<std::uint8_t>(kAlphabet[v]);
    t.d0[c] = v << 18;
    t.d1[c] = v << 12;
    t.d2[c] = v << 6;
    t.d3[c] = v;
  }
  return t;
}

constexpr Tables kTables = makeTables();

inline void putPair(char* out, unsigned index) {
  if constexpr (std::endian::native == std::endian::little) {
    std::memcpy(out, &kTables.pairs[index], 2);
  } else {
    out[0] = kAlphabet[index >> 6];
    out[1] = kAlphabet[index & 63];
  }
}

}  // namespace

void encodeInto(const void* data, std::size_t size, char* out) {
  const auto* in = static_cast<const std::uint8_t*>(data);
  std::size_t i = 0;
  for (; i + 3 <= size; i += 3, out += 4) {
    const std::uint32_t group = (std::uint32_t{in[i]} << 16) | (std::uint32_t{in[i + 1]} << 8) |
                                std::uint32_t{in[i + 2]};
    putPair(out, group >> 12);
    putPair(out + 2, group & 0xFFF);
  }
  const std::size_t rest = size - i;
  if (rest == 1) {
    const std::uint32_t group = std::uint32_t{in[i]} << 16;
    putPair(out, group >> 12);
    out[2] = '=';
    out[3] = '=';
  } else if (rest == 2) {
    const std::uint32_t group = (std::uint32_t{in[i]} << 16) | (std::uint32_t{in[i + 1]} << 8);
    putPair(out, group >> 12);
    out[2] = kAlphabet[(group >> 6) & 63];
    out[3] = '=';
  }
}

void appendEncoded(std::string& out, std::string_view bytes) {
  const std::size_t at = out.size();
  out.resize(at + encodedSize(bytes.size()));
  encodeInto(bytes.data(), bytes.size(), out.data() + at);
}

std::string encode(std::string_view bytes) {
  std::string out;
  appendEncoded(out, bytes);
  return out;
}

bool decodeInto(std::string_view text, std::string& out) {
  out.clear();
  const std::size_t n = text.size();
  if (n % 4 != 0) return false;
  if (n == 0) return true;
  const auto* in = reinterpret_cast<const std::uint8_t*>(text.data());
  std::size_t pad = 0;
  if (in[n - 1] == '=') pad = (in[n - 2] == '=') ? 2 : 1;
  out.resize(n / 4 * 3 - pad);
  auto* dst = reinterpret_cast<std::uint8_t*>(out.data());

  const std::size_t fullGroups = n / 4 - (pad ? 1 : 0);
  std::uint32_t bad = 0;
  for (std::size_t g = 0; g < fullGroups; ++g, in += 4, dst += 3) {
    const std::uint32_t v = kTables.d0[in[0]] | kTables.d1[in[1]] | kTables.d2[in[2]] |
                            kTables.d3[in[3]];
    bad |= v;
    dst[0] = static_cast<std::uint8_t>(v >> 16);
    dst[1] = static_cast<std::uint8_t>(v >> 8);
    dst[2] = static_cast<std::uint8_t>(v);
  }
  if (pad == 1) {
    const std::uint32_t v = kTables.d0[in[0]] | kTables.d1[in[1]] | kTables.d2[in[2]];
    if (v & kBad) return false;
    dst[0] = static_cast<std::uint8_t>(v >> 16);
    dst[1] = static_cast<std::uint8_t>(v >> 8);
  } else if (pad == 2) {
    const std::uint32_t v = kTables.d0[in[0]] | kTables.d1[in[1]];
    if (v & kBad) return false;
    dst[0] = static_cast<std::uint8_t>(v >> 16);
  }
  return (bad & kBad) == 0;
}

std::optional<std::string> decode(std::string_view text) {
  std::string out;
  if (!decodeInto(text, out)) return std::nullopt;
  return out;
}

}  // namespace tervain::base64
