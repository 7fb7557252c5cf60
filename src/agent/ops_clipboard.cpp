// Clipboard operations: "clipboard_get", "clipboard_set". Text only, UTF-8 on the wire; the
// clipboard needs no grant.
#include "agent/ops_clipboard.h"

#include <string>
#include <utility>

#include "core/agent_wire.h"
#include "core/ax_text.h"
#include "core/request_members.h"

namespace tervain {

Reply opClipboardGet(OperationContext& context, const Json&) {
  ClipboardText content = context.desktop.readClipboard();
  switch (content.status) {
    case ClipboardText::Status::empty:
      content.text.clear();
      break;
    case ClipboardText::Status::text:
      break;
    case ClipboardText::Status::notText:
      return Reply::failure("the clipboard holds no text (it holds " + content.detail + ")");
    case ClipboardText::Status::failed:
      return Reply::failure("could not read the clipboard (" + content.detail + ")");
  }
  if (!isValidUtf8(content.text)) return Reply::failure("the clipboard's text is not valid UTF-8");
  // A host reads lines of up to 4 MiB; a longer text could not be set through the agent either.
  if (content.text.size() > AgentWire::maxPendingLineBytes) {
    return Reply::failure("the clipboard's text is " + std::to_string(content.text.size()) +
                          " bytes, more than the " +
                          std::to_string(AgentWire::maxPendingLineBytes) + " a reply carries");
  }
  Reply reply = Reply::success();
  reply.body["text"] = std::move(content.text);
  return reply;
}

Reply opClipboardSet(OperationContext& context, const Json& request) {
  const std::string* text = stringMember(request, "text");
  if (text == nullptr) return Reply::failure("clipboard_set requires a string \"text\"");
  if (auto error = context.desktop.writeClipboard(*text)) {
    return Reply::failure("could not set the clipboard (" + *error + ")");
  }
  return Reply::success();
}

}  // namespace tervain
