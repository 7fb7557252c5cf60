// The X screen's monitors and the pointer.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/x11/x11_connection.h"

namespace tervain::x11 {

// One monitor in root window pixels. id is stable while the monitor exists (its RandR name
// atom, or 0 for the whole screen).
struct Monitor {
  std::uint32_t id = 0;
  int x = 0, y = 0, width = 0, height = 0;
  bool primary = false;
};

// The monitors RandR reports, the primary one flagged (the first when none is); the whole screen
// as one monitor when RandR is missing or reports none; empty when the display does not answer.
// Kept for a connection that nothing else reads events from (the capture's): the list is asked
// for again only when RandR has reported a change since, or the connection reopened, so a
// screenshot or a ping costs no round trip for it.
class MonitorList {
 public:
  explicit MonitorList(Connection& connection) : connection(connection) {}
  std::vector<Monitor> current();

 private:
  Connection& connection;
  std::mutex mutex;
  std::vector<Monitor> cached;
  std::uint64_t generation = 0;  // the connection's opening the list belongs to
};

struct PointerPosition {
  int x = 0, y = 0;
  unsigned int buttonsAndModifiers = 0;  // the X state mask (Button1Mask, ShiftMask, ...)
};

// The pointer on the root window; nothing when the display does not answer.
std::optional<PointerPosition> pointer(Connection& connection);

// The process id of the window manager's active window (_NET_ACTIVE_WINDOW, _NET_WM_PID);
// nothing when there is none or it does not say.
std::optional<std::int32_t> activeWindowPid(Connection& connection);

// The process ids of the window manager's client windows (_NET_CLIENT_LIST_STACKING) that contain
// the root window point, topmost first; a pid appears once. Empty when the display does not
// answer or the window manager keeps no such list.
std::vector<std::int32_t> pidsOfWindowsAt(Connection& connection, int x, int y);

}  // namespace tervain::x11
