#include "tervainctl/mcp/mcp_image.h"

#include <turbojpeg.h>

#include <gtest/gtest.h>

#include <vector>

#include "decoded_image.h"

namespace tervain::mcp {
namespace {

// A width x height JPEG whose left half is red and right half blue.
std::string twoColourJpeg(int width, int height) {
  std::vector<unsigned char> rgb(static_cast<std::size_t>(width) * height * 3);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      unsigned char* p = &rgb[(static_cast<std::size_t>(y) * width + x) * 3];
      p[0] = x < width / 2 ? 220 : 0;
      p[2] = x < width / 2 ? 0 : 220;
    }
  }
  tjhandle encoder = tjInitCompress();
  unsigned char* bytes = nullptr;
  unsigned long size = 0;
  tjCompress2(encoder, rgb.data(), width, 0, height, TJPF_RGB, &bytes, &size, TJSAMP_444, 95, 0);
  std::string jpeg(reinterpret_cast<char*>(bytes), size);
  tjFree(bytes);
  tjDestroy(encoder);
  return jpeg;
}

TEST(FitImage, ScalesToTheWidthKeepingAspectColoursAndFormat) {
  const std::string jpeg = twoColourJpeg(1000, 601);
  struct Case {
    int maxWidth;
    ImageFormat format;
    int width;
    int height;
    const char* mime;
  } cases[] = {
      {500, ImageFormat::jpeg, 500, 301, "image/jpeg"},  // 300.5 rounds up
      {333, ImageFormat::png, 333, 200, "image/png"},    // past the decoder's 3/8 step
      {1000, ImageFormat::png, 1000, 601, "image/png"},  // no scaling, new format
      {4000, ImageFormat::png, 1000, 601, "image/png"},  // never enlarged
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.maxWidth);
    std::string error;
    const auto image = fitImage(jpeg, c.maxWidth, c.format, 85, error);
    ASSERT_TRUE(image) << error;
    EXPECT_EQ(image->width, c.width);
    EXPECT_EQ(image->height, c.height);
    EXPECT_STREQ(image->mimeType, c.mime);
    const auto pixels =
        testing::decodeImage(image->bytes, std::string_view(image->mimeType) == "image/png");
    ASSERT_EQ(pixels.width, c.width);
    ASSERT_EQ(pixels.height, c.height);
    const unsigned char* left = pixels.at(c.width / 4, c.height / 2);
    const unsigned char* right = pixels.at(c.width * 3 / 4, c.height / 2);
    EXPECT_GT(left[0], 180);
    EXPECT_LT(left[2], 40);
    EXPECT_LT(right[0], 40);
    EXPECT_GT(right[2], 180);
  }
}

TEST(FitImage, AFittingJpegPassesUnchangedAndGarbageIsAnError) {
  const std::string jpeg = twoColourJpeg(64, 32);
  std::string error;
  const auto same = fitImage(jpeg, 64, ImageFormat::jpeg, 80, error);
  ASSERT_TRUE(same);
  EXPECT_EQ(same->bytes, jpeg);
  EXPECT_FALSE(fitImage("not a jpeg", 64, ImageFormat::jpeg, 80, error));
  EXPECT_NE(error.find("not a JPEG"), std::string::npos) << error;
}

}  // namespace
}  // namespace tervain::mcp
