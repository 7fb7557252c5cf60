// Input through the XTEST extension: pointer motion, buttons, scroll notches, keys with
// modifiers, and typing of any Unicode text.
//
// Typing goes by the keymap where it can: a character on the keymap is its key (with Shift when
// it sits on the shifted level). A character the keymap lacks is bound for the moment to a spare
// keycode (one with no keysym at all), typed, and the keycode is cleared again. Clients look a
// keycode up when they read its event, not when it is sent, and a busy one reads late: a
// binding may only go once the client has read every key that uses it. When the focused window
// answers the window manager's ping, the ping sent after the keys says so (its echo comes back
// once the client has read everything before it); otherwise a settle time has to do, before the
// keys and again before the binding goes. To pay that once per batch rather than once per
// character, a batch binds as many distinct characters as there are spare keycodes and types the
// whole run of text they cover (keymap characters included); a character the next batch needs
// too keeps its keycode, and the keycodes are cleared when the text is done.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string_view>

#include "platform/x11/x11_connection.h"
#include "platform/x11/x11_keys.h"

namespace tervain::x11 {

// Modifier keys held around an event (Super is the wire's command key, Alt its option key).
using ModifierKeys = std::uint32_t;
namespace ModifierKey {
inline constexpr ModifierKeys shift = 1u << 0, control = 1u << 1, alt = 1u << 2, super = 1u << 3;
}

class Input {
 public:
  // The connection outlives this object.
  explicit Input(Connection& connection) : connection(connection) {}

  // True when the display answers and has XTEST.
  bool available();

  // Each returns false when the display does not answer or an event could not be made; the
  // modifier keys are pressed before the event and released after it.
  bool moveTo(int x, int y, ModifierKeys modifiers = 0);
  // button: 1 left, 2 middle, 3 right. A press holds the modifiers down until the release.
  bool button(unsigned int button, bool down, ModifierKeys modifiers = 0);
  // Whole notches: positive vertical is up (button 4), negative down (5); positive horizontal is
  // left (6), negative right (7). One press and release a notch.
  bool scroll(int vertical, int horizontal, ModifierKeys modifiers = 0);
  // A key by keysym. A keysym no key carries is bound to a spare keycode and stays bound; false
  // (nothing sent) when there is none. A press holds the modifiers down until the release.
  bool key(KeySymValue keysym, bool down, ModifierKeys modifiers = 0);
  // Types text whatever the keymap; false when the display does not answer, or when a
  // character is neither on the keymap nor can be bound (no spare keycode).
  bool type(std::u32string_view text);

  // Time a remapping needs to reach the clients, in microseconds (see above). An idle machine
  // needs 5 ms; a busy one (a CI runner building in parallel) several times that.
  static constexpr unsigned int kRemapSettleMicros = 25'000;
  // How long a client that answers pings may take to read a batch of keys before the bindings
  // go anyway (it hangs: the keys are lost to it whatever we do).
  static constexpr std::chrono::milliseconds kReadLimit{3000};

 private:
  bool modifierKeys(Display* display, ModifierKeys modifiers, bool down);

  Connection& connection;
  std::mutex typing;       // one text at a time: batches of two texts would share spare keycodes
  std::size_t nextSpare = 0;  // rotation through the spare keycodes, under typing
};

}  // namespace tervain::x11
