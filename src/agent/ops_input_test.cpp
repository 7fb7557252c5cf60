#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cstdio>
#include <string>
#include <vector>

#include "agent/connection_handler.h"
#include "agent_process.h"
#include "fake_desktop.h"

namespace tervain {
namespace {

using testing::FakeInput;
using testing::TimelineStep;
using Steps = std::vector<std::string>;

constexpr const char* kNotGranted =
    "input synthesis (kTCCServicePostEvent) is not granted to the agent \u2014 re-run provisioning";

std::string number(double v) {
  char text[64];
  std::snprintf(text, sizeof text, "%.17g", v);
  return text;
}

class InputOpsTest : public ::testing::Test {
 protected:
  testing::FakeDesktop desktop;
  AgentContext context{desktop};
  ConnectionHandler handler{-1, context};

  Reply run(std::string_view line) { return handler.dispatch(line); }
  std::string error(std::string_view line) { return run(line).error(); }

  // The timeline from step `from` on, one line per step.
  Steps steps(std::size_t from = 0) const {
    Steps lines;
    const std::vector<TimelineStep> all = desktop.timeline();
    for (std::size_t i = from; i < all.size(); ++i) lines.push_back(testing::describe(all[i]));
    return lines;
  }
  std::size_t mark() const { return desktop.timeline().size(); }
};

TEST_F(InputOpsTest, MissingGrantIsReportedBeforeAnyMemberIsRead) {
  desktop.postEvents = false;
  for (const char* line :
       {R"({"op":"click"})", R"({"op":"move"})", R"({"op":"drag"})", R"({"op":"scroll"})",
        R"({"op":"type"})", R"({"op":"key"})", R"({"op":"click","x":1,"y":2})",
        R"({"op":"key","chord":"cmd+s"})", R"({"op":"mouse_down","x":1,"y":2})",
        R"({"op":"mouse_up"})", R"({"op":"key_down","key":"a"})", R"({"op":"key_up"})"}) {
    EXPECT_EQ(error(line), kNotGranted) << line;
  }
  EXPECT_TRUE(desktop.timeline().empty());
}

// Whole sequences, each from a fresh timeline: pacing, click counts, clamping, buttons, chords.
TEST_F(InputOpsTest, SequencesArePostedWithTheirPacing) {
  const struct {
    const char* line;
    Steps expected;
  } cases[] = {
      {R"({"op":"click","x":10,"y":20})",
       {"move (10,20)", "press left (10,20) click 1", "sleep 40000",
        "release left (10,20) click 1"}},
      {R"({"op":"click","x":1,"y":2,"count":7})",
       {"move (1,2)", "press left (1,2) click 1", "sleep 40000", "release left (1,2) click 1",
        "sleep 90000", "press left (1,2) click 2", "sleep 40000", "release left (1,2) click 2",
        "sleep 90000", "press left (1,2) click 3", "sleep 40000", "release left (1,2) click 3"}},
      {R"({"op":"click","x":1,"y":2,"count":0})",
       {"move (1,2)", "press left (1,2) click 1", "sleep 40000", "release left (1,2) click 1"}},
      {R"({"op":"click","x":1,"y":2,"count":"3"})",
       {"move (1,2)", "press left (1,2) click 1", "sleep 40000", "release left (1,2) click 1"}},
      {R"({"op":"click","x":10.9,"y":-3.9,"button":"right"})",
       {"move (10,-3)", "press right (10,-3) click 1", "sleep 40000",
        "release right (10,-3) click 1"}},
      {R"({"op":"click","x":0,"y":0,"button":"middle"})",
       {"move (0,0)", "press center (0,0) click 1", "sleep 40000",
        "release center (0,0) click 1"}},
      {R"({"op":"click","x":0,"y":0,"button":"Right"})",
       {"move (0,0)", "press left (0,0) click 1", "sleep 40000", "release left (0,0) click 1"}},
      {R"({"op":"click","x":1,"y":2,"modifiers":["Shift","cmd"]})",
       {"move (1,2) mods 0x9", "press left (1,2) click 1 mods 0x9", "sleep 40000",
        "release left (1,2) click 1 mods 0x9"}},
      {R"({"op":"move","x":-5,"y":7.5})", {"move (-5,7)"}},
      {R"({"op":"scroll","dy":1000})", {"scroll (40,0)"}},
      {R"({"op":"scroll","dx":5})", {"scroll (0,5)"}},
      {R"({"op":"scroll","dy":-3.9,"dx":-41})", {"scroll (-3,-40)"}},
      {R"({"op":"scroll","dy":1,"modifiers":["ctrl","option"]})", {"scroll (1,0) mods 0x6"}},
      {R"({"op":"key","chord":"Cmd+Shift+Z"})",
       {"key 6 down mods 0x9", "sleep 30000", "key 6 up mods 0x9"}},
      {R"({"op":"key","chord":"escape+a"})",
       {"key 0 down mods 0x0", "sleep 30000", "key 0 up mods 0x0"}},
      {R"({"op":"key","chord":"ctrl+alt+backspace"})",
       {"key 51 down mods 0x6", "sleep 30000", "key 51 up mods 0x6"}},
      {R"({"op":"type","text":"abcdefghijklmnop"})", {"text 16 units", "sleep 12000"}},
      {R"({"op":"type","text":"abcdefghijklmnopq"})",
       {"text 16 units", "sleep 12000", "text 1 units", "sleep 12000"}},
  };
  for (const auto& c : cases) {
    const std::size_t from = mark();
    EXPECT_EQ(run(c.line).body, Json({{"ok", true}})) << c.line;
    EXPECT_EQ(steps(from), c.expected) << c.line;
  }
}

TEST_F(InputOpsTest, MissingOrWrongMembersAreRefusedAndPostNothing) {
  const struct {
    const char* line;
    const char* error;
  } cases[] = {
      {R"({"op":"click","x":"10","y":5})", "click requires x and y"},
      {R"({"op":"click","x":10})", "click requires x and y"},
      {R"({"op":"click","x":1e300,"y":1})", "click requires x and y"},
      {R"({"op":"move","x":1})", "move requires x and y"},
      {R"({"op":"drag","toX":3})", "drag requires toX and toY"},
      {R"({"op":"scroll"})", "scroll requires dx and/or dy"},
      {R"({"op":"scroll","dx":0,"dy":0})", "scroll requires dx and/or dy"},
      {R"({"op":"scroll","dy":0.5})", "scroll requires dx and/or dy"},
      {R"({"op":"type","text":5})", "type requires non-empty \"text\""},
      {R"({"op":"type","text":""})", "type requires non-empty \"text\""},
      {R"({"op":"key"})", "key requires a \"chord\" (e.g. \"cmd+s\")"},
      {R"({"op":"key","chord":"cmd"})", "unrecognized key in chord \"cmd\""},
      {R"({"op":"key","chord":"Cmd+Hyper"})", "unrecognized key in chord \"Cmd+Hyper\""},
      {R"({"op":"mouse_down","y":1})", "mouse_down requires x and y"},
      {R"({"op":"mouse_up","x":1})", "mouse_up requires x and y"},
      {R"({"op":"key_down","chord":"a"})", "key_down requires a \"key\" (e.g. \"shift+a\")"},
      {R"({"op":"key_up","key":""})", "key_up requires a \"key\" (e.g. \"shift+a\")"},
      {R"({"op":"key_up","key":"Shift"})", "unrecognized key in chord \"Shift\""},
      {R"({"op":"click","x":1,"y":2,"modifiers":"shift"})",
       "\"modifiers\" must be a list of names such as [\"cmd\",\"shift\"]"},
      {R"({"op":"scroll","dy":1,"modifiers":["shift",1]})",
       "\"modifiers\" must be a list of names such as [\"cmd\",\"shift\"]"},
      {R"({"op":"drag","toX":1,"toY":2,"modifiers":["shift","Hyper"]})",
       "unrecognized modifier \"Hyper\" in \"modifiers\""},
      {R"({"op":"mouse_down","x":1,"y":2,"modifiers":["shift+a"]})",
       "unrecognized modifier \"shift+a\" in \"modifiers\""},
  };
  for (const auto& c : cases) EXPECT_EQ(error(c.line), c.error) << c.line;
  EXPECT_TRUE(desktop.timeline().empty());
}

TEST_F(InputOpsTest, DragInterpolatesTwelveStepsOntoTheTarget) {
  desktop.pointer = Point{0.1, 0.7};
  ASSERT_TRUE(run(R"({"op":"drag","toX":120,"toY":-24})").ok());
  Steps expected = {"move (0.10000000000000001,0.69999999999999996)", "sleep 60000",
                    "press left (0.10000000000000001,0.69999999999999996) click 1"};
  for (int i = 1; i <= 12; ++i) {
    expected.push_back("sleep 15000");
    // Not rounded; the last step is exactly the target.
    const double t = i / 12.0;
    expected.push_back(i == 12 ? "move (120,-24) held left"
                               : "move (" + number(0.1 + (120 - 0.1) * t) + "," +
                                     number(0.7 + (-24 - 0.7) * t) + ") held left");
  }
  expected.push_back("sleep 60000");
  expected.push_back("release left (120,-24) click 1");
  EXPECT_EQ(steps(), expected);
  // Modifiers are held on every event of the drag.
  const std::size_t from = desktop.posted().size();
  ASSERT_TRUE(run(R"({"op":"drag","toX":1,"toY":1,"modifiers":["alt"]})").ok());
  const std::vector<FakeInput> posted = desktop.posted();
  ASSERT_EQ(posted.size() - from, 15u);
  for (std::size_t i = from; i < posted.size(); ++i) {
    EXPECT_EQ(posted[i].modifiers, Modifier::option) << i;
  }
}

TEST_F(InputOpsTest, DragStartCoordinatesAreReplacedIndependently) {
  desktop.pointer = Point{11, 22};
  run(R"({"op":"drag","toX":0,"toY":0,"fromY":99})");
  EXPECT_EQ(steps().front(), "move (11,99)");
  std::size_t from = mark();
  run(R"({"op":"drag","toX":0,"toY":0,"fromX":5.7})");
  EXPECT_EQ(steps(from).front(), "move (5,22)");
  from = mark();
  desktop.pointer = std::nullopt;  // no pointer location: the start is the origin
  run(R"({"op":"drag","toX":0,"toY":0})");
  EXPECT_EQ(steps(from).front(), "move (0,0)");
}

TEST_F(InputOpsTest, PostFailures) {
  // A drag and a move go on without what cannot be posted, timing intact.
  desktop.refuseInput = [](const FakeInput& e) { return e.kind == FakeInput::Kind::move; };
  ASSERT_TRUE(run(R"({"op":"drag","toX":3,"toY":4,"fromX":0,"fromY":0})").ok());
  EXPECT_EQ(desktop.posted().size(), 2u);
  EXPECT_EQ(desktop.totalSleepMicros(), 60000u + 12 * 15000u + 60000u);
  EXPECT_TRUE(run(R"({"op":"move","x":1,"y":1})").ok());
  // A click goes on without its move, but stops at a press it cannot post.
  std::size_t from = mark();
  EXPECT_TRUE(run(R"({"op":"click","x":5,"y":6})").ok());
  EXPECT_EQ(steps(from), (Steps{"press left (5,6) click 1", "sleep 40000",
                                "release left (5,6) click 1"}));
  desktop.refuseInput = [](const FakeInput& e) { return e.clickCount == 2 && e.down; };
  from = mark();
  EXPECT_EQ(error(R"({"op":"click","x":5,"y":6,"count":2})"), "could not create the mouse event");
  EXPECT_EQ(steps(from), (Steps{"move (5,6)", "press left (5,6) click 1", "sleep 40000",
                                "release left (5,6) click 1", "sleep 90000"}));
  // A key whose press fails is not released; typing keeps the chunks already typed.
  desktop.refuseInput = [](const FakeInput&) { return true; };
  EXPECT_EQ(error(R"({"op":"scroll","dy":1})"), "could not create the scroll event");
  from = mark();
  EXPECT_EQ(error(R"({"op":"key","chord":"cmd+s"})"), "could not create the keyboard event");
  EXPECT_EQ(steps(from), Steps{});
  int typed = 0;
  desktop.refuseInput = [&typed](const FakeInput&) { return ++typed > 1; };
  EXPECT_EQ(error(Json({{"op", "type"}, {"text", std::string(40, 'y')}}).dump()),
            "could not create the keyboard event");
  EXPECT_EQ(steps(from), (Steps{"text 16 units", "sleep 12000"}));
}

TEST_F(InputOpsTest, TypeSplitsASurrogatePairAtTheBoundary) {
  // Fifteen letters, then U+1F600 as two units: its high half ends the first chunk.
  const std::string text = std::string(15, 'x') + "\xF0\x9F\x98\x80" + "\xC3\xA9";
  ASSERT_TRUE(run(Json({{"op", "type"}, {"text", text}}).dump()).ok());
  const std::vector<FakeInput> posted = desktop.posted();
  ASSERT_EQ(posted.size(), 2u);
  EXPECT_EQ(posted[0].text, std::u16string(15, u'x') + u"\xD83D");
  EXPECT_EQ(posted[1].text, std::u16string(u"\xDE00\u00E9"));
}

TEST_F(InputOpsTest, AChordThisDesktopCannotHoldIsRefused) {
  desktop.modifiers = Modifier::all & ~Modifier::fn;
  EXPECT_EQ(error(R"({"op":"key","chord":"fn+f1"})"),
            "this desktop cannot hold every modifier of chord \"fn+f1\": the fake desktop has no "
            "fn key");
  EXPECT_TRUE(run(R"({"op":"key","chord":"cmd+f1"})").ok());
  EXPECT_EQ(error(R"({"op":"key_down","key":"fn+a"})"),
            "this desktop cannot hold every modifier of chord \"fn+a\": the fake desktop has no "
            "fn key");
  EXPECT_EQ(error(R"({"op":"click","x":1,"y":1,"modifiers":["FN","shift"]})"),
            "this desktop cannot hold every modifier of [\"FN\",\"shift\"]: the fake desktop has "
            "no fn key");
}

// What a connection holds is its own: released when it says so, and otherwise, last pressed
// first, when the connection ends. A modifier stays down while another held press needs it.
TEST_F(InputOpsTest, HeldInputIsReleasedWhenTheConnectionEnds) {
  const struct {
    std::vector<const char*> lines;
    Steps whilePressed;  // the steps the requests post
    Steps atTheEnd;      // the releases when the host goes away
  } cases[] = {
      {{R"({"op":"key_down","key":"shift+a"})",
        R"({"op":"mouse_down","x":5,"y":6,"button":"right","modifiers":["cmd"]})",
        R"({"op":"move","x":7,"y":8})", R"({"op":"key_down","key":"ctrl+b"})"},
       {"key 0 down mods 0x1", "move (5,6)", "press right (5,6) click 1 mods 0x8",
        "move (7,8) held right", "key 11 down mods 0x2"},
       {"key 11 up mods 0x2", "release right (70,80) click 1 mods 0x8", "key 0 up mods 0x1"}},
      {{R"({"op":"key_down","key":"shift+a"})", R"({"op":"key_down","key":"ctrl+shift+b"})",
        R"({"op":"key_up","key":"a"})", R"({"op":"key_up","key":"shift+c"})"},
       {"key 0 down mods 0x1", "key 11 down mods 0x3", "key 0 up mods 0x0", "key 8 up mods 0x0"},
       {"key 11 up mods 0x3"}},
      // Released by the host, pressed twice, or released without being held: nothing is left.
      {{R"({"op":"key_down","key":"shift+a"})", R"({"op":"key_up","key":"a"})",
        R"({"op":"key_down","key":"b"})", R"({"op":"key_down","key":"b"})",
        R"({"op":"key_up","key":"b"})", R"({"op":"mouse_down","x":1,"y":1})",
        R"({"op":"mouse_up","x":2,"y":2})", R"({"op":"mouse_up","x":3,"y":3})"},
       {"key 0 down mods 0x1", "key 0 up mods 0x1", "key 11 down mods 0x0", "key 11 down mods 0x0",
        "key 11 up mods 0x0", "move (1,1)", "press left (1,1) click 1", "move (2,2) held left",
        "release left (2,2) click 1", "move (3,3)", "release left (3,3) click 1"},
       {}},
  };
  desktop.pointer = Point{70, 80};
  for (const auto& c : cases) {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    testing::LineClient host(ends[0]);
    for (const char* line : c.lines) ASSERT_TRUE(host.send(std::string(line) + "\n"));
    host.shutdownWrite();
    const std::size_t from = mark();
    ConnectionHandler(ends[1], context).run();
    for (const char* line : c.lines) EXPECT_EQ(host.readLine(), R"({"ok":true})") << line;
    Steps expected = c.whilePressed;
    expected.insert(expected.end(), c.atTheEnd.begin(), c.atTheEnd.end());
    EXPECT_EQ(steps(from), expected) << c.lines.front();
  }
}

}  // namespace
}  // namespace tervain
