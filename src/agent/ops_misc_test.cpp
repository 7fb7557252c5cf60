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
#include "platform/child_process.h"

namespace tervain {
namespace {

using namespace std::chrono_literals;

class LaunchAppTest : public ::testing::Test {
 protected:
  Reply run(std::string_view line) { return handler.dispatch(line); }
  Reply launch(const std::string& name) {
    return run(Json({{"op", "launch_app"}, {"name", name}}).dump());
  }

  testing::FakeDesktop desktop;
  AgentContext context{desktop};
  ConnectionHandler handler{-1, context};
};

// Neither an empty name nor a path reaches the desktop: joined to the application folders, a
// path would open whatever it names.
TEST_F(LaunchAppTest, NameMustBeANonEmptyNameAndNotAPath) {
  for (const char* name : {"", R"(,"name":"")", R"(,"name":7)", R"(,"name":null)"}) {
    EXPECT_EQ(run(std::string(R"({"op":"launch_app")") + name + "}").error(),
              "launch_app requires a non-empty \"name\"")
        << name;
  }
  for (const std::string name :
       {"../../tmp/x", "/Applications/Calculator.app", "Utilities/Terminal", "..", "."}) {
    EXPECT_EQ(launch(name).error(),
              "launch_app requires an application's name, not a path: \"" + name + "\"");
  }
  EXPECT_TRUE(desktop.launched.empty());
  // Dots inside a name are no path.
  EXPECT_TRUE(launch("Foo..Bar").ok());
  EXPECT_EQ(desktop.launched, std::vector<std::string>{"Foo..Bar"});
}

TEST_F(LaunchAppTest, EachOutcomeHasItsReplyNamingTheApplicationAsSent) {
  const struct {
    LaunchResult result;
    const char* error;  // nothing: success
  } cases[] = {
      {{LaunchResult::Status::launched, {}}, nullptr},
      {{LaunchResult::Status::notFound, "open -a exited 1"},
       "no application named \"Text Edit.APP\" (open -a exited 1)"},
      {{LaunchResult::Status::failed, "The application cannot be opened because it is damaged."},
       "could not launch Text Edit.APP: The application cannot be opened because it is damaged."},
  };
  for (const auto& c : cases) {
    desktop.onLaunch = [&c](const std::string&, std::function<void(LaunchResult)> done) {
      done(c.result);
    };
    const Reply reply = launch("Text Edit.APP");
    if (c.error == nullptr) {
      EXPECT_EQ(reply.body, Json({{"ok", true}}));
    } else {
      EXPECT_EQ(reply.error(), c.error);
    }
  }
  EXPECT_EQ(desktop.launched, std::vector<std::string>(3, "Text Edit.APP"));
}

TEST_F(LaunchAppTest, ACompletionThatComesLateIsNotAnErrorAndStillHasItsOutcomeHolder) {
  context.launchTimeout = 50ms;
  std::function<void(LaunchResult)> pending;
  desktop.onLaunch = [&pending](const std::string&, std::function<void(LaunchResult)> done) {
    pending = std::move(done);
  };
  EXPECT_EQ(launch("Slow").body, Json({{"ok", true}}));
  ASSERT_TRUE(pending);
  // The completion arrives after the request has been answered, from another thread.
  std::thread late([done = std::move(pending)] {
    done({LaunchResult::Status::failed, "too late to matter"});
  });
  late.join();
}

// ---- `open -a`, the way a desktop resolves a name it has no bundle for -----------------------

class OpenToolTest : public ::testing::Test {
 protected:
  // A stand-in for "open" that records its arguments, one per line, and runs body.
  std::string standIn(const std::string& body) {
    const std::string path = dir.file("open");
    std::ofstream(path) << "#!/bin/sh\nprintf '%s\\n' \"$@\" > '" << dir.file("args") << "'\n"
                        << body << "\n";
    ::chmod(path.c_str(), 0755);
    return path;
  }
  std::string read(const std::string& name) const {
    std::ifstream in(dir.file(name));
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }

  testing::TempDir dir;
};

TEST_F(OpenToolTest, ExitStatusDecidesTheOutcome) {
  using Status = LaunchResult::Status;
  const struct {
    const char* body;
    Status status;
    const char* detail;
  } cases[] = {
      {"exit 0", Status::launched, ""},
      {"exit 1", Status::notFound, "open -a exited 1"},
      {"exit 42", Status::notFound, "open -a exited 42"},
      {"kill -9 $$", Status::notFound, "open -a exited 9"},
  };
  for (const auto& c : cases) {
    const LaunchResult result = launchWithOpenTool(standIn(c.body), "Text Edit");
    EXPECT_EQ(result.status, c.status) << c.body;
    EXPECT_EQ(result.detail, c.detail) << c.body;
    EXPECT_EQ(read("args"), "-a\nText Edit\n") << "open gets the name as sent";
  }
}

TEST_F(OpenToolTest, AToolThatCannotStartReportsTheSystemError) {
  LaunchResult result = launchWithOpenTool(dir.file("missing/open"), "Foo");
  EXPECT_EQ(result.status, LaunchResult::Status::failed);
  EXPECT_EQ(result.detail, "No such file or directory");
  const std::string notExecutable = dir.file("plain");
  std::ofstream(notExecutable) << "not a program\n";
  result = launchWithOpenTool(notExecutable, "Foo");
  EXPECT_EQ(result.detail, "Permission denied");
}

TEST_F(OpenToolTest, TheToolSharesOnlyTheStandardStreams) {
  // A descriptor the agent holds without close-on-exec, as a socket of another connection may.
  const int held = ::open("/dev/null", O_RDONLY);
  ASSERT_GE(held, 0);
  const int high = ::fcntl(held, F_DUPFD, 40);
  ::close(held);
  ASSERT_GE(high, 40);
  const std::string tool =
      standIn("for fd in 0 1 2 " + std::to_string(high) +
              "; do [ -e /proc/$$/fd/$fd ] && echo $fd; done > '" + dir.file("fds") + "'; exit 0");
  EXPECT_EQ(launchWithOpenTool(tool, "Foo").status, LaunchResult::Status::launched);
  ::close(high);
  if (::access("/proc/self/fd", F_OK) != 0) GTEST_SKIP() << "no /proc to look into";
  EXPECT_EQ(read("fds"), "0\n1\n2\n");
}

}  // namespace
}  // namespace tervain
