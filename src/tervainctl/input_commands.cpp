// tervainctl click, move, drag, scroll, mouse, type, key and cursor: the pointer and the
// keyboard.
#include <optional>

#include "tervainctl/tervainctl.h"

namespace tervain::ctl {
namespace {

struct PointerOptions {
  std::int64_t x = 0;
  std::int64_t y = 0;
  std::string button = "left";
  std::int64_t count = 1;
  std::vector<std::int64_t> from;
  std::optional<std::int64_t> dx;
  std::optional<std::int64_t> dy;
  std::vector<std::string> modifiers;
  bool json = false;
};

void addPoint(CLI::App* sub, PointerOptions& o, const char* what) {
  sub->add_option("X", o.x, std::string(what) + " horizontal position (points)")->required();
  sub->add_option("Y", o.y, std::string(what) + " vertical position (points)")->required();
}

void addModifiers(CLI::App* sub, PointerOptions& o) {
  sub->add_option("--modifiers", o.modifiers,
                  "Modifiers held meanwhile, joined by commas: cmd, ctrl, alt, shift, fn")
      ->delimiter(',');
}

client::MouseButton buttonOf(const std::string& name) {
  return name == "right"    ? client::MouseButton::right
         : name == "middle" ? client::MouseButton::middle
                            : client::MouseButton::left;
}

// Press and release are separate requests, and the agent releases whatever a connection still
// holds when it ends, so "down" holds only until tervainctl exits: longer only over an fd:N
// address that stays open.
bool isDown(const std::string& direction) { return direction == "down"; }

}  // namespace

void addInputCommands(CommandSet& set) {
  PointerOptions& o = set.state<PointerOptions>();

  CLI::App* click = set.add("click", "Click at a screen point", [&set, &o] {
    client::Connection agent = set.connect();
    return finish(agent.click(o.x, o.y, buttonOf(o.button), o.count, o.modifiers));
  });
  addPoint(click, o, "The");
  click->add_option("--button", o.button, "left, right or middle")
      ->check(CLI::IsMember({"left", "right", "middle"}));
  click->add_option("--count", o.count, "1 to 3 (a double click is 2)");
  addModifiers(click, o);

  std::string& direction = set.state<std::string>();
  CLI::App* mouse = set.add(
      "mouse", "Press (down) or release (up) a button at a screen point", [&set, &o, &direction] {
        client::Connection agent = set.connect();
        return finish(isDown(direction) ? agent.mouseDown(o.x, o.y, buttonOf(o.button), o.modifiers)
                                        : agent.mouseUp(o.x, o.y, buttonOf(o.button), o.modifiers));
      });
  mouse->add_option("DIRECTION", direction, "down or up")
      ->required()
      ->check(CLI::IsMember({"down", "up"}));
  addPoint(mouse, o, "The");
  mouse->add_option("--button", o.button, "left, right or middle")
      ->check(CLI::IsMember({"left", "right", "middle"}));
  addModifiers(mouse, o);

  addPoint(set.add("move", "Move the pointer",
                   [&set, &o] {
                     client::Connection agent = set.connect();
                     return finish(agent.move(o.x, o.y));
                   }),
           o, "The");

  CLI::App* drag = set.add("drag", "Drag with the left button to a point", [&set, &o] {
    std::optional<client::Point> from;
    if (o.from.size() == 2) from = client::Point{o.from[0], o.from[1]};
    client::Connection agent = set.connect();
    return finish(agent.drag(o.x, o.y, from, o.modifiers));
  });
  drag->add_option("--from", o.from, "Start point X Y (default: where the pointer is)")
      ->expected(2)
      ->allow_extra_args(false);
  addPoint(drag, o, "Target");
  addModifiers(drag, o);

  CLI::App* scroll = set.add("scroll", "Scroll by lines (-40 to 40 each way)", [&set, &o] {
    if (!o.dx && !o.dy) throw UsageError{"scroll needs --dx and/or --dy, e.g. scroll --dy -5"};
    client::Connection agent = set.connect();
    return finish(agent.scroll(o.dx, o.dy, o.modifiers));
  });
  scroll->add_option("--dx", o.dx, "Horizontal lines");
  scroll->add_option("--dy", o.dy, "Vertical lines");
  addModifiers(scroll, o);

  std::string& text = set.state<std::string>();
  set.add("type", "Type text (any characters, independent of the keyboard layout)",
          [&set, &text] {
            client::Connection agent = set.connect();
            return finish(agent.type(text));
          })
      ->add_option("TEXT", text, "The text")
      ->required();

  // "key CHORD" presses and releases; "key down CHORD" and "key up CHORD" one half. "key down"
  // alone is still the down arrow.
  std::vector<std::string>& keyWords = set.state<std::vector<std::string>>();
  set.add("key", "Press a key chord such as cmd+s or shift+tab (down|up CHORD: one half)",
          [&set, &keyWords] {
            if (keyWords.size() == 2 && keyWords[0] != "down" && keyWords[0] != "up") {
              throw UsageError{"key takes a CHORD, or down or up and a CHORD: key down shift+a"};
            }
            client::Connection agent = set.connect();
            if (keyWords.size() == 1) return finish(agent.key(keyWords[0]));
            return finish(isDown(keyWords[0]) ? agent.keyDown(keyWords[1])
                                              : agent.keyUp(keyWords[1]));
          })
      ->add_option("CHORD", keyWords, "Modifiers and one key joined by +, after down or up")
      ->required()
      ->expected(1, 2);

  set.add("cursor", "Print the pointer position as X Y", [&set, &o] {
       client::Connection agent = set.connect();
       return finish<client::Point>(agent.cursorPosition(), o.json, [](const auto& p) {
         print(std::to_string(p.x) + " " + std::to_string(p.y) + "\n");
       });
     })->add_flag("--json", o.json, "Print the reply as JSON");
}

}  // namespace tervain::ctl
