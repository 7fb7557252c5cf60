#include "core/utf16.h"

#include <gtest/gtest.h>

namespace tervain {
namespace {

TEST(Utf8ToUtf16Test, EncodesEachPlane) {
  EXPECT_EQ(utf8ToUtf16(""), u"");
  EXPECT_EQ(utf8ToUtf16("hi\n"), u"hi\n");
  EXPECT_EQ(utf8ToUtf16("caf\xC3\xA9"), u"caf\u00E9");
  EXPECT_EQ(utf8ToUtf16("\xE2\x82\xAC"), u"\u20AC");
  EXPECT_EQ(utf8ToUtf16("\xF0\x9F\x98\x80"), u"\U0001F600");  // one pair: two units
  EXPECT_EQ(utf8ToUtf16("\xF0\x9F\x98\x80").size(), 2u);
  EXPECT_EQ(utf8ToUtf16("\xF4\x8F\xBF\xBF"), u"\U0010FFFF");
  EXPECT_EQ(utf8ToUtf16(std::string("a\0b", 3)), std::u16string(u"a\0b", 3));
}

TEST(Utf8ToUtf16Test, InvalidBytesBecomeReplacementCharacters) {
  EXPECT_EQ(utf8ToUtf16("\x80"), u"\uFFFD");
  EXPECT_EQ(utf8ToUtf16("\xC0\xAF"), u"\uFFFD\uFFFD");                      // overlong
  EXPECT_EQ(utf8ToUtf16("\xED\xA0\x80"), u"\uFFFD\uFFFD\uFFFD");            // encoded surrogate
  EXPECT_EQ(utf8ToUtf16("\xF4\x90\x80\x80"), u"\uFFFD\uFFFD\uFFFD\uFFFD");  // above U+10FFFF
  EXPECT_EQ(utf8ToUtf16("a\xE2\x82"), u"a\uFFFD\uFFFD");                    // truncated
  EXPECT_EQ(utf8ToUtf16("\xE2\x82z"), u"\uFFFD\uFFFDz");
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
