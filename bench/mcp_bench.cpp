// What `tervainctl mcp` adds to a request: a cursor_position tool call (JSON-RPC over the
// server's standard streams, a worker thread, the agent's connection, a result wrapped in MCP
// content) against the same request sent straight to the agent on a connection of its own,
// both in this run against one agent.
//
// mcp_call_us and mcp_direct_us are medians per call; mcp_call_overhead_us is their difference
// and mcp_call_vs_direct their ratio (goal: under 1.5).
//
// A call through the server crosses two sockets and wakes four threads in turn where the direct
// request wakes two, so the ratio cannot go much below 2. On a virtual machine a wake-up that
// moves to the other CPU costs several times one on the same CPU; mcp_call_vs_direct_one_cpu is
// the same pair of measurements with the bench, the agent and the server all on one CPU, which
// shows how much of the ratio is those cross-CPU wake-ups rather than the server's own work.
#include <sched.h>
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

struct Figures {
  double directUs = -1;
  double mcpUs = -1;
};

// Both paths against one agent, in interleaved rounds so that both see the same load.
Figures measure() {
  AgentProcess agent;
  const std::string request = R"({"op":"cursor_position"})" "\n";
  LineClient direct = agent.connect();
  auto directCall = [&](int) { return direct.send(request) && direct.readLine(std::chrono::seconds(10)).has_value(); };

  // The server's standard input and output are one end of a socket pair.
  int pair[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) return {};
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
    return {};
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

  medianMicros(kWarmup, directCall);
  medianMicros(kWarmup, mcpCall);
  std::vector<double> directRounds;
  std::vector<double> mcpRounds;
  for (int round = 0; round < 5; ++round) {
    directRounds.push_back(medianMicros(kSamples / 5, directCall));
    mcpRounds.push_back(medianMicros(kSamples / 5, [&](int i) { return mcpCall(kWarmup + round * kSamples + i); }));
  }
  mcp.close();
  int status = 0;
  ::waitpid(server, &status, 0);
  return {percentile(directRounds, 50), percentile(mcpRounds, 50)};
}

}  // namespace

TERVAIN_BENCH_SECTION(mcpBench, "mcp") {
  const Figures spread = measure();
  report("mcp_direct_us", spread.directUs);
  report("mcp_call_us", spread.mcpUs);
  report("mcp_call_overhead_us", spread.mcpUs - spread.directUs);
  report("mcp_call_vs_direct", spread.mcpUs / spread.directUs);

  // The agent and the server inherit this thread's CPU set when they are started.
  cpu_set_t all;
  if (sched_getaffinity(0, sizeof all, &all) != 0) return;
  int first = 0;
  while (first < CPU_SETSIZE && !CPU_ISSET(first, &all)) ++first;
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(first, &one);
  if (sched_setaffinity(0, sizeof one, &one) != 0) return;
  const Figures pinned = measure();
  sched_setaffinity(0, sizeof all, &all);
  report("mcp_call_one_cpu_us", pinned.mcpUs);
  report("mcp_call_vs_direct_one_cpu", pinned.mcpUs / pinned.directUs);
}

}  // namespace tervain::bench
