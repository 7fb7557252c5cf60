// The tool table and the tools that need more than forwarding their arguments to one agent
// operation. A tool for a new agent operation is one row: name, schema, description, the op it
// forwards to and the feature name that gates it; a row without a run function forwards its
// arguments verbatim, so schema property names are the agent's request member names.
#include "tervainctl/mcp/mcp_tools.h"

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <thread>

#include "client/render.h"
#include "core/base64.h"
#include "tervainctl/mcp/annotate.h"
#include "tervainctl/mcp/mcp_image.h"

namespace tervain::mcp {

ToolResult ToolResult::text(std::string text, bool isError) {
  ToolResult result;
  result.isError = isError;
  result.add(std::move(text));
  return result;
}

ToolResult& ToolResult::add(std::string text) {
  content.push_back({{"type", "text"}, {"text", std::move(text)}});
  return *this;
}

void CallControl::cancel() {
  std::lock_guard lock(mutex);
  stopped.store(true);
  if (stopper) stopper();
}

void CallControl::onCancel(std::function<void()> stop) {
  std::lock_guard lock(mutex);
  stopper = std::move(stop);
  if (stopped.load()) stopper();
}

void CallControl::clearOnCancel() {
  std::lock_guard lock(mutex);
  stopper = nullptr;
}

namespace {

// ---- Request connection tools ----------------------------------------------------------------

std::string unreachable(const AgentSession& agent, const std::exception& e) {
  return "No answer from the agent at " + client::formatAddress(agent.address()) + ": " +
         e.what() + ". The next tool call connects again.";
}

// Sends request on the shared connection; a refusal becomes an error result with the agent's
// text, success goes through format. A re-opened connection is reported after either.
template <typename Format>
ToolResult agentCall(ToolContext& context, const ToolSpec& definition, const Json& request,
                     Format format) {
  std::string notice;
  ToolResult result;
  try {
    const Json reply = context.agent.call(request, definition.readOnly, notice);
    const client::Result<Json> base = client::parseReply(reply);
    result = base.ok ? format(reply) : ToolResult::text(base.error, true);
  } catch (const client::ClientError& e) {
    result = ToolResult::text(unreachable(context.agent, e), true);
  }
  if (!notice.empty()) result.add(notice);
  return result;
}

// The reply's members other than "ok", or "done" when there are none.
ToolResult replyMembers(const Json& reply) {
  Json rest = reply;
  rest.erase("ok");
  return ToolResult::text(rest.empty() ? "done" : rest.dump(-1, ' ', false, Json::error_handler_t::replace));
}

ToolResult forward(ToolContext& context, const ToolSpec& definition, const Json& arguments) {
  Json request = arguments;
  request["op"] = definition.op;
  return agentCall(context, definition, request, replyMembers);
}

ToolResult doubleClick(ToolContext& context, const ToolSpec& definition, const Json& arguments) {
  Json request = arguments;
  request["op"] = definition.op;
  request["count"] = 2;
  return agentCall(context, definition, request, replyMembers);
}

ToolResult cursorPosition(ToolContext& context, const ToolSpec& definition, const Json&) {
  return agentCall(context, definition, {{"op", definition.op}}, [](const Json& reply) {
    return ToolResult::text("pointer at x=" + reply.value("x", Json()).dump() +
                            " y=" + reply.value("y", Json()).dump());
  });
}

ToolResult tree(ToolContext& context, const ToolSpec& definition, const Json& arguments) {
  Json request = arguments;
  request["op"] = definition.op;
  return agentCall(context, definition, request, [](const Json& reply) {
    return ToolResult::text(client::renderTree(client::parseAXDump(reply).value) +
                            "(refs such as e7 stay valid until the next tree call)");
  });
}

// find: one line a match, then how many elements the search looked at.
ToolResult find(ToolContext& context, const ToolSpec& definition, const Json& arguments) {
  Json request = arguments;
  request["op"] = definition.op;
  return agentCall(context, definition, request, [](const Json& reply) {
    std::string text;
    std::size_t count = 0;
    if (const auto matches = reply.find("matches"); matches != reply.end() && matches->is_array()) {
      for (const Json& node : *matches) {
        if (!node.is_object()) continue;
        text += client::renderNode(client::parseAXNode(node)) + "\n";
        ++count;
      }
    }
    if (count == 0) text = "no element matches\n";
    return ToolResult::text(text + "(" + std::to_string(count) + " shown, " +
                            reply.value("visited", Json(0)).dump() +
                            " elements searched; the refs stay valid until the next tree call)");
  });
}

// wait_for: the element the condition held for, and how long it took.
ToolResult waitFor(ToolContext& context, const ToolSpec& definition, const Json& arguments) {
  Json request = arguments;
  request["op"] = definition.op;
  return agentCall(context, definition, request, [](const Json& reply) {
    const auto node = reply.find("node");
    std::string text = node != reply.end() && node->is_object()
                           ? client::renderNode(client::parseAXNode(*node))
                           : std::string("the condition holds");
    return ToolResult::text(text + "\n(after " + reply.value("waitedMs", Json(0)).dump() + " ms)");
  });
}

ToolResult clipboardGet(ToolContext& context, const ToolSpec& definition, const Json&) {
  return agentCall(context, definition, {{"op", definition.op}}, [](const Json& reply) {
    const auto text = reply.find("text");
    return ToolResult::text(text != reply.end() && text->is_string() ? text->get<std::string>()
                                                                     : std::string());
  });
}

ToolResult elementAt(ToolContext& context, const ToolSpec& definition, const Json& arguments) {
  Json request = arguments;
  request["op"] = definition.op;
  return agentCall(context, definition, request, [](const Json& reply) {
    return ToolResult::text(client::renderNode(client::parseAXElementAt(reply).value));
  });
}

ToolResult elementAction(ToolContext& context, const ToolSpec& definition, const Json& arguments) {
  Json request = arguments;
  request["op"] = definition.op;
  return agentCall(context, definition, request, [](const Json& reply) {
    const auto note = reply.find("note");
    return ToolResult::text(note != reply.end() && note->is_string()
                                ? "done; note: " + note->get<std::string>()
                                : std::string("done"));
  });
}

ToolResult screenshot(ToolContext& context, const ToolSpec& definition, const Json& arguments) {
  Json request = {{"op", definition.op}};
  if (arguments.contains("display")) request["display"] = arguments["display"];
  const int maxWidth = arguments.value("maxWidth", 1280);
  const ImageFormat format =
      arguments.value("format", std::string("jpeg")) == "png" ? ImageFormat::png : ImageFormat::jpeg;
  const int quality = arguments.value("quality", 80);
  // Frames are global points; only the main display's origin is known to be (0, 0).
  const bool annotate = arguments.value("annotate", false) && request.value("display", 0) == 0;
  return agentCall(context, definition, request, [&](const Json& reply) {
    const client::Result<client::Screenshot> shot = client::parseScreenshot(reply);
    // The tree right after the capture, on the same connection, so the legend's refs work.
    std::optional<client::AXTree> tree;
    std::string treeNote;
    if (annotate) {
      std::string notice;
      const auto dump = client::parseAXDump(context.agent.call({{"op", "ax_dump"}}, true, notice));
      if (dump.ok) {
        tree = dump.value;
      } else {
        treeNote = "No elements marked: " + dump.error;
      }
    }
    std::vector<Mark> marks;
    const auto paint = [&](Pixels& pixels) {
      const double pixelsPerPoint = (shot.value.scale > 0 ? shot.value.scale : 1.0) *
                                    pixels.width / static_cast<double>(shot.value.width);
      marks = actionableMarks(tree->root, {0, 0, pixelsPerPoint}, pixels.width, pixels.height);
      drawMarks(pixels, marks);
    };
    std::string error;
    const auto image = tree ? fitImage(shot.value.jpeg, maxWidth, format, quality, error, paint)
                            : fitImage(shot.value.jpeg, maxWidth, format, quality, error);
    if (!image) return ToolResult::text(error, true);
    const double imageScale = static_cast<double>(image->width) / static_cast<double>(shot.value.width);
    const double pointsPerPixel =
        1.0 / (imageScale * (shot.value.scale > 0 ? shot.value.scale : 1.0));
    char text[400];
    std::snprintf(text, sizeof text,
                  "Display %d captured at %lldx%lld pixels (%.4g pixels per point), sent as "
                  "%dx%d (image scale %.4g). To click what the image shows at (X, Y), use "
                  "x = X * %.4g, y = Y * %.4g.",
                  request.value("display", 0), static_cast<long long>(shot.value.width),
                  static_cast<long long>(shot.value.height), shot.value.scale, image->width,
                  image->height, imageScale, pointsPerPixel, pointsPerPixel);
    ToolResult result;
    result.content.push_back({{"type", "image"},
                              {"data", base64::encode(image->bytes)},
                              {"mimeType", image->mimeType}});
    result.add(text);
    if (tree) {
      result.add("Marked elements (number, ref, role, title, where to click in points); the refs "
                 "work with element_action, set_value and focus:\n" + markLegend(marks));
    } else if (!treeNote.empty()) {
      result.add(treeNote);
    }
    return result;
  });
}

// ---- Exec tools: a connection of their own each ----------------------------------------------

struct ExecRun {
  client::ExecOutcome outcome;
  std::string out;
  std::string err;
  std::uint64_t outBytes = 0;  // all the command wrote, kept or not
  std::uint64_t errBytes = 0;
  bool timedOut = false;
  std::string broken;  // why the stream ended without an outcome
};

// Runs command with input on its standard input, keeping at most cap bytes of each output.
// Throws ConnectionError when no connection can be made.
ExecRun runExec(ToolContext& context, const std::string& command, std::string_view input,
                std::chrono::seconds timeout, std::size_t cap) {
  client::ExecStream stream = client::ExecStream::start(context.agent.address(), command);
  ExecRun run;
  std::mutex mutex;
  std::condition_variable finished;
  bool done = false;
  context.control.onCancel([&stream] { stream.abort(); });
  std::thread feeder([&] {
    if (stream.writeStdin(input)) stream.closeStdin();
  });
  std::thread timer([&] {
    std::unique_lock lock(mutex);
    if (!finished.wait_for(lock, timeout, [&] { return done; })) {
      run.timedOut = true;
      stream.abort();  // the agent kills the command's process group when its host goes
    }
  });
  auto keep = [cap](std::string& kept, std::uint64_t& total, std::string_view bytes) {
    total += bytes.size();
    if (kept.size() < cap) kept.append(bytes.substr(0, cap - kept.size()));
  };
  try {
    run.outcome = stream.wait({
        .stdoutData = [&](std::string_view b) { keep(run.out, run.outBytes, b); },
        .stderrData = [&](std::string_view b) { keep(run.err, run.errBytes, b); },
    });
  } catch (const client::ClientError& e) {
    run.broken = e.what();
  }
  {
    std::lock_guard lock(mutex);
    done = true;
  }
  finished.notify_all();
  timer.join();
  stream.abort();  // frees a feeder stuck on a command that stopped reading
  feeder.join();
  context.control.clearOnCancel();
  return run;
}

std::string outputSection(const char* name, const std::string& kept, std::uint64_t total) {
  if (total == 0) return {};
  std::string head = std::string("--- ") + name;
  if (kept.size() < total) {
    head += " (first " + std::to_string(kept.size()) + " of " + std::to_string(total) + " bytes)";
  }
  return head + " ---\n" + kept + (kept.ends_with('\n') ? "" : "\n");
}

ToolResult runCommand(ToolContext& context, const ToolSpec&, const Json& arguments) {
  const auto timeout = std::chrono::seconds(arguments.value("timeoutSeconds", 60));
  const auto cap = arguments.value("maxOutputBytes", std::size_t{100000});
  ExecRun run;
  try {
    run = runExec(context, arguments["command"].get<std::string>(), {}, timeout, cap);
  } catch (const client::ClientError& e) {
    return ToolResult::text(unreachable(context.agent, e), true);
  }
  std::string text;
  bool failed = true;
  if (run.timedOut) {
    text = "timed out after " + std::to_string(timeout.count()) +
           " s: the command was stopped (its process group killed)\n";
  } else if (!run.broken.empty()) {
    text = "the command's stream broke: " + run.broken + "\n";
  } else if (!run.outcome.code) {
    text = "the agent could not run the command: " + run.outcome.error + "\n";
  } else {
    failed = false;
    const int code = *run.outcome.code;
    text = "exit status " + std::to_string(code) +
           (code > 128 && code < 160 ? " (killed by signal " + std::to_string(code - 128) + ")" : "") +
           "\n";
  }
  text += outputSection("stdout", run.out, run.outBytes);
  text += outputSection("stderr", run.err, run.errBytes);
  if (run.outBytes == 0 && run.errBytes == 0) text += "(no output)\n";
  return ToolResult::text(std::move(text), failed);
}

bool validUtf8Text(std::string_view bytes) {
  std::size_t i = 0;
  while (i < bytes.size()) {
    const auto c = static_cast<unsigned char>(bytes[i]);
    if (c == 0) return false;
    const std::size_t length = c < 0x80 ? 1 : (c >> 5) == 6 ? 2 : (c >> 4) == 14 ? 3 : (c >> 3) == 30 ? 4 : 0;
    if (length == 0 || i + length > bytes.size()) return false;
    for (std::size_t k = 1; k < length; ++k) {
      if ((static_cast<unsigned char>(bytes[i + k]) >> 6) != 2) return false;
    }
    i += length;
  }
  return true;
}

// The first line of a guest command's output, as the byte count `wc -c` prints.
std::optional<std::uint64_t> leadingCount(std::string& out) {
  const std::size_t newline = out.find('\n');
  if (newline == std::string::npos) return std::nullopt;
  std::uint64_t value = 0;
  bool digits = false;
  for (std::size_t i = 0; i < newline; ++i) {
    const char c = out[i];
    if (c >= '0' && c <= '9') {
      value = value * 10 + static_cast<std::uint64_t>(c - '0');
      digits = true;
    } else if (c != ' ' && c != '\t' && c != '\r') {
      return std::nullopt;
    }
  }
  if (!digits) return std::nullopt;
  out.erase(0, newline + 1);
  return value;
}

std::string guestFailure(const ExecRun& run) {
  if (run.timedOut) return "the guest command timed out";
  if (!run.broken.empty()) return run.broken;
  if (!run.outcome.code) return "the agent could not run the command: " + run.outcome.error;
  std::string err = run.err;
  while (!err.empty() && (err.back() == '\n' || err.back() == '\r')) err.pop_back();
  return "guest exit status " + std::to_string(*run.outcome.code) + (err.empty() ? "" : ": " + err);
}

constexpr auto kFileTimeout = std::chrono::seconds(120);

ToolResult readFile(ToolContext& context, const ToolSpec&, const Json& arguments) {
  const std::string path = arguments["path"].get<std::string>();
  const auto limit = arguments.value("maxBytes", std::uint64_t{1} << 20);
  const std::string command = "p=" + client::guestPathWord(path) + "; wc -c < \"$p\" && head -c " +
                              std::to_string(limit) + " < \"$p\"";
  ExecRun run;
  try {
    run = runExec(context, command, {}, kFileTimeout, limit + 64);
  } catch (const client::ClientError& e) {
    return ToolResult::text(unreachable(context.agent, e), true);
  }
  if (run.timedOut || !run.broken.empty() || run.outcome.code != 0) {
    return ToolResult::text("cannot read " + path + ": " + guestFailure(run), true);
  }
  const auto size = leadingCount(run.out);
  if (!size) return ToolResult::text("cannot read " + path + ": the guest gave no byte count", true);
  const bool cut = run.out.size() < *size;
  std::string note = path + ": " + std::to_string(*size) + " bytes";
  if (cut) note += ", the first " + std::to_string(run.out.size()) + " shown (raise maxBytes for more)";
  ToolResult result;
  if (validUtf8Text(run.out)) {
    result.add(run.out);
  } else if (!cut && (run.out.starts_with("\x89PNG\r\n\x1a\n") || run.out.starts_with("\xff\xd8\xff"))) {
    result.content.push_back({{"type", "image"},
                              {"data", base64::encode(run.out)},
                              {"mimeType", run.out[0] == '\x89' ? "image/png" : "image/jpeg"}});
  } else {
    note += "; not UTF-8 text, so given as base64";
    result.add(base64::encode(run.out));
  }
  result.add(note);
  return result;
}

ToolResult writeFile(ToolContext& context, const ToolSpec&, const Json& arguments) {
  const std::string path = arguments["path"].get<std::string>();
  std::string bytes = arguments["content"].get<std::string>();
  if (arguments.value("encoding", std::string("utf8")) == "base64") {
    std::string decoded;
    if (!base64::decodeInto(bytes, decoded)) {
      return ToolResult::text("content is not valid base64", true);
    }
    bytes = std::move(decoded);
  }
  const bool append = arguments.value("append", false);
  const std::string command = "p=" + client::guestPathWord(path) + "; cat " +
                              (append ? ">>" : ">") + " \"$p\" && wc -c < \"$p\"";
  ExecRun run;
  try {
    run = runExec(context, command, bytes, kFileTimeout, 4096);
  } catch (const client::ClientError& e) {
    return ToolResult::text(unreachable(context.agent, e), true);
  }
  if (run.timedOut || !run.broken.empty() || run.outcome.code != 0) {
    return ToolResult::text("cannot write " + path + ": " + guestFailure(run), true);
  }
  const auto size = leadingCount(run.out);
  if (!size || (!append && *size != bytes.size()) || (append && *size < bytes.size())) {
    return ToolResult::text("writing " + path + " went wrong: sent " + std::to_string(bytes.size()) +
                                " bytes, the guest file holds " +
                                (size ? std::to_string(*size) : std::string("an unknown number of")) +
                                " bytes",
                            true);
  }
  return ToolResult::text("wrote " + std::to_string(bytes.size()) + " bytes to " + path +
                          (append ? " (appended; the file now holds " + std::to_string(*size) + ")" : ""));
}

// ---- The table -------------------------------------------------------------------------------

#define TERVAIN_POINT_PROPERTIES                                                          \
  R"J("x": {"type": "integer", "description": "Horizontal screen position in points"},)J" \
  R"J("y": {"type": "integer", "description": "Vertical screen position in points"})J"

#define TERVAIN_MODIFIERS_PROPERTY                                       \
  R"J("modifiers": {"type": "array", "items": {"type": "string",)J"      \
  R"J( "enum": ["cmd", "ctrl", "alt", "shift", "fn"]}, "description":)J" \
  R"J( "Modifier keys held meanwhile, e.g. [\"shift\"] to extend a selection"})J"

constexpr ToolSpec kTools[] = {
    {"screenshot", "Screenshot",
     "Capture a display of the guest as an image you can look at. The image is scaled down to "
     "maxWidth pixels; the text that comes with it says how to turn a position in the image into "
     "the screen points that click, move and the other pointer tools take.",
     R"J({"type": "object", "properties": {
       "display": {"type": "integer", "minimum": 0, "description": "Display index; 0 (the main display) by default"},
       "maxWidth": {"type": "integer", "minimum": 16, "maximum": 8192, "description": "Largest width of the image in pixels (default 1280); it is never enlarged"},
       "format": {"type": "string", "enum": ["jpeg", "png"], "description": "Image format (default jpeg; png is sharper and larger)"},
       "quality": {"type": "integer", "minimum": 1, "maximum": 100, "description": "JPEG quality when the image is re-encoded (default 80)"},
       "annotate": {"type": "boolean", "description": "Outline the frontmost application's actionable elements with numbered labels and list them (number, ref, role, title, click point), so you can say which element you mean; reads a fresh tree, so earlier refs go stale (default false)"}},
       "additionalProperties": false})J",
     "screenshot", nullptr, true, false, false, false, screenshot},
    {"click", "Click",
     "Click a mouse button at a screen point (in points, as given by screenshot's conversion or "
     "an element's frame from tree).",
     R"J({"type": "object", "properties": {)J" TERVAIN_POINT_PROPERTIES R"J(,
       "button": {"type": "string", "enum": ["left", "right", "middle"], "description": "Default left"},
       "count": {"type": "integer", "minimum": 1, "maximum": 3, "description": "Clicks in a row: 2 is a double click, 3 a triple click (default 1)"},
       )J" TERVAIN_MODIFIERS_PROPERTY R"J(},
       "required": ["x", "y"], "additionalProperties": false})J",
     "click", nullptr, false, true, false, false, nullptr},
    {"double_click", "Double-click", "Double-click a mouse button at a screen point (in points).",
     R"J({"type": "object", "properties": {)J" TERVAIN_POINT_PROPERTIES R"J(,
       "button": {"type": "string", "enum": ["left", "right", "middle"], "description": "Default left"}},
       "required": ["x", "y"], "additionalProperties": false})J",
     "click", nullptr, false, true, false, false, doubleClick},
    {"move", "Move pointer",
     "Move the mouse pointer to a screen point (in points) without clicking.",
     R"J({"type": "object", "properties": {)J" TERVAIN_POINT_PROPERTIES R"J(},
       "required": ["x", "y"], "additionalProperties": false})J",
     "move", nullptr, false, false, true, false, nullptr},
    {"drag", "Drag",
     "Press the left button, move to (toX, toY) and release: from (fromX, fromY) when given, "
     "otherwise from where the pointer is. Points, as for click.",
     R"J({"type": "object", "properties": {
       "toX": {"type": "integer"}, "toY": {"type": "integer"},
       "fromX": {"type": "integer"}, "fromY": {"type": "integer"},
       )J" TERVAIN_MODIFIERS_PROPERTY R"J(},
       "required": ["toX", "toY"], "additionalProperties": false})J",
     "drag", nullptr, false, true, false, false, nullptr},
    {"mouse_down", "Mouse button down",
     "Press a mouse button at a screen point (in points) and keep it held: move then drags it, "
     "until mouse_up releases it. Whatever is still held when this session ends is released.",
     R"J({"type": "object", "properties": {)J" TERVAIN_POINT_PROPERTIES R"J(,
       "button": {"type": "string", "enum": ["left", "right", "middle"], "description": "Default left"},
       )J" TERVAIN_MODIFIERS_PROPERTY R"J(},
       "required": ["x", "y"], "additionalProperties": false})J",
     "mouse_down", "mouse_down", false, true, false, false, nullptr},
    {"mouse_up", "Mouse button up", "Release a mouse button at a screen point (in points).",
     R"J({"type": "object", "properties": {)J" TERVAIN_POINT_PROPERTIES R"J(,
       "button": {"type": "string", "enum": ["left", "right", "middle"], "description": "Default left"},
       )J" TERVAIN_MODIFIERS_PROPERTY R"J(},
       "required": ["x", "y"], "additionalProperties": false})J",
     "mouse_up", "mouse_up", false, true, false, false, nullptr},
    {"scroll", "Scroll",
     "Scroll at the pointer's position by lines: dy vertically, dx horizontally (each -40 to 40; "
     "move the pointer over the content first).",
     R"J({"type": "object", "properties": {
       "dx": {"type": "integer", "minimum": -40, "maximum": 40},
       "dy": {"type": "integer", "minimum": -40, "maximum": 40},
       )J" TERVAIN_MODIFIERS_PROPERTY R"J(},
       "additionalProperties": false})J",
     "scroll", nullptr, false, false, false, false, nullptr},
    {"type_text", "Type text",
     "Type text into the focused element as keystrokes; any characters, whatever the keyboard "
     "layout. Click or focus the target first.",
     R"J({"type": "object", "properties": {"text": {"type": "string", "minLength": 1}},
       "required": ["text"], "additionalProperties": false})J",
     "type", nullptr, false, true, false, false, nullptr},
    {"press_key", "Press key",
     "Press a key chord: modifiers and one key joined by +, such as return, escape, tab, "
     "shift+tab, cmd+s, ctrl+c, cmd+shift+z, f5, left, pagedown.",
     R"J({"type": "object", "properties": {"chord": {"type": "string", "minLength": 1}},
       "required": ["chord"], "additionalProperties": false})J",
     "key", nullptr, false, true, false, false, nullptr},
    {"key_down", "Key down",
     "Press a key chord (as for press_key) and keep it held until key_up with the same key. "
     "Whatever is still held when this session ends is released.",
     R"J({"type": "object", "properties": {"key": {"type": "string", "minLength": 1}},
       "required": ["key"], "additionalProperties": false})J",
     "key_down", "key_down", false, true, false, false, nullptr},
    {"key_up", "Key up", "Release a key chord pressed with key_down.",
     R"J({"type": "object", "properties": {"key": {"type": "string", "minLength": 1}},
       "required": ["key"], "additionalProperties": false})J",
     "key_up", "key_up", false, true, false, false, nullptr},
    {"cursor_position", "Pointer position", "Where the mouse pointer is, in screen points.",
     R"J({"type": "object", "properties": {}, "additionalProperties": false})J", "cursor_position",
     nullptr, true, false, true, false, cursorPosition},
    {"tree", "Accessibility tree",
     "The accessibility tree of the frontmost application (or of the process pid), one element "
     "a line, indented by depth: ref, role, title, value=..., [x,y wxh] frame in points, state. "
     "Use the refs (e7) with element_action, set_value and focus; each tree call makes earlier "
     "refs stale.",
     R"J({"type": "object", "properties": {
       "pid": {"type": "integer", "description": "Process id of the application; the frontmost one by default"},
       "maxDepth": {"type": "integer", "minimum": 1, "maximum": 25, "description": "Depth limit (default 12)"}},
       "additionalProperties": false})J",
     "ax_dump", nullptr, true, false, false, false, tree},
    {"element_at", "Element at point",
     "The accessibility element at a screen point, as one line with a ref usable by "
     "element_action, set_value and focus.",
     R"J({"type": "object", "properties": {)J" TERVAIN_POINT_PROPERTIES R"J(},
       "required": ["x", "y"], "additionalProperties": false})J",
     "ax_element_at", nullptr, true, false, false, false, elementAt},
    {"element_action", "Element action",
     "Perform an accessibility action on an element by ref: AXPress (the default) presses "
     "buttons, menu items and checkboxes; others such as AXShowMenu, AXIncrement, AXConfirm as "
     "the element offers.",
     R"J({"type": "object", "properties": {
       "ref": {"type": "string", "minLength": 1, "description": "Element ref from tree or element_at, e.g. e7"},
       "action": {"type": "string", "minLength": 1, "description": "Action name; AXPress by default"}},
       "required": ["ref"], "additionalProperties": false})J",
     "ax_action", nullptr, false, true, false, false, elementAction},
    {"set_value", "Set element value",
     "Replace the value of an element by ref, such as the text of a text field.",
     R"J({"type": "object", "properties": {
       "ref": {"type": "string", "minLength": 1}, "value": {"type": "string"}},
       "required": ["ref", "value"], "additionalProperties": false})J",
     "ax_set_value", nullptr, false, true, true, false, nullptr},
    {"focus", "Focus element", "Give keyboard focus to an element by ref.",
     R"J({"type": "object", "properties": {"ref": {"type": "string", "minLength": 1}},
       "required": ["ref"], "additionalProperties": false})J",
     "ax_focus", nullptr, false, false, true, false, nullptr},
    {"find", "Find elements",
     "Find elements of the frontmost application (or of pid) by role, title, value or "
     "identifier, without reading the whole tree: one line each, with a ref for element_action, "
     "set_value and focus. Text criteria match case-insensitively as substrings unless match is "
     "\"exact\". Earlier refs stay valid.",
     R"J({"type": "object", "properties": {
       "role": {"type": "string", "minLength": 1, "description": "AX role, e.g. AXButton, AXCheckBox, AXTextField"},
       "subrole": {"type": "string", "minLength": 1},
       "title": {"type": "string", "minLength": 1, "description": "Text of the element's title or label"},
       "value": {"type": "string", "minLength": 1},
       "identifier": {"type": "string", "minLength": 1},
       "match": {"type": "string", "enum": ["contains", "exact"], "description": "Default contains"},
       "pid": {"type": "integer", "description": "Process id of the application; the frontmost one by default"},
       "limit": {"type": "integer", "minimum": 1, "maximum": 200, "description": "Most matches returned (default 20)"},
       "maxDepth": {"type": "integer", "minimum": 1, "maximum": 25}},
       "additionalProperties": false})J",
     "find", "find", true, false, false, false, find},
    {"wait_for", "Wait for element",
     "Wait until an element found as by find exists, is gone, is enabled, is focused, or has "
     "the value equals; answers as soon as it holds, or says it timed out.",
     R"J({"type": "object", "properties": {
       "role": {"type": "string", "minLength": 1}, "subrole": {"type": "string", "minLength": 1},
       "title": {"type": "string", "minLength": 1}, "value": {"type": "string", "minLength": 1},
       "identifier": {"type": "string", "minLength": 1},
       "match": {"type": "string", "enum": ["contains", "exact"]},
       "pid": {"type": "integer"},
       "state": {"type": "string", "enum": ["exists", "gone", "enabled", "focused", "value"], "description": "What to wait for: the element to exist or be gone, enabled, focused, or to have the value equals"},
       "equals": {"type": "string", "description": "The value to wait for, with state value"},
       "timeout": {"type": "number", "minimum": 0.1, "maximum": 25, "description": "Seconds (default 10)"}},
       "required": ["state"], "additionalProperties": false})J",
     "wait_for", "wait_for", true, false, false, false, waitFor},
    {"windows", "List windows",
     "The windows of every regular application (or of pid): ref, title, frame in points, pid, "
     "application, and whether it is main, focused or minimized. Use the refs with "
     "window_action.",
     R"J({"type": "object", "properties": {"pid": {"type": "integer"}},
       "additionalProperties": false})J",
     "windows", "windows", true, false, false, false, nullptr},
    {"window_action", "Window action",
     "Raise, minimize, unminimize or close a window by ref (from windows), or move it to x,y or "
     "resize it to w,h (points).",
     R"J({"type": "object", "properties": {
       "ref": {"type": "string", "minLength": 1},
       "action": {"type": "string", "enum": ["raise", "minimize", "unminimize", "close", "move", "resize"]},
       "x": {"type": "integer"}, "y": {"type": "integer"},
       "w": {"type": "integer", "minimum": 1}, "h": {"type": "integer", "minimum": 1}},
       "required": ["ref", "action"], "additionalProperties": false})J",
     "window_action", "window_action", false, true, false, false, nullptr},
    {"clipboard_get", "Read clipboard", "The text on the guest's clipboard (empty when there is none).",
     R"J({"type": "object", "properties": {}, "additionalProperties": false})J",
     "clipboard_get", "clipboard_get", true, false, true, false, clipboardGet},
    {"clipboard_set", "Write clipboard", "Put text on the guest's clipboard, replacing what is there.",
     R"J({"type": "object", "properties": {"text": {"type": "string"}},
       "required": ["text"], "additionalProperties": false})J",
     "clipboard_set", "clipboard_set", false, true, true, false, nullptr},
    {"launch_app", "Launch application",
     "Launch an application by name (such as TextEdit or Terminal), or bring it to the front when "
     "it runs already.",
     R"J({"type": "object", "properties": {"name": {"type": "string", "minLength": 1}},
       "required": ["name"], "additionalProperties": false})J",
     "launch_app", nullptr, false, false, true, false, nullptr},
    {"run_command", "Run command",
     "Run a shell command in the guest to its end and return its exit status, standard output "
     "and standard error. No input, no terminal: for interactive programs use the screen tools.",
     R"J({"type": "object", "properties": {
       "command": {"type": "string", "minLength": 1, "description": "Shell command line, e.g. ls -la ~/Desktop"},
       "timeoutSeconds": {"type": "integer", "minimum": 1, "maximum": 3600, "description": "Stop the command after this long (default 60)"},
       "maxOutputBytes": {"type": "integer", "minimum": 1, "maximum": 16777216, "description": "Bytes kept of each output stream (default 100000)"}},
       "required": ["command"], "additionalProperties": false})J",
     nullptr, nullptr, false, true, false, true, runCommand},
    {"read_file", "Read file",
     "Read a file in the guest: text as text, PNG and JPEG as an image, anything else as base64. "
     "A path starting with ~/ is in the guest user's home.",
     R"J({"type": "object", "properties": {
       "path": {"type": "string", "minLength": 1},
       "maxBytes": {"type": "integer", "minimum": 1, "maximum": 16777216, "description": "Bytes read at most (default 1048576)"}},
       "required": ["path"], "additionalProperties": false})J",
     nullptr, nullptr, true, false, true, false, readFile},
    {"write_file", "Write file",
     "Write a file in the guest, replacing it (or appending with append). A path starting with "
     "~/ is in the guest user's home; the directory must exist.",
     R"J({"type": "object", "properties": {
       "path": {"type": "string", "minLength": 1},
       "content": {"type": "string"},
       "encoding": {"type": "string", "enum": ["utf8", "base64"], "description": "How content is written (default utf8)"},
       "append": {"type": "boolean", "description": "Append instead of replacing (default false)"}},
       "required": ["path", "content"], "additionalProperties": false})J",
     nullptr, nullptr, false, true, false, false, writeFile},
};

#undef TERVAIN_POINT_PROPERTIES

bool hasType(const Json& value, const std::string& type) {
  if (type == "object") return value.is_object();
  if (type == "string") return value.is_string();
  if (type == "boolean") return value.is_boolean();
  if (type == "array") return value.is_array();
  if (type == "number") return value.is_number();
  if (type == "integer") {
    return value.is_number_integer() ||
           (value.is_number_float() && std::isfinite(value.get<double>()) &&
            value.get<double>() == std::trunc(value.get<double>()) &&
            std::fabs(value.get<double>()) < 9.0e15);
  }
  return true;
}

}  // namespace

std::span<const ToolSpec> toolTable() { return kTools; }

Json describeTool(const ToolSpec& definition) {
  return {{"name", definition.name},
          {"title", definition.title},
          {"description", definition.description},
          {"inputSchema", Json::parse(definition.inputSchema)},
          {"annotations",
           {{"title", definition.title},
            {"readOnlyHint", definition.readOnly},
            {"destructiveHint", definition.destructive},
            {"idempotentHint", definition.idempotent},
            {"openWorldHint", definition.openWorld}}}};
}

std::string checkArguments(const Json& schema, Json& arguments) {
  if (!arguments.is_object()) return "the arguments must be an object";
  const Json& properties = schema.contains("properties") ? schema["properties"] : Json::object();
  for (const auto& name : schema.value("required", Json::array())) {
    if (!arguments.contains(name.get<std::string>())) {
      return "the argument '" + name.get<std::string>() + "' is required";
    }
  }
  for (auto& [name, value] : arguments.items()) {
    const auto rule = properties.find(name);
    if (rule == properties.end()) {
      if (schema.value("additionalProperties", true)) continue;
      return "there is no argument '" + name + "'";
    }
    const std::string type = rule->value("type", std::string());
    if (!type.empty() && !hasType(value, type)) {
      return "the argument '" + name + "' must be " + (type == "integer" ? "an " : "a ") + type;
    }
    if (type == "integer" && value.is_number_float()) {
      value = static_cast<std::int64_t>(value.get<double>());
    }
    if (const auto choices = rule->find("enum"); choices != rule->end() &&
        std::find(choices->begin(), choices->end(), value) == choices->end()) {
      return "the argument '" + name + "' must be one of " + choices->dump();
    }
    if (value.is_number()) {
      const double number = value.get<double>();
      if (rule->contains("minimum") && number < (*rule)["minimum"].get<double>()) {
        return "the argument '" + name + "' must be at least " + (*rule)["minimum"].dump();
      }
      if (rule->contains("maximum") && number > (*rule)["maximum"].get<double>()) {
        return "the argument '" + name + "' must be at most " + (*rule)["maximum"].dump();
      }
    }
    if (value.is_string() && rule->contains("minLength") &&
        value.get_ref<const std::string&>().size() < (*rule)["minLength"].get<std::size_t>()) {
      return "the argument '" + name + "' must not be empty";
    }
  }
  return {};
}

ToolResult runTool(ToolContext& context, const ToolSpec& definition, const Json& arguments) {
  return definition.run != nullptr ? definition.run(context, definition, arguments) : forward(context, definition, arguments);
}

}  // namespace tervain::mcp
