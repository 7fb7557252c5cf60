// The agent and an X server of the test's own that goes away and comes back: the agent must
// outlive it, keep serving what needs no display, and take the display back when one answers.
#include <gtest/gtest.h>
// clang-format off
#include <X11/Xlib.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
// clang-format on

#include <chrono>
#include <fstream>
#include <optional>
#include <string>
#include <thread>

#include "agent_process.h"
#include "child_process.h"
#include "core/json.h"
#include "desktop_session.h"
#include "exec_test_support.h"

namespace tervain::testing {
namespace {

using Clock = std::chrono::steady_clock;

// An Xvfb of this test's own, stopped by its pid.
class PrivateXServer {
 public:
  // display: a number to take, or -1 for any free one (the server picks it).
  explicit PrivateXServer(int display = -1, std::string size = "640x480x24") {
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) return;
    const int devNull = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    // The shell looks Xvfb up on the PATH and becomes it.
    std::vector<std::string> args = {"/bin/sh", "-c", "exec Xvfb \"$@\"", "Xvfb", "-displayfd",
                                     "1", "-screen", "0", size, "-nolisten", "tcp",
                                     "+extension", "XTEST"};
    if (display >= 0) args.insert(args.begin() + 4, ":" + std::to_string(display));
    pid = spawnProgram(args, {.stdoutFd = pipeFds[1], .stderrFd = devNull});
    ::close(devNull);
    ::close(pipeFds[1]);
    // The server writes its number once it accepts connections.
    std::string number;
    char c = 0;
    for (int i = 0; i < 16 && pid > 0 && ::read(pipeFds[0], &c, 1) == 1 && c != '\n'; ++i) {
      number += c;
    }
    ::close(pipeFds[0]);
    if (!number.empty()) name = ":" + number;
  }
  ~PrivateXServer() { stop(); }
  PrivateXServer(const PrivateXServer&) = delete;
  PrivateXServer& operator=(const PrivateXServer&) = delete;

  // ":N", or empty when the server did not start.
  const std::string& display() const { return name; }
  int number() const { return name.empty() ? -1 : std::stoi(name.substr(1)); }

  void stop() {
    if (pid <= 0) return;
    ::kill(pid, SIGTERM);
    int status = 0;
    ::waitpid(pid, &status, 0);
    pid = -1;
  }

 private:
  pid_t pid = -1;
  std::string name;
};

Json request(const AgentProcess& agent, const Json& line) {
  const std::optional<std::string> reply = agent.request(line.dump());
  const Json parsed = reply ? Json::parse(*reply, nullptr, false) : Json();
  return parsed.is_object() ? parsed : Json::object();
}

TEST(XServerLoss, TheAgentOutlivesItsXServerAndTakesTheNextOne) {
  REQUIRE_TEST_DESKTOP();
  std::optional<PrivateXServer> server(std::in_place);
  ASSERT_FALSE(server->display().empty()) << "Xvfb did not start";
  const int number = server->number();
  TempDir spool;
  AgentProcess agent(AgentProcess::Options{
      .args = {"--desktop", "x11"},
      .env = {{"DISPLAY", server->display()}, {"TERVAIN_DULK_DISABLE", "1"}}});
  const Json screenshot = {{"op", "screenshot"}};
  const Json click = {{"op", "click"}, {"x", 10}, {"y", 10}};
  ASSERT_EQ(request(agent, screenshot)["width"], 640);

  server->stop();
  const Json lostShot = request(agent, screenshot);
  EXPECT_EQ(lostShot["ok"], false) << lostShot.dump();
  EXPECT_EQ(request(agent, click)["ok"], false);
  EXPECT_EQ(request(agent, {{"op", "ping"}})["readiness"]["postEvent"], false);
  // What needs no display goes on.
  LineClient exec = agent.connect();
  ASSERT_TRUE(exec.send(Json{{"op", "exec"}, {"command", "echo alive"}}.dump() + "\n"));
  EXPECT_EQ(readExecFrames(exec).out, "alive\n");
  std::ofstream(spool.file("a.jsonl")) << "{\"e\":1}\n";
  EXPECT_EQ(request(agent, {{"op", "shell-events"}, {"dir", spool.path()}})["files"], 1);
  ASSERT_TRUE(agent.running()) << agent.log();

  // A new server of another size on the same display: the next requests find it, and nothing
  // kept about the old one misleads them.
  server.emplace(number, "800x600x24");
  ASSERT_EQ(server->display(), ":" + std::to_string(number));
  Json shot = Json::object();
  for (int i = 0; i < 50 && !shot.value("ok", false); ++i) {
    shot = request(agent, screenshot);
    if (!shot.value("ok", false)) std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  EXPECT_EQ(shot["width"], 800) << shot.dump().substr(0, 300);
  EXPECT_EQ(request(agent, click), Json({{"ok", true}}));
  server->stop();
  EXPECT_TRUE(agent.running()) << agent.log();
}

TEST(XServerLoss, ADisplayThatDoesNotAnswerAtStartUp) {
  REQUIRE_TEST_DESKTOP();
  // A display number that was just free and is free again.
  std::string display;
  {
    PrivateXServer server;
    display = server.display();
  }
  ASSERT_FALSE(display.empty()) << "Xvfb did not start";
  const struct {
    const char* desktop;
    std::optional<int> exit;  // nothing: the agent serves
    std::string line;
  } cases[] = {
      {"auto", std::nullopt, "the X display " + display + " does not answer: serving the headless desktop"},
      {"x11", 1, "FATAL: the X display " + display + " does not answer: cannot serve --desktop x11"},
  };
  for (const auto& c : cases) {
    AgentProcess agent(AgentProcess::Options{.args = {"--desktop", c.desktop},
                                             .env = {{"DISPLAY", display}},
                                             .waitForReady = !c.exit});
    EXPECT_EQ(agent.waitForExit(c.exit ? std::chrono::seconds(10) : std::chrono::seconds(0)),
              c.exit)
        << c.desktop;
    EXPECT_TRUE(agent.waitForLog("[TervainVMAgent] " + c.line)) << agent.log();
    if (!c.exit) {
      EXPECT_TRUE(agent.waitForLog("[TervainVMAgent] desktop: headless"));
    }
  }
}

}  // namespace
}  // namespace tervain::testing
