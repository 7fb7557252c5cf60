#include "core/json_writer.h"

#include <gtest/gtest.h>

namespace tervain {
namespace {

std::string write(const Json& value) {
  std::string out;
  EXPECT_TRUE(appendCompactJson(out, value));
  return out;
}

TEST(JsonWriterTest, MatchesTheModelsOwnCompactForm) {
  const Json value = Json::parse(R"({"b":[1,-2,true,false,null,"x"],"a":{"k":"v\u00e9\u2014"},
      "big":18446744073709551615,"neg":-9223372036854775808,"s":"q\"\\\n\t\u0001/"})");
  EXPECT_EQ(write(value), value.dump());
  EXPECT_EQ(Json::parse(write(value)), value);
}

TEST(JsonWriterTest, RealsStayRealAndRoundTrip) {
  EXPECT_EQ(write(Json(2.0)), "2.0");
  EXPECT_EQ(write(Json(0.5)), "0.5");
  EXPECT_EQ(write(Json(-1e300)), "-1e+300");
  EXPECT_EQ(Json::parse(write(Json(0.1))).get<double>(), 0.1);
  std::string out;
  EXPECT_FALSE(appendCompactJson(out, Json(std::numeric_limits<double>::infinity())));
  EXPECT_FALSE(appendCompactJson(out, Json(std::numeric_limits<double>::quiet_NaN())));
}

TEST(JsonWriterTest, RejectsInvalidUtf8) {
  std::string out;
  for (const char* bad : {"\xff", "\xc0\x80", "\xe0\x80\x80", "\xed\xa0\x80", "\xf4\x90\x80\x80",
                          "a\xe2\x82", "\x80"}) {
    EXPECT_FALSE(appendJsonString(out, bad)) << bad;
  }
  EXPECT_TRUE(appendJsonString(out, "\xf0\x9f\x87\xa9\xf0\x9f\x87\xaa"));  // a flag
}

}  // namespace
}  // namespace tervain
