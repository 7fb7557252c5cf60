// "shell-events": drains the agent shell's event spool into one reply line, and deletes what it
// delivered only once the whole reply has been written, and only what is still as delivered.
#include <string>
#include <vector>

#include "agent/connection_handler.h"
#include "core/agent_wire.h"
#include "core/request_members.h"
#include "core/shell_spool.h"

namespace tervain {

void ConnectionHandler::runShellEvents(std::string_view requestLine) {
  namespace Wire = AgentWire::ShellEvents;
  const Json request = parseRequestObject(requestLine).value_or(Json::object());

  const std::string* dirMember = stringMember(request, Wire::dirKey);
  const std::string dir = dirMember != nullptr ? *dirMember : ShellSpool::defaultDir();
  const std::int64_t maxBytes =
      integerMember(request, Wire::maxBytesKey).value_or(ShellSpool::defaultCap);
  const bool truncate = truthy(member(request, Wire::truncateKey));

  ShellSpool::DrainResult result = ShellSpool::drain(dir, maxBytes);

  Reply reply = Reply::success();
  reply.body[std::string(Wire::filesKey)] = result.files;
  reply.body[std::string(Wire::bytesKey)] = result.data.size();
  reply.body[std::string(Wire::truncatedKey)] = result.truncated;
  reply.base64Members.emplace_back(std::string(Wire::eventsKey), std::move(result.data));

  std::string bytes = serializeReply(reply);
  if (bytes == kReplySerializationFailed) return;
  bytes.push_back('\n');
  if (!writeAll(bytes) || !truncate) return;
  // Events appended while the reply was on its way make a file differ from what was delivered:
  // such a file stays and is delivered again, in full, by the next drain.
  for (const ShellSpool::DrainedFile& file : result.drainedFiles) {
    ShellSpool::removeDelivered(dir, file.name, file.bytes, &file);
  }
}

}  // namespace tervain
