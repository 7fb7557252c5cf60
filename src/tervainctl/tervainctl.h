// Pieces of tervainctl shared by its command files. Each family of subcommands lives in a file of
// its own and registers itself on a CommandSet; main.cpp only parses, runs the chosen body and
// turns errors into messages and exit statuses.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "client/tervain_client.h"

namespace tervain::ctl {

// Exit statuses of every subcommand except exec, whose status is the command's own.
inline constexpr int kExitOk = 0;
inline constexpr int kExitRefused = 1;       // the agent answered "ok": false, or a copy failed
inline constexpr int kExitUsage = 2;
inline constexpr int kExitNoAgent = 255;     // no connection, or it broke
inline constexpr int kExitTimedOut = 124;    // exec: the agent ended the command at --timeout

// A usage problem found after parsing (a bad argument value, no address); its text is shown
// followed by a hint to --help, and the exit status is kExitUsage.
struct UsageError {
  std::string message;
};

// Writes "tervainctl: " + message and a line feed to standard error.
void complain(std::string_view message);

// Writes all bytes to a descriptor; false on failure (errno set).
bool writeFully(int fd, std::string_view bytes);

// Writes text to standard output.
void print(std::string_view text);

// The subcommands and what they share: the agent's address and the body chosen by parsing.
class CommandSet {
 public:
  explicit CommandSet(CLI::App& app) : app(app) {}

  // Adds a subcommand whose body runs once parsing succeeded.
  CLI::App* add(const char* name, const char* help, std::function<int()> body);

  // Storage for a family's option values, alive as long as the set.
  template <typename T>
  T& state() {
    auto owned = std::make_shared<T>();
    T& ref = *owned;
    states.push_back(std::move(owned));
    return ref;
  }

  // The agent's address: --connect, else $TERVAIN_AGENT_ADDR; a name without a colon is looked
  // up in the guests file. Throws UsageError.
  client::Address address() const;
  client::Connection connect() const { return client::Connection::open(address()); }

  std::string connectOption;            // --connect / -c
  std::vector<std::string> execWords;   // exec's command, split off before parsing
  std::function<int()> chosen;

 private:
  CLI::App& app;
  std::vector<std::shared_ptr<void>> states;
};

// Prints the agent's refusal and gives the exit status; on success prints the whole reply as
// one JSON line when json is set, else calls onOk.
template <typename T>
int finish(const client::Result<T>& result, bool json = false,
           const std::function<void(const T&)>& onOk = [](const T&) {}) {
  if (!result.ok) {
    complain(result.error);
    return kExitRefused;
  }
  if (json) {
    print(result.reply.dump() + "\n");
  } else {
    onOk(result.value);
  }
  return kExitOk;
}

// The families, one file each.
void addStatusCommands(CommandSet& set);         // ping, call
void addInputCommands(CommandSet& set);          // click, move, drag, scroll, type, key, cursor
void addAccessibilityCommands(CommandSet& set);  // tree, at, press, set, focus
void addWindowCommands(CommandSet& set);         // windows, window, clipboard
void addScreenshotCommand(CommandSet& set);      // screenshot
void addLaunchCommand(CommandSet& set);          // launch
void addEventsCommand(CommandSet& set);          // events
void addExecCommand(CommandSet& set);            // exec
void addCopyCommand(CommandSet& set);            // cp
void addMcpCommand(CommandSet& set);             // mcp
void addViewCommand(CommandSet& set);            // view

// exec's options, as given on the command line.
struct ExecFlags {
  std::vector<std::string> env;  // --env NAME=VALUE, each
  std::optional<std::string> cwd;
  std::optional<std::string> timeout;  // seconds, as written (the message repeats it)
  bool tty = false;                    // -t: on a guest terminal
};

// exec: runs words joined by spaces (as ssh does) with the local standard streams attached,
// forwarding SIGINT, SIGTERM and SIGHUP. Returns the exit status for tervainctl. Throws
// UsageError for a malformed flag.
int runExecCommand(const client::Address& address, const std::vector<std::string>& words,
                   const ExecFlags& flags = {});

struct CopyOptions {
  bool recursive = false;  // -r: folders too
  bool preserve = false;   // -p: modes and modification times
};

// cp: either every source is "guest:PATH" and the target local, or the other way round; several
// sources need a folder as target. "-" stands for the local standard input or output.
int runCopyCommand(const client::Address& address, const std::vector<std::string>& sources,
                   const std::string& target, const CopyOptions& options);

}  // namespace tervain::ctl
