// `tervainctl mcp`: the guest as a Model Context Protocol server on standard input and output.
#pragma once

#include <unistd.h>

#include <chrono>
#include <cstddef>

#include "client/tervain_client.h"

namespace tervain::mcp {

struct McpOptions {
  client::Address address;  // the agent; connected to when a tool first needs it
  int input = STDIN_FILENO;    // JSON-RPC messages, one a line
  int output = STDOUT_FILENO;  // responses only; logs go to standard error
  std::size_t workers = 8;     // tool calls run at once; more wait their turn
  std::chrono::milliseconds replyTimeout{30000};  // for one agent reply (the agent's own limit is 15 s)
};

// Serves until the input ends (then finishes the calls in flight) or the output breaks.
// Returns the process exit status.
int runMcp(const McpOptions& options);

}  // namespace tervain::mcp
