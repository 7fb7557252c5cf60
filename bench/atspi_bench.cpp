// Reading a real application's accessibility tree: gtk3-widget-factory's first page (about 260
// nodes) in a private desktop started for the run.
//
// atspi_dump_widget_factory_ms is a whole "ax_dump" request (parse, walk, reply bytes) through a
// connection handler over a desktop whose accessibility is the AT-SPI adapter; the floor beside it
// is a plain synchronous libatspi walk that reads the same attributes of the same tree (role,
// name, states, extents, action names, value or text, children), one round trip at a time, with
// libatspi's cache emptied before each walk so that every read goes to the application.
// atspi_dump_vs_sync_walk is their ratio, both measured in this one run (the goal: 0.25 or less).
//
// find_vs_dump: a "find" for the factory's "checkbutton" check boxes (which walks all of the tree
// it can reach, having fewer matches than its limit) against a full dump (every level, "maxDepth"
// 25) of the same application, in the same rounds; both take the same reads, so it shows what a
// search saves by building only its matches (about 1, or a little under).
#include <atspi/atspi.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "agent/connection_handler.h"
#include "bench.h"
#include "core/json.h"
#include "desktop_session.h"
#include "platform/atspi/atspi_accessibility.h"
#include "platform/headless_desktop.h"

namespace tervain {
namespace {

using Clock = std::chrono::steady_clock;

double millisSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

int syncWalk(AtspiAccessible* node) {
  int count = 1;
  atspi_accessible_get_role(node, nullptr);
  g_free(atspi_accessible_get_name(node, nullptr));
  g_object_unref(atspi_accessible_get_state_set(node));
  if (AtspiComponent* component = atspi_accessible_get_component_iface(node)) {
    g_free(atspi_component_get_extents(component, ATSPI_COORD_TYPE_SCREEN, nullptr));
    g_object_unref(component);
  }
  if (AtspiAction* action = atspi_accessible_get_action_iface(node)) {
    const int n = atspi_action_get_n_actions(action, nullptr);
    for (int i = 0; i < n; ++i) g_free(atspi_action_get_action_name(action, i, nullptr));
    g_object_unref(action);
  }
  if (AtspiValue* value = atspi_accessible_get_value_iface(node)) {
    atspi_value_get_current_value(value, nullptr);
    g_object_unref(value);
  } else if (AtspiText* text = atspi_accessible_get_text_iface(node)) {
    g_free(atspi_text_get_text(text, 0, -1, nullptr));
    g_object_unref(text);
  }
  const int children = atspi_accessible_get_child_count(node, nullptr);
  for (int i = 0; i < children; ++i) {
    if (AtspiAccessible* child = atspi_accessible_get_child_at_index(node, i, nullptr)) {
      count += syncWalk(child);
      g_object_unref(child);
    }
  }
  return count;
}

AtspiAccessible* libatspiApplication(pid_t pid) {
  AtspiAccessible* desktop = atspi_get_desktop(0);
  AtspiAccessible* found = nullptr;
  const int n = atspi_accessible_get_child_count(desktop, nullptr);
  for (int i = 0; i < n && !found; ++i) {
    AtspiAccessible* app = atspi_accessible_get_child_at_index(desktop, i, nullptr);
    if (app && atspi_accessible_get_process_id(app, nullptr) == static_cast<guint>(pid)) {
      found = app;
    } else if (app) {
      g_object_unref(app);
    }
  }
  g_object_unref(desktop);
  return found;
}

// A desktop whose accessibility is the AT-SPI adapter, as the X11 desktop's is.
class AtspiBenchDesktop final : public HeadlessDesktop {
 public:
  explicit AtspiBenchDesktop(atspi::AtspiAccessibility& a) : a(a) {}
  bool accessibilityTrusted() override { return a.busReachable(); }
  ElementRef applicationElement(std::int32_t pid) override { return a.applicationElement(pid); }
  AXResult setMessagingTimeout(const Element& e, float s) override {
    return a.setMessagingTimeout(e, s);
  }
  AXResult copyAttributeValue(const Element& e, const std::string& n, AXValue& out) override {
    return a.copyAttributeValue(e, n, out);
  }
  void copyAttributeValues(const std::vector<ElementRef>& elements,
                           const std::vector<std::string>& attributes,
                           std::vector<std::vector<atspi::AXRead>>& out,
                           std::vector<atspi::AXRead>* actionNames) override {
    a.copyAttributeValues(elements, attributes, out, actionNames);
  }
  AXResult copyActionNames(const Element& e, AXValue& out) override {
    return a.copyActionNames(e, out);
  }
  std::optional<std::string> runningApplicationName(std::int32_t pid) override {
    return a.runningApplicationName(pid);
  }

 private:
  atspi::AtspiAccessibility& a;
};

TERVAIN_BENCH_SECTION(atspiBench, "atspi") {
  testing::DesktopSession session({"gtk3-widget-factory"});
  if (!session.ok()) {
    std::fprintf(stderr, "atspi: no desktop: %s\n", session.why().c_str());
    return;
  }
  const pid_t pid = session.pids()[0];
  atspi::AtspiAccessibility accessibility(session.accessibilityBus());
  const auto deadline = Clock::now() + std::chrono::seconds(30);
  while (!accessibility.runningApplicationName(pid) && Clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  setenv("AT_SPI_BUS_ADDRESS", session.accessibilityBus().c_str(), 1);
  atspi_init();
  AtspiAccessible* app = libatspiApplication(pid);
  if (app == nullptr) {
    std::fprintf(stderr, "atspi: the widget factory is not on the bus\n");
    return;
  }

  AtspiBenchDesktop desktop(accessibility);
  AgentContext context(desktop);
  ConnectionHandler handler(-1, context);
  const std::string request = R"({"op":"ax_dump","pid":)" + std::to_string(pid) + "}";
  const std::string fullDump =
      R"({"op":"ax_dump","maxDepth":25,"pid":)" + std::to_string(pid) + "}";
  const std::string find =
      R"({"op":"find","role":"AXCheckBox","title":"checkbutton","pid":)" + std::to_string(pid) + "}";
  std::string reply, found;

  // Interleaved, so that the machine's load falls on all alike.
  std::vector<double> batched, sync, finds, fullDumps;
  int syncNodes = 0;
  for (int round = 0; round < 7; ++round) {
    auto start = Clock::now();
    reply = handler.handle(request);
    batched.push_back(millisSince(start));
    start = Clock::now();
    found = handler.handle(find);
    finds.push_back(millisSince(start));
    start = Clock::now();
    handler.handle(fullDump);
    fullDumps.push_back(millisSince(start));
    atspi_accessible_clear_cache(app);
    start = Clock::now();
    syncNodes = syncWalk(app);
    sync.push_back(millisSince(start));
  }
  g_object_unref(app);
  const double batchedMs = bench::percentile(batched, 50);
  const double syncMs = bench::percentile(sync, 50);
  std::size_t nodes = 0;
  for (std::size_t at = reply.find(R"("ref":)"); at != std::string::npos;
       at = reply.find(R"("ref":)", at + 1)) {
    ++nodes;
  }
  bench::report("atspi_dump_widget_factory_nodes", static_cast<double>(nodes));
  bench::report("atspi_dump_widget_factory_ms", batchedMs);
  bench::report("atspi_sync_walk_nodes", syncNodes);
  bench::report("atspi_sync_walk_ms", syncMs);
  bench::report("atspi_dump_vs_sync_walk", batchedMs / syncMs);
  const Json findReply = Json::parse(found, nullptr, false);
  const double findMs = bench::percentile(finds, 50);
  const double fullDumpMs = bench::percentile(fullDumps, 50);
  bench::report("atspi_find_matches",
                findReply.is_object() ? static_cast<double>(findReply["matches"].size()) : -1);
  bench::report("atspi_find_visited", findReply.is_object() ? findReply.value("visited", -1.0) : -1);
  bench::report("atspi_find_widget_factory_ms", findMs);
  bench::report("atspi_full_dump_widget_factory_ms", fullDumpMs);
  bench::report("find_vs_dump", findMs / fullDumpMs);
}

}  // namespace
}  // namespace tervain
