// tervainctl click, move, drag, scroll, type, key and cursor: the pointer and the keyboard.
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
  bool json = false;
};

void addPoint(CLI::App* sub, PointerOptions& o, const char* what) {
  sub->add_option("X", o.x, std::string(what) + " horizontal position (points)")->required();
  sub->add_option("Y", o.y, std::string(what) + " vertical position (points)")->required();
}

}  // namespace

void addInputCommands(CommandSet& set) {
  PointerOptions& o = set.state<PointerOptions>();

  CLI::App* click = set.add("click", "Click at a screen point", [&set, &o] {
    const auto which = o.button == "right"    ? client::MouseButton::right
                       : o.button == "middle" ? client::MouseButton::middle
                                              : client::MouseButton::left;
    client::Connection agent = set.connect();
    return finish(agent.click(o.x, o.y, which, o.count));
  });
  addPoint(click, o, "The");
  click->add_option("--button", o.button, "left, right or middle")
      ->check(CLI::IsMember({"left", "right", "middle"}));
  click->add_option("--count", o.count, "1 to 3 (a double click is 2)");

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
    return finish(agent.drag(o.x, o.y, from));
  });
  drag->add_option("--from", o.from, "Start point X Y (default: where the pointer is)")
      ->expected(2)
      ->allow_extra_args(false);
  addPoint(drag, o, "Target");

  CLI::App* scroll = set.add("scroll", "Scroll by lines (-40 to 40 each way)", [&set, &o] {
    if (!o.dx && !o.dy) throw UsageError{"scroll needs --dx and/or --dy, e.g. scroll --dy -5"};
    client::Connection agent = set.connect();
    return finish(agent.scroll(o.dx, o.dy));
  });
  scroll->add_option("--dx", o.dx, "Horizontal lines");
  scroll->add_option("--dy", o.dy, "Vertical lines");

  std::string& text = set.state<std::string>();
  set.add("type", "Type text (any characters, independent of the keyboard layout)",
          [&set, &text] {
            client::Connection agent = set.connect();
            return finish(agent.type(text));
          })
      ->add_option("TEXT", text, "The text")
      ->required();

  std::string& chord = set.state<std::string>();
  set.add("key", "Press a key chord such as cmd+s or shift+tab",
          [&set, &chord] {
            client::Connection agent = set.connect();
            return finish(agent.key(chord));
          })
      ->add_option("CHORD", chord, "Modifiers and one key joined by +")
      ->required();

  set.add("cursor", "Print the pointer position as X Y", [&set, &o] {
       client::Connection agent = set.connect();
       return finish<client::Point>(agent.cursorPosition(), o.json, [](const auto& p) {
         print(std::to_string(p.x) + " " + std::to_string(p.y) + "\n");
       });
     })->add_flag("--json", o.json, "Print the reply as JSON");
}

}  // namespace tervain::ctl
