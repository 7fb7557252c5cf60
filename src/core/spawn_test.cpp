#include "core/spawn.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include <gtest/gtest.h>

#include "agent_process.h"
#include "core/unique_fd.h"

namespace tervain {
namespace {

using namespace std::chrono_literals;

// Everything a descriptor yields until end of file, or until 10 s have passed.
std::string readAll(int fd) {
  std::string out;
  char chunk[4096];
  for (int round = 0; round < 100; ++round) {
    pollfd ready{fd, POLLIN, 0};
    if (::poll(&ready, 1, 100) <= 0) continue;
    const ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n <= 0) break;
    out.append(chunk, static_cast<std::size_t>(n));
  }
  return out;
}

// Runs /bin/sh -c script with its output on a pipe and its input from /dev/null; what it
// printed, and its exit status.
struct ShellRun {
  std::string output;
  int status = -1;
};
ShellRun runShell(const std::string& script, SpawnOptions options = {}) {
  ErrnoOr<PipeEnds> out = makePipe();
  EXPECT_TRUE(out);
  if (!out) return {};
  const UniqueFd null(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  options.path = "/bin/sh";
  options.arguments = {"-c", script};
  options.standardStreams[0] = null.get();
  options.standardStreams[1] = out->write.get();  // 2 stays the test's own
  const ErrnoOr<pid_t> pid = spawnProcess(options);
  EXPECT_TRUE(pid) << script << ": errno " << pid.error();
  if (!pid) return {};
  out->write.reset();
  ShellRun run{readAll(out->read.get())};
  while (::waitpid(*pid, &run.status, 0) < 0 && errno == EINTR) {
  }
  return run;
}

TEST(SpawnTest, TheChildGetsWhatItWasGivenAndNothingElse) {
  testing::TempDir temp;
  // Descriptors a plain fork would hand down: one without close-on-exec, far above 2.
  const UniqueFd leaky(::fcntl(STDERR_FILENO, F_DUPFD, 40));
  ASSERT_GE(leaky.get(), 40);
  // Signals the agent may ignore or block (nohup, its own SIGPIPE, a thread's mask).
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  struct sigaction previousInt {};
  ::sigaction(SIGINT, &ignore, &previousInt);
  sigset_t blocked;
  sigset_t previousMask;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR1);
  ::pthread_sigmask(SIG_BLOCK, &blocked, &previousMask);
  ::setenv("TERVAIN_SPAWN_PARENT", "1", 1);

  using Group = SpawnOptions::Group;
  const std::string leader = "set -- $(cat /proc/$$/stat); echo $(($5 == $1)) $(($6 == $1))";
  const struct {
    const char* name;
    std::string script;
    SpawnOptions options;
    std::string expected;
  } cases[] = {
      {"only 0-2", "ls /proc/$$/fd; :", {}, "0\n1\n2\n"},  // ls lists the shell's
      // Read by the spawned process itself (a shell changes its own mask while it waits), for
      // signals 1 to 28: the C library keeps real-time signals of its own above.
      {"default signals, empty mask",
       "exec awk '/^Sig(Blk|Ign)/ { print $1, substr($2, 10) }' /proc/self/status", {},
       "SigBlk: 0000000\nSigIgn: 0000000\n"},
      {"the agent's environment", "echo ${TERVAIN_SPAWN_PARENT-unset}", {}, "1\n"},
      {"a complete environment", "echo ${TERVAIN_SPAWN_PARENT-unset} $ONLY",
       {.environment = std::vector<std::string>{"ONLY=this"}}, "unset this\n"},
      {"working directory", "pwd", {.workingDirectory = temp.path()}, temp.path() + "\n"},
      {"same group", leader, {}, "0 0\n"},
      {"group leader", leader, {.group = Group::newGroup}, "1 0\n"},
      {"session leader", leader, {.group = Group::newSession}, "1 1\n"},
  };
  for (const auto& c : cases) {
    const ShellRun run = runShell(c.script, c.options);
    EXPECT_EQ(run.output, c.expected) << c.name;
    EXPECT_EQ(run.status, 0) << c.name;
  }

  ::unsetenv("TERVAIN_SPAWN_PARENT");
  ::pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);
  ::sigaction(SIGINT, &previousInt, nullptr);
}

TEST(SpawnTest, AFailureToStartIsItsErrno) {
  testing::TempDir temp;
  const std::string plain = temp.file("plain");
  std::ofstream(plain) << "not a program\n";
  const struct {
    const char* name;
    SpawnOptions options;
    int error;
  } cases[] = {
      {"missing program", {.path = temp.file("missing")}, ENOENT},
      {"not executable", {.path = plain}, EACCES},
      {"missing working directory",
       {.path = "/bin/true", .workingDirectory = temp.file("missing")}, ENOENT},
  };
  for (const auto& c : cases) {
    const ErrnoOr<pid_t> pid = spawnProcess(c.options);
    EXPECT_EQ(pid.error(), c.error) << c.name;
    if (pid) ::waitpid(*pid, nullptr, 0);
  }
}

// A descriptor number is reused at once: a second close of the same number closes whatever
// was opened meanwhile, which is what these cases watch for.
TEST(UniqueFdTest, EachDescriptorIsClosedOnceAndOnlyByItsOwner) {
  auto isOpen = [](int fd) { return ::fcntl(fd, F_GETFD) != -1; };
  auto openNull = [] { return ::open("/dev/null", O_RDONLY | O_CLOEXEC); };
  {
    UniqueFd from(openNull());
    UniqueFd to(std::move(from));
    const int number = to.get();
    to.reset();
    const UniqueFd reused(openNull());
    ASSERT_EQ(reused.get(), number);
    { UniqueFd gone(std::move(from)); }  // the moved-from one holds nothing any more
    EXPECT_TRUE(isOpen(reused.get())) << "a moved-from descriptor was closed again";
  }
  {
    UniqueFd held(openNull());
    const int old = held.get();
    held = UniqueFd(openNull());
    EXPECT_FALSE(isOpen(old)) << "assignment leaks the descriptor it replaces";
    const int number = held.get();
    held = std::move(held);
    EXPECT_EQ(held.get(), number);
    EXPECT_TRUE(isOpen(number)) << "moving onto itself closes it";
    const int released = held.release();
    EXPECT_TRUE(isOpen(released));
    EXPECT_EQ(held.closeChecked(), 0);
    const int high = ::fcntl(released, F_DUPFD_CLOEXEC, 900);
    EXPECT_EQ(UniqueFd(released).closeChecked(), 0);
    EXPECT_EQ(UniqueFd(high).closeChecked(), 0);
    EXPECT_EQ(UniqueFd(high).closeChecked(), EBADF) << "a failed close is reported";
  }
}

TEST(UniqueFdTest, PipeEndsAreCloseOnExecAndTakeFlags) {
  for (const int flags : {0, O_NONBLOCK}) {
    const ErrnoOr<PipeEnds> pipe = makePipe(flags);
    ASSERT_TRUE(pipe);
    for (const UniqueFd* end : {&pipe->read, &pipe->write}) {
      EXPECT_EQ(::fcntl(end->get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC) << flags;
      EXPECT_EQ(::fcntl(end->get(), F_GETFL) & O_NONBLOCK, flags) << flags;
    }
    ASSERT_EQ(::write(pipe->write.get(), "x", 1), 1);
    char byte = 0;
    EXPECT_EQ(::read(pipe->read.get(), &byte, 1), 1);
  }
}

}  // namespace
}  // namespace tervain
