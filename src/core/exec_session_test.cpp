#include "core/exec_session.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
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
using testing::readExecFramesInto;
using testing::stdinFrame;
using testing::terminalSize;

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
  // Nor can the host's "env" choose the shell.
  EXPECT_FALSE(ExecSession::shellInvocation("true", "/opt/dulk", {}, missing, std::nullopt,
                                            {{"TERVAIN_DULK_DISABLE", "1"}}));
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
  void startCommand(const std::string& command, std::string buffered = {},
                    std::int32_t grace = ExecSession::defaultPipeGraceMillis,
                    Json request = Json::object()) {
    request["op"] = "exec";
    request["command"] = command;
    worker = std::thread([this, request, buffered = std::move(buffered), grace] {
      ExecSession session(sessionFD, buffered, std::string(ExecSession::defaultDulkPath), grace);
      session.run(request);
    });
  }

  ScopedEnv fallbackShell{"TERVAIN_DULK_DISABLE", "1"};
  int sessionFD = -1;
  std::optional<LineClient> host;
  std::thread worker;
};

TEST_F(ExecSessionTest, OutputFramesHaveTheirFixedByteForm) {
  startCommand("printf 'hi'");
  EXPECT_EQ(host->readLine(), R"({"t":"o","d":"aGk="})");
  EXPECT_EQ(Json::parse(host->readLine().value_or("null")), Json::parse(R"({"t":"x","code":0})"));
}

TEST_F(ExecSessionTest, TheExitFrameCarriesTheStatusOrOneHundredTwentyEightPlusTheSignal) {
  const std::pair<const char*, int> cases[] = {{"", 0}, {"exit 3", 3}, {"kill -9 $$", 137}};
  for (const auto& [command, code] : cases) {
    ExecSession session(sessionFD, "", std::string(ExecSession::defaultDulkPath), 2000);
    session.run(Json{{"command", command}});
    EXPECT_EQ(readExecFrames(*host, 10s).code, code) << "'" << command << "'";
  }
}

TEST_F(ExecSessionTest, LargeOutputIsChunkedAndArrivesWholeBeforeTheExitFrame) {
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
  EXPECT_LE(t.largestChunk, 65536u);
  EXPECT_GT(t.tags.size(), 4u);
}

// The agent shell exists but cannot be started: the failure and its errno reach the host.
TEST_F(ExecSessionTest, AShellThatCannotStartIsReportedWithItsErrno) {
  testing::TempDir dir;
  const std::string shell = dir.file("dulk");
  std::ofstream(shell) << "#!/nonexistent/interpreter\n";
  ASSERT_EQ(::chmod(shell.c_str(), 0755), 0);
  ScopedEnv noFallback("TERVAIN_DULK_DISABLE", "0");
  ExecSession session(sessionFD, "", shell, 2000);
  EXPECT_FALSE(session.start(Json{{"command", "true"}}));
  const ExecTranscript t = readExecFrames(*host, 2s);
  EXPECT_EQ(t.error, "could not launch the command (posix_spawn errno 2)");
  EXPECT_EQ(t.tags, std::vector<std::string>{"err"});
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
  EXPECT_TRUE(testing::groupRuns(group)) << "the job was left to run";
  testing::killGroup(group);
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

// Stdin the command leaves untaken for a second of the session's own time is dropped, and the
// "eof" behind it then closes the command's input. The command reads only once the test lets
// it, after 3 s of session time: it gets what the pipe held (the session enlarges it, to 1 MiB
// on Linux), not the rest.
TEST_F(ExecSessionTest, StdinLeftUntakenForASecondIsDropped) {
  testing::TempDir dir;
  const std::string go = dir.file("go");
  constexpr long sent = 4 << 20;
  std::string frames;
  for (long at = 0; at < sent; at += 512 << 10) frames += stdinFrame(std::string(512 << 10, 's'));
  std::int64_t now = 0;
  ExecSession session(sessionFD, frames + "{\"t\":\"eof\"}\n",
                      std::string(ExecSession::defaultDulkPath), 2000, std::nullopt,
                      [&now] { return now += 100; });
  ASSERT_TRUE(session.start(Json{
      {"command", "for i in {1..1000}; do [[ -e " + go + " ]] && break; sleep 0.02; done; wc -c"}}));
  ExecSession::Round round = ExecSession::Round::keepGoing;
  for (int rounds = 0; rounds < 3000 && round == ExecSession::Round::keepGoing; ++rounds) {
    if (rounds == 30) std::ofstream{go};
    round = session.pumpOnce(20);
  }
  ASSERT_EQ(round, ExecSession::Round::finished);
  session.finish(false);
  const ExecTranscript t = readExecFrames(*host, 2s);
  EXPECT_EQ(t.code, 0);
  const long taken = std::atol(t.out.c_str());
  EXPECT_GT(taken, 0) << t.out;
  EXPECT_LT(taken, sent) << "nothing was dropped";
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
    // It names the default path whatever path the session was made with.
    EXPECT_EQ(t.error,
              "dulk is not installed in this guest (/usr/local/bin/dulk) \u2014 dulk is the "
              "required agent shell in every virtualized environment (docs/DULK.md \u00a77.5), so "
              "the exec surface refuses to run without it. Rebuild the macOS VM base image so "
              "provisioning installs it.");
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

// "env", "cwd", "timeout" and "tty", with real processes. A refused request runs nothing (its
// command would leave a file). A timed-out command that echoes its group first must leave no
// process of the group, not even ones that ignore SIGTERM and hold the pipes past the (short)
// pipe grace, and its output before the kill arrives whole.
TEST_F(ExecSessionTest, RequestOptionsEnvCwdTimeoutAndTty) {
  testing::TempDir dir;
  const std::string ran = dir.file("ran");
  const std::string touchRan = "touch " + ran;
  const std::string plainFile = dir.file("plain");
  std::ofstream(plainFile) << "x";
  const std::string cwd = std::filesystem::canonical(dir.path()).string();
  ScopedEnv kept("TERVAIN_TEST_KEPT", "kept");
  ScopedEnv replaced("TERVAIN_TEST_REPLACED", "agent's");
  std::string counted;
  for (int i = 1; i <= 20000; ++i) counted += std::to_string(i) + "\n";
  const Json exit0 = Json::parse(R"({"t":"x","code":0})");
  const auto timedOut = [](int code) {
    return Json{{"t", "x"}, {"code", code}, {"timedOut", true}};
  };
  const std::string badName =
      " is not a variable name: it must be non-empty and hold no \"=\" or NUL";
  const std::string badTimeout = R"(exec "timeout" must be a positive number of seconds)";
  const std::string badRows = R"(exec "tty" "rows" must be an integer from 1 to 10000)";
  const std::string badCols = R"(exec "tty" "cols" must be an integer from 1 to 10000)";
  const struct {
    Json options;
    std::string command;  // touchRan when refused
    std::string out;      // after the group's line, when the command echoes $$ first
    Json exit;            // null when refused
    std::string error;
  } cases[] = {
      {{{"env", {{"X", "a b"}, {"TERVAIN_TEST_REPLACED", "host's"}}}},
       R"(sh -c 'echo "$X|$TERVAIN_TEST_REPLACED|$TERVAIN_TEST_KEPT"')", "a b|host's|kept\n",
       exit0},
      // A time limit that does not run out leaves the exit frame as it always was.
      {{{"cwd", cwd}, {"timeout", 30}}, "pwd -P", cwd + "\n", exit0},
      // The shell ignores SIGTERM and so does its job: only the SIGKILL ends them.
      {{{"timeout", 1}}, R"(echo $$; exec sh -c 'trap "" TERM; sleep 100 & wait')", "",
       timedOut(137)},
      // The shell dies of SIGTERM; the job that ignores it holds the pipes until the SIGKILL.
      {{{"timeout", 1}}, R"(echo $$; seq 20000; sh -c 'trap "" TERM; sleep 100' & wait)",
       counted, timedOut(143)},
      {{{"env", Json::array({"X=1"})}}, touchRan, "", nullptr,
       R"(exec "env" must be an object of names to string values)"},
      {{{"env", {{"X", 1}}}}, touchRan, "", nullptr, R"(exec "env" value of "X" must be a string)"},
      {{{"env", {{"X", std::string("a\0b", 3)}}}}, touchRan, "", nullptr,
       R"(exec "env" value of "X" holds a NUL byte)"},
      {{{"env", {{"", "1"}}}}, touchRan, "", nullptr, R"(exec "env" name "")" + badName},
      {{{"env", {{"A=B", "1"}}}}, touchRan, "", nullptr, R"(exec "env" name "A=B")" + badName},
      {{{"env", {{std::string("A\0B", 3), "1"}}}}, touchRan, "", nullptr,
       "exec \"env\" name \"" + std::string("A\0B", 3) + "\"" + badName},
      {{{"cwd", 5}}, touchRan, "", nullptr, R"(exec "cwd" must be a string)"},
      {{{"cwd", "/nonexistent/dir"}}, touchRan, "", nullptr,
       R"(exec "cwd" is not a directory: /nonexistent/dir)"},
      {{{"cwd", plainFile}}, touchRan, "", nullptr,
       R"(exec "cwd" is not a directory: )" + plainFile},
      {{{"timeout", 0}}, touchRan, "", nullptr, badTimeout},
      {{{"timeout", -1}}, touchRan, "", nullptr, badTimeout},
      {{{"timeout", "5"}}, touchRan, "", nullptr, badTimeout},
      // On a terminal of its own (its controlling one) of the size asked for, error merged
      // into output, every line ended the terminal's way.
      {{{"tty", terminalSize(33, 101)}},
       "stty size; tty | sed 's/[0-9]*$//'; echo $TERM >&2; : </dev/tty && echo ctty",
       "33 101\r\n/dev/pts/\r\nxterm-256color\r\nctty\r\n", exit0},
      {{{"tty", {{"rows", 5}, {"cols", 6}, {"term", "vt100"}}}, {"env", {{"TERM", "dumb"}}}},
       "echo $TERM", "vt100\r\n", exit0},
      {{{"tty", terminalSize(5, 6)}, {"env", {{"TERM", "dumb"}}}}, "echo $TERM", "dumb\r\n",
       exit0},
      {{{"tty", terminalSize(24, 80)}, {"timeout", 1}}, "echo $$; sleep 100", "",
       timedOut(143)},
      {{{"tty", 5}}, touchRan, "", nullptr,
       R"(exec "tty" must be an object with "rows" and "cols")"},
      {{{"tty", terminalSize(0, 80)}}, touchRan, "", nullptr, badRows},
      {{{"tty", terminalSize(24, 10001)}}, touchRan, "", nullptr, badCols},
      {{{"tty", {{"rows", 24}, {"cols", 80}, {"term", std::string("a\0b", 3)}}}}, touchRan, "",
       nullptr, R"(exec "tty" "term" must be a non-empty string without NUL)"},
  };
  for (const auto& c : cases) {
    Json request = c.options;
    request["command"] = c.command;
    std::thread session([&] {
      ExecSession(sessionFD, "", std::string(ExecSession::defaultDulkPath), 300).run(request);
    });
    ExecTranscript t = readExecFrames(*host);
    int group = 0;
    if (c.command.starts_with("echo $$;")) {
      group = std::atoi(t.out.c_str());
      t.out.erase(0, t.out.find('\n') + 1);
    }
    if (!t.complete()) {
      testing::killGroup(group);  // ends a session that did not end the command,
      readExecFrames(*host, 5s);  // and takes its frames, so that the next case starts clean
    }
    session.join();
    EXPECT_EQ(t.error.value_or(""), c.error) << request.dump();
    EXPECT_EQ(t.exit, c.exit) << request.dump();
    EXPECT_TRUE(t.out == c.out) << request.dump() << ": " << t.out.size() << " bytes out";
    if (group != 0) {
      EXPECT_TRUE(testing::groupGone(group, 2s)) << request.dump();
      testing::killGroup(group);  // whatever a failure left
    }
  }
  EXPECT_FALSE(std::filesystem::exists(ran)) << "a refused request ran its command";
}

// On a terminal, "i" bytes are typed, a "resize" reaches a later `stty size`, and "eof" ends the
// input of a reader in the middle of a line as ^D does: one hands the line over, one ends it.
TEST_F(ExecSessionTest, ATerminalTakesTypedInputResizesAndEndOfInput) {
  startCommand("stty -echo; echo ready; read a; stty size; read b; stty size; cat; echo done", {},
               300, {{"tty", terminalSize(24, 80)}});
  ExecTranscript t;
  readExecFramesInto(*host, t, 10s, "ready\r\n");
  ASSERT_TRUE(host->send(stdinFrame("\n")));
  readExecFramesInto(*host, t, 10s, "24 80\r\n");
  ASSERT_TRUE(host->send(testing::resizeFrame(50, 132) + stdinFrame("\n")));
  readExecFramesInto(*host, t, 10s, "50 132\r\n");
  ASSERT_TRUE(host->send(stdinFrame("partial") + "{\"t\":\"eof\"}\n"));
  readExecFramesInto(*host, t, 10s);
  EXPECT_EQ(t.out, "ready\r\n24 80\r\n50 132\r\npartialdone\r\n");
  EXPECT_EQ(t.code, 0);
}

// On a terminal a "sig" goes where the keyboard's would: to the foreground job, here a command
// of an interactive shell, which then reads on (the shell's own group is left alone).
TEST_F(ExecSessionTest, OnATerminalAnInterruptReachesTheForegroundJob) {
  startCommand("PS1='$ ' exec bash --norc --noprofile -i", {}, 300,
               {{"tty", terminalSize(24, 80)}});
  ExecTranscript t;
  readExecFramesInto(*host, t, 10s, "$ ");
  // The job has the terminal before it runs, so "started" means it is the foreground.
  ASSERT_TRUE(host->send(stdinFrame("stty -echo; sh -c 'echo started; exec sleep 30'\n")));
  readExecFramesInto(*host, t, 10s, "started\r\n");
  ASSERT_TRUE(host->send("{\"t\":\"sig\",\"n\":" + std::to_string(SIGINT) + "}\n" +
                         stdinFrame("echo woke $?\n")));
  readExecFramesInto(*host, t, 10s, "woke 130\r\n");
  ASSERT_TRUE(host->send(stdinFrame("exit\n")));
  readExecFramesInto(*host, t, 10s);
  EXPECT_NE(t.out.find("woke 130\r\n"), std::string::npos) << t.out;
  EXPECT_EQ(t.code, 0);
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

}  // namespace
}  // namespace tervain
