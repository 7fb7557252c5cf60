// Ordinary request/reply connections and the parsers of their typed replies.
#include <unistd.h>

#include <cstring>
#include <utility>

#include "core/socket_io.h"
#include "client/tervain_client.h"
#include "core/agent_wire.h"
#include "core/base64.h"

namespace tervain::client {
namespace {

std::string excerpt(std::string_view text) {
  constexpr std::size_t kShown = 200;
  return text.size() <= kShown ? std::string(text) : std::string(text.substr(0, kShown)) + "...";
}

std::int64_t integerOr(const Json& object, const char* key, std::int64_t fallback) {
  const auto it = object.find(key);
  if (it == object.end() || !it->is_number_integer()) return fallback;
  if (it->is_number_unsigned()) {
    const auto value = it->get<std::uint64_t>();
    return value > static_cast<std::uint64_t>(INT64_MAX) ? fallback
                                                          : static_cast<std::int64_t>(value);
  }
  return it->get<std::int64_t>();
}

bool boolOr(const Json& object, const char* key, bool fallback) {
  const auto it = object.find(key);
  return it != object.end() && it->is_boolean() ? it->get<bool>() : fallback;
}

std::optional<std::string> stringOf(const Json& object, const char* key) {
  const auto it = object.find(key);
  if (it == object.end() || !it->is_string()) return std::nullopt;
  return it->get<std::string>();
}

template <typename T>
Result<T> carry(const Result<Json>& base) {
  Result<T> result;
  result.ok = base.ok;
  result.error = base.error;
  result.reply = base.reply;
  return result;
}

std::string decodeMember(const Json& reply, const char* key) {
  const auto text = stringOf(reply, key);
  if (!text) return {};
  std::string bytes;
  if (!base64::decodeInto(*text, bytes)) {
    throw ProtocolError(std::string("the agent's \"") + key + "\" is not valid base64");
  }
  return bytes;
}

// The request with its "modifiers", sent only when there are some.
Json withModifiers(Json request, const ModifierNames& modifiers) {
  if (!modifiers.empty()) request["modifiers"] = modifiers;
  return request;
}

const char* buttonName(MouseButton button) {
  switch (button) {
    case MouseButton::right:
      return "right";
    case MouseButton::middle:
      return "middle";
    case MouseButton::left:
      break;
  }
  return "left";
}

}  // namespace

// ---- Reply parsers -------------------------------------------------------------------------

Result<Json> parseReply(const Json& reply) {
  const auto ok = reply.is_object() ? reply.find("ok") : reply.end();
  if (!reply.is_object() || ok == reply.end() || !ok->is_boolean()) {
    throw ProtocolError("the agent's reply has no \"ok\": " + excerpt(reply.dump()));
  }
  Result<Json> result;
  result.ok = ok->get<bool>();
  result.reply = reply;
  if (!result.ok) result.error = stringOf(reply, "error").value_or("(the agent gave no error text)");
  return result;
}

Result<PingInfo> parsePing(const Json& reply) {
  auto result = carry<PingInfo>(parseReply(reply));
  if (!result.ok) return result;
  result.value.version = integerOr(reply, "version", 0);
  if (const auto v = reply.find("agentVersion"); v != reply.end() && v->is_string()) {
    result.value.agentVersion = v->get<std::string>();
  }
  if (const auto d = reply.find("desktop"); d != reply.end() && d->is_string()) {
    result.value.desktop = d->get<std::string>();
  }
  if (const auto f = reply.find("features"); f != reply.end() && f->is_array()) {
    for (const Json& name : *f) {
      if (name.is_string()) result.value.features.push_back(name.get<std::string>());
    }
  }
  if (const auto displays = reply.find("displays");
      displays != reply.end() && displays->is_array()) {
    for (const Json& d : *displays) {
      if (!d.is_object()) continue;
      result.value.displays.push_back({
          .id = static_cast<std::uint32_t>(integerOr(d, "id", 0)),
          .width = integerOr(d, "width", 0),
          .height = integerOr(d, "height", 0),
          .main = boolOr(d, "main", false),
      });
    }
  }
  if (const auto r = reply.find("readiness"); r != reply.end() && r->is_object()) {
    result.value.readiness = {
        .accessibility = boolOr(*r, "accessibility", false),
        .screenRecording = boolOr(*r, "screenRecording", false),
        .postEvent = boolOr(*r, "postEvent", false),
    };
  }
  return result;
}

AXNode parseAXNode(const Json& node) {
  AXNode out;
  if (!node.is_object()) return out;
  out.ref = stringOf(node, "ref").value_or("");
  out.role = stringOf(node, "role");
  out.subrole = stringOf(node, "subrole");
  out.title = stringOf(node, "title");
  out.value = stringOf(node, "value");
  out.disabled = !boolOr(node, "enabled", true);
  out.focused = boolOr(node, "focused", false);
  if (const auto f = node.find("frame"); f != node.end() && f->is_object()) {
    out.frame = Rect{integerOr(*f, "x", 0), integerOr(*f, "y", 0), integerOr(*f, "w", 0),
                     integerOr(*f, "h", 0)};
  }
  if (const auto a = node.find("actions"); a != node.end() && a->is_array()) {
    for (const Json& name : *a) {
      if (name.is_string()) out.actions.push_back(name.get<std::string>());
    }
  }
  if (const auto c = node.find("children"); c != node.end() && c->is_array()) {
    out.children.reserve(c->size());
    for (const Json& child : *c) out.children.push_back(parseAXNode(child));
  }
  out.childrenOmitted = integerOr(node, "childrenOmitted", 0);
  return out;
}

Result<AXTree> parseAXDump(const Json& reply) {
  auto result = carry<AXTree>(parseReply(reply));
  if (!result.ok) return result;
  if (const auto tree = reply.find("tree"); tree != reply.end()) {
    result.value.root = parseAXNode(*tree);
  }
  result.value.app = stringOf(reply, "app").value_or("");
  result.value.truncated = boolOr(reply, "truncated", false);
  return result;
}

Result<AXMatches> parseFind(const Json& reply) {
  auto result = carry<AXMatches>(parseReply(reply));
  if (!result.ok) return result;
  if (const auto m = reply.find("matches"); m != reply.end() && m->is_array()) {
    for (const Json& node : *m) result.value.matches.push_back(parseAXNode(node));
  }
  result.value.visited = integerOr(reply, "visited", 0);
  return result;
}

Result<AXWaited> parseWaitFor(const Json& reply) {
  auto result = carry<AXWaited>(parseReply(reply));
  if (!result.ok) return result;
  if (const auto node = reply.find("node"); node != reply.end()) {
    result.value.node = parseAXNode(*node);
  }
  result.value.waitedMs = integerOr(reply, "waitedMs", 0);
  return result;
}

Result<AXNode> parseAXElementAt(const Json& reply) {
  auto result = carry<AXNode>(parseReply(reply));
  if (!result.ok) return result;
  if (const auto node = reply.find("node"); node != reply.end()) {
    result.value = parseAXNode(*node);
  }
  return result;
}

Result<std::vector<WindowInfo>> parseWindows(const Json& reply) {
  auto result = carry<std::vector<WindowInfo>>(parseReply(reply));
  if (!result.ok) return result;
  const auto list = reply.find("windows");
  if (list == reply.end() || !list->is_array()) return result;
  for (const Json& w : *list) {
    if (!w.is_object()) continue;
    WindowInfo info;
    info.ref = stringOf(w, "ref").value_or("");
    info.title = stringOf(w, "title").value_or("");
    if (const auto f = w.find("frame"); f != w.end() && f->is_object()) {
      info.frame = Rect{integerOr(*f, "x", 0), integerOr(*f, "y", 0), integerOr(*f, "w", 0),
                        integerOr(*f, "h", 0)};
    }
    info.pid = integerOr(w, "pid", 0);
    info.app = stringOf(w, "app").value_or("");
    info.main = boolOr(w, "main", false);
    info.focused = boolOr(w, "focused", false);
    info.minimized = boolOr(w, "minimized", false);
    result.value.push_back(std::move(info));
  }
  return result;
}

Result<Screenshot> parseScreenshot(const Json& reply) {
  auto result = carry<Screenshot>(parseReply(reply));
  if (!result.ok) return result;
  result.value.jpeg = decodeMember(reply, "image");
  result.value.width = integerOr(reply, "width", 0);
  result.value.height = integerOr(reply, "height", 0);
  if (const auto s = reply.find("scale"); s != reply.end() && s->is_number()) {
    result.value.scale = s->get<double>();
  }
  if (const auto f = reply.find("format"); f != reply.end() && f->is_string()) {
    result.value.format = f->get<std::string>();
  }
  if (const auto r = reply.find("region"); r != reply.end() && r->is_object()) {
    const auto number = [&r](const char* key) {
      const auto v = r->find(key);
      return v != r->end() && v->is_number() ? v->get<double>() : 0.0;
    };
    result.value.region = PointRect{number("x"), number("y"), number("w"), number("h")};
  }
  return result;
}

Result<ShellEvents> parseShellEvents(const Json& reply) {
  auto result = carry<ShellEvents>(parseReply(reply));
  if (!result.ok) return result;
  namespace keys = AgentWire::ShellEvents;
  result.value.events = decodeMember(reply, std::string(keys::eventsKey).c_str());
  result.value.files = integerOr(reply, std::string(keys::filesKey).c_str(), 0);
  result.value.bytes = integerOr(reply, std::string(keys::bytesKey).c_str(),
                                 static_cast<std::int64_t>(result.value.events.size()));
  result.value.truncated = boolOr(reply, std::string(keys::truncatedKey).c_str(), false);
  result.value.folderMissing = boolOr(reply, std::string(keys::missingKey).c_str(), false);
  if (const auto list = reply.find(keys::deliveredKey); list != reply.end() && list->is_array()) {
    auto& delivered = result.value.delivered.emplace();
    for (const Json& file : *list) {
      if (!file.is_object()) continue;
      delivered.push_back({stringOf(file, std::string(keys::nameKey).c_str()).value_or(""),
                           integerOr(file, std::string(keys::bytesKey).c_str(), 0)});
    }
  }
  return result;
}

Result<ShellEventsDeletion> parseShellEventsDeletion(const Json& reply) {
  auto result = carry<ShellEventsDeletion>(parseReply(reply));
  if (!result.ok) return result;
  namespace keys = AgentWire::ShellEvents;
  const auto names = [&](std::string_view key) {
    std::vector<std::string> out;
    const auto list = reply.find(key);
    if (list == reply.end() || !list->is_array()) return out;
    for (const Json& name : *list) {
      if (name.is_string()) out.push_back(name.get<std::string>());
    }
    return out;
  };
  if (const auto deleted = reply.find(keys::deletedKey);
      deleted == reply.end() || !deleted->is_array()) {
    throw ClientError("the agent cannot delete delivered events exactly (it drained instead); "
                      "nothing was deleted");
  }
  result.value.deleted = names(keys::deletedKey);
  result.value.kept = names(keys::keptKey);
  return result;
}

// ---- Connection ----------------------------------------------------------------------------

Connection Connection::open(const Address& address) {
  return Connection(connectTo(address).release());
}

Connection::Connection(int fd) : fd(fd) {}

Connection::~Connection() = default;

Connection::Connection(Connection&& other) noexcept
    : fd(std::move(other.fd)),
      lines(std::exchange(other.lines, LineSplitBuffer{})),
      replyTimeout(other.replyTimeout) {}

Connection& Connection::operator=(Connection&& other) noexcept {
  if (this != &other) {
    fd = std::move(other.fd);
    lines = std::exchange(other.lines, LineSplitBuffer{});
    replyTimeout = other.replyTimeout;
  }
  return *this;
}

UniqueFd Connection::release(std::string& pending) {
  pending = lines.takePending();
  return std::move(fd);
}

void Connection::sendLine(std::string_view line) {
  std::string bytes;
  bytes.reserve(line.size() + 1);
  bytes.append(line);
  bytes.push_back('\n');
  if (!fd) throw ConnectionError("the connection to the agent is closed");
  if (!writeAll(fd.get(), bytes)) {
    // An agent that refuses a connection (too many at once) says why and closes before it
    // reads anything; that line is a better reason than the broken pipe.
    std::string said;
    if (readBuffer.empty()) readBuffer.resize(AgentWire::readChunkBytes);
    const ReadResult got = readSome(fd.get(), readBuffer.data(), readBuffer.size(),
                                    std::chrono::milliseconds(100));
    if (got.status == ReadStatus::data) {
      lines.append(std::string_view(readBuffer.data(), got.count));
      if (auto line = lines.next()) {
        const Json reply = Json::parse(*line, nullptr, false);
        if (reply.is_object() && reply.contains("error") && reply["error"].is_string()) {
          said = reply["error"].get<std::string>();
        }
      }
    }
    throw ConnectionError(said.empty() ? "the connection to the agent is closed" : said);
  }
}

void Connection::send(const Json& request) {
  std::string line;
  try {
    line = request.dump();
  } catch (const Json::type_error&) {
    throw ClientError("the request holds text that is not valid UTF-8");
  }
  sendLine(line);
}

std::string Connection::receiveLine() {
  if (!fd) throw ConnectionError("the connection to the agent is closed");
  const auto started = std::chrono::steady_clock::now();
  if (readBuffer.empty()) readBuffer.resize(AgentWire::readChunkBytes);
  for (;;) {
    while (auto line = lines.next()) {
      if (!line->empty()) return std::string(*line);
    }
    std::chrono::milliseconds left{0};
    if (replyTimeout.count() > 0) {
      left = replyTimeout - std::chrono::duration_cast<std::chrono::milliseconds>(
                                std::chrono::steady_clock::now() - started);
      if (left.count() <= 0) left = std::chrono::milliseconds(1);
    }
    const ReadResult got = readSome(fd.get(), readBuffer.data(), readBuffer.size(), left);
    switch (got.status) {
      case ReadStatus::data:
        lines.append(std::string_view(readBuffer.data(), got.count));
        break;
      case ReadStatus::closed:
        throw ConnectionError("the agent closed the connection before replying");
      case ReadStatus::timedOut:
        throw ConnectionError("no reply from the agent within " +
                              std::to_string(replyTimeout.count()) + " ms");
      case ReadStatus::failed:
        throw ConnectionError(std::string("reading from the agent failed: ") +
                              std::strerror(got.error));
    }
  }
}

Json Connection::receive() {
  const std::string line = receiveLine();
  Json reply = Json::parse(line, nullptr, false);
  if (reply.is_discarded() || !reply.is_object()) {
    throw ProtocolError("the agent sent a line that is not a JSON object: " + excerpt(line));
  }
  return reply;
}

Json Connection::call(const Json& request) {
  send(request);
  return receive();
}

std::string Connection::callRaw(const Json& request) {
  send(request);
  return receiveLine();
}

Result<Done> Connection::simple(const Json& request) {
  return carry<Done>(parseReply(call(request)));
}

Result<PingInfo> Connection::ping() { return parsePing(call({{"op", "ping"}})); }

Result<Point> Connection::cursorPosition() {
  const Json reply = call({{"op", "cursor_position"}});
  auto result = carry<Point>(parseReply(reply));
  if (result.ok) result.value = {integerOr(reply, "x", 0), integerOr(reply, "y", 0)};
  return result;
}

Result<AXTree> Connection::axDump(std::optional<std::int64_t> pid,
                                  std::optional<std::int64_t> maxDepth) {
  Json request = {{"op", "ax_dump"}};
  if (pid) request["pid"] = *pid;
  if (maxDepth) request["maxDepth"] = *maxDepth;
  return parseAXDump(call(request));
}

Result<AXNode> Connection::axElementAt(std::int64_t x, std::int64_t y) {
  return parseAXElementAt(call({{"op", "ax_element_at"}, {"x", x}, {"y", y}}));
}

namespace {

Json queryRequest(const char* op, const AXQuery& query) {
  Json request = {{"op", op}};
  for (const auto& [key, text] : {std::pair{"role", &query.role}, {"subrole", &query.subrole},
                                  {"title", &query.title}, {"value", &query.value},
                                  {"identifier", &query.identifier}}) {
    if (*text) request[key] = **text;
  }
  if (query.exact) request["match"] = "exact";
  if (query.pid) request["pid"] = *query.pid;
  if (query.limit) request["limit"] = *query.limit;
  if (query.maxDepth) request["maxDepth"] = *query.maxDepth;
  return request;
}

}  // namespace

Result<AXMatches> Connection::find(const AXQuery& query) {
  return parseFind(call(queryRequest("find", query)));
}

Result<AXWaited> Connection::waitFor(const AXWaitRequest& request) {
  static constexpr const char* kStates[] = {"exists", "gone", "enabled", "focused", "value"};
  Json line = queryRequest("wait_for", request.query);
  line.erase("limit");
  line["state"] = kStates[static_cast<int>(request.state)];
  if (request.state == AXWaitState::value) line["equals"] = request.equals;
  if (request.timeoutSeconds) line["timeout"] = *request.timeoutSeconds;
  return parseWaitFor(call(line));
}

Result<ActionOutcome> Connection::axAction(const std::string& ref, const std::string& action) {
  Json request = {{"op", "ax_action"}, {"ref", ref}};
  if (!action.empty()) request["action"] = action;
  const Json reply = call(request);
  auto result = carry<ActionOutcome>(parseReply(reply));
  if (result.ok) result.value.note = stringOf(reply, "note");
  return result;
}

Result<std::vector<WindowInfo>> Connection::windows(std::optional<std::int64_t> pid) {
  Json request = {{"op", "windows"}};
  if (pid) request["pid"] = *pid;
  return parseWindows(call(request));
}

namespace {

Result<ActionOutcome> parseOutcome(const Json& reply) {
  auto result = carry<ActionOutcome>(parseReply(reply));
  if (result.ok) result.value.note = stringOf(reply, "note");
  return result;
}

}  // namespace

Result<ActionOutcome> Connection::windowAction(const std::string& ref, const std::string& action) {
  return parseOutcome(call({{"op", "window_action"}, {"ref", ref}, {"action", action}}));
}

Result<ActionOutcome> Connection::moveWindow(const std::string& ref, double x, double y) {
  return parseOutcome(
      call({{"op", "window_action"}, {"ref", ref}, {"action", "move"}, {"x", x}, {"y", y}}));
}

Result<ActionOutcome> Connection::resizeWindow(const std::string& ref, double w, double h) {
  return parseOutcome(
      call({{"op", "window_action"}, {"ref", ref}, {"action", "resize"}, {"w", w}, {"h", h}}));
}

Result<std::string> Connection::clipboardGet() {
  const Json reply = call({{"op", "clipboard_get"}});
  auto result = carry<std::string>(parseReply(reply));
  if (result.ok) result.value = stringOf(reply, "text").value_or("");
  return result;
}

Result<Done> Connection::clipboardSet(const std::string& text) {
  return simple({{"op", "clipboard_set"}, {"text", text}});
}

Result<Done> Connection::axSetValue(const std::string& ref, const std::string& value) {
  return simple({{"op", "ax_set_value"}, {"ref", ref}, {"value", value}});
}

Result<Done> Connection::axFocus(const std::string& ref) {
  return simple({{"op", "ax_focus"}, {"ref", ref}});
}

Result<Done> Connection::click(std::int64_t x, std::int64_t y, MouseButton button,
                               std::int64_t count, const ModifierNames& modifiers) {
  return simple(withModifiers(
      {{"op", "click"}, {"x", x}, {"y", y}, {"button", buttonName(button)}, {"count", count}},
      modifiers));
}

Result<Done> Connection::mouseDown(std::int64_t x, std::int64_t y, MouseButton button,
                                   const ModifierNames& modifiers) {
  return simple(withModifiers(
      {{"op", "mouse_down"}, {"x", x}, {"y", y}, {"button", buttonName(button)}}, modifiers));
}

Result<Done> Connection::mouseUp(std::int64_t x, std::int64_t y, MouseButton button,
                                 const ModifierNames& modifiers) {
  return simple(withModifiers(
      {{"op", "mouse_up"}, {"x", x}, {"y", y}, {"button", buttonName(button)}}, modifiers));
}

Result<Done> Connection::move(std::int64_t x, std::int64_t y) {
  return simple({{"op", "move"}, {"x", x}, {"y", y}});
}

Result<Done> Connection::drag(std::int64_t toX, std::int64_t toY, std::optional<Point> from,
                              const ModifierNames& modifiers) {
  Json request = {{"op", "drag"}, {"toX", toX}, {"toY", toY}};
  if (from) {
    request["fromX"] = from->x;
    request["fromY"] = from->y;
  }
  return simple(withModifiers(std::move(request), modifiers));
}

Result<Done> Connection::scroll(std::optional<std::int64_t> dx, std::optional<std::int64_t> dy,
                                const ModifierNames& modifiers) {
  Json request = {{"op", "scroll"}};
  if (dx) request["dx"] = *dx;
  if (dy) request["dy"] = *dy;
  return simple(withModifiers(std::move(request), modifiers));
}

Result<Done> Connection::type(const std::string& text) {
  return simple({{"op", "type"}, {"text", text}});
}

Result<Done> Connection::key(const std::string& chord) {
  return simple({{"op", "key"}, {"chord", chord}});
}

Result<Done> Connection::keyDown(const std::string& chord) {
  return simple({{"op", "key_down"}, {"key", chord}});
}

Result<Done> Connection::keyUp(const std::string& chord) {
  return simple({{"op", "key_up"}, {"key", chord}});
}

Result<Screenshot> Connection::screenshot(std::optional<std::int64_t> display) {
  Json request = {{"op", "screenshot"}};
  if (display) request["display"] = *display;
  return parseScreenshot(call(request));
}

Result<Screenshot> Connection::screenshot(const ScreenshotRequest& options) {
  Json request = {{"op", "screenshot"}};
  if (options.display) request["display"] = *options.display;
  if (const auto& r = options.region) request["region"] = {{"x", r->x}, {"y", r->y}, {"w", r->w}, {"h", r->h}};
  if (options.maxWidth) request["maxWidth"] = *options.maxWidth;
  if (options.maxHeight) request["maxHeight"] = *options.maxHeight;
  if (options.png) request["format"] = "png";
  if (options.quality) request["quality"] = *options.quality;
  return parseScreenshot(call(request));
}

Result<Done> Connection::launchApp(const std::string& name) {
  return simple({{"op", "launch_app"}, {"name", name}});
}

Result<ShellEvents> Connection::shellEvents(const ShellEventsRequest& request) {
  namespace keys = AgentWire::ShellEvents;
  Json line = {{"op", std::string(keys::op)}};
  if (request.dir) line[std::string(keys::dirKey)] = *request.dir;
  if (request.maxBytes) line[std::string(keys::maxBytesKey)] = *request.maxBytes;
  if (request.truncate) line[std::string(keys::truncateKey)] = true;
  if (request.listFiles) line[std::string(keys::listFilesKey)] = true;
  return parseShellEvents(call(line));
}

Result<ShellEventsDeletion> Connection::deleteShellEvents(const std::vector<DeliveredFile>& files,
                                                          std::optional<std::string> dir) {
  namespace keys = AgentWire::ShellEvents;
  Json list = Json::array();
  for (const DeliveredFile& file : files) {
    list.push_back({{std::string(keys::nameKey), file.name},
                    {std::string(keys::bytesKey), file.bytes}});
  }
  Json line = {{"op", std::string(keys::op)}, {std::string(keys::deleteKey), std::move(list)}};
  if (dir) line[std::string(keys::dirKey)] = *dir;
  return parseShellEventsDeletion(call(line));
}

}  // namespace tervain::client
