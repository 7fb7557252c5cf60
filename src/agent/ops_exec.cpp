// "exec": hands the connection to an ExecSession for the rest of its life.
#include <string>

#include "agent/ops_exec.h"
#include "core/agent_wire.h"
#include "core/exec_session.h"
#include "core/posix/login_shell.h"
#include "core/request_members.h"
#include "core/socket_io.h"

namespace tervain {

bool runExec(OperationContext& context, std::string_view requestLine) {
  // Parsed before the pending bytes are taken: the line is a view into the line buffer.
  const std::optional<Json> request = parseRequestObject(requestLine);
  if (!request) {
    // Assembled by hand so that its bytes, key order included, never change.
    namespace Wire = AgentWire::Exec;
    std::string line = "{\"";
    line += Wire::tagKey;
    line += "\":\"";
    line += Wire::spawnError;
    line += "\",\"";
    line += Wire::messageKey;
    line += "\":\"exec request did not parse\"}\n";
    writeAll(context.fd, line);
    return false;
  }
  ExecSession session(context.fd, context.lines.takePending(),
                      std::string(ExecSession::defaultDulkPath),
                      ExecSession::defaultPipeGraceMillis, posix::shellWithoutAgentShell());
  session.shareLineBound(context.agent.pendingLineBytes);
  session.run(*request);
  return false;
}

}  // namespace tervain
