// What `tervainctl mcp` adds to a request: a cursor_position tool call (JSON-RPC over the
// server's standard streams, a worker thread, the agent's connection, a result wrapped in MCP
// content) against the same request sent straight to the agent on a connection of its own,
// both in this run against one agent.
//
// mcp_call_us and mcp_direct_us are medians per call; mcp_call_overhead_us is their difference
// and mcp_call_vs_direct their ratio (goal: under 1.5).
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "agent_process.h"
#include "bench.h"

extern char** environ;

namespace tervain::bench {
namespace {

using Clock = std::chrono::steady_clock;
using testing::AgentProcess;
using testing::LineClient;

constexpr int kWarmup = 500;
constexpr int kSamples = 5000;

template <typename Call>
double medianMicros(int count, Call call) {
  std::vector<double> samples;
  samples.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) {
    const auto start = Clock::now();
    if (!call(i)) break;
    samples.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  return samples.empty() ? -1 : percentile(samples, 50);
}

}  // namespace

TERVAIN_BENCH_SECTION(mcpBench, "mcp") {
  AgentProcess agent;
  const std::string request = R"({"op":"cursor_position"})" "\n";
  LineClient direct = agent.connect();
  auto directCall = [&](int) { return direct.send(request) && direct.readLine(std::chrono::seconds(10)).has_value(); };

  // The server's standard input and output are one end of a socket pair.
  int pair[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) return;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pair[1], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, pair[1], STDOUT_FILENO);
  std::string ctl = TERVAIN_CTL_PATH;
  std::string sub = "mcp";
  std::string connect = "--connect=unix:" + agent.socketPath();
  char* argv[] = {ctl.data(), sub.data(), connect.data(), nullptr};
  pid_t server = -1;
  const int spawned = posix_spawn(&server, ctl.c_str(), &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(pair[1]);
  if (spawned != 0) {
    ::close(pair[0]);
    return;
  }
  LineClient mcp(pair[0]);
  mcp.send(R"({"jsonrpc":"2.0","id":0,"method":"initialize","params":{"protocolVersion":"2025-06-18","capabilities":{},"clientInfo":{"name":"bench","version":"1"}}})" "\n"
           R"({"jsonrpc":"2.0","method":"notifications/initialized"})" "\n");
  mcp.readLine(std::chrono::seconds(10));
  auto mcpCall = [&](int i) {
    const std::string call = R"({"jsonrpc":"2.0","id":)" + std::to_string(i + 1) +
                             R"(,"method":"tools/call","params":{"name":"cursor_position","arguments":{}}})" "\n";
    return mcp.send(call) && mcp.readLine(std::chrono::seconds(10)).has_value();
  };

  // Interleaved rounds, so both paths see the same load on a shared machine.
  medianMicros(kWarmup, directCall);
  medianMicros(kWarmup, mcpCall);
  std::vector<double> directRounds;
  std::vector<double> mcpRounds;
  for (int round = 0; round < 5; ++round) {
    directRounds.push_back(medianMicros(kSamples / 5, directCall));
    mcpRounds.push_back(medianMicros(kSamples / 5, [&](int i) { return mcpCall(kWarmup + round * kSamples + i); }));
  }
  const double directUs = percentile(directRounds, 50);
  const double mcpUs = percentile(mcpRounds, 50);
  report("mcp_direct_us", directUs);
  report("mcp_call_us", mcpUs);
  report("mcp_call_overhead_us", mcpUs - directUs);
  report("mcp_call_vs_direct", mcpUs / directUs);

  mcp.close();
  int status = 0;
  ::waitpid(server, &status, 0);
}

}  // namespace tervain::bench
