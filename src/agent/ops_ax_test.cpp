#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "agent/connection_handler.h"
#include "agent/ops_ax.h"
#include "fake_desktop.h"

namespace tervain {
namespace {

using testing::FakeNode;

constexpr const char* kNotTrusted =
    "Accessibility (kTCCServiceAccessibility) is not granted to the agent \u2014 re-run "
    "provisioning";
constexpr const char* kEllipsis = "\u2026";

std::string staleText(const std::string& ref) {
  return "element ref \"" + ref +
         "\" is unknown or stale \u2014 refs are only valid until the next ax_dump; re-dump and "
         "retry";
}

// Every node of a tree, in pre-order.
void collect(const Json& node, std::vector<const Json*>& out) {
  out.push_back(&node);
  if (node.contains("children")) {
    for (const Json& child : node["children"]) collect(child, out);
  }
}

std::vector<const Json*> nodesOf(const Json& tree) {
  std::vector<const Json*> out;
  collect(tree, out);
  return out;
}

std::vector<std::string> refsOf(const Json& tree) {
  std::vector<std::string> refs;
  for (const Json* node : nodesOf(tree)) refs.push_back((*node)["ref"]);
  return refs;
}

std::vector<std::string> refRange(int first, int last) {
  std::vector<std::string> refs;
  for (int i = first; i <= last; ++i) refs.push_back("e" + std::to_string(i));
  return refs;
}

// Depth of the deepest node, the root being 0.
int depthOf(const Json& node) {
  int deepest = 0;
  if (node.contains("children")) {
    for (const Json& child : node["children"]) deepest = std::max(deepest, 1 + depthOf(child));
  }
  return deepest;
}

class AXTest : public ::testing::Test {
 protected:
  testing::FakeDesktop desktop;
  AgentContext context{desktop};
  std::unique_ptr<ConnectionHandler> handler = std::make_unique<ConnectionHandler>(-1, context);

  static constexpr std::int32_t kPid = 321;

  Json send(const Json& request) { return send(*handler, request); }
  static Json send(ConnectionHandler& h, const Json& request) {
    return Json::parse(h.handle(request.dump()));
  }
  std::string error(const Json& request) { return send(request).value("error", "<none>"); }

  ElementRef element(FakeNode node = {}, std::vector<ElementRef> children = {}) {
    if (!children.empty()) node.attributes["AXChildren"] = std::move(children);
    return desktop.addElement(std::move(node));
  }
  ElementRef withRole(const std::string& role, std::vector<ElementRef> children = {}) {
    FakeNode node;
    node.attributes["AXRole"] = role;
    return element(std::move(node), std::move(children));
  }
  std::vector<ElementRef> leaves(int count) {
    std::vector<ElementRef> out;
    for (int i = 0; i < count; ++i) out.push_back(element());
    return out;
  }
  // A chain of `levels` elements below the returned one.
  ElementRef chain(int levels) {
    ElementRef node = element();
    for (int i = 0; i < levels; ++i) node = element({}, {node});
    return node;
  }
  // Makes root the frontmost application's element.
  void frontmost(ElementRef root, const std::string& name = "Notes") {
    desktop.applications[kPid] = std::move(root);
    desktop.frontmost = kPid;
    desktop.applicationNames[kPid] = name;
  }
  Json dump(Json request = Json::object()) {
    request["op"] = "ax_dump";
    return send(request);
  }
  Json tree(Json request = Json::object()) { return dump(std::move(request))["tree"]; }
  // The node of the single element below a one-element application.
  Json nodeFor(FakeNode node) {
    frontmost(element({}, {element(std::move(node))}));
    return tree()["children"][0];
  }
  Json focus(const std::string& ref) { return send({{"op", "ax_focus"}, {"ref", ref}}); }
};

// ---- Refs ------------------------------------------------------------------------------------

TEST_F(AXTest, DumpRefsArePreOrderAndContinueAcrossDumps) {
  frontmost(withRole("AXApplication",
                     {withRole("AXWindow", {withRole("AXButton"), withRole("AXTextField")}),
                      withRole("AXMenuBar")}));
  const Json first = tree();
  EXPECT_EQ(refsOf(first), refRange(1, 5));
  EXPECT_EQ(first["children"][0]["children"][1]["role"], "AXTextField");
  EXPECT_EQ(first["children"][1]["ref"], "e5");
  // Lookup is by the exact text.
  for (const char* ref : {"E1", "e01", " e1", "e1 ", "1", "e"}) {
    EXPECT_FALSE(focus(ref)["ok"]) << ref;
  }

  const Json second = tree();
  EXPECT_EQ(refsOf(second), refRange(6, 10));
  // Every ref of the first dump is stale now; those of the second resolve.
  for (const std::string& ref : refRange(1, 5)) EXPECT_EQ(focus(ref)["error"], staleText(ref));
  EXPECT_EQ(focus("e8"), Json({{"ok", true}}));
}

TEST_F(AXTest, HitTestAddsTheNextRefAndKeepsTheDumpRefs) {
  const ElementRef button = withRole("AXButton");
  frontmost(element({}, {button, element()}));
  desktop.elementAtResult = AXError::success;
  desktop.elementAt = button;
  EXPECT_EQ(refsOf(tree()), refRange(1, 3));

  const Json hit = send({{"op", "ax_element_at"}, {"x", 5}, {"y", 6}});
  EXPECT_EQ(hit["node"]["ref"], "e4");
  const Json again = send({{"op", "ax_element_at"}, {"x", 5}, {"y", 6}});
  EXPECT_EQ(again["node"]["ref"], "e5");  // the same element twice: two refs
  for (const std::string& ref : refRange(1, 5)) EXPECT_TRUE(focus(ref)["ok"]) << ref;

  // The next dump invalidates the hits as well.
  EXPECT_EQ(refsOf(tree()), refRange(6, 8));
  EXPECT_EQ(focus("e4")["error"], staleText("e4"));
  EXPECT_EQ(focus("e5")["error"], staleText("e5"));
}

TEST_F(AXTest, RefsFromAnotherConnectionAreStale) {
  frontmost(element({}, {element()}));
  ASSERT_EQ(refsOf(tree()), refRange(1, 2));
  ConnectionHandler other(-1, context);
  const Json reply = send(other, {{"op", "ax_action"}, {"ref", "e1"}});
  EXPECT_EQ(reply, Json({{"ok", false}, {"error", staleText("e1")}}));
  EXPECT_TRUE(desktop.performed.empty());
  // And the other connection numbers its own refs from e1.
  EXPECT_EQ(send(other, {{"op", "ax_dump"}})["tree"]["ref"], "e1");
  EXPECT_TRUE(focus("e2")["ok"]);
}

TEST_F(AXTest, FailedDumpLeavesRefsUsable) {
  frontmost(element({}, {element()}));
  ASSERT_EQ(refsOf(tree()), refRange(1, 2));

  desktop.accessibility = false;
  EXPECT_EQ(dump()["error"], kNotTrusted);
  desktop.accessibility = true;
  EXPECT_TRUE(focus("e2")["ok"]);

  desktop.frontmost.reset();
  EXPECT_EQ(dump()["error"], "no frontmost application to dump");
  EXPECT_TRUE(focus("e2")["ok"]);

  EXPECT_EQ(dump({{"pid", 4294967296LL}})["error"], "ax_dump \"pid\" is out of range");
  EXPECT_TRUE(focus("e1")["ok"]);
  EXPECT_EQ(desktop.applicationElementsCreated, std::vector<std::int32_t>{kPid});
}

TEST_F(AXTest, StaleRefReplyQuotesTheRefOrAQuestionMark) {
  EXPECT_EQ(send({{"op", "ax_action"}, {"ref", "e12"}}),
            Json({{"ok", false},
                  {"error",
                   "element ref \"e12\" is unknown or stale \u2014 refs are only valid until the "
                   "next ax_dump; re-dump and retry"}}));
  EXPECT_EQ(error({{"op", "ax_focus"}}), staleText("?"));
  EXPECT_EQ(error({{"op", "ax_focus"}, {"ref", 5}}), staleText("?"));
  EXPECT_EQ(error({{"op", "ax_focus"}, {"ref", Json::array({"e1"})}}), staleText("?"));
  EXPECT_EQ(error({{"op", "ax_focus"}, {"ref", ""}}), staleText(""));
  EXPECT_EQ(error({{"op", "ax_focus"}, {"ref", "E1"}}), staleText("E1"));
  // Before any other member is looked at.
  EXPECT_EQ(error({{"op", "ax_action"}, {"action", 7}}), staleText("?"));
  EXPECT_TRUE(desktop.performed.empty());
}

TEST_F(AXTest, HandlesAreReleasedOnTheNextDumpAndWithTheHandler) {
  // A pid with no scripted tree gets an element that nothing but the registry holds.
  const int before = desktop.liveElements();
  EXPECT_EQ(dump({{"pid", 4242}})["tree"], Json({{"ref", "e1"}}));
  EXPECT_EQ(desktop.liveElements(), before + 1);
  dump({{"pid", 4243}});
  EXPECT_EQ(desktop.liveElements(), before + 1);  // the first one went with the reset
  handler.reset();
  EXPECT_EQ(desktop.liveElements(), before);
}

// ---- ax_dump: target, limits, reply -----------------------------------------------------------

TEST_F(AXTest, DumpTargetsTheFrontmostApplicationWithATimeout) {
  const ElementRef root = withRole("AXApplication", {withRole("AXWindow")});
  frontmost(root, "Text Edit");
  const Json reply = dump();
  EXPECT_EQ(reply, Json::parse(R"({"ok":true,"app":"Text Edit",
      "tree":{"ref":"e1","role":"AXApplication","children":[{"ref":"e2","role":"AXWindow"}]}})"));
  // The timeout goes on the application element, and on nothing else.
  EXPECT_EQ(desktop.messagingTimeouts,
            (std::vector<std::pair<int, float>>{{desktop.idOf(*root), 1.5f}}));
}

TEST_F(AXTest, DumpOfAGivenPid) {
  frontmost(withRole("AXApplication"));
  desktop.applications[77] = withRole("AXOther");
  EXPECT_EQ(dump({{"pid", 77}}), Json::parse(R"({"ok":true,"app":"pid 77",
      "tree":{"ref":"e1","role":"AXOther"}})"));
  desktop.applicationNames[77] = "Seventy-seven";
  EXPECT_EQ(dump({{"pid", 77.0}})["app"], "Seventy-seven");
  // A pid that is not an integer is ignored: the frontmost application is dumped.
  EXPECT_EQ(dump({{"pid", "77"}})["app"], "Notes");
  EXPECT_EQ(dump({{"pid", 77.5}})["app"], "Notes");
  EXPECT_EQ(desktop.applicationElementsCreated, (std::vector<std::int32_t>{77, 77, kPid, kPid}));
}

TEST_F(AXTest, PidOutsideThe32BitRangeIsRefused) {
  frontmost(element());
  for (const Json& pid : {Json(2147483648LL), Json(-2147483649LL), Json(9007199254740992.0)}) {
    EXPECT_EQ(dump({{"pid", pid}}),
              Json({{"ok", false}, {"error", "ax_dump \"pid\" is out of range"}}))
        << pid;
  }
  EXPECT_TRUE(desktop.applicationElementsCreated.empty());
  EXPECT_EQ(dump({{"pid", 2147483647}})["app"], "pid 2147483647");
  EXPECT_EQ(dump({{"pid", -2147483648LL}})["app"], "pid -2147483648");
}

TEST_F(AXTest, DepthLimitIsClampedToOneThroughTwentyFive) {
  frontmost(chain(40));
  EXPECT_EQ(depthOf(tree()), 12);  // default
  EXPECT_EQ(depthOf(tree({{"maxDepth", 3}})), 3);
  EXPECT_EQ(depthOf(tree({{"maxDepth", 1}})), 1);
  EXPECT_EQ(depthOf(tree({{"maxDepth", 0}})), 1);
  EXPECT_EQ(depthOf(tree({{"maxDepth", -3}})), 1);
  EXPECT_EQ(depthOf(tree({{"maxDepth", 25}})), 25);
  EXPECT_EQ(depthOf(tree({{"maxDepth", 100}})), 25);
  EXPECT_EQ(depthOf(tree({{"maxDepth", "3"}})), 12);
  EXPECT_EQ(depthOf(tree({{"maxDepth", 3.5}})), 12);
  EXPECT_EQ(depthOf(tree({{"maxDepth", 1e300}})), 12);
}

TEST_F(AXTest, CutByDepthIsNotMarked) {
  frontmost(element({}, {element({}, {element({}, leaves(5))})}));
  const Json root = tree({{"maxDepth", 1}});
  const Json& child = root["children"][0];
  EXPECT_EQ(child, Json({{"ref", root["children"][0]["ref"]}}));
  EXPECT_FALSE(root.contains("childrenOmitted"));
}

TEST_F(AXTest, FirstFortyEightChildrenAreExamined) {
  frontmost(element({}, leaves(60)));
  const Json root = tree();
  EXPECT_EQ(root["children"].size(), 48u);
  EXPECT_EQ(root["childrenOmitted"], 12);
  EXPECT_EQ(refsOf(root), refRange(1, 49));
  EXPECT_FALSE(dump().contains("truncated"));
}

TEST_F(AXTest, ExactlyEightHundredElementsReportTruncated) {
  // 1 root + 17 children + 16 x 48 + 14 grandchildren = 800, nothing cut.
  std::vector<ElementRef> children;
  for (int i = 0; i < 16; ++i) children.push_back(element({}, leaves(48)));
  children.push_back(element({}, leaves(14)));
  frontmost(element({}, children));
  const Json reply = dump();
  EXPECT_EQ(reply["truncated"], true);
  const auto nodes = nodesOf(reply["tree"]);
  EXPECT_EQ(nodes.size(), 800u);
  for (const Json* node : nodes) EXPECT_FALSE(node->contains("childrenOmitted"));
  EXPECT_EQ(refsOf(reply["tree"]), refRange(1, 800));

  // One fewer is not truncated.
  children.back() = element({}, leaves(13));
  frontmost(element({}, children));
  const Json smaller = dump();
  EXPECT_EQ(nodesOf(smaller["tree"]).size(), 799u);
  EXPECT_FALSE(smaller.contains("truncated"));
}

TEST_F(AXTest, BudgetCutsMarkEveryCutNode) {
  // Root: 20 children. C1..C16: 48 leaves each (785 nodes with the root). C17: 48 children, each
  // a chain K -> G -> H. C17 is node 786; K1..K4 with their chains take 798; K5 is node 799 and
  // its G5 node 800, built with the last unit, so G5's child H5 is never looked at.
  std::vector<ElementRef> children;
  for (int i = 0; i < 16; ++i) children.push_back(element({}, leaves(48)));
  std::vector<ElementRef> ks;
  for (int i = 0; i < 48; ++i) ks.push_back(chain(2));
  children.push_back(element({}, ks));
  for (int i = 0; i < 3; ++i) children.push_back(element());
  frontmost(element({}, children));

  const Json reply = dump();
  EXPECT_EQ(reply["truncated"], true);
  const Json& root = reply["tree"];
  EXPECT_EQ(nodesOf(root).size(), 800u);
  EXPECT_EQ(root["childrenOmitted"], 3);
  ASSERT_EQ(root["children"].size(), 17u);
  for (int i = 0; i < 16; ++i) {
    EXPECT_EQ(root["children"][i]["children"].size(), 48u);
    EXPECT_FALSE(root["children"][i].contains("childrenOmitted"));
  }
  const Json& c17 = root["children"][16];
  EXPECT_EQ(c17["childrenOmitted"], 43);
  ASSERT_EQ(c17["children"].size(), 5u);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(depthOf(c17["children"][i]), 2);
  const Json& k5 = c17["children"][4];
  EXPECT_FALSE(k5.contains("childrenOmitted"));
  const Json& g5 = k5["children"][0];
  EXPECT_EQ(g5["ref"], "e800");
  EXPECT_EQ(g5, Json({{"ref", "e800"}}));  // no children read, nothing marked
}

TEST_F(AXTest, UnreadableOrEmptyChildrenAddNothing) {
  FakeNode unreadable;
  unreadable.attributeErrors["AXChildren"] = AXError::cannotComplete;
  FakeNode texts;
  texts.attributes["AXChildren"] = std::vector<std::string>{"a", "b"};
  FakeNode empty;
  empty.attributes["AXChildren"] = std::vector<ElementRef>{};
  FakeNode nothing;
  nothing.attributes["AXChildren"] = std::monostate{};
  FakeNode single;
  single.attributes["AXChildren"] = ElementRef(element());
  for (FakeNode node : {unreadable, texts, empty, nothing, single}) {
    frontmost(element(std::move(node)));
    const Json root = tree();
    EXPECT_EQ(root.size(), 1u) << root;  // just the ref
  }
}

// ---- Node members ----------------------------------------------------------------------------

TEST_F(AXTest, EnabledOnlyWhenFalseAndFocusedOnlyWhenTrue) {
  FakeNode disabledFocused;
  disabledFocused.attributes = {{"AXRole", std::string("AXButton")},
                                {"AXEnabled", false},
                                {"AXFocused", true}};
  EXPECT_EQ(nodeFor(disabledFocused),
            Json({{"ref", "e2"}, {"role", "AXButton"}, {"enabled", false}, {"focused", true}}));

  FakeNode ordinary;
  ordinary.attributes = {{"AXEnabled", true}, {"AXFocused", false}};
  EXPECT_EQ(nodeFor(ordinary).size(), 1u);

  // Any number object counts; other types and failed reads do not.
  FakeNode numbers;
  numbers.attributes = {{"AXEnabled", std::int64_t{0}}, {"AXFocused", 1.0}};
  EXPECT_EQ(nodeFor(numbers)["enabled"], false);
  EXPECT_EQ(nodeFor(numbers)["focused"], true);
  FakeNode strings;
  strings.attributes = {{"AXEnabled", std::string("0")}, {"AXFocused", std::string("1")}};
  EXPECT_EQ(nodeFor(strings).size(), 1u);
}

TEST_F(AXTest, TitleOnlyWhenNotEmptyButRoleEvenWhenEmpty) {
  FakeNode node;
  node.attributes = {{"AXRole", std::string()},
                     {"AXSubrole", std::string()},
                     {"AXTitle", std::string()}};
  EXPECT_EQ(nodeFor(node), Json({{"ref", "e2"}, {"role", ""}, {"subrole", ""}}));

  node.attributes = {{"AXRole", std::string("AXButton")},
                     {"AXSubrole", std::string("AXCloseButton")},
                     {"AXTitle", std::string("  Close \n")}};
  EXPECT_EQ(nodeFor(node), Json({{"ref", "e4"},
                                 {"role", "AXButton"},
                                 {"subrole", "AXCloseButton"},
                                 {"title", "  Close \n"}}));

  // Not strings, or unreadable: left out.
  node.attributes = {{"AXRole", std::int64_t{1}}, {"AXTitle", AXUrl{"file:///"}}};
  node.attributeErrors = {{"AXSubrole", AXError::cannotComplete}};
  EXPECT_EQ(nodeFor(node).size(), 1u);
}

TEST_F(AXTest, TextsAreEscapedOnTheWire) {
  FakeNode node;
  const std::string title("say \"hi\"\\\n\t\x01 \u00e9", 16);
  node.attributes = {{"AXTitle", title}, {"AXValue", std::string("line 1\nline 2")}};
  node.actionNames = std::vector<std::string>{"AX\"Odd\""};
  frontmost(element({}, {element(std::move(node))}));
  const std::string line = handler->handle(R"({"op":"ax_dump"})");
  EXPECT_EQ(line.find('\n'), std::string::npos);
  const Json child = Json::parse(line)["tree"]["children"][0];
  EXPECT_EQ(child["title"], title);
  EXPECT_EQ(child["value"], "line 1\nline 2");
  EXPECT_EQ(child["actions"], Json::array({"AX\"Odd\""}));
}

TEST_F(AXTest, TextsThatAreNotUtf8AreLeftOut) {
  FakeNode node;
  node.attributes = {{"AXRole", std::string("AXButton")},
                     {"AXTitle", std::string("bad \xff")},
                     {"AXSubrole", std::string("\xc3")},
                     {"AXValue", std::string("\xed\xa0\x80")}};
  node.actionNames = std::vector<std::string>{"AXPress", "\xff"};
  EXPECT_EQ(nodeFor(node), Json({{"ref", "e2"}, {"role", "AXButton"}}));
}

TEST_F(AXTest, FrameRoundsHalvesAwayFromZero) {
  FakeNode node;
  node.attributes = {{"AXPosition", Point{10.5, -0.5}}, {"AXSize", Size{99.5, 20.4}}};
  EXPECT_EQ(nodeFor(node)["frame"], Json({{"x", 11}, {"y", -1}, {"w", 100}, {"h", 20}}));
  node.attributes = {{"AXPosition", Point{-1920, 0}}, {"AXSize", Size{0, 0}}};
  EXPECT_EQ(nodeFor(node)["frame"], Json({{"x", -1920}, {"y", 0}, {"w", 0}, {"h", 0}}));
}

TEST_F(AXTest, FrameNeedsBothHalvesAsFiniteNumbers) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  const std::vector<std::map<std::string, AXValue>> broken = {
      {{"AXPosition", Point{1, 2}}},
      {{"AXSize", Size{1, 2}}},
      {{"AXPosition", Point{1, 2}}, {"AXSize", std::monostate{}}},
      {{"AXPosition", Size{1, 2}}, {"AXSize", Size{1, 2}}},
      {{"AXPosition", Point{1, 2}}, {"AXSize", Point{1, 2}}},
      {{"AXPosition", Point{nan, 2}}, {"AXSize", Size{1, 2}}},
      {{"AXPosition", Point{1, 2}}, {"AXSize", Size{inf, 2}}},
      {{"AXPosition", Point{1, 2}}, {"AXSize", Size{1, 1e300}}},
  };
  for (const auto& attributes : broken) {
    FakeNode node;
    node.attributes = attributes;
    EXPECT_FALSE(nodeFor(node).contains("frame"));
  }
  FakeNode failing;
  failing.attributes = {{"AXPosition", Point{1, 2}}, {"AXSize", Size{1, 2}}};
  failing.attributeErrors = {{"AXSize", AXError::noValue}};
  EXPECT_FALSE(nodeFor(failing).contains("frame"));
}

TEST_F(AXTest, ActionsOnlyWhenAListOfTexts) {
  FakeNode node;
  node.actionNames = std::vector<std::string>{"AXPress", "AXShowMenu"};
  EXPECT_EQ(nodeFor(node)["actions"], Json::array({"AXPress", "AXShowMenu"}));

  node.actionNames = std::vector<std::string>{};
  EXPECT_FALSE(nodeFor(node).contains("actions"));
  node.actionNames = std::vector<ElementRef>{};
  EXPECT_FALSE(nodeFor(node).contains("actions"));
  node.actionNames = AXOther{};
  EXPECT_FALSE(nodeFor(node).contains("actions"));
  node.actionNames = std::vector<std::string>{"AXPress"};
  node.actionNamesResult = AXError::cannotComplete;
  EXPECT_FALSE(nodeFor(node).contains("actions"));
}

// ---- Values ----------------------------------------------------------------------------------

class AXValueTest : public AXTest {
 protected:
  Json valueOf(AXValue value) {
    FakeNode node;
    node.attributes["AXValue"] = std::move(value);
    return nodeFor(std::move(node)).value("value", Json());
  }
};

TEST_F(AXValueTest, NumbersTextsAndUrlsOnlyAsThePlatformPrintsThem) {
  const std::vector<std::pair<AXValue, Json>> table = {
      {0.5, "0.5"}, {std::int64_t{42}, "42"}, {42.0, "42"}, {-3.25, "-3.25"}, {true, "1"},
      {false, "0"}, {std::string("hello \"world\""), "hello \"world\""},
      {AXUrl{"https://example.com/a%20b?q=1"}, "https://example.com/a%20b?q=1"},
      // An empty text is no value; nor is any other type.
      {std::string(), Json()}, {AXUrl{""}, Json()}, {Point{1, 2}, Json()}, {Size{1, 2}, Json()},
      {std::monostate{}, Json()}, {AXOther{}, Json()}, {std::vector<ElementRef>{}, Json()},
      {std::vector<std::string>{"a"}, Json()}};
  for (const auto& [value, expected] : table) EXPECT_EQ(valueOf(value), expected) << expected;
}

TEST_F(AXValueTest, LongValuesKeep250Characters) {
  const std::string exact(250, 'v');
  EXPECT_EQ(valueOf(exact), exact);
  EXPECT_EQ(valueOf(std::string(300, 'v')), std::string(250, 'v') + kEllipsis);
  EXPECT_EQ(valueOf(std::string(251, 'v')), std::string(250, 'v') + kEllipsis);
  std::string accented;  // 250 characters in 750 bytes
  for (int i = 0; i < 250; ++i) accented += "e\u0301";
  EXPECT_EQ(valueOf(accented), accented);
}

// ---- ax_element_at ---------------------------------------------------------------------------

TEST_F(AXTest, ElementAtNeedsIntegers) {
  for (const Json& request : {Json{{"op", "ax_element_at"}},
                             Json{{"op", "ax_element_at"}, {"x", 10}},
                             Json{{"op", "ax_element_at"}, {"y", 10}},
                             Json{{"op", "ax_element_at"}, {"x", 10.5}, {"y", 20}},
                             Json{{"op", "ax_element_at"}, {"x", "10"}, {"y", 20}},
                             Json{{"op", "ax_element_at"}, {"x", 10}, {"y", true}}}) {
    EXPECT_EQ(send(request), Json({{"ok", false}, {"error", "ax_element_at requires x and y"}}))
        << request;
  }
  EXPECT_TRUE(desktop.hitTests.empty());
}

TEST_F(AXTest, ElementAtAsksTheSystemWideElementWithATimeout) {
  FakeNode node;
  node.attributes = {{"AXRole", std::string("AXButton")},
                     {"AXTitle", std::string("OK")},
                     {"AXPosition", Point{-200.5, 40}},
                     {"AXSize", Size{80, 24}}};
  node.actionNames = std::vector<std::string>{"AXPress"};
  desktop.elementAtResult = AXError::success;
  desktop.elementAt = element(std::move(node), leaves(3));

  const Json reply = send({{"op", "ax_element_at"}, {"x", -200}, {"y", 50}});
  EXPECT_EQ(reply, Json::parse(R"({"ok":true,"node":{"ref":"e1","role":"AXButton","title":"OK",
      "frame":{"x":-201,"y":40,"w":80,"h":24},"actions":["AXPress"]}})"));
  ASSERT_EQ(desktop.hitTests.size(), 1u);
  EXPECT_EQ(desktop.hitTests[0].x, -200.0f);
  EXPECT_EQ(desktop.hitTests[0].y, 50.0f);
  EXPECT_EQ(desktop.hitTests[0].timeoutSeconds, 1.5f);
}

TEST_F(AXTest, ElementAtFailuresDescribeTheResultCode) {
  desktop.elementAtResult = AXError::noValue;
  EXPECT_EQ(error({{"op", "ax_element_at"}, {"x", 100}, {"y", 200}}),
            "no accessible element at (100, 200) (no value)");
  desktop.elementAtResult = AXError::failure;
  EXPECT_EQ(error({{"op", "ax_element_at"}, {"x", -5}, {"y", 0}}),
            "no accessible element at (-5, 0) (AXError -25200)");
  desktop.elementAtResult = AXError::success;
  desktop.elementAt = nullptr;
  EXPECT_EQ(error({{"op", "ax_element_at"}, {"x", 1}, {"y", 2}}),
            "no accessible element at (1, 2) (success)");
  // Failures mint no ref.
  desktop.elementAt = element();
  EXPECT_EQ(send({{"op", "ax_element_at"}, {"x", 1}, {"y", 2}})["node"]["ref"], "e1");
}

// ---- ax_action -------------------------------------------------------------------------------

class AXActionTest : public AXTest {
 protected:
  ElementRef target;
  void SetUp() override {
    target = element();
    frontmost(element({}, {target}));
    ASSERT_EQ(refsOf(tree()), refRange(1, 2));
  }
  FakeNode& targetNode() { return desktop.node(target); }
  std::vector<std::string> performedNames() const {
    std::vector<std::string> names;
    for (const auto& [id, name] : desktop.performed) names.push_back(name);
    return names;
  }
};

// Every accessibility operation checks the grant before any member, and touches nothing.
TEST_F(AXActionTest, GrantIsCheckedBeforeAnythingElse) {
  desktop.accessibility = false;
  desktop.applicationElementsCreated.clear();
  for (const char* op : {"ax_dump", "ax_element_at", "ax_action", "ax_set_value", "ax_focus"}) {
    EXPECT_EQ(send({{"op", op}}), Json({{"ok", false}, {"error", kNotTrusted}})) << op;
    EXPECT_EQ(error({{"op", op}, {"ref", "e2"}, {"value", "x"}, {"pid", 1e300}, {"x", 1}, {"y", 2}}),
              kNotTrusted)
        << op;
  }
  EXPECT_TRUE(desktop.applicationElementsCreated.empty());
  EXPECT_TRUE(desktop.hitTests.empty());
  EXPECT_TRUE(desktop.performed.empty());
  EXPECT_TRUE(desktop.written.empty());
}

TEST_F(AXActionTest, PressIsTheDefaultAction) {
  EXPECT_EQ(send({{"op", "ax_action"}, {"ref", "e2"}}), Json({{"ok", true}}));
  for (const Json& action : {Json(""), Json(5), Json(nullptr), Json::array()}) {
    EXPECT_EQ(send({{"op", "ax_action"}, {"ref", "e2"}, {"action", action}}), Json({{"ok", true}}));
  }
  EXPECT_EQ(send({{"op", "ax_action"}, {"ref", "e2"}, {"action", "AXShowMenu"}}),
            Json({{"ok", true}}));
  EXPECT_EQ(performedNames(), (std::vector<std::string>{"AXPress", "AXPress", "AXPress",
                                                        "AXPress", "AXPress", "AXShowMenu"}));
  EXPECT_EQ(desktop.performed.front().first, desktop.idOf(*target));
}

TEST_F(AXActionTest, TimeoutIsAProbableSuccessWithANote) {
  targetNode().performResults["AXPress"] = AXError::cannotComplete;
  EXPECT_EQ(send({{"op", "ax_action"}, {"ref", "e2"}}),
            Json({{"ok", true},
                  {"note",
                   "the app did not confirm within the AX timeout \u2014 the action possibly "
                   "succeeded; re-dump to verify"}}));
}

TEST_F(AXActionTest, FailuresNameTheActionAndTheCode) {
  targetNode().performResults["AXRaise"] = AXError::actionUnsupported;
  EXPECT_EQ(send({{"op", "ax_action"}, {"ref", "e2"}, {"action", "AXRaise"}}),
            Json({{"ok", false}, {"error", "AXRaise failed (action unsupported)"}}));
  targetNode().performResults["AXPress"] = AXError::failure;
  EXPECT_EQ(error({{"op", "ax_action"}, {"ref", "e2"}}), "AXPress failed (AXError -25200)");
  targetNode().performResults["AXPress"] = AXError::invalidUIElement;
  EXPECT_EQ(error({{"op", "ax_action"}, {"ref", "e2"}}), staleText("e2"));
  // The ref stays registered: the platform decides every time.
  targetNode().performResults.clear();
  EXPECT_EQ(send({{"op", "ax_action"}, {"ref", "e2"}}), Json({{"ok", true}}));
}

// ---- ax_set_value ----------------------------------------------------------------------------

TEST_F(AXActionTest, SetValueChecksTheRefBeforeTheValue) {
  EXPECT_EQ(error({{"op", "ax_set_value"}}), staleText("?"));
  EXPECT_EQ(error({{"op", "ax_set_value"}, {"value", 42}}), staleText("?"));
  EXPECT_EQ(error({{"op", "ax_set_value"}, {"ref", "e9"}}), staleText("e9"));
  EXPECT_EQ(error({{"op", "ax_set_value"}, {"ref", "e2"}}),
            "ax_set_value requires a string \"value\"");
  EXPECT_EQ(error({{"op", "ax_set_value"}, {"ref", "e2"}, {"value", 42}}),
            "ax_set_value requires a string \"value\"");
  EXPECT_TRUE(desktop.written.empty());
}

TEST_F(AXActionTest, SetValueWritesTheTextWhenSettable) {
  targetNode().settable["AXValue"] = true;
  EXPECT_EQ(send({{"op", "ax_set_value"}, {"ref", "e2"}, {"value", ""}}), Json({{"ok", true}}));
  EXPECT_EQ(send({{"op", "ax_set_value"}, {"ref", "e2"}, {"value", "h\u00e9llo"}}),
            Json({{"ok", true}}));
  ASSERT_EQ(desktop.written.size(), 2u);
  EXPECT_EQ(desktop.written[0], (std::pair<int, AXWritableValue>{desktop.idOf(*target), ""}));
  EXPECT_EQ(desktop.written[1].second, AXWritableValue(std::string("h\u00e9llo")));
}

TEST_F(AXActionTest, SetValueRefusesWhatIsNotSettable) {
  const std::string notSettable =
      "this element's AXValue is not settable \u2014 focus it (ax_focus) and type instead";
  EXPECT_EQ(error({{"op", "ax_set_value"}, {"ref", "e2"}, {"value", "x"}}), notSettable);
  targetNode().settable["AXTitle"] = true;  // another attribute does not count
  EXPECT_EQ(error({{"op", "ax_set_value"}, {"ref", "e2"}, {"value", "x"}}), notSettable);
  // A gone element fails the query: not settable, rather than stale.
  targetNode().settable["AXValue"] = true;
  targetNode().settableResult = AXError::invalidUIElement;
  EXPECT_EQ(error({{"op", "ax_set_value"}, {"ref", "e2"}, {"value", "x"}}), notSettable);
  EXPECT_TRUE(desktop.written.empty());
}

TEST_F(AXActionTest, SetValueWriteFailures) {
  targetNode().settable["AXValue"] = true;
  targetNode().setResults["AXValue"] = AXError::cannotComplete;
  EXPECT_EQ(error({{"op", "ax_set_value"}, {"ref", "e2"}, {"value", "x"}}),
            "setting AXValue failed (kAXErrorCannotComplete \u2014 the app did not respond in "
            "time)");
  targetNode().setResults["AXValue"] = AXError::illegalArgument;
  EXPECT_EQ(error({{"op", "ax_set_value"}, {"ref", "e2"}, {"value", "x"}}),
            "setting AXValue failed (AXError -25201)");
  targetNode().setResults["AXValue"] = AXError::invalidUIElement;
  EXPECT_EQ(error({{"op", "ax_set_value"}, {"ref", "e2"}, {"value", "x"}}), staleText("e2"));
}

// ---- ax_focus --------------------------------------------------------------------------------

TEST_F(AXActionTest, FocusWritesTrueToFocused) {
  EXPECT_EQ(focus("e2"), Json({{"ok", true}}));
  ASSERT_EQ(desktop.written.size(), 1u);
  EXPECT_EQ(desktop.written[0], (std::pair<int, AXWritableValue>{desktop.idOf(*target), true}));
}

TEST_F(AXActionTest, FocusFailures) {
  targetNode().setResults["AXFocused"] = AXError::cannotComplete;
  EXPECT_EQ(focus("e2")["error"],
            "focusing failed (kAXErrorCannotComplete \u2014 the app did not respond in time)");
  targetNode().setResults["AXFocused"] = AXError::apiDisabled;
  EXPECT_EQ(focus("e2")["error"],
            "focusing failed (kAXErrorAPIDisabled \u2014 accessibility is disabled for this app)");
  targetNode().setResults["AXFocused"] = AXError::invalidUIElement;
  EXPECT_EQ(focus("e2"), Json({{"ok", false}, {"error", staleText("e2")}}));
  // A ref from before the last dump.
  targetNode().setResults.clear();
  tree();
  EXPECT_EQ(focus("e2")["error"], staleText("e2"));
  EXPECT_EQ(focus("e4"), Json({{"ok", true}}));
}

}  // namespace
}  // namespace tervain
