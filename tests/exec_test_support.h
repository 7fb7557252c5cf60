// Helpers for tests of the exec stream: reading a session's frames from the host side, and
// looking at processes through /proc.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "agent_process.h"
#include "core/base64.h"
#include "core/json.h"

namespace tervain::testing {

// What the host received from one exec session, up to its "x" or "err" frame.
struct ExecTranscript {
  std::string out;                // decoded "o" payloads, concatenated
  std::string err;                // decoded "e" payloads, concatenated
  std::vector<std::string> tags;  // every frame's "t", in order
  std::optional<int> code;        // the "x" frame's code
  Json exit;                      // the "x" frame, whole
  std::optional<std::string> error;  // the "err" frame's message
  std::size_t largestChunk = 0;   // most raw bytes in one output frame
  std::vector<std::string> badFrames;  // lines that were not well-formed frames

  bool complete() const { return code.has_value() || error.has_value(); }
};

// Reads frames into t until an "x" or "err" frame arrives, the stream ends, the limit passes,
// or (when given) the output from outFrom on holds until.
inline void readExecFramesInto(LineClient& client, ExecTranscript& t,
                               std::chrono::milliseconds limit, std::string_view until = {},
                               std::size_t outFrom = 0) {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + limit;
  while (!t.complete() &&
         (until.empty() || t.out.size() < outFrom ||
          t.out.find(until, outFrom) == std::string::npos)) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) break;
    const std::optional<std::string> line = client.readLine(left);
    if (!line) break;
    const Json frame = Json::parse(*line, nullptr, false);
    if (!frame.is_object() || !frame.contains("t") || !frame["t"].is_string()) {
      t.badFrames.push_back(*line);
      continue;
    }
    const std::string tag = frame["t"];
    t.tags.push_back(tag);
    if (tag == "o" || tag == "e") {
      const std::optional<std::string> bytes =
          frame.value("d", Json()).is_string() ? base64::decode(frame["d"].get<std::string>())
                                               : std::nullopt;
      if (!bytes) {
        t.badFrames.push_back(*line);
        continue;
      }
      t.largestChunk = std::max(t.largestChunk, bytes->size());
      (tag == "o" ? t.out : t.err) += *bytes;
    } else if (tag == "x" && frame.value("code", Json()).is_number_integer()) {
      t.code = frame["code"].get<int>();
      t.exit = frame;
    } else if (tag == "err" && frame.value("m", Json()).is_string()) {
      t.error = frame["m"].get<std::string>();
    } else {
      t.badFrames.push_back(*line);
    }
  }
}

// Reads frames until an "x" or "err" frame arrives, the stream ends, or the limit passes.
inline ExecTranscript readExecFrames(LineClient& client,
                                     std::chrono::milliseconds limit = std::chrono::seconds(20)) {
  ExecTranscript t;
  readExecFramesInto(client, t, limit);
  return t;
}

// What a command on a terminal of rows x cols gets from the host: {"rows":R,"cols":C}, as the
// request's "tty" and, with "t":"resize", as a resize frame.
inline Json terminalSize(int rows, int cols) { return Json{{"rows", rows}, {"cols", cols}}; }
inline std::string resizeFrame(int rows, int cols) {
  Json frame = terminalSize(rows, cols);
  frame["t"] = "resize";
  return frame.dump() + "\n";
}

// An "i" frame line carrying bytes.
inline std::string stdinFrame(std::string_view bytes) {
  return "{\"t\":\"i\",\"d\":\"" + base64::encode(bytes) + "\"}\n";
}

// A connected pair of Unix stream sockets, both close-on-exec; false on failure.
inline bool closeOnExecSocketPair(int pair[2]) {
  if (::socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) return false;
  ::fcntl(pair[0], F_SETFD, FD_CLOEXEC);
  ::fcntl(pair[1], F_SETFD, FD_CLOEXEC);
  return true;
}

inline bool procAvailable() { return std::ifstream("/proc/self/stat").good(); }

// Whether /proc shows a process that matches: test(state, parent, group).
inline bool anyProcess(const std::function<bool(char, int, int)>& test) {
  DIR* dir = ::opendir("/proc");
  if (dir == nullptr) return false;
  bool found = false;
  while (const dirent* entry = ::readdir(dir)) {
    const std::string name = entry->d_name;
    if (found || name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::ifstream in("/proc/" + name + "/stat");
    std::string text;
    // The command name may hold spaces and parentheses; the fields after it start past the last ')'.
    if (!std::getline(in, text) || text.rfind(')') == std::string::npos) continue;
    std::istringstream rest(text.substr(text.rfind(')') + 1));
    char state = '?';
    int parent = 0, group = 0;
    rest >> state >> parent >> group;
    found = test(state, parent, group);
  }
  ::closedir(dir);
  return found;
}

// Whether a process of the group still runs (a zombie left to an init that never reaps does not).
inline bool groupRuns(int pgrp) {
  return anyProcess([pgrp](char state, int, int group) {
    return group == pgrp && state != 'Z' && state != 'X';
  });
}

// Whether a process has children it never reaped.
inline bool hasZombieChildren(int parent) {
  return anyProcess([parent](char state, int ppid, int) { return ppid == parent && state == 'Z'; });
}

// Waits, bounded, until no process of the group runs.
inline bool groupGone(int pgrp, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (groupRuns(pgrp)) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

// Kills whatever a test left running in a group it started.
inline void killGroup(int pgrp) {
  if (pgrp > 1) ::kill(-pgrp, SIGKILL);
}

}  // namespace tervain::testing
