// screenshot: what the reply path adds on top of the base64 encoding a large image needs anyway.
//
// A 6 MB JPEG (random bytes: the encoder does not look at them) is turned into its reply line
// the way the handler does it (a Reply with the image as a base64 member, serializeReply, the
// line feed), and separately just base64-encoded. The two are timed alternately so that noise on
// the shared machine hits both; the figure is the median of the per-round ratios.
#include <chrono>
#include <random>
#include <string>
#include <vector>

#include "bench.h"
#include "core/base64.h"
#include "core/reply.h"

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace

TERVAIN_BENCH_SECTION(screenshotBench, "screenshot") {
  constexpr std::size_t kJpegBytes = 6 * 1024 * 1024;
  constexpr int kRounds = 15;

  std::string jpeg(kJpegBytes, '\0');
  std::mt19937_64 random(2035);
  for (std::size_t i = 0; i + 8 <= jpeg.size(); i += 8) {
    const std::uint64_t word = random();
    for (int b = 0; b < 8; ++b) jpeg[i + b] = static_cast<char>(word >> (8 * b));
  }

  std::vector<double> ratios;
  std::size_t sink = 0;
  for (int round = 0; round < kRounds; ++round) {
    // The capture hands its bytes over by move; the copy here stands for the capture.
    std::string captured = jpeg;
    const auto replyLine = [&] {
      const auto start = Clock::now();
      tervain::Reply reply = tervain::Reply::success();
      reply.body["format"] = "jpeg";
      reply.body["width"] = 2880;
      reply.body["height"] = 1800;
      reply.body["scale"] = 2.0;
      reply.base64Members.emplace_back("image", std::move(captured));
      std::string line = tervain::serializeReply(reply);
      line.push_back('\n');
      const double seconds = secondsSince(start);
      sink += line.size();
      return seconds;
    };
    const auto encodeOnly = [&] {
      const auto start = Clock::now();
      const std::string encoded = tervain::base64::encode(jpeg);
      const double seconds = secondsSince(start);
      sink += encoded.size();
      return seconds;
    };
    // Alternate which goes first, so neither always finds the caches warmed by the other.
    double replySeconds = 0;
    double encodeSeconds = 0;
    if (round % 2 == 0) {
      replySeconds = replyLine();
      encodeSeconds = encodeOnly();
    } else {
      encodeSeconds = encodeOnly();
      replySeconds = replyLine();
    }
    ratios.push_back(replySeconds / encodeSeconds);
  }
  if (sink == 0) return;  // keeps the work observable
  tervain::bench::report("screenshot_reply_vs_base64", tervain::bench::percentile(ratios, 50));
}
