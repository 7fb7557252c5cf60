#include "core/base64.h"

#include <gtest/gtest.h>

#include <numeric>
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

TEST(Base64Test, DecodeRejectsAnythingNotStrict) {
  for (const char* bad : {"!!", "aGk", "aGkK\n", " aGk=", "aGk=aGk=", "a===", "=aGk", "aG=k",
                          "aGk-", "aGk_", "aGs==", "Zm9v\r\n", "Zg="}) {
    EXPECT_FALSE(base64::decode(bad)) << bad;
  }
  EXPECT_EQ(base64::decode("aGkK"), "hi\n");
}

// Every length up to 300 and a few long ones; the bad characters at every position of some.
TEST(Base64Test, RoundTripsAnyBytesAndCatchesAnyBadCharacter) {
  std::string all;
  for (int i = 0; i < 256; ++i) all.push_back(static_cast<char>(i));
  EXPECT_EQ(base64::decode(base64::encode(all)), all);
  std::mt19937 rng(11);
  std::vector<std::size_t> lengths(300);
  std::iota(lengths.begin(), lengths.end(), 0);
  lengths.insert(lengths.end(), {1000, 4099, 65536});
  for (const std::size_t len : lengths) {
    std::string raw(len, '\0');
    for (auto& c : raw) c = static_cast<char>(rng());
    const std::string text = base64::encode(raw);
    ASSERT_EQ(text.size(), base64::encodedSize(len));
    ASSERT_EQ(base64::decode(text), raw) << len;
    std::string slow;  // three bytes at a time, through the short path of the encoder
    for (std::size_t i = 0; i < len; i += 3) slow += base64::encode(raw.substr(i, 3));
    ASSERT_EQ(text, slow) << len;
    if (len < 13 || (len > 28 && len != 1000)) continue;
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
