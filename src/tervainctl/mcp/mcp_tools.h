// The tools the MCP server offers: one row of kTools each, with the JSON Schema of its input,
// a description a model can act on, honest annotations and the function that runs it.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "core/json.h"
#include "tervainctl/mcp/mcp_agent.h"

namespace tervain::mcp {

// What a tool call hands back: MCP content blocks, and whether the tool failed (the agent
// refused, the connection broke, a command timed out); the failure text is in the content.
struct ToolResult {
  Json content = Json::array();
  bool isError = false;

  static ToolResult text(std::string text, bool isError = false);
  ToolResult& add(std::string text);
};

// One call in flight. cancel() may come from another thread (a cancellation notification);
// a tool that runs for long registers how to stop itself with onCancel().
class CallControl {
 public:
  bool cancelled() const { return stopped.load(); }
  void cancel();
  // Runs stop at once when the call is already cancelled.
  void onCancel(std::function<void()> stop);
  void clearOnCancel();

 private:
  std::atomic<bool> stopped{false};
  std::mutex mutex;
  std::function<void()> stopper;
};

struct ToolContext {
  AgentSession& agent;
  CallControl& control;
};

struct ToolSpec {
  const char* name;
  const char* title;
  const char* description;
  const char* inputSchema;  // JSON Schema text of the arguments object
  // The agent operation a forwarding tool sends its arguments to.
  const char* op;
  // Listed only when the agent's ping "features" names this; nullptr for operations every
  // agent has.
  const char* feature;
  bool readOnly;
  bool destructive;
  bool idempotent;
  bool openWorld;
  // nullptr forwards the arguments to op as they are and reports the reply's members.
  ToolResult (*run)(ToolContext& context, const ToolSpec& definition, const Json& arguments);
};

std::span<const ToolSpec> toolTable();

// The tool's entry for tools/list.
Json describeTool(const ToolSpec& definition);

// Checks arguments against the subset of JSON Schema the tool table uses (type, properties,
// required, additionalProperties, enum, minimum, maximum, minLength). Empty when they conform,
// otherwise a sentence naming the first argument at fault.
// Integral numbers given as 3.0 for integer arguments become 3.
std::string checkArguments(const Json& schema, Json& arguments);

// Runs one tool. A refusal by the agent or a lost connection is an error result, never thrown.
ToolResult runTool(ToolContext& context, const ToolSpec& definition, const Json& arguments);

}  // namespace tervain::mcp
