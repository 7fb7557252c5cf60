#include "agent_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "child_process.h"
#include "vsock/tervain_vsock.h"

extern char** environ;

namespace tervain::testing {

using Clock = std::chrono::steady_clock;

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "tervain-test-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  dir = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(dir, ignored);
}

pid_t spawnProgram(const std::vector<std::string>& argv, const SpawnOptions& options) {
  std::map<std::string, std::string> env;
  for (char** e = environ; *e != nullptr; ++e) {
    const std::string entry(*e);
    const auto eq = entry.find('=');
    if (eq != std::string::npos) env[entry.substr(0, eq)] = entry.substr(eq + 1);
  }
  for (const auto& name : options.unsetEnv) env.erase(name);
  for (const auto& [k, v] : options.env) env[k] = v;
  std::vector<std::string> args = argv, envStrings;
  for (const auto& [k, v] : env) envStrings.push_back(k + "=" + v);
  std::vector<char*> argvPtrs, envPtrs;
  for (auto& a : args) argvPtrs.push_back(a.data());
  argvPtrs.push_back(nullptr);
  for (auto& e : envStrings) envPtrs.push_back(e.data());
  envPtrs.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  const int streams[] = {options.stdinFd, options.stdoutFd, options.stderrFd};
  for (int target = 0; target < 3; ++target) {
    if (streams[target] >= 0) posix_spawn_file_actions_adddup2(&actions, streams[target], target);
  }
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  if (options.newGroup) {
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    posix_spawnattr_setpgroup(&attributes, 0);
  }
  if (!options.terminal.empty()) {
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
    posix_spawn_file_actions_addopen(&actions, 0, options.terminal.c_str(), O_RDWR, 0);
    posix_spawn_file_actions_adddup2(&actions, 0, 1);
    posix_spawn_file_actions_adddup2(&actions, 0, 2);
  }
  pid_t pid = -1;
  const int rc =
      ::posix_spawn(&pid, argvPtrs[0], &actions, &attributes, argvPtrs.data(), envPtrs.data());
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) {
    errno = rc;
    return -1;
  }
  return pid;
}

std::optional<int> waitForChild(pid_t pid, std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  for (;;) {
    int status = 0;
    const pid_t done = pid > 0 ? ::waitpid(pid, &status, WNOHANG) : -1;
    if (done == pid) return status;
    if (done < 0 || Clock::now() >= deadline) return std::nullopt;
    std::this_thread::sleep_for(2ms);
  }
}

LineClient::~LineClient() { close(); }

LineClient::LineClient(LineClient&& other) noexcept
    : fd(other.fd), buffer(std::move(other.buffer)), eof(other.eof) {
  other.fd = -1;
}

LineClient LineClient::connectUnix(const std::string& path) {
  return LineClient(tervain_unix_connect(path.c_str()));
}

bool LineClient::send(std::string_view bytes) {
  while (!bytes.empty()) {
    const long n = tervain_write(fd, bytes.data(), bytes.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

bool LineClient::fill(std::chrono::steady_clock::time_point deadline) {
  for (;;) {
    pollfd p{fd, POLLIN, 0};
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    const int ready = ::poll(&p, 1, static_cast<int>(std::max<std::int64_t>(left.count(), 0)));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return false;
    char chunk[65536];
    const ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      eof = true;  // the end of the stream, or a reset
      return true;
    }
    buffer.append(chunk, static_cast<std::size_t>(n));
    return true;
  }
}

std::optional<std::string> LineClient::readLine(std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  for (;;) {
    if (const auto at = buffer.find('\n'); at != std::string::npos) {
      std::string line = buffer.substr(0, at);
      buffer.erase(0, at + 1);
      return line;
    }
    if (eof || fd < 0 || !fill(deadline)) return std::nullopt;
  }
}

bool LineClient::closedByPeer(std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (!eof && fd >= 0) {
    if (!fill(deadline)) return false;
  }
  return eof && buffer.empty();
}

void LineClient::shutdownWrite() { ::shutdown(fd, SHUT_WR); }

void LineClient::close() {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

AgentProcess::AgentProcess(Options options) {
  socket = temp.file("agent.sock");
  std::vector<std::string> args = {TERVAIN_AGENT_PATH};
  if (options.unixSocket) {
    args.push_back("--unix");
    args.push_back(socket);
  }
  args.insert(args.end(), options.args.begin(), options.args.end());
  if (!options.prelude.empty()) {
    // sh -c SCRIPT AGENT ARGS...: the script sees the agent as $0 and its arguments as $@.
    args.insert(args.begin(), {"/bin/sh", "-c", options.prelude + "\nexec \"$0\" \"$@\""});
  }

  int pipeFds[2];
  if (::pipe2(pipeFds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  child = spawnProgram(args, {.env = options.env,
                              .unsetEnv = options.unsetEnv,
                              .stdoutFd = pipeFds[1],
                              .stderrFd = pipeFds[1]});
  const int spawnError = errno;
  ::close(pipeFds[1]);
  if (child < 0) {
    ::close(pipeFds[0]);
    throw std::runtime_error(std::string("could not start the agent: ") + std::strerror(spawnError));
  }
  stderrFd = pipeFds[0];
  reader = std::thread([this] {
    char chunk[4096];
    for (;;) {
      {
        std::unique_lock lock(logMutex);
        logReleased.wait(lock, [this] { return !logHeld; });
      }
      const ssize_t n = ::read(stderrFd, chunk, sizeof chunk);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        logClosed = true;
        return;
      }
      std::lock_guard lock(logMutex);
      logText.append(chunk, static_cast<std::size_t>(n));
    }
  });
  if (options.waitForReady && !waitForLog("readiness: ", 10s)) {
    throw std::runtime_error("the agent did not start: " + log());
  }
  if (options.waitForReady && options.unixSocket) {
    // The readiness line comes before the socket listens; its path appears once it does.
    const auto deadline = Clock::now() + 10s;
    while (!std::filesystem::exists(socket) && Clock::now() < deadline && running()) {
      std::this_thread::sleep_for(2ms);
    }
  }
}

AgentProcess::~AgentProcess() {
  holdLog(false);
  if (running()) {
    ::kill(child, SIGKILL);
    waitForExit(10s);
  }
  if (reader.joinable()) reader.join();
  if (stderrFd >= 0) ::close(stderrFd);
  // In a sanitized build the agent is sanitized too; a report in its output fails the test that
  // ran it, whether or not the report ended the agent.
  const std::string text = log();
  for (const char* marker : {"ERROR: AddressSanitizer", "WARNING: ThreadSanitizer",
                             "ERROR: LeakSanitizer", ": runtime error: "}) {
    if (text.find(marker) != std::string::npos) {
      if (onSanitizerReport()) onSanitizerReport()(marker, text);
      break;
    }
  }
}

std::function<void(std::string_view, const std::string&)>& AgentProcess::onSanitizerReport() {
  // Made on first use, so a handler installed from another file's static initialiser sticks.
  static std::function<void(std::string_view, const std::string&)> handler =
      [](std::string_view marker, const std::string& log) {
        std::fprintf(stderr, "the agent reported \"%.*s\":\n%s\n",
                     static_cast<int>(marker.size()), marker.data(), log.c_str());
      };
  return handler;
}

LineClient AgentProcess::connect() const { return LineClient::connectUnix(socket); }

std::optional<std::string> AgentProcess::request(const std::string& line) const {
  LineClient client = connect();
  if (!client.valid() || !client.send(line + "\n")) return std::nullopt;
  return client.readLine();
}

std::string AgentProcess::log() const {
  std::lock_guard lock(logMutex);
  return logText;
}

void AgentProcess::holdLog(bool held) {
#ifdef F_SETPIPE_SZ
  // The smallest pipe there is, so that a test fills it with few lines.
  if (held) (void)::fcntl(stderrFd, F_SETPIPE_SZ, 4096);
#endif
  {
    std::lock_guard lock(logMutex);
    logHeld = held;
  }
  logReleased.notify_all();
}

bool AgentProcess::waitForLog(const std::string& text, std::chrono::milliseconds timeout) const {
  const auto deadline = Clock::now() + timeout;
  while (Clock::now() < deadline) {
    if (log().find(text) != std::string::npos) return true;
    std::this_thread::sleep_for(2ms);
  }
  return log().find(text) != std::string::npos;
}

bool AgentProcess::running() {
  if (exitStatus || child <= 0) return false;
  int status = 0;
  const pid_t r = ::waitpid(child, &status, WNOHANG);
  if (r == child) {
    exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return false;
  }
  return true;
}

std::optional<int> AgentProcess::waitForExit(std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (running() && Clock::now() < deadline) std::this_thread::sleep_for(2ms);
  // The agent's last lines may still sit in the pipe when it has been reaped: read them before
  // the caller looks at the log.
  while (exitStatus && !logClosed && Clock::now() < deadline) std::this_thread::sleep_for(2ms);
  return exitStatus;
}

}  // namespace tervain::testing
