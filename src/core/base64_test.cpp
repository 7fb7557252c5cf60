#include "core/base64.h"

#include <gtest/gtest.h>

#include <random>

namespace tervain {
namespace {

TEST(Base64Test, Rfc4648Vectors) {
  const std::pair<const char*, const char*> vectors[] = {
      {"", ""},         {"f", "Zg=="},         {"fo", "Zm8="},         {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"},
  };
  for (const auto& [raw, text] : vectors) {
    EXPECT_EQ(base64::encode(raw), text);
    EXPECT_EQ(base64::decode(text), raw);
  }
}

TEST(Base64Test, RoundTripsEveryByteAndLength) {
  std::mt19937 rng(7);
  for (std::size_t len = 0; len < 300; ++len) {
    std::string raw(len, '\0');
    for (auto& c : raw) c = static_cast<char>(rng());
    const std::string text = base64::encode(raw);
    ASSERT_EQ(text.size(), base64::encodedSize(len));
    ASSERT_EQ(base64::decode(text), raw) << len;
  }
  std::string all;
  for (int i = 0; i < 256; ++i) all.push_back(static_cast<char>(i));
  EXPECT_EQ(base64::decode(base64::encode(all)), all);
}

TEST(Base64Test, DecodeRejectsAnythingNotStrict) {
  for (const char* bad : {"!!", "aGk", "aGkK\n", " aGk=", "aGk=aGk=", "a===", "=aGk", "aG=k",
                          "aGk-", "aGk_", "aGs==", "Zm9v\r\n", "Zg="}) {
    EXPECT_FALSE(base64::decode(bad)) << bad;
  }
  EXPECT_EQ(base64::decode("aGkK"), "hi\n");
}

TEST(Base64Test, LongInputsRoundTripAndAnyBadCharacterIsCaught) {
  std::mt19937 rng(11);
  for (std::size_t len : {13u, 14u, 15u, 26u, 27u, 28u, 1000u, 4099u, 65536u}) {
    std::string raw(len, '\0');
    for (auto& c : raw) c = static_cast<char>(rng());
    const std::string text = base64::encode(raw);
    std::string slow;
    for (std::size_t i = 0; i < len; i += 3) {
      // Three bytes at a time through the short path of the encoder.
      slow += base64::encode(raw.substr(i, 3));
    }
    ASSERT_EQ(text, slow) << len;
    ASSERT_EQ(base64::decode(text), raw) << len;
    if (len > 1000) continue;
    for (std::size_t at = 0; at < text.size(); ++at) {
      for (const char bad : {'!', '=', '-', '_', '\0', '\n', ' ', '\x80', '\xff', '.', ':', '@',
                             '[', '`', '{'}) {
        if (bad == '=' && at + 2 >= text.size()) continue;  // may be legitimate padding there
        std::string broken = text;
        broken[at] = bad;
        ASSERT_FALSE(base64::decode(broken)) << len << " " << at << " " << int(bad);
      }
    }
  }
}

}  // namespace
}  // namespace tervain
