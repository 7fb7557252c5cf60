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
  EXPECT_FALSE(parseRequestObject("[1,2]"));
  EXPECT_FALSE(parseRequestObject("\"ping\""));
  EXPECT_FALSE(parseRequestObject("{\"op\":"));
  EXPECT_FALSE(parseRequestObject("{} {}"));
  EXPECT_FALSE(parseRequestObject("{\"op\":\"\xff\"}"));  // not UTF-8
  EXPECT_FALSE(parseRequestObject(""));
}

TEST(RequestMembersTest, IntegerMemberTakesWholeNumbersOnly) {
  const Json r = req(R"({"a":10,"b":10.0,"c":1e1,"d":10.5,"e":"10","f":true,"g":null,
      "h":-9223372036854775808,"i":9223372036854775807,"j":9223372036854775808,
      "l":-1e19,"m":[1],"n":-0.0})");
  EXPECT_EQ(integerMember(r, "a"), 10);
  EXPECT_EQ(integerMember(r, "b"), 10);
  EXPECT_EQ(integerMember(r, "c"), 10);
  EXPECT_EQ(integerMember(r, "d"), std::nullopt);
  EXPECT_EQ(integerMember(r, "e"), std::nullopt);
  EXPECT_EQ(integerMember(r, "f"), std::nullopt);
  EXPECT_EQ(integerMember(r, "g"), std::nullopt);
  EXPECT_EQ(integerMember(r, "h"), INT64_MIN);
  EXPECT_EQ(integerMember(r, "i"), INT64_MAX);
  EXPECT_EQ(integerMember(r, "j"), std::nullopt);
  // 1e400 does not even parse (the whole line is then malformed); a non-finite value that
  // reaches a reader another way is still not an integer.
  EXPECT_FALSE(parseRequestObject(R"({"k":1e400})"));
  const Json inf = {{"k", std::numeric_limits<double>::infinity()},
                    {"nan", std::numeric_limits<double>::quiet_NaN()}};
  EXPECT_EQ(integerMember(inf, "k"), std::nullopt);
  EXPECT_EQ(truncatedIntegerMember(inf, "k"), std::nullopt);
  EXPECT_EQ(truncatedIntegerMember(inf, "nan"), std::nullopt);
  EXPECT_EQ(integerMember(r, "l"), std::nullopt);
  EXPECT_EQ(integerMember(r, "m"), std::nullopt);
  EXPECT_EQ(integerMember(r, "n"), 0);
  EXPECT_EQ(integerMember(r, "missing"), std::nullopt);
  EXPECT_EQ(integerMember(Json::array(), "a"), std::nullopt);
}

TEST(RequestMembersTest, TruncatedIntegerMemberTruncatesTowardZero) {
  const Json r = req(R"({"a":3.9,"b":-3.9,"c":7,"d":"7","e":1e300,"f":-1e300,"g":false,
      "h":9.3e18,"i":9.2233720368547748e18})");
  EXPECT_EQ(truncatedIntegerMember(r, "a"), 3);
  EXPECT_EQ(truncatedIntegerMember(r, "b"), -3);
  EXPECT_EQ(truncatedIntegerMember(r, "c"), 7);
  EXPECT_EQ(truncatedIntegerMember(r, "d"), std::nullopt);
  EXPECT_EQ(truncatedIntegerMember(r, "e"), std::nullopt);
  EXPECT_EQ(truncatedIntegerMember(r, "f"), std::nullopt);
  EXPECT_EQ(truncatedIntegerMember(r, "g"), std::nullopt);
  EXPECT_EQ(truncatedIntegerMember(r, "h"), std::nullopt);
  EXPECT_EQ(truncatedIntegerMember(r, "i"), 9223372036854774784);  // the largest double below 2^63
}

TEST(RequestMembersTest, StringsAndNarrowing) {
  const Json r = req(R"({"s":"","t":5})");
  ASSERT_NE(stringMember(r, "s"), nullptr);
  EXPECT_EQ(*stringMember(r, "s"), "");
  EXPECT_EQ(stringMember(r, "t"), nullptr);
  EXPECT_EQ(narrowToInt32(INT32_MAX), INT32_MAX);
  EXPECT_EQ(narrowToInt32(std::int64_t{INT32_MAX} + 1), std::nullopt);
  EXPECT_EQ(narrowToInt32(std::int64_t{INT32_MIN} - 1), std::nullopt);
}

TEST(RequestMembersTest, RoundsHalvesAwayFromZero) {
  EXPECT_EQ(roundHalfAwayFromZero(100.5), 101);
  EXPECT_EQ(roundHalfAwayFromZero(200.49), 200);
  EXPECT_EQ(roundHalfAwayFromZero(-10.5), -11);
  EXPECT_EQ(roundHalfAwayFromZero(-0.5), -1);
  EXPECT_EQ(roundHalfAwayFromZero(std::numeric_limits<double>::quiet_NaN()), std::nullopt);
  EXPECT_EQ(roundHalfAwayFromZero(std::numeric_limits<double>::infinity()), std::nullopt);
  EXPECT_EQ(roundHalfAwayFromZero(1e19), std::nullopt);
}

TEST(RequestMembersTest, Truthy) {
  const Json r = req(R"({"a":true,"b":false,"c":1,"d":0,"e":0.5,"f":0.0,"g":"true","h":null,
      "i":[1],"j":{}})");
  EXPECT_TRUE(truthy(member(r, "a")));
  EXPECT_FALSE(truthy(member(r, "b")));
  EXPECT_TRUE(truthy(member(r, "c")));
  EXPECT_FALSE(truthy(member(r, "d")));
  EXPECT_TRUE(truthy(member(r, "e")));
  EXPECT_FALSE(truthy(member(r, "f")));
  EXPECT_FALSE(truthy(member(r, "g")));
  EXPECT_FALSE(truthy(member(r, "h")));
  EXPECT_FALSE(truthy(member(r, "i")));
  EXPECT_FALSE(truthy(member(r, "j")));
  EXPECT_FALSE(truthy(member(r, "missing")));
}

}  // namespace
}  // namespace tervain
