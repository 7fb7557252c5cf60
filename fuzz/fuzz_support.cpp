#include "fuzz_support.h"

namespace tervain::fuzzing {

void scriptDesktop(testing::FakeDesktop& desktop) {
  desktop.screens = {{1, 1920, 1080, true}};
  desktop.pointer = Point{10.5, 20.25};
  testing::FakeNode leaf;
  leaf.attributes["AXRole"] = std::string("AXButton");
  leaf.attributes["AXTitle"] = std::string("OK");
  leaf.attributes["AXValue"] = 0.5;
  leaf.attributes["AXPosition"] = Point{1.5, -2.5};
  leaf.attributes["AXSize"] = Size{10, 20};
  leaf.actionNames = std::vector<std::string>{"AXPress"};
  leaf.settable["AXValue"] = true;
  const ElementRef button = desktop.addElement(leaf);
  testing::FakeNode root;
  root.attributes["AXRole"] = std::string("AXApplication");
  root.attributes["AXChildren"] = std::vector<ElementRef>{button, button};
  desktop.applications[42] = desktop.addElement(root);
  desktop.frontmost = 42;
  desktop.applicationNames[42] = "Fuzz";
  desktop.elementAtResult = AXError::success;
  desktop.elementAt = button;
  desktop.captureDisplays = {{{1440, 900, 2.0f}}};
}

void quietContext(AgentContext& context) {
  context.startWorker = [](std::function<void()> job) { job(); };
  context.screenshotTimeout = std::chrono::milliseconds(1000);
  context.launchTimeout = std::chrono::milliseconds(10);
}

bool isStreamingOp(std::string_view op) { return op == "exec" || op == "shell-events"; }

bool isSlowOp(std::string_view op) { return op == "launch_app"; }

}  // namespace tervain::fuzzing
