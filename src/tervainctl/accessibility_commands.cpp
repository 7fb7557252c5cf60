// tervainctl tree, at, find, wait, press, set and focus: the accessibility tree and its elements.
//
// A ref lives only as long as the connection that minted it, and each tervainctl run is a
// connection of its own, so --at X Y (the element at a point) and --find QUERY (the one element
// a search finds) pick the element and act on it within one connection. The argument the ref
// would have taken then moves on to the next slot (press --at 640 400 AXShowMenu,
// set --find role=AXTextField "text").
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
  // find, wait and --find.
  std::optional<std::string> queryText;
  client::AXQuery query;
  std::optional<std::string> findText;
  std::string state;
  std::optional<std::string> equals;
  std::optional<double> timeout;
};

// A query written as KEY=VALUE pairs separated by commas, e.g. "role=AXButton,title=Page 2".
// Keys: role, subrole, title, value, identifier, match (contains or exact), pid. A backslash
// takes the next character as it is ("title=Yes\, please"). Throws UsageError.
client::AXQuery parseQueryText(const std::string& text) {
  std::vector<std::string> pairs(1);
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 1 < text.size()) {
      pairs.back() += text[++i];
    } else if (text[i] == ',') {
      pairs.emplace_back();
    } else {
      pairs.back() += text[i];
    }
  }
  client::AXQuery query;
  for (const std::string& pair : pairs) {
    const std::size_t equals = pair.find('=');
    const std::string key = pair.substr(0, equals);
    const std::string value = equals == std::string::npos ? "" : pair.substr(equals + 1);
    std::optional<std::string>* criterion = key == "role"         ? &query.role
                                            : key == "subrole"    ? &query.subrole
                                            : key == "title"      ? &query.title
                                            : key == "value"      ? &query.value
                                            : key == "identifier" ? &query.identifier
                                                                  : nullptr;
    if (equals == std::string::npos || value.empty()) {
      throw UsageError{"query \"" + text + "\": \"" + pair + "\" is not KEY=VALUE"};
    }
    if (criterion != nullptr) {
      *criterion = value;
    } else if (key == "match" && (value == "exact" || value == "contains")) {
      query.exact = value == "exact";
    } else if (key == "pid" && value.find_first_not_of("0123456789") == std::string::npos &&
               value.size() < 10) {
      query.pid = std::stoll(value);
    } else {
      throw UsageError{"query \"" + text + "\": unknown \"" + pair +
                       "\" (keys: role, subrole, title, value, identifier, match=exact, pid)"};
    }
  }
  return query;
}

// The query of find and wait: the QUERY argument, with the flags given over it.
client::AXQuery commandQuery(const AccessibilityOptions& o) {
  client::AXQuery query = o.queryText ? parseQueryText(*o.queryText) : client::AXQuery{};
  for (const auto& [flag, into] : {std::pair{&o.query.role, &query.role},
                                   {&o.query.subrole, &query.subrole},
                                   {&o.query.title, &query.title},
                                   {&o.query.value, &query.value},
                                   {&o.query.identifier, &query.identifier}}) {
    if (*flag) *into = *flag;
  }
  query.exact = query.exact || o.query.exact;
  if (o.query.pid) query.pid = o.query.pid;
  query.limit = o.query.limit;
  return query;
}

void addQueryOptions(CLI::App* sub, AccessibilityOptions& o) {
  sub->add_option("QUERY", o.queryText, "Criteria as KEY=VALUE,... e.g. role=AXButton,title=OK");
  sub->add_option("--role", o.query.role, "Role contains this, e.g. AXButton");
  sub->add_option("--subrole", o.query.subrole, "Subrole contains this");
  sub->add_option("--title", o.query.title, "Title contains this");
  sub->add_option("--value", o.query.value, "Value contains this");
  sub->add_option("--identifier", o.query.identifier, "Identifier contains this");
  sub->add_flag("--exact", o.query.exact, "Match whole texts, case and all");
  sub->add_option("--pid", o.query.pid, "Process id of the application (default: frontmost)");
  sub->add_flag("--json", o.json, "Print the reply as JSON");
}

// The element to act on and the argument after it.
using Target = std::pair<std::string, std::optional<std::string>>;

// Nothing when the agent found no element (its refusal is printed).
std::optional<Target> findTarget(client::Connection& agent, const AccessibilityOptions& o) {
  if (o.atPoint.size() == 2 && o.findText) throw UsageError{"give --at X Y or --find, not both"};
  if (o.atPoint.size() != 2 && !o.findText) {
    if (!o.ref) throw UsageError{"give an element ref (from tree or at), --at X Y or --find QUERY"};
    return Target{*o.ref, o.second};
  }
  if (o.ref && o.second) throw UsageError{"give either a ref or --at X Y / --find, not both"};
  if (o.findText) {
    client::AXQuery query = parseQueryText(*o.findText);
    query.limit = 200;
    const auto found = agent.find(query);
    if (!found.ok) {
      complain(found.error);
      return std::nullopt;
    }
    const std::size_t count = found.value.matches.size();
    if (count != 1) {
      complain(count == 0 ? "no element matches \"" + *o.findText + "\""
                          : std::string(count == 200 ? "200 or more" : std::to_string(count)) +
                                " elements match \"" + *o.findText +
                                "\" \u2014 narrow the query (match=exact, role=...)");
      return std::nullopt;
    }
    return Target{found.value.matches[0].ref, o.ref};
  }
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
  sub->add_option("--find", o.findText,
                  "Act on the one element this query finds, e.g. \"role=AXButton,title=OK\"");
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

  CLI::App* find = set.add("find", "Find elements by role, title, value or identifier", [&set, &o] {
    client::Connection agent = set.connect();
    const auto found = agent.find(commandQuery(o));
    if (found.ok && !o.json && found.value.matches.empty()) {
      complain("no element matches (" + std::to_string(found.value.visited) + " examined)");
      return kExitRefused;
    }
    return finish<client::AXMatches>(found, o.json, [](const auto& m) {
      std::string out;
      for (const client::AXNode& node : m.matches) out += client::renderNode(node) + "\n";
      print(out);
    });
  });
  addQueryOptions(find, o);
  find->add_option("--limit", o.query.limit, "Most matches shown, 1 to 200 (default 20)");
  find->footer("Prints one element a line, shallowest first. Texts match when they contain the "
               "criterion, ignoring the case of ASCII letters (--exact: whole texts). Exits 1 "
               "when nothing matches.");

  CLI::App* wait = set.add("wait", "Wait until an element exists, is gone, enabled, focused or "
                                   "has a value",
                           [&set, &o] {
                             static const std::pair<const char*, client::AXWaitState> kStates[] = {
                                 {"exists", client::AXWaitState::exists},
                                 {"gone", client::AXWaitState::gone},
                                 {"enabled", client::AXWaitState::enabled},
                                 {"focused", client::AXWaitState::focused},
                                 {"value", client::AXWaitState::value}};
                             client::AXWaitRequest request;
                             request.query = commandQuery(o);
                             for (const auto& [name, state] : kStates) {
                               if (o.state == name) request.state = state;
                             }
                             if (request.state == client::AXWaitState::value && !o.equals) {
                               throw UsageError{"--state value needs --equals (it may be \"\")"};
                             }
                             request.equals = o.equals.value_or("");
                             request.timeoutSeconds = o.timeout;
                             client::Connection agent = set.connect();
                             return finish<client::AXWaited>(
                                 agent.waitFor(request), o.json, [](const auto& waited) {
                                   if (waited.node) print(client::renderNode(*waited.node) + "\n");
                                 });
                           });
  addQueryOptions(wait, o);
  wait->add_option("--state", o.state, "exists, gone, enabled, focused or value")
      ->default_val("exists")
      ->check(CLI::IsMember({"exists", "gone", "enabled", "focused", "value"}));
  wait->add_option("--equals", o.equals, "The value waited for (--state value)");
  wait->add_option("--timeout", o.timeout, "Seconds, 0.1 to 60 (default 10)");
  wait->footer("Prints the element once the state holds (nothing for gone); exits 1 with the "
               "agent's message when the time runs out.");

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
