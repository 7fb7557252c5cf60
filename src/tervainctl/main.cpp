// tervainctl: drives a TervainVMAgent from the host, one subcommand per operation.
#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>

#include "client/render.h"
#include "tervainctl/mcp/mcp_server.h"
#include "tervainctl/tervainctl.h"

namespace tervain::ctl {

void complain(std::string_view message) {
  std::string line = "tervainctl: ";
  line.append(message);
  line.push_back('\n');
  writeFully(STDERR_FILENO, line);
}

bool writeFully(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

namespace {

constexpr const char* kAddressHelp =
    "agent address: vsock:CID:PORT, unix:PATH or fd:N (default: $TERVAIN_AGENT_ADDR)";

// exec takes everything after its command's first word verbatim, options included, the way
// ssh does; CLI11 would read "-la" in "exec ls -la" as an option of its own. So the command's
// words are split off before parsing. Returns the arguments CLI11 should see.
std::vector<std::string> splitExecWords(int argc, char** argv, std::vector<std::string>& words) {
  std::vector<std::string> args(argv + 1, argv + argc);
  auto takesValue = [](const std::string& a) { return a == "--connect"; };
  std::size_t i = 0;
  while (i < args.size() && args[i].starts_with("-")) i += takesValue(args[i]) ? 2 : 1;
  if (i >= args.size() || args[i] != "exec") return args;
  ++i;
  while (i < args.size()) {
    if (args[i] == "--") {
      words.assign(args.begin() + static_cast<std::ptrdiff_t>(i) + 1, args.end());
      args.resize(i);
      return args;
    }
    if (takesValue(args[i])) {
      i += 2;
    } else if (args[i].starts_with("--connect=") || args[i] == "-h" || args[i] == "--help") {
      ++i;
    } else {
      break;
    }
  }
  words.assign(args.begin() + static_cast<std::ptrdiff_t>(std::min(i, args.size())), args.end());
  args.resize(std::min(i, args.size()));
  return args;
}

client::Address resolveAddress(const std::string& given) {
  std::string text = given;
  if (text.empty()) {
    const char* env = std::getenv("TERVAIN_AGENT_ADDR");
    if (env != nullptr) text = env;
  }
  if (text.empty()) {
    throw UsageError{
        "no agent address: pass --connect ADDR or set TERVAIN_AGENT_ADDR, for example\n"
        "  tervainctl --connect unix:/tmp/tervain.sock ping   (an agent started with "
        "scripts/run --unix /tmp/tervain.sock)\n"
        "  tervainctl --connect vsock:3:2035 ping             (a guest with context id 3)"};
  }
  std::string error;
  auto address = client::parseAddress(text, error);
  if (!address) throw UsageError{error};
  return *address;
}

// Prints the agent's refusal and gives the exit status.
template <typename T>
int finish(const client::Result<T>& result,
           const std::function<void(const T&)>& onOk = [](const T&) {}) {
  if (!result.ok) {
    complain(result.error);
    return kExitRefused;
  }
  onOk(result.value);
  return kExitOk;
}

void print(const std::string& text) { writeFully(STDOUT_FILENO, text); }

int writeFile(const std::string& path, std::string_view bytes) {
  const bool toStdout = path == "-";
  const int fd =
      toStdout ? STDOUT_FILENO : ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0 || !writeFully(fd, bytes) || (!toStdout && ::close(fd) != 0)) {
    complain("cannot write " + path + ": " + std::strerror(errno));
    return kExitRefused;
  }
  return kExitOk;
}

int run(int argc, char** argv) {
  std::vector<std::string> execWords;
  std::vector<std::string> args = splitExecWords(argc, argv, execWords);

  CLI::App app{"tervainctl: drive a TervainVMAgent in a macOS guest from the host."};
  app.footer(
      "Examples:\n"
      "  tervainctl --connect unix:/tmp/tervain.sock ping\n"
      "  export TERVAIN_AGENT_ADDR=vsock:3:2035; tervainctl exec -- ls -la /Applications\n"
      "Exit status: 0 done, 1 the agent refused (its error on stderr), 2 usage error,\n"
      "255 no connection; exec exits with the command's own status.");
  app.fallthrough();
  app.require_subcommand(1);
  std::string connect;
  app.add_option("--connect", connect, kAddressHelp);

  std::function<int()> action;
  auto agent = [&] { return client::Connection::open(resolveAddress(connect)); };
  auto command = [&](const char* name, const char* help, std::function<int()> body) {
    CLI::App* sub = app.add_subcommand(name, help);
    sub->callback([&action, body = std::move(body)] { action = body; });
    return sub;
  };

  // ping
  bool pingJson = false;
  command("ping", "Show the agent's protocol version, displays and grants", [&] {
    client::Connection c = agent();
    if (pingJson) {
      c.sendLine(R"({"op":"ping"})");
      const std::string line = c.receiveLine();
      print(line + "\n");
      return finish(client::parsePing(Json::parse(line, nullptr, false)));
    }
    return finish<client::PingInfo>(c.ping(), [](const auto& p) { print(client::renderPing(p)); });
  })->add_flag("--json", pingJson, "Print the raw reply");

  // call
  std::string callText;
  command("call", "Send one request (a JSON object) and print the raw reply", [&] {
    const Json request = Json::parse(callText, nullptr, false);
    if (request.is_discarded() || !request.is_object() || !request.contains("op") ||
        !request["op"].is_string()) {
      throw UsageError{R"(call needs one JSON object with an "op", e.g. call '{"op":"ping"}')"};
    }
    if (request["op"] == "exec") throw UsageError{"call cannot run exec: use tervainctl exec"};
    client::Connection c = agent();
    c.send(request);
    const std::string line = c.receiveLine();
    print(line + "\n");
    return finish(client::parseReply(Json::parse(line, nullptr, false)));
  })->add_option("JSON", callText, "The request, e.g. '{\"op\":\"cursor_position\"}'")->required();

  // exec
  command("exec",
          "Run a shell command in the guest, like ssh host command: its output streams to "
          "stdout/stderr, local stdin is forwarded, SIGINT/SIGTERM/SIGHUP are passed on, and "
          "the exit status is the command's own (255 when it could not run)",
          [&] {
            if (execWords.empty()) throw UsageError{"exec needs a command, e.g. exec -- uname -a"};
            return runExecCommand(resolveAddress(connect), execWords);
          })
      ->footer("Usage: tervainctl exec [--] COMMAND...   e.g. tervainctl exec -- ls -la ~");

  // cp
  std::string cpSource;
  std::string cpTarget;
  CLI::App* cp = command(
      "cp", "Copy a file to or from the guest: cp LOCAL guest:PATH, or cp guest:PATH LOCAL",
      [&] { return runCopyCommand(resolveAddress(connect), cpSource, cpTarget); });
  cp->add_option("SOURCE", cpSource, "A local path, - for stdin, or guest:PATH")->required();
  cp->add_option("TARGET", cpTarget, "A local path, - for stdout, or guest:PATH")->required();
  cp->footer("A guest path starting with ~/ is relative to the guest user's home.");

  // screenshot
  std::optional<std::int64_t> display;
  std::string imagePath;
  CLI::App* shot = command("screenshot", "Capture a guest display as JPEG", [&] {
    client::Connection c = agent();
    const auto result = c.screenshot(display);
    if (!result.ok) return finish(result);
    const int status = writeFile(imagePath, result.value.jpeg);
    if (status == kExitOk && imagePath != "-") {
      print(imagePath + ": " + std::to_string(result.value.width) + "x" +
            std::to_string(result.value.height) + " JPEG, " +
            std::to_string(result.value.jpeg.size()) + " bytes\n");
    }
    return status;
  });
  shot->add_option("--display", display, "Display index (default 0)");
  shot->add_option("-o,--output", imagePath, "Where to write the JPEG (- for stdout)")->required();

  // tree
  std::optional<std::int64_t> treePid;
  std::optional<std::int64_t> treeDepth;
  bool treeJson = false;
  CLI::App* tree = command("tree", "Show the accessibility tree of the frontmost application", [&] {
    client::Connection c = agent();
    Json request = {{"op", "ax_dump"}};
    if (treePid) request["pid"] = *treePid;
    if (treeDepth) request["maxDepth"] = *treeDepth;
    c.send(request);
    const std::string line = c.receiveLine();
    if (treeJson) print(line + "\n");
    return finish<client::AXTree>(client::parseAXDump(Json::parse(line, nullptr, false)),
                                  [&](const auto& t) {
                                    if (!treeJson) print(client::renderTree(t));
                                  });
  });
  tree->add_option("--pid", treePid, "Process id of the application (default: frontmost)");
  tree->add_option("--depth", treeDepth, "Depth limit, 1 to 25 (default 12)");
  tree->add_flag("--json", treeJson, "Print the raw reply");

  // at
  std::int64_t atX = 0;
  std::int64_t atY = 0;
  bool atJson = false;
  CLI::App* at = command("at", "Show the element at a screen point (and get a ref for it)", [&] {
    client::Connection c = agent();
    c.send({{"op", "ax_element_at"}, {"x", atX}, {"y", atY}});
    const std::string line = c.receiveLine();
    if (atJson) print(line + "\n");
    return finish<client::AXNode>(client::parseAXElementAt(Json::parse(line, nullptr, false)),
                                  [&](const auto& n) {
                                    if (!atJson) print(client::renderNode(n) + "\n");
                                  });
  });
  at->add_option("X", atX, "Horizontal position (points)")->required();
  at->add_option("Y", atY, "Vertical position (points)")->required();
  at->add_flag("--json", atJson, "Print the raw reply");
  at->footer("A ref is only valid on the connection that made it: use it within one session "
             "of a program built on the client library, or act by position instead.");

  // press / set / focus. A ref lives only as long as the connection that minted it, and each
  // tervainctl run is a connection of its own, so --at X Y finds the element at a point and
  // acts on it within one connection. The argument the ref would have taken then moves on to
  // the next slot (press --at 640 400 AXShowMenu, set --at 300 200 "text").
  std::optional<std::string> ref;
  std::optional<std::string> second;
  std::vector<std::int64_t> atPoint;
  // The element to act on and the argument after it; nothing when the agent found no element.
  using Target = std::pair<std::string, std::optional<std::string>>;
  auto target = [&](client::Connection& c) -> std::optional<Target> {
    if (atPoint.size() != 2) {
      if (!ref) throw UsageError{"give an element ref (from tree or at) or --at X Y"};
      return Target{*ref, second};
    }
    if (ref && second) throw UsageError{"give either a ref or --at X Y, not both"};
    const auto found = c.axElementAt(atPoint[0], atPoint[1]);
    if (!found.ok) {
      complain(found.error);
      return std::nullopt;
    }
    return Target{found.value.ref, ref};
  };
  auto addTarget = [&](CLI::App* sub, const char* secondName, const char* secondHelp) {
    sub->add_option("REF", ref, "Element ref from tree or at, e.g. e7");
    if (secondName != nullptr) sub->add_option(secondName, second, secondHelp);
    sub->add_option("--at", atPoint, "Act on the element at screen point X Y instead of a ref")
        ->expected(2)
      ->allow_extra_args(false);
  };

  addTarget(command("press", "Perform an action on an element (default AXPress)",
                    [&] {
                      client::Connection c = agent();
                      const auto t = target(c);
                      if (!t) return kExitRefused;
                      return finish<client::ActionOutcome>(
                          c.axAction(t->first, t->second.value_or("")), [](const auto& o) {
                            if (o.note) complain("note: " + *o.note);
                          });
                    }),
            "ACTION", "Action name, e.g. AXShowMenu");

  addTarget(command("set", "Set an element's value",
                    [&] {
                      client::Connection c = agent();
                      const auto t = target(c);
                      if (!t) return kExitRefused;
                      if (!t->second) throw UsageError{"set needs a VALUE (it may be \"\")"};
                      return finish(c.axSetValue(t->first, *t->second));
                    }),
            "VALUE", "New value (may be empty)");

  addTarget(command("focus", "Focus an element",
                    [&] {
                      client::Connection c = agent();
                      const auto t = target(c);
                      if (!t) return kExitRefused;
                      return finish(c.axFocus(t->first));
                    }),
            nullptr, nullptr);

  // pointer
  std::int64_t x = 0;
  std::int64_t y = 0;
  std::string button = "left";
  std::int64_t clickCount = 1;
  CLI::App* click = command("click", "Click at a screen point", [&] {
    const auto which = button == "right"    ? client::MouseButton::right
                       : button == "middle" ? client::MouseButton::middle
                                            : client::MouseButton::left;
    client::Connection c = agent();
    return finish(c.click(x, y, which, clickCount));
  });
  click->add_option("X", x, "Horizontal position (points)")->required();
  click->add_option("Y", y, "Vertical position (points)")->required();
  click->add_option("--button", button, "left, right or middle")
      ->check(CLI::IsMember({"left", "right", "middle"}));
  click->add_option("--count", clickCount, "1 to 3 (a double click is 2)");

  CLI::App* move = command("move", "Move the pointer", [&] {
    client::Connection c = agent();
    return finish(c.move(x, y));
  });
  move->add_option("X", x, "Horizontal position (points)")->required();
  move->add_option("Y", y, "Vertical position (points)")->required();

  std::vector<std::int64_t> dragFrom;
  CLI::App* drag = command("drag", "Drag with the left button to a point", [&] {
    std::optional<client::Point> from;
    if (dragFrom.size() == 2) from = client::Point{dragFrom[0], dragFrom[1]};
    client::Connection c = agent();
    return finish(c.drag(x, y, from));
  });
  drag->add_option("--from", dragFrom, "Start point X Y (default: where the pointer is)")
      ->expected(2)
      ->allow_extra_args(false);
  drag->add_option("X", x, "Target horizontal position")->required();
  drag->add_option("Y", y, "Target vertical position")->required();

  std::optional<std::int64_t> dx;
  std::optional<std::int64_t> dy;
  CLI::App* scroll = command("scroll", "Scroll by lines (-40 to 40 each way)", [&] {
    if (!dx && !dy) throw UsageError{"scroll needs --dx and/or --dy, e.g. scroll --dy -5"};
    client::Connection c = agent();
    return finish(c.scroll(dx, dy));
  });
  scroll->add_option("--dx", dx, "Horizontal lines");
  scroll->add_option("--dy", dy, "Vertical lines");

  // keyboard
  std::string text;
  command("type", "Type text (any characters, independent of the keyboard layout)", [&] {
    client::Connection c = agent();
    return finish(c.type(text));
  })->add_option("TEXT", text, "The text")->required();

  std::string chord;
  command("key", "Press a key chord such as cmd+s or shift+tab", [&] {
    client::Connection c = agent();
    return finish(c.key(chord));
  })->add_option("CHORD", chord, "Modifiers and one key joined by +")->required();

  command("cursor", "Print the pointer position as X Y", [&] {
    client::Connection c = agent();
    return finish<client::Point>(c.cursorPosition(), [](const auto& p) {
      print(std::to_string(p.x) + " " + std::to_string(p.y) + "\n");
    });
  });

  std::string appName;
  command("launch", "Launch (or bring up) an application by name", [&] {
    client::Connection c = agent();
    return finish(c.launchApp(appName));
  })->add_option("NAME", appName, "e.g. TextEdit or Terminal")->required();

  // events
  client::ShellEventsRequest eventsRequest;
  CLI::App* events = command("events", "Write the agent shell's spooled events to stdout", [&] {
    client::Connection c = agent();
    return finish<client::ShellEvents>(c.shellEvents(eventsRequest), [](const auto& e) {
      writeFully(STDOUT_FILENO, e.events);
      if (e.truncated) {
        complain("more events wait in the spool (over the byte budget): run events again");
      }
    });
  });
  events->add_option("--dir", eventsRequest.dir, "Spool directory (default: the agent's)");
  events->add_option("--max-bytes", eventsRequest.maxBytes, "Byte budget (default 4 MiB)");
  events->add_flag("--truncate", eventsRequest.truncate,
                   "Delete the delivered event files from the spool");

  command("mcp", "Serve the guest to AI agents: an MCP server on stdin/stdout (see docs/mcp.md)",
          [&] { return mcp::runMcp({.address = resolveAddress(connect)}); });

  std::reverse(args.begin(), args.end());
  try {
    app.parse(args);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    app.exit(e);
    return kExitUsage;
  }
  try {
    return action ? action() : kExitUsage;
  } catch (const UsageError& e) {
    complain(e.message);
    writeFully(STDERR_FILENO, "Run with --help for more information.\n");
    return kExitUsage;
  } catch (const client::ConnectionError& e) {
    complain(e.what());
    return kExitNoAgent;
  } catch (const client::ProtocolError& e) {
    complain(e.what());
    return kExitNoAgent;
  } catch (const client::ClientError& e) {
    complain(e.what());
    return kExitUsage;
  }
}

}  // namespace
}  // namespace tervain::ctl

int main(int argc, char** argv) { return tervain::ctl::run(argc, argv); }
