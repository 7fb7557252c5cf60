#include "core/request_members.h"

#include <gtest/gtest.h>

namespace tervain {
namespace {

Json req(std::string_view text) {
  auto parsed = parseRequestObject(text);
  EXPECT_TRUE(parsed) << text;
  return parsed.value_or(Json::object());
}

TEST(RequestMembersTest, ParseAcceptsOnlyObjects) {
  EXPECT_TRUE(parseRequestObject(R"({"op":"ping"})"));
  for (const char* bad : {"[1,2]", "\"ping\"", "{\"op\":", "{} {}", "{\"op\":\"\xff\"}", ""}) {
    EXPECT_FALSE(parseRequestObject(bad)) << bad;
  }
}

// "Absent" in the tables below; no case reads as this value.
constexpr std::int64_t kAbsent = INT64_MAX - 1;

TEST(RequestMembersTest, IntegerMemberTakesWholeNumbersOnly) {
  const Json r = req(R"({"a":10,"b":10.0,"c":1e1,"d":10.5,"e":"10","f":true,"g":null,
      "h":-9223372036854775808,"i":9223372036854775807,"j":9223372036854775808,
      "l":-1e19,"m":[1],"n":-0.0})");
  const std::pair<const char*, std::int64_t> cases[] = {
      {"a", 10}, {"b", 10}, {"c", 10}, {"d", kAbsent}, {"e", kAbsent}, {"f", kAbsent},
      {"g", kAbsent}, {"h", INT64_MIN}, {"i", INT64_MAX}, {"j", kAbsent}, {"l", kAbsent},
      {"m", kAbsent}, {"n", 0}, {"missing", kAbsent}};
  for (const auto& [key, value] : cases) {
    EXPECT_EQ(integerMember(r, key).value_or(kAbsent), value) << key;
  }
  // 1e400 does not even parse (the whole line is then malformed); a non-finite value that
  // reaches a reader another way is still not an integer.
  EXPECT_FALSE(parseRequestObject(R"({"k":1e400})"));
  const Json inf = {{"k", std::numeric_limits<double>::infinity()},
                    {"nan", std::numeric_limits<double>::quiet_NaN()}};
  EXPECT_EQ(integerMember(inf, "k"), std::nullopt);
  EXPECT_EQ(truncatedIntegerMember(inf, "k"), std::nullopt);
  EXPECT_EQ(truncatedIntegerMember(inf, "nan"), std::nullopt);
  EXPECT_EQ(integerMember(Json::array(), "a"), std::nullopt);
}

TEST(RequestMembersTest, TruncatedIntegerMemberTruncatesTowardZero) {
  const Json r = req(R"({"a":3.9,"b":-3.9,"c":7,"d":"7","e":1e300,"f":-1e300,"g":false,
      "h":9.3e18,"i":9.2233720368547748e18})");
  const std::pair<const char*, std::int64_t> cases[] = {
      {"a", 3}, {"b", -3}, {"c", 7}, {"d", kAbsent}, {"e", kAbsent}, {"f", kAbsent},
      {"g", kAbsent}, {"h", kAbsent},
      {"i", 9223372036854774784}};  // the largest double below 2^63
  for (const auto& [key, value] : cases) {
    EXPECT_EQ(truncatedIntegerMember(r, key).value_or(kAbsent), value) << key;
  }
}

TEST(RequestMembersTest, StringsNarrowingAndRounding) {
  const Json r = req(R"({"s":"","t":5})");
  ASSERT_NE(stringMember(r, "s"), nullptr);
  EXPECT_EQ(*stringMember(r, "s"), "");
  EXPECT_EQ(stringMember(r, "t"), nullptr);
  EXPECT_EQ(narrowToInt32(INT32_MAX), INT32_MAX);
  EXPECT_EQ(narrowToInt32(std::int64_t{INT32_MAX} + 1), std::nullopt);
  EXPECT_EQ(narrowToInt32(std::int64_t{INT32_MIN} - 1), std::nullopt);
  // Halves away from zero; nothing for what is not finite or does not fit.
  const std::pair<double, std::int64_t> rounded[] = {
      {100.5, 101}, {200.49, 200}, {-10.5, -11}, {-0.5, -1}, {1e19, kAbsent},
      {std::numeric_limits<double>::quiet_NaN(), kAbsent},
      {std::numeric_limits<double>::infinity(), kAbsent}};
  for (const auto& [value, expected] : rounded) {
    EXPECT_EQ(roundHalfAwayFromZero(value).value_or(kAbsent), expected) << value;
  }
}

// True, non-zero numbers; nothing else, not even "true", [1] or {}.
TEST(RequestMembersTest, Truthy) {
  const Json r = req(R"({"a":true,"b":false,"c":1,"d":0,"e":0.5,"f":0.0,"g":"true","h":null,
      "i":[1],"j":{}})");
  std::string truthyKeys;
  for (const char* key : {"a", "b", "c", "d", "e", "f", "g", "h", "i", "j", "missing"}) {
    if (truthy(member(r, key))) truthyKeys += key;
  }
  EXPECT_EQ(truthyKeys, "ace");
}

}  // namespace
}  // namespace tervain
