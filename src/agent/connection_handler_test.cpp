#include "agent/connection_handler.h"
#include "agent/operations.h"

#include <gtest/gtest.h>

#include "fake_desktop.h"

namespace tervain {
namespace {

class DispatchTest : public ::testing::Test {
 protected:
  testing::FakeDesktop desktop;
  AgentContext context{desktop};
  ConnectionHandler handler{-1, context};

  Json reply(std::string_view line) { return Json::parse(handler.handle(line)); }
  std::string error(std::string_view line) { return reply(line).value("error", ""); }
};

constexpr const char* kMalformed = "malformed request (want one JSON object per line with an \"op\")";

TEST_F(DispatchTest, MalformedRequests) {
  using namespace std::string_view_literals;
  for (std::string_view line :
       {R"({"op":5})"sv, "[1,2]"sv, "\"ping\""sv, "{}"sv, "{"sv, "ping"sv, "null"sv,
        R"({"op":null})"sv, R"({"op":["ping"]})"sv, "{\"op\":\"ping\"} x"sv,
        // A raw NUL is no end of the line: what follows it is part of the request.
        "{\"op\":\"ping\"}\0 junk"sv, "{\"op\":\"ping\"}\0"sv, "{\"op\":\0\"ping\"}"sv,
        "{\"op\":\"pi\0ng\"}"sv}) {
    EXPECT_EQ(reply(line), Json({{"ok", false}, {"error", kMalformed}})) << line;
  }
}

TEST_F(DispatchTest, UnserialisableReplyBecomesTheFixedLine) {
  // An op name that is not valid UTF-8 cannot even be parsed, so it is malformed; an op whose
  // echo would be fine but long still serialises.
  EXPECT_EQ(handler.handle(std::string("{\"op\":\"a\xff\"}")),
            serializeReply(Reply::failure(kMalformed)));
  const std::string longOp(100000, 'x');
  EXPECT_EQ(error("{\"op\":\"" + longOp + "\"}"), "unknown op '" + longOp + "' (agent protocol v2)");
}

TEST_F(DispatchTest, PingReportsDisplaysAndReadinessReadPerRequest) {
  desktop.screens = {{69733378, 1920, 1080, true}};
  desktop.accessibility = false;
  desktop.screenRecording = false;
  desktop.postEvents = false;
  Json ping = reply(R"({"op":"ping","extra":[1]})");
  // Every operation the agent answers, streaming ones included, in table order, then options.
  Json features = Json::array();
  for (const Operation& operation : operationTable()) features.push_back(operation.name);
  ASSERT_EQ(features.size(), 17u);
  for (const char* option : {"screenshot.region", "screenshot.maxSize", "screenshot.png", "screenshot.quality"}) {
    features.push_back(option);
  }
  EXPECT_EQ(ping["features"], features);
  EXPECT_EQ(ping["agentVersion"], TERVAIN_VERSION);
  ping.erase("features");
  ping.erase("agentVersion");
  EXPECT_EQ(ping, Json::parse(R"({"ok":true,"version":2,
              "displays":[{"id":69733378,"width":1920,"height":1080,"main":true}],
              "readiness":{"accessibility":false,"screenRecording":false,"postEvent":false}})"));

  desktop.accessibility = true;
  desktop.postEvents = true;
  EXPECT_EQ(reply(R"({"op":"ping"})")["readiness"],
            Json::parse(R"({"accessibility":true,"screenRecording":false,"postEvent":true})"));
}

TEST_F(DispatchTest, PingReportsAtMostEightDisplays) {
  for (std::uint32_t id = 1; id <= 10; ++id) desktop.screens.push_back({id, 800, 600, id == 1});
  const Json displays = reply(R"({"op":"ping"})")["displays"];
  ASSERT_EQ(displays.size(), 8u);
  EXPECT_EQ(displays[7]["id"], 8);
  desktop.screens.clear();
  EXPECT_EQ(reply(R"({"op":"ping"})")["displays"], Json::array());
}

TEST_F(DispatchTest, CursorPositionRoundsHalvesAwayFromZero) {
  desktop.pointer = Point{100.5, 200.49};
  EXPECT_EQ(reply(R"({"op":"cursor_position"})"), Json({{"ok", true}, {"x", 101}, {"y", 200}}));
  desktop.pointer = Point{-10.5, -0.4};
  EXPECT_EQ(reply(R"({"op":"cursor_position"})"), Json({{"ok", true}, {"x", -11}, {"y", 0}}));
  desktop.pointer = std::nullopt;
  EXPECT_EQ(error(R"({"op":"cursor_position"})"),
            "could not read the cursor position (no event source)");
  desktop.pointer = Point{std::numeric_limits<double>::quiet_NaN(), 0};
  EXPECT_EQ(error(R"({"op":"cursor_position"})"),
            "could not read the cursor position (no event source)");
}

}  // namespace
}  // namespace tervain
