#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <mutex>
#include <optional>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "agent/connection_handler.h"
#include "core/base64.h"
#include "fake_desktop.h"

namespace tervain {
namespace {

using namespace std::chrono_literals;

constexpr const char* kNotGranted =
    "Screen Recording (kTCCServiceScreenCapture) is not granted to the agent \u2014 re-run "
    "provisioning";

class ScreenshotTest : public ::testing::Test {
 protected:
  ScreenshotTest() {
    desktop.captureDisplays = {{{1440, 900, 2.0f}}};
    // Workers are kept so the test can wait for every one of them before the desktop goes.
    context.startWorker = [this](std::function<void()> job) {
      std::lock_guard lock(workersMutex);
      workers.emplace_back(std::move(job));
    };
  }

  void TearDown() override {
    release.set_value();  // a capture held back by a test may finish now
    std::lock_guard lock(workersMutex);
    for (std::thread& worker : workers) worker.join();
  }

  // Makes every capture deliver the size it was asked for; held, each waits (at most 10 s)
  // until the test ends first.
  void deliverAskedSize(bool held = false) {
    std::shared_future<void> gate;
    if (held) gate = release.get_future().share();
    desktop.onCapture = [gate](int, std::int64_t w, std::int64_t h) {
      if (gate.valid()) gate.wait_for(10s);
      CapturedImage image;
      image.bytes = "img";
      image.width = w;
      image.height = h;
      return image;
    };
  }

  Reply run(std::string_view line) { return handler.dispatch(line); }
  Json wire(std::string_view line) { return Json::parse(serializeReply(run(line))); }

  testing::FakeDesktop desktop;
  AgentContext context{desktop};
  ConnectionHandler handler{-1, context};
  std::promise<void> release;
  std::mutex workersMutex;
  std::vector<std::thread> workers;
};

TEST_F(ScreenshotTest, MissingGrantIsReportedFirstAndStartsNoCapture) {
  desktop.screenRecording = false;
  EXPECT_EQ(run(R"({"op":"screenshot","display":"x"})").error(), kNotGranted);
  EXPECT_TRUE(workers.empty());
  EXPECT_TRUE(desktop.captures().empty());
}

TEST_F(ScreenshotTest, ReplyCarriesTheImageAsBase64AndItsSize) {
  const std::string jpeg("\xFF\xD8\xFF\xE0\x00\x10JFIF\x00\xFF\xD9", 14);
  desktop.onCapture = [&jpeg](int, std::int64_t, std::int64_t) {
    CapturedImage image;
    image.bytes = jpeg;
    image.width = 2878;  // what the platform delivered, not what was asked for
    image.height = 1798;
    return image;
  };
  const Reply reply = run(R"({"op":"screenshot"})");
  EXPECT_FALSE(reply.body.contains("image")) << "the image never goes through the JSON model";

  const Json sent = Json::parse(serializeReply(reply));
  EXPECT_EQ(sent.size(), 6u);
  EXPECT_EQ(sent["width"], 2878);
  EXPECT_EQ(sent["height"], 1798);
  EXPECT_TRUE(sent["scale"].is_number_float());
  EXPECT_EQ(sent["scale"], 2.0);
  EXPECT_EQ(base64::decode(sent["image"].get<std::string>()), jpeg);

  ASSERT_EQ(desktop.captures().size(), 1u);
  EXPECT_TRUE(desktop.captures()[0].request.showsCursor);
}

// Options on a 1440x900-point display at 2 pixels a point: what the platform is asked for and
// what the reply says. The platform delivers the size it was asked for.
TEST_F(ScreenshotTest, OptionsNarrowScaleAndEncodeAndTheReplyMapsImagePixelsToPoints) {
  deliverAskedSize();
  struct Case {
    const char* options;
    std::int64_t width, height;  // asked of the platform, and the image's size
    std::optional<Rect> region;  // asked of the platform
    ImageFormat format;
    double quality;
    const char* replyRegion;  // the reply's "region"
    double scale;             // the reply's image pixels per point
  };
  const char* kWhole = R"({"x":0.0,"y":0.0,"w":1440.0,"h":900.0})";
  const Case cases[] = {
      // The defaults: the whole display at full size, as JPEG of quality 0.7, and no region.
      {R"("display":0)", 2880, 1800, std::nullopt, ImageFormat::jpeg, 0.7, "null", 2.0},
      {R"("region":{"x":100,"y":50,"w":400,"h":300})", 800, 600, Rect{100, 50, 400, 300},
       ImageFormat::jpeg, 0.7, R"({"x":100.0,"y":50.0,"w":400.0,"h":300.0})", 2.0},
      // Cut to the display.
      {R"("region":{"x":-10,"y":800,"w":100,"h":500})", 180, 200, Rect{0, 800, 90, 100},
       ImageFormat::jpeg, 0.7, R"({"x":0.0,"y":800.0,"w":90.0,"h":100.0})", 2.0},
      // Scaled down, never up, keeping the aspect ratio; the tighter limit wins.
      {R"("maxWidth":1440)", 1440, 900, std::nullopt, ImageFormat::jpeg, 0.7, kWhole, 1.0},
      {R"("maxWidth":1440,"maxHeight":450)", 720, 450, std::nullopt, ImageFormat::jpeg, 0.7, kWhole, 0.5},
      {R"("maxWidth":5000)", 2880, 1800, std::nullopt, ImageFormat::jpeg, 0.7, kWhole, 2.0},
      {R"("maxHeight":1)", 1, 1, std::nullopt, ImageFormat::jpeg, 0.7, kWhole, 1.0 / 1440},
      {R"("format":"png")", 2880, 1800, std::nullopt, ImageFormat::png, 0.7, kWhole, 2.0},
      {R"("format":"jpeg","quality":0.25)", 2880, 1800, std::nullopt, ImageFormat::jpeg, 0.25, kWhole, 2.0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.options);
    const std::size_t earlier = desktop.captures().size();
    const Json sent = wire(std::string(R"({"op":"screenshot",)") + c.options + "}");
    ASSERT_EQ(sent["ok"], true) << sent.dump();
    const CaptureRequest asked = desktop.captures().at(earlier).request;
    EXPECT_EQ(asked.pixelWidth, c.width);
    EXPECT_EQ(asked.pixelHeight, c.height);
    EXPECT_EQ(asked.region.has_value(), c.region.has_value());
    if (asked.region && c.region) {
      EXPECT_EQ(std::tie(asked.region->x, asked.region->y, asked.region->width, asked.region->height),
                std::tie(c.region->x, c.region->y, c.region->width, c.region->height));
    }
    EXPECT_EQ(asked.format, c.format);
    EXPECT_EQ(asked.quality, c.quality);
    EXPECT_EQ(sent["format"], c.format == ImageFormat::png ? "png" : "jpeg");
    EXPECT_EQ(sent["width"], c.width);
    EXPECT_EQ(sent["height"], c.height);
    EXPECT_EQ(sent.value("region", Json()), Json::parse(c.replyRegion));
    EXPECT_DOUBLE_EQ(sent["scale"].get<double>(), c.scale);
  }
}

TEST_F(ScreenshotTest, BadOptionsAreRefusedBeforeAnyCapture) {
  const std::string region = R"(screenshot "region" needs numbers x, y, w and h (points), w and h above 0)";
  const std::string limit = R"(" must be a whole number of pixels, at least 1)";
  const std::pair<const char*, std::string> cases[] = {
      {R"("region":{"x":0,"y":0,"w":10})", region},
      {R"("region":{"x":0,"y":0,"w":0,"h":10})", region},
      {R"("region":[0,0,10,10])", region},
      {R"("maxWidth":0)", std::string(R"(screenshot "maxWidth)") + limit},
      {R"("maxHeight":2.5)", std::string(R"(screenshot "maxHeight)") + limit},
      {R"("format":"bmp")", R"(screenshot "format" must be "jpeg" or "png")"},
      {R"("quality":0.05)", R"(screenshot "quality" must be a number from 0.1 to 1.0)"},
      {R"("format":"png","quality":0.5)", R"(screenshot "quality" applies to JPEG only, not to "png")"},
  };
  for (const auto& [options, message] : cases) {
    const Json sent = wire(std::string(R"({"op":"screenshot",)") + options + "}");
    EXPECT_EQ(sent, Json({{"ok", false}, {"error", message}})) << options;
  }
  // A region wholly off the display is known only once the display's size is.
  EXPECT_EQ(wire(R"({"op":"screenshot","region":{"x":1440,"y":0,"w":10,"h":10}})")["error"],
            R"(screenshot "region" lies outside the display)");
  EXPECT_TRUE(desktop.captures().empty());
}

TEST_F(ScreenshotTest, PixelSizeIsTheTruncatedProductInDoubles) {
  desktop.captureDisplays = {{{1000.9, 333.3, 1.1f}}};
  const Json sent = wire(R"({"op":"screenshot"})");
  const double scale = static_cast<double>(1.1f);
  EXPECT_EQ(sent["scale"], scale);
  EXPECT_EQ(desktop.captures().at(0).request.pixelWidth, static_cast<std::int64_t>(1000.9 * scale));
  EXPECT_EQ(desktop.captures().at(0).request.pixelHeight, static_cast<std::int64_t>(333.3 * scale));
}

TEST_F(ScreenshotTest, DisplayIndexIsAnExactIntegerAndOutOfRangeMeansTheFirst) {
  desktop.captureDisplays = {{{100, 100, 1.0f}}, {{200, 200, 1.0f}}};
  const std::pair<const char*, int> cases[] = {
      {"", 0}, {R"(,"display":1)", 1}, {R"(,"display":1.0)", 1}, {R"(,"display":5)", 0},
      {R"(,"display":-1)", 0}, {R"(,"display":"1")", 0}, {R"(,"display":1.5)", 0}};
  for (const auto& [display, expected] : cases) {
    ASSERT_TRUE(run(std::string(R"({"op":"screenshot")") + display + "}").ok()) << display;
    EXPECT_EQ(desktop.captures().back().displayIndex, expected) << display;
  }
}

TEST_F(ScreenshotTest, CaptureFailuresHaveTheirOwnTexts) {
  desktop.shareableContentError = "The user declined TCCs for application, window, display capture";
  EXPECT_EQ(run(R"({"op":"screenshot"})").error(),
            "ScreenCaptureKit capture failed: The user declined TCCs for application, window, "
            "display capture");
  desktop.shareableContentError.reset();

  desktop.captureDisplays.clear();
  EXPECT_EQ(run(R"({"op":"screenshot"})").error(), "no shareable displays");
  desktop.captureDisplays = {{{10, 10, 1.0f}}};

  using Status = CapturedImage::Status;
  for (const auto& [status, detail, message] :
       {std::tuple{Status::captureFailed, "stream stopped",
                   "ScreenCaptureKit capture failed: stream stopped"},
        {Status::encodingFailed, "", "JPEG encoding failed"}}) {
    CapturedImage image;
    image.status = status;
    image.error = detail;
    desktop.onCapture = [image](int, std::int64_t, std::int64_t) { return image; };
    EXPECT_EQ(run(R"({"op":"screenshot"})").error(), message);
  }
}

TEST_F(ScreenshotTest, ACaptureThatNeverAnswersTimesOutAndItsLateResultIsDropped) {
  context.screenshotTimeout = 50ms;
  deliverAskedSize(true);
  EXPECT_EQ(run(R"({"op":"screenshot"})").body,
            Json({{"ok", false}, {"error", "screenshot timed out"}}));
  EXPECT_EQ(run(R"({"op":"screenshot","display":3})").error(), "screenshot timed out");
  // The connection goes on serving while both workers still hold their boxes.
  EXPECT_TRUE(run(R"({"op":"ping"})").ok());
  EXPECT_EQ(workers.size(), 2u);
  // TearDown lets both captures finish into boxes that nobody reads any more. (A capture on the
  // connection's own thread would have blocked here instead of timing out.)
}

TEST(ScreenshotDefaultsTest, WaitFifteenSeconds) {
  testing::FakeDesktop desktop;
  EXPECT_EQ(AgentContext(desktop).screenshotTimeout, 15s);
}

}  // namespace
}  // namespace tervain
