#include "platform/x11/x11_input.h"

#include <X11/XKBlib.h>
#include <X11/Xatom.h>
#include <X11/extensions/XTest.h>
#include <X11/keysym.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <optional>
#include <set>
#include <vector>

namespace tervain::x11 {
namespace {

constexpr std::pair<ModifierKeys, KeySym> kModifierKeys[] = {
    {ModifierKey::shift, XK_Shift_L},
    {ModifierKey::control, XK_Control_L},
    {ModifierKey::alt, XK_Alt_L},
    {ModifierKey::super, XK_Super_L},
};

bool sendKey(Display* display, KeyCode code, bool down) {
  return code != 0 && XTestFakeKeyEvent(display, code, down ? True : False, CurrentTime) != 0;
}

bool sendButton(Display* display, unsigned int button, bool down) {
  return XTestFakeButtonEvent(display, button, down ? True : False, CurrentTime) != 0;
}

// The core keymap as one snapshot: where each keysym is, and which keycodes carry nothing.
struct Keymap {
  int minCode = 0, perCode = 0;
  std::vector<KeySym> syms;  // (keycode - minCode) * perCode + level

  bool load(Display* display) {
    int maxCode = 0;
    XDisplayKeycodes(display, &minCode, &maxCode);
    KeySym* all = XGetKeyboardMapping(display, static_cast<KeyCode>(minCode),
                                      maxCode - minCode + 1, &perCode);
    if (all == nullptr) return false;
    syms.assign(all, all + static_cast<std::size_t>((maxCode - minCode + 1) * perCode));
    XFree(all);
    return perCode > 0;
  }
  int codes() const { return perCode == 0 ? 0 : static_cast<int>(syms.size()) / perCode; }
  KeySym at(int index, int level) const {
    return level < perCode ? syms[static_cast<std::size_t>(index * perCode + level)] : NoSymbol;
  }

  struct Place {
    KeyCode code = 0;
    bool shifted = false;
  };
  // The first key carrying the keysym on its plain or shifted level of the first group.
  std::optional<Place> find(KeySym keysym) const {
    for (int level = 0; level < 2; ++level) {
      for (int i = 0; i < codes(); ++i) {
        if (at(i, level) == keysym) return Place{static_cast<KeyCode>(minCode + i), level == 1};
      }
    }
    return std::nullopt;
  }
  std::vector<KeyCode> spares() const {
    std::vector<KeyCode> result;
    for (int i = 0; i < codes(); ++i) {
      bool empty = true;
      for (int level = 0; level < perCode && empty; ++level) empty = at(i, level) == NoSymbol;
      if (empty) result.push_back(static_cast<KeyCode>(minCode + i));
    }
    return result;
  }
};

// The window whose client reads the keys, when it answers the window manager's ping: the focus
// window or its nearest ancestor with _NET_WM_PING among its WM_PROTOCOLS. 0 when there is none.
Window pingableFocus(Display* display) {
  Window focus = 0;
  int revert = 0;
  XGetInputFocus(display, &focus, &revert);
  const Atom protocols = XInternAtom(display, "WM_PROTOCOLS", False);
  const Atom ping = XInternAtom(display, "_NET_WM_PING", False);
  const Window root = DefaultRootWindow(display);
  for (int depth = 0; depth < 16 && focus != 0 && focus != PointerRoot && focus != root; ++depth) {
    Atom type = 0;
    int format = 0;
    unsigned long count = 0, after = 0;
    unsigned char* data = nullptr;
    if (XGetWindowProperty(display, focus, protocols, 0, 64, False, XA_ATOM, &type, &format,
                           &count, &after, &data) == Success &&
        data != nullptr && format == 32) {
      const auto* atoms = reinterpret_cast<const unsigned long*>(data);  // widened to long
      const bool answers = std::find(atoms, atoms + count, ping) != atoms + count;
      XFree(data);
      if (answers) return focus;
    } else if (data != nullptr) {
      XFree(data);
    }
    Window rootReturn = 0, parent = 0;
    Window* children = nullptr;
    unsigned int childCount = 0;
    if (XQueryTree(display, focus, &rootReturn, &parent, &children, &childCount) == 0) break;
    if (children != nullptr) XFree(children);
    focus = parent;
  }
  return 0;
}

// Waits until the client of `window` has read every event the server sent it before this call:
// the client echoes a ping to the root window when it reaches the message, and X hands a client
// its events in order, so by then it has looked up every key sent before. False when no echo
// came within the limit (a client that hangs, or a connection that broke).
bool waitUntilRead(Display* display, Window window, std::chrono::milliseconds limit) {
  static std::atomic<long> lastStamp{0};
  const long stamp = ++lastStamp;
  const Window root = DefaultRootWindow(display);
  const Atom protocols = XInternAtom(display, "WM_PROTOCOLS", False);
  const Atom pingAtom = XInternAtom(display, "_NET_WM_PING", False);
  XWindowAttributes rootAttributes{};
  XGetWindowAttributes(display, root, &rootAttributes);
  // The echo goes to whoever listens for the root's substructure; the window manager does too.
  XSelectInput(display, root, rootAttributes.your_event_mask | SubstructureNotifyMask);

  XEvent ping{};
  ping.xclient.type = ClientMessage;
  ping.xclient.window = window;
  ping.xclient.message_type = protocols;
  ping.xclient.format = 32;
  ping.xclient.data.l[0] = static_cast<long>(pingAtom);
  ping.xclient.data.l[1] = stamp;
  ping.xclient.data.l[2] = static_cast<long>(window);
  XSendEvent(display, window, False, NoEventMask, &ping);
  XFlush(display);

  struct Wanted {
    Window root;
    Atom protocols;
    long stamp;
  } wanted{root, protocols, stamp};
  const auto isEcho = [](Display*, XEvent* e, XPointer arg) -> Bool {
    const auto* w = reinterpret_cast<const Wanted*>(arg);
    return e->type == ClientMessage && e->xclient.window == w->root &&
           e->xclient.message_type == w->protocols && e->xclient.data.l[1] == w->stamp;
  };
  const auto deadline = std::chrono::steady_clock::now() + limit;
  bool echoed = false;
  for (int round = 0; round < 100'000 && !echoed; ++round) {
    XEvent event;
    if (XCheckIfEvent(display, &event, isEcho, reinterpret_cast<XPointer>(&wanted))) {
      echoed = true;
      break;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) break;
    pollfd p{ConnectionNumber(display), POLLIN, 0};
    const int ready = ::poll(&p, 1, static_cast<int>(std::min<long>(left.count(), 50)));
    if (ready > 0 && (p.revents & (POLLHUP | POLLERR)) != 0) break;
    if (ready > 0) XEventsQueued(display, QueuedAfterReading);
  }
  XSelectInput(display, root, rootAttributes.your_event_mask);
  // What the root reported meanwhile is nobody's business here.
  const auto fromRoot = [](Display*, XEvent* e, XPointer arg) -> Bool {
    return e->xany.window == *reinterpret_cast<const Window*>(arg);
  };
  XEvent dropped;
  Window rootWindow = root;
  for (int i = 0; i < 10'000 && XCheckIfEvent(display, &dropped, fromRoot,
                                               reinterpret_cast<XPointer>(&rootWindow));
       ++i) {
  }
  return echoed;
}

}  // namespace

bool Input::available() { return connection.hasExtension("XTEST"); }

bool Input::modifierKeys(Display* display, ModifierKeys modifiers, bool down) {
  bool ok = true;
  const auto apply = [&](const std::pair<ModifierKeys, KeySym>& entry) {
    if ((modifiers & entry.first) != 0) {
      ok = sendKey(display, XKeysymToKeycode(display, entry.second), down) && ok;
    }
  };
  // Pressed in order, released in reverse, like a person's chord.
  if (down) {
    for (const auto& entry : kModifierKeys) apply(entry);
  } else {
    for (auto it = std::rbegin(kModifierKeys); it != std::rend(kModifierKeys); ++it) apply(*it);
  }
  return ok;
}

bool Input::moveTo(int x, int y, ModifierKeys modifiers) {
  return connection.run([&](Display* display) {
    bool ok = modifierKeys(display, modifiers, true);
    ok = XTestFakeMotionEvent(display, -1, x, y, CurrentTime) != 0 && ok;
    return modifierKeys(display, modifiers, false) && ok;
  });
}

bool Input::button(unsigned int which, bool down, ModifierKeys modifiers) {
  return connection.run([&](Display* display) {
    if (down) return modifierKeys(display, modifiers, true) && sendButton(display, which, true);
    const bool ok = sendButton(display, which, false);
    return modifierKeys(display, modifiers, false) && ok;
  });
}

bool Input::scroll(int vertical, int horizontal, ModifierKeys modifiers) {
  return connection.run([&](Display* display) {
    bool ok = modifierKeys(display, modifiers, true);
    const auto notches = [&](int amount, unsigned int positive, unsigned int negative) {
      const unsigned int which = amount > 0 ? positive : negative;
      for (int i = 0; i < (amount > 0 ? amount : -amount); ++i) {
        ok = sendButton(display, which, true) && sendButton(display, which, false) && ok;
      }
    };
    notches(vertical, 4, 5);
    notches(horizontal, 6, 7);
    return modifierKeys(display, modifiers, false) && ok;
  });
}

bool Input::key(KeySymValue keysym, bool down, ModifierKeys modifiers) {
  // A key the keymap lacks (F13 to F15 on many) is bound to a spare keycode for good: a press
  // and its release come in two calls, and nothing else needs the keycode.
  bool bound = false;
  const bool answered = connection.run([&](Display* display) {
    if (XKeysymToKeycode(display, keysym) != 0) return true;
    std::lock_guard lock(typing);
    Keymap keymap;
    if (!keymap.load(display)) return false;
    const std::vector<KeyCode> spares = keymap.spares();
    if (spares.empty()) return false;
    std::vector<KeySym> levels(static_cast<std::size_t>(keymap.perCode), NoSymbol);
    std::fill_n(levels.begin(), std::min(2, keymap.perCode), keysym);
    // The last spare: typing rotates from the first ones.
    XChangeKeyboardMapping(display, spares.back(), keymap.perCode, levels.data(), 1);
    bound = true;
    return true;
  });
  if (!answered) return false;
  if (bound) ::usleep(kRemapSettleMicros);
  return connection.run([&](Display* display) {
    const KeyCode code = XKeysymToKeycode(display, keysym);
    if (code == 0) return false;
    if (down) return modifierKeys(display, modifiers, true) && sendKey(display, code, true);
    const bool ok = sendKey(display, code, false);
    return modifierKeys(display, modifiers, false) && ok;
  });
}

bool Input::type(std::u32string_view text) {
  std::lock_guard lock(typing);
  Keymap keymap;
  KeyCode shift = 0;
  Window reader = 0;
  if (!connection.run([&](Display* display) {
        shift = XKeysymToKeycode(display, XK_Shift_L);
        reader = pingableFocus(display);
        return keymap.load(display);
      })) {
    return false;
  }
  const std::vector<KeyCode> spares = keymap.spares();

  // What the spare keycodes carry now: a character stays bound from one batch to the next while
  // the text needs it (every remapping makes each client, the window manager too, read the
  // keymap again), and all are cleared at the end.
  std::map<KeyCode, KeySym> carried;
  using Change = std::pair<KeyCode, KeySym>;  // NoSymbol clears
  const auto remap = [&](const std::vector<Change>& changes) {
    return connection.run([&](Display* display) {
      for (const auto& [code, keysym] : changes) {
        // The plain and shifted levels of the first group carry the character, so a held
        // Shift cannot change it; the rest stays empty, which the server turns into a plain
        // one-group key.
        std::vector<KeySym> levels(static_cast<std::size_t>(keymap.perCode), NoSymbol);
        if (keysym != NoSymbol) std::fill_n(levels.begin(), std::min(2, keymap.perCode), keysym);
        XChangeKeyboardMapping(display, code, keymap.perCode, levels.data(), 1);
        if (keysym == NoSymbol) {
          carried.erase(code);
        } else {
          carried[code] = keysym;
        }
      }
      return true;
    });
  };

  bool ok = true;
  std::size_t start = 0;
  while (ok && start < text.size()) {
    // One batch: the longest run of text whose missing characters fit on the spare keycodes.
    struct Stroke {
      KeyCode code;
      bool shifted;
    };
    std::vector<Stroke> strokes;
    std::map<KeySym, KeyCode> bound;
    std::set<KeyCode> used;
    std::size_t end = start;
    for (; end < text.size(); ++end) {
      const KeySym keysym = keysymForCodePoint(text[end]);
      if (const auto place = keymap.find(keysym)) {
        strokes.push_back({place->code, place->shifted});
        continue;
      }
      if (const auto it = bound.find(keysym); it != bound.end()) {
        strokes.push_back({it->second, false});
        continue;
      }
      if (bound.size() == spares.size()) break;
      // The keycode that carries it already, else the next one in turn this batch leaves free.
      KeyCode code = 0;
      for (const auto& [c, k] : carried) {
        if (k == keysym && !used.contains(c)) code = c;
      }
      for (std::size_t tries = 0; code == 0 && tries < spares.size(); ++tries) {
        const KeyCode candidate = spares[nextSpare++ % spares.size()];
        if (!used.contains(candidate)) code = candidate;
      }
      bound.emplace(keysym, code);
      used.insert(code);
      strokes.push_back({code, false});
    }
    if (end == start) {
      ok = false;  // a missing character and no spare keycode at all
      break;
    }

    std::vector<Change> changes;
    for (const auto& [keysym, code] : bound) {
      if (const auto it = carried.find(code); it == carried.end() || it->second != keysym) {
        changes.emplace_back(code, keysym);
      }
    }
    if (!changes.empty()) {
      if (!remap(changes)) return false;
      // The client looks the keys up when it reads them, after the remapping's notice, which
      // reaches it first: no wait is needed unless a later remapping comes too early.
      if (reader == 0) ::usleep(kRemapSettleMicros);
    }
    bool read = bound.empty();
    ok = connection.run([&](Display* display) {
      bool sent = true;
      for (const Stroke& stroke : strokes) {
        if (stroke.shifted) sent = sendKey(display, shift, true) && sent;
        sent = sendKey(display, stroke.code, true) && sendKey(display, stroke.code, false) && sent;
        if (stroke.shifted) sent = sendKey(display, shift, false) && sent;
      }
      // The bindings stay until the client has read these keys: a busy client (an
      // accessibility bridge at work) reads them many settle times later.
      if (!read && reader != 0) read = waitUntilRead(display, reader, kReadLimit);
      return sent;
    });
    if (!read) {
      // A client that does not answer pings, or hangs: the settle time is all there is.
      reader = 0;
      ::usleep(kRemapSettleMicros);
    }
    start = end;
  }
  std::vector<Change> clear;
  for (const auto& [code, keysym] : carried) clear.emplace_back(code, NoSymbol);
  if (!clear.empty() && !remap(clear)) return false;
  return ok;
}

}  // namespace tervain::x11
