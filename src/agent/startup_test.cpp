#include "agent/startup.h"

#include <signal.h>
#include <sys/stat.h>

#include <fstream>

#include <gtest/gtest.h>

#include "agent_process.h"
#include "fake_desktop.h"

namespace tervain {
namespace {

TEST(StartupTest, PortFromTheEnvironment) {
  EXPECT_EQ(choosePort(nullptr), 2035u);
  for (const auto& [text, port] :
       {std::pair{"", 2035u}, {"2036", 2036u}, {"+2036", 2036u}, {"-0", 0u}, {"-000", 0u},
        {"0", 0u}, {"4294967295", 4294967295u}}) {
    EXPECT_EQ(choosePort(text), port) << text;
  }
  for (const char* bad : {"-1", " 2036", "2036 ", "0x7f3", "4294967296", "+", "-", "++1",
                          "20 36", "99999999999999999999999"}) {
    EXPECT_EQ(choosePort(bad), 2035u) << bad;
  }
}

TEST(StartupTest, CommandLine) {
  using Action = CommandLine::Action;
  const auto parse = [](std::vector<const char*> args) {
    args.insert(args.begin(), "TervainVMAgent");
    return parseCommandLine(static_cast<int>(args.size()), args.data());
  };
  EXPECT_FALSE(parse({}).unixPath);
  EXPECT_EQ(parse({"--unix", "/tmp/a.sock"}).unixPath, "/tmp/a.sock");
  for (const auto& [args, action] : std::vector<std::pair<std::vector<const char*>, Action>>{
           {{}, Action::serve}, {{"--help"}, Action::help}, {{"--version"}, Action::version},
           {{"--request-grants"}, Action::requestGrants}, {{"--unix"}, Action::usageError},
           {{"--unix", ""}, Action::usageError}, {{"--port", "5"}, Action::usageError}}) {
    EXPECT_EQ(parse(args).action, action) << (args.empty() ? "" : args[0]);
  }
  EXPECT_EQ(parse({"--port", "5"}).problem, "unknown argument '--port'");

  EXPECT_EQ(parse({}).desktop, "auto");
  for (const char* kind : {"x11", "headless", "auto"}) {
    EXPECT_EQ(parse({"--desktop", kind, "--unix", "/s"}).desktop, kind);
  }
  for (const std::vector<const char*>& bad :
       {std::vector<const char*>{"--desktop"}, {"--desktop", "X11"}, {"--desktop", "wayland"},
        {"--desktop", ""}}) {
    EXPECT_EQ(parse(bad).action, Action::usageError);
    EXPECT_EQ(parse(bad).problem, "--desktop takes x11, headless or auto");
  }
}

TEST(StartupTest, ReadinessLineQueriesEachGrant) {
  testing::FakeDesktop desktop;
  desktop.accessibility = true;
  desktop.screenRecording = false;
  desktop.postEvents = true;
  EXPECT_EQ(readinessLine(desktop),
            "readiness: accessibility=true screenRecording=false postEvent=true");
}

TEST(StartupTest, ExecShellLineSaysWhichShellRunsCommands) {
  const std::string dulk = "/usr/local/bin/dulk";
  struct Case {
    const char* disable;
    bool installed;
    std::optional<std::string> withoutAgentShell;
    std::string line;
  };
  const Case cases[] = {
      {nullptr, true, "/bin/bash", "exec: commands run under the agent shell " + dulk},
      {nullptr, false, "/bin/bash",
       "exec: no agent shell at " + dulk + ": commands run under the login shell /bin/bash"},
      {"true", false, std::nullopt, "exec: no agent shell at " + dulk + ": exec requests are refused"},
      {"1", false, std::nullopt, "exec: commands run under /bin/zsh (TERVAIN_DULK_DISABLE=1)"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(execShellLine(c.disable, c.installed, c.withoutAgentShell), c.line);
  }
}

// SIGTERM and SIGINT: a log line, status 0, and the socket file gone, but only when it is still
// the one the agent bound.
TEST(StartupTest, StopSignalsLogRemoveTheSocketAndExitZero) {
  for (const auto& [signal, name, replaced] :
       {std::tuple{SIGTERM, "SIGTERM", false}, std::tuple{SIGINT, "SIGINT", false},
        std::tuple{SIGTERM, "SIGTERM", true}}) {
    testing::AgentProcess agent;
    ASSERT_TRUE(agent.waitForLog("exec: "));
    if (replaced) {
      ASSERT_EQ(::unlink(agent.socketPath().c_str()), 0);
      std::ofstream(agent.socketPath()) << "someone else's\n";
    }
    ASSERT_EQ(::kill(agent.pid(), signal), 0);
    EXPECT_EQ(agent.waitForExit(), 0) << name;
    EXPECT_NE(agent.log().find(std::string("stopping on ") + name), std::string::npos)
        << agent.log();
    struct stat st {};
    EXPECT_EQ(::stat(agent.socketPath().c_str(), &st) == 0, replaced) << name;
  }
}

TEST(StartupTest, RequestGrantsPromptsThenSaysWhatToDo) {
  const struct {
    const char* kind;
    bool accessibility, screenRecording, postEvent;
    const char* report;
  } cases[] = {
      {"macos", true, true, true,
       "accessibility: granted\nscreen recording: granted\ninput synthesis: granted\n"},
      {"macos", false, true, false,
       "accessibility: not granted \u2014 turn TervainVMAgent on in System Settings > Privacy & "
       "Security > Accessibility\nscreen recording: granted\ninput synthesis: not granted \u2014 "
       "turn TervainVMAgent on in System Settings > Privacy & Security > Accessibility\n"},
      {"x11", true, false, true,
       "accessibility: granted\nscreen recording: not granted \u2014 a display must answer "
       "(DISPLAY)\ninput synthesis: granted\n"},
  };
  for (const auto& c : cases) {
    testing::FakeDesktop desktop;
    desktop.kindName = c.kind;
    desktop.accessibility = c.accessibility;
    desktop.screenRecording = c.screenRecording;
    desktop.postEvents = c.postEvent;
    std::string expected = c.report;
    if (desktop.kindName == "macos") {
      expected +=
          "A screen recording grant given while the agent runs takes effect only after a "
          "restart: launchctl kickstart -k gui/$(id -u)/dev.tervain.vmagent\n";
    }
    EXPECT_EQ(requestGrantsReport(desktop), expected) << c.kind;
    EXPECT_EQ(desktop.grantRequests, 1);
  }
}

}  // namespace
}  // namespace tervain
