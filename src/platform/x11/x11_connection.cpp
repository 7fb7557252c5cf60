#include "platform/x11/x11_connection.h"

#include <poll.h>

namespace tervain::x11 {
namespace {

// The error handler is process-wide in Xlib and runs on the thread that reads the error, which is
// the thread holding that display's lock: a thread-local flag carries the failure back.
thread_local bool requestFailed = false;

int onError(Display*, XErrorEvent*) {
  requestFailed = true;
  return 0;
}

int onIOError(Display*) { return 0; }

void initialiseOnce() {
  static std::once_flag once;
  std::call_once(once, [] {
    XInitThreads();
    XSetErrorHandler(onError);
    XSetIOErrorHandler(onIOError);
  });
}

}  // namespace

// Called instead of exit() when the connection breaks: the display is marked and left alone
// (closing it would call back here), and the next run() opens a fresh one.
void onLostConnectionExit(Display*, void* self) {
  static_cast<Connection*>(self)->lost = true;
  requestFailed = true;
}

Connection::Connection(std::string name) : name(std::move(name)) { initialiseOnce(); }

Connection::~Connection() {
  if (display != nullptr && !lost) XCloseDisplay(display);
}

Display* Connection::openLocked() {
  if (display != nullptr && !lost) return display;
  // A lost Display is leaked on purpose: Xlib cannot close it safely.
  display = XOpenDisplay(name.empty() ? nullptr : name.c_str());
  lost = false;
  if (display != nullptr) {
    XSetIOErrorExitHandler(display, onLostConnectionExit, this);
    ++opened;
  }
  return display;
}

void Connection::beginRequestsLocked() { requestFailed = false; }

bool Connection::endRequestsLocked() {
  if (!lost) XSync(display, False);
  return !requestFailed && !lost;
}

bool Connection::requestFailedLocked() const { return requestFailed || lost; }

bool Connection::takeRequestFailure() {
  const bool failed = requestFailed;
  requestFailed = false;
  return failed;
}

bool Connection::answers() {
  {
    std::lock_guard lock(mutex);
    if (display != nullptr && !lost) {
      pollfd quiet{ConnectionNumber(display), POLLIN, 0};
      if (::poll(&quiet, 1, 0) == 0) return true;
    }
  }
  return run([](Display*) { return true; });
}

bool Connection::hasExtension(const char* extension) {
  std::lock_guard lock(mutex);
  Display* d = openLocked();
  if (d == nullptr) return false;
  if (extensionsOf != opened) {
    extensions.clear();
    extensionsOf = opened;
  }
  if (const auto known = extensions.find(std::string_view(extension)); known != extensions.end()) {
    return known->second;
  }
  beginRequestsLocked();
  int opcode = 0, event = 0, error = 0;
  const bool present = XQueryExtension(d, extension, &opcode, &event, &error) == True;
  // The reply came, so the server has handled everything before it; a lost server is not asked
  // again as if it had answered.
  if (requestFailedLocked()) return false;
  extensions.emplace(extension, present);
  return present;
}

}  // namespace tervain::x11
