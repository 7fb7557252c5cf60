#include "agent/agent_log.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace tervain {
namespace {

constexpr std::string_view kPrefix = "[TervainVMAgent] ";
// Lines waiting for standard error, at most. Past this the agent drops lines rather than wait:
// nobody reading its standard error must never stop it serving.
constexpr std::size_t kQueuedBytesLimit = 64 * 1024;
// How long the agent, ending, waits for its last lines to be written.
constexpr auto kExitFlushLimit = std::chrono::seconds(2);

void writeLine(std::string_view line) {
  const char* p = line.data();
  std::size_t left = line.size();
  while (left > 0) {
    const ssize_t n = ::write(STDERR_FILENO, p, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;  // nowhere to log to; the agent goes on regardless
    p += n;
    left -= static_cast<std::size_t>(n);
  }
}

// Lines are queued by any thread and written, in order, by one writer thread: only that thread
// ever blocks on standard error.
struct LogQueue {
  std::mutex mutex;
  std::condition_variable wake;     // the writer waits for lines
  std::condition_variable written;  // an ending process waits for the queue to empty
  std::vector<std::string> lines;
  std::size_t queuedBytes = 0;
  std::uint64_t dropped = 0;  // lines given up since the writer last looked
  bool writing = false;

  [[noreturn]] void writeForever() {
    std::vector<std::string> batch;
    for (;;) {
      std::unique_lock lock(mutex);
      writing = false;
      written.notify_all();
      wake.wait(lock, [this] { return !lines.empty() || dropped > 0; });
      batch.swap(lines);
      queuedBytes = 0;
      const std::uint64_t lost = std::exchange(dropped, 0);
      writing = true;
      lock.unlock();
      for (const std::string& line : batch) writeLine(line);
      batch.clear();
      if (lost > 0) {
        writeLine(std::string(kPrefix) + std::to_string(lost) +
                  " log lines dropped: standard error was not being read\n");
      }
    }
  }

  void flush() {
    std::unique_lock lock(mutex);
    written.wait_for(lock, kExitFlushLimit,
                     [this] { return lines.empty() && dropped == 0 && !writing; });
  }
};

// Made on first use and never destroyed: the detached writer may outlive every static.
LogQueue* logQueue() {
  static LogQueue* const queue = []() -> LogQueue* {
    auto* made = new LogQueue;
    try {
      std::thread([made] { made->writeForever(); }).detach();
    } catch (const std::system_error&) {
      delete made;
      return nullptr;  // no thread to spare: lines are written directly
    }
    std::atexit([] { logQueue()->flush(); });
    return made;
  }();
  return queue;
}

}  // namespace

void agentLog(std::string_view message) {
  std::string line;
  line.reserve(kPrefix.size() + message.size() + 1);
  line.append(kPrefix).append(message).push_back('\n');
  LogQueue* queue = logQueue();
  if (queue == nullptr) {
    writeLine(line);
    return;
  }
  const std::lock_guard lock(queue->mutex);
  if (queue->queuedBytes + line.size() > kQueuedBytesLimit) {
    ++queue->dropped;
    return;
  }
  queue->queuedBytes += line.size();
  queue->lines.push_back(std::move(line));
  queue->wake.notify_one();
}

void flushAgentLog() {
  if (LogQueue* queue = logQueue()) queue->flush();
}

AgentError AgentError::posix(std::string what, std::int32_t errnoValue) {
  std::string description = what + " failed: " + std::strerror(errnoValue);
  return AgentError(std::move(what), errnoValue, description);
}

AgentError::AgentError(std::string phrase, std::int32_t errnoValue,
                       const std::string& description)
    : std::runtime_error(description), phrase_(std::move(phrase)), errno_(errnoValue) {}

}  // namespace tervain
