// Top-level windows through the window manager (EWMH): which client window belongs to a frame
// that AT-SPI reports, and the requests a pager makes of the window manager for it.
#pragma once

#include <X11/Xlib.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/x11/x11_connection.h"

namespace tervain::x11 {

// One client window of the window manager, with its outer frame in root window pixels (the
// client's own rectangle grown by _NET_FRAME_EXTENTS).
struct ClientWindow {
  Window id = 0;
  std::string title;  // _NET_WM_NAME, else WM_NAME
  int x = 0, y = 0, width = 0, height = 0;
  int left = 0, right = 0, top = 0, bottom = 0;  // the frame extents
};

// The window manager's client windows (_NET_CLIENT_LIST) whose _NET_WM_PID is pid.
std::vector<ClientWindow> clientWindowsOf(Connection& connection, std::int32_t pid);

// The window of an AT-SPI frame among its application's client windows. AT-SPI names neither the
// X window nor a stable id, so it is matched: the only window of the pid; else the windows of
// that title (every one when none has it, or when the title is empty), and of those the one
// whose outer frame lies nearest to the frame AT-SPI reports (a minimised frame reports none:
// the first one then). What fails: two windows of one application with the same title and
// frame (stacked exactly on top of each other) are told apart only by chance, and a window whose
// client does not set _NET_WM_PID is never found.
std::optional<ClientWindow> matchWindow(const std::vector<ClientWindow>& candidates,
                                        const std::string& title, std::optional<int> frameX,
                                        std::optional<int> frameY);

// Requests of the window manager, sent as a pager does (source indication 2). The window
// manager acts on them later, or not at all; true when the display took them.
bool activateWindow(Connection& connection, Window window);  // raises and unminimises
bool minimizeWindow(Connection& connection, Window window);
bool unminimizeWindow(Connection& connection, Window window);
bool closeWindow(Connection& connection, Window window);
// The outer frame's new top-left, or its new size (the client's size is that less the frame).
bool moveWindow(Connection& connection, const ClientWindow& window, int x, int y);
bool resizeWindow(Connection& connection, const ClientWindow& window, int width, int height);

// The pids that own a client window (_NET_CLIENT_LIST); nothing when the window manager keeps
// no such list.
std::optional<std::vector<std::int32_t>> clientPids(Connection& connection);

}  // namespace tervain::x11
