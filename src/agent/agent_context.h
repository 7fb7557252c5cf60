// What every connection of one agent process shares.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <utility>

#include "platform/desktop.h"

namespace tervain {

// Built once at start-up and never changed afterwards, so connection threads read it without
// locks. Tests build their own with a scripted desktop and shorter limits.
struct AgentContext {
  explicit AgentContext(Desktop& d) : desktop(d) {}

  Desktop& desktop;

  // How long "screenshot" waits for its capture before it answers "screenshot timed out".
  std::chrono::milliseconds screenshotTimeout{15'000};
  // How long "launch_app" waits for the desktop to acknowledge a launch.
  std::chrono::milliseconds launchTimeout{15'000};
  // Runs a job off the calling thread. The job owns everything it touches, since it may outlive
  // the request that started it. By default each job gets a new detached thread.
  std::function<void(std::function<void()>)> startWorker = [](std::function<void()> job) {
    std::thread(std::move(job)).detach();
  };
};

}  // namespace tervain
