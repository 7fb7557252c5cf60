// The exec entry of the connection handler: the fixed refusal of a line that is no request (the
// routing and the end of the connection are tested end to end).
#include <signal.h>
#include <unistd.h>

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

TEST(RunExecTest, ARequestThatIsNotAnObjectGetsTheFixedLine) {
  int pair[2];
  ASSERT_TRUE(testing::closeOnExecSocketPair(pair));
  testing::FakeDesktop desktop;
  AgentContext context{desktop};
  ConnectionHandler handler(pair[0], context);
  testing::LineClient host(pair[1]);
  for (const char* line : {"[1,2]", "not json", "\"exec\"", "{\"op\":\"exec\""}) {
    runExec(handler.operations(), line);
    EXPECT_EQ(host.readLine(1s), R"({"t":"err","m":"exec request did not parse"})") << line;
  }
  ::close(pair[0]);  // run() was never called, so nothing else closes it
}

// An exec's unfinished host frame counts against the bound all connections share, like an
// unfinished request line, and its share is given back when the session ends.
TEST(RunExecTest, AnUnfinishedHostFrameCountsAgainstTheSharedBound) {
  ::signal(SIGPIPE, SIG_IGN);
  ::setenv("TERVAIN_DULK_DISABLE", "1", 1);
  int pair[2];
  ASSERT_TRUE(testing::closeOnExecSocketPair(pair));
  testing::FakeDesktop desktop;
  AgentContext context{desktop};
  context.pendingLineBytes.limit = 10'000;
  ConnectionHandler handler(pair[0], context);
  testing::LineClient host(pair[1]);
  ASSERT_TRUE(host.send("{\"op\":\"exec\",\"command\":\"cat\"}\n{\"t\":\"i\",\"d\":\"" +
                        std::string(10'001, 'A')));
  std::thread worker([&handler] { handler.run(); });
  const testing::ExecTranscript t = testing::readExecFrames(host);
  EXPECT_EQ(t.error, "unfinished lines of all connections would pass 10000 bytes \u2014 the "
                     "command was killed; send stdin in smaller \"i\" frames");
  host.close();
  worker.join();
  ::unsetenv("TERVAIN_DULK_DISABLE");
  EXPECT_EQ(context.pendingLineBytes.used(), 0u);
}

}  // namespace
}  // namespace tervain
