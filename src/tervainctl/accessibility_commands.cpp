// tervainctl tree, at, press, set and focus: the accessibility tree and its elements.
//
// A ref lives only as long as the connection that minted it, and each tervainctl run is a
// connection of its own, so --at X Y finds the element at a point and acts on it within one
// connection. The argument the ref would have taken then moves on to the next slot
// (press --at 640 400 AXShowMenu, set --at 300 200 "text").
#include <optional>
#include <utility>

#include "client/render.h"
#include "tervainctl/tervainctl.h"

namespace tervain::ctl {
namespace {

struct AccessibilityOptions {
  std::optional<std::int64_t> pid;
  std::optional<std::int64_t> depth;
  std::int64_t x = 0;
  std::int64_t y = 0;
  bool json = false;
  std::optional<std::string> ref;
  std::optional<std::string> second;
  std::vector<std::int64_t> atPoint;
};

// The element to act on and the argument after it.
using Target = std::pair<std::string, std::optional<std::string>>;

// Nothing when the agent found no element (its refusal is printed).
std::optional<Target> findTarget(client::Connection& agent, const AccessibilityOptions& o) {
  if (o.atPoint.size() != 2) {
    if (!o.ref) throw UsageError{"give an element ref (from tree or at) or --at X Y"};
    return Target{*o.ref, o.second};
  }
  if (o.ref && o.second) throw UsageError{"give either a ref or --at X Y, not both"};
  const auto found = agent.axElementAt(o.atPoint[0], o.atPoint[1]);
  if (!found.ok) {
    complain(found.error);
    return std::nullopt;
  }
  return Target{found.value.ref, o.ref};
}

void addTargetOptions(CLI::App* sub, AccessibilityOptions& o, const char* secondName,
                      const char* secondHelp) {
  sub->add_option("REF", o.ref, "Element ref from tree or at, e.g. e7");
  if (secondName != nullptr) sub->add_option(secondName, o.second, secondHelp);
  sub->add_option("--at", o.atPoint, "Act on the element at screen point X Y instead of a ref")
      ->expected(2)
      ->allow_extra_args(false);
}

}  // namespace

void addAccessibilityCommands(CommandSet& set) {
  AccessibilityOptions& o = set.state<AccessibilityOptions>();

  CLI::App* tree =
      set.add("tree", "Show the accessibility tree of the frontmost application", [&set, &o] {
        client::Connection agent = set.connect();
        return finish<client::AXTree>(agent.axDump(o.pid, o.depth), o.json,
                                      [](const auto& t) { print(client::renderTree(t)); });
      });
  tree->add_option("--pid", o.pid, "Process id of the application (default: frontmost)");
  tree->add_option("--depth", o.depth, "Depth limit, 1 to 25 (default 12)");
  tree->add_flag("--json", o.json, "Print the reply as JSON");

  CLI::App* at =
      set.add("at", "Show the element at a screen point (and get a ref for it)", [&set, &o] {
        client::Connection agent = set.connect();
        return finish<client::AXNode>(agent.axElementAt(o.x, o.y), o.json, [](const auto& n) {
          print(client::renderNode(n) + "\n");
        });
      });
  at->add_option("X", o.x, "Horizontal position (points)")->required();
  at->add_option("Y", o.y, "Vertical position (points)")->required();
  at->add_flag("--json", o.json, "Print the reply as JSON");
  at->footer("A ref is only valid on the connection that made it: use it within one session "
             "of a program built on the client library, or act by position instead.");

  CLI::App* press =
      set.add("press", "Perform an action on an element (default AXPress)", [&set, &o] {
        client::Connection agent = set.connect();
        const auto target = findTarget(agent, o);
        if (!target) return kExitRefused;
        return finish<client::ActionOutcome>(
            agent.axAction(target->first, target->second.value_or("")), o.json,
            [](const auto& outcome) {
              if (outcome.note) complain("note: " + *outcome.note);
            });
      });
  addTargetOptions(press, o, "ACTION", "Action name, e.g. AXShowMenu");
  press->add_flag("--json", o.json, "Print the reply as JSON");

  addTargetOptions(set.add("set", "Set an element's value",
                           [&set, &o] {
                             client::Connection agent = set.connect();
                             const auto target = findTarget(agent, o);
                             if (!target) return kExitRefused;
                             if (!target->second) {
                               throw UsageError{"set needs a VALUE (it may be \"\")"};
                             }
                             return finish(agent.axSetValue(target->first, *target->second));
                           }),
                   o, "VALUE", "New value (may be empty)");

  addTargetOptions(set.add("focus", "Focus an element",
                           [&set, &o] {
                             client::Connection agent = set.connect();
                             const auto target = findTarget(agent, o);
                             if (!target) return kExitRefused;
                             return finish(agent.axFocus(target->first));
                           }),
                   o, nullptr, nullptr);
}

}  // namespace tervain::ctl
