// Table-driven base64.
//
// Encoding looks up 12 bits at a time in a table of character pairs, so each 3-byte group costs
// two 16-bit loads; on little-endian hosts whole words are loaded and stored at once. Decoding uses four tables whose entries are the 6-bit value already shifted
// into place within a 24-bit group; an invalid character maps to a value with bit 24 set, so one
// OR of the four lookups both assembles the group and flags any invalid character in it.
#include "core/base64.h"

#include <array>
#include <bit>
#include <cstring>

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#include <immintrin.h>
#define TERVAIN_BASE64_SSSE3 1
#endif

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

inline std::uint64_t load64BigEndian(const std::uint8_t* p) {
  std::uint64_t v;
  std::memcpy(&v, p, 8);
  return __builtin_bswap64(v);
}

inline void store64(void* p, std::uint64_t v) { std::memcpy(p, &v, 8); }

// The eight characters of the six bytes in the top 48 bits of w, in memory order (little-endian).
inline std::uint64_t fourPairs(std::uint64_t w) {
  return std::uint64_t{kTables.pairs[w >> 52]} |
         (std::uint64_t{kTables.pairs[(w >> 40) & 0xFFF]} << 16) |
         (std::uint64_t{kTables.pairs[(w >> 28) & 0xFFF]} << 32) |
         (std::uint64_t{kTables.pairs[(w >> 16) & 0xFFF]} << 48);
}

inline std::uint32_t decodeGroup(const std::uint8_t* in) {
  return kTables.d0[in[0]] | kTables.d1[in[1]] | kTables.d2[in[2]] | kTables.d3[in[3]];
}


#ifdef TERVAIN_BASE64_SSSE3
// x86-64 with SSSE3 (every x86 Mac and practically every x86-64 server), chosen at run time:
// sixteen characters per step, with byte shuffles standing in for the tables. Classification in
// the decoder maps each character's nibbles through two 16-entry tables whose AND is zero only
// for the 64 alphabet characters.

bool hasSsse3() {
  static const bool supported = [] {
    __builtin_cpu_init();
    return __builtin_cpu_supports("ssse3") != 0;
  }();
  return supported;
}

// Encodes whole 12-byte blocks while 16 bytes are readable; returns the bytes consumed.
__attribute__((target("ssse3"))) std::size_t encodeBlocksSsse3(const std::uint8_t* in,
                                                                std::size_t size, char* out) {
  const __m128i spread = _mm_set_epi8(10, 11, 9, 10, 7, 8, 6, 7, 4, 5, 3, 4, 1, 2, 0, 1);
  const __m128i shiftTable = _mm_setr_epi8('a' - 26, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
                                           '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
                                           '0' - 52, '+' - 62, '/' - 63, 'A', 0, 0);
  std::size_t i = 0;
  for (; i + 16 <= size; i += 12, out += 16) {
    // Each 32-bit lane gets bytes b, a, c, b of one group a b c; two multiplies then move the
    // four 6-bit fields into the four bytes of the lane, in order.
    __m128i v = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i)), spread);
    const __m128i high = _mm_mulhi_epu16(_mm_and_si128(v, _mm_set1_epi32(0x0fc0fc00)),
                                         _mm_set1_epi32(0x04000040));
    const __m128i low = _mm_mullo_epi16(_mm_and_si128(v, _mm_set1_epi32(0x003f03f0)),
                                        _mm_set1_epi32(0x01000010));
    const __m128i indices = _mm_or_si128(high, low);
    // 0..25 -> 13, 26..51 -> 0, 52..61 -> 1..10, 62 -> 11, 63 -> 12: the slot of the offset that
    // turns the index into its character.
    __m128i slot = _mm_subs_epu8(indices, _mm_set1_epi8(51));
    const __m128i upper = _mm_cmpgt_epi8(_mm_set1_epi8(26), indices);
    slot = _mm_or_si128(slot, _mm_and_si128(upper, _mm_set1_epi8(13)));
    const __m128i chars = _mm_add_epi8(_mm_shuffle_epi8(shiftTable, slot), indices);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), chars);
  }
  return i;
}

// Decodes 16-character blocks while `blocks` remain, writing 16 bytes per block of which 12 are
// output (the caller leaves room for the other 4). False when a character is not in the alphabet.
__attribute__((target("ssse3"))) bool decodeBlocksSsse3(const std::uint8_t* in, std::size_t blocks,
                                                         std::uint8_t* out) {
  const __m128i lowTable = _mm_setr_epi8(0x15, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11,
                                         0x11, 0x13, 0x1A, 0x1B, 0x1B, 0x1B, 0x1A);
  const __m128i highTable = _mm_setr_epi8(0x10, 0x10, 0x01, 0x02, 0x04, 0x08, 0x04, 0x08, 0x10,
                                          0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10);
  const __m128i rollTable =
      _mm_setr_epi8(0, 16, 19, 4, -65, -65, -71, -71, 0, 0, 0, 0, 0, 0, 0, 0);
  const __m128i mask2F = _mm_set1_epi8(0x2F);
  const __m128i pack = _mm_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1);
  __m128i invalid = _mm_setzero_si128();
  for (std::size_t b = 0; b < blocks; ++b, in += 16, out += 12) {
    __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
    const __m128i highNibbles = _mm_and_si128(_mm_srli_epi32(v, 4), mask2F);
    const __m128i lowNibbles = _mm_and_si128(v, mask2F);
    invalid = _mm_or_si128(invalid, _mm_and_si128(_mm_shuffle_epi8(lowTable, lowNibbles),
                                                  _mm_shuffle_epi8(highTable, highNibbles)));
    // '/' shares its high nibble with '+'; it is told apart by equality.
    const __m128i slash = _mm_cmpeq_epi8(v, mask2F);
    v = _mm_add_epi8(v, _mm_shuffle_epi8(rollTable, _mm_add_epi8(slash, highNibbles)));
    // Four 6-bit values per lane become three bytes.
    const __m128i pairs = _mm_maddubs_epi16(v, _mm_set1_epi32(0x01400140));
    const __m128i words = _mm_madd_epi16(pairs, _mm_set1_epi32(0x00011000));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_shuffle_epi8(words, pack));
  }
  return _mm_movemask_epi8(_mm_cmpeq_epi8(invalid, _mm_setzero_si128())) == 0xFFFF;
}
#endif

}  // namespace

void encodeInto(const void* data, std::size_t size, char* out) {
  const auto* in = static_cast<const std::uint8_t*>(data);
  std::size_t i = 0;
#ifdef TERVAIN_BASE64_SSSE3
  if (hasSsse3()) {
    i = encodeBlocksSsse3(in, size, out);
    out += i / 3 * 4;
  }
#endif
  if constexpr (std::endian::native == std::endian::little) {
    // Twelve input bytes become sixteen characters per round: each 8-byte load yields six bytes
    // (four 12-bit indices), and the four character pairs leave in one 8-byte store. Rounds stop
    // while two bytes past the group are still readable, since the loads read them.
    for (; i + 14 <= size; i += 12, out += 16) {
      const std::uint64_t a = load64BigEndian(in + i);
      const std::uint64_t b = load64BigEndian(in + i + 6);
      store64(out, fourPairs(a));
      store64(out + 8, fourPairs(b));
    }
  }
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
  std::size_t g = 0;
#ifdef TERVAIN_BASE64_SSSE3
  // Blocks of four groups, while two more full groups follow to take the 4-byte overrun.
  if (hasSsse3() && fullGroups >= 6) {
    const std::size_t blocks = (fullGroups - 2) / 4;
    if (!decodeBlocksSsse3(in, blocks, dst)) return false;
    g = blocks * 4;
    in += blocks * 16;
    dst += blocks * 12;
  }
#endif
  if constexpr (std::endian::native == std::endian::little) {
    // Sixteen characters become twelve bytes per round, stored as two 8-byte words that overlap
    // by two bytes; rounds stop while a later group still owns the bytes past the last store.
    for (; g + 5 <= fullGroups; g += 4, in += 16, dst += 12) {
      const std::uint32_t v0 = decodeGroup(in);
      const std::uint32_t v1 = decodeGroup(in + 4);
      const std::uint32_t v2 = decodeGroup(in + 8);
      const std::uint32_t v3 = decodeGroup(in + 12);
      bad |= v0 | v1 | v2 | v3;
      store64(dst, __builtin_bswap64((std::uint64_t{v0} << 40) | (std::uint64_t{v1} << 16)));
      store64(dst + 6, __builtin_bswap64((std::uint64_t{v2} << 40) | (std::uint64_t{v3} << 16)));
    }
  }
  for (; g < fullGroups; ++g, in += 4, dst += 3) {
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
