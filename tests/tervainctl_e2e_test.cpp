// The real tervainctl binary, run as a child process against the real agent on a Unix socket.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>

#include "agent_process.h"
#include "child_process.h"
#include "core/exec_session.h"
#include "core/json.h"
#include "vsock/tervain_vsock.h"

namespace tervain::testing {
namespace {

struct CtlResult {
  bool exited = false;  // ended by exit(), with status
  int status = -1;
  bool timedOut = false;
  std::string out;
  std::string err;
};

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream all;
  all << in.rdbuf();
  return all.str();
}

void writeFile(const std::string& path, std::string_view bytes) {
  std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::string randomBytes(std::size_t size, unsigned seed) {
  std::mt19937_64 generator(seed);
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; i += 8) {
    const std::uint64_t word = generator();
    std::memcpy(bytes.data() + i, &word, std::min<std::size_t>(8, size - i));
  }
  return bytes;
}

// FNV-1a: enough to tell two multi-megabyte contents apart without printing either.
std::uint64_t checksum(std::string_view bytes) {
  std::uint64_t hash = 1469598103934665603ull;
  for (const unsigned char c : bytes) hash = (hash ^ c) * 1099511628211ull;
  return hash;
}

// One run of tervainctl with its standard streams on files.
class CtlRun {
 public:
  struct Options {
    std::string stdinPath = "/dev/null";
    std::map<std::string, std::string> env;
    bool withAddress = true;
    bool stdoutReaderGone = false;  // standard output a pipe whose reader has closed it
    std::string terminal;  // a terminal to run on instead (its controlling one), output unread
  };

  CtlRun(const TempDir& dir, const std::string& socketPath, std::vector<std::string> args,
         const Options& options) {
    static int counter = 0;
    const std::string stem = dir.file("ctl" + std::to_string(++counter));
    outPath = stem + ".out";
    errPath = stem + ".err";
    std::vector<std::string> argv = {TERVAIN_CTL_PATH};
    argv.insert(argv.end(), args.begin(), args.end());
    SpawnOptions spawn{
        .env = options.env, .unsetEnv = {"TERVAIN_AGENT_ADDR"}, .terminal = options.terminal};
    if (options.withAddress) spawn.env.try_emplace("TERVAIN_AGENT_ADDR", "unix:" + socketPath);
    // A reader that is gone: the child writes into a pipe whose read end nobody holds.
    int pipeEnds[2] = {-1, -1};
    if (options.stdoutReaderGone && ::pipe2(pipeEnds, O_CLOEXEC) != 0) return;
    const int in = ::open(options.stdinPath.c_str(), O_RDONLY | O_CLOEXEC);
    const int out = options.stdoutReaderGone
                        ? pipeEnds[1]
                        : ::open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const int err = ::open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    spawn.stdinFd = in;
    spawn.stdoutFd = out;
    spawn.stderrFd = err;
    if (pipeEnds[0] >= 0) ::close(pipeEnds[0]);
    if (in >= 0 && out >= 0 && err >= 0) child = spawnProgram(argv, spawn);
    for (const int fd : {in, out, err}) {
      if (fd >= 0) ::close(fd);
    }
  }

  ~CtlRun() {
    if (child > 0) {
      ::kill(child, SIGKILL);
      ::waitpid(child, nullptr, 0);
    }
  }

  pid_t pid() const { return child; }
  std::string outSoFar() const { return readFile(outPath); }

  // Waits until standard output holds text; false on timeout.
  bool waitForOutput(const std::string& text, std::chrono::milliseconds limit = 10s) const {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < deadline) {
      if (outSoFar().find(text) != std::string::npos) return true;
      std::this_thread::sleep_for(10ms);
    }
    return false;
  }

  CtlResult finish(std::chrono::milliseconds limit = 60s) {
    CtlResult result;
    std::optional<int> status = waitForChild(child, limit);
    if (!status) {
      ::kill(child, SIGKILL);
      status = waitForChild(child, 10s);
      result.timedOut = true;
    }
    child = -1;
    if (status) {
      result.exited = WIFEXITED(*status);
      result.status = result.exited ? WEXITSTATUS(*status) : 128 + WTERMSIG(*status);
    }
    result.out = readFile(outPath);
    result.err = readFile(errPath);
    return result;
  }

 private:
  pid_t child = -1;
  std::string outPath;
  std::string errPath;
};

class TervainctlTest : public ::testing::Test {
 protected:
  static AgentProcess::Options zsh() {
    AgentProcess::Options options;
    options.env["TERVAIN_DULK_DISABLE"] = "1";
    return options;
  }

  TervainctlTest() : agent(zsh()) {}

  CtlRun start(std::vector<std::string> args, const CtlRun::Options& options = {}) {
    return CtlRun(local, agent.socketPath(), std::move(args), options);
  }
  CtlResult run(std::vector<std::string> args, const CtlRun::Options& options = {}) {
    return start(std::move(args), options).finish();
  }
  // Runs tervainctl against a socket that plays the agent from a script, for what the headless
  // agent cannot answer: it reads a line and answers the next reply, in turn, and records the
  // lines it read.
  std::pair<CtlResult, std::vector<std::string>> scripted(std::vector<std::string> args,
                                                          const std::vector<std::string>& replies,
                                                          const std::string& input = "") {
    const std::string path = local.file("scripted.sock");
    ::unlink(path.c_str());
    const int server = tervain_unix_listen(path.c_str(), 1);
    std::vector<std::string> requests;
    std::thread answer([server, &replies, &requests] {
      pollfd ready{server, POLLIN, 0};
      if (server < 0 || ::poll(&ready, 1, 10'000) != 1) return;  // a run that never connects
      const int connection = ::accept(server, nullptr, nullptr);
      for (std::size_t i = 0; connection >= 0 && i < replies.size(); ++i) {
        std::string request;
        char byte = 0;
        while (::read(connection, &byte, 1) == 1 && byte != '\n') request.push_back(byte);
        requests.push_back(request);
        const std::string line = replies[i] + "\n";
        EXPECT_EQ(::write(connection, line.data(), line.size()), static_cast<ssize_t>(line.size()));
      }
      if (connection >= 0) ::close(connection);
    });
    args.insert(args.begin(), {"--connect", "unix:" + path});
    std::ofstream(local.file("stdin")) << input;
    CtlResult r = run(args, {.stdinPath = local.file("stdin")});
    answer.join();
    if (server >= 0) ::close(server);
    return {std::move(r), std::move(requests)};
  }

  AgentProcess agent;
  TempDir local;
};

// ---- ping, call and exit statuses ------------------------------------------------------------

TEST_F(TervainctlTest, PingPrintsASummary) {
  const CtlResult r = run({"ping"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out,
            "agent protocol v2, build " TERVAIN_VERSION
            ", headless desktop\n"
            "displays: none\n"
            "grants: accessibility no, screen recording no, input synthesis no\n"
            "features: exec shell-events ping screenshot ax_dump ax_element_at ax_action "
            "ax_set_value ax_focus click move drag type key scroll mouse_down mouse_up key_down "
            "key_up cursor_position launch_app find wait_for windows window_action clipboard_get "
            "clipboard_set screenshot.region screenshot.maxSize "
            "screenshot.png screenshot.quality click.modifiers scroll.modifiers "
            "drag.modifiers exec.env exec.cwd exec.timeout exec.tty\n");
}

TEST_F(TervainctlTest, ARefusalExitsOneWithTheAgentsErrorOnceOnStderr) {
  // call and --json print the reply on success only: a refusal is one line on stderr.
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {"call", R"({"op":"nope"})"}, {"tree", "--json"}, {"type", "hello"}}) {
    const CtlResult r = run(args);
    EXPECT_EQ(r.status, 1) << args[0];
    EXPECT_EQ(r.out, "") << args[0];
    EXPECT_TRUE(r.err.starts_with("tervainctl: ")) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  }
  EXPECT_EQ(run({"call", R"({"op":"nope"})"}).err,
            "tervainctl: unknown op 'nope' (agent protocol v2)\n");
  const CtlResult call = run({"call", R"({"op":"ping"})"});
  EXPECT_EQ(call.status, 0);
  EXPECT_EQ(Json::parse(call.out)["version"], 2);

  // --at looks the element up first; without the accessibility grant that lookup is refused.
  const CtlResult at = run({"press", "--at", "10", "20", "AXShowMenu"});
  EXPECT_EQ(at.status, 1);
  EXPECT_TRUE(at.err.starts_with("tervainctl: ")) << at.err;
}

TEST_F(TervainctlTest, MessagesArePinned) {
  const std::string more = "Run tervainctl --help for more information.\n";
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string out;  // exact, or a prefix when it ends with "..."
    std::string err;  // likewise
  };
  const Case cases[] = {
      {{"pign"}, 2, "", "tervainctl: unknown subcommand 'pign' (did you mean ping?)\n" + more},
      {{"screen", "-o", "x"}, 2, "",
       "tervainctl: unknown subcommand 'screen' (did you mean screenshot?)\n" + more},
      {{"--connect", "unix:/x", "mvoe", "1", "2"}, 2, "",
       "tervainctl: unknown subcommand 'mvoe' (did you mean move?)\n" + more},
      {{"bogus"}, 2, "", "tervainctl: unknown subcommand 'bogus'\n" + more},
      {{}, 2, "",
       "tervainctl: a subcommand is required, e.g. tervainctl ping; tervainctl --help lists "
       "them all\n" + more},
      {{"click", "1"}, 2, "", "tervainctl: Y is required\n" + more},
      {{"exec", "--env", "X", "true"}, 2, "",
       "tervainctl: --env wants NAME=VALUE, e.g. --env LANG=C, not 'X'\n" + more},
      {{"exec", "--timeout=0", "true"}, 2, "",
       "tervainctl: --timeout wants a positive number of seconds, not '0'\n" + more},
      {{"--version"}, 0, "tervainctl 0.1.0 (agent protocol v2)\n", ""},
      {{"--help"}, 0, "Drive a TervainVMAgent in a guest from the host.\nUsage: tervainctl ...", ""},
      {{"--connect", "tcp:1", "ping"}, 2, "",
       "tervainctl: unknown address 'tcp:1': use vsock:CID:PORT, unix:PATH or fd:N\n..."},
  };
  auto matches = [](const std::string& actual, const std::string& expected) {
    return expected.ends_with("...") ? actual.starts_with(expected.substr(0, expected.size() - 3))
                                     : actual == expected;
  };
  for (const Case& c : cases) {
    const CtlResult r = run(c.args);
    const std::string label = c.args.empty() ? "(none)" : c.args[0];
    EXPECT_EQ(r.status, c.status) << label;
    EXPECT_TRUE(matches(r.out, c.out)) << label << ": " << r.out;
    EXPECT_TRUE(matches(r.err, c.err)) << label << ": " << r.err;
  }
}

TEST_F(TervainctlTest, UsageErrorsExitTwo) {
  for (const std::vector<std::string>& args :
       std::vector<std::vector<std::string>>{{"click", "1", "2", "--button", "up"},
                                             {"key", "left", "a"},
                                             {"mouse", "sideways", "1", "2"},
                                             {"move", "1.5", "2"},
                                             {"cp", "guest:a", "guest:b"},
                                             {"press", "e1", "AXPress", "--at", "1", "2"},
                                             {"press", "--find", "role"},
                                             {"find", "role=x,size=2"},
                                             {"call", "not json"}}) {
    const CtlResult r = run(args);
    EXPECT_EQ(r.status, 2) << args[0] << ": " << r.err;
    EXPECT_FALSE(r.err.empty()) << args[0];
  }
}

TEST_F(TervainctlTest, WithoutAnAddressItSaysHowToGiveOne) {
  const CtlResult r = run({"ping"}, {.withAddress = false});
  EXPECT_EQ(r.status, 2);
  EXPECT_TRUE(r.err.starts_with("tervainctl: no agent address: pass --connect ADDR or set "
                                "TERVAIN_AGENT_ADDR"))
      << r.err;
  // --connect wins over the environment, before or after the subcommand.
  EXPECT_EQ(run({"--connect", "unix:" + agent.socketPath(), "ping"}, {.withAddress = false}).status, 0);
  EXPECT_EQ(run({"ping", "--connect", "unix:" + agent.socketPath()},
                {.env = {{"TERVAIN_AGENT_ADDR", "unix:/nonexistent"}}})
                .status,
            0);
}

// A unix: address that nothing serves says how to start the agent there.
TEST_F(TervainctlTest, NothingListeningExits255AndSaysHowToStartTheAgent) {
  const std::string missing = local.file("nobody.sock");
  // A socket file that nobody listens on refuses the connection.
  const std::string stale = local.file("stale.sock");
  const int bound = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un name{};
  name.sun_family = AF_UNIX;
  std::strncpy(name.sun_path, stale.c_str(), sizeof name.sun_path - 1);
  ASSERT_EQ(::bind(bound, reinterpret_cast<sockaddr*>(&name), sizeof name), 0);
  for (const auto& [path, reason] : {std::pair{missing, "No such file or directory"},
                                     std::pair{stale, "Connection refused"}}) {
    const std::string hint = "tervainctl: is the agent running? start it with: TervainVMAgent "
                             "--unix " + path + "  (in a source tree: scripts/run --unix " +
                             path + ")\n";
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"--connect", "unix:" + path, "ping"},
             {"--connect", "unix:" + path, "exec", "true"},
             {"--connect", "unix:" + path, "cp", "guest:/etc/hostname", local.file("h")}}) {
      const CtlResult r = run(args);
      EXPECT_EQ(r.status, 255) << args[2];
      EXPECT_EQ(r.err, "tervainctl: cannot connect to unix:" + path + ": " + reason + "\n" + hint);
    }
  }
  ::close(bound);
}

TEST_F(TervainctlTest, NamedGuestsComeFromTheGuestsFile) {
  ASSERT_EQ(::mkdir(local.file("tervain").c_str(), 0700), 0);
  writeFile(local.file("tervain/guests"),
            "# NAME ADDRESS\n\n  myguest   unix:" + agent.socketPath() + "\nother vsock:3\n");
  const CtlRun::Options options{.env = {{"XDG_CONFIG_HOME", local.path()}}, .withAddress = false};
  EXPECT_EQ(run({"-c", "myguest", "ping"}, options).status, 0);
  CtlRun::Options byEnv = options;
  byEnv.env["TERVAIN_AGENT_ADDR"] = "myguest";
  EXPECT_EQ(run({"exec", "true"}, byEnv).status, 0);
  const CtlResult unknown = run({"--connect", "nope", "ping"}, options);
  EXPECT_EQ(unknown.status, 2);
  EXPECT_TRUE(unknown.err.starts_with("tervainctl: unknown guest 'nope': it is not in " +
                                      local.file("tervain/guests")))
      << unknown.err;
}

// Subcommands that print data print the agent's reply as one JSON object with --json.
TEST_F(TervainctlTest, JsonOutput) {
  TempDir spool;
  writeFile(spool.file("1.jsonl"), "{\"e\":1}\n");
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {"ping", "--json"}, {"events", "--dir", spool.path(), "--json"}}) {
    const CtlResult r = run(args);
    EXPECT_EQ(r.status, 0) << args[0];
    const Json reply = Json::parse(r.out, nullptr, false);
    ASSERT_TRUE(reply.is_object()) << r.out;
    EXPECT_EQ(reply["ok"], true) << r.out;
    EXPECT_TRUE(args[0] == "ping" ? reply["version"] == 2 : reply["events"] == "eyJlIjoxfQo=");
  }
}

// ---- exec ----------------------------------------------------------------------------------

TEST_F(TervainctlTest, ExecExitStatusIsTheCommands) {
  EXPECT_EQ(run({"exec", "true"}).status, 0);
  const CtlResult seven = run({"exec", "--", "echo out; echo err >&2; exit 7"});
  EXPECT_TRUE(seven.exited);
  EXPECT_EQ(seven.status, 7);
  EXPECT_EQ(seven.out, "out\n");
  EXPECT_EQ(seven.err, "err\n");
  // -t without a local terminal: one of 80x24, whose lines end the terminal's way.
  const CtlResult sized = run({"exec", "-t", "stty size; exit 5"});
  EXPECT_EQ(sized.status, 5);
  EXPECT_EQ(sized.out, "24 80\r\n");
  const CtlResult killed = run({"exec", "kill -TERM $$"});
  EXPECT_TRUE(killed.exited);
  EXPECT_EQ(killed.status, 143);
  // The options; a time limit that ends the command exits 124, as timeout(1) does.
  const CtlResult limited =
      run({"exec", "--env", "X=a b", "--cwd", local.path(), "--timeout", "1", "--env=Y=c",
           "echo \"$X|$Y\"; pwd -P; sleep 30"});
  EXPECT_TRUE(limited.exited);
  EXPECT_EQ(limited.status, 124);
  EXPECT_EQ(limited.out, "a b|c\n" + std::filesystem::canonical(local.path()).string() + "\n");
  EXPECT_EQ(limited.err, "tervainctl: the command timed out after 1 s\n");
}

TEST_F(TervainctlTest, ExecJoinsItsWordsLikeSsh) {
  // Options after the command's first word belong to the command.
  const CtlResult r = run({"exec", "printf", "%s-", "a", "-la", "--help"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "a--la---help-");
  EXPECT_EQ(run({"exec", "--", "test", "-n", "x"}).status, 0);
}

TEST_F(TervainctlTest, ExecStreamsStdinThroughCat) {
  const std::string input = randomBytes(10 * 1024 * 1024, 7);
  writeFile(local.file("input"), input);
  const CtlResult r = run({"exec", "cat"}, {.stdinPath = local.file("input")});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out.size(), input.size());
  EXPECT_EQ(checksum(r.out), checksum(input));
}

TEST_F(TervainctlTest, ExecForwardsInterruptAndTerminateToTheCommand) {
  for (const auto& [signal, code] : {std::pair{SIGINT, 130}, std::pair{SIGTERM, 143}}) {
    CtlRun sleeper = start({"exec", "echo ready; exec sleep 30"});
    ASSERT_TRUE(sleeper.waitForOutput("ready\n"));
    ASSERT_EQ(::kill(sleeper.pid(), signal), 0);
    const CtlResult r = sleeper.finish(20s);
    EXPECT_FALSE(r.timedOut);
    // tervainctl itself survives the signal and exits with the command's status.
    EXPECT_TRUE(r.exited) << signal;
    EXPECT_EQ(r.status, code) << signal;
  }
}

// tervainctl shell on a terminal the test holds: the guest shell sees its size and a change of it
// (SIGWINCH from the kernel to tervainctl, a resize to the guest), tervainctl exits with the
// shell's status and leaves the terminal's modes as it found them.
TEST_F(TervainctlTest, ShellFollowsTheLocalTerminalsSizeAndExitsWithTheShellsStatus) {
  UniqueFd master(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
  ASSERT_TRUE(master);
  char name[128] = {};
  ASSERT_EQ(::grantpt(master.get()), 0);
  ASSERT_EQ(::unlockpt(master.get()), 0);
  ASSERT_EQ(::ptsname_r(master.get(), name, sizeof name), 0);
  auto setSize = [&](unsigned short rows, unsigned short cols) {
    winsize size{.ws_row = rows, .ws_col = cols, .ws_xpixel = 0, .ws_ypixel = 0};
    return ::ioctl(master.get(), TIOCSWINSZ, &size) == 0;
  };
  ASSERT_TRUE(setSize(33, 101));
  termios before{};
  ASSERT_EQ(::tcgetattr(master.get(), &before), 0);
  CtlRun shell = start({"shell", "--env", "SHELL=/bin/sh"}, {.terminal = name});
  std::string screen;
  // Reads the terminal until what tervainctl wrote holds text (from `from` on).
  auto readUntil = [&](std::string_view text, std::size_t from) {
    const auto deadline = std::chrono::steady_clock::now() + 2s;
    while (screen.size() < from || screen.find(text, from) == std::string::npos) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      pollfd ready{master.get(), POLLIN, 0};
      if (left.count() <= 0 || ::poll(&ready, 1, static_cast<int>(left.count())) <= 0) return false;
      char chunk[4096];
      const ssize_t n = ::read(master.get(), chunk, sizeof chunk);
      if (n <= 0) return false;
      screen.append(chunk, static_cast<std::size_t>(n));
    }
    return true;
  };
  // Types `stty size` until the terminal shows the size line (a marker behind it, echoed as
  // typed, e''nd, tells an answer from the echo), a bounded number of times: what is typed before
  // the guest shell is ready may be lost, and a line may overtake a resize.
  auto sizeShown = [&](std::string_view size) {
    const std::string keys = "stty size; echo e''nd\n";
    const std::string line = "\r\n" + std::string(size) + "\r\nend\r\n";
    for (int tries = 0; tries < 15; ++tries) {
      const std::size_t from = screen.size();
      if (::write(master.get(), keys.data(), keys.size()) != static_cast<ssize_t>(keys.size())) {
        return false;
      }
      if (readUntil(line, from)) return true;
    }
    return false;
  };
  EXPECT_TRUE(sizeShown("33 101")) << screen;
  ASSERT_TRUE(setSize(40, 120));
  EXPECT_TRUE(sizeShown("40 120")) << screen;
  ASSERT_EQ(::write(master.get(), "exit 3\n", 7), 7);
  const CtlResult r = shell.finish(20s);
  EXPECT_TRUE(r.exited);
  EXPECT_EQ(r.status, 3);
  termios after{};
  ASSERT_EQ(::tcgetattr(master.get(), &after), 0);
  EXPECT_EQ(after.c_lflag, before.c_lflag) << "raw mode was left on";
}

// An agent that cannot start the command answers with an "err" frame, and one that predates an
// option answers ping without it; each played here by a socket that answers the first line.
TEST_F(TervainctlTest, ExecPrintsTheAgentsErrAndExits255) {
  const struct {
    std::vector<std::string> args;
    std::string answer;
    std::string err;
  } cases[] = {
      {{"exec", "true"}, R"({"t":"err","m":"no shell here"})", "tervainctl: no shell here\n"},
      {{"exec", "--cwd", "/", "--env", "A=1", "touch", local.file("ran")},
       R"({"ok":true,"version":2,"features":["exec","exec.env"]})",
       "tervainctl: the agent does not know exec --cwd (it is too old); nothing was run\n"},
      {{"shell"}, R"({"ok":true,"version":2,"features":["exec","exec.env"]})",
       "tervainctl: the agent does not know exec -t (it is too old); nothing was run\n"},
  };
  for (const auto& c : cases) {
    const CtlResult r = scripted(c.args, {c.answer}).first;
    EXPECT_EQ(r.status, 255);
    EXPECT_EQ(r.err, c.err);
  }
}

// The request each input (and window and clipboard) subcommand sends, read by a socket that
// answers it with ok.
TEST_F(TervainctlTest, InputSubcommandsSendTheirRequests) {
  const struct {
    std::vector<std::string> args;
    const char* request;
    std::string input = "";  // standard input
  } cases[] = {
      {{"clipboard", "set"}, R"({"op":"clipboard_set","text":"two\nlines \u00e9\n"})",
       "two\nlines \u00e9\n"},
      {{"clipboard", "set", ""}, R"({"op":"clipboard_set","text":""})", "not read"},
      {{"clipboard", "get"}, R"({"op":"clipboard_get"})"},
      {{"windows", "--pid", "42"}, R"({"op":"windows","pid":42})"},
      {{"key", "down", "shift+a"}, R"({"key":"shift+a","op":"key_down"})"},
      {{"key", "up", "shift+a"}, R"({"key":"shift+a","op":"key_up"})"},
      {{"key", "down"}, R"({"chord":"down","op":"key"})"},  // the down arrow, as before
      {{"mouse", "down", "1", "2", "--button", "right", "--modifiers", "cmd,shift"},
       R"({"button":"right","modifiers":["cmd","shift"],"op":"mouse_down","x":1,"y":2})"},
      {{"mouse", "up", "3", "4"}, R"({"button":"left","op":"mouse_up","x":3,"y":4})"},
      {{"click", "1", "2", "--modifiers", "shift"},
       R"({"button":"left","count":1,"modifiers":["shift"],"op":"click","x":1,"y":2})"},
      {{"drag", "5", "6", "--modifiers", "alt"},
       R"({"modifiers":["alt"],"op":"drag","toX":5,"toY":6})"},
      {{"scroll", "--dy", "-2", "--modifiers", "ctrl"},
       R"({"dy":-2,"modifiers":["ctrl"],"op":"scroll"})"},
  };
  for (const auto& c : cases) {
    const auto [r, requests] = scripted(c.args, {R"({"ok":true})"}, c.input);
    EXPECT_EQ(r.status, 0) << c.args[0] << ": " << r.err;
    EXPECT_EQ(requests.empty() ? Json() : Json::parse(requests[0]), Json::parse(c.request))
        << c.args[0] << " " << c.args[1];
  }
}

// find, wait and --find against a socket that answers each request in turn from a script and
// records them: --find acts on the ref its search returned, in the same connection.
TEST_F(TervainctlTest, FindWaitAndActingOnWhatASearchFinds) {
  const std::string button = R"({"ref":"e3","role":"AXButton","title":"Page 2","frame":{"x":1,"y":2,"w":3,"h":4}})";
  const std::string two = R"({"ok":true,"visited":40,"matches":[)" + button + "," + button + "]}";
  const struct {
    std::vector<std::string> args;
    std::vector<std::string> replies;
    std::vector<std::string> requests;
    int status;
    std::string out, err;
  } cases[] = {
      {{"find", "role=AXButton,title=Page 2\\, now", "--exact", "--limit", "5"},
       {R"({"ok":true,"visited":40,"matches":[)" + button + "]}"},
       {R"({"op":"find","role":"AXButton","title":"Page 2, now","match":"exact","limit":5})"},
       0, "e3 AXButton \"Page 2\" [1,2 3x4]\n", ""},
      {{"press", "--find", "title=Page 2", "AXShowMenu"},
       {R"({"ok":true,"visited":40,"matches":[)" + button + "]}", R"({"ok":true})"},
       {R"({"op":"find","title":"Page 2","limit":200})",
        R"({"op":"ax_action","ref":"e3","action":"AXShowMenu"})"},
       0, "", ""},
      {{"set", "--find", "role=AXButton", "x"}, {two},
       {R"({"op":"find","role":"AXButton","limit":200})"}, 1, "",
       "tervainctl: 2 elements match \"role=AXButton\" \u2014 narrow the query (match=exact, "
       "role=...)\n"},
      {{"wait", "--title", "Saved", "--state", "value", "--equals", "", "--timeout", "0.5"},
       {R"({"ok":false,"error":"wait_for gave up after 0.5 s: no element"})"},
       {R"({"op":"wait_for","title":"Saved","state":"value","equals":"","timeout":0.5})"}, 1, "",
       "tervainctl: wait_for gave up after 0.5 s: no element\n"},
  };
  for (const auto& c : cases) {
    const auto [r, requests] = scripted(c.args, c.replies);
    EXPECT_EQ(r.status, c.status) << c.args[0] << ": " << r.err;
    EXPECT_EQ(r.out, c.out) << c.args[0];
    EXPECT_EQ(r.err, c.err) << c.args[0];
    ASSERT_EQ(requests.size(), c.requests.size()) << c.args[0];
    for (std::size_t i = 0; i < requests.size(); ++i) {
      EXPECT_EQ(Json::parse(requests[i], nullptr, false), Json::parse(c.requests[i])) << c.args[0];
    }
  }
}

// ---- cp ------------------------------------------------------------------------------------

TEST_F(TervainctlTest, CopyBothWaysKeepsEveryByte) {
  const TempDir& guest = agent.dir();
  struct Case {
    std::string name;
    std::string bytes;
  };
  const Case cases[] = {
      {"empty", ""},
      {"with space and 'quote'.bin", randomBytes(100000, 1)},
      {"large", randomBytes(50 * 1024 * 1024, 2)},
  };
  for (const Case& c : cases) {
    writeFile(local.file(c.name), c.bytes);
    const std::string guestPath = guest.file("in guest " + c.name);
    const CtlResult up = run({"cp", local.file(c.name), "guest:" + guestPath});
    EXPECT_EQ(up.status, 0) << c.name << ": " << up.err;
    EXPECT_EQ(up.err, "") << c.name;  // no progress line: standard error is not a terminal
    const std::string there = readFile(guestPath);
    EXPECT_EQ(there.size(), c.bytes.size()) << c.name;
    EXPECT_EQ(checksum(there), checksum(c.bytes)) << c.name;

    const std::string back = local.file("back " + c.name);
    const CtlResult down = run({"cp", "guest:" + guestPath, back});
    EXPECT_EQ(down.status, 0) << c.name << ": " << down.err;
    const std::string returned = readFile(back);
    EXPECT_EQ(returned.size(), c.bytes.size()) << c.name;
    EXPECT_EQ(checksum(returned), checksum(c.bytes)) << c.name;
  }
}

TEST_F(TervainctlTest, CopyFailuresExitOneAndLeaveNoLocalFile) {
  const std::string target = local.file("never");
  const CtlResult missing = run({"cp", "guest:" + agent.dir().file("absent"), target});
  EXPECT_EQ(missing.status, 1);
  EXPECT_TRUE(missing.err.starts_with("tervainctl: copying guest:" + agent.dir().file("absent") +
                                      " failed (guest exit status 1): "))
      << missing.err;
  EXPECT_FALSE(std::filesystem::exists(target));

  writeFile(local.file("x"), "x");
  const CtlResult unwritable = run({"cp", local.file("x"), "guest:/nonexistent-dir/x"});
  EXPECT_EQ(unwritable.status, 1);
  EXPECT_TRUE(unwritable.err.starts_with("tervainctl: copying to guest:/nonexistent-dir/x failed"))
      << unwritable.err;
  const CtlResult noLocal = run({"cp", local.file("absent"), "guest:/tmp/x"});
  EXPECT_EQ(noLocal.status, 1);
  EXPECT_EQ(noLocal.err, "tervainctl: cannot read " + local.file("absent") +
                             ": No such file or directory\n");
}

// A tree with modes, a symlink and an old modification time goes to the guest and back with
// cp -r -p and arrives as it was.
TEST_F(TervainctlTest, CopyFoldersKeepingModesTimesAndSymlinks) {
  const std::string tree = local.file("tree");
  ASSERT_EQ(::mkdir(tree.c_str(), 0755), 0);
  ASSERT_EQ(::mkdir((tree + "/sub").c_str(), 0755), 0);
  writeFile(tree + "/run.sh", "#!/bin/sh\necho hi\n");
  writeFile(tree + "/secret", "s");
  writeFile(tree + "/sub/data.bin", randomBytes(300000, 3));
  ASSERT_EQ(::symlink("sub/data.bin", (tree + "/link").c_str()), 0);
  const std::pair<const char*, mode_t> modes[] = {
      {"run.sh", 0755}, {"secret", 0600}, {"sub", 0750}, {"sub/data.bin", 0640}};
  for (const auto& [name, mode] : modes) ASSERT_EQ(::chmod((tree + "/" + name).c_str(), mode), 0);
  const timespec old[2] = {{978307200, 0}, {978307200, 0}};  // 2001-01-01
  ASSERT_EQ(::utimensat(AT_FDCWD, (tree + "/run.sh").c_str(), old, 0), 0);

  auto expectSameTree = [&](const std::string& copy, const std::string& label) {
    for (const auto& [name, mode] : modes) {
      struct stat st {};
      ASSERT_EQ(::lstat((copy + "/" + name).c_str(), &st), 0) << label << " " << name;
      EXPECT_EQ(st.st_mode & 07777, mode) << label << " " << name;
    }
    EXPECT_EQ(readFile(copy + "/sub/data.bin"), readFile(tree + "/sub/data.bin")) << label;
    char target[64] = {};
    ASSERT_GT(::readlink((copy + "/link").c_str(), target, sizeof target - 1), 0) << label;
    EXPECT_STREQ(target, "sub/data.bin") << label;
    struct stat st {};
    ASSERT_EQ(::stat((copy + "/run.sh").c_str(), &st), 0);
    EXPECT_EQ(st.st_mtime, 978307200) << label;
  };
  const std::string inGuest = agent.dir().file("copy");
  const CtlResult up = run({"cp", "-r", "-p", tree, "guest:" + inGuest});
  ASSERT_EQ(up.status, 0) << up.err;
  expectSameTree(inGuest, "to guest");
  const CtlResult down = run({"cp", "-rp", "guest:" + inGuest, local.file("back")});
  ASSERT_EQ(down.status, 0) << down.err;
  expectSameTree(local.file("back"), "from guest");
  // Into an existing folder the tree keeps its own name.
  ASSERT_EQ(run({"cp", "-r", "-p", "guest:" + inGuest, local.file("back")}).status, 0);
  expectSameTree(local.file("back/copy"), "into a folder");

  // Without -r a folder is refused; without -p the copy gets the time of the copy.
  const CtlResult noR = run({"cp", tree, "guest:" + agent.dir().file("x")});
  EXPECT_EQ(noR.status, 1);
  EXPECT_EQ(noR.err, "tervainctl: " + tree + " is a folder: cp -r copies folders\n");
  ASSERT_EQ(run({"cp", "-r", tree, "guest:" + agent.dir().file("plain")}).status, 0);
  struct stat st {};
  ASSERT_EQ(::stat(agent.dir().file("plain/run.sh").c_str(), &st), 0);
  EXPECT_NE(st.st_mtime, 978307200);
}

// One source or several go into a folder under their own names, either way.
TEST_F(TervainctlTest, CopyIntoAFolderKeepsTheNames) {
  writeFile(local.file("note's"), "N");
  writeFile(local.file("b"), "B");
  const std::string folder = agent.dir().file("in");
  ASSERT_EQ(::mkdir(folder.c_str(), 0700), 0);
  ASSERT_EQ(run({"cp", local.file("note's"), "guest:" + folder}).status, 0);
  EXPECT_EQ(readFile(folder + "/note's"), "N");
  const std::string one = local.file("one");
  ASSERT_EQ(::mkdir(one.c_str(), 0700), 0);
  ASSERT_EQ(run({"cp", "guest:" + folder + "/note's", one}).status, 0);
  EXPECT_EQ(readFile(one + "/note's"), "N");

  const CtlResult up = run({"cp", local.file("note's"), local.file("b"), "guest:" + folder});
  ASSERT_EQ(up.status, 0) << up.err;
  EXPECT_EQ(readFile(folder + "/b"), "B");
  const std::string back = local.file("back");
  ASSERT_EQ(::mkdir(back.c_str(), 0700), 0);
  ASSERT_EQ(run({"cp", "guest:" + folder + "/note's", "guest:" + folder + "/b", back}).status, 0);
  EXPECT_EQ(readFile(back + "/note's") + readFile(back + "/b"), "NB");
  const CtlResult notFolder = run({"cp", local.file("note's"), local.file("b"), "guest:" + folder + "/b"});
  EXPECT_EQ(notFolder.status, 1);
  EXPECT_EQ(notFolder.err, "tervainctl: copying several sources needs a folder as target: guest:" +
                               folder + "/b is not one\n");
}

// ---- events --------------------------------------------------------------------------------

TEST_F(TervainctlTest, EventsDrainAndTruncate) {
  TempDir spool;
  writeFile(spool.file("1.jsonl"), "{\"e\":1}\n");
  writeFile(spool.file("2.jsonl"), "{\"e\":2}\n");
  const CtlResult peek = run({"events", "--dir", spool.path()});
  EXPECT_EQ(peek.status, 0);
  EXPECT_EQ(peek.out, "{\"e\":1}\n{\"e\":2}\n");
  EXPECT_TRUE(std::filesystem::exists(spool.file("1.jsonl")));

  const CtlResult budget = run({"events", "--dir", spool.path(), "--max-bytes", "8"});
  EXPECT_EQ(budget.status, 0);
  EXPECT_EQ(budget.out, "{\"e\":1}\n");
  EXPECT_EQ(budget.err,
            "tervainctl: more events wait in the spool (over the byte budget): run events again\n");

  const CtlResult take = run({"events", "--dir", spool.path(), "--truncate"});
  EXPECT_EQ(take.out, "{\"e\":1}\n{\"e\":2}\n");
  EXPECT_FALSE(std::filesystem::exists(spool.file("1.jsonl")));
  EXPECT_FALSE(std::filesystem::exists(spool.file("2.jsonl")));
  EXPECT_EQ(run({"events", "--dir", spool.path()}).out, "");
}

// Whatever stops the events from reaching standard output, or the request from making sense,
// leaves the spool exactly as it was and says so with a non-zero status.
TEST_F(TervainctlTest, EventsKeepTheSpoolWhenTheyCannotBeDelivered) {
  TempDir spool;
  const std::string events = randomBytes(200 * 1024, 3) + "\n";  // more than a pipe holds
  writeFile(spool.file("1.jsonl"), events);
  writeFile(spool.file("2.jsonl"), "{\"e\":2}\n");
  const struct {
    std::vector<std::string> args;
    bool readerGone;
    int status;
    std::string err;
  } cases[] = {
      {{"--dir", spool.path(), "--truncate"}, true, 1,
       "tervainctl: cannot write the events to standard output (Broken pipe); nothing was "
       "deleted from the spool\n"},
      {{"--dir", spool.path(), "--truncate", "--json"}, true, 1,
       "tervainctl: cannot write the events to standard output (Broken pipe); nothing was "
       "deleted from the spool\n"},
      {{"--dir", spool.path(), "--truncate", "--max-bytes", "-1"}, false, 2,
       "tervainctl: --max-bytes wants a byte count of 0 or more, not -1\n"
       "Run tervainctl --help for more information.\n"},
      {{"--dir", spool.file("nowhere"), "--truncate"}, false, 1,
       "tervainctl: no spool folder " + spool.file("nowhere") +
           " on the guest (or it cannot be read)\n"},
  };
  for (const auto& c : cases) {
    std::vector<std::string> args = {"events"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const CtlResult r = run(args, {.stdoutReaderGone = c.readerGone});
    SCOPED_TRACE(c.args.front() + " " + c.args.back());
    EXPECT_TRUE(r.exited);  // not ended by SIGPIPE
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.err, c.err);
    EXPECT_EQ(readFile(spool.file("1.jsonl")), events);
    EXPECT_EQ(readFile(spool.file("2.jsonl")), "{\"e\":2}\n");
  }
}

// ---- the README's Quick start, as written ---------------------------------------------------

// The code blocks of the README's "Quick start" section, each as its lines.
std::vector<std::vector<std::string>> quickStartBlocks() {
  std::istringstream readme(readFile(std::string(TERVAIN_SOURCE_DIR) + "/README.md"));
  std::vector<std::vector<std::string>> blocks;
  bool inSection = false;
  bool inBlock = false;
  for (std::string line; std::getline(readme, line);) {
    if (line.starts_with("## ")) inSection = line == "## Quick start";
    if (!inSection) continue;
    if (line.starts_with("```")) {
      inBlock = !inBlock;
      if (inBlock) blocks.emplace_back();
    } else if (inBlock) {
      blocks.back().push_back(line);
    }
  }
  return blocks;
}

std::string replaceAll(std::string text, std::string_view from, std::string_view to) {
  for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

// The agent is started as the first block says, and each command of the second block runs as
// written, with the built binaries standing in for the scripts and a private folder for /tmp.
// A command must succeed, and the "# " lines after it are its whole standard output.
TEST(QuickStartTest, TheReadmesCommandsWorkAsWritten) {
  const auto blocks = quickStartBlocks();
  ASSERT_GE(blocks.size(), 2u);
  ASSERT_EQ(blocks[0].size(), 1u);
  const std::string start = blocks[0][0].substr(0, blocks[0][0].find("  #"));
  ASSERT_EQ(start, "scripts/run --unix /tmp/tervain.sock ");

  TempDir tmp;
  const std::string privateTmp = tmp.path() + "/";
  AgentProcess::Options options;
  options.unixSocket = false;
  options.args = {"--unix", privateTmp + "tervain.sock"};
  options.unsetEnv = {"TERVAIN_DULK_DISABLE"};
  AgentProcess agent(options);
  ASSERT_TRUE(agent.waitForLog("exec: "));  // logged once the socket listens

  struct Step {
    std::string command;
    std::string expected;
    bool checked = false;
  };
  std::vector<Step> steps;
  for (const std::string& line : blocks[1]) {
    if (line.starts_with("# ") && !steps.empty()) {
      steps.back().expected += line.substr(2) + "\n";
      steps.back().checked = true;
    } else if (!line.empty()) {
      steps.push_back({replaceAll(line, "/tmp/", privateTmp)});
    }
  }
  ASSERT_GE(steps.size(), 5u);
  std::string prelude = "scripts/tervainctl() { '" + std::string(TERVAIN_CTL_PATH) + "' \"$@\"; }\n";
  for (const Step& step : steps) {
    if (step.command.starts_with("export ")) {
      prelude += step.command + "\n";
      continue;
    }
    const std::string script = tmp.file("step.sh");
    writeFile(script, prelude + step.command + "\n");
    const std::string err = tmp.file("step.err");
    const std::string shell = "cd '" + std::string(TERVAIN_SOURCE_DIR) + "' && timeout 60 bash '" +
                              script + "' 2>'" + err + "'";
    FILE* pipe = ::popen(shell.c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    std::string out;
    char buffer[4096];
    for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
    const int status = ::pclose(pipe);
    EXPECT_EQ(status, 0) << step.command << ": " << readFile(err);
    if (step.checked) {
      EXPECT_EQ(out, step.expected) << step.command;
    }
  }
  EXPECT_EQ(readFile(privateTmp + "readme.back"),
            readFile(std::string(TERVAIN_SOURCE_DIR) + "/README.md"));
}

}  // namespace
}  // namespace tervain::testing
