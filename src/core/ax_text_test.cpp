#include "core/ax_text.h"
#include "core/json_writer.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdlib>
#include <limits>
#include <string>

namespace tervain {
namespace {

std::string repeat(std::string_view piece, int times) {
  std::string out;
  for (int i = 0; i < times; ++i) out += piece;
  return out;
}

constexpr const char* kEllipsis = "\u2026";

// Integers and booleans as written; reals in the shortest form that reads back, whole ones with
// no fraction, exponential at the extremes.
TEST(NumberTextTest, AsThePlatformPrintsThem) {
  EXPECT_EQ(numberText(std::int64_t{-7}), "-7");
  EXPECT_EQ(numberText(std::numeric_limits<std::int64_t>::min()), "-9223372036854775808");
  EXPECT_EQ(numberText(true) + numberText(false), "10");
  const double inf = std::numeric_limits<double>::infinity();
  const std::pair<double, const char*> reals[] = {
      {0.5, "0.5"}, {0.1 + 0.2, "0.30000000000000004"}, {1.0 / 3.0, "0.3333333333333333"},
      {-2.25, "-2.25"}, {123.456, "123.456"}, {3.0, "3"}, {-0.0, "-0"},
      {1e16, "10000000000000000"}, {0.0001, "0.0001"}, {0.00001, "1e-05"}, {1e17, "1e+17"},
      {1.5e20, "1.5e+20"}, {-2.5e-300, "-2.5e-300"},
      {std::numeric_limits<double>::quiet_NaN(), "nan"}, {inf, "inf"}, {-inf, "-inf"}};
  for (const auto& [value, text] : reals) EXPECT_EQ(numberText(value), text);
  for (const double value : {0.1 + 0.2, 1.0 / 3.0, 6.02214076e23, 5e-324}) {
    EXPECT_EQ(std::strtod(numberText(value).c_str(), nullptr), value) << numberText(value);
  }
}

// Segmentation itself is the library's; these are the cut's own rules (the length rules are
// checked through ax_dump's values).
TEST(GraphemeTest, CountStopsAtTheLimitAndAStrayByteStandsAlone) {
  EXPECT_EQ(countGraphemes("abcdef", 4), 4u);
  EXPECT_EQ(countGraphemes("a\xff" "b", 10), 3u);
}

TEST(GraphemeTest, CombiningSequenceAtTheCutStaysWhole) {
  // Character 250 is "e" with two combining marks; character 251 follows it.
  const std::string text = std::string(249, 'a') + "e\u0301\u0323" + std::string(50, 'b');
  EXPECT_EQ(truncateGraphemes(text, 250), std::string(249, 'a') + "e\u0301\u0323" + kEllipsis);
  // Character 251 is the combining sequence: all of it goes.
  const std::string later = std::string(250, 'a') + "e\u0301\u0323" + "b";
  EXPECT_EQ(truncateGraphemes(later, 250), std::string(250, 'a') + kEllipsis);
}

TEST(GraphemeTest, FlagAtTheCutIsNeverSplit) {
  const std::string flag = "\U0001F1EB\U0001F1F7";
  // The flag is character 250: kept whole.
  const std::string text = std::string(249, 'a') + flag + flag + "z";
  EXPECT_EQ(truncateGraphemes(text, 250), std::string(249, 'a') + flag + kEllipsis);
  // The flag is character 251: dropped whole, not cut between its two indicators.
  const std::string later = std::string(250, 'a') + flag;
  EXPECT_EQ(truncateGraphemes(later, 250), std::string(250, 'a') + kEllipsis);
  // Pairs of indicators pair up from the start of the run.
  const std::string flags = repeat(flag, 260);
  EXPECT_EQ(truncateGraphemes(flags, 250), repeat(flag, 250) + kEllipsis);
}

TEST(JsonTextTest, ValidUtf8) {
  EXPECT_TRUE(isValidUtf8("") && isValidUtf8("plain \u00e9 \U0001F1EB\U0001F1F7"));
  // A stray byte, a sequence cut short, an overlong "/", a surrogate.
  for (const char* bad : {"a\xff", "\xc3", "\xc0\xaf", "\xed\xa0\x80"}) {
    EXPECT_FALSE(isValidUtf8(bad));
  }
}

TEST(JsonTextTest, EscapesWhatJsonNeedsAndNothingElse) {
  std::string out;
  appendJsonString(out, "q\"b\\s/\b\f\n\r\t\x01\x1f\x7f \u00e9\u2026");
  EXPECT_EQ(out, "\"q\\\"b\\\\s/\\b\\f\\n\\r\\t\\u0001\\u001f\x7f \u00e9\u2026\"");
  // Whatever goes in reads back the same through a JSON parser.
  const std::string text = std::string("a\0b\"\\\u00e9\n", 8);
  std::string quoted;
  appendJsonString(quoted, text);
  EXPECT_EQ(nlohmann::json::parse(quoted).get<std::string>(), text);
}

}  // namespace
}  // namespace tervain
