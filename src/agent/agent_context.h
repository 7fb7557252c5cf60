// What every connection of one agent process shares.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <utility>

#include "core/shared_limit.h"
#include "platform/desktop.h"

namespace tervain {

// Built once at start-up and never changed afterwards, so connection threads read it without
// locks; only the two shared limits count, atomically. Tests build their own with a scripted
// desktop and smaller limits.
struct AgentContext {
  explicit AgentContext(Desktop& d) : desktop(d) {}

  Desktop& desktop;

  // How long "screenshot" waits for its capture before it answers "screenshot timed out".
  std::chrono::milliseconds screenshotTimeout{15'000};
  // How long "launch_app" waits for the desktop to acknowledge a launch.
  std::chrono::milliseconds launchTimeout{15'000};
  // Runs a job off the calling thread. The job owns everything it touches, since it may outlive
  // the request that started it. By default each job gets a new detached thread.
  // Connections served at once: the listener closes any further one at once, with a log line,
  // until one ends. Each costs a thread and a 64 KiB read buffer.
  SharedLimit connections{512};
  // Bytes of unfinished request lines held by all connections together: a connection that would
  // pass it is closed, as one that passes the 4 MiB bound of a single line is.
  SharedLimit pendingLineBytes{64 * 1024 * 1024};
  std::function<void(std::function<void()>)> startWorker = [](std::function<void()> job) {
    std::thread(std::move(job)).detach();
  };
};

}  // namespace tervain
