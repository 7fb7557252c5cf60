// Helpers for tests of the exec stream: reading a session's frames from the host side, and
// looking at processes through /proc.
#pragma once

#include <dirent.h>
#include <signal.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
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
  std::optional<std::string> error;  // the "err" frame's message
  std::size_t largestChunk = 0;   // most raw bytes in one output frame
  std::vector<std::string> badFrames;  // lines that were not well-formed frames

  bool complete() const { return code.has_value() || error.has_value(); }
};

// Reads frames until an "x" or "err" frame arrives, the stream ends, or the limit passes.
inline ExecTranscript readExecFrames(LineClient& client,
                                     std::chrono::milliseconds limit = std::chrono::seconds(20)) {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + limit;
  ExecTranscript t;
  while (!t.complete()) {
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
    } else if (tag == "err" && frame.value("m", Json()).is_string()) {
      t.error = frame["m"].get<std::string>();
    } else {
      t.badFrames.push_back(*line);
    }
  }
  return t;
}

// An "i" frame line carrying bytes.
inline std::string stdinFrame(std::string_view bytes) {
  return "{\"t\":\"i\",\"d\":\"" + base64::encode(bytes) + "\"}\n";
}

struct ProcInfo {
  int pid = 0;
  char state = '?';
  int ppid = 0;
  int pgrp = 0;
};

inline bool procAvailable() {
  std::ifstream in("/proc/self/stat");
  return in.good();
}

// Every process of the system as /proc shows it.
inline std::vector<ProcInfo> allProcesses() {
  std::vector<ProcInfo> all;
  DIR* dir = ::opendir("/proc");
  if (dir == nullptr) return all;
  while (const dirent* entry = ::readdir(dir)) {
    const std::string name = entry->d_name;
    if (name.empty() || name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::ifstream in("/proc/" + name + "/stat");
    std::string text;
    if (!std::getline(in, text)) continue;
    // The command name may hold spaces and parentheses; the fields after it start past the last ')'.
    const std::size_t close = text.rfind(')');
    if (close == std::string::npos) continue;
    std::istringstream rest(text.substr(close + 1));
    ProcInfo info;
    info.pid = std::atoi(name.c_str());
    rest >> info.state >> info.ppid >> info.pgrp;
    all.push_back(info);
  }
  ::closedir(dir);
  return all;
}

// Processes of a group that still run (zombies left to an init that never reaps are not running).
inline std::vector<ProcInfo> liveMembersOfGroup(int pgrp) {
  std::vector<ProcInfo> members;
  for (const ProcInfo& p : allProcesses()) {
    if (p.pgrp == pgrp && p.state != 'Z' && p.state != 'X') members.push_back(p);
  }
  return members;
}

// Zombie children of a process: children it never reaped.
inline std::vector<ProcInfo> zombieChildrenOf(int parent) {
  std::vector<ProcInfo> zombies;
  for (const ProcInfo& p : allProcesses()) {
    if (p.ppid == parent && p.state == 'Z') zombies.push_back(p);
  }
  return zombies;
}

// Waits, bounded, until no live process is left in the group.
inline bool groupGone(int pgrp, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!liveMembersOfGroup(pgrp).empty()) {
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
