// tervainctl screenshot: a display, or a region of it, as a JPEG or PNG file.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cmath>
#include <cstring>
#include <optional>

#include "tervainctl/mcp/annotate.h"
#include "tervainctl/tervainctl.h"

namespace tervain::ctl {
namespace {

struct ScreenshotOptions {
  client::ScreenshotRequest request;
  std::string region;  // X,Y,W,H in points
  std::string path;
  bool json = false;
  bool annotate = false;
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

// Marks the frontmost application's actionable elements on the screenshot, in place. The tree
// is read on the same connection right after the capture, so the two show the same moment as
// nearly as the guest allows.
std::optional<std::vector<mcp::Mark>> annotate(client::Connection& agent, client::Screenshot& shot,
                                               const client::ScreenshotRequest& request) {
  const auto tree = agent.axDump();
  if (!tree.ok) {
    complain("cannot annotate: " + tree.error);
    return std::nullopt;
  }
  std::string error;
  auto pixels = mcp::decodeImage(shot.jpeg, error);
  if (!pixels) {
    complain("cannot annotate: " + error);
    return std::nullopt;
  }
  mcp::ImageGeometry geometry;
  if (shot.region) {
    geometry.originX = shot.region->x;
    geometry.originY = shot.region->y;
  }
  geometry.scale = shot.scale > 0 ? shot.scale : 1.0;
  auto marks = mcp::actionableMarks(tree.value.root, geometry, pixels->width, pixels->height);
  mcp::drawMarks(*pixels, marks);
  const bool png = shot.format == "png";
  const int quality = static_cast<int>(std::lround(request.quality.value_or(0.9) * 100));
  auto image = mcp::encodeImage(*pixels, png ? mcp::ImageFormat::png : mcp::ImageFormat::jpeg,
                                quality, error);
  if (!image) {
    complain("cannot annotate: " + error);
    return std::nullopt;
  }
  shot.jpeg = std::move(image->bytes);
  return marks;
}

}  // namespace

void addScreenshotCommand(CommandSet& set) {
  ScreenshotOptions& o = set.state<ScreenshotOptions>();
  CLI::App* shot = set.add("screenshot", "Capture a guest display (or a region) as JPEG or PNG", [&set, &o] {
    if (o.json && o.path == "-") throw UsageError{"--json and -o - both want standard output"};
    if (!o.region.empty()) o.request.region = parseRegion(o.region);
    if (o.annotate && o.request.display.value_or(0) != 0) {
      throw UsageError{"--annotate marks the main display only (display 0): the agent does not "
                       "say where other displays sit among the elements' coordinates"};
    }
    client::Connection agent = set.connect();
    auto result = agent.screenshot(o.request);
    if (!result.ok) return finish(result);
    client::Screenshot& s = result.value;
    std::vector<mcp::Mark> marks;
    if (o.annotate) {
      auto drawn = annotate(agent, s, o.request);
      if (!drawn) return kExitRefused;
      marks = std::move(*drawn);
    }
    if (!writeFile(o.path, s.jpeg)) return kExitRefused;
    if (o.json) {
      Json summary{{"path", o.path}, {"format", s.format}, {"width", s.width}, {"height", s.height},
                   {"scale", s.scale}, {"bytes", s.jpeg.size()}};
      if (s.region) summary["region"] = {{"x", s.region->x}, {"y", s.region->y}, {"w", s.region->w}, {"h", s.region->h}};
      if (o.annotate) {
        Json list = Json::array();
        for (const mcp::Mark& m : marks) {
          list.push_back({{"number", m.number}, {"ref", m.ref}, {"role", m.role}, {"title", m.title},
                          {"box", {{"x", m.box.x}, {"y", m.box.y}, {"w", m.box.w}, {"h", m.box.h}}},
                          {"center", {{"x", m.center.x}, {"y", m.center.y}}}});
        }
        summary["marks"] = std::move(list);
      }
      print(summary.dump() + "\n");
      return kExitOk;
    }
    if (o.path != "-") {
      print(o.path + ": " + std::to_string(s.width) + "x" + std::to_string(s.height) +
            (s.format == "png" ? " PNG, " : " JPEG, ") + std::to_string(s.jpeg.size()) + " bytes" +
            (o.annotate ? ", " + std::to_string(marks.size()) + " elements marked" : std::string()) +
            "\n");
    }
    // With the image on standard output, the legend goes to standard error.
    if (o.annotate) {
      const std::string legend = mcp::markLegend(marks);
      if (o.path == "-") {
        writeFully(STDERR_FILENO, legend);
      } else {
        print(legend);
      }
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
  shot->add_flag("--annotate", o.annotate,
                 "Outline the frontmost application's actionable elements with numbered labels "
                 "and print the legend (number, ref, role, title, where to click)");
  shot->add_flag("--json", o.json, "Print what was written as JSON (path, size, bytes)");
}

}  // namespace tervain::ctl
