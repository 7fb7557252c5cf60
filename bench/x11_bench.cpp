// x11: the X11 desktop against bare floors measured in the same run, on the test desktop that
// scripts/bench starts (the section is skipped without a display).
//
// x11_screenshot_1080p_ms: a whole "screenshot" reply from the agent at 1920x1080, with
// gtk3-widget-factory on the screen for realistic content. x11_screenshot_vs_floor: that against
// a bare XShm grab + JPEG encode + base64 of the same screen, timed alternately with it; the
// figure is the median of the per-round ratios. screenshot_region_vs_full: a quarter of the
// screen ("region" 960x540 points from the top left) against the whole screen, both through the
// agent, timed alternately; the median of the per-round ratios. x11_type_chars_per_s: a mixed text (ASCII and
// characters off the keymap) typed into the factory's entry through the agent, and
// x11_type_delivered: 1 when the entry then holds exactly that text (read back through the
// clipboard), 0 otherwise.
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdlib>
#include <thread>

#include "agent_process.h"
#include "bench.h"
#include "core/base64.h"
#include "core/json.h"
#include "desktop/x_window.h"
#include "platform/x11/image_encoding.h"
#include "platform/x11/x11_capture.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

double millisecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

}  // namespace

TERVAIN_BENCH_SECTION(x11Bench, "x11") {
  if (std::getenv("DISPLAY") == nullptr) {
    std::fprintf(stderr, "x11: no DISPLAY, skipped (scripts/bench runs inside scripts/desktop)\n");
    return;
  }
  Display* display = XOpenDisplay(nullptr);
  if (display == nullptr) {
    std::fprintf(stderr, "x11: the display does not answer, skipped\n");
    return;
  }
  pid_t factory = -1;
  char program[] = "gtk3-widget-factory";
  char* argv[] = {program, nullptr};
  if (posix_spawnp(&factory, program, nullptr, nullptr, argv, environ) != 0) {
    std::fprintf(stderr, "x11: gtk3-widget-factory could not start, skipped\n");
    XCloseDisplay(display);
    return;
  }
  const auto window = tervain::testing::findTopLevel(display, program, 20s);
  tervain::testing::AgentProcess agent(
      tervain::testing::AgentProcess::Options{.args = {"--desktop", "x11"}});
  std::this_thread::sleep_for(1s);  // drawn and idle

  if (window) {
    constexpr int kRounds = 15;
    tervain::x11::Connection connection;
    tervain::x11::Capture capture(connection);
    std::vector<double> agentMs, ratios, regionRatios;
    const std::string quarter =
        tervain::Json{{"op", "screenshot"},
                      {"region", {{"x", 0}, {"y", 0}, {"w", 960}, {"h", 540}}}}.dump();
    std::size_t sink = 0;
    for (int round = 0; round < kRounds; ++round) {
      auto start = Clock::now();
      const auto reply = agent.request(R"({"op":"screenshot"})");
      const double whole = millisecondsSince(start);
      sink += reply ? reply->size() : 0;

      start = Clock::now();
      std::string error;
      capture.grab({0, 0, 1920, 1080}, true, [&](const tervain::x11::Pixels& pixels) {
        sink += tervain::base64::encode(tervain::x11::encodeJpeg(pixels, 70).bytes).size();
      }, error);
      const double floor = millisecondsSince(start);

      start = Clock::now();
      const auto region = agent.request(quarter);
      const double part = millisecondsSince(start);
      if (!region || region->find("\"image\"") == std::string::npos) {
        std::fprintf(stderr, "x11: the region screenshot failed: %s\n",
                     region ? region->substr(0, 200).c_str() : "no reply");
        break;
      }
      sink += region->size();
      if (round > 0) {  // the first round warms all up
        agentMs.push_back(whole);
        ratios.push_back(whole / floor);
        regionRatios.push_back(part / whole);
      }
    }
    tervain::bench::report("x11_screenshot_1080p_ms", tervain::bench::percentile(agentMs, 50));
    tervain::bench::report("x11_screenshot_vs_floor", tervain::bench::percentile(ratios, 50));
    tervain::bench::report("screenshot_region_vs_full",
                           tervain::bench::percentile(regionRatios, 50));

    // The first enabled entry of the factory's first page.
    const std::string entry = tervain::Json{{"op", "click"}, {"x", window->x + 193},
                                            {"y", window->y + 166}}.dump();
    agent.request(entry);
    std::string text;
    while (text.size() < 1200) text += "Grüße aus Köln → 東京 ½ café (naïve) Ωμέγα ≈ 42 € ";
    const tervain::Json type = {{"op", "type"}, {"text", text}};
    const auto start = Clock::now();
    agent.request(type.dump());
    const double seconds = millisecondsSince(start) / 1000;
    std::size_t characters = 0;
    for (const char c : text) characters += (static_cast<unsigned char>(c) & 0xc0) != 0x80;
    tervain::bench::report("x11_type_chars_per_s", static_cast<double>(characters) / seconds);
    agent.request(R"({"op":"key","chord":"ctrl+a"})");
    agent.request(R"({"op":"key","chord":"ctrl+c"})");
    std::this_thread::sleep_for(200ms);
    const auto copied = agent.request(R"({"op":"clipboard_get"})");
    tervain::bench::report(
        "x11_type_delivered",
        copied && tervain::Json::parse(*copied).value("text", "") == text ? 1 : 0);
    if (sink == 0) std::fprintf(stderr, "x11: nothing measured\n");
  } else {
    std::fprintf(stderr, "x11: the widget factory's window did not appear, skipped\n");
  }
  ::kill(factory, SIGTERM);
  int status = 0;
  ::waitpid(factory, &status, 0);
  XCloseDisplay(display);
}
