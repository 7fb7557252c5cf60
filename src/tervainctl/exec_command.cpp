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
//
// --env, --cwd and --timeout become members of the request. An agent that predates one would
// run the command without it, so with any of them the agent's ping is asked first, on the
// connection the command then runs on.
//
// -t (and shell, which is exec -t of the guest user's login shell) asks for a terminal on the
// guest of the local one's size (80x24 when neither standard input nor output is a terminal, as
// ssh -tt) and with the local TERM. A local terminal on standard input goes into raw mode for the
// session, so every key reaches the guest as typed (^C included, as a byte the guest's terminal
// turns into its SIGINT); it is restored on every way out: return, exception, and the signals
// that would end tervainctl. SIGWINCH comes through the same self-pipe and becomes a resize.
#include <pthread.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <thread>

#include "tervainctl/tervainctl.h"

namespace tervain::ctl {
namespace {

// SIGWINCH is not forwarded as such: a terminal session turns it into a resize, others ignore it.
constexpr std::array kForwardedSignals = {SIGINT, SIGTERM, SIGHUP, SIGWINCH};
// Signals that end tervainctl by default and that a local terminal in raw mode must survive.
constexpr std::array kFatalSignals = {SIGQUIT, SIGALRM, SIGUSR1, SIGUSR2, SIGPIPE};
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

// The local terminal's modes before raw mode, for the handler of a fatal signal.
termios gSavedModes{};
std::atomic<bool> gRawMode{false};

extern "C" void restoreTerminalAndDie(int signal) {
  if (gRawMode.exchange(false)) ::tcsetattr(STDIN_FILENO, TCSANOW, &gSavedModes);
  ::signal(signal, SIG_DFL);
  ::raise(signal);
}

// Standard input, when it is a terminal, in raw mode for this object's lifetime (or until
// restore()); the signals of kFatalSignals restore it before they end the process.
class RawTerminal {
 public:
  RawTerminal() {
    if (::isatty(STDIN_FILENO) == 0 || ::tcgetattr(STDIN_FILENO, &gSavedModes) != 0) return;
    struct sigaction action {};
    action.sa_handler = restoreTerminalAndDie;
    sigemptyset(&action.sa_mask);
    for (std::size_t i = 0; i < kFatalSignals.size(); ++i) {
      ::sigaction(kFatalSignals[i], &action, &previous[i]);
    }
    termios raw = gSavedModes;
    ::cfmakeraw(&raw);
    gRawMode.store(true);
    if (::tcsetattr(STDIN_FILENO, TCSADRAIN, &raw) != 0) restore();
  }
  ~RawTerminal() { restore(); }
  RawTerminal(const RawTerminal&) = delete;
  RawTerminal& operator=(const RawTerminal&) = delete;

  // Back to the saved modes (once), and the fatal signals back to their previous handling.
  void restore() {
    if (!gRawMode.exchange(false)) return;
    ::tcsetattr(STDIN_FILENO, TCSADRAIN, &gSavedModes);
    for (std::size_t i = 0; i < kFatalSignals.size(); ++i) {
      ::sigaction(kFatalSignals[i], &previous[i], nullptr);
    }
  }

 private:
  std::array<struct sigaction, kFatalSignals.size()> previous{};
};

// The local window size: from standard input or output, whichever is a terminal; nothing when
// neither is.
std::optional<client::TerminalSize> localTerminalSize() {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO}) {
    winsize size{};
    if (::ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 && size.ws_col > 0) {
      return client::TerminalSize{.rows = size.ws_row, .cols = size.ws_col};
    }
  }
  return std::nullopt;
}

// What shell runs: the guest user's login shell, as a login shell, in place of the one exec
// starts it under.
constexpr const char* kLoginShell = "exec \"${SHELL:-/bin/sh}\" -l";

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
// terminal: the command runs on a guest terminal, which SIGWINCH resizes.
void pumpInput(client::ExecStream& stream, int signalFd, int stopFd, bool terminal) {
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
        if (signals[i] == SIGWINCH) {
          const auto size = terminal ? localTerminalSize() : std::nullopt;
          if (size) stream.resize(size->rows, size->cols);
          continue;
        }
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

// The request the flags ask for. Throws UsageError.
client::ExecRequest execRequest(std::string command, const ExecFlags& flags) {
  client::ExecRequest request{.command = std::move(command), .cwd = flags.cwd};
  if (flags.tty) {
    request.tty = localTerminalSize().value_or(client::TerminalSize{});
    if (const char* term = std::getenv("TERM"); term != nullptr && term[0] != '\0') {
      request.tty->term = term;
    }
  }
  for (const std::string& pair : flags.env) {
    const std::size_t eq = pair.find('=');
    if (eq == std::string::npos) {
      throw UsageError{"--env wants NAME=VALUE, e.g. --env LANG=C, not '" + pair + "'"};
    }
    request.env[pair.substr(0, eq)] = pair.substr(eq + 1);
  }
  if (flags.timeout) {
    char* end = nullptr;
    const double seconds = std::strtod(flags.timeout->c_str(), &end);
    if (flags.timeout->empty() || *end != '\0' || !(seconds > 0) || !std::isfinite(seconds)) {
      throw UsageError{"--timeout wants a positive number of seconds, not '" + *flags.timeout +
                       "'"};
    }
    request.timeoutSeconds = seconds;
  }
  return request;
}

// An agent that predates an option would ignore it and run the command anyway (in the wrong
// folder, without its time limit): its ping is asked first, on the exec's own connection. The
// flags it lacks, or nothing.
std::string optionsTheAgentLacks(client::Connection& agent, const client::ExecRequest& request) {
  const bool asked[] = {!request.env.empty(), request.cwd.has_value(),
                        request.timeoutSeconds.has_value(), request.tty.has_value()};
  if (std::find(std::begin(asked), std::end(asked), true) == std::end(asked)) return {};
  const auto ping = agent.ping();
  const auto& features = ping.value.features;
  std::string missing;
  const std::pair<const char*, const char*> options[] = {
      {"exec.env", "--env"}, {"exec.cwd", "--cwd"}, {"exec.timeout", "--timeout"},
      {"exec.tty", "-t"}};
  for (std::size_t i = 0; i < std::size(options); ++i) {
    const bool known =
        ping.ok && std::find(features.begin(), features.end(), options[i].first) != features.end();
    if (!asked[i] || known) continue;
    if (!missing.empty()) missing += ", ";
    missing += options[i].second;
  }
  return missing;
}

void writeOut(int fd, std::string_view bytes) {
  if (!writeFully(fd, bytes)) {
    throw LocalWriteError(std::string("writing the command's output failed: ") +
                          std::strerror(errno));
  }
}

}  // namespace

int runExecCommand(const client::Address& address, const std::vector<std::string>& words,
                   const ExecFlags& flags) {
  std::string command;
  for (const std::string& word : words) {
    if (!command.empty()) command += ' ';
    command += word;
  }
  const client::ExecRequest request = execRequest(std::move(command), flags);
  // A handler must never block on a full self-pipe: its write end is non-blocking.
  ErrnoOr<PipeEnds> signalPipe = makePipe(O_NONBLOCK);
  ErrnoOr<PipeEnds> stopPipe = signalPipe ? makePipe() : Errno{signalPipe.error()};
  if (!stopPipe) {
    complain(std::string("cannot forward signals: ") + std::strerror(stopPipe.error()));
    return kExitNoAgent;
  }
  client::Connection agent = client::Connection::open(address);
  if (const std::string missing = optionsTheAgentLacks(agent, request); !missing.empty()) {
    complain("the agent does not know exec " + missing + " (it is too old); nothing was run");
    return kExitNoAgent;
  }
  client::ExecStream stream = client::ExecStream::start(std::move(agent), request);

  SignalForwarding forwarding(signalPipe->write.get());
  ForwardedSignalsBlocked blocked;
  std::optional<RawTerminal> raw;
  if (request.tty) raw.emplace();
  std::thread input([&] {
    const sigset_t set = forwardedSet();
    ::pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    pumpInput(stream, signalPipe->read.get(), stopPipe->read.get(), request.tty.has_value());
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
  raw.reset();  // messages below appear on a terminal as ever

  if (!failure.empty()) {
    complain(failure);
    return kExitNoAgent;
  }
  if (!outcome.code) {
    complain(outcome.error);
    return kExitNoAgent;
  }
  if (outcome.timedOut) {
    complain("the command timed out after " + *flags.timeout + " s");
    return kExitTimedOut;
  }
  const int code = *outcome.code;
  return code < 0 || code > 255 ? kExitNoAgent : code;
}

void addExecCommand(CommandSet& set) {
  ExecFlags& flags = set.state<ExecFlags>();
  CLI::App* exec = set.add(
      "exec",
      "Run a shell command in the guest, like ssh host command: its output streams to "
      "stdout/stderr, local stdin is forwarded, SIGINT/SIGTERM/SIGHUP are passed on, and "
      "the exit status is the command's own (124 when --timeout ended it, 255 when it could "
      "not run)",
      [&set, &flags] {
        if (set.execWords.empty()) {
          throw UsageError{"exec needs a command, e.g. exec -- uname -a"};
        }
        return runExecCommand(set.address(), set.execWords, flags);
      });
  exec->add_option("--env", flags.env,
                   "NAME=VALUE added to the command's environment (repeatable)")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  exec->add_option("--cwd", flags.cwd, "Working directory in the guest (it must exist)");
  exec->add_option("--timeout", flags.timeout,
                   "Seconds after which the command's process group gets SIGTERM, and SIGKILL "
                   "2 s later; tervainctl then exits 124");
  exec->add_flag("-t,--tty", flags.tty,
                 "Run it on a guest terminal of the local one's size (80x24 without one), with "
                 "the local terminal in raw mode and window-size changes passed on");
  exec->footer(
      "Usage: tervainctl exec [-t] [--env NAME=VALUE]... [--cwd DIR] [--timeout S] [--] "
      "COMMAND...\n"
      "  e.g. tervainctl exec --cwd /tmp --timeout 60 -- make test");

  ExecFlags& shellFlags = set.state<ExecFlags>();
  shellFlags.tty = true;
  CLI::App* shell = set.add(
      "shell",
      "An interactive login shell on a guest terminal, like ssh host: the guest user's $SHELL "
      "(/bin/sh without one), exiting with its status",
      [&set, &shellFlags] { return runExecCommand(set.address(), {kLoginShell}, shellFlags); });
  shell->add_option("--env", shellFlags.env, "NAME=VALUE added to the shell's environment")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  shell->add_option("--cwd", shellFlags.cwd, "Working directory in the guest (it must exist)");
}

}  // namespace tervain::ctl
