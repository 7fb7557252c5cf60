// The X11 building blocks against the test desktop's real X server, read back through a window
// of the test's own and through X queries.
// GoogleTest first: Xlib's headers define macros (None, Bool) that clash with its names.
#include <gtest/gtest.h>
// clang-format off
#include <X11/Xlib.h>
#include <X11/keysym.h>
// clang-format on

#include <memory>
#include <thread>

#include "core/key_map.h"
#include "decoded_image.h"
#include "desktop_session.h"
#include "desktop/x_window.h"
#include "platform/x11/x11_capture.h"
#include "platform/x11/x11_input.h"
#include "platform/x11/x11_keys.h"
#include "platform/x11/x11_screen.h"
#include "platform/x11/x11_windows.h"

namespace tervain::x11 {
namespace {

using namespace std::chrono_literals;
using testing::XWindow;

class X11Blocks : public ::testing::Test {
 protected:
  void SetUp() override { REQUIRE_TEST_DESKTOP(); }
  Connection connection;
  Input input{connection};

  // Button numbers of the button presses among events.
  static std::vector<unsigned int> pressedButtons(const std::vector<XEvent>& events) {
    std::vector<unsigned int> buttons;
    for (const XEvent& e : events) {
      if (e.type == ButtonPress) buttons.push_back(e.xbutton.button);
    }
    return buttons;
  }
};

TEST_F(X11Blocks, TheScreenIsOnePrimaryMonitorAndThePointerGoesWhereItIsSent) {
  MonitorList list(connection);
  const std::vector<Monitor> found = list.current();
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0].width, 1920);
  EXPECT_EQ(found[0].height, 1080);
  EXPECT_TRUE(found[0].primary);
  EXPECT_TRUE(input.available());

  for (const auto& [x, y] : {std::pair{123, 456}, std::pair{0, 0}, std::pair{1919, 1079}}) {
    ASSERT_TRUE(input.moveTo(x, y));
    const auto at = pointer(connection);
    ASSERT_TRUE(at);
    EXPECT_EQ(at->x, x);
    EXPECT_EQ(at->y, y);
  }
}

TEST_F(X11Blocks, ButtonsAndScrollNotchesReachTheWindowUnderThePointer) {
  XWindow window(100, 100, 400, 300, 0x336699);
  ASSERT_TRUE(window.valid());
  ASSERT_TRUE(input.moveTo(300, 250));
  ASSERT_TRUE(input.button(3, true));
  ASSERT_TRUE(input.button(3, false));
  EXPECT_EQ(pressedButtons(window.events(2, 2s)), (std::vector<unsigned int>{3}));

  struct Case {
    int vertical, horizontal;
    std::vector<unsigned int> buttons;
  };
  const Case cases[] = {
      {2, 0, {4, 4}}, {-3, 0, {5, 5, 5}}, {0, 1, {6}}, {0, -2, {7, 7}}, {1, -1, {4, 7}}};
  for (const Case& c : cases) {
    ASSERT_TRUE(input.scroll(c.vertical, c.horizontal));
    EXPECT_EQ(pressedButtons(window.events(2 * c.buttons.size(), 2s)), c.buttons)
        << c.vertical << "," << c.horizontal;
  }
}

TEST_F(X11Blocks, KeysCarryTheirModifiersAndReleaseThem) {
  XWindow window(100, 100, 400, 300, 0x336699);
  ASSERT_TRUE(window.valid());
  const std::pair<ModifierKeys, unsigned int> cases[] = {
      {ModifierKey::shift, ShiftMask},
      {ModifierKey::control, ControlMask},
      {ModifierKey::alt, Mod1Mask},
      {ModifierKey::super, Mod4Mask},
      {ModifierKey::control | ModifierKey::shift, ControlMask | ShiftMask},
  };
  const unsigned int mask = ShiftMask | ControlMask | Mod1Mask | Mod4Mask;
  for (const auto& [modifiers, state] : cases) {
    ASSERT_TRUE(input.key(XK_s, true, modifiers));
    ASSERT_TRUE(input.key(XK_s, false, modifiers));
    bool seen = false;
    // A press and a release of the key and of each modifier.
    const auto count = 2u * (1u + static_cast<unsigned>(__builtin_popcount(modifiers)));
    for (const XEvent& e : window.events(count, 2s)) {
      if (e.type != KeyPress || XLookupKeysym(const_cast<XKeyEvent*>(&e.xkey), 0) != XK_s) continue;
      seen = true;
      EXPECT_EQ(e.xkey.state & mask, state) << "modifiers " << modifiers;
    }
    EXPECT_TRUE(seen) << "modifiers " << modifiers;
    // Nothing stays held once the key is up.
    EXPECT_EQ(pointer(connection)->buttonsAndModifiers & mask, 0u) << "modifiers " << modifiers;
  }
  // A keysym no key carries is bound to a spare key, and the client sees it.
  ASSERT_TRUE(input.key(XK_F15, true));
  ASSERT_TRUE(input.key(XK_F15, false));
  bool f15 = false;
  for (const XEvent& e : window.events(2, 2s)) {
    f15 = f15 || (e.type == KeyPress && XLookupKeysym(const_cast<XKeyEvent*>(&e.xkey), 0) == XK_F15);
  }
  EXPECT_TRUE(f15);
}

// Characters off the keymap are checked where a real application reads them (the end-to-end
// tests); here, that keymap characters arrive with the right shift level, and that typing leaves
// the keymap as it found it.
TEST_F(X11Blocks, TypingUsesTheKeymapAndLeavesItAsItWas) {
  XWindow window(100, 100, 400, 300, 0x336699);
  ASSERT_TRUE(window.valid());
  const auto keymap = [&] {
    int minCode = 0, maxCode = 0, per = 0;
    XDisplayKeycodes(window.display(), &minCode, &maxCode);
    KeySym* syms = XGetKeyboardMapping(window.display(), static_cast<KeyCode>(minCode),
                                       maxCode - minCode + 1, &per);
    std::vector<KeySym> all(syms, syms + (maxCode - minCode + 1) * per);
    XFree(syms);
    return all;
  };
  const std::vector<KeySym> before = keymap();

  const std::u32string plain = U"Hello, World! ~|{}aZ09\n";
  ASSERT_TRUE(input.type(plain));
  std::u32string got;
  for (int i = 0; i < 30 && got.size() < plain.size(); ++i) {
    window.events(256, 100ms);
    got += window.takeTypedText();
  }
  EXPECT_EQ(got, plain);

  // Characters off the keymap, bound and cleared again. (Many batches are left to the
  // application tests: every mapping change makes the window manager grab its keys again.)
  const std::u32string text = U"Wörld ü€→日本😀ß";
  ASSERT_TRUE(input.type(text));
  EXPECT_EQ(keymap(), before);
}

bool near(const unsigned char* rgb, unsigned long colour) {
  for (int c = 0; c < 3; ++c) {
    const int want = static_cast<int>((colour >> (16 - 8 * c)) & 0xff);
    if (std::abs(rgb[c] - want) > 24) return false;
  }
  return true;
}

TEST_F(X11Blocks, CaptureShowsWhatIsOnTheScreenWithTheCursorWhenAsked) {
  Connection captureConnection;
  Capture capture(captureConnection);
  XWindow window(200, 150, 300, 200, 0xd02020);
  ASSERT_TRUE(window.valid());
  ASSERT_TRUE(input.moveTo(1000, 600));

  const auto shot = [&](Area area, bool cursor) {
    std::string error;
    Encoded jpeg;
    EXPECT_TRUE(capture.grab(area, cursor, [&](const Pixels& p) { jpeg = encodeJpeg(p, 70); }, error))
        << error;
    EXPECT_TRUE(jpeg.ok) << jpeg.error;
    return testing::decodeImage(jpeg.bytes, false);
  };
  const testing::DecodedImage whole = shot({0, 0, 1920, 1080}, false);
  ASSERT_EQ(whole.width, 1920);
  ASSERT_EQ(whole.height, 1080);
  EXPECT_TRUE(near(whole.at(350, 250), 0xd02020));
  EXPECT_FALSE(near(whole.at(150, 250), 0xd02020));

  const testing::DecodedImage part = shot({200, 150, 300, 200}, false);
  ASSERT_EQ(part.width, 300);
  EXPECT_TRUE(near(part.at(0, 0), 0xd02020));
  EXPECT_TRUE(near(part.at(299, 199), 0xd02020));

  // The cursor changes pixels around the pointer, and only there.
  const testing::DecodedImage plain = shot({900, 500, 200, 200}, false);
  const testing::DecodedImage withCursor = shot({900, 500, 200, 200}, true);
  int changedNear = 0, changedFar = 0;
  for (int y = 0; y < 200; ++y) {
    for (int x = 0; x < 200; ++x) {
      const bool differs = std::abs(plain.at(x, y)[1] - withCursor.at(x, y)[1]) > 40;
      (std::abs(x - 100) < 24 && std::abs(y - 100) < 24 ? changedNear : changedFar) += differs;
    }
  }
  EXPECT_GT(changedNear, 10);
  EXPECT_EQ(changedFar, 0);

  EXPECT_TRUE(capture.sharedMemory()) << "the grabs fell back to XGetImage";
  std::string error;
  EXPECT_FALSE(capture.grab({1900, 0, 100, 100}, false, [](const Pixels&) {}, error));
  EXPECT_EQ(error, "the area is outside the screen");
}

TEST(X11Keys, EveryKeyOfTheWireHasItsKeysym) {
  for (const auto& [name, code] : KeyMap::keyCodes()) {
    const auto keysym = keysymForKeyCode(code);
    ASSERT_TRUE(keysym) << name;
    // Single characters are their own keysym; named keys are checked below.
    if (name.size() == 1) {
      EXPECT_EQ(*keysym, static_cast<unsigned char>(name[0])) << name;
    }
  }
  const std::pair<const char*, KeySymValue> named[] = {
      {"delete", XK_BackSpace}, {"forwarddelete", XK_Delete}, {"pageup", XK_Prior},
      {"pagedown", XK_Next},    {"esc", XK_Escape},           {"return", XK_Return},
      {"f1", XK_F1},            {"f5", XK_F5},                {"f15", XK_F15},
      {"left", XK_Left},        {"up", XK_Up},                {"home", XK_Home}};
  for (const auto& [name, keysym] : named) {
    EXPECT_EQ(keysymForKeyCode(KeyMap::keyCodes().at(name)), keysym) << name;
  }
  EXPECT_FALSE(keysymForKeyCode(10));
  EXPECT_EQ(keysymForCodePoint(U'ü'), 0xfcu);
  EXPECT_EQ(keysymForCodePoint(U'€'), 0x10020acu);
}

// An AT-SPI frame's X window: by title where it has one, else the nearest frame.
TEST(MatchWindow, TitleFirstThenTheNearestFrame) {
  const std::vector<ClientWindow> windows = {
      {.id = 1, .title = "", .x = 900, .y = 900},
      {.id = 2, .title = "Editor", .x = 10, .y = 10},
      {.id = 3, .title = "Editor", .x = 500, .y = 10},
      {.id = 4, .title = "Find", .x = 20, .y = 20},
  };
  const struct {
    std::string title;
    std::optional<int> x, y;
    Window expected;
  } cases[] = {
      {"Editor", 490, 5, 3},  // the nearer of two with that title
      {"Find", 900, 900, 4},  // the title wins over a nearer frame
      {"Gone", 899, 901, 1},  // no window has it: the nearest of all
      {"", 15, 15, 2},        // untitled AT-SPI frame: nearest, not the untitled X window
      {"Editor", std::nullopt, std::nullopt, 2},  // minimised: the first with the title
  };
  for (const auto& c : cases) {
    const auto found = matchWindow(windows, c.title, c.x, c.y);
    ASSERT_TRUE(found) << c.title;
    EXPECT_EQ(found->id, c.expected) << c.title;
  }
  EXPECT_FALSE(matchWindow({}, "Editor", 0, 0));
}

}  // namespace
}  // namespace tervain::x11
