// tervainctl: drives a TervainVMAgent from the host, one subcommand per operation. This file
// parses the command line, runs the chosen subcommand and turns every failure into one message
// on standard error and an exit status; the subcommands live in one file per family.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>

#include "core/agent_wire.h"
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

void print(std::string_view text) { writeFully(STDOUT_FILENO, text); }

CLI::App* CommandSet::add(const char* name, const char* help, std::function<int()> body) {
  CLI::App* sub = app.add_subcommand(name, help);
  sub->callback([this, body = std::move(body)] { chosen = body; });
  return sub;
}

namespace {

constexpr const char* kAddressHelp =
    "agent address: vsock:CID:PORT, unix:PATH, fd:N or a guest's name from the guests file "
    "(default: $TERVAIN_AGENT_ADDR)";

// The named guests: $XDG_CONFIG_HOME/tervain/guests, else ~/.config/tervain/guests.
std::string guestsFilePath() {
  if (const char* config = std::getenv("XDG_CONFIG_HOME"); config != nullptr && *config != '\0') {
    return std::string(config) + "/tervain/guests";
  }
  const char* home = std::getenv("HOME");
  return std::string(home != nullptr ? home : "") + "/.config/tervain/guests";
}

// The address of a named guest: the file holds "NAME ADDRESS" lines; blank lines and lines
// starting with # are skipped.
std::string lookUpGuest(const std::string& name) {
  const std::string path = guestsFilePath();
  std::ifstream file(path);
  std::string line;
  while (std::getline(file, line)) {
    std::istringstream words(line);
    std::string key;
    std::string address;
    if (!(words >> key) || key.starts_with("#")) continue;
    if (key == name && (words >> address)) return address;
  }
  throw UsageError{"unknown guest '" + name + "': " +
                   (file.is_open() || errno != ENOENT ? "it is not in " + path
                                                      : path + " does not exist") +
                   " (one guest a line: NAME ADDRESS, e.g. myguest vsock:3:2035)"};
}

}  // namespace

client::Address CommandSet::address() const {
  std::string text = connectOption;
  if (text.empty()) {
    if (const char* env = std::getenv("TERVAIN_AGENT_ADDR"); env != nullptr) text = env;
  }
  if (text.empty()) {
    throw UsageError{
        "no agent address: pass --connect ADDR or set TERVAIN_AGENT_ADDR, for example\n"
        "  tervainctl --connect unix:/tmp/tervain.sock ping   (an agent started with "
        "scripts/run --unix /tmp/tervain.sock)\n"
        "  tervainctl --connect vsock:3:2035 ping             (a guest with context id 3)"};
  }
  if (text.find(':') == std::string::npos) text = lookUpGuest(text);
  std::string error;
  auto parsed = client::parseAddress(text, error);
  if (!parsed) throw UsageError{error};
  return *parsed;
}

namespace {

bool takesValue(const std::string& arg) { return arg == "--connect" || arg == "-c"; }

// exec's own options, which come before its command.
bool execTakesValue(const std::string& arg) {
  return arg == "--env" || arg == "--cwd" || arg == "--timeout";
}
bool isExecOptionWithValue(const std::string& arg) {
  return arg.starts_with("--env=") || arg.starts_with("--cwd=") || arg.starts_with("--timeout=");
}

// exec takes everything after its command's first word verbatim, options included, the way
// ssh does; CLI11 would read "-la" in "exec ls -la" as an option of its own. So the command's
// words are split off before parsing. Returns the arguments CLI11 should see.
std::vector<std::string> splitExecWords(int argc, char** argv, std::vector<std::string>& words) {
  std::vector<std::string> args(argv + 1, argv + argc);
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
    if (takesValue(args[i]) || execTakesValue(args[i])) {
      i += 2;
    } else if (args[i].starts_with("--connect=") || isExecOptionWithValue(args[i]) ||
               args[i] == "-t" || args[i] == "--tty" || args[i] == "-h" || args[i] == "--help") {
      ++i;
    } else {
      break;
    }
  }
  words.assign(args.begin() + static_cast<std::ptrdiff_t>(std::min(i, args.size())), args.end());
  args.resize(std::min(i, args.size()));
  return args;
}

// Edits between two words, a swap of two neighbours counting as one.
std::size_t editDistance(std::string_view a, std::string_view b) {
  std::vector<std::vector<std::size_t>> d(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
  for (std::size_t i = 0; i <= a.size(); ++i) d[i][0] = i;
  for (std::size_t j = 0; j <= b.size(); ++j) d[0][j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t change = a[i - 1] == b[j - 1] ? 0 : 1;
      d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + change});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
        d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
      }
    }
  }
  return d[a.size()][b.size()];
}

// "unknown subcommand 'pign' (did you mean ping?)": the names within an edit for every four
// letters (at least one), or that start with the word, nearest first.
std::string unknownSubcommand(const std::string& word, const std::vector<std::string>& names) {
  std::vector<std::pair<std::size_t, std::string>> near;
  for (const std::string& name : names) {
    const std::size_t distance = editDistance(word, name);
    if (distance <= std::max<std::size_t>(1, word.size() / 4) ||
        (word.size() >= 2 && name.starts_with(word))) {
      near.emplace_back(distance, name);
    }
  }
  std::stable_sort(near.begin(), near.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  if (near.size() > 3) near.resize(3);
  std::string text = "unknown subcommand '" + word + "'";
  if (near.empty()) return text;
  text += " (did you mean ";
  for (std::size_t i = 0; i < near.size(); ++i) {
    if (i > 0) text += i + 1 == near.size() ? " or " : ", ";
    text += near[i].second;
  }
  return text + "?)";
}

// Checks the word in the subcommand's place before CLI11 sees it, which would only say that a
// subcommand is required.
void checkSubcommand(const std::vector<std::string>& args, const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::App* sub : app.get_subcommands({})) names.push_back(sub->get_name());
  std::size_t i = 0;
  while (i < args.size() && args[i].starts_with("-")) {
    if (args[i] == "-h" || args[i] == "--help" || args[i] == "--version") return;
    i += takesValue(args[i]) ? 2 : 1;
  }
  if (i >= args.size()) {
    throw UsageError{"a subcommand is required, e.g. tervainctl ping; tervainctl --help lists "
                     "them all"};
  }
  if (std::find(names.begin(), names.end(), args[i]) == names.end()) {
    throw UsageError{unknownSubcommand(args[i], names)};
  }
}

void usageFailure(const std::string& message) {
  complain(message);
  writeFully(STDERR_FILENO, "Run tervainctl --help for more information.\n");
}

// What to add to a failed connection: how to start the agent it looked for.
std::string connectionHint(const client::ConnectionError& e, const CommandSet& set) {
  const int code = e.systemError();
  if (code != ENOENT && code != ECONNREFUSED) return {};
  try {
    const client::Address address = set.address();
    if (address.kind != client::Address::Kind::unixSocket) return {};
    return "is the agent running? start it with: TervainVMAgent --unix " + address.path +
           "  (in a source tree: scripts/run --unix " + address.path + ")";
  } catch (const UsageError&) {
    return {};
  }
}

int run(int argc, char** argv) {
  std::vector<std::string> execWords;
  std::vector<std::string> args = splitExecWords(argc, argv, execWords);

  CLI::App app{"Drive a TervainVMAgent in a guest from the host.", "tervainctl"};
  app.footer(
      "Examples:\n"
      "  tervainctl --connect unix:/tmp/tervain.sock ping\n"
      "  export TERVAIN_AGENT_ADDR=vsock:3:2035; tervainctl exec -- ls -la /Applications\n"
      "  tervainctl -c myguest ping   (myguest from ~/.config/tervain/guests: NAME ADDRESS lines)\n"
      "Exit status: 0 done, 1 the agent refused (its error on stderr), 2 usage error,\n"
      "255 no connection; exec exits with the command's own status.");
  app.failure_message([](const CLI::App*, const CLI::Error& e) {
    return "tervainctl: " + std::string(e.what()) + "\nRun tervainctl --help for more information.\n";
  });
  app.set_version_flag("--version", "tervainctl " TERVAIN_VERSION " (agent protocol v" +
                                        std::to_string(AgentWire::version) + ")");
  app.fallthrough();
  app.require_subcommand(1);

  CommandSet set(app);
  set.execWords = std::move(execWords);
  app.add_option("-c,--connect", set.connectOption, kAddressHelp);
  addStatusCommands(set);
  addExecCommand(set);
  addCopyCommand(set);
  addScreenshotCommand(set);
  addAccessibilityCommands(set);
  addWindowCommands(set);
  addInputCommands(set);
  addLaunchCommand(set);
  addEventsCommand(set);
  addMcpCommand(set);
  addViewCommand(set);

  try {
    checkSubcommand(args, app);
  } catch (const UsageError& e) {
    usageFailure(e.message);
    return kExitUsage;
  }
  std::reverse(args.begin(), args.end());
  try {
    app.parse(args);
  } catch (const CLI::ParseError& e) {
    // Help and --version end here with status 0.
    return app.exit(e) == 0 ? kExitOk : kExitUsage;
  }
  try {
    return set.chosen ? set.chosen() : kExitUsage;
  } catch (const UsageError& e) {
    usageFailure(e.message);
    return kExitUsage;
  } catch (const client::ConnectionError& e) {
    complain(e.what());
    if (const std::string hint = connectionHint(e, set); !hint.empty()) complain(hint);
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
