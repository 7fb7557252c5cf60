// tervainctl cp: file transfer over exec.
//
// To the guest, the file goes out as stdin frames into `cat > PATH`, and the guest then counts
// what it holds with `wc -c`. From the guest, `wc -c < PATH && cat < PATH` sends the size on
// the first output line, then the bytes, which are decoded frame by frame straight into the
// local file; nothing holds the whole file. Either way the byte count must match.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "tervainctl/tervainctl.h"

namespace tervain::ctl {
namespace {

constexpr std::string_view kGuestPrefix = "guest:";
constexpr std::size_t kReadBlock = 256 * 1024;

struct LocalError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

std::string baseName(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  const std::size_t slash = path.rfind('/');
  return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

bool isDirectory(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// "guest:PATH (exit 1): cat: PATH: No such file or directory" from what the command left.
std::string remoteFailure(const std::string& what, const client::ExecOutcome& outcome,
                          std::string stderrText) {
  while (!stderrText.empty() && (stderrText.back() == '\n' || stderrText.back() == '\r')) {
    stderrText.pop_back();
  }
  std::string text = what;
  if (!outcome.code) return text + ": " + outcome.error;
  text += " (guest exit status " + std::to_string(*outcome.code) + ")";
  if (!stderrText.empty()) text += ": " + stderrText;
  return text;
}

// The size line of `wc -c`: digits, perhaps with blanks around them.
std::optional<std::uint64_t> parseCount(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\n' ||
                           text.back() == '\r')) {
    text.remove_suffix(1);
  }
  if (text.empty()) return std::nullopt;
  std::uint64_t value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + static_cast<std::uint64_t>(c - '0');
  }
  return value;
}

// A progress line on standard error, shown only when standard error is a terminal and at most
// a few times a second.
class Progress {
 public:
  explicit Progress(std::string label) : label(std::move(label)), shown(::isatty(STDERR_FILENO)) {}
  void update(std::uint64_t done, std::optional<std::uint64_t> total, bool final = false) {
    if (!shown) return;
    const auto now = std::chrono::steady_clock::now();
    if (!final && now - last < std::chrono::milliseconds(200)) return;
    last = now;
    char line[256];
    const double mib = static_cast<double>(done) / (1024.0 * 1024.0);
    if (total && *total > 0) {
      std::snprintf(line, sizeof line, "\r%s: %.1f of %.1f MiB (%.0f%%)", label.c_str(), mib,
                    static_cast<double>(*total) / (1024.0 * 1024.0),
                    100.0 * static_cast<double>(done) / static_cast<double>(*total));
    } else {
      std::snprintf(line, sizeof line, "\r%s: %.1f MiB", label.c_str(), mib);
    }
    writeFully(STDERR_FILENO, line);
    if (final) writeFully(STDERR_FILENO, "\n");
  }

 private:
  std::string label;
  bool shown;
  std::chrono::steady_clock::time_point last{};
};

int copyToGuest(const client::Address& address, const std::string& local,
                const std::string& guestPath) {
  const bool fromStdin = local == "-";
  const int in = fromStdin ? STDIN_FILENO : ::open(local.c_str(), O_RDONLY | O_CLOEXEC);
  if (in < 0) {
    complain("cannot read " + local + ": " + std::strerror(errno));
    return kExitRefused;
  }
  std::optional<std::uint64_t> total;
  struct stat st {};
  if (::fstat(in, &st) == 0 && S_ISREG(st.st_mode)) total = static_cast<std::uint64_t>(st.st_size);
  if (::fstat(in, &st) == 0 && S_ISDIR(st.st_mode)) {
    complain(local + " is a directory; cp copies one file");
    if (!fromStdin) ::close(in);
    return kExitRefused;
  }

  // A target that is a directory on the guest receives the file under its local name.
  std::string target = "t=" + client::guestPathWord(guestPath) + "; ";
  if (!fromStdin) {
    target += "if [ -d \"$t\" ]; then t=\"$t\"/" + client::shellQuote(baseName(local)) + "; fi; ";
  }
  const std::string command = target + "cat > \"$t\" && wc -c < \"$t\"";

  client::ExecStream stream = client::ExecStream::start(address, command);
  Progress progress("to guest:" + guestPath);
  std::uint64_t sent = 0;
  std::string readFailure;
  std::thread feeder([&] {
    std::string block(kReadBlock, '\0');
    for (;;) {
      const ssize_t n = ::read(in, block.data(), block.size());
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) {
        readFailure = "reading " + local + " failed: " + std::strerror(errno);
        stream.abort();
        return;
      }
      if (n == 0) break;
      if (!stream.writeStdin(std::string_view(block.data(), static_cast<std::size_t>(n)))) return;
      sent += static_cast<std::uint64_t>(n);
      progress.update(sent, total);
    }
    stream.closeStdin();
  });

  std::string out;
  std::string err;
  client::ExecOutcome outcome;
  std::string failure;
  try {
    outcome = stream.wait({.stdoutData = [&](std::string_view b) { out.append(b); },
                           .stderrData = [&](std::string_view b) { err.append(b); }});
  } catch (const client::ClientError& e) {
    failure = e.what();
  }
  stream.abort();
  feeder.join();
  if (!fromStdin) ::close(in);

  if (!readFailure.empty()) {
    complain(readFailure);
    return kExitRefused;
  }
  if (!failure.empty()) throw client::ConnectionError(failure);
  progress.update(sent, total, true);
  if (!outcome.code || *outcome.code != 0) {
    complain(remoteFailure("copying to guest:" + guestPath + " failed", outcome, err));
    return kExitRefused;
  }
  const auto held = parseCount(out);
  if (!held || *held != sent) {
    complain("copying to guest:" + guestPath + " failed: " + std::to_string(sent) +
             " bytes were sent but the guest file holds " + (held ? std::to_string(*held) : "?"));
    return kExitRefused;
  }
  return kExitOk;
}

int copyFromGuest(const client::Address& address, const std::string& guestPath,
                  const std::string& local) {
  const bool toStdout = local == "-";
  const std::string destination =
      !toStdout && isDirectory(local) ? local + "/" + baseName(guestPath) : local;
  const std::string word = client::guestPathWord(guestPath);
  client::ExecStream stream =
      client::ExecStream::start(address, "wc -c < " + word + " && cat < " + word);

  Progress progress("from guest:" + guestPath);
  std::string header;
  std::optional<std::uint64_t> expected;
  std::uint64_t received = 0;
  int out = -1;
  std::string err;
  client::ExecOutcome outcome;
  std::string connectionFailure;
  std::string localFailure;

  auto takeData = [&](std::string_view bytes) {
    if (!expected) {
      const std::size_t newline = bytes.find('\n');
      header.append(bytes.substr(0, newline));
      if (newline == std::string_view::npos) {
        if (header.size() > 64) throw LocalError("the guest did not report the file's size");
        return;
      }
      bytes.remove_prefix(newline + 1);
      expected = parseCount(header);
      if (!expected) throw LocalError("the guest reported no size but \"" + header + "\"");
      out = toStdout ? STDOUT_FILENO
                     : ::open(destination.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
      if (out < 0) throw LocalError("cannot write " + destination + ": " + std::strerror(errno));
    }
    if (bytes.empty()) return;
    if (!writeFully(out, bytes)) {
      throw LocalError("writing " + destination + " failed: " + std::strerror(errno));
    }
    received += bytes.size();
    progress.update(received, expected);
  };
  try {
    outcome = stream.wait({.stdoutData = takeData,
                           .stderrData = [&](std::string_view b) { err.append(b); }});
  } catch (const LocalError& e) {
    localFailure = e.what();
  } catch (const client::ClientError& e) {
    connectionFailure = e.what();
  }
  stream.abort();
  const bool created = out >= 0 && !toStdout;
  if (created && ::close(out) != 0 && localFailure.empty()) {
    localFailure = "writing " + destination + " failed: " + std::strerror(errno);
  }
  auto fail = [&](const std::string& message, int status) {
    if (created) ::unlink(destination.c_str());
    complain(message);
    return status;
  };
  if (!localFailure.empty()) return fail(localFailure, kExitRefused);
  if (!connectionFailure.empty()) {
    if (created) ::unlink(destination.c_str());
    throw client::ConnectionError(connectionFailure);
  }
  progress.update(received, expected, true);
  if (!outcome.code || *outcome.code != 0) {
    return fail(remoteFailure("copying guest:" + guestPath + " failed", outcome, err),
                kExitRefused);
  }
  if (!expected || received != *expected) {
    return fail("copying guest:" + guestPath + " failed: the guest file holds " +
                    (expected ? std::to_string(*expected) : "?") + " bytes but " +
                    std::to_string(received) + " arrived",
                kExitRefused);
  }
  return kExitOk;
}

}  // namespace

int runCopyCommand(const client::Address& address, const std::string& source,
                   const std::string& target) {
  const bool sourceInGuest = source.starts_with(kGuestPrefix);
  const bool targetInGuest = target.starts_with(kGuestPrefix);
  if (sourceInGuest == targetInGuest) {
    throw UsageError{"cp needs one local path and one guest:PATH, e.g. cp notes.txt guest:/tmp/"};
  }
  const std::string guestPath =
      (sourceInGuest ? source : target).substr(kGuestPrefix.size());
  if (guestPath.empty()) throw UsageError{"cp needs a path after guest:"};
  return sourceInGuest ? copyFromGuest(address, guestPath, target)
                       : copyToGuest(address, source, guestPath);
}

}  // namespace tervain::ctl
