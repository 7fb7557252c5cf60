// exec and shell-events through the built agent, over its Unix socket.
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "agent_process.h"
#include "core/exec_session.h"
#include "exec_test_support.h"

namespace tervain::testing {
namespace {

AgentProcess::Options fallbackShell(std::map<std::string, std::string> env = {}) {
  AgentProcess::Options options;
  options.env = std::move(env);
  options.env["TERVAIN_DULK_DISABLE"] = "1";
  return options;
}

std::string execLine(const std::string& command) {
  return Json{{"op", "exec"}, {"command", command}}.dump() + "\n";
}

// The group id a command reported by echoing $$ first.
int groupFromFirstFrame(LineClient& client) {
  const std::optional<std::string> line = client.readLine();
  if (!line) return -1;
  const Json frame = Json::parse(*line, nullptr, false);
  if (!frame.is_object() || !frame.value("d", Json()).is_string()) return -1;
  return std::atoi(base64::decode(frame["d"].get<std::string>()).value_or("-1").c_str());
}

// ---- exec ---------------------------------------------------------------------------------------

TEST(ExecE2ETest, OutputThenExitThenTheConnectionCloses) {
  AgentProcess agent(fallbackShell());
  LineClient client = agent.connect();
  // The ping in the same write belongs to the exec stream and is never answered.
  ASSERT_TRUE(client.send(execLine("echo hello; echo oops >&2") + "{\"op\":\"ping\"}\n"));
  const ExecTranscript t = readExecFrames(client);
  EXPECT_EQ(t.out, "hello\n");
  EXPECT_EQ(t.err, "oops\n");
  EXPECT_EQ(t.code, 0);
  EXPECT_TRUE(t.badFrames.empty());
  EXPECT_TRUE(client.closedByPeer());
  EXPECT_TRUE(agent.waitForLog("host disconnected (fd "));
}

TEST(ExecE2ETest, StdinFramesInTheSameWriteAsTheRequest) {
  AgentProcess agent(fallbackShell());
  LineClient client = agent.connect();
  ASSERT_TRUE(client.send(execLine("cat") + "{\"t\":\"i\",\"d\":\"aGkK\"}\n{\"t\":\"eof\"}\n"));
  const ExecTranscript t = readExecFrames(client);
  EXPECT_EQ(t.out, "hi\n");
  EXPECT_EQ(t.code, 0);
}

TEST(ExecE2ETest, ACommandThatIsNotAStringGetsAnErrorFrameOnly) {
  AgentProcess agent(fallbackShell());
  LineClient client = agent.connect();
  ASSERT_TRUE(client.send("{\"op\":\"exec\",\"command\":42}\n"));
  const ExecTranscript t = readExecFrames(client);
  EXPECT_EQ(t.error, "exec requires a \"command\" string");
  EXPECT_EQ(t.tags, std::vector<std::string>{"err"});
  EXPECT_TRUE(client.closedByPeer());
}

TEST(ExecE2ETest, ExitCodesAndSignals) {
  AgentProcess agent(fallbackShell());
  {
    LineClient client = agent.connect();
    ASSERT_TRUE(client.send(execLine("exit 3")));
    EXPECT_EQ(readExecFrames(client).code, 3);
  }
  {
    LineClient client = agent.connect();
    ASSERT_TRUE(client.send(execLine("kill -9 $$")));
    EXPECT_EQ(readExecFrames(client).code, 137);
  }
  {
    LineClient client = agent.connect();
    ASSERT_TRUE(client.send(execLine("echo $$; sleep 30")));
    ASSERT_GT(groupFromFirstFrame(client), 1);
    ASSERT_TRUE(client.send("{\"t\":\"sig\",\"n\":15}\n"));
    EXPECT_EQ(readExecFrames(client).code, 143);
  }
}

TEST(ExecE2ETest, LargeOutputIsChunkedAndReassembled) {
  AgentProcess agent(fallbackShell());
  LineClient client = agent.connect();
  ASSERT_TRUE(client.send(execLine("head -c 1000000 /dev/zero | tr '\\0' 'q'")));
  const ExecTranscript t = readExecFrames(client);
  EXPECT_EQ(t.code, 0);
  EXPECT_EQ(t.out, std::string(1000000, 'q'));
  EXPECT_LE(t.largestChunk, 65536u);
}

TEST(ExecE2ETest, ABackgroundJobHoldingStdoutDelaysTheExitFrameOnlyByTheGrace) {
  AgentProcess agent(fallbackShell());
  LineClient client = agent.connect();
  ASSERT_TRUE(client.send(execLine("echo $$; sleep 30 & exit 5")));
  const int group = groupFromFirstFrame(client);
  ASSERT_GT(group, 1);
  EXPECT_EQ(readExecFrames(client, std::chrono::seconds(15)).code, 5);
  EXPECT_TRUE(client.closedByPeer());
  killGroup(group);
}

TEST(ExecE2ETest, AHostThatGoesAwayLeavesNoProcessOfTheGroupAndNoZombie) {
  if (!procAvailable()) GTEST_SKIP() << "needs /proc";
  AgentProcess agent(fallbackShell());
  LineClient client = agent.connect();
  ASSERT_TRUE(client.send(execLine("echo $$; sleep 30 & sleep 30; :")));
  const int group = groupFromFirstFrame(client);
  ASSERT_GT(group, 1);
  client.close();
  ASSERT_TRUE(agent.waitForLog("host disconnected (fd "));
  EXPECT_TRUE(groupGone(group));
  EXPECT_TRUE(zombieChildrenOf(agent.pid()).empty());
  EXPECT_TRUE(agent.running());
}

TEST(ExecE2ETest, MalformedAndUnknownHostFramesAreIgnored) {
  AgentProcess agent(fallbackShell());
  LineClient client = agent.connect();
  ASSERT_TRUE(client.send(execLine("cat") +
                          "{\"t\":\"resize\"}\n{\"t\":\"i\",\"d\":\"!!\"}\n{\"t\":\"i\"}\n[]\n"
                          "{\"t\":\"sig\",\"n\":4294967305}\nnope\n\r\n"
                          "{\"t\":\"i\",\"d\":\"aGkK\"}\r\n{\"t\":\"eof\"}\n"));
  const ExecTranscript t = readExecFrames(client);
  EXPECT_EQ(t.out, "hi\n");
  EXPECT_EQ(t.code, 0);
}

TEST(ExecE2ETest, AMissingAgentShellIsRefused) {
  if (::access(std::string(ExecSession::defaultDulkPath).c_str(), X_OK) == 0) {
    GTEST_SKIP() << "an agent shell is installed here";
  }
  for (const char* disable : {static_cast<const char*>(nullptr), "true"}) {
    AgentProcess::Options options;
    if (disable != nullptr) {
      options.env["TERVAIN_DULK_DISABLE"] = disable;
    } else {
      options.unsetEnv.push_back("TERVAIN_DULK_DISABLE");
    }
    AgentProcess agent(options);
    LineClient client = agent.connect();
    ASSERT_TRUE(client.send(execLine("echo hi")));
    const ExecTranscript t = readExecFrames(client);
    EXPECT_EQ(t.error, ExecSession::dulkMissingMessage());
    EXPECT_EQ(t.tags, std::vector<std::string>{"err"});
    EXPECT_TRUE(client.closedByPeer());
  }
}

TEST(ExecE2ETest, AnExecLineWithARawNulIsMalformedAndRunsNothing) {
  AgentProcess agent(fallbackShell());
  const std::string marker = agent.dir().file("ran");
  std::string line = execLine("touch " + marker);
  line.insert(line.size() - 1, std::string("\0 junk", 6));
  LineClient client = agent.connect();
  ASSERT_TRUE(client.send(line + "{\"op\":\"ping\"}\n"));
  EXPECT_EQ(Json::parse(client.readLine().value_or("null")).value("error", ""),
            "malformed request (want one JSON object per line with an \"op\")");
  // The connection stays an ordinary one: nothing took it over.
  EXPECT_EQ(Json::parse(client.readLine().value_or("null")).value("version", 0), 2);
  EXPECT_FALSE(std::filesystem::exists(marker));
}

// ---- shell-events -------------------------------------------------------------------------------

class ShellEventsE2ETest : public ::testing::Test {
 protected:
  ShellEventsE2ETest() : agent(fallbackShell({{"HOME", home.path()}})) {}

  void writeEvent(const std::string& dir, const std::string& name, const std::string& text) {
    std::filesystem::create_directories(dir);
    std::ofstream(dir + "/" + name, std::ios::binary) << text;
  }

  Json drain(const Json& request) {
    const std::optional<std::string> line = agent.request(request.dump());
    return line ? Json::parse(*line, nullptr, false) : Json();
  }

  static std::string events(const Json& reply) {
    return base64::decode(reply.value("events", "")).value_or("<bad base64>");
  }

  TempDir home;
  TempDir spool;
  AgentProcess agent;
};

TEST_F(ShellEventsE2ETest, NoSpoolDirectoryGivesAnEmptySuccess) {
  EXPECT_EQ(drain({{"op", "shell-events"}}),
            Json::parse(R"({"ok":true,"events":"","files":0,"bytes":0,"truncated":false})"));
}

TEST_F(ShellEventsE2ETest, TheDefaultSpoolIsUnderTheAgentsHome) {
  const std::string dir = home.path() + "/Library/Caches/tervain-dulk";
  writeEvent(dir, "1.jsonl", "{\"e\":1}\n");
  const Json reply = drain({{"op", "shell-events"}});
  EXPECT_EQ(events(reply), "{\"e\":1}\n");
  EXPECT_EQ(reply["bytes"], 8);
}

TEST_F(ShellEventsE2ETest, TruthyTruncateDeletesWhatWasDelivered) {
  for (const Json& truncate : {Json(1), Json(true), Json(2.5), Json(-1)}) {
    writeEvent(spool.path(), "a.jsonl", "A\n");
    writeEvent(spool.path(), "b.jsonl", "B\n");
    // Deletion follows the reply; a second request on the same connection is served after it.
    LineClient client = agent.connect();
    const std::string request =
        Json{{"op", "shell-events"}, {"dir", spool.path()}, {"truncate", truncate}}.dump() + "\n";
    ASSERT_TRUE(client.send(request));
    const Json reply = Json::parse(client.readLine().value_or("null"));
    EXPECT_EQ(reply["files"], 2) << truncate;
    EXPECT_EQ(events(reply), "A\nB\n");
    ASSERT_TRUE(client.send(request));
    EXPECT_EQ(Json::parse(client.readLine().value_or("null"))["files"], 0) << truncate;
    EXPECT_FALSE(std::filesystem::exists(spool.file("a.jsonl")));
    EXPECT_FALSE(std::filesystem::exists(spool.file("b.jsonl")));
  }
}

TEST_F(ShellEventsE2ETest, EventsAppendedWhileTheReplyIsOnItsWayAreNotDeleted) {
  // A reply far larger than the socket's buffers keeps the agent writing until this side reads,
  // so an event appended then lands after the read and before the deletion, every time.
  writeEvent(spool.path(), "a.jsonl", std::string(3 << 20, 'a'));
  writeEvent(spool.path(), "b.jsonl", "B1\n");
  LineClient client = agent.connect();
  ASSERT_TRUE(client.send(
      Json{{"op", "shell-events"}, {"dir", spool.path()}, {"truncate", true}}.dump() + "\n"));
  pollfd replying{client.descriptor(), POLLIN, 0};
  ASSERT_EQ(::poll(&replying, 1, 10000), 1);
  std::ofstream(spool.file("b.jsonl"), std::ios::app) << "B2\n";
  const Json reply = Json::parse(client.readLine().value_or("null"));
  EXPECT_EQ(reply["files"], 2);
  EXPECT_FALSE(std::filesystem::exists(spool.file("a.jsonl")));
  // The grown file stays, and the next drain (served after the deletion) delivers it whole.
  ASSERT_TRUE(client.send(Json{{"op", "shell-events"}, {"dir", spool.path()}}.dump() + "\n"));
  EXPECT_EQ(events(Json::parse(client.readLine().value_or("null"))), "B1\nB2\n");
}

TEST_F(ShellEventsE2ETest, ExactDeletionRemovesOnlyFilesStillAsDelivered) {
  writeEvent(spool.path(), "a.jsonl", "A\n");
  writeEvent(spool.path(), "b.jsonl", "B\n");
  writeEvent(spool.path(), "c.jsonl", "C\n");
  const Json listed = drain({{"op", "shell-events"}, {"dir", spool.path()}, {"listFiles", true}});
  EXPECT_EQ(listed["delivered"], Json::parse(R"([{"name":"a.jsonl","bytes":2},
      {"name":"b.jsonl","bytes":2},{"name":"c.jsonl","bytes":2}])"));
  EXPECT_EQ(events(listed), "A\nB\nC\n");

  // A garbled list deletes nothing at all.
  for (const Json& garbled : {Json("all"), Json::parse(R"([{"name":"a.jsonl","bytes":2},
      {"name":"c.jsonl"}])"), Json::parse(R"([{"name":"a.jsonl","bytes":-1}])")}) {
    const Json refused = drain({{"op", "shell-events"}, {"dir", spool.path()}, {"delete", garbled}});
    EXPECT_EQ(refused["ok"], false) << garbled;
    EXPECT_TRUE(std::filesystem::exists(spool.file("a.jsonl"))) << garbled;
  }

  std::ofstream(spool.file("b.jsonl"), std::ios::app) << "B2\n";
  Json deletions = listed["delivered"];
  deletions.push_back({{"name", "../" + std::filesystem::path(spool.path()).filename().string() +
                                    "/c.jsonl"},
                       {"bytes", 2}});
  EXPECT_EQ(drain({{"op", "shell-events"}, {"dir", spool.path()}, {"delete", deletions}}),
            Json::parse(R"({"ok":true,"deleted":["a.jsonl","c.jsonl"],
                "kept":["b.jsonl","../)" + std::filesystem::path(spool.path()).filename().string() +
                        R"(/c.jsonl"]})"));
  EXPECT_EQ(events(drain({{"op", "shell-events"}, {"dir", spool.path()}})), "B\nB2\n");
}

TEST_F(ShellEventsE2ETest, OtherTruncateValuesDeleteNothing) {
  writeEvent(spool.path(), "a.jsonl", "A\n");
  for (const Json& truncate : {Json("true"), Json(0), Json(false), Json(0.0), Json(nullptr),
                               Json::array({1}), Json::object({{"x", 1}})}) {
    const Json reply = drain({{"op", "shell-events"}, {"dir", spool.path()}, {"truncate", truncate}});
    EXPECT_EQ(reply["files"], 1) << truncate;
    EXPECT_TRUE(std::filesystem::exists(spool.file("a.jsonl"))) << truncate;
  }
}

TEST_F(ShellEventsE2ETest, AValueOfTheWrongTypeCountsAsAbsent) {
  writeEvent(spool.path(), "a.jsonl", std::string(200, 'a'));
  const Json reply = drain({{"op", "shell-events"}, {"dir", spool.path()}, {"maxBytes", "100"}});
  EXPECT_EQ(reply["files"], 1);
  EXPECT_EQ(reply["truncated"], false);
  // A "dir" that is not a string drains the default spool (missing here).
  EXPECT_EQ(drain({{"op", "shell-events"}, {"dir", 5}})["files"], 0);
}

TEST_F(ShellEventsE2ETest, AnOversizedFileStaysInTheSpool) {
  writeEvent(spool.path(), "big.jsonl", std::string(101, 'b'));
  const Json reply = drain(
      {{"op", "shell-events"}, {"dir", spool.path()}, {"maxBytes", 100}, {"truncate", true}});
  EXPECT_EQ(reply, Json::parse(R"({"ok":true,"events":"","files":0,"bytes":0,"truncated":true})"));
  EXPECT_TRUE(std::filesystem::exists(spool.file("big.jsonl")));
}

TEST_F(ShellEventsE2ETest, TheConnectionGoesOnAfterTheReply) {
  writeEvent(spool.path(), "a.jsonl", "A\n");
  LineClient client = agent.connect();
  ASSERT_TRUE(client.send(Json{{"op", "shell-events"}, {"dir", spool.path()}}.dump() +
                          "\n{\"op\":\"ping\"}\n"));
  const std::optional<std::string> first = client.readLine();
  ASSERT_TRUE(first);
  EXPECT_EQ(Json::parse(*first)["files"], 1);
  const std::optional<std::string> second = client.readLine();
  ASSERT_TRUE(second);
  EXPECT_EQ(Json::parse(*second)["version"], 2);
}

}  // namespace
}  // namespace tervain::testing
