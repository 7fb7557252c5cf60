// One "exec" request: the command runs as the leader of its own process group while a single
// poll loop on the connection's thread streams its output to the host as frames and applies the
// host's input, end-of-input and signal frames. The request may add environment variables, name
// the working directory, set a time limit, and ask for a pseudo-terminal (the command then leads
// a session on it, its output and error arrive merged as standard output, "eof" types the
// terminal's end-of-file character, and "resize" frames change its size).
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
#include "core/shared_limit.h"
#include "core/unique_fd.h"

namespace tervain {

class ExecSession {
 public:
  static constexpr std::string_view defaultDulkPath = "/usr/local/bin/dulk";
  static constexpr std::int32_t defaultPipeGraceMillis = 2000;
  // Stdin the command leaves untaken for this long, while the session was free to serve it, is
  // dropped; so is every later byte until the command takes input again.
  static constexpr std::int32_t stdinStallMillis = 1000;
  // Undelivered stdin a session holds before it stops reading the host (back-pressure).
  static constexpr std::size_t stdinBacklogBytes = 4 * 1024 * 1024;
  // How long one round of the pump waits for the socket or the pipes.
  static constexpr int pollTickMillis = 200;
  // A command past its time limit gets SIGTERM, and its group SIGKILL this much later.
  static constexpr std::int32_t killGraceMillis = 2000;

  // Milliseconds of a monotonic clock; tests substitute their own.
  using Clock = std::function<std::int64_t()>;
  static std::int64_t steadyMillis();

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
  // requested (the host's "env") is laid over environment; it never chooses the shell, and the
  // spool variable stays the agent's.
  static std::optional<ShellInvocation> shellInvocation(
      std::string_view command, std::string_view dulkPath, const Environment& environment,
      const std::function<bool(const std::string&)>& isExecutable,
      const std::optional<std::string>& withoutAgentShell = std::nullopt,
      const Environment& requested = {});

  // fd is the connection's socket, not owned; the session makes it non-blocking and restores it
  // when it ends. buffered holds whatever the host sent behind the request line. The process must
  // ignore SIGPIPE (the agent does from start-up): writes to a child that closed its input must
  // fail, not kill the agent. withoutAgentShell is the shell used when dulkPath is not executable
  // (the agent passes its platform's choice); without it the session refuses such a command.
  // clock defaults to steadyMillis.
  ExecSession(int fd, std::string buffered, std::string dulkPath, std::int32_t pipeGraceMillis,
              std::optional<std::string> withoutAgentShell = std::nullopt, Clock clock = {});
  ~ExecSession();
  ExecSession(const ExecSession&) = delete;
  ExecSession& operator=(const ExecSession&) = delete;

  // Counts the host's unfinished line against a bound that other connections share too: a
  // session whose line would pass it ends as one whose line passes the 4 MiB bound does. Call
  // before run(); bound must outlive the session.
  void shareLineBound(SharedLimit& bound) { lineShare.emplace(bound); }

  // Runs the whole session: start(), rounds of pumpOnce() until the session ends, finish().
  // Reports only through frames.
  void run(const Json& request);

  // The pieces of run(), so that tests can drive the loop one round at a time.
  //
  // Checks the command and its options ("env", "cwd", "timeout", "tty"), finds the shell, makes
  // the pipes (or the pseudo-terminal), spawns the child and applies the host lines already
  // buffered. False when the session ended here with an "err" frame; then nothing was run.
  bool start(const Json& request);

  // finished: the command is done and its output delivered; "x" follows. hostGone: the host
  // closed or failed. refused: the host broke the protocol (a line over the bound) and got an
  // "err" frame. After hostGone and refused the group has been killed and no frame follows.
  enum class Round { keepGoing, finished, hostGone, refused };
  // One round of the pump: reap the child if it exited, signal the group when the time limit or
  // the kill grace after it has run out, decide whether the session is over, then wait up to
  // timeoutMillis (less when the time limit or the kill is due sooner) for whatever can make
  // progress (host bytes, a frame still being written, stdin bytes the command may take, output)
  // and serve what is ready.
  Round pumpOnce(int timeoutMillis = pollTickMillis);

  // Ends a started session: closes the pipes, reaps the child (blocking when the host is gone,
  // after the group was killed) and sends the "x" frame unless the host is gone; the frame has
  // "timedOut": true when the time limit ended the command.
  void finish(bool hostGone);

  // Stdin bytes received and not yet taken by the command.
  std::size_t stdinPendingBytes() const { return stdinQueue.size() - stdinSent; }

  // The child's pid once start() succeeded, else -1.
  pid_t childPid() const { return pid; }

 private:
  // Ends the session (refused, after an "err" frame, the group killed) when the host's
  // unfinished line passes the 4 MiB bound or its share of the shared bound.
  Round boundLines();
  // Attaches a session to a child that a test or fuzz target started itself, and feeds it host
  // frames without a socket read or a spawn per case (fuzz/exec_host_frame_fuzz.cpp).
  friend struct ExecSessionProbe;

  enum class Flush { done, pending, failed };

  void enforceTimeLimit();
  int pollTimeout(int timeoutMillis);
  void handleHostFrame(std::string_view line);
  void applyBufferedLines();
  Round readHost();
  void queueStdin(std::string_view bytes);
  void pumpStdin();
  void dropStdin();
  void closeStdinIfDone();
  bool readPipe(const UniqueFd& pipe, std::string_view tag);
  void assembleOutputFrame(std::string_view tag, const char* bytes, std::size_t size);
  Flush flushFrame();
  void sendFrame(const Json& frame);
  void sendError(const std::string& message);
  void writeFrameBytes(const char* bytes, std::size_t size);
  void killGroup();
  // Signals the terminal's foreground job when it is not the command's group; whether it did.
  bool signalTerminalJobs(int sig);
  void queueTerminalEOF();
  void closeChildDescriptors();
  void restoreSocket();

  const int fd;
  LineSplitBuffer lines;
  std::optional<LimitShare> lineShare;  // lines' part of the shared bound, when there is one
  const std::string dulkPath;
  const std::int32_t graceMillis;
  const std::optional<std::string> withoutAgentShell;
  const Clock clock;
  int socketFlags = -1;  // the socket's flags before the session, restored when it ends

  // State of the run.
  pid_t pid = -1;
  UniqueFd stdinFD;
  UniqueFd stdoutFD;
  UniqueFd stderrFD;
  bool terminal = false;  // the command runs on a pseudo-terminal whose master is stdoutFD
  bool stdoutOpen = false;
  bool stderrOpen = false;
  bool reaped = false;
  std::int32_t exitCode = -1;
  // Time counts towards the pipe grace and the stdin stall only in rounds in which the session
  // was free to read the command's output, never while a frame waits for a slow host.
  std::int64_t graceUsedMillis = 0;  // since the child was reaped
  std::int64_t stdinIdleMillis = 0;  // since the command last took a stdin byte
  bool stdinEOFRequested = false;    // "eof" arrived; close once the queue is delivered
  bool stdinLineOpen = false;        // the last stdin byte received did not end a line
  std::string stdinQueue;            // stdin bytes received; those from stdinSent on are pending
  std::size_t stdinSent = 0;
  std::vector<char> readBuffer;   // one read of the socket or a pipe
  std::vector<char> frameBuffer;  // one output frame, assembled in place
  std::size_t frameSize = 0;      // bytes of the frame in frameBuffer
  std::size_t frameSent = 0;      // of which already written; the frame is pending while less
  std::string decoded;            // the bytes of one stdin frame
  bool hostLost = false;          // a write to the host failed: it is gone
  // The time limit, on clock: SIGTERM at timeLimitAt while the child runs, SIGKILL to the group
  // killGraceMillis later. Until then a timed-out session does not end while the group lives.
  std::optional<std::int64_t> timeLimitAt;
  bool timedOut = false;    // SIGTERM was sent for the time limit
  std::int64_t killAt = 0;  // when the group gets SIGKILL, once timedOut
  bool killSent = false;
};

}  // namespace tervain
