#include "platform/headless_desktop.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <thread>

namespace tervain {
namespace {
class HeadlessElement final : public Element {};
}  // namespace

void HeadlessDesktop::sleepMicros(std::uint32_t micros) {
  std::this_thread::sleep_for(std::chrono::microseconds(micros));
}

ElementRef HeadlessDesktop::createApplicationElement(std::int32_t) {
  return std::make_shared<HeadlessElement>();
}

ElementRef HeadlessDesktop::createSystemWideElement() {
  return std::make_shared<HeadlessElement>();
}

bool HeadlessDesktop::fileExists(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0;
}

void HeadlessDesktop::openApplication(const std::string&,
                                      std::function<void(std::optional<std::string>)> completion) {
  completion(std::string("this machine has no desktop workspace"));
}

CapturedImage HeadlessDesktop::captureImage(const ShareableDisplay&, std::int64_t, std::int64_t,
                                            bool, double) {
  CapturedImage image;
  image.status = CapturedImage::Status::captureFailed;
  image.error = "this machine has no displays";
  return image;
}

void HeadlessDesktop::runMainLoop() {
  for (;;) ::pause();
}

}  // namespace tervain
