// tervainctl mcp: serve the guest to AI agents over the Model Context Protocol on stdio.
#include "tervainctl/mcp/mcp_server.h"
#include "tervainctl/tervainctl.h"

namespace tervain::ctl {

void addMcpCommand(CommandSet& set) {
  set.add("mcp", "Serve the guest to AI agents: an MCP server on stdin/stdout (see docs/mcp.md)",
          [&set] { return mcp::runMcp({.address = set.address()}); });
}

}  // namespace tervain::ctl
