// exec throughput against a plain pipe, the agent's memory while it streams, and base64 speed.
//
// The pipe floor is `head -c 1 GiB /dev/zero | cat > /dev/null`; the exec figure runs the same
// pipeline through a freshly started agent over its Unix socket and a reader that parses every
// frame and decodes its base64, as a host would. MB are 10^6 bytes of raw (decoded) data.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "agent_process.h"
#include "bench.h"
#include "core/base64.h"
#include "vsock/tervain_vsock.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::uint64_t kTransferBytes = 1ull << 30;

double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }
double mbPerSecond(std::uint64_t bytes, double secs) { return static_cast<double>(bytes) / 1e6 / secs; }

// Runs `sh -c script` to completion; its wall time in seconds, or -1.
double timeShell(const std::string& script) {
  const char* argv[] = {"/bin/sh", "-c", script.c_str(), nullptr};
  pid_t pid = -1;
  const auto start = Clock::now();
  if (::posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ) != 0) {
    return -1;
  }
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  const double secs = seconds(Clock::now() - start);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? secs : -1;
}

// One frame, parsed in place from the bytes received so far, as a streaming host would: the
// members are scanned in whatever order they come, without first searching for the line feed.
// The agent's frames hold only strings and integers, and base64 needs no unescaping.
struct Frame {
  std::string_view tag;
  std::string_view data;
  long code = 0;
  bool valid = false;
  std::size_t length = 0;  // bytes taken, line feed included; 0 while the frame is incomplete
};

Frame parseFrame(std::string_view bytes) {
  Frame frame;
  std::size_t i = 0;
  bool ranOut = false;
  auto more = [&] {
    if (i < bytes.size()) return true;
    ranOut = true;
    return false;
  };
  auto skipSpace = [&] {
    while (more() && (bytes[i] == ' ' || bytes[i] == '\t' || bytes[i] == '\r')) ++i;
  };
  auto readString = [&](std::string_view& out) {
    if (!more() || bytes[i] != '"') return false;
    const std::size_t start = ++i;
    for (;;) {
      const void* quote = std::memchr(bytes.data() + i, '"', bytes.size() - i);
      if (quote == nullptr) {
        ranOut = true;
        return false;
      }
      i = static_cast<std::size_t>(static_cast<const char*>(quote) - bytes.data());
      std::size_t backslashes = 0;
      while (i - backslashes > start && bytes[i - backslashes - 1] == '\\') ++backslashes;
      if (backslashes % 2 == 0) break;
      ++i;
    }
    out = bytes.substr(start, i - start);
    ++i;
    return true;
  };
  auto parseMembers = [&] {
    skipSpace();
    if (!more() || bytes[i++] != '{') return false;
    for (;;) {
      skipSpace();
      std::string_view key;
      if (!readString(key)) return false;
      skipSpace();
      if (!more() || bytes[i++] != ':') return false;
      skipSpace();
      if (!more()) return false;
      if (bytes[i] == '"') {
        std::string_view value;
        if (!readString(value)) return false;
        if (key == "t") frame.tag = value;
        if (key == "d") frame.data = value;
      } else {
        long number = 0;
        bool negative = false;
        if (bytes[i] == '-') {
          negative = true;
          ++i;
        }
        const std::size_t digits = i;
        while (more() && bytes[i] >= '0' && bytes[i] <= '9') number = number * 10 + (bytes[i++] - '0');
        if (ranOut || i == digits) return false;
        if (key == "code") frame.code = negative ? -number : number;
      }
      skipSpace();
      if (!more()) return false;
      if (bytes[i] == ',') {
        ++i;
        continue;
      }
      if (bytes[i++] != '}') return false;
      skipSpace();
      return more() && bytes[i++] == '\n' && !frame.tag.empty();
    }
  };
  frame.valid = parseMembers();
  if (frame.valid) {
    frame.length = i;
  } else if (!ranOut || bytes.size() > (1u << 19)) {
    // Not a frame: skip its line, once the whole line is here.
    const void* nl = std::memchr(bytes.data(), '\n', bytes.size());
    if (nl != nullptr) frame.length = static_cast<std::size_t>(static_cast<const char*>(nl) - bytes.data()) + 1;
  }
  return frame;
}

struct ExecResult {
  double secs = -1;
  std::uint64_t decoded = 0;
  long code = -1;
  bool malformed = false;
};

// Runs one command through the agent and takes in every frame; stops at "x" or "err".
ExecResult execThroughAgent(const tervain::testing::AgentProcess& agent, const std::string& command) {
  ExecResult result;
  const int fd = tervain_unix_connect(agent.socketPath().c_str());
  if (fd < 0) return result;
  const std::string request = "{\"op\":\"exec\",\"command\":\"" + command + "\"}\n";
  const auto start = Clock::now();
  if (tervain_write(fd, request.data(), request.size()) != static_cast<long>(request.size())) {
    ::close(fd);
    return result;
  }
  std::vector<char> buffer(1 << 20);
  std::size_t held = 0;
  std::string decoded;
  bool done = false;
  while (!done) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 30000) <= 0) break;  // bounded: a stalled agent ends the run
    const ssize_t n = ::read(fd, buffer.data() + held, buffer.size() - held);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    held += static_cast<std::size_t>(n);
    std::size_t from = 0;
    while (!done) {
      const Frame frame = parseFrame(std::string_view(buffer.data() + from, held - from));
      if (frame.length == 0) break;  // incomplete: wait for more bytes
      from += frame.length;
      if (!frame.valid) {
        result.malformed = true;
        continue;
      }
      if (frame.tag == "o" || frame.tag == "e") {
        if (!tervain::base64::decodeInto(frame.data, decoded)) result.malformed = true;
        result.decoded += decoded.size();
      } else if (frame.tag == "x") {
        result.code = frame.code;
        done = true;
      } else {
        done = true;
      }
    }
    std::memmove(buffer.data(), buffer.data() + from, held - from);
    held -= from;
  }
  result.secs = seconds(Clock::now() - start);
  ::close(fd);
  return result;
}

// Resets the kernel's record of a process's peak RSS, so VmHWM covers only what follows.
bool resetPeakRss(int pid) {
  std::ofstream out("/proc/" + std::to_string(pid) + "/clear_refs");
  out << "5";
  out.flush();
  return out.good();
}

void base64Figures() {
  std::vector<char> raw(1 << 16);
  std::mt19937 random(1);
  for (char& c : raw) c = static_cast<char>(random());
  std::string text(tervain::base64::encodedSize(raw.size()), '\0');
  constexpr int kRounds = 4096;  // 256 MiB per measurement
  const std::uint64_t total = static_cast<std::uint64_t>(raw.size()) * kRounds;

  double bestEncode = 0;
  unsigned sink = 0;
  for (int attempt = 0; attempt < 3; ++attempt) {
    const auto start = Clock::now();
    for (int i = 0; i < kRounds; ++i) {
      raw[0] = static_cast<char>(i);
      tervain::base64::encodeInto(raw.data(), raw.size(), text.data());
      sink += static_cast<unsigned char>(text[static_cast<std::size_t>(i) % text.size()]);
    }
    bestEncode = std::max(bestEncode, mbPerSecond(total, seconds(Clock::now() - start)));
  }

  tervain::base64::encodeInto(raw.data(), raw.size(), text.data());
  std::string out;
  double bestDecode = 0;
  for (int attempt = 0; attempt < 3; ++attempt) {
    const auto start = Clock::now();
    for (int i = 0; i < kRounds; ++i) {
      if (!tervain::base64::decodeInto(text, out)) return;
      sink += static_cast<unsigned char>(out[static_cast<std::size_t>(i) % out.size()]);
    }
    bestDecode = std::max(bestDecode, mbPerSecond(total, seconds(Clock::now() - start)));
  }
  if (sink == 0xFFFFFFFF) std::printf("#\n");  // keeps the work observable
  tervain::bench::report("base64_encode_mb_per_s", bestEncode);
  tervain::bench::report("base64_decode_mb_per_s", bestDecode);
}

}  // namespace

TERVAIN_BENCH_SECTION(execSection, "exec") {
  using tervain::bench::report;
  ::signal(SIGPIPE, SIG_IGN);
  base64Figures();

  const std::string pipeline = "head -c " + std::to_string(kTransferBytes) + " /dev/zero | cat";
  tervain::testing::AgentProcess::Options options;
  options.env.emplace("TERVAIN_DULK_DISABLE", "1");
  tervain::testing::AgentProcess agent(options);

  // The machine is shared: pipe and exec runs alternate so that both see the same spells of
  // load, and the best of each counts.
  double pipeBest = 0;
  double execBest = 0;
  long growthKib = -1;
  for (int attempt = 0; attempt < 3; ++attempt) {
    const double pipeSecs = timeShell(pipeline + " > /dev/null");
    if (pipeSecs > 0) pipeBest = std::max(pipeBest, mbPerSecond(kTransferBytes, pipeSecs));

    const long before = tervain::bench::rssKib(agent.pid());
    const bool peakReset = resetPeakRss(agent.pid());
    std::atomic<bool> running{true};
    std::atomic<long> sampledPeak{before};
    std::thread sampler([&] {
      while (running) {
        sampledPeak = std::max<long>(sampledPeak, tervain::bench::rssKib(agent.pid()));
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      }
    });
    const ExecResult result = execThroughAgent(agent, pipeline);
    running = false;
    sampler.join();
    const long peak = peakReset ? tervain::bench::peakRssKib(agent.pid()) : sampledPeak.load();
    if (result.decoded != kTransferBytes || result.code != 0 || result.malformed) {
      std::fprintf(stderr, "exec run incomplete: %llu bytes, code %ld%s\n",
                   static_cast<unsigned long long>(result.decoded), result.code,
                   result.malformed ? ", malformed frames" : "");
      continue;
    }
    execBest = std::max(execBest, mbPerSecond(kTransferBytes, result.secs));
    if (before >= 0 && peak >= 0) growthKib = std::max(growthKib, peak - before);
  }
  report("pipe_mb_per_s", pipeBest);
  report("exec_mb_per_s", execBest);
  report("exec_decoded_vs_pipe", pipeBest > 0 ? execBest / pipeBest : 0);
  report("exec_rss_growth_kib", static_cast<double>(growthKib));
}
