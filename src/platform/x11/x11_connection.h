// One connection to an X display, shared by threads under a lock.
//
// Xlib's defaults end the process on any protocol error and on a lost connection. This class
// installs handlers that record errors instead: a request that fails shows as a false result of
// run(), and a lost connection is reopened on the next use, so an X server that restarts does not
// take the agent with it.
#pragma once

#include <X11/Xlib.h>

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

namespace tervain::x11 {

class Connection {
 public:
  // name: an X display name; empty means $DISPLAY. Nothing is opened until first use.
  explicit Connection(std::string name = {});
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Runs fn(Display*) under the lock, opening the display first when needed, then waits for the
  // server to have handled every request fn made. True when the display answered and no request
  // failed. fn returns whether it got what it wanted (false makes run() false too).
  template <typename F>
  bool run(F&& fn) {
    std::lock_guard lock(mutex);
    Display* display = openLocked();
    if (display == nullptr) return false;
    beginRequestsLocked();
    const bool wanted = fn(display);
    return endRequestsLocked() && wanted;
  }

  // run() for an fn whose last request waited for its reply (or that made none): the server has
  // answered every earlier request by then, and their errors are in, without a further round
  // trip.
  template <typename F>
  bool runAwaited(F&& fn) {
    std::lock_guard lock(mutex);
    Display* display = openLocked();
    if (display == nullptr) return false;
    beginRequestsLocked();
    const bool wanted = fn(display);
    return !requestFailedLocked() && wanted;
  }

  // Inside run(): whether a request failed since the last call (or since run() began), and
  // forget it. For code that tries a request and falls back when the server refuses it.
  static bool takeRequestFailure();

  // True when the display can be opened and answers a round trip. An open connection whose
  // socket holds nothing (no bytes, no hang-up) answers without one: the server is still there,
  // and the next request finds out if it hangs.
  bool answers();
  // True when the server has the extension (for example "XTEST", "MIT-SHM"). Asked once per
  // opening of the display: a server does not gain or lose extensions while it runs.
  bool hasExtension(const char* name);

  // Inside run(): which opening of the display this is (1 for the first). State kept about the
  // server (a shared memory segment, for one) is stale once it changes.
  std::uint64_t generation() const { return opened; }

 private:
  Display* openLocked();
  void beginRequestsLocked();
  bool endRequestsLocked();
  bool requestFailedLocked() const;

  std::mutex mutex;
  std::string name;
  Display* display = nullptr;
  bool lost = false;  // the server went away; the Display is unusable and reopened on next use
  std::uint64_t opened = 0;
  std::map<std::string, bool, std::less<>> extensions;  // what this opening's server said
  std::uint64_t extensionsOf = 0;                        // the opening they belong to
  friend void onLostConnectionExit(Display*, void*);
};

}  // namespace tervain::x11
