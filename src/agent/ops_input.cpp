// Input synthesis: "click", "move", "drag", "scroll" (pointer) and "type", "key" (keyboard).
//
// Every operation checks the input-synthesis grant before it reads any member, then posts events
// through the desktop with fixed pacing. Pacing goes through Desktop::sleepMicros so the tests
// see every delay in order. A press that cannot be posted ends a click or a key with an error
// before its release is tried; a drag is best effort throughout.
#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>

#include "agent/ops_input.h"
#include "core/key_map.h"
#include "core/request_members.h"
#include "core/utf16.h"

namespace tervain {
namespace {

constexpr const char* kPostEventNotGranted =
    "input synthesis (kTCCServicePostEvent) is not granted to the agent \u2014 re-run provisioning";

// Pacing, in microseconds. Applications drop presses that are too short and merge clicks or
// drag steps that come too close together.
constexpr std::uint32_t kPressHoldMicros = 40'000;
constexpr std::uint32_t kBetweenClicksMicros = 90'000;
constexpr std::uint32_t kDragSettleMicros = 60'000;
constexpr std::uint32_t kDragStepMicros = 15'000;
constexpr int kDragSteps = 12;
constexpr std::uint32_t kKeyHoldMicros = 30'000;
constexpr std::uint32_t kTypeChunkMicros = 12'000;

// The platform takes at most this many UTF-16 units on one key event.
constexpr std::size_t kTypeChunkUnits = 16;
constexpr std::int64_t kMaxScrollLines = 40;

// A numeric member as a signed 64-bit integer: integers as they are, reals truncated toward
// zero. Anything else, and reals that are not finite or out of range, count as missing.
std::optional<std::int64_t> intField(const Json& request, std::string_view key) {
  return truncatedIntegerMember(request, key);
}

Point pointAt(std::int64_t x, std::int64_t y) {
  return {static_cast<double>(x), static_cast<double>(y)};
}

// Exact, case-sensitive names; every other value (and no value) is the left button.
MouseButton selectButton(const Json& request) {
  const std::string* name = stringMember(request, "button");
  if (name != nullptr && *name == "right") return MouseButton::right;
  if (name != nullptr && *name == "middle") return MouseButton::center;
  return MouseButton::left;
}

}  // namespace

Reply opClick(OperationContext& context, const Json& request) {
  Desktop& desktop = context.desktop;
  if (!desktop.postEventAccess()) return Reply::failure(kPostEventNotGranted);
  const std::optional<std::int64_t> x = intField(request, "x");
  const std::optional<std::int64_t> y = intField(request, "y");
  if (!x || !y) return Reply::failure("click requires x and y");
  const std::int64_t count = std::clamp<std::int64_t>(intField(request, "count").value_or(1), 1, 3);
  const MouseButton button = selectButton(request);
  const Point at = pointAt(*x, *y);

  desktop.postPointerMove(at, std::nullopt, 0);
  for (int n = 1; n <= count; ++n) {
    // The click count makes the second round a double-click and the third a triple-click.
    if (!desktop.postMouseButton(button, true, at, n, 0)) {
      return Reply::failure("could not create the mouse event");
    }
    desktop.sleepMicros(kPressHoldMicros);
    if (!desktop.postMouseButton(button, false, at, n, 0)) {
      return Reply::failure("could not create the mouse event");
    }
    if (n < count) desktop.sleepMicros(kBetweenClicksMicros);
  }
  return Reply::success();
}

Reply opMove(OperationContext& context, const Json& request) {
  Desktop& desktop = context.desktop;
  if (!desktop.postEventAccess()) return Reply::failure(kPostEventNotGranted);
  const std::optional<std::int64_t> x = intField(request, "x");
  const std::optional<std::int64_t> y = intField(request, "y");
  if (!x || !y) return Reply::failure("move requires x and y");
  desktop.postPointerMove(pointAt(*x, *y), std::nullopt, 0);
  return Reply::success();
}

Reply opDrag(OperationContext& context, const Json& request) {
  Desktop& desktop = context.desktop;
  if (!desktop.postEventAccess()) return Reply::failure(kPostEventNotGranted);
  const std::optional<std::int64_t> toX = intField(request, "toX");
  const std::optional<std::int64_t> toY = intField(request, "toY");
  if (!toX || !toY) return Reply::failure("drag requires toX and toY");

  Point start = desktop.pointerLocation().value_or(Point{0, 0});
  if (const auto fromX = intField(request, "fromX")) start.x = static_cast<double>(*fromX);
  if (const auto fromY = intField(request, "fromY")) start.y = static_cast<double>(*fromY);
  const Point to = pointAt(*toX, *toY);

  // A drag is best effort throughout: an event that cannot be posted is left out and the
  // sequence goes on with its timing intact.
  desktop.postPointerMove(start, std::nullopt, 0);
  desktop.sleepMicros(kDragSettleMicros);
  desktop.postMouseButton(MouseButton::left, true, start, 1, 0);
  for (int i = 1; i <= kDragSteps; ++i) {
    const double t = static_cast<double>(i) / kDragSteps;
    // The last step is exactly the target: computed as start + (to - start) * 1.0 it could
    // round away from it, so it is taken as it is.
    const Point step = i == kDragSteps
                           ? to
                           : Point{start.x + (to.x - start.x) * t, start.y + (to.y - start.y) * t};
    desktop.sleepMicros(kDragStepMicros);
    desktop.postPointerMove(step, MouseButton::left, 0);
  }
  desktop.sleepMicros(kDragSettleMicros);
  desktop.postMouseButton(MouseButton::left, false, to, 1, 0);
  return Reply::success();
}

Reply opScroll(OperationContext& context, const Json& request) {
  Desktop& desktop = context.desktop;
  if (!desktop.postEventAccess()) return Reply::failure(kPostEventNotGranted);
  const auto clampLines = [](std::optional<std::int64_t> v) -> std::optional<std::int64_t> {
    if (!v) return std::nullopt;
    return std::clamp<std::int64_t>(*v, -kMaxScrollLines, kMaxScrollLines);
  };
  const std::optional<std::int64_t> dy = clampLines(intField(request, "dy"));
  const std::optional<std::int64_t> dx = clampLines(intField(request, "dx"));
  if (dy.value_or(0) == 0 && dx.value_or(0) == 0) {
    return Reply::failure("scroll requires dx and/or dy");
  }
  // One event carries the whole amount on both axes.
  if (!desktop.postScroll(static_cast<std::int32_t>(dy.value_or(0)),
                          static_cast<std::int32_t>(dx.value_or(0)), 0)) {
    return Reply::failure("could not create the scroll event");
  }
  return Reply::success();
}

Reply opType(OperationContext& context, const Json& request) {
  Desktop& desktop = context.desktop;
  if (!desktop.postEventAccess()) return Reply::failure(kPostEventNotGranted);
  const std::string* text = stringMember(request, "text");
  if (text == nullptr || text->empty()) return Reply::failure("type requires non-empty \"text\"");

  // Chunks are cut by code unit count alone: a surrogate pair or a combining sequence that
  // straddles a boundary is split between two chunks. Receivers put the halves back together.
  const std::u16string units = utf8ToUtf16(*text);
  for (std::size_t offset = 0; offset < units.size(); offset += kTypeChunkUnits) {
    if (!desktop.typeText(units.substr(offset, kTypeChunkUnits))) {
      return Reply::failure("could not create the keyboard event");
    }
    desktop.sleepMicros(kTypeChunkMicros);
  }
  return Reply::success();
}

Reply opKey(OperationContext& context, const Json& request) {
  Desktop& desktop = context.desktop;
  if (!desktop.postEventAccess()) return Reply::failure(kPostEventNotGranted);
  const std::string* chord = stringMember(request, "chord");
  if (chord == nullptr || chord->empty()) {
    return Reply::failure("key requires a \"chord\" (e.g. \"cmd+s\")");
  }
  const std::optional<KeyStroke> stroke = KeyMap::stroke(*chord);
  if (!stroke) return Reply::failure("unrecognized key in chord \"" + *chord + "\"");
  if (const Modifiers missing = stroke->modifiers & ~desktop.supportedModifiers(); missing != 0) {
    // Named, so that a host knows which key to leave out ("fn" on X11, which has none).
    constexpr std::pair<Modifiers, const char*> kNames[] = {{Modifier::fn, "fn"},
                                                            {Modifier::command, "cmd"},
                                                            {Modifier::option, "option"},
                                                            {Modifier::control, "ctrl"},
                                                            {Modifier::shift, "shift"}};
    std::string names;
    for (const auto& [flag, name] : kNames) {
      if ((missing & flag) != 0) names += (names.empty() ? "" : ", ") + std::string(name);
    }
    return Reply::failure("this desktop cannot hold every modifier of chord \"" + *chord +
                          "\": the " + std::string(desktop.kind()) + " desktop has no " + names +
                          " key");
  }

  // The modifiers are exactly the chord's, also when it has none: the chord must mean the same
  // whatever the guest's keyboard state.
  if (!desktop.postKey(stroke->keyCode, true, stroke->modifiers)) {
    return Reply::failure("could not create the keyboard event");
  }
  desktop.sleepMicros(kKeyHoldMicros);
  desktop.postKey(stroke->keyCode, false, stroke->modifiers);
  return Reply::success();
}

}  // namespace tervain
