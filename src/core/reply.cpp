#include "core/reply.h"

#include <cmath>

#include "core/base64.h"

namespace tervain {
namespace {

// nlohmann writes non-finite numbers as null; the wire wants the fallback instead.
bool hasNonFinite(const Json& value) {
  switch (value.type()) {
    case Json::value_t::number_float:
      return !std::isfinite(value.get<double>());
    case Json::value_t::object:
    case Json::value_t::array:
      for (const auto& item : value) {
        if (hasNonFinite(item)) return true;
      }
      return false;
    default:
      return false;
  }
}

}  // namespace

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
  std::string out;
  try {
    if (!reply.body.is_object() || hasNonFinite(reply.body)) {
      return std::string(kReplySerializationFailed);
    }
    out = reply.body.dump();
    if (reply.base64Members.empty() && reply.jsonMembers.empty()) return out;

    std::size_t extra = 0;
    for (const auto& [key, bytes] : reply.base64Members) {
      extra += key.size() + base64::encodedSize(bytes.size()) + 8;
    }
    for (const auto& [key, text] : reply.jsonMembers) extra += key.size() + text.size() + 8;
    out.pop_back();  // the closing brace
    out.reserve(out.size() + extra + 1);
    bool first = out.size() == 1;
    for (const auto& [key, text] : reply.jsonMembers) {
      if (!first) out.push_back(',');
      first = false;
      out += Json(key).dump();
      out.push_back(':');
      out += text;
    }
    for (const auto& [key, bytes] : reply.base64Members) {
      if (!first) out.push_back(',');
      first = false;
      out += Json(key).dump();
      out += ":\"";
      base64::appendEncoded(out, bytes);
      out.push_back('"');
    }
    out.push_back('}');
    return out;
  } catch (...) {
    return std::string(kReplySerializationFailed);
  }
}

}  // namespace tervain
