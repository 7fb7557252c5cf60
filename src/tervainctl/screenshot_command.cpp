// tervainctl screenshot: a display, or a region of it, as a JPEG or PNG file.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>

#include "tervainctl/tervainctl.h"

namespace tervain::ctl {
namespace {

struct ScreenshotOptions {
  client::ScreenshotRequest request;
  std::string region;  // X,Y,W,H in points
  std::string path;
  bool json = false;
};

// "X,Y,W,H" in points.
client::PointRect parseRegion(const std::string& text) {
  double v[4];
  char tail = 0;
  if (std::sscanf(text.c_str(), "%lf,%lf,%lf,%lf%c", &v[0], &v[1], &v[2], &v[3], &tail) != 4 ||
      !(v[2] > 0) || !(v[3] > 0)) {
    throw UsageError{"--region wants X,Y,W,H in points, W and H above 0 (e.g. --region 0,0,800,600)"};
  }
  return {v[0], v[1], v[2], v[3]};
}

bool writeFile(const std::string& path, std::string_view bytes) {
  const bool toStdout = path == "-";
  UniqueFd file(toStdout ? -1
                         : ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  int error = 0;
  if (!toStdout && !file) {
    error = errno;
  } else if (!writeFully(toStdout ? STDOUT_FILENO : file.get(), bytes)) {
    error = errno;
  } else if (!toStdout) {
    error = file.closeChecked();  // a failed close can be the write that did not reach the disk
  }
  if (error != 0) {
    complain("cannot write " + path + ": " + std::strerror(error));
    return false;
  }
  return true;
}

}  // namespace

void addScreenshotCommand(CommandSet& set) {
  ScreenshotOptions& o = set.state<ScreenshotOptions>();
  CLI::App* shot = set.add("screenshot", "Capture a guest display (or a region) as JPEG or PNG", [&set, &o] {
    if (o.json && o.path == "-") throw UsageError{"--json and -o - both want standard output"};
    if (!o.region.empty()) o.request.region = parseRegion(o.region);
    client::Connection agent = set.connect();
    const auto result = agent.screenshot(o.request);
    if (!result.ok) return finish(result);
    if (!writeFile(o.path, result.value.jpeg)) return kExitRefused;
    const client::Screenshot& s = result.value;
    if (o.json) {
      Json summary{{"path", o.path}, {"format", s.format}, {"width", s.width}, {"height", s.height},
                   {"scale", s.scale}, {"bytes", s.jpeg.size()}};
      if (s.region) summary["region"] = {{"x", s.region->x}, {"y", s.region->y}, {"w", s.region->w}, {"h", s.region->h}};
      print(summary.dump() + "\n");
    } else if (o.path != "-") {
      print(o.path + ": " + std::to_string(s.width) + "x" + std::to_string(s.height) +
            (s.format == "png" ? " PNG, " : " JPEG, ") + std::to_string(s.jpeg.size()) + " bytes\n");
    }
    return kExitOk;
  });
  shot->add_option("--display", o.request.display, "Display index (default 0)");
  shot->add_option("--region", o.region, "Only this rectangle, X,Y,W,H in points");
  shot->add_option("--max-width", o.request.maxWidth, "Scale down to at most this many pixels wide")
      ->check(CLI::PositiveNumber);
  shot->add_option("--max-height", o.request.maxHeight, "Scale down to at most this many pixels high")
      ->check(CLI::PositiveNumber);
  shot->add_flag("--png", o.request.png, "PNG instead of JPEG");
  shot->add_option("--quality", o.request.quality, "JPEG quality, 0.1 to 1.0")
      ->check(CLI::Range(0.1, 1.0))
      ->excludes("--png");
  shot->add_option("-o,--output", o.path, "Where to write the image (- for stdout)")->required();
  shot->add_flag("--json", o.json, "Print what was written as JSON (path, size, bytes)");
}

}  // namespace tervain::ctl
