// The exec entry of the connection handler: the fixed refusal, the routing, and the end of the
// connection after one command.
#include <signal.h>
#include <sys/socket.h>

#include <cstdlib>
#include <thread>

#include <gtest/gtest.h>

#include "agent/connection_handler.h"
#include "agent/ops_exec.h"
#include "exec_test_support.h"
#include "fake_desktop.h"

namespace tervain {
namespace {

using namespace std::chrono_literals;

class RunExecTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ::signal(SIGPIPE, SIG_IGN);
    ::setenv("TERVAIN_DULK_DISABLE", "1", 1);
    int pair[2];
    ASSERT_TRUE(testing::closeOnExecSocketPair(pair));
    handler.emplace(pair[0], context);
    handlerFD = pair[0];
    host.emplace(pair[1]);
  }
  void TearDown() override {
    host->close();
    if (worker.joinable()) worker.join();
    ::unsetenv("TERVAIN_DULK_DISABLE");
  }

  testing::FakeDesktop desktop;
  AgentContext context{desktop};
  std::optional<ConnectionHandler> handler;
  int handlerFD = -1;
  std::optional<testing::LineClient> host;
  std::thread worker;
};

TEST_F(RunExecTest, ARequestThatIsNotAnObjectGetsTheFixedLine) {
  for (const char* line : {"[1,2]", "not json", "\"exec\"", "{\"op\":\"exec\""}) {
    runExec(handler->operations(), line);
    EXPECT_EQ(host->readLine(1s), R"({"t":"err","m":"exec request did not parse"})") << line;
  }
  ::close(handlerFD);  // run() was never called, so nothing else closes it
}

TEST_F(RunExecTest, TheCommandTakesOverTheConnectionAndEndsIt) {
  // The ping after the exec line is the command's input, never a request.
  ASSERT_TRUE(host->send("{\"op\":\"exec\",\"command\":\"cat\"}\n{\"op\":\"ping\"}\n"
                         "{\"t\":\"eof\"}\n"));
  worker = std::thread([this] { handler->run(); });
  const testing::ExecTranscript t = testing::readExecFrames(*host);
  EXPECT_EQ(t.out, "");
  EXPECT_EQ(t.code, 0);
  EXPECT_TRUE(t.badFrames.empty());
  EXPECT_TRUE(host->closedByPeer());
}

// An exec's unfinished host frame counts against the bound all connections share, like an
// unfinished request line, and its share is given back when the session ends.
TEST_F(RunExecTest, AnUnfinishedHostFrameCountsAgainstTheSharedBound) {
  context.pendingLineBytes.limit = 10'000;
  ASSERT_TRUE(host->send("{\"op\":\"exec\",\"command\":\"cat\"}\n{\"t\":\"i\",\"d\":\"" +
                         std::string(10'001, 'A')));
  worker = std::thread([this] { handler->run(); });
  const testing::ExecTranscript t = testing::readExecFrames(*host);
  EXPECT_EQ(t.error, "unfinished lines of all connections would pass 10000 bytes \u2014 the "
                     "command was killed; send stdin in smaller \"i\" frames");
  worker.join();
  EXPECT_EQ(context.pendingLineBytes.used(), 0u);
}

}  // namespace
}  // namespace tervain
