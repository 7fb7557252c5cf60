#include "core/shell_spool.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "core/unique_fd.h"

namespace tervain {
namespace {

std::string passwordDatabaseHome() {
  long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  if (size <= 0) size = 16384;
  std::vector<char> buffer(static_cast<std::size_t>(size));
  struct passwd entry {};
  struct passwd* found = nullptr;
  for (int attempt = 0; attempt < 4; ++attempt) {
    const int rc = ::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found);
    if (rc == ERANGE) {
      buffer.resize(buffer.size() * 4);
      continue;
    }
    if (rc == 0 && found != nullptr && found->pw_dir != nullptr) return found->pw_dir;
    break;
  }
  return {};
}

// Reads the rest of an open file onto the end of out, but no more than limit bytes; false on a
// read error. The limit keeps a file that never ends (one that grows as fast as it is read)
// from taking the drain with it.
bool appendWholeFile(int fd, std::string& out, std::size_t sizeHint, std::size_t limit) {
  const std::size_t start = out.size();
  std::size_t chunk = std::max<std::size_t>(sizeHint + 1, 4096);
  for (;;) {
    const std::size_t at = out.size();
    const std::size_t want = std::min(chunk, limit - (at - start));
    if (want == 0) return true;
    out.resize(at + want);
    const ssize_t n = ::read(fd, out.data() + at, want);
    if (n < 0 && errno == EINTR) {
      out.resize(at);
      continue;
    }
    if (n <= 0) {
      out.resize(at);
      return n == 0;
    }
    out.resize(at + static_cast<std::size_t>(n));
    chunk = 65536;
  }
}

// Names of the entries of the open directory dirFd ("." and ".." excluded); false when it
// cannot be listed. dirFd stays open.
bool listNames(int dirFd, std::vector<std::string>& names) {
  UniqueFd listFd(::fcntl(dirFd, F_DUPFD_CLOEXEC, 0));
  if (!listFd) return false;
  DIR* handle = ::fdopendir(listFd.get());
  if (handle == nullptr) return false;
  (void)listFd.release();  // the stream owns it now; closedir() closes it
  bool ok = true;
  for (;;) {
    errno = 0;
    const dirent* entry = ::readdir(handle);
    if (entry == nullptr) {
      ok = errno == 0;
      break;
    }
    const std::string_view name = entry->d_name;
    if (name == "." || name == "..") continue;
    names.emplace_back(name);
  }
  ::closedir(handle);
  return ok;
}

UniqueFd openDirectory(const std::string& dir) {
  return UniqueFd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

}  // namespace

std::string ShellSpool::homeDirectory() {
  if (const char* home = std::getenv("HOME"); home != nullptr && *home != '\0') return home;
  if (std::string home = passwordDatabaseHome(); !home.empty()) return home;
  if (const char* tmp = std::getenv("TMPDIR"); tmp != nullptr && *tmp != '\0') return tmp;
  return "/tmp";
}

std::string ShellSpool::joinPath(std::string_view dir, std::string_view name) {
  std::string path(dir);
  if (!path.empty() && path.back() != '/') path.push_back('/');
  path.append(name);
  return path;
}

std::string ShellSpool::defaultDir() {
  return joinPath(homeDirectory(), "Library/Caches/tervain-dulk");
}

bool ShellSpool::isEventFileName(std::string_view name) {
  return name.ends_with(".jsonl") && name.find('/') == std::string_view::npos;
}

ShellSpool::DrainResult ShellSpool::drain(const std::string& dir, std::int64_t maxBytes) {
  // Every entry is looked up relative to the directory opened once here, so all of them are
  // entries of this one folder.
  const UniqueFd dirFd = openDirectory(dir);
  if (!dirFd) return {};
  std::vector<std::string> names;
  DrainResult result;
  if (!listNames(dirFd.get(), names)) return result;
  std::stable_sort(names.begin(), names.end());

  for (const std::string& name : names) {
    if (!isEventFileName(name)) continue;
    const auto gathered = static_cast<std::int64_t>(result.data.size());
    if (gathered >= maxBytes) {
      result.truncated = true;
      break;
    }
    // Only a regular file is an event file. A symbolic link is not followed (it could name any
    // file the agent can read), and a FIFO, device or socket is skipped without being opened.
    // The open refuses a link and does not block all the same, and the type is checked again,
    // for an entry replaced in between.
    struct stat entry {};
    if (::fstatat(dirFd.get(), name.c_str(), &entry, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISREG(entry.st_mode)) {
      continue;
    }
    const UniqueFd fd(
        ::openat(dirFd.get(), name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW));
    if (!fd) continue;
    struct stat info {};
    if (::fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode)) continue;
    const std::int64_t room = maxBytes - gathered;
    // A file already known to be too large is not read at all.
    if (info.st_size > room) {
      result.truncated = true;
      continue;
    }
    const std::size_t before = result.data.size();
    // One byte past the room is enough to tell a file that grew too large since fstat().
    const bool read = appendWholeFile(fd.get(), result.data,
                                      static_cast<std::size_t>(info.st_size),
                                      static_cast<std::size_t>(room) + 1);
    if (!read) {
      result.data.resize(before);
      continue;
    }
    // The file may have grown since fstat(): the bytes actually read decide.
    const auto taken = static_cast<std::int64_t>(result.data.size() - before);
    if (taken > room) {
      result.data.resize(before);
      result.truncated = true;
      continue;
    }
    ++result.files;
    result.drainedPaths.push_back(joinPath(dir, name));
    result.drainedFiles.push_back({name, taken, static_cast<std::uint64_t>(info.st_dev),
                                   static_cast<std::uint64_t>(info.st_ino)});
  }
  return result;
}

bool ShellSpool::removeDelivered(const std::string& dir, std::string_view name,
                                 std::int64_t bytes, const DrainedFile* identity) {
  if (!isEventFileName(name)) return false;
  const UniqueFd dirFd = openDirectory(dir);
  if (!dirFd) return false;
  const std::string entryName(name);
  struct stat info {};
  bool unchanged = ::fstatat(dirFd.get(), entryName.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
                   S_ISREG(info.st_mode) && info.st_size == bytes;
  if (unchanged && identity != nullptr) {
    unchanged = static_cast<std::uint64_t>(info.st_dev) == identity->device &&
                static_cast<std::uint64_t>(info.st_ino) == identity->inode;
  }
  return unchanged && ::unlinkat(dirFd.get(), entryName.c_str(), 0) == 0;
}

}  // namespace tervain
