#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cmath>
#include <functional>
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
std::vector<const Json*> nodesOf(const Json& node, std::vector<const Json*> out = {}) {
  out.push_back(&node);
  if (node.contains("children")) {
    for (const Json& child : node["children"]) out = nodesOf(child, std::move(out));
  }
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
            Json({{"ok", false}, {"error", staleText("e12")}}));
  EXPECT_EQ(error({{"op", "ax_focus"}}), staleText("?"));
  for (const auto& [ref, quoted] : {std::pair{Json(5), "?"}, {Json::array({"e1"}), "?"},
                                    {Json(""), ""}, {Json("E1"), "E1"}}) {
    EXPECT_EQ(error({{"op", "ax_focus"}, {"ref", ref}}), staleText(quoted)) << ref;
  }
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

TEST_F(AXTest, DumpOfAGivenPidInThe32BitRange) {
  frontmost(withRole("AXApplication"));
  desktop.applications[77] = withRole("AXOther");
  EXPECT_EQ(dump({{"pid", 77}}), Json::parse(R"({"ok":true,"app":"pid 77",
      "tree":{"ref":"e1","role":"AXOther"}})"));
  desktop.applicationNames[77] = "Seventy-seven";
  EXPECT_EQ(dump({{"pid", 77.0}})["app"], "Seventy-seven");
  // A pid that is not an integer is ignored: the frontmost application is dumped.
  EXPECT_EQ(dump({{"pid", 77.5}})["app"], "Notes");
  for (const Json& pid : {Json(2147483648LL), Json(-2147483649LL), Json(9007199254740992.0)}) {
    EXPECT_EQ(dump({{"pid", pid}}),
              Json({{"ok", false}, {"error", "ax_dump \"pid\" is out of range"}}))
        << pid;
  }
  EXPECT_EQ(dump({{"pid", 2147483647}})["app"], "pid 2147483647");
  EXPECT_EQ(dump({{"pid", -2147483648LL}})["app"], "pid -2147483648");
  EXPECT_EQ(desktop.applicationElementsCreated,
            (std::vector<std::int32_t>{77, 77, kPid, 2147483647, -2147483647 - 1}));
}

TEST_F(AXTest, DepthLimitIsClampedToOneThroughTwentyFiveAndCutsUnmarked) {
  frontmost(chain(40));
  const std::vector<std::pair<Json, int>> table = {
      {Json(), 12}, {3, 3}, {1, 1}, {0, 1}, {-3, 1}, {25, 25}, {26, 25},
      {"3", 12},    {3.5, 12}, {1e300, 12}};
  for (const auto& [maxDepth, depth] : table) {
    const Json root = tree(maxDepth.is_null() ? Json::object() : Json{{"maxDepth", maxDepth}});
    EXPECT_EQ(depthOf(root), depth) << maxDepth;
    for (const Json* node : nodesOf(root)) EXPECT_FALSE(node->contains("childrenOmitted"));
  }
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

// ---- Node members: what the real application cannot show ------------------------------------

TEST_F(AXTest, NodeMembersKeepOnlyReadableTextsNumbersAndFiniteFrames) {
  using Attributes = std::map<std::string, AXValue>;
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const struct {
    Attributes attributes;
    AXValue actions;
    Json expected;  // the members besides "ref"
  } table[] = {
      // enabled only when false, focused only when true; any number counts, texts do not.
      {{{"AXEnabled", false}, {"AXFocused", true}}, {}, {{"enabled", false}, {"focused", true}}},
      {{{"AXEnabled", std::int64_t{0}}, {"AXFocused", 1.0}}, {}, {{"enabled", false}, {"focused", true}}},
      {{{"AXEnabled", true}, {"AXFocused", std::string("1")}}, {}, Json::object()},
      // Role and subrole even when empty, title only when not; not UTF-8 is left out.
      {{{"AXRole", std::string()}, {"AXSubrole", std::string()}, {"AXTitle", std::string()}},
       {}, {{"role", ""}, {"subrole", ""}}},
      {{{"AXRole", std::string("AXButton")}, {"AXTitle", std::string("bad \xff")},
        {"AXSubrole", std::string("\xc3")}, {"AXValue", std::string("\xed\xa0\x80")}},
       std::vector<std::string>{"AXPress", "\xff"}, {{"role", "AXButton"}}},
      {{{"AXRole", std::int64_t{1}}, {"AXTitle", AXUrl{"file:///"}}}, AXOther{}, Json::object()},
      // Frames round halves away from zero and need both halves as finite numbers.
      {{{"AXPosition", Point{10.5, -0.5}}, {"AXSize", Size{99.5, 20.4}}},
       std::vector<std::string>{"AXPress", "AXShowMenu"},
       {{"frame", {{"x", 11}, {"y", -1}, {"w", 100}, {"h", 20}}},
        {"actions", {"AXPress", "AXShowMenu"}}}},
      {{{"AXPosition", Point{1, 2}}}, {}, Json::object()},
      {{{"AXPosition", Point{1, 2}}, {"AXSize", Point{1, 2}}}, {}, Json::object()},
      {{{"AXPosition", Point{nan, 2}}, {"AXSize", Size{1, 2}}}, {}, Json::object()},
      {{{"AXPosition", Point{1, 2}}, {"AXSize", Size{1, 1e300}}}, {}, Json::object()},
  };
  for (const auto& row : table) {
    FakeNode node;
    node.attributes = row.attributes;
    node.actionNames = row.actions;
    Json members = nodeFor(node);
    EXPECT_EQ(members.erase("ref"), 1u);
    EXPECT_EQ(members, row.expected);
  }
  FakeNode failing;
  failing.attributes = {{"AXPosition", Point{1, 2}}, {"AXSize", Size{1, 2}}};
  failing.attributeErrors = {{"AXSize", AXError::noValue}};
  failing.actionNames = std::vector<std::string>{"AXPress"};
  failing.actionNamesResult = AXError::cannotComplete;
  EXPECT_EQ(nodeFor(failing).size(), 1u);
}

TEST_F(AXTest, ValuesAsThePlatformPrintsThemKeep250Characters) {
  const auto valueOf = [this](AXValue value) {
    FakeNode node;
    node.attributes["AXValue"] = std::move(value);
    return nodeFor(std::move(node)).value("value", Json());
  };
  std::string accented;  // 250 characters in 750 bytes
  for (int i = 0; i < 250; ++i) accented += "e\u0301";
  const std::vector<std::pair<AXValue, Json>> table = {
      {0.5, "0.5"}, {std::int64_t{42}, "42"}, {42.0, "42"}, {true, "1"}, {false, "0"},
      {AXUrl{"https://example.com/a%20b?q=1"}, "https://example.com/a%20b?q=1"},
      {std::string("line 1\nline 2"), "line 1\nline 2"},
      {std::string(250, 'v'), std::string(250, 'v')},
      {std::string(251, 'v'), std::string(250, 'v') + kEllipsis}, {accented, accented},
      // An empty text is no value; nor is any other type.
      {std::string(), Json()}, {AXUrl{""}, Json()}, {Size{1, 2}, Json()},
      {std::vector<std::string>{"a"}, Json()}};
  for (const auto& [value, expected] : table) EXPECT_EQ(valueOf(value), expected) << expected;
}

// ---- ax_element_at ---------------------------------------------------------------------------

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

TEST_F(AXTest, ElementAtNeedsIntegersAndItsFailuresDescribeTheResultCode) {
  for (Json request :
       {Json{{"x", 10}}, Json{{"x", 10.5}, {"y", 20}}, Json{{"x", "10"}, {"y", 20}}}) {
    request["op"] = "ax_element_at";
    EXPECT_EQ(error(request), "ax_element_at requires x and y") << request;
  }
  EXPECT_TRUE(desktop.hitTests.empty());
  const std::tuple<AXResult, int, int, const char*> cases[] = {
      {AXError::noValue, 100, 200, "no accessible element at (100, 200) (no value)"},
      {AXError::failure, -5, 0, "no accessible element at (-5, 0) (AXError -25200)"},
      {AXError::success, 1, 2, "no accessible element at (1, 2) (success)"}};  // and no element
  for (const auto& [code, x, y, message] : cases) {
    desktop.elementAtResult = code;
    EXPECT_EQ(error({{"op", "ax_element_at"}, {"x", x}, {"y", y}}), message);
  }
  // Failures mint no ref.
  desktop.elementAt = element();
  EXPECT_EQ(send({{"op", "ax_element_at"}, {"x", 1}, {"y", 2}})["node"]["ref"], "e1");
}

// ---- find and wait_for -----------------------------------------------------------------------

class AXFindTest : public AXTest {
 protected:
  // The application: a window "Main" holding buttons "Page 2" and "page 1", a disabled check
  // box "checkbutton" (value 0), a text field "Hello" and a button "Save" with an identifier.
  struct Scene {
    ElementRef root, page2, page1, check, text, save;
  };
  Scene scene() {
    const auto make = [this](const char* role, const char* title, std::map<std::string, AXValue> more = {}) {
      FakeNode node;
      node.attributes = std::move(more);
      node.attributes["AXRole"] = std::string(role);
      if (*title != '\0') node.attributes["AXTitle"] = std::string(title);
      return element(std::move(node));
    };
    Scene s;
    s.page2 = make("AXButton", "Page 2");
    s.page1 = make("AXButton", "page 1");
    s.check = make("AXCheckBox", "checkbutton", {{"AXValue", std::int64_t{0}}, {"AXEnabled", false}});
    s.text = make("AXTextField", "", {{"AXValue", std::string("Hello")}});
    s.save = make("AXButton", "Save", {{"AXIdentifier", std::string("save-button")}});
    FakeNode window;
    window.attributes = {{"AXRole", std::string("AXWindow")}, {"AXTitle", std::string("Main")}};
    s.root = withRole("AXApplication",
                      {element(std::move(window), {s.page2, s.page1, s.check, s.text, s.save})});
    frontmost(s.root);
    return s;
  }
  Json find(Json request) {
    request["op"] = "find";
    return send(request);
  }
  // A node as the tables name it: its title, else its role.
  static Json nameOf(const Json& node) { return node.value("title", node.value("role", "?")); }
};

TEST_F(AXFindTest, FindMatchesEveryCriterionInTreeOrder) {
  scene();
  const auto names = [](std::initializer_list<const char*> list) {
    Json out = Json::array();
    for (const char* name : list) out.push_back(name);
    return out;
  };
  const std::pair<Json, Json> table[] = {
      {{{"role", "button"}}, names({"Page 2", "page 1", "Save"})},
      {{{"role", "AXButton"}, {"title", "PAGE"}}, names({"Page 2", "page 1"})},
      {{{"title", "Page 2"}, {"match", "exact"}}, names({"Page 2"})},
      {{{"title", "page"}, {"match", "exact"}}, names({})},
      {{{"value", "hell"}}, names({"AXTextField"})},
      {{{"value", "0"}, {"role", "check"}}, names({"checkbutton"})},
      {{{"identifier", "SAVE"}}, names({"Save"})},
      {{{"subrole", "x"}}, names({})},
      {{{"role", "button"}, {"limit", 2}}, names({"Page 2", "page 1"})},
      {{{"role", "AXWindow"}, {"maxDepth", 0}}, names({"Main"})},  // clamped to 1
      {{{"role", "AXButton"}, {"maxDepth", 1}}, names({})},
      // Refused before anything is read.
      {Json::object(), R"(find requires at least one of "role", "subrole", "title", "value", "identifier")"},
      {{{"limit", 3}}, R"(find requires at least one of "role", "subrole", "title", "value", "identifier")"},
      {{{"role", ""}}, R"(find "role" must be a non-empty string)"},
      {{{"role", "x"}, {"title", 7}}, R"(find "title" must be a non-empty string)"},
      {{{"role", "x"}, {"match", "Exact"}}, R"(find "match" must be "contains" or "exact")"},
      {{{"role", "x"}, {"limit", 2.5}}, R"(find "limit" must be an integer)"},
      {{{"role", "x"}, {"maxDepth", "2"}}, R"(find "maxDepth" must be an integer)"},
      {{{"role", "x"}, {"pid", 4294967296LL}}, R"(find "pid" is out of range)"},
  };
  for (const auto& [request, expected] : table) {
    const Json reply = find(request);
    if (expected.is_string()) {
      EXPECT_EQ(reply, Json({{"ok", false}, {"error", expected}})) << request;
      continue;
    }
    Json found = Json::array();
    for (const Json& node : reply["matches"]) {
      EXPECT_FALSE(node.contains("children")) << request;
      found.push_back(nameOf(node));
    }
    EXPECT_EQ(found, expected) << request;
  }
  // A walk that finds its limit stops there; one that does not visits the whole tree.
  EXPECT_EQ(find({{"role", "AXWindow"}, {"limit", 1}})["visited"], 2);
  EXPECT_EQ(find({{"role", "none"}})["visited"], 7);
  // Members as a dump writes them.
  Json check = find({{"title", "check"}})["matches"][0];
  EXPECT_EQ(check.erase("ref"), 1u);
  EXPECT_EQ(check, Json::parse(R"({"role":"AXCheckBox","title":"checkbutton","value":"0",
                                   "enabled":false})"));
  desktop.frontmost.reset();
  EXPECT_EQ(find({{"role", "x"}})["error"], "no frontmost application to search");
}

// A search adds refs and makes none stale; the registry keeps the newest 4096.
TEST_F(AXFindTest, FindClampsItsLimitAndKeepsEarlierRefs) {
  std::vector<ElementRef> groups;
  for (int i = 0; i < 6; ++i) {
    std::vector<ElementRef> buttons;
    for (int j = 0; j < 48; ++j) buttons.push_back(withRole("AXButton"));
    groups.push_back(element({}, buttons));
  }
  frontmost(element({}, groups));
  for (const auto& [limit, count] : std::vector<std::pair<Json, std::size_t>>{
           {Json(), 20}, {0, 1}, {-5, 1}, {199, 199}, {500, 200}}) {
    Json request = {{"role", "AXButton"}};
    if (!limit.is_null()) request["limit"] = limit;
    EXPECT_EQ(find(request)["matches"].size(), count) << limit;
  }
  EXPECT_TRUE(focus("e1")["ok"]);  // 421 refs so far, all live
  std::string last;
  for (int i = 0; i < 19; ++i) last = find({{"role", "AXButton"}, {"limit", 200}})["matches"][199]["ref"];
  EXPECT_EQ(last, "e4221");
  EXPECT_EQ(focus("e125")["error"], staleText("e125"));
  EXPECT_TRUE(focus("e126")["ok"]);
  EXPECT_TRUE(focus(last)["ok"]);
}

TEST_F(AXFindTest, WaitForAnswersOnThePollWhereItsStateHolds) {
  using Change = std::function<void(Scene&)>;
  const auto set = [this](ElementRef Scene::*which, const char* attribute, AXValue value) -> Change {
    return [this, which, attribute, value](Scene& s) {
      desktop.node(s.*which).attributes[attribute] = value;
    };
  };
  const auto gone = [](const char* what) {
    return std::string("wait_for gave up after 0.1 s: ") + what;
  };
  const struct {
    Json request;
    Change setup;      // before the first poll
    Change onThird;    // before the third poll
    Json expected;     // the found node's name, null for none, or the error
  } table[] = {
      {{{"state", "exists"}, {"title", "Page 3"}}, {}, set(&Scene::page1, "AXTitle", std::string("Page 3")), "Page 3"},
      {{{"state", "gone"}, {"title", "Page 2"}, {"match", "exact"}}, {}, set(&Scene::page2, "AXTitle", std::string("Page 20")), Json()},
      {{{"state", "enabled"}, {"title", "checkbutton"}}, {}, set(&Scene::check, "AXEnabled", true), "checkbutton"},
      {{{"state", "focused"}, {"role", "AXTextField"}}, {}, set(&Scene::text, "AXFocused", true), "AXTextField"},
      {{{"state", "value"}, {"role", "AXTextField"}, {"equals", "Bye"}}, {}, set(&Scene::text, "AXValue", std::string("Bye")), "AXTextField"},
      {{{"state", "value"}, {"role", "AXTextField"}, {"equals", ""}}, {}, set(&Scene::text, "AXValue", std::string()), "AXTextField"},
      // The first match decides: "page 1" comes after "Page 2".
      {{{"state", "enabled"}, {"title", "page"}, {"timeout", 0.01}},
       set(&Scene::page2, "AXEnabled", false), set(&Scene::page1, "AXEnabled", true),
       gone(R"(no element with title containing "page" became enabled)")},
      {{{"state", "exists"}, {"title", "Nope"}, {"timeout", 0}}, {}, {},
       gone(R"(no element with title containing "Nope" appeared)")},
      {{{"state", "value"}, {"title", "check"}, {"equals", "1"}, {"timeout", 0.1}}, {}, {},
       gone(R"(no element with title containing "check" took the value "1")")},
      {{{"state", "focused"}, {"role", "AXButton"}, {"title", "Save"}, {"match", "exact"}, {"timeout", -1}}, {}, {},
       gone(R"(no element with role "AXButton" and title "Save" became focused)")},
      // An application that does not answer has not lost its elements.
      {{{"state", "gone"}, {"title", "absent"}, {"timeout", 0.1}},
       [this](Scene& s) { desktop.node(s.root).attributeErrors["AXRole"] = AXError::cannotComplete; }, {},
       gone(R"(an element with title containing "absent" was still there)")},
      // Refused before anything is read.
      {{{"title", "x"}, {"state", "there"}}, {}, {}, R"(wait_for "state" must be "exists", "gone", "enabled", "focused" or "value")"},
      {{{"title", "x"}, {"state", "value"}, {"equals", 1}}, {}, {}, R"(wait_for "state": "value" requires a string "equals")"},
      {{{"title", "x"}, {"state", "exists"}, {"timeout", "5"}}, {}, {}, R"(wait_for "timeout" must be a number of seconds)"},
      {{{"state", "exists"}}, {}, {}, R"(wait_for requires at least one of "role", "subrole", "title", "value", "identifier")"},
  };
  for (const auto& row : table) {
    Scene s = scene();
    if (row.setup) row.setup(s);
    int polls = 0;
    desktop.onApplicationElement = [&](std::int32_t) {
      if (++polls == 3 && row.onThird) row.onThird(s);
    };
    Json request = row.request;
    request["op"] = "wait_for";
    const Json reply = send(request);
    desktop.onApplicationElement = nullptr;
    if (row.expected.is_string() && !reply["ok"].get<bool>()) {
      EXPECT_EQ(reply["error"], row.expected) << request;
      continue;
    }
    ASSERT_TRUE(reply["ok"]) << request << reply;
    EXPECT_EQ(polls, 3) << request;
    EXPECT_TRUE(reply["waitedMs"].is_number_integer()) << request;
    EXPECT_EQ(reply.contains("node") ? nameOf(reply["node"]) : Json(), row.expected) << request;
  }
}

// A host that goes away ends the wait at the next pause rather than at the time-out.
TEST_F(AXFindTest, WaitForStopsWhenTheHostCloses) {
  scene();
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  const std::string line = R"({"op":"wait_for","state":"exists","title":"Never","timeout":5})" "\n";
  ASSERT_EQ(::write(ends[0], line.data(), line.size()), static_cast<ssize_t>(line.size()));
  ::close(ends[0]);
  desktop.applicationElementsCreated.clear();
  ConnectionHandler(ends[1], context).run();
  EXPECT_EQ(desktop.applicationElementsCreated.size(), 1u);
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
  for (const char* op : {"ax_dump", "ax_element_at", "ax_action", "ax_set_value", "ax_focus",
                         "find", "wait_for", "windows", "window_action"}) {
    EXPECT_EQ(send({{"op", op}}), Json({{"ok", false}, {"error", kNotTrusted}})) << op;
    EXPECT_EQ(error({{"op", op}, {"ref", "e2"}, {"value", "x"}, {"pid", 1e300}, {"x", 1}, {"y", 2}}),
              kNotTrusted)
        << op;
  }
  EXPECT_TRUE(desktop.applicationElementsCreated.empty());
  EXPECT_TRUE(desktop.hitTests.empty());
  EXPECT_TRUE(desktop.performed.empty());
  EXPECT_TRUE(desktop.written.empty());
  EXPECT_TRUE(desktop.windowCalls.empty());
}

TEST_F(AXActionTest, PressIsTheDefaultActionAndATimeoutAProbableSuccess) {
  EXPECT_EQ(send({{"op", "ax_action"}, {"ref", "e2"}}), Json({{"ok", true}}));
  for (const Json& action : {Json(""), Json(5), Json("AXShowMenu")}) {
    EXPECT_EQ(send({{"op", "ax_action"}, {"ref", "e2"}, {"action", action}}), Json({{"ok", true}}));
  }
  EXPECT_EQ(performedNames(),
            (std::vector<std::string>{"AXPress", "AXPress", "AXPress", "AXShowMenu"}));
  EXPECT_EQ(desktop.performed.front().first, desktop.idOf(*target));

  targetNode().performResults["AXPress"] = AXError::cannotComplete;
  EXPECT_EQ(send({{"op", "ax_action"}, {"ref", "e2"}}),
            Json({{"ok", true},
                  {"note",
                   "the app did not confirm within the AX timeout \u2014 the action possibly "
                   "succeeded; re-dump to verify"}}));
}

// Each failure names the operation and the result code; a gone element reads as a stale ref, and
// the ref stays registered: the platform decides every time.
TEST_F(AXActionTest, FailuresNameTheOperationAndTheResultCode) {
  const std::map<std::string, Json> requests = {
      {"AXPress", {{"op", "ax_action"}, {"ref", "e2"}}},
      {"AXRaise", {{"op", "ax_action"}, {"ref", "e2"}, {"action", "AXRaise"}}},
      {"AXValue", {{"op", "ax_set_value"}, {"ref", "e2"}, {"value", "x"}}},
      {"AXFocused", {{"op", "ax_focus"}, {"ref", "e2"}}}};
  const std::string noTime = "kAXErrorCannotComplete \u2014 the app did not respond in time)";
  targetNode().settable["AXValue"] = true;
  const std::tuple<const char*, AXResult, std::string> table[] = {
      {"AXRaise", AXError::actionUnsupported, "AXRaise failed (action unsupported)"},
      {"AXPress", AXError::failure, "AXPress failed (AXError -25200)"},
      {"AXPress", AXError::invalidUIElement, staleText("e2")},
      {"AXValue", AXError::cannotComplete, "setting AXValue failed (" + noTime},
      {"AXValue", AXError::illegalArgument, "setting AXValue failed (AXError -25201)"},
      {"AXValue", AXError::invalidUIElement, staleText("e2")},
      {"AXFocused", AXError::cannotComplete, "focusing failed (" + noTime},
      {"AXFocused", AXError::apiDisabled,
       "focusing failed (kAXErrorAPIDisabled \u2014 accessibility is disabled for this app)"},
      {"AXFocused", AXError::invalidUIElement, staleText("e2")}};
  for (const auto& [name, code, message] : table) {
    const Json& request = requests.at(name);
    auto& results = request["op"] == "ax_action" ? targetNode().performResults
                                                 : targetNode().setResults;
    results[name] = code;
    EXPECT_EQ(send(request), Json({{"ok", false}, {"error", message}})) << request;
    results.clear();
    EXPECT_EQ(send(request), Json({{"ok", true}})) << request;
  }
}

TEST_F(AXActionTest, SetValueChecksTheRefThenTheValueThenWhetherSettable) {
  const std::string notString = "ax_set_value requires a string \"value\"";
  const std::string notSettable =
      "this element's AXValue is not settable \u2014 focus it (ax_focus) and type instead";
  EXPECT_EQ(error({{"op", "ax_set_value"}, {"value", 42}}), staleText("?"));
  EXPECT_EQ(error({{"op", "ax_set_value"}, {"ref", "e9"}}), staleText("e9"));
  EXPECT_EQ(error({{"op", "ax_set_value"}, {"ref", "e2"}}), notString);
  EXPECT_EQ(error({{"op", "ax_set_value"}, {"ref", "e2"}, {"value", 42}}), notString);
  EXPECT_EQ(error({{"op", "ax_set_value"}, {"ref", "e2"}, {"value", "x"}}), notSettable);
  targetNode().settable["AXTitle"] = true;  // another attribute does not count
  EXPECT_EQ(error({{"op", "ax_set_value"}, {"ref", "e2"}, {"value", "x"}}), notSettable);
  // A gone element fails the query: not settable, rather than stale.
  targetNode().settable["AXValue"] = true;
  targetNode().settableResult = AXError::invalidUIElement;
  EXPECT_EQ(error({{"op", "ax_set_value"}, {"ref", "e2"}, {"value", "x"}}), notSettable);
  EXPECT_TRUE(desktop.written.empty());

  targetNode().settableResult = AXError::success;
  EXPECT_EQ(send({{"op", "ax_set_value"}, {"ref", "e2"}, {"value", "h\u00e9llo"}}),
            Json({{"ok", true}}));
  EXPECT_EQ(focus("e2"), Json({{"ok", true}}));
  EXPECT_EQ(desktop.written,
            (std::vector<std::pair<int, AXWritableValue>>{
                {desktop.idOf(*target), std::string("h\u00e9llo")}, {desktop.idOf(*target), true}}));
}

// ---- windows, window_action -----------------------------------------------------------------

// Every regular application's windows, or one pid's; each window with a ref the other
// operations take, its title ("" when unreadable) and frame (left out when unreadable), and
// three flags that are false unless the window says true.
TEST_F(AXTest, WindowsListsTheWindowsOfRegularApplicationsOrOnePid) {
  FakeNode main;
  main.attributes = {{"AXTitle", std::string("Doc")},  {"AXPosition", Point{10.4, -20.5}},
                     {"AXSize", Size{640, 480}},       {"AXMain", true},
                     {"AXFocused", std::int64_t{1}},   {"AXMinimized", false}};
  FakeNode other;
  other.attributes = {{"AXMinimized", true}, {"AXPosition", Point{0, 0}}};
  const ElementRef window = element(main);
  FakeNode app;
  app.attributes["AXWindows"] = std::vector<ElementRef>{window, element(other)};
  desktop.applications[kPid] = element(app);
  desktop.applicationNames[kPid] = "Notes";
  FakeNode silent;
  silent.attributeErrors["AXWindows"] = AXError::cannotComplete;
  desktop.applications[7] = element(silent);
  desktop.regularApplications = {7, kPid};

  const Json all = send({{"op", "windows"}});
  const Json expected = Json::parse(R"([
    {"ref":"e1","title":"Doc","frame":{"x":10,"y":-21,"w":640,"h":480},"pid":321,"app":"Notes",
     "main":true,"focused":true,"minimized":false},
    {"ref":"e2","title":"","pid":321,"app":"Notes","main":false,"focused":false,"minimized":true}
  ])");
  EXPECT_EQ(all, Json({{"ok", true}, {"windows", expected}}));
  EXPECT_EQ(send({{"op", "ax_action"}, {"ref", "e1"}, {"action", "AXRaise"}}), Json({{"ok", true}}));
  EXPECT_EQ(desktop.performed.back(), std::make_pair(desktop.idOf(*window), std::string("AXRaise")));

  EXPECT_EQ(send({{"op", "windows"}, {"pid", kPid}})["windows"][0]["ref"], "e3");
  EXPECT_EQ(send({{"op", "windows"}, {"pid", 7}}),
            Json({{"ok", false},
                  {"error",
                   "could not list the windows of pid 7 (kAXErrorCannotComplete \u2014 the app "
                   "did not respond in time)"}}));
  EXPECT_EQ(error({{"op", "windows"}, {"pid", 1LL << 31}}), "windows \"pid\" is out of range");
  desktop.regularApplications.clear();
  EXPECT_EQ(send({{"op", "windows"}}), Json({{"ok", true}, {"windows", Json::array()}}));
}

// The ref, then the action, then its operands; the desktop's answer as for ax_action.
TEST_F(AXActionTest, WindowActionChecksRefActionAndOperandsInOrder) {
  const std::string badAction =
      "window_action \"action\" must be one of raise, minimize, unminimize, close, move, resize";
  const std::string noPoint = "window_action move requires numbers x and y";
  const std::string noSize = "window_action resize requires numbers w and h of at least 1";
  const std::pair<Json, std::string> refused[] = {
      {{{"action", "raise"}}, staleText("?")},
      {{{"ref", "e9"}, {"action", "raise"}}, staleText("e9")},
      {{{"ref", "e2"}}, badAction},
      {{{"ref", "e2"}, {"action", "Raise"}}, badAction},
      {{{"ref", "e2"}, {"action", "move"}, {"x", 1}}, noPoint},
      {{{"ref", "e2"}, {"action", "move"}, {"x", 1}, {"y", "2"}}, noPoint},
      {{{"ref", "e2"}, {"action", "move"}, {"w", 1}, {"h", 2}}, noPoint},
      {{{"ref", "e2"}, {"action", "resize"}, {"x", 1}, {"y", 2}}, noSize},
      {{{"ref", "e2"}, {"action", "resize"}, {"w", 100}, {"h", 0}}, noSize},
      {{{"ref", "e2"}, {"action", "resize"}, {"w", 100}}, noSize}};
  for (auto [request, message] : refused) {
    request["op"] = "window_action";
    EXPECT_EQ(error(request), message) << request;
  }
  EXPECT_TRUE(desktop.windowCalls.empty());

  const std::tuple<Json, WindowAction, double, double> accepted[] = {
      {{{"action", "raise"}, {"x", 5}}, WindowAction::raise, 0, 0},
      {{{"action", "minimize"}}, WindowAction::minimize, 0, 0},
      {{{"action", "unminimize"}}, WindowAction::unminimize, 0, 0},
      {{{"action", "close"}}, WindowAction::close, 0, 0},
      {{{"action", "move"}, {"x", -10.5}, {"y", 20}}, WindowAction::move, -10.5, 20},
      {{{"action", "resize"}, {"w", 300}, {"h", 200.5}, {"x", 1}}, WindowAction::resize, 300,
       200.5}};
  for (auto [request, action, a, b] : accepted) {
    request["op"] = "window_action";
    request["ref"] = "e2";
    EXPECT_EQ(send(request), Json({{"ok", true}})) << request;
    ASSERT_FALSE(desktop.windowCalls.empty());
    const auto& call = desktop.windowCalls.back();
    EXPECT_EQ(call.id, desktop.idOf(*target));
    EXPECT_EQ(call.action, action) << request;
    EXPECT_EQ(call.to.x, a) << request;
    EXPECT_EQ(call.to.y, b) << request;
  }

  const std::tuple<AXResult, Json> answers[] = {
      {AXError::invalidUIElement, {{"ok", false}, {"error", staleText("e2")}}},
      {AXError::actionUnsupported, {{"ok", false}, {"error", "close failed (action unsupported)"}}},
      {AXError::cannotComplete,
       {{"ok", true},
        {"note",
         "the app did not confirm within the AX timeout \u2014 the action possibly succeeded; "
         "list the windows to verify"}}}};
  for (const auto& [code, reply] : answers) {
    desktop.windowActionResult = code;
    EXPECT_EQ(send({{"op", "window_action"}, {"ref", "e2"}, {"action", "close"}}), reply);
  }
}

// ---- clipboard_get, clipboard_set --------------------------------------------------------------

// Text goes through as it is; what is not text, or cannot be read, is an error that says so. No
// grant is needed.
TEST_F(AXTest, ClipboardCarriesTextAndSaysWhyNot) {
  desktop.accessibility = false;
  using S = ClipboardText::Status;
  const std::pair<ClipboardText, Json> reads[] = {
      {{S::empty, "stale", {}}, {{"ok", true}, {"text", ""}}},
      {{S::text, "h\u00e9\nllo", {}}, {{"ok", true}, {"text", "h\u00e9\nllo"}}},
      {{S::notText, {}, "image/png"},
       {{"ok", false}, {"error", "the clipboard holds no text (it holds image/png)"}}},
      {{S::failed, {}, "no owner answered"},
       {{"ok", false}, {"error", "could not read the clipboard (no owner answered)"}}},
      {{S::text, "\xff", {}},
       {{"ok", false}, {"error", "the clipboard's text is not valid UTF-8"}}},
      {{S::text, std::string(4 * 1024 * 1024 + 1, 'a'), {}},
       {{"ok", false},
        {"error", "the clipboard's text is 4194305 bytes, more than the 4194304 a reply carries"}}}};
  for (const auto& [content, reply] : reads) {
    desktop.clipboard = content;
    EXPECT_EQ(send({{"op", "clipboard_get"}}), reply) << reply;
  }

  EXPECT_EQ(error({{"op", "clipboard_set"}}), "clipboard_set requires a string \"text\"");
  EXPECT_EQ(error({{"op", "clipboard_set"}, {"text", 5}}), "clipboard_set requires a string \"text\"");
  EXPECT_EQ(send({{"op", "clipboard_set"}, {"text", "\u65e5\u672c"}}), Json({{"ok", true}}));
  EXPECT_EQ(desktop.clipboard.text, "\u65e5\u672c");
  desktop.clipboardWriteError = "the X display does not answer";
  EXPECT_EQ(error({{"op", "clipboard_set"}, {"text", "x"}}),
            "could not set the clipboard (the X display does not answer)");
}

}  // namespace
}  // namespace tervain
