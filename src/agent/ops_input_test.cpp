#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "agent/connection_handler.h"
#include "fake_desktop.h"

namespace tervain {
namespace {

using testing::FakeEvent;
using testing::TimelineStep;

constexpr const char* kNotGranted =
    "input synthesis (kTCCServicePostEvent) is not granted to the agent \u2014 re-run provisioning";

std::string number(double v) {
  char text[64];
  std::snprintf(text, sizeof text, "%.17g", v);
  return text;
}

// One line per timeline step, so a whole sequence is compared at once.
std::string describe(const TimelineStep& step) {
  if (step.kind == TimelineStep::Kind::sleep) return "sleep " + std::to_string(step.micros);
  const FakeEvent& e = step.event;
  switch (e.kind) {
    case FakeEvent::Kind::mouse: {
      std::string text = "mouse " + std::to_string(static_cast<int>(e.type)) + " (" +
                         number(e.at.x) + "," + number(e.at.y) + ") button " +
                         std::to_string(static_cast<int>(e.button));
      if (e.clickState) text += " click " + std::to_string(*e.clickState);
      return text;
    }
    case FakeEvent::Kind::keyboard: {
      std::string text = "key " + std::to_string(e.virtualKey) + (e.keyDown ? " down" : " up");
      if (e.flags) {
        char flags[32];
        std::snprintf(flags, sizeof flags, " flags 0x%llx",
                      static_cast<unsigned long long>(*e.flags));
        text += flags;
      }
      if (!e.unicode.empty()) text += " units " + std::to_string(e.unicode.size());
      return text;
    }
    case FakeEvent::Kind::scroll:
      return "scroll unit " + std::to_string(static_cast<int>(e.unit)) + " wheels " +
             std::to_string(e.wheelCount) + " (" + std::to_string(e.wheel1) + "," +
             std::to_string(e.wheel2) + "," + std::to_string(e.wheel3) + ")";
  }
  return "?";
}

class InputOpsTest : public ::testing::Test {
 protected:
  testing::FakeDesktop desktop;
  AgentContext context{desktop};
  ConnectionHandler handler{-1, context};

  Reply run(std::string_view line) { return handler.dispatch(line); }
  std::string error(std::string_view line) { return run(line).error(); }

  // The timeline from step `from` on, one line per step.
  std::vector<std::string> steps(std::size_t from = 0) const {
    std::vector<std::string> lines;
    const std::vector<TimelineStep> all = desktop.timeline();
    for (std::size_t i = from; i < all.size(); ++i) lines.push_back(describe(all[i]));
    return lines;
  }
  std::size_t mark() const { return desktop.timeline().size(); }

  void TearDown() override { EXPECT_EQ(desktop.eventsAlive(), 0) << "every event is released"; }
};

using Steps = std::vector<std::string>;

// ---- Grant ---------------------------------------------------------------------------------

TEST_F(InputOpsTest, MissingGrantIsReportedBeforeAnyMemberIsRead) {
  desktop.postEvents = false;
  for (const char* line : {R"({"op":"click"})", R"({"op":"move"})", R"({"op":"drag"})",
                           R"({"op":"scroll"})", R"({"op":"type"})", R"({"op":"key"})",
                           R"({"op":"click","x":1,"y":2})", R"({"op":"key","chord":"cmd+s"})"}) {
    EXPECT_EQ(error(line), kNotGranted) << line;
  }
  EXPECT_TRUE(desktop.timeline().empty());
  EXPECT_EQ(desktop.eventsCreated(), 0);
}

// ---- click ---------------------------------------------------------------------------------

TEST_F(InputOpsTest, ClickMovesThenPressesAndReleases) {
  const Reply reply = run(R"({"op":"click","x":10,"y":20})");
  EXPECT_EQ(reply.body, Json({{"ok", true}}));
  EXPECT_EQ(steps(), (Steps{"mouse 5 (10,20) button 0", "mouse 1 (10,20) button 0 click 1",
                            "sleep 40000", "mouse 2 (10,20) button 0 click 1"}));
}

TEST_F(InputOpsTest, ClickCountIsClampedAndSetsClickStates) {
  run(R"({"op":"click","x":1,"y":2,"count":7})");
  EXPECT_EQ(
      steps(),
      (Steps{"mouse 5 (1,2) button 0", "mouse 1 (1,2) button 0 click 1", "sleep 40000",
             "mouse 2 (1,2) button 0 click 1", "sleep 90000", "mouse 1 (1,2) button 0 click 2",
             "sleep 40000", "mouse 2 (1,2) button 0 click 2", "sleep 90000",
             "mouse 1 (1,2) button 0 click 3", "sleep 40000", "mouse 2 (1,2) button 0 click 3"}));
}

TEST_F(InputOpsTest, ClickCountBelowOneIsOneClick) {
  for (const char* line :
       {R"({"op":"click","x":1,"y":2,"count":0})", R"({"op":"click","x":1,"y":2,"count":-4})",
        R"({"op":"click","x":1,"y":2,"count":"3"})"}) {
    const std::size_t from = mark();
    EXPECT_TRUE(run(line).ok()) << line;
    EXPECT_EQ(steps(from).size(), 4u) << line;
  }
}

TEST_F(InputOpsTest, ClickCoordinatesAreTruncatedAndMustBeNumbers) {
  run(R"({"op":"click","x":10.9,"y":-3.9})");
  EXPECT_EQ(desktop.posted().at(0).at.x, 10);
  EXPECT_EQ(desktop.posted().at(0).at.y, -3);
  for (const char* line :
       {R"({"op":"click","x":"10","y":5})", R"({"op":"click","x":10})", R"({"op":"click","y":1})",
        R"({"op":"click","x":null,"y":1})", R"({"op":"click","x":1e300,"y":1})",
        R"({"op":"click","x":[1],"y":1})", R"({"op":"click","x":true,"y":1})"}) {
    EXPECT_EQ(error(line), "click requires x and y") << line;
  }
  EXPECT_EQ(desktop.posted().size(), 3u) << "nothing more was posted";
}

TEST_F(InputOpsTest, ClickButtonNamesAreExact) {
  run(R"({"op":"click","x":0,"y":0,"button":"right"})");
  run(R"({"op":"click","x":0,"y":0,"button":"middle"})");
  run(R"({"op":"click","x":0,"y":0,"button":"Middle"})");
  run(R"({"op":"click","x":0,"y":0,"button":"Right"})");
  run(R"({"op":"click","x":0,"y":0,"button":2})");
  std::vector<std::string> buttons;
  for (const FakeEvent& e : desktop.posted()) {
    if (e.type == EventType::mouseMoved) {
      EXPECT_EQ(e.button, MouseButton::left) << "the move always names the left button";
      continue;
    }
    buttons.push_back(std::to_string(static_cast<int>(e.type)) + "/" +
                      std::to_string(static_cast<int>(e.button)));
  }
  EXPECT_EQ(buttons,
            (Steps{"3/1", "4/1", "25/2", "26/2", "1/0", "2/0", "1/0", "2/0", "1/0", "2/0"}));
}

TEST_F(InputOpsTest, ClickCreationFailurePostsNothingOfThatPair) {
  // The up event of the second round cannot be created: round one stays posted, round two's
  // down event is released without being posted.
  desktop.refuseEvent = [this](const FakeEvent& e) {
    return e.type == EventType::leftMouseUp && desktop.eventsCreated() >= 4;
  };
  EXPECT_EQ(error(R"({"op":"click","x":5,"y":6,"count":2})"), "could not create the mouse event");
  EXPECT_EQ(steps(), (Steps{"mouse 5 (5,6) button 0", "mouse 1 (5,6) button 0 click 1",
                            "sleep 40000", "mouse 2 (5,6) button 0 click 1", "sleep 90000"}));
}

TEST_F(InputOpsTest, ClickGoesOnWithoutItsMove) {
  desktop.refuseEvent = [](const FakeEvent& e) { return e.type == EventType::mouseMoved; };
  EXPECT_TRUE(run(R"({"op":"click","x":5,"y":6})").ok());
  EXPECT_EQ(steps(), (Steps{"mouse 1 (5,6) button 0 click 1", "sleep 40000",
                            "mouse 2 (5,6) button 0 click 1"}));
}

// ---- move ----------------------------------------------------------------------------------

TEST_F(InputOpsTest, MovePostsOneEventAndIgnoresACreationFailure) {
  EXPECT_EQ(run(R"({"op":"move","x":-5,"y":7.5})").body, Json({{"ok", true}}));
  EXPECT_EQ(steps(), (Steps{"mouse 5 (-5,7) button 0"}));
  desktop.refuseEvent = [](const FakeEvent&) { return true; };
  EXPECT_TRUE(run(R"({"op":"move","x":1,"y":1})").ok());
  EXPECT_EQ(error(R"({"op":"move","x":1})"), "move requires x and y");
}

// ---- drag ----------------------------------------------------------------------------------

TEST_F(InputOpsTest, DragInterpolatesTwelveStepsOntoTheTarget) {
  desktop.pointer = Point{0, 0};
  ASSERT_TRUE(run(R"({"op":"drag","toX":120,"toY":-24})").ok());
  Steps expected = {"mouse 5 (0,0) button 0", "sleep 60000", "mouse 1 (0,0) button 0"};
  for (int i = 1; i <= 12; ++i) {
    expected.push_back("sleep 15000");
    expected.push_back("mouse 6 (" + number(120.0 * i / 12) + "," + number(-24.0 * i / 12) +
                       ") button 0");
  }
  expected.push_back("sleep 60000");
  expected.push_back("mouse 2 (120,-24) button 0");
  EXPECT_EQ(steps(), expected);
}

TEST_F(InputOpsTest, DragStepsAreNotRoundedAndTheLastIsExact) {
  desktop.pointer = Point{0.1, 0.7};
  ASSERT_TRUE(run(R"({"op":"drag","toX":1,"toY":1})").ok());
  const std::vector<FakeEvent> posted = desktop.posted();
  ASSERT_EQ(posted.size(), 15u);
  EXPECT_DOUBLE_EQ(posted[1].at.x, 0.1);
  EXPECT_DOUBLE_EQ(posted[2].at.x, 0.1 + 0.9 / 12);
  EXPECT_EQ(posted[13].at.x, 1.0);
  EXPECT_EQ(posted[13].at.y, 1.0);
  for (const FakeEvent& e : posted) EXPECT_FALSE(e.clickState) << "drags set no click state";
}

TEST_F(InputOpsTest, DragToItsOwnStartStillPostsEverything) {
  desktop.pointer = Point{30, 40};
  ASSERT_TRUE(run(R"({"op":"drag","toX":30,"toY":40})").ok());
  const Steps all = steps();
  ASSERT_EQ(all.size(), 29u);
  int drags = 0;
  for (const std::string& s : all) drags += s == "mouse 6 (30,40) button 0";
  EXPECT_EQ(drags, 12);
  EXPECT_EQ(all.back(), "mouse 2 (30,40) button 0");
}

TEST_F(InputOpsTest, DragStartCoordinatesAreReplacedIndependently) {
  desktop.pointer = Point{11, 22};
  run(R"({"op":"drag","toX":0,"toY":0,"fromY":99})");
  EXPECT_EQ(steps().front(), "mouse 5 (11,99) button 0");
  std::size_t from = mark();
  run(R"({"op":"drag","toX":0,"toY":0,"fromX":5.7})");
  EXPECT_EQ(steps(from).front(), "mouse 5 (5,22) button 0");
  from = mark();
  desktop.pointer = std::nullopt;  // no event for the location: the start is the origin
  run(R"({"op":"drag","toX":0,"toY":0})");
  EXPECT_EQ(steps(from).front(), "mouse 5 (0,0) button 0");
}

TEST_F(InputOpsTest, DragSkipsEventsItCannotCreateAndKeepsItsTiming) {
  desktop.refuseEvent = [](const FakeEvent& e) { return e.type == EventType::leftMouseDragged; };
  ASSERT_TRUE(run(R"({"op":"drag","toX":3,"toY":4,"fromX":0,"fromY":0})").ok());
  EXPECT_EQ(desktop.posted().size(), 3u);
  EXPECT_EQ(desktop.totalSleepMicros(), 60000u + 12 * 15000u + 60000u);
  EXPECT_EQ(error(R"({"op":"drag","toX":3})"), "drag requires toX and toY");
  EXPECT_EQ(error(R"({"op":"drag","x":3,"y":4})"), "drag requires toX and toY");
}

// ---- scroll --------------------------------------------------------------------------------

TEST_F(InputOpsTest, ScrollClampsEachAxisAndPostsOneEvent) {
  run(R"({"op":"scroll","dy":1000})");
  run(R"({"op":"scroll","dx":5})");
  run(R"({"op":"scroll","dy":-3.9,"dx":-41})");
  EXPECT_EQ(steps(), (Steps{"scroll unit 1 wheels 2 (40,0,0)", "scroll unit 1 wheels 2 (0,5,0)",
                            "scroll unit 1 wheels 2 (-3,-40,0)"}));
}

TEST_F(InputOpsTest, ScrollNeedsANonZeroDelta) {
  for (const char* line :
       {R"({"op":"scroll"})", R"({"op":"scroll","dx":0,"dy":0})", R"({"op":"scroll","dy":0})",
        R"({"op":"scroll","dy":0.5})", R"({"op":"scroll","dy":"5"})"}) {
    EXPECT_EQ(error(line), "scroll requires dx and/or dy") << line;
  }
  desktop.refuseEvent = [](const FakeEvent&) { return true; };
  EXPECT_EQ(error(R"({"op":"scroll","dy":1})"), "could not create the scroll event");
  EXPECT_TRUE(desktop.timeline().empty());
}

// ---- key -----------------------------------------------------------------------------------

TEST_F(InputOpsTest, KeyPressesTheChordsKeyWithFlagsOnBothEvents) {
  EXPECT_EQ(run(R"({"op":"key","chord":"Cmd+Shift+Z"})").body, Json({{"ok", true}}));
  EXPECT_EQ(steps(),
            (Steps{"key 6 down flags 0x120000", "sleep 30000", "key 6 up flags 0x120000"}));
}

TEST_F(InputOpsTest, KeyFlagsAreSetEvenWhenEmpty) {
  run(R"({"op":"key","chord":"escape+a"})");
  run(R"({"op":"key","chord":"ctrl+alt+backspace"})");
  run(R"({"op":"key","chord":"shift+ArrowUp"})");
  EXPECT_EQ(steps(),
            (Steps{"key 0 down flags 0x0", "sleep 30000", "key 0 up flags 0x0",
                   "key 51 down flags 0xc0000", "sleep 30000", "key 51 up flags 0xc0000",
                   "key 126 down flags 0x20000", "sleep 30000", "key 126 up flags 0x20000"}));
}

TEST_F(InputOpsTest, KeyErrorsEchoTheChordAsSent) {
  for (const char* chord : {"cmd", "+", "cmd+", "Cmd+Hyper"}) {
    EXPECT_EQ(error(Json({{"op", "key"}, {"chord", chord}}).dump()),
              std::string("unrecognized key in chord \"") + chord + "\"");
  }
  const char* kNeedsChord = "key requires a \"chord\" (e.g. \"cmd+s\")";
  EXPECT_EQ(error(R"({"op":"key"})"), kNeedsChord);
  EXPECT_EQ(error(R"({"op":"key","chord":""})"), kNeedsChord);
  EXPECT_EQ(error(R"({"op":"key","chord":5})"), kNeedsChord);
  EXPECT_TRUE(desktop.timeline().empty());
}

TEST_F(InputOpsTest, KeyCreationFailurePostsNothing) {
  desktop.refuseEvent = [](const FakeEvent& e) { return !e.keyDown; };
  EXPECT_EQ(error(R"({"op":"key","chord":"cmd+s"})"), "could not create the keyboard event");
  EXPECT_TRUE(desktop.timeline().empty());
  EXPECT_EQ(desktop.eventsCreated(), 1);
}

// ---- type ----------------------------------------------------------------------------------

TEST_F(InputOpsTest, TypeSendsSixteenUnitsPerPair) {
  run(R"({"op":"type","text":"abcdefghijklmnop"})");
  EXPECT_EQ(steps(), (Steps{"key 0 down units 16", "key 0 up units 16", "sleep 12000"}));
  const std::size_t from = mark();
  run(R"({"op":"type","text":"abcdefghijklmnopq"})");
  EXPECT_EQ(steps(from), (Steps{"key 0 down units 16", "key 0 up units 16", "sleep 12000",
                                "key 0 down units 1", "key 0 up units 1", "sleep 12000"}));
  const std::vector<FakeEvent> posted = desktop.posted();
  ASSERT_EQ(posted.size(), 6u);
  EXPECT_EQ(posted[2].unicode, u"abcdefghijklmnop");
  EXPECT_EQ(posted[4].unicode, u"q");
  EXPECT_EQ(posted[5].unicode, u"q");
  for (const FakeEvent& e : posted) EXPECT_FALSE(e.flags) << "typed text carries no flags";
}

TEST_F(InputOpsTest, TypeSplitsASurrogatePairAtTheBoundary) {
  // Fifteen letters, then U+1F600 as two units: its high half ends the first chunk.
  const std::string text = std::string(15, 'x') + "\xF0\x9F\x98\x80" + "\xC3\xA9";
  ASSERT_TRUE(run(Json({{"op", "type"}, {"text", text}}).dump()).ok());
  const std::vector<FakeEvent> posted = desktop.posted();
  ASSERT_EQ(posted.size(), 4u);
  EXPECT_EQ(posted[0].unicode, std::u16string(15, u'x') + u"\xD83D");
  EXPECT_EQ(posted[1].unicode, posted[0].unicode);
  EXPECT_EQ(posted[2].unicode, std::u16string(u"\xDE00\u00E9"));
}

TEST_F(InputOpsTest, TypeRejectsMissingOrEmptyText) {
  const char* kNeedsText = "type requires non-empty \"text\"";
  EXPECT_EQ(error(R"({"op":"type","text":5})"), kNeedsText);
  EXPECT_EQ(error(R"({"op":"type","text":""})"), kNeedsText);
  EXPECT_EQ(error(R"({"op":"type"})"), kNeedsText);
}

TEST_F(InputOpsTest, TypeCreationFailureKeepsEarlierChunksAndPostsNothingOfThatPair) {
  desktop.refuseEvent = [this](const FakeEvent&) { return desktop.eventsCreated() >= 3; };
  EXPECT_EQ(error(Json({{"op", "type"}, {"text", std::string(40, 'y')}}).dump()),
            "could not create the keyboard event");
  EXPECT_EQ(steps(), (Steps{"key 0 down units 16", "key 0 up units 16", "sleep 12000"}));
}

}  // namespace
}  // namespace tervain
