// The agent's one logging function and its one error type.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace tervain {

// Writes "[TervainVMAgent] " + message + "\n" to standard error as one write, so lines from
// concurrent threads never interleave. Never waits for standard error: lines are queued for one
// writer thread, and when a reader of standard error falls behind by more than the queue holds
// (64 KiB), further lines are dropped and counted, and a line saying how many follows once
// writing goes on. Lines still queued when the process exits are written first (for at most
// two seconds).
void agentLog(std::string_view message);

// Waits (at most two seconds) until every queued line is written: for a process about to end
// without running its exit handlers (std::_Exit).
void flushAgentLog();

// A failed system call: what failed, as a short phrase, and the errno value. Its description is
// the phrase, " failed: " and the system's text for the errno.
class AgentError : public std::runtime_error {
 public:
  static AgentError posix(std::string what, std::int32_t errnoValue);

  const std::string& phrase() const { return phrase_; }
  std::int32_t errnoValue() const { return errno_; }

 private:
  AgentError(std::string phrase, std::int32_t errnoValue, const std::string& description);
  std::string phrase_;
  std::int32_t errno_;
};

}  // namespace tervain
