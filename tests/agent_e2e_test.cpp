// The built agent, started with --unix in a temporary directory and driven over real sockets.
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "agent_process.h"
#include "core/json.h"
#include "vsock/tervain_vsock.h"

namespace tervain::testing {
namespace {

constexpr const char* kMalformed =
    R"J({"ok":false,"error":"malformed request (want one JSON object per line with an \"op\")"})J";

std::string errorOf(const std::optional<std::string>& line) {
  if (!line) return "<no reply>";
  return Json::parse(*line).value("error", "<no error>");
}

// One connection: a request split over writes, CR LF and empty lines, pipelining, a malformed
// line that keeps the connection, and a last request without its line feed that gets nothing;
// the banner and the connection's two log lines (the readiness line's text is StartupTest's).
TEST(AgentE2ETest, FramingPipeliningAndMalformedLines) {
  AgentProcess agent;
  LineClient client = agent.connect();
  for (const char* piece : {"{\"o", "p\":\"P", "ING\"", "}"}) {
    ASSERT_TRUE(client.send(piece));
    EXPECT_FALSE(client.readLine(50ms));
  }
  ASSERT_TRUE(client.send("\r\n\r\n\n\r\n{\"op\":\"nope\"}\r\r\n{\"op\":\"x\"}\n"));
  EXPECT_EQ(errorOf(client.readLine()), "unknown op 'PING' (agent protocol v2)");
  // "\r\r" loses one "\r": the line still ends in a carriage return, which JSON takes as space.
  EXPECT_EQ(errorOf(client.readLine()), "unknown op 'nope' (agent protocol v2)");
  EXPECT_EQ(errorOf(client.readLine()), "unknown op 'x' (agent protocol v2)");
  ASSERT_TRUE(client.send("not json\n{\"op\":\"ping\"}\n"));
  EXPECT_EQ(Json::parse(client.readLine().value_or("0")), Json::parse(kMalformed));
  EXPECT_EQ(Json::parse(client.readLine().value_or("{}")).value("ok", false), true);
  // The lone "\r" lines and empty lines got nothing, nor does the unfinished request.
  ASSERT_TRUE(client.send("{\"op\":\"ping\"}"));
  client.shutdownWrite();
  EXPECT_TRUE(client.closedByPeer());
  EXPECT_TRUE(agent.waitForLog("host disconnected (fd "));
  EXPECT_NE(agent.log().find("[TervainVMAgent] TervainVMAgent protocol v2 starting on unix socket " +
                             agent.socketPath() + "\n[TervainVMAgent] readiness: "),
            std::string::npos);
  EXPECT_NE(agent.log().find("[TervainVMAgent] host connected (fd "), std::string::npos);
}

// A connection may hold 4 MiB without a line feed, and not one byte more.
TEST(AgentE2ETest, FourMebibytesWithoutALineFeedAndNotOneByteMore) {
  AgentProcess agent;
  LineClient over = agent.connect();
  over.send(std::string(4 * 1024 * 1024 + 1, 'a'));
  EXPECT_TRUE(over.closedByPeer());
  EXPECT_TRUE(agent.waitForLog(
      "request line longer than 4194304 bytes without a line feed: connection closed (fd "));

  LineClient client = agent.connect();
  const std::string head = "{\"op\":\"ping\",\"pad\":\"";
  const std::string tail = "\"}";
  const std::size_t padding = 4 * 1024 * 1024 - head.size() - tail.size();
  std::string line = head + std::string(padding, 'p') + tail;
  ASSERT_EQ(line.size(), 4u * 1024 * 1024);
  // The line feed comes a moment later, so the agent holds exactly the bound unanswered first.
  std::thread writer([&] {
    client.send(line);
    std::this_thread::sleep_for(500ms);
    client.send("\n");
  });
  const auto reply = client.readLine(30s);
  writer.join();
  ASSERT_TRUE(reply);
  EXPECT_EQ(Json::parse(*reply)["ok"], true);
}

TEST(AgentE2ETest, FiftyConcurrentConnectionsEachPipeliningAHundredRequests) {
  AgentProcess agent;
  std::atomic<int> good{0};
  std::vector<std::thread> threads;
  for (int c = 0; c < 50; ++c) {
    threads.emplace_back([&, c] {
      const auto op = [c](int i) { return "op" + std::to_string(c) + "_" + std::to_string(i); };
      LineClient client = agent.connect();
      std::string batch;
      for (int i = 0; i < 100; ++i) batch += "{\"op\":\"" + op(i) + "\"}\n";
      if (!client.send(batch)) return;
      for (int i = 0; i < 100; ++i) {
        if (errorOf(client.readLine()) != "unknown op '" + op(i) + "' (agent protocol v2)") return;
      }
      good.fetch_add(1);
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(good.load(), 50);
  EXPECT_TRUE(agent.running());
}

TEST(AgentE2ETest, AStandardErrorNobodyReadsNeverStopsServing) {
  // Each connection logs two lines (about 80 bytes): 1,200 of them hold more than the pipe and
  // the agent's queue together.
  AgentProcess agent;
  agent.holdLog(true);
  int served = 0;
  for (int i = 0; i < 1200; ++i) {
    LineClient client = agent.connect();
    if (!client.send("{\"op\":\"ping\"}\n") || !client.readLine(5s)) break;
    ++served;
  }
  EXPECT_EQ(served, 1200);
  // Once standard error is read again, the agent says how many lines it had to drop.
  agent.holdLog(false);
  EXPECT_TRUE(agent.waitForLog(" log lines dropped: standard error was not being read\n"));
}

TEST(AgentE2ETest, VsockListenFailureIsFatalWithTheHint) {
  // Hold the port so that the agent's bind fails; this only listens, never connects.
  const int held = tervain_vsock_listen(52036, 4);
  if (held < 0) GTEST_SKIP() << "no vsock transport here";
  AgentProcess agent(
      {.unixSocket = false, .env = {{"TERVAIN_AGENT_PORT", "+52036"}}, .waitForReady = false});
  const auto status = agent.waitForExit();
  close(held);
  EXPECT_EQ(status, 1);
  EXPECT_NE(agent.log().find("[TervainVMAgent] TervainVMAgent protocol v2 starting on vsock "
                             "port 52036\n"),
            std::string::npos);
  EXPECT_NE(agent.log().find("[TervainVMAgent] FATAL: vsock listen(:52036) failed: Address "
                             "already in use \u2014 is this running inside a macOS guest VM? "
                             "(AF_VSOCK fails ENODEV on a host)\n"),
            std::string::npos)
      << agent.log();
}

// What ends the agent at start-up: its exit status and what it says.
TEST(AgentE2ETest, VersionUsageErrorsAndAnUnusableSocketPath) {
  TempDir dir;
  const std::string path = dir.file("missing/agent.sock");
  const std::tuple<std::vector<std::string>, int, std::string> cases[] = {
      {{"--version"}, 0, "TervainVMAgent protocol v2 (build "},
      {{"--bogus"}, 2, "unknown argument '--bogus'"}, {{"--bogus"}, 2, "usage: TervainVMAgent"},
      {{"--unix", path}, 1,
       "[TervainVMAgent] FATAL: unix listen(" + path + ") failed: No such file or directory\n"}};
  for (const auto& [args, status, text] : cases) {
    AgentProcess agent({.unixSocket = false, .args = args, .waitForReady = false});
    EXPECT_EQ(agent.waitForExit(), status) << text;
    EXPECT_TRUE(agent.waitForLog(text)) << agent.log();
  }
}

}  // namespace
}  // namespace tervain::testing
