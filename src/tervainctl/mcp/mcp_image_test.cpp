#include "tervainctl/mcp/mcp_image.h"

#include "tervainctl/mcp/annotate.h"

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

client::AXNode node(std::string ref, std::string role, client::Rect frame,
                   std::vector<std::string> actions = {}) {
  client::AXNode n;
  n.ref = std::move(ref);
  n.role = std::move(role);
  n.title = "t" + n.ref;
  n.frame = frame;
  n.actions = std::move(actions);
  return n;
}

TEST(AnnotateImage, MarksLandOnTheirElementsThroughOriginAndScale) {
  // A 100x60 image of the points (50,30)..(100,60) at 2 pixels a point.
  client::AXNode window = node("e1", "AXWindow", {0, 0, 400, 300}, {"AXRaise"});
  window.children = {node("e2", "AXButton", {60, 40, 20, 10}),
                     node("e3", "AXStaticText", {60, 50, 20, 5}),           // not actionable
                     node("e4", "AXGroup", {40, 20, 200, 200}, {"AXPress"}),  // clipped
                     node("e5", "AXCheckBox", {0, 0, 40, 20})};             // off the image
  client::AXNode app;
  app.children = {window};
  const auto marks = actionableMarks(app, {50, 30, 2}, 100, 60);
  ASSERT_EQ(marks.size(), 2u);
  EXPECT_EQ(marks[0].ref, "e2");
  EXPECT_EQ((std::vector<std::int64_t>{marks[0].box.x, marks[0].box.y, marks[0].box.w, marks[0].box.h}),
            (std::vector<std::int64_t>{20, 20, 40, 20}));
  EXPECT_EQ((std::vector<std::int64_t>{marks[1].box.x, marks[1].box.y, marks[1].box.w, marks[1].box.h}),
            (std::vector<std::int64_t>{0, 0, 100, 60}));
  EXPECT_EQ(markLegend(marks), "1  e2  AXButton  \"te2\"  at 70,45\n"
                               "2  e4  AXGroup  \"te4\"  at 140,120\n");

  Pixels white{100, 60, std::vector<unsigned char>(100 * 60 * 3, 255)};
  drawMarks(white, {marks[0]});
  std::string error;
  const auto png = encodeImage(white, ImageFormat::png, 0, error);
  ASSERT_TRUE(png) << error;
  auto back = decodeImage(png->bytes, error);
  ASSERT_TRUE(back) << error;
  EXPECT_NE(back->at(20, 20)[1], 255);  // the label's corner
  EXPECT_NE(back->at(59, 39)[1], 255);  // the outline's far corner
  EXPECT_EQ(back->at(50, 33)[1], 255);  // inside the box, clear of the label
  EXPECT_EQ(back->at(19, 19)[1], 255);  // outside
  EXPECT_FALSE(decodeImage("neither", error));
  EXPECT_NE(error.find("neither a JPEG nor a PNG"), std::string::npos) << error;
}

}  // namespace
}  // namespace tervain::mcp
