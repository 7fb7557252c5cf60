// tervainctl screenshot: a display as a JPEG file.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>

#include "tervainctl/tervainctl.h"

namespace tervain::ctl {
namespace {

struct ScreenshotOptions {
  std::optional<std::int64_t> display;
  std::string path;
  bool json = false;
};

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
  CLI::App* shot = set.add("screenshot", "Capture a guest display as JPEG", [&set, &o] {
    if (o.json && o.path == "-") throw UsageError{"--json and -o - both want standard output"};
    client::Connection agent = set.connect();
    const auto result = agent.screenshot(o.display);
    if (!result.ok) return finish(result);
    if (!writeFile(o.path, result.value.jpeg)) return kExitRefused;
    const client::Screenshot& s = result.value;
    if (o.json) {
      print(Json{{"path", o.path}, {"width", s.width}, {"height", s.height}, {"scale", s.scale},
                 {"bytes", s.jpeg.size()}}
                .dump() +
            "\n");
    } else if (o.path != "-") {
      print(o.path + ": " + std::to_string(s.width) + "x" + std::to_string(s.height) +
            " JPEG, " + std::to_string(s.jpeg.size()) + " bytes\n");
    }
    return kExitOk;
  });
  shot->add_option("--display", o.display, "Display index (default 0)");
  shot->add_option("-o,--output", o.path, "Where to write the JPEG (- for stdout)")->required();
  shot->add_flag("--json", o.json, "Print what was written as JSON (path, size, bytes)");
}

}  // namespace tervain::ctl
