#include "core/exec_session.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <random>
#include <thread>

#include <gtest/gtest.h>

#include "core/shell_spool.h"
#include "exec_test_support.h"

namespace tervain {
namespace {

using namespace std::chrono_literals;
using testing::ExecTranscript;
using testing::LineClient;
using testing::readExecFrames;
using testing::stdinFrame;

// The agent ignores SIGPIPE from start-up; sessions rely on it, and so do these tests.
void ignoreSigpipe() { ::signal(SIGPIPE, SIG_IGN); }

// Sets or clears one environment variable for the life of a test.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : name(name) {
    if (const char* old = std::getenv(name)) saved = old;
    if (value != nullptr) {
      ::setenv(name, value, 1);
    } else {
      ::unsetenv(name);
    }
  }
  ~ScopedEnv() {
    if (saved) {
      ::setenv(name, saved->c_str(), 1);
    } else {
      ::unsetenv(name);
    }
  }

 private:
  const char* name;
  std::optional<std::string> saved;
};

// ---- How a command becomes a program, arguments and environment ------------------------------

class ShellInvocationTest : public ::testing::Test {
 protected:
  std::vector<std::string> probed;
  std::function<bool(const std::string&)> present = [this](const std::string& p) {
    probed.push_back(p);
    return true;
  };
  std::function<bool(const std::string&)> missing = [this](const std::string& p) {
    probed.push_back(p);
    return false;
  };
};

TEST_F(ShellInvocationTest, DisableSetToOneRunsZshWithTheEnvironmentUnchanged) {
  const ExecSession::Environment env = {{"TERVAIN_DULK_DISABLE", "1"},
                                        {"TERVAIN_SHELL_SPOOL", "/elsewhere"},
                                        {"PATH", "/bin"}};
  const auto invocation = ExecSession::shellInvocation("echo hi", "/opt/dulk", env, missing);
  ASSERT_TRUE(invocation);
  EXPECT_EQ(invocation->path, "/bin/zsh");
  EXPECT_EQ(invocation->args, (std::vector<std::string>{"-c", "echo hi"}));
  EXPECT_EQ(invocation->env, env);
  EXPECT_TRUE(probed.empty()) << "the agent shell is not even looked for";
}

TEST_F(ShellInvocationTest, AnyOtherDisableValueStillNeedsTheAgentShell) {
  for (const char* value : {"0", "true", "", "1 ", " 1", "11", "yes"}) {
    probed.clear();
    EXPECT_FALSE(ExecSession::shellInvocation("true", "/opt/dulk",
                                              {{"TERVAIN_DULK_DISABLE", value}}, missing))
        << "'" << value << "'";
    EXPECT_EQ(probed, std::vector<std::string>{"/opt/dulk"});
  }
}

TEST_F(ShellInvocationTest, AgentShellRunsTheCommandAsALoginShellWithTheSpool) {
  const std::string command = "  echo \"a b\"\n'c' $HOME\\";
  const auto invocation = ExecSession::shellInvocation(
      command, "/opt/dulk", {{"TERVAIN_SHELL_SPOOL", "/elsewhere"}, {"PATH", "/bin"}}, present);
  ASSERT_TRUE(invocation);
  EXPECT_EQ(invocation->path, "/opt/dulk");
  EXPECT_EQ(invocation->args, (std::vector<std::string>{"-lc", command}));
  EXPECT_EQ(invocation->env, (ExecSession::Environment{
                                 {"TERVAIN_SHELL_SPOOL", ShellSpool::defaultDir()},
                                 {"TERVAIN_SHELL_CAPTURE", "tap"},
                                 {"PATH", "/bin"}}));
}

TEST_F(ShellInvocationTest, AnExistingCaptureValueIsKeptEvenWhenEmpty) {
  for (const char* value : {"", "full"}) {
    const auto invocation = ExecSession::shellInvocation(
        "true", "/opt/dulk", {{"TERVAIN_SHELL_CAPTURE", value}}, present);
    ASSERT_TRUE(invocation);
    EXPECT_EQ(invocation->env.at("TERVAIN_SHELL_CAPTURE"), value);
  }
}

TEST(DulkMissingMessageTest, NamesTheDefaultPathAndTheFix) {
  EXPECT_EQ(ExecSession::dulkMissingMessage(),
            "dulk is not installed in this guest (/usr/local/bin/dulk) \u2014 dulk is the required "
            "agent shell in every virtualized environment (docs/DULK.md \u00a77.5), so the exec "
            "surface refuses to run without it. Rebuild the macOS VM base image so provisioning "
            "installs it.");
}

// ---- Whole sessions over a socket pair ---------------------------------------------------------

class ExecSessionTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { ignoreSigpipe(); }

  void SetUp() override {
    int pair[2];
    ASSERT_TRUE(testing::closeOnExecSocketPair(pair));
    sessionFD = pair[0];
    host.emplace(pair[1]);
  }

  void TearDown() override {
    host->close();  // a session still running sees its host go and ends
    if (worker.joinable()) worker.join();
    ::close(sessionFD);
  }

  // Runs a session on its own thread, as a connection would.
  void startSession(Json request, std::string buffered = {},
                    std::int32_t grace = ExecSession::defaultPipeGraceMillis,
                    std::string dulkPath = std::string(ExecSession::defaultDulkPath)) {
    worker = std::thread([this, request = std::move(request), buffered = std::move(buffered),
                          grace, dulkPath = std::move(dulkPath)] {
      ExecSession session(sessionFD, buffered, dulkPath, grace);
      session.run(request);
      finished = true;
    });
  }

  void startCommand(const std::string& command, std::string buffered = {},
                    std::int32_t grace = ExecSession::defaultPipeGraceMillis) {
    startSession(Json{{"op", "exec"}, {"command", command}}, std::move(buffered), grace);
  }

  // Waits, bounded, for run() to return.
  bool sessionEnded(std::chrono::milliseconds limit = 10s) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!finished) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::sleep_for(5ms);
    }
    return true;
  }

  ScopedEnv fallbackShell{"TERVAIN_DULK_DISABLE", "1"};
  int sessionFD = -1;
  std::optional<LineClient> host;
  std::thread worker;
  std::atomic<bool> finished{false};
};

TEST_F(ExecSessionTest, OutputStreamsAsFramesAndEndsWithTheExitCode) {
  startCommand("echo hello; echo oops >&2");
  const ExecTranscript t = readExecFrames(*host);
  EXPECT_EQ(t.out, "hello\n");
  EXPECT_EQ(t.err, "oops\n");
  EXPECT_EQ(t.code, 0);
  EXPECT_EQ(t.tags.back(), "x");
  EXPECT_TRUE(t.badFrames.empty());
  EXPECT_TRUE(sessionEnded());
}

TEST_F(ExecSessionTest, OutputFramesHaveTheirFixedByteForm) {
  startCommand("printf 'hi'");
  EXPECT_EQ(host->readLine(), R"({"t":"o","d":"aGk="})");
  EXPECT_EQ(Json::parse(host->readLine().value_or("null")), Json::parse(R"({"t":"x","code":0})"));
}

TEST_F(ExecSessionTest, AnEmptyCommandIsACommand) {
  startCommand("");
  EXPECT_EQ(readExecFrames(*host).code, 0);
}

TEST_F(ExecSessionTest, FramesSentWithTheRequestAreHonoured) {
  startCommand("cat", "{\"t\":\"i\",\"d\":\"aGkK\"}\n{\"t\":\"eof\"}\n");
  const ExecTranscript t = readExecFrames(*host);
  EXPECT_EQ(t.out, "hi\n");
  EXPECT_EQ(t.code, 0);
}

TEST_F(ExecSessionTest, StdinFramesAfterTheStartReachTheCommand) {
  startCommand("tr a-z A-Z");
  ASSERT_TRUE(host->send(stdinFrame("abc\n") + stdinFrame("def\n")));
  ASSERT_TRUE(host->send("{\"t\":\"eof\"}\n"));
  const ExecTranscript t = readExecFrames(*host);
  EXPECT_EQ(t.out, "ABC\nDEF\n");
  EXPECT_EQ(t.code, 0);
}

TEST_F(ExecSessionTest, ACommandThatIsNotAStringIsRefused) {
  for (const Json& request : {Json{{"op", "exec"}, {"command", 42}}, Json{{"op", "exec"}},
                              Json{{"op", "exec"}, {"command", nullptr}}}) {
    ExecSession session(sessionFD, "", std::string(ExecSession::defaultDulkPath), 2000);
    EXPECT_FALSE(session.start(request));
    EXPECT_EQ(Json::parse(host->readLine(1s).value_or("null")),
              Json::parse(R"({"t":"err","m":"exec requires a \"command\" string"})"));
  }
  EXPECT_FALSE(host->readLine(100ms)) << "no exit frame follows";
}

TEST_F(ExecSessionTest, LargeOutputIsChunkedAndReassembled) {
  std::string expected;
  for (int i = 1; i <= 100000; ++i) expected += std::to_string(i) + "\n";
  startCommand("seq 1 100000");
  const ExecTranscript t = readExecFrames(*host);
  EXPECT_EQ(t.code, 0);
  EXPECT_EQ(t.out, expected);
  EXPECT_LE(t.largestChunk, 65536u);
  EXPECT_GT(t.tags.size(), 3u);
}

TEST_F(ExecSessionTest, AFinalBurstBeforeTheExitArrivesWholeBeforeTheExitFrame) {
  testing::TempDir dir;
  std::string payload(256 * 1024, '\0');
  std::mt19937 random(7);
  for (char& c : payload) c = static_cast<char>(random());
  std::ofstream(dir.file("burst"), std::ios::binary) << payload;
  startCommand("cat " + dir.file("burst"));
  const ExecTranscript t = readExecFrames(*host);
  EXPECT_EQ(t.code, 0);
  EXPECT_EQ(t.out.size(), payload.size());
  EXPECT_TRUE(t.out == payload);
}

TEST_F(ExecSessionTest, ExitStatusIsTheCode) {
  startCommand("exit 3");
  EXPECT_EQ(readExecFrames(*host).code, 3);
}

TEST_F(ExecSessionTest, DeathBySignalIsOneHundredTwentyEightPlusTheSignal) {
  startCommand("kill -9 $$");
  EXPECT_EQ(readExecFrames(*host).code, 137);
}

TEST_F(ExecSessionTest, ASignalFrameReachesTheCommand) {
  startCommand("echo ready; sleep 30");
  ASSERT_EQ(host->readLine(), R"({"t":"o","d":"cmVhZHkK"})");
  ASSERT_TRUE(host->send("{\"t\":\"sig\",\"n\":15}\n"));
  EXPECT_EQ(readExecFrames(*host).code, 143);
}

TEST_F(ExecSessionTest, ABackgroundJobHoldingStdoutCannotHoldTheSession) {
  startCommand("echo $$; sleep 30 & exit 4", {}, 300);
  const ExecTranscript t = readExecFrames(*host);
  EXPECT_EQ(t.code, 4);
  const int group = std::atoi(t.out.c_str());
  ASSERT_GT(group, 1);
  EXPECT_FALSE(testing::liveMembersOfGroup(group).empty()) << "the job was left to run";
  testing::killGroup(group);
}

TEST_F(ExecSessionTest, AHostThatGoesAwayTakesTheGroupDownAndTheChildIsReaped) {
  if (!testing::procAvailable()) GTEST_SKIP() << "needs /proc";
  startCommand("echo $$; sleep 30; :");
  const std::optional<std::string> first = host->readLine();
  ASSERT_TRUE(first);
  const int group = std::atoi(base64::decode(Json::parse(*first)["d"].get<std::string>())
                                  .value_or("0")
                                  .c_str());
  ASSERT_GT(group, 1);
  host->close();
  ASSERT_TRUE(sessionEnded());
  EXPECT_TRUE(testing::groupGone(group));
  EXPECT_TRUE(testing::zombieChildrenOf(::getpid()).empty());
  errno = 0;
  EXPECT_EQ(::waitpid(group, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD) << "the session reaped its child";
}

TEST_F(ExecSessionTest, MalformedAndUnknownHostFramesAreIgnored) {
  const std::string junk =
      "not json\n[1,2]\n\"i\"\n{}\n{\"t\":5}\n{\"t\":\"resize\",\"cols\":80}\n"
      "{\"t\":\"i\"}\n{\"t\":\"i\",\"d\":5}\n{\"t\":\"i\",\"d\":\"!!\"}\n{\"t\":\"i\",\"d\":\"aGk\"}\n"
      "{\"t\":\"i\",\"d\":\"aG k=\"}\n{\"t\":\"sig\"}\n{\"t\":\"sig\",\"n\":\"15\"}\n"
      "{\"t\":\"sig\",\"n\":1.5}\n{\"t\":\"sig\",\"n\":4294967311}\n"
      "{\"t\":\"sig\",\"n\":-4294967281}\n{\"t\":\"I\",\"d\":\"aGkK\"}\n\n\r\n";
  startCommand("cat", junk + "{\"t\":\"i\",\"d\":\"aGkK\"}\r\n");
  ASSERT_TRUE(host->send(junk));
  ASSERT_TRUE(host->send("{\"t\":\"eof\"}\n" + stdinFrame("late") + "{\"t\":\"eof\"}\n"));
  const ExecTranscript t = readExecFrames(*host);
  EXPECT_EQ(t.out, "hi\n");
  EXPECT_EQ(t.code, 0) << "no signal reached cat";
}

TEST_F(ExecSessionTest, StdinForACommandThatNeverReadsStallsOnlyBriefly) {
  // Far more than a pipe holds; the rest is dropped after the retry budget and the signal frame
  // behind it is still served.
  const std::string big(2 << 20, 'z');
  startCommand("sleep 30", stdinFrame(big) + "{\"t\":\"sig\",\"n\":15}\n");
  const ExecTranscript t = readExecFrames(*host, 20s);
  EXPECT_EQ(t.code, 143);
}

TEST_F(ExecSessionTest, OnlyStandardDescriptorsReachTheCommand) {
  if (!testing::procAvailable()) GTEST_SKIP() << "needs /proc";
  const int leaky = ::dup(STDERR_FILENO);
  ASSERT_GE(leaky, 3);
  startCommand("for n in 0 1 2 " + std::to_string(leaky) + " " + std::to_string(sessionFD) + " " +
               std::to_string(host->descriptor()) +
               "; do [[ -e /proc/$$/fd/$n ]] && print -n \"$n \"; done; print");
  const ExecTranscript t = readExecFrames(*host);
  ::close(leaky);
  EXPECT_EQ(t.out, "0 1 2 \n");
  EXPECT_EQ(t.code, 0);
}

TEST_F(ExecSessionTest, AMissingAgentShellIsRefusedWithTheFixedMessage) {
  for (const char* disable : {static_cast<const char*>(nullptr), "true", "0", ""}) {
    ScopedEnv env("TERVAIN_DULK_DISABLE", disable);
    ExecSession session(sessionFD, "", "/nonexistent/dulk", 2000);
    EXPECT_FALSE(session.start(Json{{"command", "echo hi"}}));
    const ExecTranscript t = readExecFrames(*host, 2s);
    EXPECT_EQ(t.error, ExecSession::dulkMissingMessage());
    EXPECT_EQ(t.tags, std::vector<std::string>{"err"});
  }
}

TEST_F(ExecSessionTest, TheAgentShellGetsTheCommandAndTheSpoolVariables) {
  testing::TempDir dir;
  const std::string shell = dir.file("dulk");
  std::ofstream(shell) << "#!/bin/sh\n"
                          "printf '%s|%s|%s|%s\\n' \"$0\" \"$#\" \"$1\" \"$2\"\n"
                          "printf 'spool=%s\\n' \"$TERVAIN_SHELL_SPOOL\"\n"
                          "printf 'capture=%s\\n' \"${TERVAIN_SHELL_CAPTURE-<unset>}\"\n";
  ASSERT_EQ(::chmod(shell.c_str(), 0755), 0);
  ScopedEnv noFallback("TERVAIN_DULK_DISABLE", "0");
  ScopedEnv spool("TERVAIN_SHELL_SPOOL", "/somewhere/else");
  const std::string command = "  echo \"a b\"\n'c' $HOME";
  const std::string head = shell + "|2|-lc|" + command + "\nspool=" + ShellSpool::defaultDir();

  for (const char* capture : {static_cast<const char*>(nullptr), "", "full"}) {
    ScopedEnv env("TERVAIN_SHELL_CAPTURE", capture);
    ExecSession session(sessionFD, "", shell, 2000);
    session.run(Json{{"command", command}});
    const ExecTranscript t = readExecFrames(*host, 10s);
    EXPECT_EQ(t.out, head + "\ncapture=" + (capture ? capture : "tap") + "\n");
    EXPECT_EQ(t.code, 0);
  }
}

TEST_F(ExecSessionTest, ADescendantHoldingThePipesRunsOutTheGraceOnTheSessionsClock) {
  // Each reading of the clock is 400 ms later: the 2 s grace is over a handful of rounds after
  // the shell exits, however little real time passed.
  std::int64_t now = 0;
  ExecSession session(sessionFD, "", std::string(ExecSession::defaultDulkPath), 2000,
                      std::nullopt, [&now] { return now += 400; });
  ASSERT_TRUE(session.start(Json{{"command", "echo $$; sleep 30 & exit 4"}}));
  ExecSession::Round round = ExecSession::Round::keepGoing;
  int rounds = 0;
  for (; rounds < 500 && round == ExecSession::Round::keepGoing; ++rounds) {
    round = session.pumpOnce(20);
  }
  ASSERT_EQ(round, ExecSession::Round::finished);
  EXPECT_LT(rounds, 60) << "the grace ran on another clock";
  session.finish(false);
  const ExecTranscript t = readExecFrames(*host, 2s);
  EXPECT_EQ(t.code, 4);
  testing::killGroup(std::atoi(t.out.c_str()));
}

TEST_F(ExecSessionTest, TheLoopCanBeDrivenOneRoundAtATime) {
  ExecSession session(sessionFD, "", std::string(ExecSession::defaultDulkPath), 2000);
  ASSERT_TRUE(session.start(Json{{"command", "echo stepped"}}));
  ExecSession::Round round = ExecSession::Round::keepGoing;
  for (int i = 0; i < 200 && round == ExecSession::Round::keepGoing; ++i) {
    round = session.pumpOnce(50);
  }
  ASSERT_EQ(round, ExecSession::Round::finished);
  session.finish(false);
  const ExecTranscript t = readExecFrames(*host, 2s);
  EXPECT_EQ(t.out, "stepped\n");
  EXPECT_EQ(t.code, 0);
}

}  // namespace
}  // namespace tervain
