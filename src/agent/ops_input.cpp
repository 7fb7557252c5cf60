// Input synthesis: "click", "move", "drag", "scroll", "mouse_down", "mouse_up" (pointer) and
// "type", "key", "key_down", "key_up" (keyboard).
//
// Every operation checks the input-synthesis grant before it reads any member, then posts events
// through the desktop with fixed pacing. Pacing goes through Desktop::sleepMicros so the tests
// see every delay in order. A press that cannot be posted ends a click or a key with an error
// before its release is tried; a drag is best effort throughout.
//
// Held input: "mouse_down" and "key_down" press and record the press on the connection
// (OperationContext::held); "mouse_up" and "key_up" release and forget it, and whatever is left
// when the connection ends is released last pressed first. A release of something not held is
// still posted, so a host can free a key stuck by someone else. Modifiers pressed with a held
// button or key stay down with it; a release lets go only of the modifiers that no other held
// press still needs (two keys held with shift keep shift down until the second is released).
// Pointer moves carry no modifiers of their own, so they never disturb held ones, and a move
// while a button is held is a drag of that button.
#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

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

// The refusal of modifiers this desktop cannot express, naming them so that a host knows which
// key to leave out ("fn" on X11, which has none); nothing when it can express them all. `what`
// says where they came from: `chord "fn+a"`, or a "modifiers" list as the host sent it.
std::optional<Reply> refuseUnsupported(const Desktop& desktop, Modifiers modifiers,
                                       const std::string& what) {
  const Modifiers missing = modifiers & ~desktop.supportedModifiers();
  if (missing == 0) return std::nullopt;
  constexpr std::pair<Modifiers, const char*> kNames[] = {{Modifier::fn, "fn"},
                                                          {Modifier::command, "cmd"},
                                                          {Modifier::option, "option"},
                                                          {Modifier::control, "ctrl"},
                                                          {Modifier::shift, "shift"}};
  std::string names;
  for (const auto& [flag, name] : kNames) {
    if ((missing & flag) != 0) names += (names.empty() ? "" : ", ") + std::string(name);
  }
  return Reply::failure("this desktop cannot hold every modifier of " + what + ": the " +
                        std::string(desktop.kind()) + " desktop has no " + names + " key");
}

// The "modifiers" member of a pointer operation: a list of the names a chord's modifiers use
// (any case). Unlike a chord, which has its key to fall back on, a list with an unknown name is
// refused. Absent means none. Sets `out`, or answers the failure reply.
std::optional<Reply> readModifiers(const Desktop& desktop, const Json& request, Modifiers& out) {
  out = 0;
  const auto member = request.find("modifiers");
  if (member == request.end()) return std::nullopt;
  if (!member->is_array()) {
    return Reply::failure("\"modifiers\" must be a list of names such as [\"cmd\",\"shift\"]");
  }
  for (const Json& item : *member) {
    if (!item.is_string()) {
      return Reply::failure("\"modifiers\" must be a list of names such as [\"cmd\",\"shift\"]");
    }
    std::string name = item.get<std::string>();
    std::string lowered = name;
    for (char& c : lowered) {
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    const auto flag = KeyMap::modifierFlags().find(lowered);
    if (flag == KeyMap::modifierFlags().end()) {
      return Reply::failure("unrecognized modifier \"" + name + "\" in \"modifiers\"");
    }
    out |= flag->second;
  }
  return refuseUnsupported(desktop, out, member->dump());
}

// The modifiers some held press still needs down.
Modifiers heldModifiers(const std::vector<HeldPress>& held) {
  Modifiers all = 0;
  for (const HeldPress& press : held) all |= press.modifiers;
  return all;
}

// The button a move drags: the last one pressed that is still held.
std::optional<MouseButton> heldButton(const std::vector<HeldPress>& held) {
  for (auto it = held.rbegin(); it != held.rend(); ++it) {
    if (it->button) return it->button;
  }
  return std::nullopt;
}

std::vector<HeldPress>::iterator findHeld(std::vector<HeldPress>& held,
                                          std::optional<MouseButton> button,
                                          std::uint16_t keyCode) {
  return std::find_if(held.begin(), held.end(), [&](const HeldPress& press) {
    return press.button == button && (button || press.keyCode == keyCode);
  });
}

// The chord of "key_down" / "key_up" (member "key"), checked like "key"'s.
std::optional<Reply> readHeldChord(const Desktop& desktop, const Json& request, std::string_view op,
                                   KeyStroke& out) {
  const std::string* chord = stringMember(request, "key");
  if (chord == nullptr || chord->empty()) {
    return Reply::failure(std::string(op) + " requires a \"key\" (e.g. \"shift+a\")");
  }
  const std::optional<KeyStroke> stroke = KeyMap::stroke(*chord);
  if (!stroke) return Reply::failure("unrecognized key in chord \"" + *chord + "\"");
  out = *stroke;
  return refuseUnsupported(desktop, stroke->modifiers, "chord \"" + *chord + "\"");
}

}  // namespace

// What click, mouse_down and mouse_up read first, in this order: the grant, "x" and "y", and
// "modifiers". Returns the refusal, or nothing with at and modifiers filled in.
std::optional<Reply> readPointerAt(Desktop& desktop, const Json& request, const char* op,
                                   Point& at, Modifiers& modifiers) {
  if (!desktop.postEventAccess()) return Reply::failure(kPostEventNotGranted);
  const std::optional<std::int64_t> x = intField(request, "x");
  const std::optional<std::int64_t> y = intField(request, "y");
  if (!x || !y) return Reply::failure(std::string(op) + " requires x and y");
  if (auto refused = readModifiers(desktop, request, modifiers)) return refused;
  at = pointAt(*x, *y);
  return std::nullopt;
}

Reply opClick(OperationContext& context, const Json& request) {
  Desktop& desktop = context.desktop;
  Point at;
  Modifiers modifiers = 0;
  if (auto refused = readPointerAt(desktop, request, "click", at, modifiers)) return *refused;
  const std::int64_t count = std::clamp<std::int64_t>(intField(request, "count").value_or(1), 1, 3);
  const MouseButton button = selectButton(request);

  desktop.postPointerMove(at, std::nullopt, modifiers);
  for (int n = 1; n <= count; ++n) {
    // The click count makes the second round a double-click and the third a triple-click.
    if (!desktop.postMouseButton(button, true, at, n, modifiers)) {
      return Reply::failure("could not create the mouse event");
    }
    desktop.sleepMicros(kPressHoldMicros);
    if (!desktop.postMouseButton(button, false, at, n, modifiers)) {
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
  desktop.postPointerMove(pointAt(*x, *y), heldButton(context.held), 0);
  return Reply::success();
}

Reply opDrag(OperationContext& context, const Json& request) {
  Desktop& desktop = context.desktop;
  if (!desktop.postEventAccess()) return Reply::failure(kPostEventNotGranted);
  const std::optional<std::int64_t> toX = intField(request, "toX");
  const std::optional<std::int64_t> toY = intField(request, "toY");
  if (!toX || !toY) return Reply::failure("drag requires toX and toY");
  Modifiers modifiers = 0;
  if (auto refused = readModifiers(desktop, request, modifiers)) return *refused;

  Point start = desktop.pointerLocation().value_or(Point{0, 0});
  if (const auto fromX = intField(request, "fromX")) start.x = static_cast<double>(*fromX);
  if (const auto fromY = intField(request, "fromY")) start.y = static_cast<double>(*fromY);
  const Point to = pointAt(*toX, *toY);

  // A drag is best effort throughout: an event that cannot be posted is left out and the
  // sequence goes on with its timing intact.
  desktop.postPointerMove(start, std::nullopt, modifiers);
  desktop.sleepMicros(kDragSettleMicros);
  desktop.postMouseButton(MouseButton::left, true, start, 1, modifiers);
  for (int i = 1; i <= kDragSteps; ++i) {
    const double t = static_cast<double>(i) / kDragSteps;
    // The last step is exactly the target: computed as start + (to - start) * 1.0 it could
    // round away from it, so it is taken as it is.
    const Point step = i == kDragSteps
                           ? to
                           : Point{start.x + (to.x - start.x) * t, start.y + (to.y - start.y) * t};
    desktop.sleepMicros(kDragStepMicros);
    desktop.postPointerMove(step, MouseButton::left, modifiers);
  }
  desktop.sleepMicros(kDragSettleMicros);
  desktop.postMouseButton(MouseButton::left, false, to, 1, modifiers);
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
  Modifiers modifiers = 0;
  if (auto refused = readModifiers(desktop, request, modifiers)) return *refused;
  // One event carries the whole amount on both axes.
  if (!desktop.postScroll(static_cast<std::int32_t>(dy.value_or(0)),
                          static_cast<std::int32_t>(dx.value_or(0)), modifiers)) {
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
  if (auto refused = refuseUnsupported(desktop, stroke->modifiers, "chord \"" + *chord + "\"")) {
    return *refused;
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

Reply opMouseDown(OperationContext& context, const Json& request) {
  Desktop& desktop = context.desktop;
  Point at;
  Modifiers modifiers = 0;
  if (auto refused = readPointerAt(desktop, request, "mouse_down", at, modifiers)) return *refused;
  const MouseButton button = selectButton(request);

  desktop.postPointerMove(at, heldButton(context.held), 0);
  if (!desktop.postMouseButton(button, true, at, 1, modifiers)) {
    return Reply::failure("could not create the mouse event");
  }
  // Pressed again while held: still one press to release.
  if (findHeld(context.held, button, 0) == context.held.end()) {
    context.held.push_back({.button = button, .at = at, .modifiers = modifiers});
  }
  return Reply::success();
}

Reply opMouseUp(OperationContext& context, const Json& request) {
  Desktop& desktop = context.desktop;
  Point at;
  Modifiers modifiers = 0;
  if (auto refused = readPointerAt(desktop, request, "mouse_up", at, modifiers)) return *refused;
  const MouseButton button = selectButton(request);

  std::vector<HeldPress>& held = context.held;
  auto press = findHeld(held, button, 0);
  if (press != held.end()) modifiers |= press->modifiers;
  // The move to the release point drags whichever button is held.
  desktop.postPointerMove(at, heldButton(held), 0);
  std::vector<HeldPress> others = held;
  if (press != held.end()) others.erase(others.begin() + (press - held.begin()));
  if (!desktop.postMouseButton(button, false, at, 1, modifiers & ~heldModifiers(others))) {
    return Reply::failure("could not create the mouse event");
  }
  held = std::move(others);
  return Reply::success();
}

Reply opKeyDown(OperationContext& context, const Json& request) {
  Desktop& desktop = context.desktop;
  if (!desktop.postEventAccess()) return Reply::failure(kPostEventNotGranted);
  KeyStroke stroke;
  if (auto refused = readHeldChord(desktop, request, "key_down", stroke)) return *refused;
  if (!desktop.postKey(stroke.keyCode, true, stroke.modifiers)) {
    return Reply::failure("could not create the keyboard event");
  }
  if (findHeld(context.held, std::nullopt, stroke.keyCode) == context.held.end()) {
    context.held.push_back({.keyCode = stroke.keyCode, .modifiers = stroke.modifiers});
  }
  return Reply::success();
}

Reply opKeyUp(OperationContext& context, const Json& request) {
  Desktop& desktop = context.desktop;
  if (!desktop.postEventAccess()) return Reply::failure(kPostEventNotGranted);
  KeyStroke stroke;
  if (auto refused = readHeldChord(desktop, request, "key_up", stroke)) return *refused;

  std::vector<HeldPress>& held = context.held;
  auto press = findHeld(held, std::nullopt, stroke.keyCode);
  Modifiers modifiers = stroke.modifiers;
  std::vector<HeldPress> others = held;
  if (press != held.end()) {
    modifiers |= press->modifiers;
    others.erase(others.begin() + (press - held.begin()));
  }
  if (!desktop.postKey(stroke.keyCode, false, modifiers & ~heldModifiers(others))) {
    return Reply::failure("could not create the keyboard event");
  }
  held = std::move(others);
  return Reply::success();
}

void releaseHeldInput(OperationContext& context) noexcept {
  std::vector<HeldPress>& held = context.held;
  while (!held.empty()) {
    const HeldPress press = held.back();
    held.pop_back();
    const Modifiers modifiers = press.modifiers & ~heldModifiers(held);
    try {
      if (press.button) {
        // Released where the pointer is now: the adapter may move there first.
        const Point at = context.desktop.pointerLocation().value_or(press.at);
        context.desktop.postMouseButton(*press.button, false, at, 1, modifiers);
      } else {
        context.desktop.postKey(press.keyCode, false, modifiers);
      }
    } catch (...) {
      // The connection is ending: the other presses are still released.
    }
  }
}

}  // namespace tervain
