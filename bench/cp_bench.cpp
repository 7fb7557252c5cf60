// tervainctl cp throughput from the guest, against the exec stream it rides on.
//
// cp_mb_per_s times `tervainctl cp guest:FILE LOCAL` for a 256 MiB file (the "guest" is a
// temporary file beside a freshly started agent): the frames are decoded and written to the
// local file by the real binary. cp_exec_mb_per_s is the ceiling in the same run: the client
// library reading `head -c 268435456 /dev/zero` through exec and decoding every frame, writing
// nothing. cp_vs_exec is the first over the second. MB are 10^6 bytes of raw data.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>

#include "agent_process.h"
#include "bench.h"
#include "client/tervain_client.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::uint64_t kFileBytes = 256ull << 20;

double mbPerSecond(std::uint64_t bytes, Clock::duration elapsed) {
  return static_cast<double>(bytes) / 1e6 / std::chrono::duration<double>(elapsed).count();
}

bool writeRandomFile(const std::string& path, std::uint64_t size) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (fd < 0) return false;
  std::mt19937_64 generator(35);
  std::string block(1 << 20, '\0');
  bool ok = true;
  for (std::uint64_t done = 0; ok && done < size; done += block.size()) {
    for (std::size_t i = 0; i < block.size(); i += 8) {
      const std::uint64_t word = generator();
      std::memcpy(block.data() + i, &word, 8);
    }
    ok = ::write(fd, block.data(), block.size()) == static_cast<ssize_t>(block.size());
  }
  return ::close(fd) == 0 && ok;
}

// Runs tervainctl with the arguments; its wall time, or nothing when it failed.
std::optional<Clock::duration> timeCtl(const std::vector<std::string>& args) {
  std::vector<std::string> argv = {TERVAIN_CTL_PATH};
  argv.insert(argv.end(), args.begin(), args.end());
  std::vector<char*> pointers;
  for (std::string& a : argv) pointers.push_back(a.data());
  pointers.push_back(nullptr);
  const auto start = Clock::now();
  pid_t pid = -1;
  if (::posix_spawn(&pid, pointers[0], nullptr, nullptr, pointers.data(), environ) != 0) {
    return std::nullopt;
  }
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  const auto elapsed = Clock::now() - start;
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return std::nullopt;
  return elapsed;
}

std::uint64_t fileSize(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? static_cast<std::uint64_t>(st.st_size) : 0;
}

}  // namespace

TERVAIN_BENCH_SECTION(cpSection, "cp") {
  using tervain::bench::report;
  ::signal(SIGPIPE, SIG_IGN);
  tervain::testing::AgentProcess::Options options;
  options.env.emplace("TERVAIN_DULK_DISABLE", "1");
  tervain::testing::AgentProcess agent(options);
  tervain::testing::TempDir local;
  const std::string guestFile = agent.dir().file("guest-256MiB.bin");
  const std::string localFile = local.file("copied.bin");
  if (!writeRandomFile(guestFile, kFileBytes)) {
    std::fprintf(stderr, "cp: could not write the guest file\n");
    return;
  }
  const tervain::client::Address address{.kind = tervain::client::Address::Kind::unixSocket,
                                         .path = agent.socketPath()};
  const std::string connect = "unix:" + agent.socketPath();

  // The machine is shared: cp and exec runs alternate so that both see the same spells of
  // load, and the best of each counts.
  double cpBest = 0;
  double execBest = 0;
  for (int attempt = 0; attempt < 3; ++attempt) {
    const auto cpTime = timeCtl({"--connect", connect, "cp", "guest:" + guestFile, localFile});
    if (cpTime && fileSize(localFile) == kFileBytes) {
      cpBest = std::max(cpBest, mbPerSecond(kFileBytes, *cpTime));
    } else {
      std::fprintf(stderr, "cp run failed\n");
    }
    ::unlink(localFile.c_str());

    std::uint64_t received = 0;
    const auto start = Clock::now();
    try {
      auto stream = tervain::client::ExecStream::start(
          address, "head -c " + std::to_string(kFileBytes) + " /dev/zero");
      stream.closeStdin();
      const auto end =
          stream.wait({.stdoutData = [&](std::string_view b) { received += b.size(); }});
      const auto elapsed = Clock::now() - start;
      if (end.code == 0 && received == kFileBytes) {
        execBest = std::max(execBest, mbPerSecond(kFileBytes, elapsed));
      } else {
        std::fprintf(stderr, "exec run incomplete: %llu bytes\n",
                     static_cast<unsigned long long>(received));
      }
    } catch (const tervain::client::ClientError& e) {
      std::fprintf(stderr, "exec run failed: %s\n", e.what());
    }
  }
  report("cp_mb_per_s", cpBest);
  report("cp_exec_mb_per_s", execBest);
  report("cp_vs_exec", execBest > 0 ? cpBest / execBest : 0);
}
