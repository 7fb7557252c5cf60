// Status operations ("ping", "cursor_position").
#include "agent/connection_handler.h"
#include "core/agent_wire.h"
#include "core/request_members.h"

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

}  // namespace tervain
