// Hands one result from a worker to a thread that waits for it with a deadline.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <utility>

namespace tervain {

// Shared (through shared_ptr) by the waiter and the worker, so whichever lets go last frees it:
// a worker that finishes after the waiter gave up still has a box to fill. The first value put
// is kept; later ones are dropped.
template <typename T>
class ResultBox {
 public:
  void put(T result) {
    {
      std::lock_guard lock(mutex);
      if (value) return;
      value = std::move(result);
    }
    filled.notify_all();
  }

  // Takes the value once it is there (for the one waiter), or nothing when the timeout passes
  // first.
  std::optional<T> waitFor(std::chrono::nanoseconds timeout) {
    std::unique_lock lock(mutex);
    if (!filled.wait_for(lock, timeout, [this] { return value.has_value(); })) return std::nullopt;
    return std::move(value);
  }

 private:
  std::mutex mutex;
  std::condition_variable filled;
  std::optional<T> value;
};

}  // namespace tervain
