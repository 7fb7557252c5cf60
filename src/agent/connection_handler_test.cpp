#include "agent/connection_handler.h"
#include "agent/operations.h"

#include <sys/socket.h>

#include <chrono>
#include <functional>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "agent/agent_listener.h"
#include "agent_process.h"
#include "fake_desktop.h"

namespace tervain {
namespace {

class DispatchTest : public ::testing::Test {
 protected:
  testing::FakeDesktop desktop;
  AgentContext context{desktop};
  ConnectionHandler handler{-1, context};

  Json reply(std::string_view line) { return Json::parse(handler.handle(line)); }
  std::string error(std::string_view line) { return reply(line).value("error", ""); }
};

constexpr const char* kMalformed = "malformed request (want one JSON object per line with an \"op\")";

TEST_F(DispatchTest, MalformedRequests) {
  using namespace std::string_view_literals;
  for (std::string_view line :
       {R"({"op":5})"sv, "[1,2]"sv, "\"ping\""sv, "{}"sv, "{"sv, "ping"sv, "null"sv,
        R"({"op":null})"sv, R"({"op":["ping"]})"sv, "{\"op\":\"ping\"} x"sv,
        // A raw NUL is no end of the line: what follows it is part of the request.
        "{\"op\":\"ping\"}\0 junk"sv, "{\"op\":\"ping\"}\0"sv, "{\"op\":\0\"ping\"}"sv,
        "{\"op\":\"pi\0ng\"}"sv}) {
    EXPECT_EQ(reply(line), Json({{"ok", false}, {"error", kMalformed}})) << line;
  }
}

TEST_F(DispatchTest, UnserialisableReplyBecomesTheFixedLine) {
  // An op name that is not valid UTF-8 cannot even be parsed, so it is malformed; an op whose
  // echo would be fine but long still serialises.
  EXPECT_EQ(handler.handle(std::string("{\"op\":\"a\xff\"}")),
            serializeReply(Reply::failure(kMalformed)));
  const std::string longOp(100000, 'x');
  EXPECT_EQ(error("{\"op\":\"" + longOp + "\"}"), "unknown op '" + longOp + "' (agent protocol v2)");
}

TEST_F(DispatchTest, PingReportsDisplaysAndReadinessReadPerRequest) {
  desktop.screens = {{69733378, 1920, 1080, true}};
  desktop.accessibility = false;
  desktop.screenRecording = false;
  desktop.postEvents = false;
  Json ping = reply(R"({"op":"ping","extra":[1]})");
  // Every operation the agent answers, streaming ones included, in table order, then options.
  Json features = Json::array();
  for (const Operation& operation : operationTable()) features.push_back(operation.name);
  ASSERT_EQ(features.size(), 27u);
  for (const char* option :
       {"screenshot.region", "screenshot.maxSize", "screenshot.png", "screenshot.quality",
        "click.modifiers", "scroll.modifiers", "drag.modifiers", "exec.env", "exec.cwd",
        "exec.timeout", "exec.tty"}) {
    features.push_back(option);
  }
  EXPECT_EQ(ping["features"], features);
  EXPECT_EQ(ping["agentVersion"], TERVAIN_VERSION);
  ping.erase("features");
  ping.erase("agentVersion");
  EXPECT_EQ(ping, Json::parse(R"({"ok":true,"version":2,"desktop":"fake",
              "displays":[{"id":69733378,"width":1920,"height":1080,"main":true}],
              "readiness":{"accessibility":false,"screenRecording":false,"postEvent":false}})"));

  desktop.accessibility = true;
  desktop.postEvents = true;
  EXPECT_EQ(reply(R"({"op":"ping"})")["readiness"],
            Json::parse(R"({"accessibility":true,"screenRecording":false,"postEvent":true})"));
}

TEST_F(DispatchTest, PingReportsAtMostEightDisplays) {
  for (std::uint32_t id = 1; id <= 10; ++id) desktop.screens.push_back({id, 800, 600, id == 1});
  const Json displays = reply(R"({"op":"ping"})")["displays"];
  ASSERT_EQ(displays.size(), 8u);
  EXPECT_EQ(displays[7]["id"], 8);
  desktop.screens.clear();
  EXPECT_EQ(reply(R"({"op":"ping"})")["displays"], Json::array());
}

TEST_F(DispatchTest, CursorPositionRoundsHalvesAwayFromZero) {
  desktop.pointer = Point{100.5, 200.49};
  EXPECT_EQ(reply(R"({"op":"cursor_position"})"), Json({{"ok", true}, {"x", 101}, {"y", 200}}));
  desktop.pointer = Point{-10.5, -0.4};
  EXPECT_EQ(reply(R"({"op":"cursor_position"})"), Json({{"ok", true}, {"x", -11}, {"y", 0}}));
  desktop.pointer = std::nullopt;
  EXPECT_EQ(error(R"({"op":"cursor_position"})"),
            "could not read the cursor position (no event source)");
  desktop.pointer = Point{std::numeric_limits<double>::quiet_NaN(), 0};
  EXPECT_EQ(error(R"({"op":"cursor_position"})"),
            "could not read the cursor position (no event source)");
}

// ---- fixed texts that no family's tests drive -----------------------------------------------

// Hosts match on these texts, so they are part of the wire. Each is driven through the whole
// connection (one request line, the handler, the operation, the scripted desktop); the texts the
// families' own tests pin are not repeated here.
TEST(OperationMessages, FailuresInsideTheAgentTheSpoolAndExec) {
  using Setup = std::function<void(testing::FakeDesktop&)>;
  const auto launchThrows = [](auto thrown) -> Setup {
    return [thrown](testing::FakeDesktop& d) {
      d.onLaunch = [thrown](const std::string&, std::function<void(LaunchResult)>) {
        throw thrown;
      };
    };
  };
  const auto captureThrows = [](auto thrown) -> Setup {
    return [thrown](testing::FakeDesktop& d) {
      d.captureDisplays = {{{100, 100, 1.0f}}};
      d.onCapture = [thrown](int, std::int64_t, std::int64_t) -> CapturedImage { throw thrown; };
    };
  };
  const struct {
    Setup setup;
    std::string line;
    std::string error;  // "error" of a reply, "m" of an exec "err" frame
  } cases[] = {
      {launchThrows(std::runtime_error("no workspace")), R"({"op":"launch_app","name":"A"})",
       "launch_app failed inside the agent: no workspace"},
      {launchThrows(7), R"({"op":"launch_app","name":"A"})", "launch_app failed inside the agent"},
      {captureThrows(std::runtime_error("no capture service")), R"({"op":"screenshot"})",
       "screenshot failed inside the agent: no capture service"},
      {captureThrows(7), R"({"op":"screenshot"})", "screenshot failed inside the agent"},
      {{}, R"({"op":"shell-events","dir":"/nonexistent","delete":[{"name":"1.jsonl"}]})",
       "shell-events \"delete\" wants a list of {\"name\":...,\"bytes\":...} as a drain with "
       "\"listFiles\" reported them \u2014 nothing was deleted"},
      {{}, R"({"op":"exec","command":"echo a\u0000b"})",
       "exec command holds a NUL byte at offset 6 \u2014 a command cannot contain one; nothing "
       "was run"},
  };
  for (const auto& c : cases) {
    testing::FakeDesktop desktop;
    if (c.setup) c.setup(desktop);
    AgentContext context{desktop};
    context.startWorker = [](std::function<void()> job) { job(); };
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    testing::LineClient host(ends[0]);
    ASSERT_TRUE(host.send(c.line + "\n"));
    host.shutdownWrite();
    ConnectionHandler(ends[1], context).run();  // to the end of the request stream
    const Json reply = Json::parse(host.readLine().value_or("{}"));
    EXPECT_EQ(reply.value("error", reply.value("m", "")), c.error) << c.line;
  }
}

// ---- limits across connections ------------------------------------------------------------

using namespace std::chrono_literals;

// Waits (bounded) until the condition holds.
bool eventually(const std::function<bool()>& condition) {
  for (int i = 0; i < 1000; ++i) {
    if (condition()) return true;
    std::this_thread::sleep_for(10ms);
  }
  return condition();
}

class ConnectionLimitsTest : public ::testing::Test {
 protected:
  ~ConnectionLimitsTest() override {
    for (testing::LineClient& client : clients) client.close();
    for (std::thread& t : handlers) t.join();
    // Handler threads the listener detached end once their hosts have gone.
    EXPECT_TRUE(eventually([this] { return context.connections.used() == 0; }));
    EXPECT_EQ(context.pendingLineBytes.used(), 0u);
  }

  // A connection served by its own handler over a socket pair.
  testing::LineClient& serve() {
    int ends[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    handlers.emplace_back([this, fd = ends[1]] { ConnectionHandler(fd, context).run(); });
    return clients.emplace_back(ends[0]);
  }

  bool holds(std::size_t bytes) {
    return eventually([&] { return context.pendingLineBytes.used() == bytes; });
  }

  testing::FakeDesktop desktop;
  AgentContext context{desktop};
  std::vector<testing::LineClient> clients;
  std::vector<std::thread> handlers;
};

// Only unfinished lines count, each connection's only while it lasts; the connection whose bytes
// would pass the bound is the one closed, and the others go on.
TEST_F(ConnectionLimitsTest, UnfinishedLinesOfAllConnectionsShareOneBound) {
  context.pendingLineBytes.limit = 10'000;
  clients.reserve(4);
  testing::LineClient& first = serve();
  ASSERT_TRUE(first.send(std::string(6'000, 'a')));
  ASSERT_TRUE(holds(6'000));

  testing::LineClient& second = serve();
  ASSERT_TRUE(second.send(std::string(3'000, 'b')));
  ASSERT_TRUE(holds(9'000));
  ASSERT_TRUE(second.send(std::string(1'001, 'b')));
  EXPECT_TRUE(second.closedByPeer());
  ASSERT_TRUE(holds(6'000));  // its share given back

  // The first goes on: its line ends, and only what follows its last line feed still counts.
  ASSERT_TRUE(first.send("\n{\"op\":\"ping\"}\n{\"op\""));
  EXPECT_EQ(Json::parse(first.readLine().value_or("{}")).value("error", ""), kMalformed);
  EXPECT_EQ(Json::parse(first.readLine().value_or("{}")).value("ok", false), true);
  ASSERT_TRUE(holds(5));

  testing::LineClient& third = serve();
  ASSERT_TRUE(third.send(std::string(9'995, 'c') + "\n{\"op\":\"ping\"}\n"));
  EXPECT_EQ(Json::parse(third.readLine().value_or("{}")).value("error", ""), kMalformed);
  EXPECT_EQ(Json::parse(third.readLine().value_or("{}")).value("ok", false), true);
}

// Past the limit a host is told why and closed at once, the loop keeps accepting, and a
// connection that ends makes room for the next.
TEST_F(ConnectionLimitsTest, ConnectionsOverTheLimitAreRefusedUntilOneEnds) {
  context.connections.limit = 2;
  testing::TempDir dir;
  AgentListener listener(AgentListener::UnixSocket{dir.file("agent.sock")});
  const auto connect = [&] {
    clients.push_back(testing::LineClient::connectUnix(dir.file("agent.sock")));
    listener.acceptOne(context);
    return clients.size() - 1;
  };
  const auto answers = [&](std::size_t i) {
    return clients[i].send("{\"op\":\"ping\"}\n") &&
           Json::parse(clients[i].readLine().value_or("{}")).value("ok", false);
  };
  const Json refusal = {{"ok", false},
                        {"error", "too many connections: the agent serves at most 2 at once"}};
  clients.reserve(6);
  const std::size_t a = connect(), b = connect();
  for (int round = 0; round < 2; ++round) {
    const std::size_t over = connect();
    EXPECT_EQ(Json::parse(clients[over].readLine().value_or("{}")), refusal);
    EXPECT_TRUE(clients[over].closedByPeer());
  }
  EXPECT_TRUE(answers(a));
  EXPECT_TRUE(answers(b));

  clients[a].close();
  ASSERT_TRUE(eventually([&] { return context.connections.used() == 1; }));
  EXPECT_TRUE(answers(connect()));
  ::close(listener.descriptor());
}

}  // namespace
}  // namespace tervain
