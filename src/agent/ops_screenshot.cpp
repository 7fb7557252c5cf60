// "screenshot": one whole display, cursor included, at its native pixel size, as a JPEG.
//
// The request is answered on the connection's thread, but the capture runs on a worker: the
// platform's capture service answers through callbacks on its own queues and can stall. The
// worker hands its reply over through a ResultBox that both hold a share of; the connection
// waits a bounded time, and on a timeout the worker runs on, fills a box nobody reads and
// frees it.
#include <cmath>
#include <memory>
#include <string>

#include "agent/ops_screenshot.h"
#include "agent/result_box.h"
#include "core/request_members.h"

namespace tervain {
namespace {

constexpr const char* kScreenRecordingNotGranted =
    "Screen Recording (kTCCServiceScreenCapture) is not granted to the agent \u2014 re-run "
    "provisioning";
constexpr const char* kCaptureFailed = "ScreenCaptureKit capture failed: ";
constexpr double kJpegQuality = 0.7;

// Points times scale, truncated toward zero; 0 for a product no integer can hold.
std::int64_t pixelsOf(double points, float scale) {
  const double product = points * static_cast<double>(scale);
  if (!std::isfinite(product) || product <= -9223372036854775808.0 ||
      product >= 9223372036854775808.0) {
    return 0;
  }
  return static_cast<std::int64_t>(product);
}

// The capture itself, run on a worker thread: success or error reply.
Reply captureDisplay(Desktop& desktop, std::int64_t index) {
  const ShareableContent content = desktop.copyShareableContent();
  if (content.error) return Reply::failure(kCaptureFailed + *content.error);
  if (content.displays.empty()) return Reply::failure("no shareable displays");

  // An index outside the list is not an error: the first display is the one meant.
  const auto count = static_cast<std::int64_t>(content.displays.size());
  const ShareableDisplay& display =
      *content.displays[static_cast<std::size_t>(index >= 0 && index < count ? index : 0)];

  const ContentFilterGeometry geometry = desktop.contentFilterGeometry(display);
  const std::int64_t width = pixelsOf(geometry.width, geometry.pointPixelScale);
  const std::int64_t height = pixelsOf(geometry.height, geometry.pointPixelScale);
  CaptureRequest request;
  request.pixelWidth = width;
  request.pixelHeight = height;
  request.showsCursor = true;
  request.format = ImageFormat::jpeg;
  request.quality = kJpegQuality;
  CapturedImage image = desktop.captureImage(display, request);
  switch (image.status) {
    case CapturedImage::Status::captureFailed:
      return Reply::failure(kCaptureFailed + image.error);
    case CapturedImage::Status::encodingFailed:
      return Reply::failure("JPEG encoding failed");
    case CapturedImage::Status::ok:
      break;
  }

  Reply reply = Reply::success();
  reply.body["format"] = "jpeg";
  reply.body["width"] = image.width;  // the image's own size, not the one asked for
  reply.body["height"] = image.height;
  reply.body["scale"] = static_cast<double>(geometry.pointPixelScale);
  // Megabytes: written as base64 straight into the reply's bytes, never through the JSON model.
  reply.base64Members.emplace_back("image", std::move(image.bytes));
  return reply;
}

}  // namespace

Reply opScreenshot(OperationContext& context, const Json& request) {
  Desktop& desktop = context.desktop;
  if (!desktop.screenCaptureAccess()) return Reply::failure(kScreenRecordingNotGranted);
  const std::int64_t index = integerMember(request, "display").value_or(0);

  auto box = std::make_shared<ResultBox<Reply>>();
  Desktop& target = desktop;  // lives for the whole process
  context.agent.startWorker([box, &target, index] {
    Reply reply;
    try {
      reply = captureDisplay(target, index);
    } catch (const std::exception& e) {
      reply = Reply::failure(std::string("screenshot failed inside the agent: ") + e.what());
    } catch (...) {
      reply = Reply::failure("screenshot failed inside the agent");
    }
    box->put(std::move(reply));
  });

  std::optional<Reply> reply = box->waitFor(context.agent.screenshotTimeout);
  if (!reply) return Reply::failure("screenshot timed out");
  return std::move(*reply);
}

}  // namespace tervain
