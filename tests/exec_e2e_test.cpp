// exec and shell-events through the built agent, over its Unix socket.
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include <gtest/gtest.h>

#include "agent_process.h"
#include "core/exec_session.h"
#include "core/posix/login_shell.h"
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
  // What follows the exec line in the same write belongs to the command: the ping is an unknown
  // frame, never answered, and the "i" frame is the command's input.
  ASSERT_TRUE(client.send(execLine("cat; echo oops >&2") + "{\"op\":\"ping\"}\n" +
                          stdinFrame("hello\n") + "{\"t\":\"eof\"}\n"));
  const ExecTranscript t = readExecFrames(client);
  EXPECT_EQ(t.out, "hello\n");
  EXPECT_EQ(t.err, "oops\n");
  EXPECT_EQ(t.code, 0);
  EXPECT_TRUE(t.badFrames.empty());
  EXPECT_TRUE(client.closedByPeer());
  EXPECT_TRUE(agent.waitForLog("host disconnected (fd "));
}

TEST(ExecE2ETest, ABadCommandGetsAnErrorFrameOnlyAndNothingRuns) {
  AgentProcess agent(fallbackShell());
  const struct {
    std::string request;
    std::string error;  // a part of the message
  } cases[] = {
      {"{\"op\":\"exec\",\"command\":42}", "exec requires a \"command\" string"},
      {"{\"op\":\"exec\"}", "exec requires a \"command\" string"},
      {"{\"op\":\"exec\",\"command\":null}", "exec requires a \"command\" string"},
      // A C string would end at the NUL: only "echo first" would run, and succeed.
      {R"({"op":"exec","command":"echo first\u0000; echo second"})", "NUL byte at offset 10"},
      {R"({"op":"exec","command":"true","tty":{"rows":24,"cols":0}})",
       R"("cols" must be an integer from 1 to 10000)"},
  };
  for (const auto& c : cases) {
    LineClient client = agent.connect();
    ASSERT_TRUE(client.send(c.request + "\n"));
    const ExecTranscript t = readExecFrames(client);
    EXPECT_NE(t.error.value_or("").find(c.error), std::string::npos) << t.error.value_or("-");
    EXPECT_EQ(t.tags, std::vector<std::string>{"err"}) << c.request;
    EXPECT_TRUE(client.closedByPeer());
  }
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
  EXPECT_FALSE(hasZombieChildren(agent.pid()));
  EXPECT_TRUE(agent.running());
}

// Random bytes, the same on every run.
std::string randomBytes(std::size_t size) {
  std::string bytes(size, '\0');
  std::mt19937 random(11);
  for (char& c : bytes) c = static_cast<char>(random());
  return bytes;
}

// What "od -An -tx1 -v" prints for bytes.
std::string odHex(const std::string& bytes) {
  static const char digits[] = "0123456789abcdef";
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const auto b = static_cast<unsigned char>(bytes[i]);
    text += ' ';
    text += digits[b >> 4];
    text += digits[b & 15];
    if (i % 16 == 15 || i + 1 == bytes.size()) text += '\n';
  }
  return text;
}

// The host sends its stdin from one thread while reading every frame on another, as tervainctl
// does; a command whose output backs up (three bytes out for each byte in) must not cost any of
// its input.
TEST(ExecE2ETest, LargeStdinComesOutWholeThroughACommandWhoseOutputBacksUp) {
  AgentProcess agent(fallbackShell());
  const std::string input = randomBytes(1 << 20);
  LineClient client = agent.connect();
  ASSERT_TRUE(client.send(execLine("od -An -tx1 -v")));
  std::thread sender([&] {
    for (std::size_t at = 0; at < input.size(); at += 32 << 10) {
      if (!client.send(stdinFrame(std::string_view(input).substr(at, 32 << 10)))) return;
    }
    client.send("{\"t\":\"eof\"}\n");
  });
  const ExecTranscript t = readExecFrames(client, std::chrono::seconds(60));
  sender.join();
  const std::string expected = odHex(input);
  EXPECT_EQ(t.code, 0);
  EXPECT_EQ(t.out.size(), expected.size());
  EXPECT_TRUE(t.out == expected);
}

// Output the command wrote before it exited is delivered however slowly the host reads it: a
// host that stops reading for longer than the pipe grace still gets every byte.
TEST(ExecE2ETest, OutputWrittenBeforeTheExitReachesASlowHost) {
  AgentProcess agent(fallbackShell());
  LineClient client = agent.connect();
  ASSERT_TRUE(client.send(execLine("head -c 900000 /dev/zero")));
  std::size_t received = 0;
  std::optional<int> code;
  bool paused = false;
  for (int frames = 0; frames < 10000 && !code; ++frames) {
    const std::optional<std::string> line = client.readLine(std::chrono::seconds(20));
    if (!line) break;
    const Json frame = Json::parse(*line, nullptr, false);
    if (frame.value("t", "") == "x") code = frame.value("code", -2);
    received += base64::decode(frame.value("d", "")).value_or("").size();
    if (received >= 150000 && !paused) {
      paused = true;
      std::this_thread::sleep_for(std::chrono::seconds(3));
    }
  }
  EXPECT_EQ(received, 900000u);
  EXPECT_EQ(code, 0);
}

// "sig" frames and a hang-up must not wait for stdin the command does not read (it used to cost
// a second per "i" frame, over 20 s here).
TEST(ExecE2ETest, ASignalOrAHangUpIsNotQueuedBehindUnreadStdin) {
  AgentProcess agent(fallbackShell());
  for (const bool hangUp : {false, true}) {
    LineClient client = agent.connect();
    ASSERT_TRUE(client.send(execLine("echo $$; sleep 300")));
    const int group = groupFromFirstFrame(client);
    ASSERT_GT(group, 1);
    std::string flood = stdinFrame(std::string(3 << 19, 'f'));
    for (int i = 0; i < 20; ++i) flood += stdinFrame("tiny");
    if (!hangUp) flood += "{\"t\":\"sig\",\"n\":9}\n";
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(client.send(flood));
    if (hangUp) {
      client.close();
      EXPECT_TRUE(groupGone(group, std::chrono::seconds(30)));
    } else {
      EXPECT_EQ(readExecFrames(client, std::chrono::seconds(30)).code, 137);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10))
        << (hangUp ? "hang-up" : "signal") << " waited behind the stdin frames";
    killGroup(group);
  }
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TERVAIN_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define TERVAIN_SANITIZED 1
#endif
#endif

// Bytes without a line feed used to pile up until the agent ran out of memory and aborted,
// taking every other connection and command with it.
TEST(ExecE2ETest, AnEndlessHostLineEndsItsSessionNotTheAgent) {
#ifdef TERVAIN_SANITIZED
  GTEST_SKIP() << "a sanitized agent reserves terabytes of address space: no limit can be set";
#endif
  if (!procAvailable()) GTEST_SKIP() << "needs /proc";
  AgentProcess::Options options = fallbackShell();
  options.prelude = "ulimit -v 1048576";  // KiB: 1 GiB of address space
  AgentProcess agent(options);
  LineClient bystander = agent.connect();
  ASSERT_TRUE(bystander.send(execLine("echo $$; sleep 300")));
  const int bystanderGroup = groupFromFirstFrame(bystander);
  ASSERT_GT(bystanderGroup, 1);

  LineClient client = agent.connect();
  ASSERT_TRUE(client.send(execLine("echo $$; sleep 300")));
  const int group = groupFromFirstFrame(client);
  ASSERT_GT(group, 1);
  const std::string chunk(1 << 20, 'a');
  for (int i = 0; i < 1536 && client.send(chunk); ++i) {
  }
  const ExecTranscript t = readExecFrames(client);
  EXPECT_NE(t.error.value_or("").find("without a line feed"), std::string::npos);
  EXPECT_TRUE(groupGone(group));

  EXPECT_TRUE(agent.running());
  const std::optional<std::string> pong = agent.request("{\"op\":\"ping\"}");
  EXPECT_EQ(Json::parse(pong.value_or("null"), nullptr, false).value("ok", false), true);
  EXPECT_TRUE(groupRuns(bystanderGroup)) << "another session's command died";
  killGroup(bystanderGroup);
}

// An agent started from a script with "&" or nohup has these signals ignored; its commands must
// not inherit that, or a forwarded interrupt does nothing.
TEST(ExecE2ETest, CommandsStartWithEverySignalAtItsDefault) {
  if (!procAvailable()) GTEST_SKIP() << "needs /proc";
  AgentProcess::Options options = fallbackShell();
  options.prelude = "trap '' HUP INT QUIT";
  AgentProcess agent(options);
  LineClient client = agent.connect();
  ASSERT_TRUE(client.send(execLine("grep -E '^Sig(Blk|Ign)' /proc/self/status; sleep 30")));
  std::string out;
  while (out.size() < 50) {  // the two lines, 25 bytes each
    const std::optional<std::string> line = client.readLine();
    if (!line) break;
    out += base64::decode(Json::parse(*line, nullptr, false).value("d", "")).value_or("");
  }
  ASSERT_EQ(out.size(), 50u) << out;
  // Bits 0 to 30 are the standard signals. glibc keeps its two internal real-time signals (32 and
  // 33) ignored in every child it spawns; they are no command's business.
  EXPECT_EQ(std::stoull(out.substr(8, 16), nullptr, 16) & 0x7FFFFFFF, 0u) << out << "(blocked)";
  EXPECT_EQ(std::stoull(out.substr(33, 16), nullptr, 16) & 0x7FFFFFFF, 0u) << out << "(ignored)";
  ASSERT_TRUE(client.send("{\"t\":\"sig\",\"n\":2}\n"));
  EXPECT_EQ(readExecFrames(client, std::chrono::seconds(10)).code, 130);
}

// Without the agent shell, Linux runs the command under the user's login shell; macOS refuses.
TEST(ExecE2ETest, WithoutTheAgentShellThePlatformsRuleApplies) {
  if (::access(std::string(ExecSession::defaultDulkPath).c_str(), X_OK) == 0) {
    GTEST_SKIP() << "an agent shell is installed here";
  }
  const std::optional<std::string> loginShell = posix::shellWithoutAgentShell();
  for (const char* disable : {static_cast<const char*>(nullptr), "true"}) {
    AgentProcess::Options options;
    if (disable != nullptr) {
      options.env["TERVAIN_DULK_DISABLE"] = disable;
    } else {
      options.unsetEnv.push_back("TERVAIN_DULK_DISABLE");
    }
    AgentProcess agent(options);
    LineClient client = agent.connect();
    ASSERT_TRUE(client.send(execLine("echo hi; echo \"$0\"")));
    const ExecTranscript t = readExecFrames(client);
    if (loginShell) {
      EXPECT_EQ(t.out, "hi\n" + *loginShell + "\n");
      EXPECT_EQ(t.code, 0);
    } else {
      EXPECT_EQ(t.error, ExecSession::dulkMissingMessage());
      EXPECT_EQ(t.tags, std::vector<std::string>{"err"});
    }
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

TEST_F(ShellEventsE2ETest, TheDefaultSpoolIsUnderTheAgentsHome) {
  const std::string dir = home.path() + "/Library/Caches/tervain-dulk";
  writeEvent(dir, "1.jsonl", "{\"e\":1}\n");
  const Json reply = drain({{"op", "shell-events"}});
  EXPECT_EQ(events(reply), "{\"e\":1}\n");
  EXPECT_EQ(reply["bytes"], 8);
}

// A truthy "truncate" deletes what was delivered, after the reply: a second request on the same
// connection is served after the deletion. Any other value deletes nothing.
TEST_F(ShellEventsE2ETest, OnlyATruthyTruncateDeletesWhatWasDelivered) {
  const std::pair<Json, bool> cases[] = {{Json(true), true},     {Json(2.5), true},
                                         {Json(-1), true},       {Json("true"), false},
                                         {Json(0.0), false},     {Json(nullptr), false},
                                         {Json::array({1}), false}};
  for (const auto& [truncate, deletes] : cases) {
    writeEvent(spool.path(), "a.jsonl", "A\n");
    writeEvent(spool.path(), "b.jsonl", "B\n");
    LineClient client = agent.connect();
    const std::string request =
        Json{{"op", "shell-events"}, {"dir", spool.path()}, {"truncate", truncate}}.dump() + "\n";
    ASSERT_TRUE(client.send(request + request));
    const Json reply = Json::parse(client.readLine().value_or("null"));
    EXPECT_EQ(reply["files"], 2) << truncate;
    EXPECT_EQ(events(reply), "A\nB\n");
    EXPECT_EQ(Json::parse(client.readLine().value_or("null"))["files"], deletes ? 0 : 2) << truncate;
    EXPECT_EQ(std::filesystem::exists(spool.file("a.jsonl")), !deletes) << truncate;
    EXPECT_EQ(std::filesystem::exists(spool.file("b.jsonl")), !deletes) << truncate;
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
  // Which files are as delivered is the spool's rule; the reply names both lists.
  EXPECT_EQ(drain({{"op", "shell-events"}, {"dir", spool.path()}, {"delete", listed["delivered"]}}),
            Json::parse(R"({"ok":true,"deleted":["a.jsonl","c.jsonl"],"kept":["b.jsonl"]})"));
  EXPECT_EQ(events(drain({{"op", "shell-events"}, {"dir", spool.path()}})), "B\nB2\n");
}

TEST_F(ShellEventsE2ETest, AValueOfTheWrongTypeCountsAsAbsent) {
  writeEvent(spool.path(), "a.jsonl", std::string(200, 'a'));
  const Json reply = drain({{"op", "shell-events"}, {"dir", spool.path()}, {"maxBytes", "100"}});
  EXPECT_EQ(reply["files"], 1);
  EXPECT_EQ(reply["truncated"], false);
  // A "dir" that is not a string drains the default spool (missing here: an empty success).
  EXPECT_EQ(drain({{"op", "shell-events"}, {"dir", 5}}),
            Json::parse(R"({"ok":true,"events":"","files":0,"bytes":0,"truncated":false})"));
}

TEST_F(ShellEventsE2ETest, AnOversizedFileStaysInTheSpool) {
  writeEvent(spool.path(), "big.jsonl", std::string(101, 'b'));
  const Json reply = drain(
      {{"op", "shell-events"}, {"dir", spool.path()}, {"maxBytes", 100}, {"truncate", true}});
  EXPECT_EQ(reply, Json::parse(R"({"ok":true,"events":"","files":0,"bytes":0,"truncated":true})"));
  EXPECT_TRUE(std::filesystem::exists(spool.file("big.jsonl")));
}

}  // namespace
}  // namespace tervain::testing
