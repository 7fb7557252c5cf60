// tervain_soak SECONDS: load and fault test of a freshly started agent on a Unix socket.
//
// At least 200 client threads run for the given time, each picking scenarios at random: pings,
// malformed and hostile lines, shell-event drains over a spool that another thread keeps filling,
// exec with stdin, disconnects in the middle of a line or of an exec, a client that stops reading
// while its command writes, a client that reads a finished command's output slowly, a command fed
// a megabyte of stdin while its output backs up, and lines that grow slowly toward the 4 MiB bound. Afterwards the
// agent must still answer, hold about the descriptors and memory it started with, and have no
// child process or zombie left. Then a flood of connections holding unfinished lines of several
// MB, and of more connections than the agent serves, must stay under the agent's bounds. The last
// line sums it up; the exit status says whether it held.
#include <dirent.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "agent_process.h"
#include "core/base64.h"
#include "core/json.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using tervain::Json;
using tervain::testing::AgentProcess;
using tervain::testing::LineClient;

constexpr int kClients = 200;
constexpr int kSlowLineClients = 3;  // each holds up to 4 MiB in the agent

std::atomic<long> requests{0};
std::atomic<long> errors{0};
std::atomic<bool> stopping{false};

void fail(const char* scenario, const std::string& detail) {
  ++errors;
  static std::atomic<int> printed{0};
  if (printed.fetch_add(1) < 20) std::fprintf(stderr, "soak: %s: %s\n", scenario, detail.c_str());
}

int countEntries(const std::string& dir) {
  int count = 0;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      if (e->d_name[0] != '.') ++count;
    }
    closedir(d);
  }
  return count;
}

// Processes whose parent is pid, zombies included.
int childrenOf(pid_t pid) {
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::ifstream stat(entry.path() / "stat");
    std::string line;
    std::getline(stat, line);
    const auto close = line.rfind(')');
    if (close == std::string::npos) continue;
    char state = 0;
    int parent = 0;
    if (std::sscanf(line.c_str() + close + 1, " %c %d", &state, &parent) == 2 && parent == pid) {
      ++count;
    }
  }
  return count;
}

long rssKib(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
  }
  return -1;
}

bool okReply(const std::optional<std::string>& line, bool wantOk) {
  if (!line) return false;
  const Json reply = Json::parse(*line, nullptr, false);
  return reply.is_object() && reply.contains("ok") && reply["ok"] == wantOk;
}

void pingScenario(const AgentProcess& agent) {
  LineClient client = agent.connect();
  const int n = 1 + static_cast<int>(requests.load() % 8);
  std::string batch;
  for (int i = 0; i < n; ++i) batch += "{\"op\":\"ping\"}\n";
  if (!client.send(batch)) return fail("ping", "send failed");
  for (int i = 0; i < n; ++i) {
    ++requests;
    if (!okReply(client.readLine(20s), true)) return fail("ping", "no ok reply");
  }
}

void hostileScenario(const AgentProcess& agent) {
  static const std::vector<std::string> lines = [] {
    std::vector<std::string> v = {
        "{\"op\":\"ping\",\"x\":1e999}",
        "{\"op\":\"click\",\"x\":1e308,\"y\":-1e308,\"count\":9223372036854775807}",
        "{\"op\":\"ax_dump\",\"pid\":99999999999}",
        "{\"op\":\"scroll\",\"dy\":-9.9e18}",
        "{\"op\":5}",
        "\xff\xfe{}",
        "{\"op\":\"key\",\"chord\":\"+++\"}",
        "{\"op\":\"type\",\"text\":\"\\ud800\"}",
        "{\"op\":\"nope\"}",
    };
    v.push_back(std::string(20000, '[') + std::string(20000, ']'));
    v.push_back("{\"a\":" + std::string(5000, '{') + std::string(5000, '}'));
    return v;
  }();
  LineClient client = agent.connect();
  for (const std::string& line : lines) {
    ++requests;
    if (!client.send(line + "\n")) return fail("hostile", "send failed");
    if (!okReply(client.readLine(20s), false)) return fail("hostile", "no error reply for a line");
  }
}

void eventsScenario(const AgentProcess& agent, const std::string& spool) {
  LineClient client = agent.connect();
  const Json request = {{"op", "shell-events"}, {"dir", spool}, {"truncate", 1},
                        {"maxBytes", 65536}};
  for (int i = 0; i < 3; ++i) {
    ++requests;
    if (!client.send(request.dump() + "\n")) return fail("events", "send failed");
    const auto line = client.readLine(20s);
    if (!okReply(line, true)) return fail("events", "no ok reply");
    const Json reply = Json::parse(*line);
    const auto bytes = tervain::base64::decode(reply.value("events", "?"));
    if (!bytes || static_cast<long>(bytes->size()) != reply.value("bytes", -1L)) {
      return fail("events", "events do not decode to their byte count");
    }
  }
  ++requests;
  if (!client.send("{\"op\":\"ping\"}\n") || !okReply(client.readLine(20s), true)) {
    fail("events", "connection not usable after shell-events");
  }
}

// Runs an exec to its "x" frame, collecting standard output.
bool execToEnd(LineClient& client, std::string& out, int& code) {
  for (int i = 0; i < 100000; ++i) {
    const auto line = client.readLine(30s);
    if (!line) return false;
    const Json frame = Json::parse(*line, nullptr, false);
    const std::string tag = frame.value("t", "");
    if (tag == "o") {
      const auto bytes = tervain::base64::decode(frame.value("d", ""));
      if (!bytes) return false;
      out += *bytes;
    } else if (tag == "x") {
      code = frame.value("code", -2);
      return true;
    } else if (tag == "err") {
      return false;
    }
  }
  return false;
}

void execScenario(const AgentProcess& agent, std::mt19937& rng) {
  LineClient client = agent.connect();
  std::string input(1 + rng() % 5000, 'x');
  for (auto& c : input) c = static_cast<char>('a' + rng() % 26);
  std::string request = "{\"op\":\"exec\",\"command\":\"cat\"}\n";
  request += "{\"t\":\"i\",\"d\":\"" + tervain::base64::encode(input) + "\"}\n{\"t\":\"eof\"}\n";
  ++requests;
  if (!client.send(request)) return fail("exec", "send failed");
  std::string out;
  int code = -3;
  if (!execToEnd(client, out, code)) return fail("exec", "no exit frame");
  if (out != input || code != 0) return fail("exec", "output or exit code wrong");
  if (!client.closedByPeer(10s)) fail("exec", "connection not closed after exit");
}

void abruptScenario(const AgentProcess& agent, std::mt19937& rng) {
  LineClient client = agent.connect();
  ++requests;
  if (rng() % 2) {
    client.send("{\"op\":\"ping\",\"half\":\"");  // and gone in the middle of the line
  } else {
    client.send("{\"op\":\"exec\",\"command\":\"sleep 30\"}\n");
    std::this_thread::sleep_for(std::chrono::milliseconds(rng() % 300));
  }
}

void stalledReaderScenario(const AgentProcess& agent) {
  LineClient client = agent.connect();
  ++requests;
  client.send("{\"op\":\"exec\",\"command\":\"yes soak\"}\n");
  // Read nothing for a while: the agent's write blocks on this connection only.
  for (int i = 0; i < 20 && !stopping; ++i) std::this_thread::sleep_for(100ms);
}

// The command is long done before this host has read its output: all of it must still arrive.
void slowReaderScenario(const AgentProcess& agent) {
  LineClient client = agent.connect();
  ++requests;
  if (!client.send("{\"op\":\"exec\",\"command\":\"head -c 400000 /dev/zero\"}\n")) {
    return fail("slow reader", "send failed");
  }
  std::this_thread::sleep_for(2500ms);  // longer than the pipe grace
  std::string out;
  int code = -3;
  if (!execToEnd(client, out, code)) return fail("slow reader", "no exit frame");
  if (out != std::string(400000, '\0') || code != 0) {
    fail("slow reader", "lost output: " + std::to_string(out.size()) + " bytes, code " +
                            std::to_string(code));
  }
}

// A megabyte of stdin in the 32 KiB frames tervainctl sends, through a command whose output backs
// up into the pipe while the input still arrives; sent and read at once, as a host does.
void stdinHeavyScenario(const AgentProcess& agent, std::mt19937& rng) {
  LineClient client = agent.connect();
  std::string input(1 << 20, '\0');
  for (auto& c : input) c = static_cast<char>(rng());
  ++requests;
  if (!client.send("{\"op\":\"exec\",\"command\":\"cat\"}\n")) {
    return fail("stdin heavy", "send failed");
  }
  std::thread sender([&] {
    for (std::size_t at = 0; at < input.size(); at += 32 * 1024) {
      const std::string_view part = std::string_view(input).substr(at, 32 * 1024);
      if (!client.send("{\"t\":\"i\",\"d\":\"" + tervain::base64::encode(part) + "\"}\n")) return;
    }
    client.send("{\"t\":\"eof\"}\n");
  });
  std::string out;
  int code = -3;
  const bool ended = execToEnd(client, out, code);
  sender.join();
  if (!ended) return fail("stdin heavy", "no exit frame");
  if (out != input || code != 0) {
    fail("stdin heavy", "lost input: " + std::to_string(out.size()) + " of " +
                            std::to_string(input.size()) + " bytes, code " + std::to_string(code));
  }
}

void slowLineScenario(const AgentProcess& agent) {
  LineClient client = agent.connect();
  const std::string head = "{\"op\":\"ping\",\"pad\":\"";
  std::size_t sent = head.size();
  if (!client.send(head)) return fail("slow line", "send failed");
  const std::string chunk(256 * 1024, 'p');
  const std::size_t target = 4 * 1024 * 1024 - 1024;
  while (sent + chunk.size() < target && !stopping) {
    if (!client.send(chunk)) return fail("slow line", "agent closed a line under the bound");
    sent += chunk.size();
    std::this_thread::sleep_for(50ms);
  }
  ++requests;
  if (!client.send("\"}\n") || !okReply(client.readLine(30s), true)) {
    fail("slow line", "no reply to a line under the bound");
  }
}

// The agent's peak resident set since resetClearedPeak(), or -1 where the kernel keeps none.
long peakRssKib(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("VmHWM:", 0) == 0) return std::atol(line.c_str() + 6);
  }
  return -1;
}

bool resetPeakRss(pid_t pid) {
  std::ofstream out("/proc/" + std::to_string(pid) + "/clear_refs");
  out << "5\n";
  out.flush();
  return static_cast<bool>(out);
}

// The agent's own bounds (docs/ARCHITECTURE.md): unfinished request lines of all connections
// together, and connections at once.
constexpr long kPendingBoundKib = 64 * 1024;
constexpr int kConnectionLimit = 512;
// What the agent may use beyond the bytes of unfinished lines when it serves every connection
// it allows: a thread and a 64 KiB read buffer each, and the allocator's slack.
constexpr long kMarginKib = 64 * 1024;

// The partial-line flood: connections that each hold several MB of a line without its line
// feed, more of them than the bound allows, and then more connections than the agent serves.
// The agent must close the connections that pass the bound, refuse those over the limit, keep
// its peak memory under the bound plus the margin, and answer afterwards. Returns whether it did.
bool partialLineFlood(const AgentProcess& agent) {
  constexpr int kHolders = 48;
  constexpr std::size_t kHeld = 3 * 1024 * 1024;
  constexpr int kIdle = kConnectionLimit + 48;
  const pid_t pid = agent.pid();
  const long baseKib = rssKib(pid);
  const bool peakReset = resetPeakRss(pid);
  std::atomic<long> sampledKib{baseKib};
  std::atomic<bool> sampling{true};
  std::thread sampler([&] {
    for (int i = 0; i < 60'000 && sampling; ++i) {
      sampledKib = std::max(sampledKib.load(), rssKib(pid));
      std::this_thread::sleep_for(2ms);
    }
  });

  std::vector<LineClient> holders;
  std::vector<bool> cut(kHolders, false);
  for (int h = 0; h < kHolders; ++h) {
    holders.push_back(agent.connect());
    cut[h] = !holders.back().send("{\"op\":\"ping\",\"pad\":\"");
  }
  const std::string chunk(256 * 1024, 'p');
  for (std::size_t sent = 0; sent < kHeld; sent += chunk.size()) {
    for (int h = 0; h < kHolders; ++h) {
      if (!cut[h]) cut[h] = !holders[h].send(chunk);
    }
  }
  int closedOverBound = 0;
  for (int h = 0; h < kHolders; ++h) {
    if (cut[h] || holders[h].closedByPeer(50ms)) ++closedOverBound;
  }

  std::vector<LineClient> idle;
  int served = 0, refused = 0, unanswered = 0;
  for (int i = 0; i < kIdle; ++i) {
    idle.push_back(agent.connect());
    // A refused connection may be closed before the ping goes out; its refusal is still there
    // to read, so read whether or not the send went through.
    (void)idle.back().send("{\"op\":\"ping\"}\n");
    const std::optional<std::string> line = idle.back().readLine(20s);
    if (okReply(line, true)) {
      ++served;
    } else if (line && line->find("too many connections") != std::string::npos) {
      ++refused;
    } else {
      ++unanswered;
    }
  }
  sampling = false;
  sampler.join();
  const long hwmKib = peakReset ? peakRssKib(pid) : -1;
  const long peakKib = std::max(sampledKib.load(), hwmKib);
  holders.clear();
  idle.clear();

  bool alive = false;
  for (int i = 0; i < 100 && !alive; ++i) {
    std::this_thread::sleep_for(100ms);
    alive = okReply(agent.request("{\"op\":\"ping\"}"), true);
  }
  const long limitKib = baseKib + kPendingBoundKib + kMarginKib;
  std::printf("soak: partial-line flood: %d connections of %zu MiB, %d closed over the %ld MiB "
              "bound, peak rss %ld KiB (from %ld, limit %ld); %d of %d more connections "
              "refused over the limit of %d, %d served, %d unanswered\n",
              kHolders, kHeld >> 20, closedOverBound, kPendingBoundKib >> 10, peakKib, baseKib,
              limitKib, refused, kIdle, kConnectionLimit, served, unanswered);
  if (!alive) fail("flood", "the agent does not answer afterwards");
  if (peakKib > limitKib) fail("flood", "peak rss over the bound plus the margin");
  if (closedOverBound == 0) fail("flood", "no connection was closed over the bound");
  if (refused == 0) fail("flood", "no connection was refused over the limit");
  if (unanswered > 0) fail("flood", "connections neither served nor refused");
  return alive && peakKib <= limitKib && closedOverBound > 0 && refused > 0 && unanswered == 0;
}

}  // namespace

int main(int argc, char** argv) {
  const int seconds = argc > 1 ? std::atoi(argv[1]) : 60;
  signal(SIGPIPE, SIG_IGN);
  tervain::testing::TempDir home;
  const std::string spool = home.file("spool");
  std::filesystem::create_directories(spool);
  AgentProcess agent({.env = {{"TERVAIN_DULK_DISABLE", "1"}, {"HOME", home.path()}}});
  std::this_thread::sleep_for(300ms);
  const int fdsBefore = countEntries("/proc/" + std::to_string(agent.pid()) + "/fd");
  const long rssBefore = rssKib(agent.pid());

  std::thread filler([&] {
    for (long n = 0; !stopping; ++n) {
      if (countEntries(spool) < 200) {
        char name[64];
        std::snprintf(name, sizeof name, "/%012ld.jsonl", n);
        std::ofstream(spool + name) << "{\"event\":" << n << "}\n";
      }
      std::this_thread::sleep_for(2ms);
    }
  });

  const auto deadline = Clock::now() + std::chrono::seconds(seconds);
  std::vector<std::thread> clients;
  for (int c = 0; c < kClients; ++c) {
    clients.emplace_back([&, c] {
      std::mt19937 rng(static_cast<unsigned>(c) * 7919u + 1);
      while (Clock::now() < deadline) {
        if (c < kSlowLineClients) {
          slowLineScenario(agent);
          continue;
        }
        switch (rng() % 12) {
          case 0: case 1: case 2: pingScenario(agent); break;
          case 3: hostileScenario(agent); break;
          case 4: eventsScenario(agent, spool); break;
          case 5: case 6: execScenario(agent, rng); break;
          case 7: case 8: abruptScenario(agent, rng); break;
          case 9: stalledReaderScenario(agent); break;
          case 10: slowReaderScenario(agent); break;
          default: stdinHeavyScenario(agent, rng); break;
        }
      }
    });
  }
  for (auto& t : clients) t.join();
  stopping = true;
  filler.join();

  // Let the agent finish what the departed clients left: killed groups, closed connections.
  int children = 0, fdsAfter = 0;
  long rssAfter = 0;
  for (int i = 0; i < 100; ++i) {
    std::this_thread::sleep_for(100ms);
    children = childrenOf(agent.pid());
    fdsAfter = countEntries("/proc/" + std::to_string(agent.pid()) + "/fd");
    if (children == 0 && fdsAfter <= fdsBefore) break;
  }
  rssAfter = rssKib(agent.pid());
  const bool alive = okReply(agent.request("{\"op\":\"ping\"}"), true) && agent.running();
  if (!alive) fail("end", "the agent does not answer");

  // Memory a busy process keeps in its allocator's free lists is not a leak; growth beyond the
  // live working set of the scenarios is.
  const long rssLimit = rssBefore + 32 * 1024;
  const bool ok = alive && errors == 0 && fdsAfter <= fdsBefore + 1 && rssAfter <= rssLimit &&
                  children == 0;
  const bool held = partialLineFlood(agent);
  std::printf("soak: %ld requests, %ld errors, fds %d->%d, rss %ld->%ld KiB, children %d\n",
              requests.load(), errors.load(), fdsBefore, fdsAfter, rssBefore, rssAfter, children);
  return ok && held ? 0 : 1;
}
