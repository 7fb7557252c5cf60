// tervainctl cp: file transfer over exec.
//
// To the guest, the file goes out as stdin frames into `cat > PATH`, and the guest then counts
// what it holds with `wc -c`. From the guest, `wc -c < PATH && cat < PATH` sends the size on
// the first output line, then the bytes, which are decoded frame by frame straight into the
// local file; nothing holds the whole file. Either way the byte count must match.
//
// Folders (-r) and copies that keep modes and times (-p) travel as a tar stream instead, made by
// tar on one side and unpacked by tar on the other; both tars must succeed. A target that is not
// an existing folder is unpacked into a temporary folder beside it first and then renamed, so the
// copy takes the target's name as cp and scp do.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "tervainctl/tervainctl.h"

extern char** environ;

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
  const UniqueFd file(fromStdin ? -1 : ::open(local.c_str(), O_RDONLY | O_CLOEXEC));
  const int in = fromStdin ? STDIN_FILENO : file.get();
  if (in < 0) {
    complain("cannot read " + local + ": " + std::strerror(errno));
    return kExitRefused;
  }
  std::optional<std::uint64_t> total;
  struct stat st {};
  if (::fstat(in, &st) == 0 && S_ISREG(st.st_mode)) total = static_cast<std::uint64_t>(st.st_size);
  if (::fstat(in, &st) == 0 && S_ISDIR(st.st_mode)) {
    complain(local + " is a folder: cp -r copies folders");
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
  UniqueFd file;
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
      if (!toStdout) {
        file.reset(::open(destination.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
      }
      out = toStdout ? STDOUT_FILENO : file.get();
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
  const bool created = file.valid();
  if (const int error = file.closeChecked(); error != 0 && localFailure.empty()) {
    localFailure = "writing " + destination + " failed: " + std::strerror(error);
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

std::string parentOf(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  const std::size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return ".";
  return slash == 0 ? "/" : std::string(path.substr(0, slash));
}

// A local tar with one end of a pipe as its standard input or output; the other end is ours.
struct LocalTar {
  pid_t pid = -1;
  UniqueFd fd;
};

// The tar, or the errno of a failure to start it.
ErrnoOr<LocalTar> startTar(const std::vector<std::string>& args, bool creating) {
  ErrnoOr<PipeEnds> ends = makePipe();
  if (!ends) return Errno{ends.error()};
  UniqueFd& theirs = creating ? ends->write : ends->read;
  UniqueFd& ours = creating ? ends->read : ends->write;
  std::vector<char*> argv;
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  // dup2 clears close-on-exec on the copy; every other pipe end closes at exec.
  posix_spawn_file_actions_adddup2(&actions, theirs.get(),
                                   creating ? STDOUT_FILENO : STDIN_FILENO);
  pid_t pid = -1;
  const int rc = ::posix_spawnp(&pid, "tar", &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) return Errno{rc};
  return LocalTar{pid, std::move(ours)};
}

// The exit status of a tar, or -1 when a signal ended it.
int waitTar(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Writes to a pipe whose reader died must fail with EPIPE, not end tervainctl.
class PipeSignalIgnored {
 public:
  PipeSignalIgnored() { previous = ::signal(SIGPIPE, SIG_IGN); }
  ~PipeSignalIgnored() { ::signal(SIGPIPE, previous); }
  PipeSignalIgnored(const PipeSignalIgnored&) = delete;
  PipeSignalIgnored& operator=(const PipeSignalIgnored&) = delete;

 private:
  void (*previous)(int) = SIG_DFL;
};

// Unpacking flags: -o gives the files to whoever unpacks them; -p keeps modes, and without it
// -m gives files the time of the copy, as cp and scp do without -p.
std::string unpackFlags(const CopyOptions& options) { return options.preserve ? "-xpo" : "-xmo"; }

int tarToGuest(const client::Address& address, const std::string& local,
               const std::string& guestPath, const CopyOptions& options) {
  struct stat st {};
  if (::lstat(local.c_str(), &st) != 0) {
    complain("cannot read " + local + ": " + std::strerror(errno));
    return kExitRefused;
  }
  if (S_ISDIR(st.st_mode) && !options.recursive) {
    complain(local + " is a folder: cp -r copies folders");
    return kExitRefused;
  }
  const std::string name = baseName(local);
  const std::string flags = unpackFlags(options);
  const std::string command =
      "t=" + client::guestPathWord(guestPath) + "; n=" + client::shellQuote(name) +
      "; if [ -d \"$t\" ]; then exec tar " + flags + "f - -C \"$t\"; fi; "
      "tmp=$(mktemp -d \"$(dirname \"$t\")/.tervain-cp.XXXXXX\") || exit 1; "
      "tar " + flags + "f - -C \"$tmp\" && mv -f \"$tmp/$n\" \"$t\"; s=$?; rm -rf \"$tmp\"; "
      "exit $s";

  client::ExecStream stream = client::ExecStream::start(address, command);
  PipeSignalIgnored pipeSignal;
  auto tar = startTar({"tar", "-cf", "-", "-C", parentOf(local), "./" + name}, true);
  if (!tar) {
    complain(std::string("cannot run tar: ") + std::strerror(tar.error()));
    return kExitRefused;
  }
  std::thread feeder([&] {
    std::string block(kReadBlock, '\0');
    for (;;) {
      const ssize_t n = ::read(tar->fd.get(), block.data(), block.size());
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      if (!stream.writeStdin(std::string_view(block.data(), static_cast<std::size_t>(n)))) break;
    }
    stream.closeStdin();
  });
  std::string err;
  client::ExecOutcome outcome;
  std::string failure;
  try {
    outcome = stream.wait({.stdoutData = [](std::string_view) {},
                           .stderrData = [&](std::string_view b) { err.append(b); }});
  } catch (const client::ClientError& e) {
    failure = e.what();
  }
  stream.abort();
  tar->fd.reset();  // a tar still writing ends with EPIPE
  feeder.join();
  const int packed = waitTar(tar->pid);
  if (!failure.empty()) throw client::ConnectionError(failure);
  if (!outcome.code || *outcome.code != 0) {
    complain(remoteFailure("copying to guest:" + guestPath + " failed", outcome, err));
    return kExitRefused;
  }
  if (packed != 0) {
    complain("copying " + local + " failed: tar could not read it all");
    return kExitRefused;
  }
  return kExitOk;
}

int tarFromGuest(const client::Address& address, const std::string& guestPath,
                 const std::string& local, const CopyOptions& options) {
  const std::string name = baseName(guestPath);
  std::string command = "s=" + client::guestPathWord(guestPath) +
                        "; [ -e \"$s\" ] || [ -h \"$s\" ] || { echo \"$s: No such file or "
                        "directory\" >&2; exit 1; }; ";
  if (!options.recursive) {
    command += "[ -d \"$s\" ] && { echo \"$s is a folder: cp -r copies folders\" >&2; exit 1; }; ";
  }
  command += "cd \"$(dirname \"$s\")\" && exec tar -cf - \"./$(basename \"$s\")\"";

  client::ExecStream stream = client::ExecStream::start(address, command);
  // Straight into an existing folder; else into a new folder beside the target, then renamed.
  const bool intoFolder = isDirectory(local);
  std::string unpackDir = local;
  if (!intoFolder) {
    std::string pattern = parentOf(local) + "/.tervain-cp.XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
      complain("cannot write in " + parentOf(local) + ": " + std::strerror(errno));
      return kExitRefused;
    }
    unpackDir = pattern;
  }
  auto cleanUp = [&] {
    std::error_code ignored;
    if (!intoFolder) std::filesystem::remove_all(unpackDir, ignored);
  };

  PipeSignalIgnored pipeSignal;
  auto tar = startTar({"tar", unpackFlags(options) + "f", "-", "-C", unpackDir}, false);
  if (!tar) {
    complain(std::string("cannot run tar: ") + std::strerror(tar.error()));
    cleanUp();
    return kExitRefused;
  }
  std::string err;
  client::ExecOutcome outcome;
  std::string failure;
  bool unpackerGone = false;
  try {
    outcome = stream.wait({.stdoutData =
                               [&](std::string_view b) {
                                 if (!unpackerGone && !writeFully(tar->fd.get(), b)) unpackerGone = true;
                               },
                           .stderrData = [&](std::string_view b) { err.append(b); }});
  } catch (const client::ClientError& e) {
    failure = e.what();
  }
  stream.abort();
  tar->fd.reset();
  const int unpacked = waitTar(tar->pid);
  if (!failure.empty()) {
    cleanUp();
    throw client::ConnectionError(failure);
  }
  if (!outcome.code || *outcome.code != 0) {
    cleanUp();
    complain(remoteFailure("copying guest:" + guestPath + " failed", outcome, err));
    return kExitRefused;
  }
  if (unpacked != 0) {
    cleanUp();
    complain("copying guest:" + guestPath + " failed: tar could not unpack it into " + unpackDir);
    return kExitRefused;
  }
  if (!intoFolder && ::rename((unpackDir + "/" + name).c_str(), local.c_str()) != 0) {
    const int error = errno;
    cleanUp();
    complain("cannot write " + local + ": " + std::strerror(error));
    return kExitRefused;
  }
  cleanUp();
  return kExitOk;
}

}  // namespace

int runCopyCommand(const client::Address& address, const std::vector<std::string>& sources,
                   const std::string& target, const CopyOptions& options) {
  const bool targetInGuest = target.starts_with(kGuestPrefix);
  for (const std::string& source : sources) {
    if (source.starts_with(kGuestPrefix) == targetInGuest) {
      throw UsageError{"cp needs local sources and a guest:PATH target, or guest:PATH sources and "
                       "a local target, e.g. cp notes.txt guest:/tmp/"};
    }
    if (source == kGuestPrefix || target == kGuestPrefix) {
      throw UsageError{"cp needs a path after guest:"};
    }
    if (source == "-" && sources.size() > 1) throw UsageError{"- must be the only source"};
  }
  if (sources.size() > 1) {
    const std::string folder = targetInGuest ? target.substr(kGuestPrefix.size()) : target;
    const bool isFolder =
        targetInGuest ? client::runCaptured(address, "[ -d " + client::guestPathWord(folder) + " ]")
                                .outcome.code == 0
                      : isDirectory(folder);
    if (!isFolder) {
      complain("copying several sources needs a folder as target: " + target + " is not one");
      return kExitRefused;
    }
  }
  int status = kExitOk;
  for (const std::string& source : sources) {
    const bool streamed = source == "-" || target == "-";
    const bool asTar = (options.recursive || options.preserve) && !streamed;
    int one = kExitOk;
    if (targetInGuest) {
      const std::string guestPath = target.substr(kGuestPrefix.size());
      one = asTar ? tarToGuest(address, source, guestPath, options)
                  : copyToGuest(address, source, guestPath);
    } else {
      const std::string guestPath = source.substr(kGuestPrefix.size());
      one = asTar ? tarFromGuest(address, guestPath, target, options)
                  : copyFromGuest(address, guestPath, target);
    }
    if (one != kExitOk) status = one;
  }
  return status;
}

void addCopyCommand(CommandSet& set) {
  struct Arguments {
    std::vector<std::string> paths;
    CopyOptions options;
  };
  Arguments& a = set.state<Arguments>();
  CLI::App* cp = set.add(
      "cp",
      "Copy files to or from the guest: cp LOCAL... guest:PATH, or cp guest:PATH... LOCAL",
      [&set, &a] {
        const std::vector<std::string> sources(a.paths.begin(), a.paths.end() - 1);
        return runCopyCommand(set.address(), sources, a.paths.back(), a.options);
      });
  cp->add_option("PATHS", a.paths,
                 "Sources then the target: local paths (- for stdin or stdout) or guest:PATH")
      ->expected(2, -1)
      ->required();
  cp->add_flag("-r,--recursive", a.options.recursive, "Copy folders and what they hold");
  cp->add_flag("-p,--preserve", a.options.preserve, "Keep modes and modification times");
  cp->footer("Several sources need a folder as target. A guest path starting with ~/ is relative "
             "to the guest user's home.");
}

}  // namespace tervain::ctl
