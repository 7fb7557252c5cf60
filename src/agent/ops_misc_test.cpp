#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <future>
#include <sstream>
#include <thread>

#include "agent/connection_handler.h"
#include "agent_process.h"
#include "fake_desktop.h"

namespace tervain {
namespace {

using namespace std::chrono_literals;

class LaunchAppTest : public ::testing::Test {
 protected:
  LaunchAppTest() { context.openToolPath = dir.file("no-open-here"); }

  Reply run(std::string_view line) { return handler.dispatch(line); }
  Reply launch(const std::string& name) {
    return run(Json({{"op", "launch_app"}, {"name", name}}).dump());
  }

  // A stand-in for "open" that records its arguments, one per line, and exits with the status.
  std::string standIn(const std::string& body) {
    const std::string path = dir.file("open");
    std::ofstream(path) << "#!/bin/sh\nprintf '%s\\n' \"$@\" > '" << dir.file("args") << "'\n"
                        << body << "\n";
    ::chmod(path.c_str(), 0755);
    context.openToolPath = path;
    return path;
  }
  std::string recordedArguments() const {
    std::ifstream in(dir.file("args"));
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }

  testing::TempDir dir;
  testing::FakeDesktop desktop;
  AgentContext context{desktop};
  ConnectionHandler handler{-1, context};
};

TEST_F(LaunchAppTest, NameMustBeANonEmptyString) {
  for (const char* line :
       {R"({"op":"launch_app"})", R"({"op":"launch_app","name":""})",
        R"({"op":"launch_app","name":7})", R"({"op":"launch_app","name":null})"}) {
    EXPECT_EQ(run(line).error(), "launch_app requires a non-empty \"name\"") << line;
  }
  EXPECT_TRUE(desktop.existenceChecks.empty());
}

TEST_F(LaunchAppTest, FoldersAreTriedInOrderUntilOneHoldsTheBundle) {
  desktop.existingFiles = {"/System/Applications/Utilities/Terminal.app"};
  EXPECT_EQ(launch("Terminal").body, Json({{"ok", true}}));
  EXPECT_EQ(
      desktop.existenceChecks,
      (std::vector<std::string>{"/Applications/Terminal.app", "/System/Applications/Terminal.app",
                                "/System/Applications/Utilities/Terminal.app"}));
  EXPECT_EQ(desktop.opened,
            std::vector<std::string>{"/System/Applications/Utilities/Terminal.app"});
}

TEST_F(LaunchAppTest, TheApplicationsFolderWinsOverTheSystemOnes) {
  desktop.existingFiles = {"/Applications/Safari.app", "/System/Applications/Safari.app"};
  EXPECT_TRUE(launch("Safari.app").ok());
  EXPECT_EQ(desktop.existenceChecks, std::vector<std::string>{"/Applications/Safari.app"});
  EXPECT_EQ(desktop.opened, std::vector<std::string>{"/Applications/Safari.app"});
}

TEST_F(LaunchAppTest, TheBundleSuffixIsCaseSensitive) {
  standIn("exit 0");
  EXPECT_TRUE(launch("TextEdit.APP").ok());
  EXPECT_EQ(desktop.existenceChecks.front(), "/Applications/TextEdit.APP.app");
  EXPECT_TRUE(desktop.opened.empty());
  EXPECT_EQ(recordedArguments(), "-a\nTextEdit.APP\n") << "open gets the name as sent";
}

TEST_F(LaunchAppTest, AWorkspaceErrorNamesTheApplicationAsSent) {
  desktop.existingFiles = {"/System/Applications/TextEdit.app"};
  desktop.onOpen = [](const std::string&, std::function<void(std::optional<std::string>)> done) {
    done("The application cannot be opened because it is damaged.");
  };
  EXPECT_EQ(launch("TextEdit").error(),
            "could not launch TextEdit: The application cannot be opened because it is damaged.");
}

TEST_F(LaunchAppTest, ACompletionThatComesLateIsNotAnErrorAndStillHasItsOutcomeHolder) {
  context.launchTimeout = 50ms;
  desktop.existingFiles = {"/Applications/Slow.app"};
  std::function<void(std::optional<std::string>)> pending;
  desktop.onOpen = [&pending](const std::string&,
                              std::function<void(std::optional<std::string>)> done) {
    pending = std::move(done);
  };
  EXPECT_EQ(launch("Slow").body, Json({{"ok", true}}));
  ASSERT_TRUE(pending);
  // The completion arrives after the request has been answered, from another thread.
  std::thread late([done = std::move(pending)] { done("too late to matter"); });
  late.join();
}

TEST_F(LaunchAppTest, FallbackSucceedsWhenOpenExitsZero) {
  standIn("exit 0");
  EXPECT_EQ(launch("Foo").body, Json({{"ok", true}}));
  EXPECT_EQ(recordedArguments(), "-a\nFoo\n");
}

TEST_F(LaunchAppTest, FallbackReportsOpensExitStatus) {
  standIn("exit 1");
  EXPECT_EQ(launch("Foo").error(), "no application named \"Foo\" (open -a exited 1)");
  standIn("exit 42");
  EXPECT_EQ(launch("Foo").error(), "no application named \"Foo\" (open -a exited 42)");
  standIn("kill -9 $$");
  EXPECT_EQ(launch("Foo").error(), "no application named \"Foo\" (open -a exited 9)");
}

TEST_F(LaunchAppTest, FallbackThatCannotStartReportsTheSystemError) {
  context.openToolPath = dir.file("missing/open");
  EXPECT_EQ(launch("Foo").error(), "could not launch Foo: No such file or directory");
  const std::string notExecutable = dir.file("plain");
  std::ofstream(notExecutable) << "not a program\n";
  context.openToolPath = notExecutable;
  EXPECT_EQ(launch("Foo").error(), "could not launch Foo: Permission denied");
}

TEST_F(LaunchAppTest, FallbackSharesOnlyTheStandardStreams) {
  // A descriptor the agent holds without close-on-exec, as a socket of another connection may.
  const int held = ::open("/dev/null", O_RDONLY);
  ASSERT_GE(held, 0);
  const int high = ::fcntl(held, F_DUPFD, 40);
  ::close(held);
  ASSERT_GE(high, 40);
  standIn("for fd in 0 1 2 " + std::to_string(high) +
          "; do [ -e /proc/$$/fd/$fd ] && echo $fd; done > '" + dir.file("fds") + "'; exit 0");
  EXPECT_TRUE(launch("Foo").ok());
  ::close(high);
  std::ifstream in(dir.file("fds"));
  std::stringstream seen;
  seen << in.rdbuf();
  if (::access("/proc/self/fd", F_OK) != 0) GTEST_SKIP() << "no /proc to look into";
  EXPECT_EQ(seen.str(), "0\n1\n2\n");
}

}  // namespace
}  // namespace tervain
