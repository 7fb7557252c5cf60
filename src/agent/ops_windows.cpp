// Window operations: "windows", "window_action".
//
// A window is an element of the application's AXWindows list, read like any element and
// registered under a ref in the connection's registry beside the refs of the last dump, so
// ax_action and the others take it too. What a window reports and every rule of an action live
// here; the desktop only lists applications and carries out an action on a window element.
#include "agent/ops_windows.h"

#include <cmath>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "agent/ops_ax.h"
#include "core/ax_text.h"
#include "core/request_members.h"
#include "core/vocabulary.h"

namespace tervain {
namespace {

constexpr float kMessagingTimeoutSeconds = 1.5f;

// What a window reports, read in this order in one batch. The role is not reported: read with
// the title, it tells a desktop that can find a missing title elsewhere that these are windows.
const std::vector<std::string> kWindowAttributes = {AX::title, AX::position,  AX::size,
                                                    AX::main,  AX::focused,   AX::minimized,
                                                    AX::role};

using Read = std::pair<AXResult, AXValue>;

bool truth(const Read& read) {
  if (read.first != AXError::success) return false;
  if (const auto* b = std::get_if<bool>(&read.second)) return *b;
  if (const auto* i = std::get_if<std::int64_t>(&read.second)) return *i != 0;
  return false;
}

// The frame from position and size, rounded like a dump's; nothing when either is unreadable.
std::optional<Json> frameOf(const Read& position, const Read& size) {
  if (position.first != AXError::success || size.first != AXError::success) return std::nullopt;
  const auto* at = std::get_if<Point>(&position.second);
  const auto* extent = std::get_if<Size>(&size.second);
  if (at == nullptr || extent == nullptr) return std::nullopt;
  const auto x = roundHalfAwayFromZero(at->x);
  const auto y = roundHalfAwayFromZero(at->y);
  const auto w = roundHalfAwayFromZero(extent->width);
  const auto h = roundHalfAwayFromZero(extent->height);
  if (!x || !y || !w || !h) return std::nullopt;
  return Json{{"x", *x}, {"y", *y}, {"w", *w}, {"h", *h}};
}

// Appends the windows of one application; false (and the result code) when its list could not
// be read.
bool listWindows(OperationContext& context, std::int32_t pid, Json& out, AXResult& code) {
  Desktop& desktop = context.desktop;
  const ElementRef application = desktop.applicationElement(pid);
  if (!application) {
    code = AXError::invalidUIElement;
    return false;
  }
  desktop.setMessagingTimeout(*application, kMessagingTimeoutSeconds);
  AXValue value;
  code = desktop.copyAttributeValue(*application, AX::windows, value);
  if (code != AXError::success) return false;
  auto* windows = std::get_if<std::vector<ElementRef>>(&value);
  if (windows == nullptr) {
    code = AXError::failure;
    return false;
  }
  std::erase(*windows, nullptr);
  if (windows->empty()) return true;

  std::vector<std::vector<Read>> reads;
  desktop.copyAttributeValues(*windows, kWindowAttributes, reads);
  const std::string app =
      desktop.runningApplicationName(pid).value_or("pid " + std::to_string(pid));
  for (std::size_t i = 0; i < windows->size(); ++i) {
    const std::vector<Read>& r = reads[i];
    Json window = {{"ref", context.refs.registerElement((*windows)[i])}};
    const auto* title = std::get_if<std::string>(&r[0].second);
    window["title"] = r[0].first == AXError::success && title != nullptr && isValidUtf8(*title)
                          ? *title
                          : std::string();
    if (auto frame = frameOf(r[1], r[2])) window["frame"] = std::move(*frame);
    window["pid"] = pid;
    window["app"] = app;
    window["main"] = truth(r[3]);
    window["focused"] = truth(r[4]);
    window["minimized"] = truth(r[5]);
    out.push_back(std::move(window));
  }
  return true;
}

// A finite number member.
std::optional<double> numberMember(const Json& request, const char* key) {
  const Json* value = member(request, key);
  if (value == nullptr || !value->is_number()) return std::nullopt;
  const double number = value->get<double>();
  if (!std::isfinite(number)) return std::nullopt;
  return number;
}

struct ActionName {
  const char* name;
  WindowAction action;
};
constexpr ActionName kActions[] = {
    {"raise", WindowAction::raise},
    {"minimize", WindowAction::minimize},
    {"unminimize", WindowAction::unminimize},
    {"close", WindowAction::close},
    {"move", WindowAction::move},
    {"resize", WindowAction::resize},
};

}  // namespace

Reply opWindows(OperationContext& context, const Json& request) {
  Desktop& desktop = context.desktop;
  if (!desktop.accessibilityTrusted()) return accessibilityNotGranted();

  std::optional<std::int32_t> pid;
  if (const std::optional<std::int64_t> asked = integerMember(request, "pid")) {
    pid = narrowToInt32(*asked);
    if (!pid) return Reply::failure("windows \"pid\" is out of range");
  }

  Json windows = Json::array();
  if (pid) {
    AXResult code = AXError::success;
    if (!listWindows(context, *pid, windows, code)) {
      return Reply::failure("could not list the windows of pid " + std::to_string(*pid) + " (" +
                            describeAXResult(code) + ")");
    }
  } else {
    // An application that cannot tell its windows (it is busy, or just quit) is left out.
    for (const std::int32_t each : desktop.regularApplicationPids()) {
      AXResult code = AXError::success;
      listWindows(context, each, windows, code);
    }
  }
  Reply reply = Reply::success();
  reply.body["windows"] = std::move(windows);
  return reply;
}

Reply opWindowAction(OperationContext& context, const Json& request) {
  Desktop& desktop = context.desktop;
  if (!desktop.accessibilityTrusted()) return accessibilityNotGranted();
  const ElementRef window = resolveRef(context, request);
  if (!window) return staleRefReply(request);

  const std::string* name = stringMember(request, "action");
  const ActionName* chosen = nullptr;
  for (const ActionName& each : kActions) {
    if (name != nullptr && *name == each.name) chosen = &each;
  }
  if (chosen == nullptr) {
    return Reply::failure(
        "window_action \"action\" must be one of raise, minimize, unminimize, close, move, "
        "resize");
  }

  Point to;
  if (chosen->action == WindowAction::move) {
    const auto x = numberMember(request, "x");
    const auto y = numberMember(request, "y");
    if (!x || !y) return Reply::failure("window_action move requires numbers x and y");
    to = {*x, *y};
  } else if (chosen->action == WindowAction::resize) {
    const auto w = numberMember(request, "w");
    const auto h = numberMember(request, "h");
    if (!w || !h || !(*w >= 1) || !(*h >= 1)) {
      return Reply::failure("window_action resize requires numbers w and h of at least 1");
    }
    to = {*w, *h};
  }

  return actionOutcome(desktop.windowAction(*window, chosen->action, to), request, chosen->name,
                       "list the windows");
}

}  // namespace tervain
