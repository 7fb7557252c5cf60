// "shell-events": drains the agent shell's event spool into one reply line, and deletes what it
// delivered only once the whole reply has been written.
#include <cstdio>
#include <string>

#include "agent/ops_shell_drain.h"
#include "core/agent_wire.h"
#include "core/request_members.h"
#include "core/shell_spool.h"
#include "core/socket_io.h"

namespace tervain {

bool runShellEvents(OperationContext& context, std::string_view requestLine) {
  namespace Wire = AgentWire::ShellEvents;
  const Json request = parseRequestObject(requestLine).value_or(Json::object());

  const std::string* dirMember = stringMember(request, Wire::dirKey);
  const std::string dir = dirMember != nullptr ? *dirMember : ShellSpool::defaultDir();
  const std::int64_t maxBytes =
      integerMember(request, Wire::maxBytesKey).value_or(ShellSpool::defaultCap);
  const bool truncate = truthy(member(request, Wire::truncateKey));

  ShellSpool::DrainResult result = ShellSpool::drain(dir, maxBytes);
  const std::vector<std::string> drained = std::move(result.drainedPaths);

  Reply reply = Reply::success();
  reply.body[std::string(Wire::filesKey)] = result.files;
  reply.body[std::string(Wire::bytesKey)] = result.data.size();
  reply.body[std::string(Wire::truncatedKey)] = result.truncated;
  reply.base64Members.emplace_back(std::string(Wire::eventsKey), std::move(result.data));

  std::string bytes = serializeReply(reply);
  if (bytes == kReplySerializationFailed) return true;
  bytes.push_back('\n');
  if (!writeAll(context.fd, bytes) || !truncate) return true;
  for (const std::string& path : drained) std::remove(path.c_str());
  return true;
}

}  // namespace tervain
