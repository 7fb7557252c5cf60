// Status operations ("ping", "cursor_position") and "launch_app".
#include <memory>

#include "agent/operations.h"
#include "agent/ops_misc.h"
#include "agent/result_box.h"
#include "core/agent_wire.h"
#include "core/request_members.h"

namespace tervain {

Reply opPing(OperationContext& context, const Json&) {
  Desktop& desktop = context.desktop;
  constexpr std::uint32_t kMaxDisplays = 8;
  Json displays = Json::array();
  for (const DisplayInfo& info : desktop.displays(kMaxDisplays)) {
    if (displays.size() == kMaxDisplays) break;
    Json& display = displays.emplace_back(Json::object());
    display["id"] = info.id;
    display["width"] = info.pixelWidth;
    display["height"] = info.pixelHeight;
    display["main"] = info.main;
  }
  // Queried on every request: a grant given after start-up shows here at once.
  const bool accessibility = desktop.accessibilityTrusted();
  const bool screenRecording = desktop.screenCaptureAccess();
  const bool postEvent = desktop.postEventAccess();

  // Every operation this agent answers, then the options that came after the operation did, so
  // a host can tell what an older agent lacks.
  Json features = Json::array();
  for (const Operation& operation : operationTable()) features.push_back(operation.name);
  for (const char* option :
       {"screenshot.region", "screenshot.maxSize", "screenshot.png", "screenshot.quality",
        "click.modifiers", "scroll.modifiers", "drag.modifiers", "exec.env", "exec.cwd",
        "exec.timeout", "exec.tty"}) {
    features.push_back(option);
  }

  Reply reply;
  reply.body["version"] = AgentWire::version;
  reply.body["agentVersion"] = TERVAIN_VERSION;
  reply.body["desktop"] = std::string(context.desktop.kind());
  reply.body["features"] = std::move(features);
  reply.body["displays"] = std::move(displays);
  Json& readiness = reply.body["readiness"];
  readiness["accessibility"] = accessibility;
  readiness["screenRecording"] = screenRecording;
  readiness["postEvent"] = postEvent;
  reply.body["ok"] = true;
  return reply;
}

Reply opCursorPosition(OperationContext& context, const Json&) {
  Desktop& desktop = context.desktop;
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

Reply opLaunchApp(OperationContext& context, const Json& request) {
  Desktop& desktop = context.desktop;
  const std::string* name = stringMember(request, "name");
  if (name == nullptr || name->empty()) {
    return Reply::failure("launch_app requires a non-empty \"name\"");
  }
  // The desktop joins the name to its application folders: a path would leave them (on macOS,
  // "../../tmp/x" opens any bundle), so it is refused before any folder is searched.
  if (name->find('/') != std::string::npos || *name == "." || *name == "..") {
    return Reply::failure("launch_app requires an application's name, not a path: \"" + *name +
                          "\"");
  }

  // The completion may come after this request has given up waiting, so it holds its own share
  // of the box. A completion that never comes is taken as a launch in progress.
  auto outcome = std::make_shared<ResultBox<LaunchResult>>();
  desktop.launchApplication(*name,
                            [outcome](LaunchResult result) { outcome->put(std::move(result)); });
  const std::optional<LaunchResult> result = outcome->waitFor(context.agent.launchTimeout);
  if (!result) return Reply::success();
  switch (result->status) {
    case LaunchResult::Status::launched:
      break;
    case LaunchResult::Status::notFound:
      return Reply::failure("no application named \"" + *name + "\" (" + result->detail + ")");
    case LaunchResult::Status::failed:
      return Reply::failure("could not launch " + *name + ": " + result->detail);
  }
  return Reply::success();
}

}  // namespace tervain
