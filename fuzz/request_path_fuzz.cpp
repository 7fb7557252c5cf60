// Bytes from a host, through line framing, parsing, routing and dispatch over a scripted desktop,
// to reply bytes. Every reply must be one line of JSON with a boolean "ok", or the fixed fallback.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "agent/connection_handler.h"
#include "core/line_split_buffer.h"
#include "core/reply.h"
#include "core/request_members.h"
#include "fake_desktop.h"
#include "fuzz_support.h"

using namespace tervain;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  testing::FakeDesktop desktop;
  fuzzing::scriptDesktop(desktop);
  AgentContext context(desktop);
  fuzzing::quietContext(context);
  ConnectionHandler handler(-1, context);

  LineSplitBuffer lines;
  lines.append(std::string_view(reinterpret_cast<const char*>(data), size));
  int handled = 0;
  while (auto line = lines.next()) {
    if (line->empty()) continue;
    const std::optional<Json> request = parseRequestObject(*line);
    const auto op = request ? requestOp(*request) : std::nullopt;
    if (op && fuzzing::isStreamingOp(*op)) continue;  // they own the socket; fuzzed elsewhere
    if (op && fuzzing::isSlowOp(*op)) continue;
    const std::string reply = handler.handleRequest(request);
    if (reply.find('\n') != std::string::npos) std::abort();
    const std::optional<Json> parsed = parseRequestObject(reply);
    if (!parsed || !(*parsed)["ok"].is_boolean()) std::abort();
    if (++handled == 64) break;  // bounded work per input
  }
  return 0;
}
