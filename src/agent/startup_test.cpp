#include "agent/startup.h"

#include <gtest/gtest.h>

#include "fake_desktop.h"

namespace tervain {
namespace {

TEST(StartupTest, PortFromTheEnvironment) {
  EXPECT_EQ(choosePort(nullptr), 2035u);
  EXPECT_EQ(choosePort(""), 2035u);
  EXPECT_EQ(choosePort("2036"), 2036u);
  EXPECT_EQ(choosePort("+2036"), 2036u);
  EXPECT_EQ(choosePort("-0"), 0u);
  EXPECT_EQ(choosePort("-000"), 0u);
  EXPECT_EQ(choosePort("0"), 0u);
  EXPECT_EQ(choosePort("4294967295"), 4294967295u);
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
  EXPECT_EQ(parse({}).action, Action::serve);
  EXPECT_FALSE(parse({}).unixPath);
  EXPECT_EQ(parse({"--unix", "/tmp/a.sock"}).unixPath, "/tmp/a.sock");
  EXPECT_EQ(parse({"--help"}).action, Action::help);
  EXPECT_EQ(parse({"--version"}).action, Action::version);
  EXPECT_EQ(parse({"--unix"}).action, Action::usageError);
  EXPECT_EQ(parse({"--unix", ""}).action, Action::usageError);
  EXPECT_EQ(parse({"--port", "5"}).action, Action::usageError);
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

}  // namespace
}  // namespace tervain
