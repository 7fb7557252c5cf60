// "screenshot": one whole display, cursor included, at its native pixel size, as a JPEG. Options
// narrow it to a region (in points), scale it down to fit a maximum pixel size, or ask for PNG
// or another JPEG quality; a request without them gets exactly the reply it always got.
//
// The request is answered on the connection's thread, but the capture runs on a worker: the
// platform's capture service answers through callbacks on its own queues and can stall. The
// worker hands its reply over through a ResultBox that both hold a share of; the connection
// waits a bounded time, and on a timeout the worker runs on, fills a box nobody reads and
// frees it.
#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
#include <utility>
#include <variant>

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

// What a request may add to the plain capture; all absent for a plain one.
struct CaptureOptions {
  std::optional<Rect> region;  // points, relative to the display
  std::optional<std::int64_t> maxWidth;
  std::optional<std::int64_t> maxHeight;
  ImageFormat format = ImageFormat::jpeg;
  double quality = kJpegQuality;
  bool any = false;
};

std::optional<double> finiteNumber(const Json* value) {
  if (value == nullptr || !value->is_number()) return std::nullopt;
  const double number = value->get<double>();
  if (!std::isfinite(number)) return std::nullopt;
  return number;
}

// The options, or the message that refuses them.
std::variant<CaptureOptions, std::string> readOptions(const Json& request) {
  CaptureOptions options;
  if (const Json* region = member(request, "region")) {
    const auto x = finiteNumber(member(*region, "x"));
    const auto y = finiteNumber(member(*region, "y"));
    const auto w = finiteNumber(member(*region, "w"));
    const auto h = finiteNumber(member(*region, "h"));
    if (!x || !y || !w || !h || *w <= 0 || *h <= 0) {
      return std::string(R"(screenshot "region" needs numbers x, y, w and h (points), w and h above 0)");
    }
    options.region = Rect{*x, *y, *w, *h};
    options.any = true;
  }
  for (const char* key : {"maxWidth", "maxHeight"}) {
    if (member(request, key) == nullptr) continue;
    const std::optional<std::int64_t> limit = integerMember(request, key);
    if (!limit || *limit < 1) {
      return std::string("screenshot \"") + key + "\" must be a whole number of pixels, at least 1";
    }
    (std::string_view(key) == "maxWidth" ? options.maxWidth : options.maxHeight) = *limit;
    options.any = true;
  }
  if (const Json* format = member(request, "format")) {
    if (*format == "png") {
      options.format = ImageFormat::png;
    } else if (*format != "jpeg") {
      return std::string(R"(screenshot "format" must be "jpeg" or "png")");
    }
    options.any = true;
  }
  if (const Json* quality = member(request, "quality")) {
    const auto value = finiteNumber(quality);
    if (!value || *value < 0.1 || *value > 1.0) {
      return std::string(R"(screenshot "quality" must be a number from 0.1 to 1.0)");
    }
    if (options.format == ImageFormat::png) {
      return std::string(R"(screenshot "quality" applies to JPEG only, not to "png")");
    }
    options.quality = *value;
    options.any = true;
  }
  return options;
}

// Scales a pixel size down (never up) to fit the limits, keeping its aspect ratio; at least one
// pixel each way.
std::pair<std::int64_t, std::int64_t> fitWithin(std::int64_t width, std::int64_t height,
                                                const CaptureOptions& options) {
  double factor = 1.0;
  if (options.maxWidth && width > *options.maxWidth) {
    factor = std::min(factor, static_cast<double>(*options.maxWidth) / static_cast<double>(width));
  }
  if (options.maxHeight && height > *options.maxHeight) {
    factor = std::min(factor, static_cast<double>(*options.maxHeight) / static_cast<double>(height));
  }
  if (factor >= 1.0) return {width, height};
  const auto scaled = [factor](std::int64_t n) {
    return std::max<std::int64_t>(1, static_cast<std::int64_t>(std::floor(static_cast<double>(n) * factor)));
  };
  return {std::min(scaled(width), options.maxWidth.value_or(width)),
          std::min(scaled(height), options.maxHeight.value_or(height))};
}

// The capture itself, run on a worker thread: success or error reply.
Reply captureDisplay(Desktop& desktop, std::int64_t index, const CaptureOptions& options) {
  const ShareableContent content = desktop.copyShareableContent();
  if (content.error) return Reply::failure(kCaptureFailed + *content.error);
  if (content.displays.empty()) return Reply::failure("no shareable displays");

  // An index outside the list is not an error: the first display is the one meant.
  const auto count = static_cast<std::int64_t>(content.displays.size());
  const ShareableDisplay& display =
      *content.displays[static_cast<std::size_t>(index >= 0 && index < count ? index : 0)];

  const ContentFilterGeometry geometry = desktop.contentFilterGeometry(display);
  CaptureRequest request;
  // The region is cut to the display; one that misses it entirely is refused.
  Rect area{0, 0, geometry.width, geometry.height};
  if (options.region) {
    const Rect& r = *options.region;
    const double left = std::max(r.x, 0.0);
    const double top = std::max(r.y, 0.0);
    const double right = std::min(r.x + r.width, geometry.width);
    const double bottom = std::min(r.y + r.height, geometry.height);
    if (!(right > left && bottom > top)) {
      return Reply::failure(R"(screenshot "region" lies outside the display)");
    }
    area = Rect{left, top, right - left, bottom - top};
    request.region = area;
  }
  const auto [width, height] = fitWithin(pixelsOf(area.width, geometry.pointPixelScale),
                                         pixelsOf(area.height, geometry.pointPixelScale), options);
  request.pixelWidth = width;
  request.pixelHeight = height;
  request.showsCursor = true;
  request.format = options.format;
  request.quality = options.quality;
  CapturedImage image = desktop.captureImage(display, request);
  const bool png = options.format == ImageFormat::png;
  switch (image.status) {
    case CapturedImage::Status::captureFailed:
      return Reply::failure(kCaptureFailed + image.error);
    case CapturedImage::Status::encodingFailed:
      return Reply::failure(png ? "PNG encoding failed" : "JPEG encoding failed");
    case CapturedImage::Status::ok:
      break;
  }

  Reply reply = Reply::success();
  reply.body["format"] = png ? "png" : "jpeg";
  reply.body["width"] = image.width;  // the image's own size, not the one asked for
  reply.body["height"] = image.height;
  if (!options.any) {
    reply.body["scale"] = static_cast<double>(geometry.pointPixelScale);
  } else {
    // Image pixels per point, and the region the image shows: a point of the display is
    // region origin + image pixel / scale.
    reply.body["scale"] = area.width > 0 ? static_cast<double>(image.width) / area.width : 0.0;
    reply.body["region"] = {{"x", area.x}, {"y", area.y}, {"w", area.width}, {"h", area.height}};
  }
  // Megabytes: written as base64 straight into the reply's bytes, never through the JSON model.
  reply.base64Members.emplace_back("image", std::move(image.bytes));
  return reply;
}

}  // namespace

Reply opScreenshot(OperationContext& context, const Json& request) {
  Desktop& desktop = context.desktop;
  if (!desktop.screenCaptureAccess()) return Reply::failure(kScreenRecordingNotGranted);
  const std::int64_t index = integerMember(request, "display").value_or(0);
  auto read = readOptions(request);
  if (const std::string* refusal = std::get_if<std::string>(&read)) return Reply::failure(*refusal);
  CaptureOptions options = std::get<CaptureOptions>(std::move(read));

  auto box = std::make_shared<ResultBox<Reply>>();
  Desktop& target = desktop;  // lives for the whole process
  context.agent.startWorker([box, &target, index, options] {
    Reply reply;
    try {
      reply = captureDisplay(target, index, options);
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
