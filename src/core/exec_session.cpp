// The exec session pump.
//
// Everything runs on the connection's thread in one poll loop with a 200 ms tick, so every wait
// is bounded and no lock is needed. Each round first reaps the child if it exited; once it has,
// the session ends as soon as both output pipes reached end of file, or when the pipe grace has
// passed since the exit (descendants that keep a pipe open cannot hold the session). Host frames
// are applied whenever the socket is readable, in the order they arrive; output is read in chunks
// of at most 64 KiB and each chunk becomes one frame, assembled in place as
// {"t":"o","d":"<base64>"} without going through the JSON object model (base64 needs no escaping).
// A host that goes away takes the command's whole process group down with it.
#include "core/exec_session.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "core/agent_wire.h"
#include "core/base64.h"
#include "core/posix/spawn_platform.h"
#include "core/request_members.h"
#include "core/shell_spool.h"
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

std::int64_t monotonicMillis() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// 128 + the signal for a child ended by a signal, else its exit status.
std::int32_t exitCodeFromStatus(int status) {
  if ((status & 0x7F) != 0) return (status & 0x7F) | 0x80;
  return (status >> 8) & 0xFF;
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

void closeIfOpen(int& fd) {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

// Frames written in place: the prefix before the tag, the part between tag and payload, the end.
constexpr std::string_view kFrameHead = R"({"t":")";
constexpr std::string_view kFrameMiddle = R"(","d":")";
constexpr std::string_view kFrameTail = "\"}\n";
constexpr std::size_t kMaxTag = 8;

}  // namespace

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
    const std::function<bool(const std::string&)>& isExecutable) {
  if (const auto it = environment.find(std::string(kDisableKey));
      it != environment.end() && it->second == "1") {
    return ShellInvocation{kFallbackShell, {"-c", std::string(command)}, environment};
  }
  std::string shell(dulkPath);
  if (!isExecutable(shell)) return std::nullopt;
  Environment env = environment;
  env[std::string(ShellSpool::spoolEnvKey)] = ShellSpool::defaultDir();
  env.try_emplace(std::string(ShellSpool::captureEnvKey), "tap");
  return ShellInvocation{std::move(shell), {"-lc", std::string(command)}, std::move(env)};
}

std::optional<pid_t> ExecSession::spawnGroupLeader(const std::string& path,
                                                   const std::vector<std::string>& args,
                                                   const Environment& environment, int stdinFD,
                                                   int stdoutFD, int stderrFD) {
  std::vector<char*> argv;
  argv.reserve(args.size() + 2);
  argv.push_back(const_cast<char*>(path.c_str()));
  for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);

  std::vector<std::string> entries;
  entries.reserve(environment.size());
  for (const auto& [key, value] : environment) entries.push_back(key + "=" + value);
  std::vector<char*> envp;
  envp.reserve(entries.size() + 1);
  for (std::string& entry : entries) envp.push_back(entry.data());
  envp.push_back(nullptr);

  posix_spawnattr_t attr;
  posix_spawn_file_actions_t actions;
  int rc = ::posix_spawnattr_init(&attr);
  if (rc != 0) {
    errno = rc;
    return std::nullopt;
  }
  rc = ::posix_spawn_file_actions_init(&actions);
  if (rc != 0) {
    ::posix_spawnattr_destroy(&attr);
    errno = rc;
    return std::nullopt;
  }

  // The agent ignores SIGPIPE, and an ignored signal stays ignored across exec: give the child
  // the default back, or "yes | head" inside a command would never end by SIGPIPE. The signal
  // mask is cleared too, whatever the spawning thread blocks.
  short flags = POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK;
  sigset_t defaults;
  sigset_t mask;
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  sigemptyset(&mask);
  if (rc == 0) rc = ::posix_spawnattr_setpgroup(&attr, 0);
  if (rc == 0) rc = ::posix_spawnattr_setsigdefault(&attr, &defaults);
  if (rc == 0) rc = ::posix_spawnattr_setsigmask(&attr, &mask);
  if (rc == 0) rc = ::posix_spawn_file_actions_adddup2(&actions, stdinFD, 0);
  if (rc == 0) rc = ::posix_spawn_file_actions_adddup2(&actions, stdoutFD, 1);
  if (rc == 0) rc = ::posix_spawn_file_actions_adddup2(&actions, stderrFD, 2);
  if (rc == 0) rc = posix::closeOtherDescriptorsInChild(&actions, &flags);
  if (rc == 0) rc = ::posix_spawnattr_setflags(&attr, flags);
  pid_t child = -1;
  if (rc == 0) {
    rc = ::posix_spawn(&child, path.c_str(), &actions, &attr, argv.data(), envp.data());
  }
  ::posix_spawn_file_actions_destroy(&actions);
  ::posix_spawnattr_destroy(&attr);
  if (rc != 0) {
    errno = rc;
    return std::nullopt;
  }
  return child;
}

std::size_t ExecSession::writeBounded(int fd, std::string_view data, int retries) {
  std::size_t written = 0;
  int failures = 0;  // over the whole call, never reset
  while (written < data.size()) {
    const ssize_t n = ::write(fd, data.data() + written, data.size() - written);
    if (n > 0) {
      written += static_cast<std::size_t>(n);
      continue;
    }
    if (n == 0) break;
    if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) break;
    if (++failures > retries) break;
    // Wait up to 2 ms for room: a reader that keeps up ends the wait at once, one that does not
    // costs the same 2 ms per attempt as a plain sleep, so the bound on the whole call holds.
    pollfd room{fd, POLLOUT, 0};
    (void)::poll(&room, 1, 2);
  }
  return written;
}

ExecSession::ExecSession(int fd, std::string buffered, std::string dulkPath,
                         std::int32_t pipeGraceMillis)
    : fd(fd), dulkPath(std::move(dulkPath)), graceMillis(pipeGraceMillis) {
  lines.append(buffered);
  tervain_set_nosigpipe(fd);
}

ExecSession::~ExecSession() {
  closeChildDescriptors();
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
  Round round = Round::keepGoing;
  while (round == Round::keepGoing) round = pumpOnce();
  finish(round == Round::hostGone);
}

bool ExecSession::start(const Json& request) {
  const std::string* command = stringMember(request, Wire::commandKey);
  if (command == nullptr) {
    sendError("exec requires a \"command\" string");
    return false;
  }
  const std::optional<ShellInvocation> invocation =
      shellInvocation(*command, dulkPath, processEnvironment(), isExecutableFile);
  if (!invocation) {
    sendError(dulkMissingMessage());
    return false;
  }

  int in[2] = {-1, -1};
  int out[2] = {-1, -1};
  int err[2] = {-1, -1};
  int failure = posix::makeCloexecPipe(in);
  if (failure == 0) failure = posix::makeCloexecPipe(out);
  if (failure == 0) failure = posix::makeCloexecPipe(err);
  if (failure != 0) {
    for (int* end : {&in[0], &in[1], &out[0], &out[1], &err[0], &err[1]}) closeIfOpen(*end);
    sendError("could not allocate stdio pipes (errno " + std::to_string(failure) + ")");
    return false;
  }

  const std::optional<pid_t> child = spawnGroupLeader(invocation->path, invocation->args,
                                                      invocation->env, in[0], out[1], err[1]);
  const int spawnError = errno;
  closeIfOpen(in[0]);
  closeIfOpen(out[1]);
  closeIfOpen(err[1]);
  if (!child) {
    closeIfOpen(in[1]);
    closeIfOpen(out[0]);
    closeIfOpen(err[0]);
    sendError("could not launch the command (posix_spawn errno " + std::to_string(spawnError) +
              ")");
    return false;
  }

  pid = *child;
  stdinFD = in[1];
  stdoutFD = out[0];
  stderrFD = err[0];
  stdoutOpen = true;
  stderrOpen = true;
  // Stdin writes must never block the pump; the output ends stay blocking and are only read when
  // poll() says so.
  const int flags = ::fcntl(stdinFD, F_GETFL);
  if (flags >= 0) ::fcntl(stdinFD, F_SETFL, flags | O_NONBLOCK);
  tervain_set_nosigpipe(stdinFD);
  posix::enlargePipe(stdinFD);
  posix::enlargePipe(stdoutFD);
  posix::enlargePipe(stderrFD);

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
      exitMillis = monotonicMillis();
      reaped = true;
    }
  }
  if (reaped) {
    if (!stdoutOpen && !stderrOpen) return Round::finished;
    if (monotonicMillis() - exitMillis > std::max<std::int32_t>(graceMillis, 0)) {
      return Round::finished;
    }
  }

  pollfd set[3];
  int count = 0;
  set[count++] = {fd, POLLIN, 0};
  if (stdoutOpen) set[count++] = {stdoutFD, POLLIN, 0};
  if (stderrOpen) set[count++] = {stderrFD, POLLIN, 0};
  if (::poll(set, static_cast<nfds_t>(count), timeoutMillis) < 0) {
    if (errno == EINTR || errno == EAGAIN) return Round::keepGoing;
    killGroup();
    return Round::finished;
  }

  for (int i = 0; i < count; ++i) {
    if (set[i].revents == 0) continue;
    if (set[i].fd == fd) {
      const ssize_t n = ::read(fd, readBuffer.data(), readBuffer.size());
      if (n > 0) {
        lines.append(std::string_view(readBuffer.data(), static_cast<std::size_t>(n)));
        applyBufferedLines();
      } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
        killGroup();
        return Round::hostGone;
      }
    } else if (set[i].fd == stdoutFD) {
      stdoutOpen = readPipe(stdoutFD, Wire::stdout_);
    } else {
      stderrOpen = readPipe(stderrFD, Wire::stderr_);
    }
  }
  return Round::keepGoing;
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
    sendFrame(Json{{std::string(Wire::tagKey), std::string(Wire::exit)},
                   {std::string(Wire::codeKey), exitCode}});
  }
}

bool ExecSession::readPipe(int pipeFD, std::string_view tag) {
  const ssize_t n = ::read(pipeFD, readBuffer.data(), readBuffer.size());
  if (n > 0) {
    sendOutputFrame(tag, readBuffer.data(), static_cast<std::size_t>(n));
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
    if (data == nullptr || stdinFD < 0 || !base64::decodeInto(*data, decoded)) return;
    writeBounded(stdinFD, decoded, stdinRetries);
  } else if (*tag == Wire::stdinEOF) {
    closeIfOpen(stdinFD);
  } else if (*tag == Wire::signal) {
    const std::optional<std::int64_t> number = integerMember(*frame, Wire::signalKey);
    // A number outside the signed 32-bit range is ignored like a missing one.
    const std::optional<std::int32_t> sig = number ? narrowToInt32(*number) : std::nullopt;
    if (!sig || pid <= 0) return;
    // Once reaped, the pid alone is no longer ours to signal; the group may still hold
    // descendants, and its id cannot be reused while it does.
    if (::kill(-pid, *sig) != 0 && !reaped) ::kill(pid, *sig);
  }
}

void ExecSession::killGroup() {
  if (pid <= 0) return;
  if (::kill(-pid, SIGKILL) != 0 && !reaped) ::kill(pid, SIGKILL);
}

void ExecSession::closeChildDescriptors() {
  closeIfOpen(stdinFD);
  closeIfOpen(stdoutFD);
  closeIfOpen(stderrFD);
  stdoutOpen = false;
  stderrOpen = false;
}

void ExecSession::sendOutputFrame(std::string_view tag, const char* bytes, std::size_t size) {
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
  writeFrameBytes(frameBuffer.data(), total);
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
  // A failed write drops the rest of the frame; the socket read notices a host that is gone.
  writeAll(fd, std::string_view(bytes, size));
}

}  // namespace tervain
