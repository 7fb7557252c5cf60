// Replies to ordinary requests and their byte form.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "core/json.h"

namespace tervain {

// One reply: a JSON object with "ok" and the operation's members. Large byte payloads (an image,
// drained events) are kept aside as raw bytes and written as base64 strings straight into the
// reply's bytes, never copied through the JSON object model.
struct Reply {
  Json body = Json::object();
  std::vector<std::pair<std::string, std::string>> base64Members;  // key, raw bytes
  // Members whose value is already JSON text (an accessibility tree, written as it was walked),
  // spliced into the reply's bytes as they stand. The producer guarantees valid JSON.
  std::vector<std::pair<std::string, std::string>> jsonMembers;  // key, JSON text

  static Reply success();
  static Reply failure(std::string error);

  bool ok() const;
  // The "error" text of a failure reply, or empty.
  std::string error() const;
};

// The fixed line sent in place of a reply that cannot be serialised (49 bytes).
inline constexpr std::string_view kReplySerializationFailed =
    R"({"ok":false,"error":"reply serialization failed"})";

// Compact JSON with raw UTF-8. Throws nothing; a reply that cannot be serialised (invalid UTF-8
// in a text, a non-finite number) becomes kReplySerializationFailed.
std::string serializeReply(const Reply& reply);

}  // namespace tervain
