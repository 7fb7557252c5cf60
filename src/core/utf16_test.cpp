#include "core/utf16.h"

#include <gtest/gtest.h>

namespace tervain {
namespace {

// Each plane, and invalid bytes as replacement characters: one for each byte of an overlong
// form, an encoded surrogate, a code point above U+10FFFF or a truncated sequence.
TEST(Utf8ToUtf16Test, EncodesEachPlaneAndReplacesInvalidBytes) {
  const std::pair<std::string, std::u16string> cases[] = {
      {"", u""}, {"hi\n", u"hi\n"}, {"caf\xC3\xA9", u"caf\u00E9"}, {"\xE2\x82\xAC", u"\u20AC"},
      {"\xF0\x9F\x98\x80", u"\U0001F600"}, {"\xF4\x8F\xBF\xBF", u"\U0010FFFF"},
      {std::string("a\0b", 3), std::u16string(u"a\0b", 3)}, {"\x80", u"\uFFFD"},
      {"\xC0\xAF", u"\uFFFD\uFFFD"}, {"\xED\xA0\x80", u"\uFFFD\uFFFD\uFFFD"},
      {"\xF4\x90\x80\x80", u"\uFFFD\uFFFD\uFFFD\uFFFD"}, {"a\xE2\x82", u"a\uFFFD\uFFFD"},
      {"\xE2\x82z", u"\uFFFD\uFFFDz"}};
  for (const auto& [utf8, units] : cases) EXPECT_EQ(utf8ToUtf16(utf8), units) << utf8;
  EXPECT_EQ(utf8ToUtf16("\xF0\x9F\x98\x80").size(), 2u);  // one pair: two units
}

// Platform strings may hold a lone surrogate; the text around it must survive whole.
TEST(Utf16ToUtf8Test, RoundTripsAndReplacesLoneSurrogates) {
  const struct {
    std::u16string units;
    std::string utf8;
  } cases[] = {
      {u"", ""},
      {u"caf\u00E9 \u20AC", "caf\xC3\xA9 \xE2\x82\xAC"},
      {u"\U0001F600!", "\xF0\x9F\x98\x80!"},
      {std::u16string(u"a\0b", 3), std::string("a\0b", 3)},
      {u"x\xD83Dy", "x\xEF\xBF\xBDy"},                    // high surrogate, no partner
      {u"x\xDE00y", "x\xEF\xBF\xBDy"},                    // low surrogate alone
      {u"\xD83D", "\xEF\xBF\xBD"},                        // high surrogate at the very end
      {u"\xDE00\xD83D", "\xEF\xBF\xBD\xEF\xBF\xBD"},  // a pair in the wrong order
  };
  for (const auto& c : cases) {
    EXPECT_EQ(utf16ToUtf8(c.units), c.utf8);
  }
  EXPECT_EQ(utf16ToUtf8(utf8ToUtf16("\xF4\x8F\xBF\xBF\x7F\xDF\xBF")), "\xF4\x8F\xBF\xBF\x7F\xDF\xBF");
}

}  // namespace
}  // namespace tervain
