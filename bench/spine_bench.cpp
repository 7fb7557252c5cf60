// Request/reply latency and throughput of the agent's core, and its memory per connection.
//
// The latency floor is a trivial echo server on the same kind of socket, driven by the same
// client code, so ping_p50_vs_echo_floor shows what the agent adds on top of the kernel's round
// trip however busy the machine is.
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "agent_process.h"
#include "bench.h"
#include "vsock/tervain_vsock.h"

namespace tervain::bench {
namespace {

using Clock = std::chrono::steady_clock;
using testing::AgentProcess;
using testing::LineClient;
using testing::TempDir;

constexpr int kWarmup = 2000;
constexpr int kSamples = 20000;

// Round trips of one request line each, in microseconds.
std::vector<double> roundTrips(LineClient& client, const std::string& line, int count) {
  std::vector<double> samples;
  samples.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) {
    const auto start = Clock::now();
    if (!client.send(line) || !client.readLine(std::chrono::seconds(10))) break;
    samples.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  return samples;
}

// Pins every thread of a process (threads it starts later inherit it) to one processor. On a
// small shared machine a round trip costs very different amounts depending on whether the two
// ends meet on one processor or wake each other across two; pinning the client and both servers
// alike makes the floor and the agent pay the same.
void pinProcess(pid_t pid, int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (cpu >= 0) {
    CPU_SET(cpu, &set);
  } else {
    for (int c = 0; c < CPU_SETSIZE; ++c) CPU_SET(c, &set);  // every processor again
  }
  std::error_code ignored;
  for (const auto& task :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", ignored)) {
    (void)sched_setaffinity(std::stoi(task.path().filename()), sizeof set, &set);
  }
}

int benchProcessor() {
  const long count = sysconf(_SC_NPROCESSORS_ONLN);
  return count > 1 ? static_cast<int>(count - 1) : 0;
}

// A child process that answers every line with a reply of the size of a headless ping's.
pid_t startEchoServer(const std::string& path, const std::string& reply) {
  const int listener = tervain_unix_listen(path.c_str(), 8);
  if (listener < 0) return -1;
  const pid_t child = fork();
  if (child != 0) {
    close(listener);
    return child;
  }
  pinProcess(getpid(), benchProcessor());
  const int c = accept(listener, nullptr, nullptr);
  std::string pending;
  char buffer[65536];
  for (;;) {
    const ssize_t n = read(c, buffer, sizeof buffer);
    if (n <= 0) _exit(0);
    pending.append(buffer, static_cast<std::size_t>(n));
    std::size_t at;
    while ((at = pending.find('\n')) != std::string::npos) {
      pending.erase(0, at + 1);
      if (write(c, reply.data(), reply.size()) < 0) _exit(0);
    }
  }
}

}  // namespace

TERVAIN_BENCH_SECTION(spineBench, "spine") {
  const std::string ping = "{\"op\":\"ping\"}\n";

  // The floor's server is forked first, while this process has no other threads.
  TempDir dir;
  const std::string headlessPing =
      R"({"displays":[],"ok":true,"readiness":{"accessibility":false,"postEvent":false,)"
      R"("screenRecording":false},"version":2})"
      "\n";
  const pid_t echo = startEchoServer(dir.file("echo.sock"), headlessPing);
  LineClient floorClient = LineClient::connectUnix(dir.file("echo.sock"));

  AgentProcess agent;
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  const long idleRss = rssKib(agent.pid());
  {
    // Interleaved rounds, so that whatever else the machine does weighs on both alike.
    constexpr int kRounds = 20;
    pinProcess(agent.pid(), benchProcessor());
    cpu_set_t here;
    CPU_ZERO(&here);
    CPU_SET(benchProcessor(), &here);
    (void)sched_setaffinity(0, sizeof here, &here);  // this thread only
    LineClient client = agent.connect();
    roundTrips(client, ping, kWarmup);
    roundTrips(floorClient, ping, kWarmup);
    std::vector<double> agentSamples, floorSamples;
    for (int round = 0; round < kRounds; ++round) {
      const auto a = roundTrips(client, ping, kSamples / kRounds);
      const auto f = roundTrips(floorClient, ping, kSamples / kRounds);
      agentSamples.insert(agentSamples.end(), a.begin(), a.end());
      floorSamples.insert(floorSamples.end(), f.begin(), f.end());
    }
    const double p50 = percentile(agentSamples, 50);
    const double floorP50 = percentile(floorSamples, 50);
    report("ping_p50_us", p50);
    report("ping_p99_us", percentile(agentSamples, 99));
    report("echo_floor_p50_us", floorP50);
    report("ping_p50_vs_echo_floor", p50 / floorP50);
    pinProcess(agent.pid(), -1);
    cpu_set_t all;
    CPU_ZERO(&all);
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) CPU_SET(cpu, &all);
    (void)sched_setaffinity(0, sizeof all, &all);
  }
  floorClient.close();
  if (echo > 0) waitpid(echo, nullptr, 0);
  {
    // Pipelined: one writer thread keeps the connection full while this thread reads replies.
    constexpr int kPipelined = 200000;
    constexpr int kBatch = 1000;
    LineClient client = agent.connect();
    std::string batch;
    for (int i = 0; i < kBatch; ++i) batch += ping;
    const auto start = Clock::now();
    std::thread writer([&] {
      for (int i = 0; i < kPipelined / kBatch; ++i) {
        if (!client.send(batch)) return;
      }
    });
    int replies = 0;
    while (replies < kPipelined && client.readLine(std::chrono::seconds(10))) ++replies;
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    writer.join();
    report("pipelined_pings_per_s", replies / seconds);
  }
  {
    // Memory: the agent at rest, then with 100 connections that each served one request.
    constexpr int kConnections = 100;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const long before = rssKib(agent.pid());
    std::vector<LineClient> clients;
    for (int i = 0; i < kConnections; ++i) {
      clients.push_back(agent.connect());
      clients.back().send(ping);
      clients.back().readLine(std::chrono::seconds(10));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const long after = rssKib(agent.pid());
    report("idle_rss_kib", static_cast<double>(idleRss));
    report("rss_per_connection_kib", static_cast<double>(after - before) / kConnections);
  }
}

}  // namespace tervain::bench
