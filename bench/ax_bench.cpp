// The agent's own share of an accessibility dump: walking an 800-node tree, building the nodes
// and serialising the reply to bytes.
//
// The tree lives in a minimal desktop whose element reads only copy a stored value out, as an
// adapter's conversion would, so the figure is the agent's cost and not a fake's bookkeeping.
// The same dump over the scripted test desktop is reported beside it. On a real guest every
// attribute read is a round trip to the application, which dwarfs both. Times are the calling
// thread's CPU time, so a busy machine does not inflate them.
#include <time.h>

#include <array>
#include <string>
#include <vector>

#include "agent/connection_handler.h"
#include "bench.h"
#include "platform/headless_desktop.h"
#include "fake_desktop.h"

namespace tervain {
namespace {

double cpuMillis() {
  timespec ts{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) * 1e3 + static_cast<double>(ts.tv_nsec) * 1e-6;
}

// The attributes a dump reads, in a fixed slot each.
constexpr std::array<const char*, 9> kAttributes = {"AXRole",    "AXSubrole", "AXTitle",
                                                    "AXValue",   "AXEnabled", "AXFocused",
                                                    "AXPosition", "AXSize",   "AXChildren"};

struct Attributes {
  std::array<AXValue, kAttributes.size()> values;
  AXValue actionNames;
};

class BenchElement final : public Element {
 public:
  explicit BenchElement(Attributes a) : attributes(std::move(a)) {}
  const Attributes attributes;
};

// A headless desktop whose accessibility side answers from prepared attributes: only what a
// dump reads, with no bookkeeping of its own.
class BenchDesktop final : public HeadlessDesktop {
 public:
  ElementRef application;

  bool accessibilityTrusted() override { return true; }
  ElementRef applicationElement(std::int32_t) override { return application; }
  AXResult setMessagingTimeout(const Element&, float) override { return AXError::success; }
  AXResult copyAttributeValue(const Element& element, const std::string& attribute,
                              AXValue& out) override {
    const auto& attributes = static_cast<const BenchElement&>(element).attributes;
    for (std::size_t i = 0; i < kAttributes.size(); ++i) {
      if (attribute != kAttributes[i]) continue;
      if (std::holds_alternative<std::monostate>(attributes.values[i])) break;
      out = attributes.values[i];
      return AXError::success;
    }
    return AXError::attributeUnsupported;
  }
  AXResult copyActionNames(const Element& element, AXValue& out) override {
    out = static_cast<const BenchElement&>(element).attributes.actionNames;
    return AXError::success;
  }
  std::optional<std::int32_t> frontmostApplicationPid() override { return 500; }
  std::optional<std::string> runningApplicationName(std::int32_t) override { return "Bench"; }
};

// What a typical control carries: role, subrole, title, a value, state, frame and actions.
Attributes control(int index, std::vector<ElementRef> children) {
  Attributes a;
  a.values[0] = std::string(children.empty() ? "AXButton" : "AXGroup");
  a.values[1] = std::string("AXStandardWindow");
  a.values[2] = "Control number " + std::to_string(index);
  a.values[3] = index % 2 == 0 ? AXValue(0.25 * index) : AXValue("text " + std::to_string(index));
  a.values[4] = index % 7 != 0;
  a.values[5] = index == 3;
  a.values[6] = Point{10.5 * index, 20.25};
  a.values[7] = Size{80, 24};
  if (!children.empty()) a.values[8] = std::move(children);
  a.actionNames = std::vector<std::string>{"AXPress", "AXShowMenu"};
  return a;
}

// 1 + 17 + 16 x 48 + 14 = 800 elements, every one of them emitted.
template <typename Make>
ElementRef tree(Make make) {
  int index = 0;
  std::vector<ElementRef> groups;
  for (int g = 0; g < 17; ++g) {
    std::vector<ElementRef> leaves;
    for (int i = 0; i < (g < 16 ? 48 : 14); ++i) leaves.push_back(make(control(++index, {})));
    groups.push_back(make(control(++index, std::move(leaves))));
  }
  return make(control(++index, std::move(groups)));
}

// Median CPU time of one "ax_dump" request, from request line to reply bytes.
double medianDumpMillis(Desktop& desktop) {
  AgentContext context(desktop);
  ConnectionHandler handler(-1, context);
  const std::string request = R"({"op":"ax_dump"})";
  if (handler.handle(request).find(R"("truncated":true)") == std::string::npos) std::abort();
  for (int i = 0; i < 20; ++i) handler.handle(request);  // warm-up
  constexpr int kRuns = 400;
  std::vector<double> samples;
  samples.reserve(kRuns);
  for (int i = 0; i < kRuns; ++i) {
    const double start = cpuMillis();
    const std::string reply = handler.handle(request);
    samples.push_back(cpuMillis() - start);
  }
  return bench::percentile(samples, 50);
}

}  // namespace
}  // namespace tervain

TERVAIN_BENCH_SECTION(axBench, "ax") {
  using namespace tervain;
  BenchDesktop minimal;
  minimal.application =
      tree([](Attributes a) -> ElementRef { return std::make_shared<BenchElement>(std::move(a)); });
  bench::report("ax_dump_800_nodes_ms", medianDumpMillis(minimal));

  testing::FakeDesktop fake;
  fake.applications[500] = tree([&fake](Attributes a) {
    testing::FakeNode node;
    for (std::size_t i = 0; i < kAttributes.size(); ++i) {
      if (!std::holds_alternative<std::monostate>(a.values[i])) {
        node.attributes[kAttributes[i]] = std::move(a.values[i]);
      }
    }
    node.actionNames = std::move(a.actionNames);
    return fake.addElement(std::move(node));
  });
  fake.frontmost = 500;
  bench::report("ax_dump_800_nodes_over_test_fake_ms", medianDumpMillis(fake));
}
