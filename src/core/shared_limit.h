// A limit that many threads draw on at once: connections open, bytes held across connections.
#pragma once

#include <atomic>
#include <cstddef>

namespace tervain {

// Counts what all holders have taken against one limit, without a lock. Set `limit` before the
// first take(); it is read by every thread afterwards and never written again. A give() happens
// before a used() that sees its result, so whoever sees everything given back may free what
// the holders used.
class SharedLimit {
 public:
  explicit SharedLimit(std::size_t limit) : limit(limit) {}
  SharedLimit(const SharedLimit&) = delete;
  SharedLimit& operator=(const SharedLimit&) = delete;

  // Takes `amount` more; false, taking nothing, when the total would pass the limit.
  bool take(std::size_t amount) {
    std::size_t now = used_.load(std::memory_order_relaxed);
    do {
      if (amount > limit || now > limit - amount) return false;
    } while (!used_.compare_exchange_weak(now, now + amount, std::memory_order_acq_rel,
                                          std::memory_order_relaxed));
    return true;
  }

  // Gives back what an earlier take() got.
  void give(std::size_t amount) { used_.fetch_sub(amount, std::memory_order_release); }

  std::size_t used() const { return used_.load(std::memory_order_acquire); }

  std::size_t limit;

 private:
  std::atomic<std::size_t> used_{0};
};

// One holder's part of a SharedLimit, kept equal to what the holder holds now and given back
// when it ends. Used by one thread at a time.
class LimitShare {
 public:
  explicit LimitShare(SharedLimit& shared) : shared(shared) {}
  ~LimitShare() { shared.give(held); }
  LimitShare(const LimitShare&) = delete;
  LimitShare& operator=(const LimitShare&) = delete;

  std::size_t limit() const { return shared.limit; }

  // Makes the share `amount`: false, changing nothing, when growing it would pass the limit.
  bool hold(std::size_t amount) {
    if (amount > held) {
      if (!shared.take(amount - held)) return false;
    } else {
      shared.give(held - amount);
    }
    held = amount;
    return true;
  }

 private:
  SharedLimit& shared;
  std::size_t held = 0;
};

}  // namespace tervain
