#include "client/render.h"

#include <gtest/gtest.h>

namespace tervain::client {
namespace {

TEST(RenderTest, PingSummaryListsDisplaysAndFeatures) {
  PingInfo ping{.version = 2,
                .agentVersion = "0.1.0",
                .desktop = "macos",
                .features = {"exec", "ping"},
                .displays = {{.id = 1, .width = 2880, .height = 1800, .main = true},
                             {.id = 5, .width = 1920, .height = 1080, .main = false}},
                .readiness = {.accessibility = true, .screenRecording = false, .postEvent = true}};
  EXPECT_EQ(renderPing(ping),
            "agent protocol v2, build 0.1.0, macos desktop\n"
            "displays: 2\n"
            "  1: 2880x1800 pixels (main)\n"
            "  5: 1920x1080 pixels\n"
            "grants: accessibility yes, screen recording no, input synthesis yes\n"
            "features: exec ping\n");
}

TEST(RenderTest, NodeShowsRefRoleTitleValueFrameAndState) {
  AXNode node{.ref = "e7", .role = "AXButton", .subrole = "AXCloseButton", .title = "Close"};
  node.frame = Rect{10, 20, 14, 16};
  node.disabled = true;
  EXPECT_EQ(renderNode(node), "e7 AXButton/AXCloseButton \"Close\" [10,20 14x16] disabled");

  AXNode field{.ref = "e9", .role = "AXTextArea", .value = "two\nlines \"quoted\""};
  field.focused = true;
  EXPECT_EQ(renderNode(field), R"(e9 AXTextArea value="two\nlines \"quoted\"" focused)");
  EXPECT_EQ(renderNode(AXNode{.ref = "e1"}), "e1");
}

TEST(RenderTest, TreeIndentsChildrenAndNotesWhatIsMissing) {
  AXNode window{.ref = "e2", .role = "AXWindow", .title = "Untitled"};
  window.children.push_back(AXNode{.ref = "e3", .role = "AXTextArea", .value = "hello"});
  window.childrenOmitted = 4;
  AXNode app{.ref = "e1", .role = "AXApplication", .title = "TextEdit"};
  app.children.push_back(window);
  EXPECT_EQ(renderTree({.root = app, .app = "TextEdit", .truncated = true}),
            "app: TextEdit\n"
            "e1 AXApplication \"TextEdit\"\n"
            "  e2 AXWindow \"Untitled\"\n"
            "    e3 AXTextArea value=\"hello\"\n"
            "    ... 4 more not shown\n"
            "(the dump stopped at its node budget: some elements are missing)\n");
}

TEST(RenderTest, ParsedNodesKeepTheWireAsymmetryOfEnabledAndFocused) {
  const AXNode node = parseAXNode(Json::parse(
      R"({"ref":"e4","role":"AXButton","enabled":false,"focused":true,"actions":["AXPress"],
          "frame":{"x":1,"y":2,"w":3,"h":4},"childrenOmitted":2,"children":[{"ref":"e5"}]})"));
  EXPECT_TRUE(node.disabled);
  EXPECT_TRUE(node.focused);
  EXPECT_EQ(node.actions, std::vector<std::string>{"AXPress"});
  ASSERT_EQ(node.children.size(), 1u);
  EXPECT_EQ(node.children[0].ref, "e5");
  EXPECT_FALSE(node.children[0].disabled);
  EXPECT_EQ(node.childrenOmitted, 2);
  EXPECT_EQ(renderNode(node), "e4 AXButton [1,2 3x4] disabled focused");
}

}  // namespace
}  // namespace tervain::client
