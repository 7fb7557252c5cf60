// Status operations ("ping", "cursor_position") and "launch_app".
#include <cstring>
#include <memory>

#include "agent/connection_handler.h"
#include "agent/result_box.h"
#include "core/agent_wire.h"
#include "core/request_members.h"
#include "platform/child_process.h"

namespace tervain {

Reply ConnectionHandler::opPing() {
  constexpr std::uint32_t kMaxDisplays = 8;
  Json displays = Json::array();
  for (const std::uint32_t id : desktop.activeDisplayList(kMaxDisplays)) {
    if (displays.size() == kMaxDisplays) break;
    Json& display = displays.emplace_back(Json::object());
    display["id"] = id;
    display["width"] = desktop.displayPixelsWide(id);
    display["height"] = desktop.displayPixelsHigh(id);
    display["main"] = desktop.displayIsMain(id);
  }
  // Queried on every request: a grant given after start-up shows here at once.
  const bool accessibility = desktop.accessibilityTrusted();
  const bool screenRecording = desktop.screenCaptureAccess();
  const bool postEvent = desktop.postEventAccess();

  Reply reply;
  reply.body["version"] = AgentWire::version;
  reply.body["displays"] = std::move(displays);
  Json& readiness = reply.body["readiness"];
  readiness["accessibility"] = accessibility;
  readiness["screenRecording"] = screenRecording;
  readiness["postEvent"] = postEvent;
  reply.body["ok"] = true;
  return reply;
}

Reply ConnectionHandler::opCursorPosition() {
  static constexpr const char* kNoEvent = "could not read the cursor position (no event source)";
  const std::optional<Point> at = desktop.pointerLocation();
  if (!at) return Reply::failure(kNoEvent);
  const std::optional<std::int64_t> x = roundHalfAwayFromZero(at->x);
  const std::optional<std::int64_t> y = roundHalfAwayFromZero(at->y);
  // A location that is not a finite number means the event was no good either.
  if (!x || !y) return Reply::failure(kNoEvent);
  Reply reply = Reply::success();
  reply.body["x"] = *x;
  reply.body["y"] = *y;
  return reply;
}

Reply ConnectionHandler::opLaunchApp(const Json& request) {
  const std::string* name = stringMember(request, "name");
  if (name == nullptr || name->empty()) {
    return Reply::failure("launch_app requires a non-empty \"name\"");
  }
  const std::string bundle = name->ends_with(".app") ? *name : *name + ".app";
  std::string found;
  for (const char* folder :
       {"/Applications/", "/System/Applications/", "/System/Applications/Utilities/"}) {
    if (desktop.fileExists(folder + bundle)) {
      found = folder + bundle;
      break;
    }
  }

  if (!found.empty()) {
    // The completion may come after this request has given up waiting, so it holds its own
    // share of the box. A completion that never comes is taken as a launch in progress.
    auto outcome = std::make_shared<ResultBox<std::optional<std::string>>>();
    desktop.openApplication(
        found, [outcome](std::optional<std::string> error) { outcome->put(std::move(error)); });
    const std::optional<std::optional<std::string>> error = outcome->waitFor(context.launchTimeout);
    if (error && *error) return Reply::failure("could not launch " + *name + ": " + **error);
    return Reply::success();
  }

  // No bundle in the usual folders: "open -a" knows every other place an application can be.
  pid_t pid = -1;
  if (const int rc = spawnWithStandardStreams(context.openToolPath, {"-a", *name}, pid)) {
    return Reply::failure("could not launch " + *name + ": " + std::strerror(rc));
  }
  int status = 0;
  if (const int rc = waitForExit(pid, status)) {
    return Reply::failure("could not launch " + *name + ": " + std::strerror(rc));
  }
  if (status != 0) {
    return Reply::failure("no application named \"" + *name + "\" (open -a exited " +
                          std::to_string(status) + ")");
  }
  return Reply::success();
}

}  // namespace tervain
