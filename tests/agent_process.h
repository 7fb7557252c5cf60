// Runs the built agent as a child process on a Unix socket in a private temporary directory, and
// talks to it over real sockets.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace tervain::testing {

using namespace std::chrono_literals;

// A temporary directory removed with everything in it on destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return dir; }
  std::string file(const std::string& name) const { return dir + "/" + name; }

 private:
  std::string dir;
};

// A connected stream socket with line-oriented helpers. Every wait is bounded.
class LineClient {
 public:
  explicit LineClient(int fd) : fd(fd) {}
  ~LineClient();
  LineClient(LineClient&& other) noexcept;
  LineClient(const LineClient&) = delete;
  LineClient& operator=(const LineClient&) = delete;

  static LineClient connectUnix(const std::string& path);

  bool valid() const { return fd >= 0; }
  int descriptor() const { return fd; }
  // Writes all bytes; false when the peer is gone.
  bool send(std::string_view bytes);
  // The next line without its line feed; nothing on timeout or end of stream.
  std::optional<std::string> readLine(std::chrono::milliseconds timeout = 10s);
  // True when the peer closes (end of stream) within the timeout, with no further bytes.
  bool closedByPeer(std::chrono::milliseconds timeout = 10s);
  void shutdownWrite();
  void close();

 private:
  // Reads one chunk arriving before the deadline; false on timeout. Sets eof at the end.
  bool fill(std::chrono::steady_clock::time_point deadline);
  int fd;
  std::string buffer;  // received and not yet returned as lines
  bool eof = false;
};

class AgentProcess {
 public:
  struct Options {
    bool unixSocket = true;                       // pass --unix SOCKET first
    std::vector<std::string> args;                // further arguments
    std::map<std::string, std::string> env;       // added to (or replacing) the environment
    std::vector<std::string> unsetEnv;
    bool waitForReady = true;
    // Shell commands run by /bin/sh right before it becomes the agent (same pid), for what only
    // a parent can hand down: "trap '' INT" (an ignored signal), "ulimit -v N" (a memory limit).
    std::string prelude;
  };

  AgentProcess() : AgentProcess(Options{}) {}

  // Called when the agent's output holds a sanitizer report (a sanitized build runs a sanitized
  // agent). By default it prints; the test suite makes it fail the running test.
  static std::function<void(std::string_view marker, const std::string& log)>& onSanitizerReport();
  explicit AgentProcess(Options options);
  ~AgentProcess();  // kills the agent (SIGKILL) if it still runs, and reaps it

  pid_t pid() const { return child; }
  const std::string& socketPath() const { return socket; }
  const TempDir& dir() const { return temp; }

  LineClient connect() const;
  // Connects, sends one request line and returns the reply line.
  std::optional<std::string> request(const std::string& line) const;

  // Everything the agent wrote to standard output and standard error so far.
  std::string log() const;
  // While held, the agent's standard error is not read (a pipe nobody reads fills up).
  void holdLog(bool held);
  // Waits until the log contains text; false on timeout.
  bool waitForLog(const std::string& text, std::chrono::milliseconds timeout = 10s) const;
  // Waits for the agent to exit; its exit status, or nothing on timeout.
  std::optional<int> waitForExit(std::chrono::milliseconds timeout = 10s);
  bool running();

 private:
  TempDir temp;
  std::string socket;
  pid_t child = -1;
  int stderrFd = -1;
  std::thread reader;
  std::atomic<bool> logClosed{false};  // the reader saw the end of the agent's output
  mutable std::mutex logMutex;
  std::condition_variable logReleased;
  bool logHeld = false;
  std::string logText;
  std::optional<int> exitStatus;
};

}  // namespace tervain::testing
