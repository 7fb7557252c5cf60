// The CLIPBOARD selection, owned and read by a thread of its own.
//
// X keeps no clipboard content: the client that owns the selection answers every request for
// it, so the agent serves its own clipboard text for as long as it owns the selection. One
// thread does all of it on a connection of its own, with an unmapped window: it answers
// SelectionRequest (TARGETS, UTF8_STRING, STRING, TEXT), sending text larger than the server's
// basic request size in INCR chunks, and it makes the reads that other threads ask for (asking
// the current owner, INCR replies included; its own text straight from memory). Callers hand it
// a job and wait for the answer; every wait is bounded.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "core/unique_fd.h"
#include "platform/desktop.h"
#include "platform/x11/x11_connection.h"

namespace tervain::x11 {

class Clipboard {
 public:
  // displayName: an X display name; empty means $DISPLAY. The thread and its connection start
  // on first use.
  explicit Clipboard(std::string displayName = {});
  // Stops the thread: transfers in progress are dropped, and the selection is given up.
  ~Clipboard();
  Clipboard(const Clipboard&) = delete;
  Clipboard& operator=(const Clipboard&) = delete;

  // The owner's text (UTF-8; STRING is converted from Latin-1). Waits at most about 2 s for an
  // owner that does not answer.
  ClipboardText read();
  // Takes the selection with this text; nothing on success, else why not.
  std::optional<std::string> write(std::string text);

 private:
  struct Owner;  // the thread's state, defined in the .cpp and used on the thread only

  // Runs job on the thread and waits for it (at most `limit`); false when it did not run in time.
  bool call(std::function<void(Owner&)> job, std::chrono::milliseconds limit);
  void serve();

  Connection connection;
  std::mutex mutex;  // guards the members below
  std::condition_variable done;
  std::deque<std::function<void(Owner&)>> jobs;
  bool stopping = false;
  UniqueFd wakeRead, wakeWrite;
  std::thread thread;
};

}  // namespace tervain::x11
