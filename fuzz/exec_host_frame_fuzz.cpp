// The exec session's host frames ("i" data, "eof", "sig" and anything else a host may send),
// through the session's line framing and frame handler, applied to a live child.
//
// The child is started once per fuzzing process, not per input: a "cat" that leads its own
// process group, so that a "sig" frame, which signals the whole group, reaches nothing but it.
// Only this file reaps it, between inputs, and only to start the next one, whose pid the next
// session gets: no session ever holds a pid that could have been reused. Its stdin is one end of
// a socket pair; every session writes to a duplicate of the other end, and the fuzzer empties the
// child's end before each input, so stdin frames go straight in even when a frame stopped it. When
// the fuzzer dies the child reads end of input and exits (stopped, its orphaned group gets SIGHUP).
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>

#include "core/exec_session.h"
#include "core/spawn.h"

namespace tervain {

struct ExecSessionProbe {
  static void attach(ExecSession& session, pid_t child, int stdinFD) {
    session.pid = child;
    session.stdinFD.reset(stdinFD);
  }
  static void applyBufferedLines(ExecSession& session) { session.applyBufferedLines(); }
  // The child outlives the session: without a pid the destructor neither kills nor reaps it.
  static void detach(ExecSession& session) { session.pid = -1; }
};

namespace {

// Larger inputs are skipped: all the stdin one input can carry then fits the socket buffer.
constexpr std::size_t kMaxInput = 48 * 1024;

struct Child {
  pid_t pid = -1;
  int writeEnd = -1;  // duplicated for every session; never given to the child
  int readEnd = -1;   // the child's stdin; emptied by the fuzzer too
};

Child gChild;
int gSessionSocket = -1;  // the session's "host connection"; handling a frame never writes to it

void closeOnExec(int fd) { (void)::fcntl(fd, F_SETFD, FD_CLOEXEC); }

void startChild() {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) std::abort();
  const int devNull = ::open("/dev/null", O_WRONLY);
  if (devNull < 0) std::abort();
  for (int fd : {ends[0], ends[1], devNull}) closeOnExec(fd);
  const ErrnoOr<pid_t> pid = spawnProcess({.path = "/bin/cat",
                                           .environment = std::vector<std::string>{},
                                           .standardStreams = {ends[1], devNull, devNull},
                                           .group = SpawnOptions::Group::newGroup});
  ::close(devNull);
  if (!pid) std::abort();
  gChild = {*pid, ends[0], ends[1]};
}

// Replaces the child when an input's signal ended it; the old one is reaped here and only here.
void keepChildAlive() {
  siginfo_t info{};
  if (::waitid(P_PID, static_cast<id_t>(gChild.pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0 ||
      info.si_pid != gChild.pid) {
    return;
  }
  while (::waitpid(gChild.pid, nullptr, 0) < 0 && errno == EINTR) {
  }
  ::close(gChild.writeEnd);
  ::close(gChild.readEnd);
  startChild();
}

void drainChildInput() {
  char scratch[64 * 1024];
  while (::recv(gChild.readEnd, scratch, sizeof scratch, MSG_DONTWAIT) > 0) {
  }
}

void stopChild() {
  if (gChild.pid <= 0) return;
  ::kill(-gChild.pid, SIGKILL);
  while (::waitpid(gChild.pid, nullptr, 0) < 0 && errno == EINTR) {
  }
  gChild.pid = -1;
}

}  // namespace
}  // namespace tervain

using namespace tervain;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // As in the agent: a write to a closed reader must fail, not end the process.
  ::signal(SIGPIPE, SIG_IGN);
  // A signal frame may well be SIGQUIT or SIGSEGV; the child leaves no core behind.
  const rlimit noCore{0, 0};
  ::setrlimit(RLIMIT_CORE, &noCore);
  int pair[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) std::abort();
  closeOnExec(pair[0]);
  closeOnExec(pair[1]);
  gSessionSocket = pair[0];  // pair[1] stays open and unread: the peer of a host that never reads
  startChild();
  std::atexit(stopChild);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > kMaxInput) return 0;
  keepChildAlive();
  drainChildInput();
  const int stdinFD = ::fcntl(gChild.writeEnd, F_DUPFD_CLOEXEC, 0);
  if (stdinFD < 0) std::abort();
  // A session sets its stdin non-blocking when it starts; this one never starts.
  (void)::fcntl(stdinFD, F_SETFL, ::fcntl(stdinFD, F_GETFL) | O_NONBLOCK);
  {
    ExecSession session(gSessionSocket, std::string(reinterpret_cast<const char*>(data), size),
                        "/nonexistent/agent-shell", 0);
    ExecSessionProbe::attach(session, gChild.pid, stdinFD);
    ExecSessionProbe::applyBufferedLines(session);
    ExecSessionProbe::detach(session);
  }  // closes stdinFD unless an "eof" frame already did
  // Undo a stop from this input so the child keeps reading; a no-op on one already dead.
  ::kill(-gChild.pid, SIGCONT);
  return 0;
}
