// Pieces of tervainctl shared by its command files.
#pragma once

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

// A usage problem found after parsing (a bad argument value, no address); its text is shown
// followed by a hint to --help, and the exit status is kExitUsage.
struct UsageError {
  std::string message;
};

// Writes "tervainctl: " + message and a line feed to standard error.
void complain(std::string_view message);

// Writes all bytes to a descriptor; false on failure (errno set).
bool writeFully(int fd, std::string_view bytes);

// exec: runs words joined by spaces (as ssh does) with the local standard streams attached,
// forwarding SIGINT, SIGTERM and SIGHUP. Returns the exit status for tervainctl.
int runExecCommand(const client::Address& address, const std::vector<std::string>& words);

// cp: exactly one of source and target is "guest:PATH"; "-" stands for the local standard
// input or output.
int runCopyCommand(const client::Address& address, const std::string& source,
                   const std::string& target);

}  // namespace tervain::ctl
