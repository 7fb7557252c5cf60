#include "platform/x11/app_launch.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include "agent_process.h"

namespace tervain::x11 {
namespace {

using Args = std::vector<std::string>;

TEST(DesktopEntryExec, QuotingEscapesAndFieldCodes) {
  struct Case {
    const char* exec;
    std::optional<Args> argv;
  };
  const Case cases[] = {
      {"gedit %U", Args{"gedit"}},
      {"/usr/bin/app --new-window %f", Args{"/usr/bin/app", "--new-window"}},
      {"\"/opt/My App/run\" -x", Args{"/opt/My App/run", "-x"}},
      {R"(sh -c "echo \"hi\" \$HOME \\ done")", Args{"sh", "-c", R"(echo "hi" $HOME \ done)"}},
      {"app --title=%c %k", Args{"app", "--title=Name Here", "/x/app.desktop"}},
      {"app %i", Args{"app", "--icon", "app-icon"}},
      {"app 100%%", Args{"app", "100%"}},
      {"  app   two  ", Args{"app", "two"}},
      {"\"\" x", Args{"", "x"}},
      {"app \"open", std::nullopt},
      {"app %z", std::nullopt},
      {"app %", std::nullopt},
      {"%U", std::nullopt},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(parseExec(c.exec, "Name Here", "app-icon", "/x/app.desktop"), c.argv) << c.exec;
  }
  EXPECT_EQ(parseExec("app %i", "n", "", "k"), Args{"app"}) << "no icon, no option";
}

class ResolveApplication : public ::testing::Test {
 protected:
  testing::TempDir temp;
  LaunchEnvironment env{temp.path(), temp.file("home-data"), temp.file("sys1") + ":" + temp.file("sys2"),
                        temp.file("bin")};
  void SetUp() override {
    for (const char* dir : {"home-data", "home-data/applications", "sys1", "sys1/applications",
                            "sys2", "sys2/applications", "bin"}) {
      ::mkdir(temp.file(dir).c_str(), 0700);
    }
  }
  void write(const std::string& path, const std::string& text, mode_t mode = 0600) {
    std::ofstream(temp.file(path)) << text;
    ::chmod(temp.file(path).c_str(), mode);
  }
  static std::string entry(const std::string& name, const std::string& exec,
                           const std::string& extra = "") {
    return "[Desktop Entry]\nType=Application\nName=" + name + "\nExec=" + exec + "\n" + extra +
           "[Desktop Action new]\nName=Other\nExec=wrong\n";
  }
};

TEST_F(ResolveApplication, ByFileNameThenByNameThenOnPath) {
  write("sys2/applications/org.example.Edit.desktop", entry("Text Editor", "edit-sys2 %F"));
  write("sys1/applications/org.example.Edit.desktop", entry("Text Editor", "edit-sys1 %F"));
  write("home-data/applications/calc.desktop", entry("Calculator", "mycalc", "Path=/tmp\n"));
  write("sys1/applications/gone.desktop", entry("Gone", "gone", "Hidden=true\n"));
  write("sys1/applications/link.desktop",
        "[Desktop Entry]\nType=Link\nName=Link\nURL=http://example.com\n");
  write("bin/tool", "#!/bin/sh\n", 0700);
  write("bin/notexec", "", 0600);

  struct Case {
    const char* name;
    std::optional<Args> argv;
    std::string source;
  };
  const Case cases[] = {
      {"org.example.Edit", Args{"edit-sys1"}, "sys1/applications/org.example.Edit.desktop"},
      {"org.example.Edit.desktop", Args{"edit-sys1"}, "sys1/applications/org.example.Edit.desktop"},
      {"text editor", Args{"edit-sys1"}, "sys1/applications/org.example.Edit.desktop"},
      {"Calculator", Args{"mycalc"}, "home-data/applications/calc.desktop"},
      {"tool", Args{temp.file("bin/tool")}, "bin/tool"},
      {"Gone", std::nullopt, ""},
      {"link", std::nullopt, ""},
      {"Other", std::nullopt, ""},
      {"notexec", std::nullopt, ""},
      {"../bin/tool", std::nullopt, ""},
      {"", std::nullopt, ""},
  };
  for (const Case& c : cases) {
    const auto target = resolveApplication(c.name, env);
    ASSERT_EQ(target.has_value(), c.argv.has_value()) << c.name;
    if (!target) continue;
    EXPECT_EQ(target->argv, *c.argv) << c.name;
    EXPECT_EQ(target->source, temp.file(c.source)) << c.name;
  }
  EXPECT_EQ(resolveApplication("Calculator", env)->workingDirectory, "/tmp");
}

TEST_F(ResolveApplication, StartsDetachedInItsOwnSessionOrSaysWhyNot) {
  write("bin/record", "#!/bin/sh\necho \"$$ $(ps -o sid= -p $$) $PPID $1\" > \"$2\"\n", 0700);
  const std::string out = temp.file("started");
  ASSERT_EQ(startDetached({{"record", "hello", out}, temp.path(), "x"}, env), 0);
  std::string line;
  for (int i = 0; i < 200 && line.empty(); ++i) {
    std::ifstream file(out);
    std::getline(file, line);
    if (line.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_FALSE(line.empty()) << "the program did not run";
  std::istringstream fields(line);
  long pid = 0, sid = 0, parent = 0;
  std::string word;
  fields >> pid >> sid >> parent >> word;
  EXPECT_NE(sid, static_cast<long>(::getsid(0))) << "it runs in a session of its own";
  EXPECT_EQ(word, "hello");
  // It has ended: the agent reaps it, so no zombie is left behind.
  const std::string entry = "/proc/" + std::to_string(pid);
  for (int i = 0; i < 500 && ::access(entry.c_str(), F_OK) == 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_NE(::access(entry.c_str(), F_OK), 0) << "it was left a zombie";

  EXPECT_EQ(startDetached({{"no-such-program"}, "", "x"}, env), ENOENT);
  EXPECT_EQ(startDetached({{temp.file("bin")}, "", "x"}, env), EACCES);
  EXPECT_EQ(startDetached({{"record"}, temp.file("missing-dir"), "x"}, env), ENOENT);
}

}  // namespace
}  // namespace tervain::x11
