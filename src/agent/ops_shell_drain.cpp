// "shell-events": drains the agent shell's event spool into one reply line, and deletes what it
// delivered only once the whole reply has been written, and only what is still as delivered.
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "agent/ops_shell_drain.h"
#include "core/agent_wire.h"
#include "core/request_members.h"
#include "core/shell_spool.h"
#include "core/socket_io.h"

namespace tervain {
namespace {

namespace Wire = AgentWire::ShellEvents;

struct Deletion {
  std::string name;
  std::int64_t bytes = 0;
};

// The "delete" list: every entry an object with a string "name" and an integer "bytes" of at
// least 0. Nothing when any entry is otherwise, so a garbled list deletes nothing at all.
std::optional<std::vector<Deletion>> deletionList(const Json& list) {
  if (!list.is_array()) return std::nullopt;
  std::vector<Deletion> result;
  for (const Json& entry : list) {
    const std::string* name = stringMember(entry, Wire::nameKey);
    const std::optional<std::int64_t> bytes = integerMember(entry, Wire::bytesKey);
    if (name == nullptr || !bytes || *bytes < 0) return std::nullopt;
    result.push_back({*name, *bytes});
  }
  return result;
}

Reply deleteDelivered(const std::string& dir, const Json& list) {
  const std::optional<std::vector<Deletion>> deletions = deletionList(list);
  if (!deletions) {
    return Reply::failure(
        "shell-events \"delete\" wants a list of {\"name\":...,\"bytes\":...} as a drain with "
        "\"listFiles\" reported them \u2014 nothing was deleted");
  }
  Json deleted = Json::array();
  Json kept = Json::array();
  for (const Deletion& file : *deletions) {
    (ShellSpool::removeDelivered(dir, file.name, file.bytes) ? deleted : kept).push_back(file.name);
  }
  Reply reply = Reply::success();
  reply.body[std::string(Wire::deletedKey)] = std::move(deleted);
  reply.body[std::string(Wire::keptKey)] = std::move(kept);
  return reply;
}

}  // namespace

bool runShellEvents(OperationContext& context, std::string_view requestLine) {
  const Json request = parseRequestObject(requestLine).value_or(Json::object());

  const std::string* dirMember = stringMember(request, Wire::dirKey);
  const std::string dir = dirMember != nullptr ? *dirMember : ShellSpool::defaultDir();
  const std::int64_t maxBytes =
      integerMember(request, Wire::maxBytesKey).value_or(ShellSpool::defaultCap);
  const bool truncate = truthy(member(request, Wire::truncateKey));

  if (const Json* list = member(request, Wire::deleteKey)) {
    std::string bytes = serializeReply(deleteDelivered(dir, *list));
    bytes.push_back('\n');
    writeAll(context.fd, bytes);
    return true;
  }

  ShellSpool::DrainResult result = ShellSpool::drain(dir, maxBytes);

  Reply reply = Reply::success();
  reply.body[std::string(Wire::filesKey)] = result.files;
  reply.body[std::string(Wire::bytesKey)] = result.data.size();
  reply.body[std::string(Wire::truncatedKey)] = result.truncated;
  if (truthy(member(request, Wire::listFilesKey))) {
    Json delivered = Json::array();
    for (const ShellSpool::DrainedFile& file : result.drainedFiles) {
      delivered.push_back({{std::string(Wire::nameKey), file.name},
                           {std::string(Wire::bytesKey), file.bytes}});
    }
    reply.body[std::string(Wire::deliveredKey)] = std::move(delivered);
    struct stat folder {};
    if (::stat(dir.c_str(), &folder) != 0 || !S_ISDIR(folder.st_mode) ||
        ::access(dir.c_str(), R_OK | X_OK) != 0) {
      reply.body[std::string(Wire::missingKey)] = true;
    }
  }
  reply.base64Members.emplace_back(std::string(Wire::eventsKey), std::move(result.data));

  std::string bytes = serializeReply(reply);
  // Only a listed name that is not UTF-8 can make the reply unwritable: the host gets the
  // fixed failure line and nothing is deleted.
  const bool serialized = bytes != kReplySerializationFailed;
  bytes.push_back('\n');
  if (!writeAll(context.fd, bytes) || !serialized || !truncate) return true;
  // Events appended while the reply was on its way make a file differ from what was delivered:
  // such a file stays and is delivered again, in full, by the next drain.
  for (const ShellSpool::DrainedFile& file : result.drainedFiles) {
    ShellSpool::removeDelivered(dir, file.name, file.bytes, &file);
  }
  return true;
}

}  // namespace tervain
