// tervainctl windows, window and clipboard: top-level windows and the clipboard's text.
//
// Window refs live only as long as their connection, so `window` lists the windows and acts on
// the one it picks (by pid and title) within one connection.
#include <cstdio>
#include <iostream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "tervainctl/tervainctl.h"

namespace tervain::ctl {
namespace {

struct WindowOptions {
  std::optional<std::int64_t> pid;
  std::optional<std::string> title;
  std::string action;
  std::vector<double> operands;
  bool json = false;
  std::string clipboardVerb;
  std::optional<std::string> text;
};

// One line a window: ref, pid and application, frame, flags, title.
std::string renderWindow(const client::WindowInfo& w) {
  std::ostringstream line;
  line << w.ref << "  pid " << w.pid << " " << w.app << "  ";
  if (w.frame) {
    line << w.frame->x << "," << w.frame->y << " " << w.frame->w << "x" << w.frame->h;
  } else {
    line << "(no frame)";
  }
  if (w.main) line << " main";
  if (w.focused) line << " focused";
  if (w.minimized) line << " minimized";
  line << "  \"" << w.title << "\"\n";
  return line.str();
}

int actOnWindow(client::Connection& agent, const WindowOptions& o) {
  const bool move = o.action == "move", resize = o.action == "resize";
  if ((move || resize) != (o.operands.size() == 2)) {
    throw UsageError{move || resize ? o.action + " needs two numbers"
                                    : o.action + " takes no numbers"};
  }
  const auto listed = agent.windows(o.pid);
  if (!listed.ok) {
    complain(listed.error);
    return kExitRefused;
  }
  const client::WindowInfo* chosen = nullptr;
  for (const client::WindowInfo& w : listed.value) {
    if (!o.title || w.title.find(*o.title) != std::string::npos) {
      chosen = &w;
      break;
    }
  }
  if (chosen == nullptr) {
    complain("no window matches");
    return kExitRefused;
  }
  const auto outcome = move     ? agent.moveWindow(chosen->ref, o.operands[0], o.operands[1])
                       : resize ? agent.resizeWindow(chosen->ref, o.operands[0], o.operands[1])
                                : agent.windowAction(chosen->ref, o.action);
  return finish<client::ActionOutcome>(outcome, o.json, [](const auto& done) {
    if (done.note) complain("note: " + *done.note);
  });
}

}  // namespace

void addWindowCommands(CommandSet& set) {
  WindowOptions& o = set.state<WindowOptions>();

  CLI::App* windows =
      set.add("windows", "List the windows of the regular applications", [&set, &o] {
        client::Connection agent = set.connect();
        return finish<std::vector<client::WindowInfo>>(agent.windows(o.pid), o.json,
                                                       [](const auto& list) {
                                                         for (const auto& w : list)
                                                           print(renderWindow(w));
                                                       });
      });
  windows->add_option("--pid", o.pid, "Only this application's windows");
  windows->add_flag("--json", o.json, "Print the reply as JSON");

  CLI::App* window =
      set.add("window", "Raise, minimize, unminimize, close, move or resize a window", [&set, &o] {
        if (!o.pid && !o.title) throw UsageError{"give --pid or --title"};
        client::Connection agent = set.connect();
        return actOnWindow(agent, o);
      });
  window->add_option("ACTION", o.action, "raise, minimize, unminimize, close, move or resize")
      ->required()
      ->check(CLI::IsMember({"raise", "minimize", "unminimize", "close", "move", "resize"}));
  window->add_option("NUMBERS", o.operands, "move: X Y of the new top-left; resize: W H");
  window->add_option("--pid", o.pid, "The window's application");
  window->add_option("--title", o.title, "Part of the window's title; the first match is used");
  window->add_flag("--json", o.json, "Print the reply as JSON");

  CLI::App* clipboard = set.add("clipboard", "Get or set the clipboard's text", [&set, &o] {
    client::Connection agent = set.connect();
    if (o.clipboardVerb == "get") {
      return finish<std::string>(agent.clipboardGet(), o.json,
                                 [](const std::string& text) { print(text); });
    }
    std::string text;
    if (o.text) {
      text = *o.text;
    } else {
      text.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    }
    return finish(agent.clipboardSet(text), o.json);
  });
  clipboard->add_option("VERB", o.clipboardVerb, "get, or set")
      ->required()
      ->check(CLI::IsMember({"get", "set"}));
  clipboard->add_option("TEXT", o.text, "set: the text (default: standard input, as it is)");
  clipboard->add_flag("--json", o.json, "Print the reply as JSON");
}

}  // namespace tervain::ctl
