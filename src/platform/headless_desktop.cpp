#include "platform/headless_desktop.h"

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

ElementRef HeadlessDesktop::applicationElement(std::int32_t) {
  return std::make_shared<HeadlessElement>();
}

void HeadlessDesktop::launchApplication(const std::string&,
                                        std::function<void(LaunchResult)> completion) {
  completion({LaunchResult::Status::failed, "this machine has no desktop workspace"});
}

ClipboardText HeadlessDesktop::readClipboard() {
  return {ClipboardText::Status::failed, {}, "this machine has no clipboard"};
}

std::optional<std::string> HeadlessDesktop::writeClipboard(const std::string&) {
  return "this machine has no clipboard";
}

CapturedImage HeadlessDesktop::captureImage(const ShareableDisplay&, const CaptureRequest&) {
  CapturedImage image;
  image.status = CapturedImage::Status::captureFailed;
  image.error = "this machine has no displays";
  return image;
}

void HeadlessDesktop::runMainLoop() {
  for (;;) ::pause();
}

}  // namespace tervain
