// An agent that runs out of descriptors keeps its listener, says so, and serves again once
// descriptors are free.
#include <sys/resource.h>

#include <filesystem>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "agent_process.h"
#include "core/json.h"

namespace tervain::testing {
namespace {

int openDescriptors(pid_t pid) {
  int count = 0;
  for (const auto& entry :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
    (void)entry;
    ++count;
  }
  return count;
}

TEST(DescriptorExhaustionTest, AcceptFailureIsLoggedAndServingResumes) {
  if (!std::filesystem::exists("/proc/self/fd")) GTEST_SKIP() << "needs /proc";
  AgentProcess agent;
  // One whole connection first: the agent is ready once its socket exists, which is before its
  // accept thread starts, and the first connection thread to start and to end must both do so
  // with descriptors to spare (see the sanitizer note below).
  ASSERT_TRUE(agent.request("{\"op\":\"ping\"}"));
  ASSERT_TRUE(agent.waitForLog("host disconnected"));
  std::this_thread::sleep_for(200ms);  // the thread logs that line just before it ends
  const int inUse = openDescriptors(agent.pid());
  rlimit original{};
  ASSERT_EQ(prlimit(agent.pid(), RLIMIT_NOFILE, nullptr, &original), 0);
  // Only the soft limit goes down, so that it can go back up without privileges.
  const rlimit tight{static_cast<rlim_t>(inUse + 3), original.rlim_max};
  ASSERT_EQ(prlimit(agent.pid(), RLIMIT_NOFILE, &tight, nullptr), 0);

  // Three connections fit; the fourth waits in the backlog while accept fails.
  std::vector<LineClient> clients;
  for (int i = 0; i < 6; ++i) {
    clients.push_back(agent.connect());
    ASSERT_TRUE(clients.back().valid());
    ASSERT_TRUE(clients.back().send("{\"op\":\"ping\"}\n"));
  }
  ASSERT_TRUE(agent.waitForLog("accept failed (errno 24); retrying"));
  EXPECT_TRUE(agent.running());
  EXPECT_TRUE(clients.front().readLine()) << "an accepted connection is still served";

  // Give the agent its descriptors back, then end the connections it holds: every waiting
  // connection is accepted in turn and answered. The limit goes up before any connection thread
  // ends: a process without a single free descriptor cannot be checked reliably under the
  // undefined-behaviour sanitizer, whose vptr check probes memory through a pipe and reports
  // every object as having an invalid vptr when pipe() fails. Nothing the agent does depends on
  // this order; it only keeps the sanitized run free of that false report.
  ASSERT_EQ(prlimit(agent.pid(), RLIMIT_NOFILE, &original, nullptr), 0);
  for (std::size_t i = 0; i < 3; ++i) clients[i].close();
  for (std::size_t i = 3; i < clients.size(); ++i) {
    const auto reply = clients[i].readLine(15s);
    ASSERT_TRUE(reply) << "connection " << i << " was never served\n" << agent.log();
    EXPECT_EQ(Json::parse(*reply)["ok"], true);
    clients[i].close();
  }
  const auto fresh = agent.request("{\"op\":\"ping\"}");
  ASSERT_TRUE(fresh);
  EXPECT_EQ(Json::parse(*fresh)["ok"], true);
  EXPECT_TRUE(agent.running());
}

}  // namespace
}  // namespace tervain::testing
