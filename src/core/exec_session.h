// One "exec" request: the command runs as the leader of its own process group while a single
// poll loop on the connection's thread streams its output to the host as frames and applies the
// host's input, end-of-input and signal frames.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/json.h"
#include "core/line_split_buffer.h"

namespace tervain {

class ExecSession {
 public:
  static constexpr std::string_view defaultDulkPath = "/usr/local/bin/dulk";
  static constexpr std::int32_t defaultPipeGraceMillis = 2000;
  // Stdin writes wait at most this many times 2 ms before dropping the rest of a frame.
  static constexpr int stdinRetries = 500;
  // How long one round of the pump waits for the socket or the pipes.
  static constexpr int pollTickMillis = 200;

  // The refusal sent when the agent shell is missing. It always names defaultDulkPath, whatever
  // path a session was made with: it tells the operator how to fix the guest image.
  static const std::string& dulkMissingMessage();

  using Environment = std::map<std::string, std::string>;

  struct ShellInvocation {
    std::string path;               // program to run
    std::vector<std::string> args;  // arguments after argv[0]
    Environment env;                // the command's complete environment
  };

  // How a command is run: under the agent shell at dulkPath ("-lc" command) with the spool and
  // capture variables set, or, when environment has TERVAIN_DULK_DISABLE exactly "1", under
  // "/bin/zsh" ("-c" command) with the environment unchanged. When isExecutable(dulkPath) is
  // false: under withoutAgentShell ("-c" command, environment unchanged) if given, else nothing.
  static std::optional<ShellInvocation> shellInvocation(
      std::string_view command, std::string_view dulkPath, const Environment& environment,
      const std::function<bool(const std::string&)>& isExecutable,
      const std::optional<std::string>& withoutAgentShell = std::nullopt);

  // Starts path as the leader of a new process group, with stdinFD, stdoutFD and stderrFD as its
  // descriptors 0, 1 and 2 and no other descriptor, and SIGPIPE at its default disposition. The
  // child's pid, or nothing with errno set to the spawn's error. The caller keeps and closes the
  // three descriptors.
  static std::optional<pid_t> spawnGroupLeader(const std::string& path,
                                               const std::vector<std::string>& args,
                                               const Environment& environment, int stdinFD,
                                               int stdoutFD, int stderrFD);

  // Writes data to a non-blocking descriptor, sleeping 2 ms whenever it would block, for at most
  // `retries` failed attempts over the whole call; stops at any other error. Bytes that could not
  // be written are dropped. Returns how many were written.
  static std::size_t writeBounded(int fd, std::string_view data, int retries);

  // fd is the connection's socket, not owned. buffered holds whatever the host sent behind the
  // request line. The process must ignore SIGPIPE (the agent does from start-up): writes to a
  // child that closed its input must fail, not kill the agent.
  // withoutAgentShell is the shell used when dulkPath is not executable (the agent passes its
  // platform's choice); without it the session refuses such a command.
  ExecSession(int fd, std::string buffered, std::string dulkPath, std::int32_t pipeGraceMillis,
              std::optional<std::string> withoutAgentShell = std::nullopt);
  ~ExecSession();
  ExecSession(const ExecSession&) = delete;
  ExecSession& operator=(const ExecSession&) = delete;

  // Runs the whole session: start(), rounds of pumpOnce() until the session ends, finish().
  // Reports only through frames.
  void run(const Json& request);

  // The pieces of run(), so that tests can drive the loop one round at a time.
  //
  // Checks the command, finds the shell, makes the pipes, spawns the child and applies the host
  // lines already buffered. False when the session ended here with an "err" frame.
  bool start(const Json& request);

  enum class Round { keepGoing, finished, hostGone };
  // One round of the pump: reap the child if it exited, decide whether the session is over, then
  // wait up to timeoutMillis for the socket or the output pipes and serve what is ready.
  Round pumpOnce(int timeoutMillis = pollTickMillis);

  // Ends a started session: closes the pipes, reaps the child (blocking when the host is gone,
  // after the group was killed) and sends the "x" frame unless the host is gone.
  void finish(bool hostGone);

  // The child's pid once start() succeeded, else -1.
  pid_t childPid() const { return pid; }

 private:
  // Attaches a session to a child that a test or fuzz target started itself, and feeds it host
  // frames without a socket read or a spawn per case (fuzz/exec_host_frame_fuzz.cpp).
  friend struct ExecSessionProbe;

  void handleHostFrame(std::string_view line);
  void applyBufferedLines();
  void sendOutputFrame(std::string_view tag, const char* bytes, std::size_t size);
  void sendFrame(const Json& frame);
  void sendError(const std::string& message);
  void writeFrameBytes(const char* bytes, std::size_t size);
  void killGroup();
  void closeChildDescriptors();
  bool readPipe(int pipeFD, std::string_view tag);

  const int fd;
  LineSplitBuffer lines;
  const std::string dulkPath;
  const std::int32_t graceMillis;
  const std::optional<std::string> withoutAgentShell;

  // State of the run.
  pid_t pid = -1;
  int stdinFD = -1;
  int stdoutFD = -1;
  int stderrFD = -1;
  bool stdoutOpen = false;
  bool stderrOpen = false;
  bool reaped = false;
  std::int32_t exitCode = -1;
  std::int64_t exitMillis = 0;
  std::vector<char> readBuffer;   // one read of the socket or a pipe
  std::vector<char> frameBuffer;  // one output frame, assembled in place
  std::string decoded;            // the bytes of one stdin frame
};

}  // namespace tervain
