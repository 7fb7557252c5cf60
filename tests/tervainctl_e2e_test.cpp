// The real tervainctl binary, run as a child process against the real agent on a Unix socket.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <map>
#include <random>
#include <sstream>

#include <gtest/gtest.h>

#include "agent_process.h"
#include "core/exec_session.h"
#include "core/json.h"

extern char** environ;

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

bool exists(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0;
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
  };

  CtlRun(const TempDir& dir, const std::string& socketPath, std::vector<std::string> args,
         const Options& options) {
    static int counter = 0;
    const std::string stem = dir.file("ctl" + std::to_string(++counter));
    outPath = stem + ".out";
    errPath = stem + ".err";
    std::vector<std::string> argv = {TERVAIN_CTL_PATH};
    argv.insert(argv.end(), args.begin(), args.end());
    std::map<std::string, std::string> env;
    for (char** e = environ; *e != nullptr; ++e) {
      const std::string entry = *e;
      const std::size_t eq = entry.find('=');
      if (eq != std::string::npos) env[entry.substr(0, eq)] = entry.substr(eq + 1);
    }
    env.erase("TERVAIN_AGENT_ADDR");
    if (options.withAddress) env["TERVAIN_AGENT_ADDR"] = "unix:" + socketPath;
    for (const auto& [key, value] : options.env) env[key] = value;
    std::vector<std::string> envStrings;
    for (const auto& [key, value] : env) envStrings.push_back(key + "=" + value);
    std::vector<char*> argvPtrs;
    for (std::string& a : argv) argvPtrs.push_back(a.data());
    argvPtrs.push_back(nullptr);
    std::vector<char*> envPtrs;
    for (std::string& e : envStrings) envPtrs.push_back(e.data());
    envPtrs.push_back(nullptr);

    // Only async-signal-safe calls between fork and exec: the test process has threads.
    child = ::fork();
    if (child == 0) {
      const int in = ::open(options.stdinPath.c_str(), O_RDONLY);
      const int out = ::open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      const int err = ::open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      if (in < 0 || out < 0 || err < 0) ::_exit(126);
      ::dup2(in, 0);
      ::dup2(out, 1);
      ::dup2(err, 2);
      ::execve(argvPtrs[0], argvPtrs.data(), envPtrs.data());
      ::_exit(127);
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
    const auto deadline = std::chrono::steady_clock::now() + limit;
    int status = 0;
    for (;;) {
      const pid_t done = ::waitpid(child, &status, WNOHANG);
      if (done == child) break;
      if (std::chrono::steady_clock::now() >= deadline) {
        ::kill(child, SIGKILL);
        ::waitpid(child, &status, 0);
        result.timedOut = true;
        break;
      }
      std::this_thread::sleep_for(5ms);
    }
    child = -1;
    result.exited = WIFEXITED(status);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
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

  AgentProcess agent;
  TempDir local;
};

// ---- ping, call and exit statuses ------------------------------------------------------------

TEST_F(TervainctlTest, PingPrintsASummary) {
  const CtlResult r = run({"ping"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out,
            "agent protocol v2\n"
            "displays: none\n"
            "grants: accessibility no, screen recording no, input synthesis no\n");
  const CtlResult json = run({"ping", "--json"});
  EXPECT_EQ(json.status, 0);
  EXPECT_EQ(Json::parse(json.out)["version"], 2);
}

TEST_F(TervainctlTest, ARefusalExitsOneWithTheAgentsError) {
  const CtlResult call = run({"call", R"({"op":"nope"})"});
  EXPECT_EQ(call.status, 1);
  EXPECT_EQ(Json::parse(call.out)["error"], "unknown op 'nope' (agent protocol v2)");
  EXPECT_EQ(call.err, "tervainctl: unknown op 'nope' (agent protocol v2)\n");

  // The headless agent holds no grant for input synthesis.
  const CtlResult type = run({"type", "hello"});
  EXPECT_EQ(type.status, 1);
  EXPECT_TRUE(type.out.empty());
  EXPECT_TRUE(type.err.starts_with("tervainctl: ")) << type.err;
  EXPECT_GT(type.err.size(), std::string("tervainctl: \n").size());

  // --at looks the element up first; without the accessibility grant that lookup is refused.
  const CtlResult at = run({"press", "--at", "10", "20", "AXShowMenu"});
  EXPECT_EQ(at.status, 1);
  EXPECT_TRUE(at.err.starts_with("tervainctl: ")) << at.err;
}

TEST_F(TervainctlTest, UsageErrorsExitTwo) {
  for (const std::vector<std::string>& args :
       std::vector<std::vector<std::string>>{{"click", "1"},
                                             {"click", "1", "2", "--button", "up"},
                                             {"move", "1.5", "2"},
                                             {"cp", "a", "b"},
                                             {"cp", "guest:a", "guest:b"},
                                             {"scroll"},
                                             {"press"},
                                             {"set", "e1"},
                                             {"press", "e1", "AXPress", "--at", "1", "2"},
                                             {"exec"},
                                             {"call", "not json"},
                                             {"bogus"},
                                             {}}) {
    const CtlResult r = run(args);
    EXPECT_EQ(r.status, 2) << (args.empty() ? "" : args[0]) << ": " << r.err;
    EXPECT_FALSE(r.err.empty());
  }
  const CtlResult bad = run({"--connect", "tcp:1", "ping"});
  EXPECT_EQ(bad.status, 2);
  EXPECT_TRUE(bad.err.starts_with(
      "tervainctl: unknown address 'tcp:1': use vsock:CID:PORT, unix:PATH or fd:N\n"));
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

TEST_F(TervainctlTest, NothingListeningExits255) {
  const std::string nowhere = "unix:" + local.file("nobody.sock");
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {"--connect", nowhere, "ping"},
           {"--connect", nowhere, "exec", "true"},
           {"--connect", nowhere, "cp", "guest:/etc/hostname", local.file("h")}}) {
    const CtlResult r = run(args);
    EXPECT_EQ(r.status, 255) << args[2];
    EXPECT_EQ(r.err, "tervainctl: cannot connect to " + nowhere + ": No such file or directory\n");
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
  const CtlResult killed = run({"exec", "kill -TERM $$"});
  EXPECT_TRUE(killed.exited);
  EXPECT_EQ(killed.status, 143);
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

TEST_F(TervainctlTest, ExecPrintsTheAgentsErrAndExits255) {
  if (::access(std::string(ExecSession::defaultDulkPath).c_str(), X_OK) == 0) {
    GTEST_SKIP() << "an agent shell is installed here";
  }
  AgentProcess::Options options;
  options.unsetEnv.push_back("TERVAIN_DULK_DISABLE");
  AgentProcess strict(options);
  const CtlResult r = run({"--connect", "unix:" + strict.socketPath(), "exec", "true"});
  EXPECT_EQ(r.status, 255);
  EXPECT_EQ(r.err, "tervainctl: " + ExecSession::dulkMissingMessage() + "\n");
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

TEST_F(TervainctlTest, CopyIntoADirectoryKeepsTheFileName) {
  writeFile(local.file("note's.txt"), "hello\n");
  ASSERT_EQ(run({"cp", local.file("note's.txt"), "guest:" + agent.dir().path()}).status, 0);
  EXPECT_EQ(readFile(agent.dir().file("note's.txt")), "hello\n");
  const std::string into = local.file("into");
  ASSERT_EQ(::mkdir(into.c_str(), 0700), 0);
  ASSERT_EQ(run({"cp", "guest:" + agent.dir().file("note's.txt"), into}).status, 0);
  EXPECT_EQ(readFile(into + "/note's.txt"), "hello\n");
}

TEST_F(TervainctlTest, CopyFailuresExitOneAndLeaveNoLocalFile) {
  const std::string target = local.file("never");
  const CtlResult missing = run({"cp", "guest:" + agent.dir().file("absent"), target});
  EXPECT_EQ(missing.status, 1);
  EXPECT_TRUE(missing.err.starts_with("tervainctl: copying guest:" + agent.dir().file("absent") +
                                      " failed (guest exit status 1): "))
      << missing.err;
  EXPECT_FALSE(exists(target));

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

// ---- events --------------------------------------------------------------------------------

TEST_F(TervainctlTest, EventsDrainAndTruncate) {
  TempDir spool;
  writeFile(spool.file("1.jsonl"), "{\"e\":1}\n");
  writeFile(spool.file("2.jsonl"), "{\"e\":2}\n");
  const CtlResult peek = run({"events", "--dir", spool.path()});
  EXPECT_EQ(peek.status, 0);
  EXPECT_EQ(peek.out, "{\"e\":1}\n{\"e\":2}\n");
  EXPECT_TRUE(exists(spool.file("1.jsonl")));

  const CtlResult budget = run({"events", "--dir", spool.path(), "--max-bytes", "8"});
  EXPECT_EQ(budget.status, 0);
  EXPECT_EQ(budget.out, "{\"e\":1}\n");
  EXPECT_EQ(budget.err,
            "tervainctl: more events wait in the spool (over the byte budget): run events again\n");

  const CtlResult take = run({"events", "--dir", spool.path(), "--truncate"});
  EXPECT_EQ(take.out, "{\"e\":1}\n{\"e\":2}\n");
  EXPECT_FALSE(exists(spool.file("1.jsonl")));
  EXPECT_FALSE(exists(spool.file("2.jsonl")));
  EXPECT_EQ(run({"events", "--dir", spool.path()}).out, "");
}

}  // namespace
}  // namespace tervain::testing
