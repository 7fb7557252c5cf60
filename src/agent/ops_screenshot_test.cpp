#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <mutex>
#include <thread>
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

  // Makes every capture wait (at most 10 s) until the test ends.
  void holdCaptures() {
    std::shared_future<void> gate = release.get_future().share();
    desktop.onCapture = [gate](int, std::int64_t w, std::int64_t h) {
      gate.wait_for(10s);
      CapturedImage image;
      image.bytes = "late";
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
  EXPECT_EQ(sent["ok"], true);
  EXPECT_EQ(sent["format"], "jpeg");
  EXPECT_EQ(sent["width"], 2878);
  EXPECT_EQ(sent["height"], 1798);
  EXPECT_TRUE(sent["scale"].is_number_float());
  EXPECT_EQ(sent["scale"], 2.0);
  EXPECT_EQ(base64::decode(sent["image"].get<std::string>()), jpeg);

  const auto captures = desktop.captures();
  ASSERT_EQ(captures.size(), 1u);
  const CaptureRequest& asked = captures[0].request;
  EXPECT_EQ(asked.pixelWidth, 2880);
  EXPECT_EQ(asked.pixelHeight, 1800);
  EXPECT_FALSE(asked.region) << "the whole display";
  EXPECT_TRUE(asked.showsCursor);
  EXPECT_EQ(asked.format, ImageFormat::jpeg);
  EXPECT_EQ(asked.quality, 0.7);
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
  const std::vector<std::pair<const char*, int>> cases = {
      {R"({"op":"screenshot"})", 0},
      {R"({"op":"screenshot","display":1})", 1},
      {R"({"op":"screenshot","display":1.0})", 1},
      {R"({"op":"screenshot","display":5})", 0},
      {R"({"op":"screenshot","display":-1})", 0},
      {R"({"op":"screenshot","display":"1"})", 0},
      {R"({"op":"screenshot","display":1.5})", 0},
      {R"({"op":"screenshot","display":1e300})", 0},
  };
  for (const auto& [line, expected] : cases) {
    ASSERT_TRUE(run(line).ok()) << line;
    EXPECT_EQ(desktop.captures().back().displayIndex, expected) << line;
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

  desktop.onCapture = [](int, std::int64_t, std::int64_t) {
    CapturedImage image;
    image.status = CapturedImage::Status::captureFailed;
    image.error = "stream stopped";
    return image;
  };
  EXPECT_EQ(run(R"({"op":"screenshot"})").error(),
            "ScreenCaptureKit capture failed: stream stopped");

  desktop.onCapture = [](int, std::int64_t, std::int64_t) {
    CapturedImage image;
    image.status = CapturedImage::Status::encodingFailed;
    return image;
  };
  EXPECT_EQ(run(R"({"op":"screenshot"})").error(), "JPEG encoding failed");
}

TEST_F(ScreenshotTest, ACaptureThatNeverAnswersTimesOutAndItsLateResultIsDropped) {
  context.screenshotTimeout = 50ms;
  holdCaptures();
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
