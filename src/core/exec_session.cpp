// The exec session pump.
//
// Everything runs on the connection's thread in one non-blocking poll loop with a 200 ms tick, so
// every wait in the loop is bounded and no lock is needed (only the last "x" or "err" frame waits
// for a connected host to take it). Nothing in a round waits on one party while another
// could make progress:
// - Host lines are applied as they arrive: "sig" at once, "i" into a queue of pending stdin,
//   "eof" behind that queue. Only while more than stdinBacklogBytes of stdin are pending does the
//   session stop reading the host (back-pressure); it still notices the host leaving.
// - Pending stdin is written whenever the pipe has room. It is dropped only when the command has
//   taken nothing for stdinStallMillis while the session was free to serve it.
// - Output is read in chunks of at most 64 KiB; each chunk becomes one frame, assembled in place as
//   {"t":"o","d":"<base64>"} without going through the JSON object model (base64 needs no
//   escaping) and written without blocking. While a frame waits for a slow host the pipes are not
//   read, so the command is slowed down instead of its output being lost.
// Once the child is reaped the session ends when both pipes reached end of file; the pipe grace
// only bounds waiting for descendants that keep a pipe open, and counts only rounds in which the
// pipes were being read. A host that goes away takes the command's whole process group down.
// A time limit is kept by the same loop: each round's wait is cut short when the limit is due;
// past it the group gets SIGTERM and, killGraceMillis later, SIGKILL. Until that SIGKILL a
// timed-out session does not end while any process of the group lives, so none is left behind;
// output keeps being read throughout, so what the command wrote before it was killed arrives.
// A command on a pseudo-terminal ("tty") runs through the same loop: the master stands in for
// the stdout pipe (its end of input is the EIO that follows the terminal side's last close, after
// everything written before it was read) and a second descriptor of it for the stdin pipe. "eof"
// types the terminal's end-of-file character behind the queued input instead of closing anything;
// "resize" sets the terminal's size, and the kernel tells the foreground group by SIGWINCH.
#include "core/exec_session.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <limits>

#include "core/agent_wire.h"
#include "core/base64.h"
#include "core/posix/spawn_platform.h"
#include "core/pseudo_terminal.h"
#include "core/request_members.h"
#include "core/shell_spool.h"
#include "core/spawn.h"
#include "core/socket_io.h"
#include "vsock/tervain_vsock.h"

extern "C" {
extern char** environ;
}

namespace tervain {
namespace {

namespace Wire = AgentWire::Exec;

constexpr std::string_view kDisableKey = "TERVAIN_DULK_DISABLE";
constexpr const char* kFallbackShell = "/bin/zsh";

// 128 + the signal for a child ended by a signal, else its exit status.
std::int32_t exitCodeFromStatus(int status) {
  if ((status & 0x7F) != 0) return (status & 0x7F) | 0x80;
  return (status >> 8) & 0xFF;
}

// NAME=value entries, as a spawned program's environment.
std::vector<std::string> environmentEntries(const ExecSession::Environment& environment) {
  std::vector<std::string> entries;
  entries.reserve(environment.size());
  for (const auto& [key, value] : environment) entries.push_back(key + "=" + value);
  return entries;
}

ExecSession::Environment processEnvironment() {
  ExecSession::Environment env;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    const std::string_view text = *entry;
    const std::size_t eq = text.find('=');
    if (eq == std::string_view::npos) continue;
    env.emplace(text.substr(0, eq), text.substr(eq + 1));
  }
  return env;
}

bool isExecutableFile(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && !S_ISDIR(info.st_mode) &&
         ::access(path.c_str(), X_OK) == 0;
}

// The terminal a request asks for.
struct TerminalOptions {
  std::uint16_t rows = 0;
  std::uint16_t cols = 0;
};

// What a request asks for beyond its command.
struct RunOptions {
  ExecSession::Environment env;
  std::optional<std::string> cwd;
  std::optional<std::int64_t> timeLimitMillis;
  std::optional<TerminalOptions> tty;
};

// A terminal side (rows, cols) as the request or a resize frame gives it; nothing when it is
// not an integer from 1 to maxTerminalSide.
std::optional<std::uint16_t> terminalSide(const Json& object, std::string_view key) {
  const std::optional<std::int64_t> value = integerMember(object, key);
  if (!value || *value < 1 || *value > AgentWire::Exec::maxTerminalSide) return std::nullopt;
  return static_cast<std::uint16_t>(*value);
}

// A time limit past this (some 30,000 years) is as good as none, and keeps the arithmetic exact.
constexpr double kLongestTimeLimitMillis = 1e15;

std::string inQuotes(std::string_view text) {
  std::string quoted;
  quoted.reserve(text.size() + 2);
  quoted.push_back('"');
  quoted.append(text);
  quoted.push_back('"');
  return quoted;
}

// Reads "env", "cwd", "timeout" and "tty" into options. Returns the refusal for the first one
// that is wrong, or nothing.
std::optional<std::string> readRunOptions(const Json& request, RunOptions& options) {
  if (const Json* env = member(request, Wire::envKey)) {
    if (!env->is_object()) return R"(exec "env" must be an object of names to string values)";
    for (auto it = env->begin(); it != env->end(); ++it) {
      const std::string& name = it.key();
      if (name.empty() || name.find_first_of(std::string_view("=\0", 2)) != std::string::npos) {
        return "exec \"env\" name " + inQuotes(name) +
               " is not a variable name: it must be non-empty and hold no \"=\" or NUL";
      }
      if (!it.value().is_string()) {
        return "exec \"env\" value of " + inQuotes(name) + " must be a string";
      }
      const std::string& value = it.value().get_ref<const std::string&>();
      // The environment is handed over as C strings: a NUL would cut the value short.
      if (value.find('\0') != std::string::npos) {
        return "exec \"env\" value of " + inQuotes(name) + " holds a NUL byte";
      }
      options.env[name] = value;
    }
  }
  if (const Json* cwd = member(request, Wire::cwdKey)) {
    if (!cwd->is_string()) return R"(exec "cwd" must be a string)";
    const std::string& path = cwd->get_ref<const std::string&>();
    // Checked here rather than left to the spawn, so the host hears which path is wrong.
    struct stat info {};
    if (path.find('\0') != std::string::npos || ::stat(path.c_str(), &info) != 0 ||
        !S_ISDIR(info.st_mode)) {
      return "exec \"cwd\" is not a directory: " + path;
    }
    options.cwd = path;
  }
  if (const Json* timeout = member(request, Wire::timeoutKey)) {
    const double seconds = timeout->is_number() ? timeout->get<double>() : 0.0;
    if (!(seconds > 0) || !std::isfinite(seconds)) {
      return R"(exec "timeout" must be a positive number of seconds)";
    }
    options.timeLimitMillis =
        static_cast<std::int64_t>(std::ceil(std::min(seconds * 1000, kLongestTimeLimitMillis)));
  }
  if (const Json* tty = member(request, Wire::ttyKey)) {
    if (!tty->is_object()) return R"(exec "tty" must be an object with "rows" and "cols")";
    const std::optional<std::uint16_t> rows = terminalSide(*tty, Wire::rowsKey);
    const std::optional<std::uint16_t> cols = terminalSide(*tty, Wire::colsKey);
    const std::string range =
        " must be an integer from 1 to " + std::to_string(Wire::maxTerminalSide);
    if (!rows) return R"(exec "tty" "rows")" + range;
    if (!cols) return R"(exec "tty" "cols")" + range;
    options.tty = TerminalOptions{*rows, *cols};
    // TERM: the request's "term", else a TERM in "env", else the default.
    if (const Json* term = member(*tty, Wire::termKey)) {
      if (!term->is_string() || term->get_ref<const std::string&>().empty() ||
          term->get_ref<const std::string&>().find('\0') != std::string::npos) {
        return R"(exec "tty" "term" must be a non-empty string without NUL)";
      }
      options.env["TERM"] = term->get_ref<const std::string&>();
    } else {
      options.env.try_emplace("TERM", Wire::defaultTerm);
    }
  }
  return std::nullopt;
}

// Frames written in place: the prefix before the tag, the part between tag and payload, the end.
constexpr std::string_view kFrameHead = R"({"t":")";
constexpr std::string_view kFrameMiddle = R"(","d":")";
constexpr std::string_view kFrameTail = "\"}\n";
constexpr std::size_t kMaxTag = 8;

bool wouldBlock(int error) { return error == EAGAIN || error == EWOULDBLOCK || error == EINTR; }

}  // namespace

std::int64_t ExecSession::steadyMillis() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

const std::string& ExecSession::dulkMissingMessage() {
  static const std::string message =
      std::string("dulk is not installed in this guest (") + std::string(defaultDulkPath) +
      ") \u2014 dulk is the required " +
      "agent shell in every virtualized environment (docs/DULK.md \u00a77.5), so the exec surface " +
      "refuses to run without it. Rebuild the macOS VM base image so provisioning installs it.";
  return message;
}

std::optional<ExecSession::ShellInvocation> ExecSession::shellInvocation(
    std::string_view command, std::string_view dulkPath, const Environment& environment,
    const std::function<bool(const std::string&)>& isExecutable,
    const std::optional<std::string>& withoutAgentShell, const Environment& requested) {
  Environment env = environment;
  for (const auto& [name, value] : requested) env[name] = value;
  // The agent's own environment chooses the shell, never the host's variables.
  if (const auto it = environment.find(std::string(kDisableKey));
      it != environment.end() && it->second == "1") {
    return ShellInvocation{kFallbackShell, {"-c", std::string(command)}, std::move(env)};
  }
  std::string shell(dulkPath);
  if (!isExecutable(shell)) {
    if (!withoutAgentShell) return std::nullopt;
    return ShellInvocation{*withoutAgentShell, {"-c", std::string(command)}, std::move(env)};
  }
  env[std::string(ShellSpool::spoolEnvKey)] = ShellSpool::defaultDir();
  env.try_emplace(std::string(ShellSpool::captureEnvKey), "tap");
  return ShellInvocation{std::move(shell), {"-lc", std::string(command)}, std::move(env)};
}

ExecSession::ExecSession(int fd, std::string buffered, std::string dulkPath,
                         std::int32_t pipeGraceMillis,
                         std::optional<std::string> withoutAgentShell, Clock clock)
    : fd(fd),
      dulkPath(std::move(dulkPath)),
      graceMillis(std::max<std::int32_t>(pipeGraceMillis, 0)),
      withoutAgentShell(std::move(withoutAgentShell)),
      clock(clock ? std::move(clock) : Clock(steadyMillis)) {
  lines.append(buffered);
  tervain_set_nosigpipe(fd);
}

ExecSession::~ExecSession() {
  closeChildDescriptors();
  restoreSocket();
  // A session that was started but never finished still must not leave its group running or a
  // zombie behind.
  if (pid > 0 && !reaped) {
    killGroup();
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
  }
}

void ExecSession::run(const Json& request) {
  if (!start(request)) return;
  // Frames the host sent behind the request count against the bounds too.
  Round round = boundLines();
  while (round == Round::keepGoing) round = pumpOnce();
  finish(round != Round::finished);
}

bool ExecSession::start(const Json& request) {
  const std::string* command = stringMember(request, Wire::commandKey);
  if (command == nullptr) {
    sendError("exec requires a \"command\" string");
    return false;
  }
  // The shell gets the command as a C string: a NUL would silently cut it short.
  if (const std::size_t nul = command->find('\0'); nul != std::string::npos) {
    sendError("exec command holds a NUL byte at offset " + std::to_string(nul) +
              " \u2014 a command cannot contain one; nothing was run");
    return false;
  }
  RunOptions options;
  if (const std::optional<std::string> refusal = readRunOptions(request, options)) {
    sendError(*refusal);
    return false;
  }
  const std::optional<ShellInvocation> invocation = shellInvocation(
      *command, dulkPath, processEnvironment(), isExecutableFile, withoutAgentShell, options.env);
  if (!invocation) {
    sendError(dulkMissingMessage());
    return false;
  }

  SpawnOptions spawn{
      .path = invocation->path,
      .arguments = invocation->args,
      .environment = environmentEntries(invocation->env),
      .workingDirectory = options.cwd,
  };
  std::optional<PipeEnds> in;
  std::optional<PipeEnds> out;
  std::optional<PipeEnds> err;
  std::optional<PseudoTerminal> pty;
  if (options.tty) {
    ErrnoOr<PseudoTerminal> opened = openPseudoTerminal(options.tty->rows, options.tty->cols);
    if (!opened) {
      sendError("could not allocate a pseudo-terminal (errno " + std::to_string(opened.error()) +
                ")");
      return false;
    }
    pty = std::move(*opened);
    // The command leads a session of its own, on the terminal: its group is the one signals,
    // the time limit and a host that goes away reach, as for a command on pipes.
    spawn.group = SpawnOptions::Group::newSession;
    spawn.terminal = pty->terminalPath;
  } else {
    ErrnoOr<PipeEnds> madeIn = makePipe();
    ErrnoOr<PipeEnds> madeOut = madeIn ? makePipe() : Errno{madeIn.error()};
    ErrnoOr<PipeEnds> madeErr = madeOut ? makePipe() : Errno{madeOut.error()};
    if (!madeErr) {
      sendError("could not allocate stdio pipes (errno " + std::to_string(madeErr.error()) + ")");
      return false;
    }
    in = std::move(*madeIn);
    out = std::move(*madeOut);
    err = std::move(*madeErr);
    spawn.standardStreams = {in->read.get(), out->write.get(), err->write.get()};
    spawn.group = SpawnOptions::Group::newGroup;
  }

  const ErrnoOr<pid_t> child = spawnProcess(spawn);
  if (!child) {
    sendError("could not launch the command (posix_spawn errno " + std::to_string(child.error()) +
              ")");
    return false;
  }

  // The child's ends close here, at the end of start(): only the child holds them from now on.
  pid = *child;
  if (pty) {
    // The master carries both ways: output is read from it, and stdin written to a second
    // descriptor of it, which "eof" may close while output still flows.
    terminal = true;
    stdoutFD = std::move(pty->master);
    stdinFD = UniqueFd(::fcntl(stdoutFD.get(), F_DUPFD_CLOEXEC, 0));
    stdoutOpen = true;
    stderrOpen = false;
  } else {
    stdinFD = std::move(in->write);
    stdoutFD = std::move(out->read);
    stderrFD = std::move(err->read);
    stdoutOpen = true;
    stderrOpen = true;
  }
  if (options.timeLimitMillis) timeLimitAt = clock() + *options.timeLimitMillis;
  // No write of the session may block: not to the command's stdin, not to the host. The output
  // ends stay blocking and are only read when poll() says so.
  for (int nonBlocking : {stdinFD.get(), fd}) {
    const int flags = ::fcntl(nonBlocking, F_GETFL);
    if (nonBlocking == fd) socketFlags = flags;
    if (flags >= 0) ::fcntl(nonBlocking, F_SETFL, flags | O_NONBLOCK);
  }
  tervain_set_nosigpipe(stdinFD.get());
  if (!terminal) {
    for (const UniqueFd* pipe : {&stdinFD, &stdoutFD, &stderrFD}) posix::enlargePipe(pipe->get());
  }

  readBuffer.assign(AgentWire::readChunkBytes, 0);
  frameBuffer.assign(kFrameHead.size() + kMaxTag + kFrameMiddle.size() +
                         base64::encodedSize(AgentWire::readChunkBytes) + kFrameTail.size(),
                     0);
  // Frames the host sent in the same write as the request.
  applyBufferedLines();
  return true;
}

ExecSession::Round ExecSession::pumpOnce(int timeoutMillis) {
  if (!reaped) {
    int status = 0;
    const pid_t r = ::waitpid(pid, &status, WNOHANG);
    if (r == pid || (r < 0 && errno == ECHILD)) {
      // ECHILD: someone else reaped it (or children are auto-reaped); its status is lost.
      exitCode = r == pid ? exitCodeFromStatus(status) : -1;
      reaped = true;
      graceUsedMillis = 0;
    }
  }
  enforceTimeLimit();
  const bool servingOutput = frameSent == frameSize;  // no frame waits for the host
  // A timed-out group still gets its SIGKILL unless it is gone already: no process of it may be
  // left behind, whether it holds the pipes or not.
  const bool awaitingKill = timedOut && !killSent && ::kill(-pid, 0) == 0;
  if (reaped && servingOutput && !awaitingKill) {
    // Output written before the exit is still in the pipes: it is read to the end. Only pipes
    // that stay open and quiet (descendants holding them) run out the grace.
    if (!stdoutOpen && !stderrOpen) return Round::finished;
    if (graceUsedMillis > graceMillis) return Round::finished;
  }

  // Order: socket, stdin, stdout, stderr. The output pipes are read only once the last frame is
  // out, so a slow host slows the command down instead of losing its output. The host is read
  // while the stdin backlog is within its bound; its hang-up is noticed either way (POLLHUP and
  // POLLERR need no request).
  const bool readingHost = stdinPendingBytes() <= stdinBacklogBytes;
  pollfd set[4];
  int count = 0;
  set[count++] = {
      fd, static_cast<short>((readingHost ? POLLIN : 0) | (servingOutput ? 0 : POLLOUT)), 0};
  const int stdinSlot = stdinFD && stdinPendingBytes() > 0 ? count : -1;
  if (stdinSlot >= 0) set[count++] = {stdinFD.get(), POLLOUT, 0};
  if (servingOutput && stdoutOpen) set[count++] = {stdoutFD.get(), POLLIN, 0};
  if (servingOutput && stderrOpen) set[count++] = {stderrFD.get(), POLLIN, 0};

  const std::int64_t roundStart = clock();
  const int ready = ::poll(set, static_cast<nfds_t>(count), pollTimeout(timeoutMillis));
  if (ready < 0 && errno != EINTR && errno != EAGAIN) {
    killGroup();
    return Round::finished;
  }
  // Only time in which the session was free to read the command's output counts against the
  // command: the grace after its exit, and how long it leaves stdin untaken.
  const std::int64_t elapsed = servingOutput ? std::max<std::int64_t>(clock() - roundStart, 0) : 0;
  if (reaped) graceUsedMillis += elapsed;
  if (ready < 0) return Round::keepGoing;

  for (int i = 0; i < count; ++i) {
    const short events = set[i].revents;
    if (i == stdinSlot) {
      if (events != 0) {
        pumpStdin();
      } else if ((stdinIdleMillis += elapsed) > stdinStallMillis) {
        dropStdin();
      }
      continue;
    }
    if (events == 0) continue;
    if (set[i].fd == fd) {
      if ((events & POLLOUT) != 0) flushFrame();
      if ((events & POLLIN) != 0) {
        const Round round = readHost();
        if (round != Round::keepGoing) return round;
      } else if ((events & (POLLHUP | POLLERR | POLLNVAL)) != 0) {
        hostLost = true;
      }
    } else if (frameSent < frameSize) {
      // The other pipe's frame of this round is not out yet; this one waits for the next round.
    } else if (set[i].fd == stdoutFD.get()) {
      stdoutOpen = readPipe(stdoutFD, Wire::stdout_);
    } else {
      stderrOpen = readPipe(stderrFD, Wire::stderr_);
    }
    if (hostLost) {
      killGroup();
      return Round::hostGone;
    }
  }
  return Round::keepGoing;
}

void ExecSession::enforceTimeLimit() {
  if (!timeLimitAt || killSent) return;
  if (!timedOut) {
    // A command that ended in time did not time out, whatever its descendants still do.
    if (reaped) return;
    const std::int64_t now = clock();
    if (now < *timeLimitAt) return;
    timedOut = true;
    killAt = now + killGraceMillis;
    signalTerminalJobs(SIGTERM);
    if (::kill(-pid, SIGTERM) != 0) ::kill(pid, SIGTERM);
  } else if (clock() >= killAt) {
    killGroup();
    killSent = true;
  }
}

int ExecSession::pollTimeout(int timeoutMillis) {
  std::int64_t due = 0;
  if (timeLimitAt && !timedOut && !reaped) {
    due = *timeLimitAt;
  } else if (timedOut && !killSent) {
    due = killAt;
  } else {
    return timeoutMillis;
  }
  // A negative timeout waits without end, as for poll(); the limit still cuts it short.
  const std::int64_t longest = timeoutMillis < 0 ? std::numeric_limits<int>::max() : timeoutMillis;
  return static_cast<int>(std::clamp<std::int64_t>(due - clock(), 0, longest));
}

void ExecSession::finish(bool hostGone) {
  closeChildDescriptors();
  if (!reaped && pid > 0) {
    int status = 0;
    pid_t r;
    do {
      r = ::waitpid(pid, &status, hostGone ? 0 : WNOHANG);
    } while (r < 0 && errno == EINTR);
    exitCode = r == pid ? exitCodeFromStatus(status) : -1;
    reaped = r == pid || (r < 0 && errno == ECHILD);
  }
  if (!hostGone) {
    Json frame{{std::string(Wire::tagKey), std::string(Wire::exit)},
               {std::string(Wire::codeKey), exitCode}};
    if (timedOut) frame[std::string(Wire::timedOutKey)] = true;
    sendFrame(frame);
  }
  restoreSocket();
}

ExecSession::Round ExecSession::readHost() {
  const ssize_t n = ::read(fd, readBuffer.data(), readBuffer.size());
  if (n < 0 && wouldBlock(errno)) return Round::keepGoing;
  if (n <= 0) {
    killGroup();
    return Round::hostGone;
  }
  lines.append(std::string_view(readBuffer.data(), static_cast<std::size_t>(n)));
  applyBufferedLines();
  const Round bounded = boundLines();
  return bounded != Round::keepGoing ? bounded : hostLost ? Round::hostGone : Round::keepGoing;
}

ExecSession::Round ExecSession::boundLines() {
  if (lines.pendingBytes() > AgentWire::maxPendingLineBytes) {
    // The same bound as for request lines: a host cannot make the agent hold more.
    killGroup();
    sendError("exec host frame longer than " + std::to_string(AgentWire::maxPendingLineBytes) +
              " bytes without a line feed \u2014 the command was killed; send stdin in smaller "
              "\"i\" frames");
    return Round::refused;
  }
  if (lineShare && !lineShare->hold(lines.pendingBytes())) {
    killGroup();
    sendError("unfinished lines of all connections would pass " +
              std::to_string(lineShare->limit()) +
              " bytes \u2014 the command was killed; send stdin in smaller \"i\" frames");
    return Round::refused;
  }
  return Round::keepGoing;
}

void ExecSession::queueStdin(std::string_view bytes) {
  if (!bytes.empty()) stdinLineOpen = bytes.back() != '\n' && bytes.back() != '\r';
  if (stdinPendingBytes() == 0) {
    // Nothing queued: straight into the pipe, as much as it takes now.
    stdinQueue.clear();
    stdinSent = 0;
    while (!bytes.empty()) {
      const ssize_t n = ::write(stdinFD.get(), bytes.data(), bytes.size());
      if (n > 0) {
        bytes.remove_prefix(static_cast<std::size_t>(n));
        stdinIdleMillis = 0;
        continue;
      }
      if (n < 0 && wouldBlock(errno)) break;
      return;  // the command's input is closed: nobody will ever take these bytes
    }
  }
  stdinQueue.append(bytes);
}

void ExecSession::pumpStdin() {
  while (stdinPendingBytes() > 0) {
    const ssize_t n = ::write(stdinFD.get(), stdinQueue.data() + stdinSent, stdinPendingBytes());
    if (n > 0) {
      stdinSent += static_cast<std::size_t>(n);
      stdinIdleMillis = 0;
      continue;
    }
    if (n < 0 && wouldBlock(errno)) break;
    dropStdin();  // the command's input is closed
    return;
  }
  if (stdinSent == stdinQueue.size()) {
    stdinQueue.clear();
    stdinSent = 0;
  } else if (stdinSent >= AgentWire::readChunkBytes * 16) {
    stdinQueue.erase(0, stdinSent);
    stdinSent = 0;
  }
  closeStdinIfDone();
}

void ExecSession::dropStdin() {
  stdinQueue.clear();
  stdinSent = 0;
  closeStdinIfDone();
}

void ExecSession::closeStdinIfDone() {
  if (stdinEOFRequested && stdinPendingBytes() == 0) stdinFD.reset();
}

bool ExecSession::readPipe(const UniqueFd& pipe, std::string_view tag) {
  const ssize_t n = ::read(pipe.get(), readBuffer.data(), readBuffer.size());
  if (n > 0) {
    assembleOutputFrame(tag, readBuffer.data(), static_cast<std::size_t>(n));
    flushFrame();
    return true;
  }
  if (n == 0) return false;
  return errno == EINTR || errno == EAGAIN;
}

void ExecSession::applyBufferedLines() {
  while (const std::optional<std::string_view> line = lines.next()) {
    if (!line->empty()) handleHostFrame(*line);
  }
}

void ExecSession::handleHostFrame(std::string_view line) {
  const std::optional<Json> frame = parseRequestObject(line);
  if (!frame) return;
  const std::string* tag = stringMember(*frame, Wire::tagKey);
  if (tag == nullptr) return;

  if (*tag == Wire::stdin_) {
    const std::string* data = stringMember(*frame, Wire::dataKey);
    if (data == nullptr || !stdinFD || stdinEOFRequested ||
        !base64::decodeInto(*data, decoded)) {
      return;
    }
    queueStdin(decoded);
  } else if (*tag == Wire::stdinEOF) {
    // Input already queued is delivered first. Closing a terminal would hang it up: the end of
    // input is typed instead, as on a keyboard.
    if (terminal && stdinFD && !stdinEOFRequested) queueTerminalEOF();
    stdinEOFRequested = true;
    closeStdinIfDone();
  } else if (*tag == Wire::resize) {
    const std::optional<std::uint16_t> rows = terminalSide(*frame, Wire::rowsKey);
    const std::optional<std::uint16_t> cols = terminalSide(*frame, Wire::colsKey);
    if (!terminal || !rows || !cols || !stdoutFD) return;
    setTerminalSize(stdoutFD.get(), *rows, *cols);
  } else if (*tag == Wire::signal) {
    const std::optional<std::int64_t> number = integerMember(*frame, Wire::signalKey);
    // A number outside the signed 32-bit range is ignored like a missing one.
    const std::optional<std::int32_t> sig = number ? narrowToInt32(*number) : std::nullopt;
    if (!sig || pid <= 0) return;
    // On a terminal the keyboard's signals go where its keys would send them: to the foreground
    // job, which under a shell with job control is a group of its own, not the shell's. Any
    // other signal reaches that job and the command's group both.
    const bool keyboard = *sig == SIGINT || *sig == SIGQUIT || *sig == SIGTSTP;
    if (signalTerminalJobs(*sig) && keyboard) return;
    // Once reaped, the pid alone is no longer ours to signal; the group may still hold
    // descendants, and its id cannot be reused while it does.
    if (::kill(-pid, *sig) != 0 && !reaped) ::kill(pid, *sig);
  }
}

void ExecSession::killGroup() {
  if (pid <= 0) return;
  signalTerminalJobs(SIGKILL);
  if (::kill(-pid, SIGKILL) != 0 && !reaped) ::kill(pid, SIGKILL);
}

bool ExecSession::signalTerminalJobs(int sig) {
  // A shell on the terminal runs its jobs in groups of their own; the one in the foreground is
  // the session's too, and goes down with the command's.
  if (!terminal || !stdoutFD) return false;
  const pid_t foreground = ::tcgetpgrp(stdoutFD.get());
  if (foreground <= 0 || foreground == pid) return false;
  ::kill(-foreground, sig);
  return true;
}

void ExecSession::queueTerminalEOF() {
  termios modes{};
  const char eof = ::tcgetattr(stdoutFD.get(), &modes) == 0 && modes.c_cc[VEOF] != _POSIX_VDISABLE
                       ? static_cast<char>(modes.c_cc[VEOF])
                       : '\x04';
  // An unfinished line needs one EOF character to hand it to the reader and a second to end the
  // input, as on a keyboard.
  queueStdin(stdinLineOpen ? std::string{eof, eof} : std::string(1, eof));
}

void ExecSession::closeChildDescriptors() {
  stdinFD.reset();
  stdoutFD.reset();
  stderrFD.reset();
  stdoutOpen = false;
  stderrOpen = false;
  stdinQueue.clear();
  stdinSent = 0;
}

void ExecSession::restoreSocket() {
  if (socketFlags >= 0) ::fcntl(fd, F_SETFL, socketFlags);
  socketFlags = -1;
}

void ExecSession::assembleOutputFrame(std::string_view tag, const char* bytes, std::size_t size) {
  const std::size_t payload = base64::encodedSize(size);
  const std::size_t total = kFrameHead.size() + tag.size() + kFrameMiddle.size() + payload +
                            kFrameTail.size();
  if (tag.size() > kMaxTag || total > frameBuffer.size()) return;
  char* out = frameBuffer.data();
  for (std::string_view piece : {kFrameHead, tag, kFrameMiddle}) {
    std::memcpy(out, piece.data(), piece.size());
    out += piece.size();
  }
  base64::encodeInto(bytes, size, out);
  out += payload;
  std::memcpy(out, kFrameTail.data(), kFrameTail.size());
  frameSize = total;
  frameSent = 0;
}

ExecSession::Flush ExecSession::flushFrame() {
  while (frameSent < frameSize) {
    const long n = tervain_write(fd, frameBuffer.data() + frameSent, frameSize - frameSent);
    if (n > 0) {
      frameSent += static_cast<std::size_t>(n);
      continue;
    }
    if (n < 0 && wouldBlock(errno)) return Flush::pending;
    hostLost = true;
    return Flush::failed;
  }
  return Flush::done;
}

void ExecSession::sendFrame(const Json& frame) {
  std::string bytes;
  try {
    bytes = frame.dump(-1, ' ', false, Json::error_handler_t::replace);
  } catch (...) {
    return;
  }
  bytes.push_back('\n');
  writeFrameBytes(bytes.data(), bytes.size());
}

void ExecSession::sendError(const std::string& message) {
  sendFrame(Json{{std::string(Wire::tagKey), std::string(Wire::spawnError)},
                 {std::string(Wire::messageKey), message}});
}

void ExecSession::writeFrameBytes(const char* bytes, std::size_t size) {
  // The last frames of a session ("x", "err") wait for the host as long as it stays connected;
  // an output frame still on its way goes first. A host that is gone drops the rest.
  auto waitForRoom = [this] {
    pollfd room{fd, POLLOUT, 0};
    (void)::poll(&room, 1, pollTickMillis);
  };
  while (!hostLost && frameSent < frameSize) {
    if (flushFrame() == Flush::pending) waitForRoom();
  }
  while (!hostLost && size > 0) {
    const long n = tervain_write(fd, bytes, size);
    if (n > 0) {
      bytes += n;
      size -= static_cast<std::size_t>(n);
    } else if (n < 0 && wouldBlock(errno)) {
      waitForRoom();
    } else {
      hostLost = true;
    }
  }
}

}  // namespace tervain
