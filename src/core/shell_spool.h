// The spool where the agent shell leaves its event files, and the drain that collects them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tervain {

class ShellSpool {
 public:
  // Tells the agent shell where to spool its event files.
  static constexpr std::string_view spoolEnvKey = "TERVAIN_SHELL_SPOOL";
  // Selects the agent shell's capture mode ("tap" unless the agent's environment says otherwise).
  static constexpr std::string_view captureEnvKey = "TERVAIN_SHELL_CAPTURE";
  // Default byte budget of one drain.
  static constexpr std::int64_t defaultCap = 4 * 1024 * 1024;

  // The home directory joined with "Library/Caches/tervain-dulk", computed on every call: the
  // path exec hands the agent shell and the one "shell-events" drains by default.
  static std::string defaultDir();

  // The user's home directory: $HOME when set and not empty, else the password database's entry
  // for the real user id. A process with neither still works: it gets $TMPDIR (per user on macOS),
  // else "/tmp", so the spool lands somewhere harmless instead of the agent failing.
  static std::string homeDirectory();

  // Joins two path components with exactly one "/" between them.
  static std::string joinPath(std::string_view dir, std::string_view name);

  // A file the drain took, as it was when read: its name in the folder, the bytes delivered, and
  // which file it was (device and inode), so that a later removal can tell it has changed.
  struct DrainedFile {
    std::string name;
    std::int64_t bytes = 0;
    std::uint64_t device = 0;
    std::uint64_t inode = 0;

    bool operator==(const DrainedFile&) const = default;
  };

  struct DrainResult {
    std::string data;  // the taken files' bytes, concatenated in drain order
    std::int64_t files = 0;
    bool truncated = false;  // some event file was left behind for the budget
    std::vector<std::string> drainedPaths;
    std::vector<DrainedFile> drainedFiles;  // in drain order, one per path

    bool operator==(const DrainResult&) const = default;
  };

  // Reads the event files of dir in name order, within maxBytes. Only regular files that are
  // themselves entries of dir count: a symbolic link is never followed, whatever it points at. A
  // file that does not fit the remaining budget is skipped (and reported through `truncated`)
  // but later, smaller files may still be taken; the walk stops once the budget is used up.
  // Unreadable files are skipped and an unlistable directory gives the empty result. Deletes
  // nothing; never fails.
  static DrainResult drain(const std::string& dir, std::int64_t maxBytes);

  // A name the drain could have taken: one entry of the folder (no "/"), ending in ".jsonl".
  static bool isEventFileName(std::string_view name);

  // Removes the event file `name` of dir only while it is still what was delivered: a regular
  // file (not a link) of exactly `bytes` bytes and, when `identity` is given, the same device
  // and inode. A file that has grown since (events appended after the read), shrunk or been
  // replaced stays, and the next drain delivers it again. True when the file was removed.
  static bool removeDelivered(const std::string& dir, std::string_view name, std::int64_t bytes,
                              const DrainedFile* identity = nullptr);
};

}  // namespace tervain
