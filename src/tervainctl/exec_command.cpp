// tervainctl exec: a guest command with the local terminal's streams, as ssh host command.
//
// Output is written to the local standard output and error the moment its frame is decoded.
// A second thread waits on three descriptors at once: the local standard input (forwarded as
// it arrives, then end of input), a self-pipe filled by the handlers of SIGINT, SIGTERM and
// SIGHUP (each forwarded as a signal frame), and a stop pipe that ends the thread when the
// command has ended. Those signals are blocked everywhere but on that thread, so each is taken
// by the thread that polls the self-pipe: a handler is never left waiting on the thread parked in
// a read of the connection (some runtimes, the thread sanitizer's among them, run handlers only
// once the interrupted call returns, and a restarted read may never return).
#include <pthread.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "tervainctl/tervainctl.h"

namespace tervain::ctl {
namespace {

constexpr std::array kForwardedSignals = {SIGINT, SIGTERM, SIGHUP};
// Interrupts beyond this many give up on the command: its process group is killed when the
// connection drops.
constexpr int kInterruptsBeforeGivingUp = 3;

int gSignalWrite = -1;

extern "C" void queueSignal(int signal) {
  const int saved = errno;
  const auto byte = static_cast<unsigned char>(signal);
  [[maybe_unused]] const ssize_t ignored = ::write(gSignalWrite, &byte, 1);
  errno = saved;
}

struct LocalWriteError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Installs the forwarding handlers for its lifetime.
class SignalForwarding {
 public:
  // writeEnd is the self-pipe's non-blocking write end; it must outlive this object.
  explicit SignalForwarding(int writeEnd) {
    gSignalWrite = writeEnd;
    struct sigaction action {};
    action.sa_handler = queueSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (std::size_t i = 0; i < kForwardedSignals.size(); ++i) {
      ::sigaction(kForwardedSignals[i], &action, &previous[i]);
    }
  }
  ~SignalForwarding() {
    for (std::size_t i = 0; i < kForwardedSignals.size(); ++i) {
      ::sigaction(kForwardedSignals[i], &previous[i], nullptr);
    }
  }
  SignalForwarding(const SignalForwarding&) = delete;
  SignalForwarding& operator=(const SignalForwarding&) = delete;

 private:
  std::array<struct sigaction, kForwardedSignals.size()> previous{};
};

sigset_t forwardedSet() {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : kForwardedSignals) sigaddset(&set, signal);
  return set;
}

// Blocks the forwarded signals on the calling thread for its lifetime; threads started meanwhile
// inherit the mask. Whatever arrived in between is delivered when the mask is restored, while the
// handlers are still installed.
class ForwardedSignalsBlocked {
 public:
  ForwardedSignalsBlocked() {
    const sigset_t set = forwardedSet();
    ::pthread_sigmask(SIG_BLOCK, &set, &previous);
  }
  ~ForwardedSignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &previous, nullptr); }
  ForwardedSignalsBlocked(const ForwardedSignalsBlocked&) = delete;
  ForwardedSignalsBlocked& operator=(const ForwardedSignalsBlocked&) = delete;

 private:
  sigset_t previous{};
};

// The input thread's loop: returns when the stop pipe becomes readable or the user gave up.
void pumpInput(client::ExecStream& stream, int signalFd, int stopFd) {
  std::string buffer(64 * 1024, '\0');
  bool stdinOpen = true;
  int interrupts = 0;
  for (;;) {
    std::array<pollfd, 3> fds{};
    fds[0] = {.fd = stopFd, .events = POLLIN};
    fds[1] = {.fd = signalFd, .events = POLLIN};
    fds[2] = {.fd = stdinOpen ? STDIN_FILENO : -1, .events = POLLIN};
    if (::poll(fds.data(), fds.size(), -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (fds[0].revents != 0) return;
    if (fds[1].revents != 0) {
      unsigned char signals[16];
      const ssize_t n = ::read(signalFd, signals, sizeof signals);
      for (ssize_t i = 0; i < n; ++i) {
        if (signals[i] == SIGINT && ++interrupts >= kInterruptsBeforeGivingUp) {
          complain("interrupted " + std::to_string(interrupts) + " times: giving up on the command");
          stream.abort();
          return;
        }
        stream.sendSignal(signals[i]);
      }
    }
    if (fds[2].revents != 0) {
      const ssize_t n = (fds[2].revents & POLLNVAL) != 0
                            ? 0
                            : ::read(STDIN_FILENO, buffer.data(), buffer.size());
      if (n > 0) {
        if (!stream.writeStdin(std::string_view(buffer.data(), static_cast<std::size_t>(n)))) {
          stdinOpen = false;  // the stream has ended; the stop pipe follows shortly
        }
      } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
        stream.closeStdin();
        stdinOpen = false;
      }
    }
  }
}

void writeOut(int fd, std::string_view bytes) {
  if (!writeFully(fd, bytes)) {
    throw LocalWriteError(std::string("writing the command's output failed: ") +
                          std::strerror(errno));
  }
}

}  // namespace

int runExecCommand(const client::Address& address, const std::vector<std::string>& words) {
  std::string command;
  for (const std::string& word : words) {
    if (!command.empty()) command += ' ';
    command += word;
  }
  // A handler must never block on a full self-pipe: its write end is non-blocking.
  ErrnoOr<PipeEnds> signalPipe = makePipe(O_NONBLOCK);
  ErrnoOr<PipeEnds> stopPipe = signalPipe ? makePipe() : Errno{signalPipe.error()};
  if (!stopPipe) {
    complain(std::string("cannot forward signals: ") + std::strerror(stopPipe.error()));
    return kExitNoAgent;
  }
  client::ExecStream stream = client::ExecStream::start(address, command);

  SignalForwarding forwarding(signalPipe->write.get());
  ForwardedSignalsBlocked blocked;
  std::thread input([&] {
    const sigset_t set = forwardedSet();
    ::pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    pumpInput(stream, signalPipe->read.get(), stopPipe->read.get());
  });

  client::ExecOutcome outcome;
  std::string failure;
  try {
    outcome = stream.wait({.stdoutData = [](std::string_view b) { writeOut(STDOUT_FILENO, b); },
                           .stderrData = [](std::string_view b) { writeOut(STDERR_FILENO, b); }});
  } catch (const std::exception& e) {
    failure = e.what();
  }
  const char stop = 0;
  [[maybe_unused]] const ssize_t ignored = ::write(stopPipe->write.get(), &stop, 1);
  stream.abort();
  input.join();

  if (!failure.empty()) {
    complain(failure);
    return kExitNoAgent;
  }
  if (!outcome.code) {
    complain(outcome.error);
    return kExitNoAgent;
  }
  const int code = *outcome.code;
  return code < 0 || code > 255 ? kExitNoAgent : code;
}

void addExecCommand(CommandSet& set) {
  set.add("exec",
          "Run a shell command in the guest, like ssh host command: its output streams to "
          "stdout/stderr, local stdin is forwarded, SIGINT/SIGTERM/SIGHUP are passed on, and "
          "the exit status is the command's own (255 when it could not run)",
          [&set] {
            if (set.execWords.empty()) {
              throw UsageError{"exec needs a command, e.g. exec -- uname -a"};
            }
            return runExecCommand(set.address(), set.execWords);
          })
      ->footer("Usage: tervainctl exec [--] COMMAND...   e.g. tervainctl exec -- ls -la ~");
}

}  // namespace tervain::ctl
