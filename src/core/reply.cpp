#include "core/reply.h"

#include "core/base64.h"
#include "core/json_writer.h"

namespace tervain {

Reply Reply::success() {
  Reply reply;
  reply.body["ok"] = true;
  return reply;
}

Reply Reply::failure(std::string error) {
  Reply reply;
  reply.body["ok"] = false;
  reply.body["error"] = std::move(error);
  return reply;
}

bool Reply::ok() const {
  const auto it = body.find("ok");
  return it != body.end() && it->is_boolean() && it->get<bool>();
}

std::string Reply::error() const {
  const auto it = body.find("error");
  return it != body.end() && it->is_string() ? it->get<std::string>() : std::string();
}

std::string serializeReply(const Reply& reply) {
  if (!reply.body.is_object()) return std::string(kReplySerializationFailed);
  std::size_t extra = 0;
  for (const auto& [key, bytes] : reply.base64Members) {
    extra += key.size() + base64::encodedSize(bytes.size()) + 8;
  }
  for (const auto& [key, text] : reply.jsonMembers) extra += key.size() + text.size() + 8;
  std::string out;
  out.reserve(128 + extra);
  if (!appendCompactJson(out, reply.body)) return std::string(kReplySerializationFailed);
  if (reply.base64Members.empty() && reply.jsonMembers.empty()) return out;

  out.pop_back();  // the closing brace
  bool first = out.size() == 1;
  for (const auto& [key, text] : reply.jsonMembers) {
    if (!first) out.push_back(',');
    first = false;
    if (!appendJsonString(out, key)) return std::string(kReplySerializationFailed);
    out.push_back(':');
    out += text;
  }
  for (const auto& [key, bytes] : reply.base64Members) {
    if (!first) out.push_back(',');
    first = false;
    if (!appendJsonString(out, key)) return std::string(kReplySerializationFailed);
    out += ":\"";
    base64::appendEncoded(out, bytes);
    out.push_back('"');
  }
  out.push_back('}');
  return out;
}

}  // namespace tervain
