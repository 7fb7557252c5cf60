// The JSON-RPC side of the MCP server.
//
// A few threads take turns at reading standard input (leader and followers). The reader cuts
// lines, parses each message (or batch) and answers everything but tool calls at once. When it
// cuts a tool call and another thread is idle, it hands the reading to that thread and runs the
// call itself, so a call's request and response pass no queue between threads on their way;
// when every other thread is busy, the call waits in a queue and the reader reads on (a
// cancellation must still get through). A short call (a click, the pointer's position) that
// comes while nothing else is in flight the reader simply runs and then reads on: handing the
// reading over would cost as much as the call. Responses are written whenever they are ready, so
// answers come in any order and the client matches them by id. A batch is answered with one
// array once all of its calls are done. Tools that use the agent's request connection share one
// AgentSession (so refs survive between calls); the exec-based tools open a connection each.
#include "tervainctl/mcp/mcp_server.h"

#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tervainctl/mcp/mcp_agent.h"
#include "tervainctl/mcp/mcp_tools.h"

namespace tervain::mcp {
namespace {

// Newest first: an unknown version asked for in initialize gets the newest.
constexpr const char* kProtocolVersions[] = {"2025-06-18", "2025-03-26"};
// The one version whose clients may send batches.
constexpr std::string_view kBatchVersion = "2025-03-26";

constexpr std::size_t kMaxMessageBytes = 64u << 20;

// Tools the reader runs itself, without handing the reading on, when no other call is in flight
// and no other message waits: each is one short request to the agent (the pointer, a key), so a
// message that comes meanwhile waits that long at most, while waking a thread to read on costs
// about as much as the call.
constexpr std::string_view kInlineTools[] = {"cursor_position", "click", "double_click", "move",
                                             "scroll", "press_key", "mouse_down", "mouse_up",
                                             "key_down", "key_up"};
constexpr int kMaxNesting = 64;

enum ErrorCode {
  kParseError = -32700,
  kInvalidRequest = -32600,
  kMethodNotFound = -32601,
  kInvalidParams = -32602,
  kInternalError = -32603,
};

void logLine(const std::string& message) {
  const std::string line = "tervainctl mcp: " + message + "\n";
  [[maybe_unused]] const ssize_t n = ::write(STDERR_FILENO, line.data(), line.size());
}

Json errorResponse(const Json& id, int code, std::string message) {
  return {{"jsonrpc", "2.0"}, {"id", id}, {"error", {{"code", code}, {"message", std::move(message)}}}};
}

Json resultResponse(const Json& id, Json result) {
  return {{"jsonrpc", "2.0"}, {"id", id}, {"result", std::move(result)}};
}

// Deeper than any message of this protocol; refused before parsing, since copying or printing
// a deeply nested value recurses once per level.
bool nestedTooDeeply(std::string_view text) {
  int depth = 0;
  bool inString = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (inString) {
      if (c == '\\') ++i;
      else if (c == '"') inString = false;
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > kMaxNesting) return true;
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
  return false;
}

// Standard output: one message a line, written whole.
class Output {
 public:
  explicit Output(int fd) : fd(fd) {}

  void write(const Json& message) {
    std::string line = message.dump(-1, ' ', false, Json::error_handler_t::replace);
    line.push_back('\n');
    std::lock_guard lock(mutex);
    std::string_view rest = line;
    while (!rest.empty() && !failed) {
      const ssize_t n = ::write(fd, rest.data(), rest.size());
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        failed = true;
        logLine(std::string("writing to standard output failed: ") + std::strerror(errno));
        break;
      }
      rest.remove_prefix(static_cast<std::size_t>(n));
    }
  }

  bool broken() {
    std::lock_guard lock(mutex);
    return failed;
  }

 private:
  const int fd;
  std::mutex mutex;
  bool failed = false;
};

// Collects the responses to one incoming line: a single message, or a batch answered as one
// array. Each message of the line delivers exactly once (nothing for a notification).
class Responder {
 public:
  Responder(Output& out, bool batch, std::size_t messages)
      : out(out), batch(batch), outstanding(messages) {}

  void deliver(std::optional<Json> response) {
    std::unique_lock lock(mutex);
    if (response) responses.push_back(std::move(*response));
    if (--outstanding > 0) return;
    if (responses.empty()) return;
    Json message = batch ? Json(std::move(responses)) : std::move(responses.front());
    lock.unlock();
    out.write(message);
  }

 private:
  Output& out;
  const bool batch;
  std::mutex mutex;
  std::size_t outstanding;
  std::vector<Json> responses;
};

class Server {
 public:
  explicit Server(const McpOptions& options)
      : options(options),
        out(options.output),
        agent(options.address, options.replyTimeout) {
    for (const ToolSpec& definition : toolTable()) schemas.push_back(Json::parse(definition.inputSchema));
  }

  int run() {
    logLine("serving the agent at " + client::formatAddress(options.address) +
            " over MCP on standard input and output");
    std::vector<std::thread> others;
    for (std::size_t i = 1; i < std::max<std::size_t>(options.workers, 1); ++i) {
      others.emplace_back([this] { serve(); });
    }
    serve();
    for (std::thread& t : others) t.join();
    logLine("input ended; stopping");
    return 0;
  }

 private:
  using Job = std::function<void()>;
  struct Cut {
    Job run;
    bool inline_;  // the reader may run it without handing the reading on
  };

  // One thread of the server: reads while nobody else does, runs the calls it cuts and the
  // calls that wait, and returns once the input has ended and no call waits.
  void serve() {
    std::unique_lock lock(turns);
    for (;;) {
      ++idle;
      turn.wait(lock, [this] { return !waiting.empty() || !reading || inputEnded; });
      --idle;
      // Reading comes first, so that a cancellation gets through while calls wait.
      if (reading || inputEnded) {
        if (waiting.empty()) return;  // only when the input has ended
        Job job = std::move(waiting.front());
        waiting.pop_front();
        lock.unlock();
        job();
        lock.lock();
        continue;
      }
      reading = true;
      lock.unlock();
      std::optional<Cut> job;
      for (;;) {
        job = read();
        if (!job || !job->inline_) break;
        job->run();  // and read on: the turn is still this thread's
      }
      lock.lock();
      reading = false;
      if (!job) {
        inputEnded = true;
        turn.notify_all();
        continue;
      }
      turn.notify_one();  // somebody else reads on
      lock.unlock();
      job->run();
      lock.lock();
    }
  }

  // The reader's turn: handles messages until one yields a tool call this thread should run
  // itself, and returns it; returns nothing once the input has ended and every message in it
  // has been handled. Only the reading thread touches the buffer.
  std::optional<Cut> read() {
    for (;;) {
      for (;;) {
        const std::size_t newline = buffer.find('\n', scanned);
        if (newline == std::string::npos) break;
        if (discarding) {
          discarding = false;
        } else {
          handleLine(std::string_view(buffer).substr(0, newline));
        }
        buffer.erase(0, newline + 1);
        scanned = 0;
        if (std::optional<Cut> job = takeCut()) return job;
      }
      scanned = buffer.size();
      if (buffer.size() > kMaxMessageBytes) {
        if (!discarding) {
          out.write(errorResponse(nullptr, kParseError, "message longer than 64 MiB"));
        }
        discarding = true;
        buffer.clear();
        scanned = 0;
      }
      if (out.broken()) break;
      const ssize_t n = ::read(options.input, chunk.data(), chunk.size());
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      buffer.append(chunk.data(), static_cast<std::size_t>(n));
    }
    // A last message without its line feed still counts.
    if (!discarding && !out.broken()) handleLine(buffer);
    buffer.clear();
    std::lock_guard lock(turns);
    for (Cut& job : cut) waiting.push_back(std::move(job.run));
    cut.clear();
    return std::nullopt;
  }

  // The tool calls the last line yielded: the first is the reader's to run when another thread
  // is idle to read on; the rest, and every one when nobody is idle, wait their turn.
  std::optional<Cut> takeCut() {
    if (cut.empty()) return std::nullopt;
    if (cut.size() == 1 && cut.front().inline_ && buffer.find('\n') == std::string::npos) {
      Cut mine = std::move(cut.front());
      cut.clear();
      return mine;
    }
    std::optional<Cut> mine;
    std::lock_guard lock(turns);
    for (std::size_t i = 1; i < cut.size(); ++i) waiting.push_back(std::move(cut[i].run));
    // Each waiting call takes an idle thread; one more must be left to read on.
    if (idle > waiting.size()) {
      mine = Cut{std::move(cut.front().run), false};
    } else {
      waiting.push_back(std::move(cut.front().run));
    }
    cut.clear();
    if (!waiting.empty()) turn.notify_all();
    return mine;
  }

  void handleLine(std::string_view line) {
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (line.find_first_not_of(" \t\r") == std::string_view::npos) return;
    if (nestedTooDeeply(line)) {
      out.write(errorResponse(nullptr, kInvalidRequest, "message nested more than 64 levels deep"));
      return;
    }
    Json message = Json::parse(line, nullptr, false);
    if (message.is_discarded()) {
      out.write(errorResponse(nullptr, kParseError, "parse error: not a JSON text (or not UTF-8)"));
      return;
    }
    if (!message.is_array()) {
      auto responder = std::make_shared<Responder>(out, false, 1);
      handleMessage(message, responder);
      return;
    }
    const std::string version = negotiated();
    if (version != kBatchVersion) {
      out.write(errorResponse(nullptr, kInvalidRequest,
                              version.empty()
                                  ? "a batch cannot come before initialize"
                                  : "protocol version " + version + " has no batches: send "
                                    "one message a line"));
      return;
    }
    if (message.empty()) {
      out.write(errorResponse(nullptr, kInvalidRequest, "empty batch"));
      return;
    }
    auto responder = std::make_shared<Responder>(out, true, message.size());
    for (const Json& element : message) handleMessage(element, responder);
  }

  std::string negotiated() {
    std::lock_guard lock(mutex);
    return version;
  }

  void handleMessage(const Json& message, const std::shared_ptr<Responder>& responder) {
    if (!message.is_object()) {
      responder->deliver(errorResponse(nullptr, kInvalidRequest, "a message must be a JSON object"));
      return;
    }
    const auto id = message.find("id");
    const bool hasId = id != message.end();
    const bool idValid = hasId && (id->is_string() || id->is_number());
    const Json replyId = idValid ? *id : Json(nullptr);
    const auto jsonrpc = message.find("jsonrpc");
    if (jsonrpc == message.end() || *jsonrpc != "2.0") {
      responder->deliver(errorResponse(replyId, kInvalidRequest, "\"jsonrpc\" must be \"2.0\""));
      return;
    }
    if (hasId && !idValid) {
      responder->deliver(errorResponse(nullptr, kInvalidRequest, "\"id\" must be a string or a number"));
      return;
    }
    const auto method = message.find("method");
    if (method == message.end()) {
      // A response: this server sends no requests, so there is nothing it could answer.
      if (hasId && (message.contains("result") || message.contains("error"))) {
        responder->deliver(std::nullopt);
      } else {
        responder->deliver(errorResponse(replyId, kInvalidRequest, "a message needs a \"method\""));
      }
      return;
    }
    if (!method->is_string()) {
      responder->deliver(errorResponse(replyId, kInvalidRequest, "\"method\" must be a string"));
      return;
    }
    const auto params = message.find("params");
    if (params != message.end() && !params->is_object() && !params->is_array()) {
      responder->deliver(errorResponse(replyId, kInvalidRequest, "\"params\" must be an object"));
      return;
    }
    const Json& given = params != message.end() ? *params : emptyParams;
    const std::string& name = method->get_ref<const std::string&>();
    if (!hasId) {
      handleNotification(name, given);
      responder->deliver(std::nullopt);
      return;
    }
    handleRequest(*id, name, given, responder);
  }

  void handleNotification(const std::string& method, const Json& params) {
    if (method != "notifications/cancelled" || !params.is_object()) return;
    const auto id = params.find("requestId");
    if (id == params.end()) return;
    std::shared_ptr<CallControl> control;
    {
      std::lock_guard lock(mutex);
      const auto call = inFlight.find(id->dump());
      if (call != inFlight.end()) control = call->second;
    }
    if (control) control->cancel();
  }

  void handleRequest(const Json& id, const std::string& method, const Json& params,
                     const std::shared_ptr<Responder>& responder) {
    if (method == "ping") {
      responder->deliver(resultResponse(id, Json::object()));
      return;
    }
    if (method == "initialize") {
      responder->deliver(initialize(id, params));
      return;
    }
    if (method != "tools/list" && method != "tools/call") {
      responder->deliver(errorResponse(id, kMethodNotFound, "no method '" + method + "'"));
      return;
    }
    if (negotiated().empty()) {
      responder->deliver(errorResponse(id, kInvalidRequest, "send initialize first"));
      return;
    }
    if (!params.is_object()) {
      responder->deliver(errorResponse(id, kInvalidParams, "params must be an object"));
      return;
    }
    if (method == "tools/list") {
      if (params.contains("cursor")) {
        responder->deliver(errorResponse(id, kInvalidParams, "unknown cursor: the list has one page"));
        return;
      }
      Json tools = Json::array();
      for (const ToolSpec* definition : availableTools()) tools.push_back(describeTool(*definition));
      responder->deliver(resultResponse(id, {{"tools", std::move(tools)}}));
      return;
    }
    callTool(id, params, responder);
  }

  Json initialize(const Json& id, const Json& params) {
    const auto asked = params.is_object() ? params.find("protocolVersion") : params.end();
    if (!params.is_object() || asked == params.end() || !asked->is_string()) {
      return errorResponse(id, kInvalidParams, "initialize needs params.protocolVersion (a string)");
    }
    std::string chosen = kProtocolVersions[0];
    for (const char* known : kProtocolVersions) {
      if (*asked == known) chosen = known;
    }
    {
      std::lock_guard lock(mutex);
      if (!version.empty()) return errorResponse(id, kInvalidRequest, "the session is initialized already");
      version = chosen;
    }
    return resultResponse(
        id, {{"protocolVersion", chosen},
             {"capabilities", {{"tools", {{"listChanged", false}}}}},
             {"serverInfo", {{"name", "tervainctl"}, {"title", "TervainVMAgent guest"},
                             {"version", TERVAIN_VERSION}}},
             {"instructions",
              "These tools drive a virtual machine's desktop and shell. Look with screenshot "
              "or tree, act with click/type_text/press_key or by element ref "
              "(element_action, set_value, focus), and run shell commands with run_command. "
              "Screen positions are in points; screenshot says how image pixels map to them."}});
  }

  std::vector<const ToolSpec*> availableTools() {
    std::vector<const ToolSpec*> tools;
    std::optional<std::vector<std::string>> features;
    for (const ToolSpec& definition : toolTable()) {
      if (definition.feature != nullptr) {
        if (!features) features = agent.features();
        if (std::find(features->begin(), features->end(), definition.feature) == features->end()) continue;
      }
      tools.push_back(&definition);
    }
    return tools;
  }

  void callTool(const Json& id, const Json& params, const std::shared_ptr<Responder>& responder) {
    const auto name = params.find("name");
    if (name == params.end() || !name->is_string()) {
      responder->deliver(errorResponse(id, kInvalidParams, "tools/call needs params.name (a string)"));
      return;
    }
    const ToolSpec* definition = nullptr;
    const std::string& wanted = name->get_ref<const std::string&>();
    for (const ToolSpec& candidate : toolTable()) {
      if (wanted == candidate.name) {
        definition = &candidate;
        break;
      }
    }
    // A tool that this agent cannot serve is not listed, and as unknown as one that does not exist.
    if (definition != nullptr && definition->feature != nullptr && !agent.hasFeature(definition->feature)) {
      definition = nullptr;
    }
    if (definition == nullptr) {
      responder->deliver(errorResponse(id, kInvalidParams, "unknown tool '" + name->get<std::string>() + "'"));
      return;
    }
    Json arguments = params.value("arguments", Json::object());
    const Json& schema = schemas[static_cast<std::size_t>(definition - toolTable().data())];
    if (std::string problem = checkArguments(schema, arguments); !problem.empty()) {
      responder->deliver(errorResponse(id, kInvalidParams,
                                       std::string("invalid arguments for ") + definition->name + ": " + problem));
      return;
    }
    auto control = std::make_shared<CallControl>();
    const std::string key = id.dump();
    bool alone = false;
    {
      std::lock_guard lock(mutex);
      if (!inFlight.emplace(key, control).second) {
        responder->deliver(errorResponse(id, kInvalidRequest, "a request with this id is still in flight"));
        return;
      }
      alone = inFlight.size() == 1;
    }
    const bool quick = alone && std::find(std::begin(kInlineTools), std::end(kInlineTools),
                                          std::string_view(definition->name)) != std::end(kInlineTools);
    cut.push_back({[this, id, definition, arguments = std::move(arguments), control, key, responder] {
      ToolContext context{agent, *control};
      ToolResult result;
      try {
        result = runTool(context, *definition, arguments);
      } catch (const std::exception& e) {
        result = ToolResult::text(std::string("the tool failed: ") + e.what(), true);
      }
      {
        std::lock_guard lock(mutex);
        inFlight.erase(key);
      }
      // A cancelled request gets no response.
      if (control->cancelled()) {
        responder->deliver(std::nullopt);
        return;
      }
      responder->deliver(resultResponse(
          id, {{"content", std::move(result.content)}, {"isError", result.isError}}));
    }, quick});
  }

  const McpOptions options;
  Output out;
  AgentSession agent;
  std::vector<Json> schemas;  // parsed input schemas, in table order
  const Json emptyParams = Json::object();
  std::mutex mutex;
  std::string version;  // negotiated in initialize; empty before
  std::map<std::string, std::shared_ptr<CallControl>> inFlight;  // by id as JSON text

  // The reader's own state, handed from thread to thread with the reading turn.
  std::string buffer;
  std::size_t scanned = 0;
  bool discarding = false;  // inside a message over the size limit
  std::string chunk = std::string(64 * 1024, '\0');
  std::vector<Cut> cut;  // tool calls cut from the line being handled

  std::mutex turns;  // guards what follows
  std::condition_variable turn;
  std::deque<Job> waiting;  // calls cut while no other thread was idle to read on
  std::size_t idle = 0;     // threads waiting for a turn
  bool reading = false;     // a thread has the reading turn
  bool inputEnded = false;
};

}  // namespace

int runMcp(const McpOptions& options) {
  // A client that goes away must not kill the server mid-write.
  ::signal(SIGPIPE, SIG_IGN);
  Server server(options);
  return server.run();
}

}  // namespace tervain::mcp
