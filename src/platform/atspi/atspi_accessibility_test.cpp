// AtspiAccessibility against real applications nobody here wrote: gtk3-widget-factory and a Qt
// editor (featherpad), in a private desktop that the suite starts once and shares.
#include "platform/atspi/atspi_accessibility.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <set>
#include <thread>

#include "desktop_session.h"

namespace tervain::atspi {
namespace {

using testing::DesktopSession;

const std::vector<std::string> kAttributes = {"AXRole",    "AXSubrole",  "AXTitle",
                                              "AXValue",   "AXEnabled",  "AXFocused",
                                              "AXPosition", "AXSize",    "AXChildren"};
enum { kRole, kSubrole, kTitle, kValue, kEnabled, kFocused, kPosition, kSize, kChildren };

struct Node {
  ElementRef element;
  std::vector<AXRead> reads;
  AXRead actions;
  std::string text(int slot) const {
    const auto* s = std::get_if<std::string>(&reads[slot].second);
    return s ? *s : std::string();
  }
};

// A value as comparable text.
std::string show(const AXRead& read) {
  std::string out = std::to_string(read.first) + ":";
  const AXValue& v = read.second;
  if (const auto* s = std::get_if<std::string>(&v)) return out + "s" + *s;
  if (const auto* i = std::get_if<std::int64_t>(&v)) return out + "i" + std::to_string(*i);
  if (const auto* d = std::get_if<double>(&v)) return out + "d" + std::to_string(*d);
  if (const auto* b = std::get_if<bool>(&v)) return out + (*b ? "T" : "F");
  if (const auto* p = std::get_if<Point>(&v)) return out + std::to_string(p->x) + "," + std::to_string(p->y);
  if (const auto* z = std::get_if<Size>(&v)) return out + std::to_string(z->width) + "x" + std::to_string(z->height);
  if (const auto* l = std::get_if<std::vector<ElementRef>>(&v)) {
    for (const auto& e : *l) {
      const auto& a = static_cast<const AtspiElement&>(*e);
      out += a.bus + a.path + ";";
    }
    return out;
  }
  if (const auto* n = std::get_if<std::vector<std::string>>(&v)) {
    for (const auto& s : *n) out += s + ";";
    return out;
  }
  return out + "-";
}

class AtspiDesktopTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    session = new DesktopSession({"gtk3-widget-factory", "featherpad"});
    if (!session->ok()) return;
    accessibility = new AtspiAccessibility(session->accessibilityBus());
    // Both applications register on the bus a moment after they start.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    for (pid_t pid : session->pids()) {
      while (!accessibility->runningApplicationName(pid) &&
             std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
      }
    }
  }
  static void TearDownTestSuite() {
    delete accessibility;
    accessibility = nullptr;
    delete session;
    session = nullptr;
  }
  void SetUp() override {
    ASSERT_TRUE(session->ok()) << session->why();
    for (pid_t pid : session->pids()) {
      ASSERT_TRUE(accessibility->runningApplicationName(pid)) << "pid " << pid << " not on the bus";
    }
  }

  static pid_t factoryPid() { return session->pids()[0]; }
  static pid_t editorPid() { return session->pids()[1]; }

  // Every element of an application, level by level, each level one batch.
  static std::vector<Node> walk(pid_t pid) {
    std::vector<Node> nodes;
    std::vector<ElementRef> level = {accessibility->applicationElement(pid)};
    for (int depth = 0; !level.empty() && depth < 40; ++depth) {
      std::vector<std::vector<AXRead>> reads;
      std::vector<AXRead> actions;
      accessibility->copyAttributeValues(level, kAttributes, reads, &actions);
      std::vector<ElementRef> next;
      for (std::size_t i = 0; i < level.size(); ++i) {
        if (const auto* children = std::get_if<std::vector<ElementRef>>(&reads[i][kChildren].second)) {
          next.insert(next.end(), children->begin(), children->end());
        }
        nodes.push_back(Node{level[i], std::move(reads[i]), std::move(actions[i])});
      }
      level = std::move(next);
    }
    return nodes;
  }

  static const Node* find(const std::vector<Node>& nodes, const std::string& role,
                          const std::string& title) {
    for (const Node& node : nodes) {
      if (node.text(kRole) == role && node.text(kTitle) == title) return &node;
    }
    return nullptr;
  }

  // Presses "Page N" and waits (bounded) until the factory shows that page.
  static void showPage(int page) {
    const std::string title = "Page " + std::to_string(page);
    const auto nodes = walk(factoryPid());
    const Node* radio = find(nodes, "AXRadioButton", title);
    ASSERT_NE(radio, nullptr);
    ASSERT_EQ(accessibility->performAction(*radio->element, "AXPress"), AXError::success);
    for (int i = 0; i < 100; ++i) {
      AXValue value;
      if (accessibility->copyAttributeValue(*radio->element, "AXValue", value) == AXError::success &&
          std::get_if<std::int64_t>(&value) && std::get<std::int64_t>(value) == 1) {
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    FAIL() << title << " did not become the shown page";
  }

  static DesktopSession* session;
  static AtspiAccessibility* accessibility;
};

DesktopSession* AtspiDesktopTest::session = nullptr;
AtspiAccessibility* AtspiDesktopTest::accessibility = nullptr;

TEST_F(AtspiDesktopTest, EveryRoleOfTheWidgetFactoryAndTheQtEditorHasAnAXName) {
  std::set<std::string> roles;
  std::set<std::string> unmapped;
  std::size_t count = 0;
  const auto collect = [&](const std::vector<Node>& nodes) {
    for (const Node& node : nodes) {
      const std::string role = node.text(kRole);
      if (role.empty()) continue;
      ++count;
      roles.insert(role);
      if (role.rfind("AT-SPI:", 0) == 0) unmapped.insert(role);
    }
  };
  for (int page = 1; page <= 3; ++page) {
    showPage(page);
    collect(walk(factoryPid()));
  }
  showPage(1);
  collect(walk(editorPid()));
  EXPECT_TRUE(unmapped.empty()) << *unmapped.begin();
  // Three pages and an editor: a walk that stopped early would not see this much.
  EXPECT_GT(count, 1000u);
  EXPECT_GE(roles.size(), 25u);
}

TEST_F(AtspiDesktopTest, BatchedReadsAgreeWithOneByOneReads) {
  const auto nodes = walk(factoryPid());
  ASSERT_GT(nodes.size(), 200u);
  std::size_t compared = 0;
  for (std::size_t i = 0; i < nodes.size(); i += 7, ++compared) {
    const Node& node = nodes[i];
    for (std::size_t a = 0; a < kAttributes.size(); ++a) {
      AXValue value;
      const AXResult code = accessibility->copyAttributeValue(*node.element, kAttributes[a], value);
      EXPECT_EQ(show(AXRead{code, code == AXError::success ? value : AXValue{}}), show(node.reads[a]))
          << kAttributes[a] << " of node " << i;
    }
    AXValue actions;
    const AXResult code = accessibility->copyActionNames(*node.element, actions);
    EXPECT_EQ(show(AXRead{code, actions}), show(node.actions)) << "actions of node " << i;
  }
  EXPECT_GT(compared, 30u);
}

TEST_F(AtspiDesktopTest, ReadsTheWidgetFactoryInTheMacVocabulary) {
  const auto nodes = walk(factoryPid());
  const Node* page1 = find(nodes, "AXRadioButton", "Page 1");
  ASSERT_NE(page1, nullptr);
  EXPECT_EQ(show(page1->reads[kValue]), "0:i1");
  EXPECT_EQ(show(page1->actions), "0:AXPress;");
  const Node* window = nullptr;
  int checkBoxes = 0, spinButtons = 0, toggles = 0, disabled = 0;
  std::set<std::string> spinValues;
  for (const Node& node : nodes) {
    const std::string role = node.text(kRole);
    if (role == "AXWindow") window = &node;
    if (role == "AXCheckBox" && node.text(kTitle) == "checkbutton") {
      ++checkBoxes;
      const auto* mark = std::get_if<std::int64_t>(&node.reads[kValue].second);
      ASSERT_NE(mark, nullptr);
      EXPECT_TRUE(*mark >= 0 && *mark <= 2);
    }
    if (role == "AXIncrementor") {
      ++spinButtons;
      spinValues.insert(show(node.reads[kValue]));
    }
    if (node.text(kSubrole) == "AXToggle") ++toggles;
    if (show(node.reads[kEnabled]) == "0:F") ++disabled;
  }
  EXPECT_EQ(checkBoxes, 6);
  EXPECT_EQ(spinButtons, 2);
  EXPECT_TRUE(spinValues.count("0:d50.000000"));
  EXPECT_GE(toggles, 4);
  EXPECT_GE(disabled, 1);
  ASSERT_NE(window, nullptr);
  EXPECT_EQ(window->text(kSubrole), "AXStandardWindow");
  const auto* size = std::get_if<Size>(&window->reads[kSize].second);
  ASSERT_NE(size, nullptr);
  EXPECT_GT(size->width, 400);
  // The application itself: a title, no frame, no enabled state.
  EXPECT_EQ(nodes[0].text(kRole), "AXApplication");
  EXPECT_EQ(nodes[0].reads[kEnabled].first, AXError::attributeUnsupported);
}

TEST_F(AtspiDesktopTest, WritesTextAndTakesFocusInGtkAndQt) {
  for (pid_t pid : {factoryPid(), editorPid()}) {
    const auto nodes = walk(pid);
    const Node* field = nullptr;
    for (const Node& node : nodes) {
      const std::string role = node.text(kRole);
      bool settable = false;
      if ((role == "AXTextField" || role == "AXTextArea") &&
          accessibility->isAttributeSettable(*node.element, "AXValue", settable) == AXError::success &&
          settable) {
        field = &node;
        break;
      }
    }
    ASSERT_NE(field, nullptr) << "no settable text in pid " << pid;
    const std::string text = "gr\u00fc\u00dfe " + std::to_string(pid);
    ASSERT_EQ(accessibility->setAttributeValue(*field->element, "AXValue", AXWritableValue(text)),
              AXError::success);
    AXValue back;
    ASSERT_EQ(accessibility->copyAttributeValue(*field->element, "AXValue", back), AXError::success);
    EXPECT_EQ(show(AXRead{0, back}), "0:s" + text);

    bool focusable = false;
    accessibility->isAttributeSettable(*field->element, "AXFocused", focusable);
    EXPECT_TRUE(focusable);
    ASSERT_EQ(accessibility->setAttributeValue(*field->element, "AXFocused", AXWritableValue(true)),
              AXError::success);
    // Qt shows the focused state only in the active window, and the factory's window is active.
    if (pid == editorPid()) continue;
    bool focused = false;
    for (int i = 0; i < 100 && !focused; ++i) {  // the state follows a moment later
      AXValue value;
      accessibility->copyAttributeValue(*field->element, "AXFocused", value);
      focused = show(AXRead{0, value}) == "0:T";
      if (!focused) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_TRUE(focused);
  }
}

// The Qt editor is read over the bus, the GTK factory over its own socket: each is stopped in
// turn while the other is read.
TEST_F(AtspiDesktopTest, AStoppedApplicationCostsItsTimeoutAndHoldsUpNoOtherCaller) {
  for (const bool stopFactory : {false, true}) {
    SCOPED_TRACE(stopFactory ? "factory stopped" : "editor stopped");
    const pid_t stoppedPid = stopFactory ? factoryPid() : editorPid();
    const ElementRef stopped = accessibility->applicationElement(stoppedPid);
    const ElementRef other = accessibility->applicationElement(stopFactory ? editorPid() : factoryPid());
    ASSERT_EQ(accessibility->setMessagingTimeout(*stopped, 1.0f), AXError::success);
    ASSERT_EQ(kill(stoppedPid, SIGSTOP), 0);
    std::atomic<bool> stalledDone{false};
    AXResult stalledCode = AXError::success;
    std::thread stalled([&] {
      AXValue value;
      stalledCode = accessibility->copyAttributeValue(*stopped, "AXTitle", value);
      stalledDone = true;
    });
    // Meanwhile another caller reads another application, and gets its answer first.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    AXValue title;
    const AXResult code = accessibility->copyAttributeValue(*other, "AXTitle", title);
    const bool overtaken = !stalledDone;
    stalled.join();
    kill(stoppedPid, SIGCONT);
    accessibility->setMessagingTimeout(*stopped, 0);
    EXPECT_EQ(code, AXError::success);
    EXPECT_TRUE(overtaken);
    EXPECT_EQ(stalledCode, AXError::cannotComplete);
  }
}

TEST_F(AtspiDesktopTest, APidWithoutAnApplicationReadsAsStale) {
  const pid_t nobody = getpid();  // this test: a process with no accessible application
  EXPECT_FALSE(accessibility->runningApplicationName(nobody));
  const ElementRef root = accessibility->applicationElement(nobody);
  ASSERT_TRUE(root);
  AXValue value;
  EXPECT_EQ(accessibility->copyAttributeValue(*root, "AXRole", value), AXError::invalidUIElement);
  EXPECT_EQ(accessibility->performAction(*root, "AXPress"), AXError::invalidUIElement);
  EXPECT_TRUE(accessibility->busReachable());
  EXPECT_TRUE(accessibility->frontmostApplicationPid());
}

}  // namespace
}  // namespace tervain::atspi
