#include "platform/x11/app_launch.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <thread>

#include "core/spawn.h"
#include "core/unique_fd.h"

namespace tervain::x11 {
namespace {

std::vector<std::string> splitPath(const std::string& list) {
  std::vector<std::string> parts;
  std::size_t start = 0;
  while (start <= list.size()) {
    const std::size_t colon = std::min(list.find(':', start), list.size());
    if (colon > start) parts.push_back(list.substr(start, colon - start));
    start = colon + 1;
  }
  return parts;
}

std::vector<std::string> applicationFolders(const LaunchEnvironment& env) {
  std::vector<std::string> folders;
  const std::string dataHome = !env.dataHome.empty() ? env.dataHome
                               : !env.home.empty()   ? env.home + "/.local/share"
                                                     : std::string();
  if (!dataHome.empty()) folders.push_back(dataHome + "/applications");
  for (const std::string& dir :
       splitPath(env.dataDirs.empty() ? "/usr/local/share:/usr/share" : env.dataDirs)) {
    folders.push_back(dir + "/applications");
  }
  return folders;
}

// The keys of a desktop entry's [Desktop Entry] group that launching needs. Values keep the
// entry's escapes except the general ones (\s \n \t \r \\), which are undone here.
struct DesktopEntry {
  std::string type, name, exec, icon, path;
  bool hidden = false;
};

std::string unescapeValue(std::string_view value) {
  std::string out;
  for (std::size_t i = 0; i < value.size(); ++i) {
    if (value[i] != '\\' || i + 1 == value.size()) {
      out += value[i];
      continue;
    }
    switch (value[++i]) {
      case 's': out += ' '; break;
      case 'n': out += '\n'; break;
      case 't': out += '\t'; break;
      case 'r': out += '\r'; break;
      case '\\': out += '\\'; break;
      default: out += '\\'; out += value[i];  // kept for the Exec quoting rules
    }
  }
  return out;
}

std::optional<DesktopEntry> readEntry(const std::string& file) {
  std::ifstream in(file);
  if (!in) return std::nullopt;
  DesktopEntry entry;
  bool inGroup = false;
  std::string line;
  for (int lines = 0; lines < 10'000 && std::getline(in, line); ++lines) {
    if (line.empty() || line[0] == '#') continue;
    if (line[0] == '[') {
      inGroup = line == "[Desktop Entry]";
      continue;
    }
    const std::size_t eq = line.find('=');
    if (!inGroup || eq == std::string::npos) continue;
    std::string key = line.substr(0, eq);
    while (!key.empty() && key.back() == ' ') key.pop_back();
    std::size_t from = eq + 1;
    while (from < line.size() && line[from] == ' ') ++from;
    const std::string value = unescapeValue(std::string_view(line).substr(from));
    if (key == "Type") entry.type = value;
    else if (key == "Name") entry.name = value;
    else if (key == "Exec") entry.exec = value;
    else if (key == "Icon") entry.icon = value;
    else if (key == "Path") entry.path = value;
    else if (key == "Hidden") entry.hidden = value == "true";
  }
  return entry;
}

std::string lower(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

std::optional<LaunchTarget> targetOf(const std::string& file, const DesktopEntry& entry) {
  if (entry.hidden || entry.type != "Application") return std::nullopt;
  auto argv = parseExec(entry.exec, entry.name, entry.icon, file);
  if (!argv) return std::nullopt;
  return LaunchTarget{std::move(*argv), entry.path, file};
}

bool isExecutableFile(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && ::access(path.c_str(), X_OK) == 0;
}

}  // namespace

LaunchEnvironment LaunchEnvironment::current() {
  const auto get = [](const char* name) {
    const char* value = std::getenv(name);
    return std::string(value == nullptr ? "" : value);
  };
  return {get("HOME"), get("XDG_DATA_HOME"), get("XDG_DATA_DIRS"), get("PATH")};
}

std::optional<std::vector<std::string>> parseExec(std::string_view exec, const std::string& name,
                                                  const std::string& icon,
                                                  const std::string& entryPath) {
  std::vector<std::string> argv;
  std::string word;
  bool inWord = false, quoted = false;
  for (std::size_t i = 0; i < exec.size(); ++i) {
    const char c = exec[i];
    if (quoted) {
      if (c == '"') {
        quoted = false;
      } else if (c == '\\' && i + 1 < exec.size() && std::strchr("\"`$\\", exec[i + 1])) {
        word += exec[++i];
      } else {
        word += c;
      }
      continue;
    }
    if (c == ' ' || c == '\t') {
      if (inWord) argv.push_back(std::move(word));
      word.clear();
      inWord = false;
      continue;
    }
    if (c == '"') {
      quoted = inWord = true;
      continue;
    }
    if (c == '%') {
      if (i + 1 == exec.size()) return std::nullopt;
      switch (exec[++i]) {
        case '%': word += '%'; inWord = true; break;
        case 'c': word += name; inWord = true; break;
        case 'k': word += entryPath; inWord = true; break;
        case 'i':
          // Expands to two arguments, and only when the entry has an icon.
          if (!icon.empty()) {
            argv.push_back("--icon");
            argv.push_back(icon);
          }
          break;
        case 'f': case 'F': case 'u': case 'U':  // files and URLs: none are opened
        case 'd': case 'D': case 'n': case 'N': case 'v': case 'm':  // deprecated, dropped
          break;
        default:
          return std::nullopt;
      }
      continue;
    }
    word += c;
    inWord = true;
  }
  if (quoted) return std::nullopt;
  if (inWord) argv.push_back(std::move(word));
  if (argv.empty()) return std::nullopt;
  return argv;
}

std::optional<LaunchTarget> resolveApplication(const std::string& name,
                                               const LaunchEnvironment& environment) {
  if (name.empty() || name.find('/') != std::string::npos) return std::nullopt;
  const std::vector<std::string> folders = applicationFolders(environment);
  const std::string fileName = name.ends_with(".desktop") ? name : name + ".desktop";
  for (const std::string& folder : folders) {
    const std::string file = folder + "/" + fileName;
    if (const auto entry = readEntry(file)) {
      if (auto target = targetOf(file, *entry)) return target;
    }
  }
  const std::string wanted = lower(name);
  for (const std::string& folder : folders) {
    std::error_code ec;
    std::vector<std::string> files;
    for (const auto& item : std::filesystem::directory_iterator(folder, ec)) {
      if (item.path().extension() == ".desktop") files.push_back(item.path().string());
    }
    std::sort(files.begin(), files.end());  // the same choice every time
    for (const std::string& file : files) {
      const auto entry = readEntry(file);
      if (!entry || lower(entry->name) != wanted) continue;
      if (auto target = targetOf(file, *entry)) return target;
    }
  }
  for (const std::string& dir : splitPath(environment.path)) {
    const std::string candidate = dir + "/" + name;
    if (isExecutableFile(candidate)) return LaunchTarget{{candidate}, {}, candidate};
  }
  return std::nullopt;
}

int startDetached(const LaunchTarget& target, const LaunchEnvironment& environment) {
  std::string program = target.argv.at(0);
  if (program.find('/') == std::string::npos) {
    std::string found;
    for (const std::string& dir : splitPath(environment.path)) {
      if (isExecutableFile(dir + "/" + program)) {
        found = dir + "/" + program;
        break;
      }
    }
    if (found.empty()) return ENOENT;
    program = found;
  }
  const UniqueFd null(::open("/dev/null", O_RDWR | O_CLOEXEC));
  if (!null) return errno;
  SpawnOptions options{
      .path = program,
      .arguments = std::vector<std::string>(target.argv.begin() + 1, target.argv.end()),
      .standardStreams = {null.get(), null.get(), null.get()},
      .group = SpawnOptions::Group::newSession,
  };
  if (!target.workingDirectory.empty()) options.workingDirectory = target.workingDirectory;
  const ErrnoOr<pid_t> child = spawnProcess(options);
  if (!child) return child.error();
  // An application runs as long as its user likes; a thread of its own waits to reap it, so it
  // leaves no zombie behind. Without a thread it still runs, and stays a zombie once it ends.
  try {
    std::thread([pid = *child] {
      while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
      }
    }).detach();
  } catch (const std::system_error&) {
  }
  return 0;
}

}  // namespace tervain::x11
