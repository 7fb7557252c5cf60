// The agent driving a real application on the test desktop: gtk3-widget-factory, launched by
// name through the agent, and read back through the agent's screenshots, the pointer and the
// clipboard. The factory's layout is fixed (its own static content, DejaVu fonts); positions
// below are relative to its window, which the window manager places where it likes.
#include <gtest/gtest.h>
// clang-format off
#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <png.h>
#include <poll.h>
#include <signal.h>
#include <turbojpeg.h>
#include <unistd.h>
// clang-format on

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <thread>

#include "agent_process.h"
#include "child_process.h"
#include "core/base64.h"
#include "core/json.h"
#include "desktop_session.h"
#include "desktop/x_window.h"

namespace tervain::testing {
namespace {

struct Image {
  int width = 0, height = 0;
  std::vector<unsigned char> rgb;
  // The pixels of a rectangle, row by row.
  std::vector<unsigned char> region(int x, int y, int w, int h) const {
    std::vector<unsigned char> out;
    for (int row = y; row < y + h; ++row) {
      const auto* start = &rgb[static_cast<std::size_t>((row * width + x) * 3)];
      out.insert(out.end(), start, start + w * 3);
    }
    return out;
  }
};

// A PNG screenshot reply's pixels; empty when it does not decode.
Image decodePng(const Json& reply) {
  Image image;
  const std::optional<std::string> png = base64::decode(reply.value("image", ""));
  if (!png) return image;
  png_image in{};
  in.version = PNG_IMAGE_VERSION;
  if (png_image_begin_read_from_memory(&in, png->data(), png->size()) == 0) return image;
  in.format = PNG_FORMAT_RGB;
  image.rgb.resize(PNG_IMAGE_SIZE(in));
  if (png_image_finish_read(&in, nullptr, image.rgb.data(), 0, nullptr) == 0) {
    image.rgb.clear();
    return image;
  }
  image.width = static_cast<int>(in.width);
  image.height = static_cast<int>(in.height);
  return image;
}

// The mean absolute difference of two equally sized pixel runs.
double difference(const std::vector<unsigned char>& a, const std::vector<unsigned char>& b) {
  if (a.size() != b.size() || a.empty()) return 1e9;
  double sum = 0;
  for (std::size_t i = 0; i < a.size(); ++i) sum += std::abs(int(a[i]) - int(b[i]));
  return sum / static_cast<double>(a.size());
}

// One request over a connection the caller keeps (refs live as long as their connection).
Json ask(LineClient& host, const std::string& name, Json members) {
  members["op"] = name;
  if (!host.send(members.dump() + "\n")) return Json::object();
  const std::optional<std::string> reply = host.readLine();
  return reply ? Json::parse(*reply) : Json::object();
}

class WidgetFactory : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!desktopUnavailable().empty()) return;
    display = XOpenDisplay(nullptr);
    agent = std::make_unique<AgentProcess>(AgentProcess::Options{.args = {"--desktop", "x11"}});
    launchReply = agent->request(R"({"op":"launch_app","name":"gtk3-widget-factory"})");
    window = findTopLevel(display, "gtk3-widget-factory", std::chrono::seconds(20));
    // Drawn and idle before the first look.
    if (window) std::this_thread::sleep_for(std::chrono::milliseconds(700));
  }
  static void TearDownTestSuite() {
    if (window && window->pid > 0) ::kill(window->pid, SIGTERM);
    agent.reset();
    if (display != nullptr) XCloseDisplay(display);
    display = nullptr;
  }
  void SetUp() override {
    REQUIRE_TEST_DESKTOP();
    ASSERT_TRUE(window) << "the widget factory did not appear; launch replied "
                        << launchReply.value_or("nothing");
  }

  static Json request(const std::string& line) {
    const std::optional<std::string> reply = agent->request(line);
    return reply ? Json::parse(*reply) : Json::object();
  }
  static Json op(const std::string& name, Json members = Json::object()) {
    members["op"] = name;
    return request(members.dump());
  }
  // A point of the factory's window, on the screen.
  static Json at(int x, int y) { return Json{{"x", window->x + x}, {"y", window->y + y}}; }

  static Image screenshot() {
    Image image;
    const Json reply = op("screenshot");
    if (!reply.value("ok", false)) {
      ADD_FAILURE() << reply.dump();
      return image;
    }
    const std::optional<std::string> jpeg = base64::decode(reply["image"].get<std::string>());
    if (!jpeg) return image;
    tjhandle h = tjInitDecompress();
    int sub = 0, space = 0;
    auto* data = reinterpret_cast<const unsigned char*>(jpeg->data());
    if (tjDecompressHeader3(h, data, jpeg->size(), &image.width, &image.height, &sub, &space) == 0) {
      image.rgb.resize(static_cast<std::size_t>(image.width * image.height * 3));
      tjDecompress2(h, data, jpeg->size(), image.rgb.data(), image.width, 0, image.height,
                    TJPF_RGB, 0);
    }
    tjDestroy(h);
    EXPECT_EQ(reply["width"], image.width);
    EXPECT_EQ(reply["height"], image.height);
    return image;
  }
  // A region of the factory's window in a fresh screenshot, after the application has redrawn.
  static std::vector<unsigned char> look(int x, int y, int w, int h) {
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    return screenshot().region(window->x + x, window->y + y, w, h);
  }

  static inline Display* display = nullptr;
  static inline std::unique_ptr<AgentProcess> agent;
  static inline std::optional<std::string> launchReply;
  static inline std::optional<TopLevel> window;
};

TEST_F(WidgetFactory, LaunchedByNameAndSeenInPingAndScreenshots) {
  EXPECT_EQ(launchReply, R"({"ok":true})");
  EXPECT_NE(agent->log().find("[TervainVMAgent] desktop: x11"), std::string::npos) << agent->log();

  const Json ping = op("ping");
  ASSERT_EQ(ping["displays"].size(), 1u) << ping.dump();
  EXPECT_EQ(ping["displays"][0]["width"], 1920);
  EXPECT_EQ(ping["displays"][0]["height"], 1080);
  EXPECT_EQ(ping["displays"][0]["main"], true);
  EXPECT_EQ(ping["readiness"]["postEvent"], true);
  EXPECT_EQ(ping["readiness"]["screenRecording"], true);

  const Image image = screenshot();
  EXPECT_EQ(image.width, 1920);
  EXPECT_EQ(image.height, 1080);
  // The window is drawn: its area is not the empty root's black.
  double sum = 0;
  for (unsigned char v : image.region(window->x, window->y, 400, 300)) sum += v;
  EXPECT_GT(sum / (400 * 300 * 3), 100.0);

  const Json missing = op("launch_app", {{"name", "no-such-application-here"}});
  EXPECT_EQ(missing["ok"], false);
  EXPECT_TRUE(missing.value("error", "").starts_with(
      "no application named \"no-such-application-here\" ("))
      << missing.dump();
}

// A region is that rectangle of the whole screen (PNG, so pixel for pixel), and a maximum width
// scales the image and says by how much.
TEST_F(WidgetFactory, ARegionIsThatRectangleOfTheWholeScreen) {
  const Json full = op("screenshot", {{"format", "png"}});
  const int x = window->x + 10, y = window->y + 10;
  const Json part = op("screenshot", {{"format", "png"},
                                      {"region", {{"x", x}, {"y", y}, {"w", 300}, {"h", 200}}}});
  ASSERT_EQ(full["format"], "png") << full.dump().substr(0, 300);
  ASSERT_EQ(part["format"], "png") << part.dump().substr(0, 300);
  EXPECT_EQ(part["region"], Json({{"x", x}, {"y", y}, {"w", 300}, {"h", 200}}));
  EXPECT_EQ(part["scale"], 1.0);
  const Image whole = decodePng(full);
  const Image cut = decodePng(part);
  ASSERT_EQ(whole.width, 1920);
  ASSERT_EQ(cut.width, 300);
  ASSERT_EQ(cut.height, 200);
  const std::vector<unsigned char> expected = whole.region(x, y, 300, 200);
  const std::vector<unsigned char> shifted = whole.region(x + 3, y, 300, 200);
  // A caret may blink between the two captures; nothing else moves.
  EXPECT_LT(difference(cut.rgb, expected), 1.0);
  EXPECT_GT(difference(cut.rgb, shifted), difference(cut.rgb, expected));

  const Json small = op("screenshot", {{"maxWidth", 480}});
  EXPECT_EQ(small["width"], 480);
  EXPECT_EQ(small["height"], 270);
  EXPECT_EQ(small["scale"], 0.25);
}

// tervainctl's annotated screenshot: the check box's mark sits on the check box (its label
// changes the pixels there), and the legend names the element.
TEST_F(WidgetFactory, AnnotatedScreenshotsMarkTheElementsWhereTheyAre) {
  const std::string path = "/tmp/tervain-annotated-" + std::to_string(::getpid()) + ".png";
  const std::string command = "timeout 60 '" + std::string(TERVAIN_CTL_PATH) + "' --connect unix:" +
                              agent->socketPath() + " screenshot --annotate --png --json -o " + path;
  FILE* pipe = ::popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  std::string out;
  char buffer[4096];
  for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
  ASSERT_EQ(::pclose(pipe), 0) << out;
  const Json summary = Json::parse(out);
  const Image plain = decodePng(op("screenshot", {{"format", "png"}}));
  std::ifstream file(path, std::ios::binary);
  const std::string png((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  ::unlink(path.c_str());
  const Image marked = decodePng(Json{{"image", base64::encode(png)}});
  ASSERT_EQ(marked.width, plain.width);
  // The enabled, unchecked "checkbutton" of page 1 is 108 x 22 at (15, 397) in the window.
  const Json* mark = nullptr;
  for (const Json& m : summary["marks"]) {
    const int cx = m["center"]["x"], cy = m["center"]["y"];
    if (m["title"] == "checkbutton" && cx > window->x + 15 && cx < window->x + 123 &&
        cy > window->y + 397 && cy < window->y + 419) {
      mark = &m;
    }
  }
  ASSERT_NE(mark, nullptr) << summary.dump();
  EXPECT_EQ((*mark)["role"], "AXCheckBox");
  EXPECT_TRUE((*mark)["ref"].get<std::string>().starts_with("e"));
  const int x = (*mark)["box"]["x"], y = (*mark)["box"]["y"];
  EXPECT_GT(difference(marked.region(x, y, 6, 8), plain.region(x, y, 6, 8)), 30.0);
  EXPECT_LT(difference(marked.region(x + 40, y + 6, 20, 8), plain.region(x + 40, y + 6, 20, 8)), 1.0);
}

TEST_F(WidgetFactory, ClickingTheCheckBoxTogglesIt) {
  // The enabled, unchecked "checkbutton" of page 1: 108 x 22 at (15, 397) in the window.
  const auto box = [] { return look(15, 397, 108, 22); };
  ASSERT_EQ(op("click", at(25, 408)), Json({{"ok", true}}));
  const auto checked = box();
  ASSERT_EQ(op("click", at(25, 408)), Json({{"ok", true}}));
  const auto unchecked = box();
  ASSERT_EQ(op("click", at(25, 408)), Json({{"ok", true}}));
  const auto checkedAgain = box();
  // JPEG noise and the hover shade move a few levels; a check mark moves many.
  EXPECT_GT(difference(checked, unchecked), 2.0) << "the second click changed nothing";
  EXPECT_LT(difference(checked, checkedAgain), difference(checked, unchecked) / 3)
      << "the third click did not check it again";
  ASSERT_EQ(op("click", at(25, 408)), Json({{"ok", true}}));  // as it was
}

TEST_F(WidgetFactory, DraggingTheSliderMovesItAndScrollingMovesTheText) {
  // The enabled horizontal slider: 307 x 34 at (557, 135), its knob in the middle (50 of 100).
  const auto slider = [] { return look(557, 135, 307, 34); };
  const auto before = slider();
  Json drag = {{"fromX", window->x + 710}, {"fromY", window->y + 152},
               {"toX", window->x + 840}, {"toY", window->y + 152}};
  ASSERT_EQ(op("drag", drag), Json({{"ok", true}}));
  const auto after = slider();
  EXPECT_GT(difference(before, after), 2.0) << "the knob did not move";
  const Json cursor = op("cursor_position");  // where the drag ended
  EXPECT_EQ(cursor["x"], window->x + 840);
  EXPECT_EQ(cursor["y"], window->y + 152);

  // The text view of lorem ipsum: 268 x 233 at (1082, 329). Down three lines and back up.
  const auto text = [] { return look(1082, 329, 268, 233); };
  ASSERT_EQ(op("move", at(1216, 445)), Json({{"ok", true}}));
  const auto top = text();
  ASSERT_EQ(op("scroll", {{"dy", -3}}), Json({{"ok", true}}));
  const auto down = text();
  ASSERT_EQ(op("scroll", {{"dy", 3}}), Json({{"ok", true}}));
  const auto back = text();
  EXPECT_GT(difference(top, down), 2.0) << "scrolling down moved nothing";
  EXPECT_LT(difference(top, back), difference(top, down) / 3) << "scrolling up did not come back";
}

// Nodes of a dump, depth first, children dropped.
void flatten(const Json& node, std::vector<Json>& out) {
  Json copy = node;
  copy.erase("children");
  out.push_back(copy);
  if (node.contains("children")) {
    for (const Json& child : node["children"]) flatten(child, out);
  }
}

// The nodes of a fresh dump of the factory that satisfy a predicate.
template <typename Predicate>
std::vector<Json> nodesWhere(const Json& dump, Predicate wanted) {
  std::vector<Json> all, found;
  if (dump.contains("tree")) flatten(dump["tree"], all);
  for (const Json& node : all) {
    if (wanted(node)) found.push_back(node);
  }
  return found;
}

bool titled(const Json& node, const char* role, const char* title) {
  return node.value("role", "") == role && node.value("title", "") == title;
}

// What a host written for a macOS guest does, unchanged: dump, find by AXRole and AXTitle, press,
// set AXValue, focus, hit test, all in the macOS vocabulary.
TEST_F(WidgetFactory, AccessibilityInTheMacVocabularyOverTheWire) {
  // Refs live as long as their connection: every request here goes over one.
  LineClient host = agent->connect();
  const auto op = [&host](const std::string& name, Json members = Json::object()) {
    return ask(host, name, std::move(members));
  };
  EXPECT_EQ(op("ping")["readiness"]["accessibility"], true);
  const Json pid = {{"pid", window->pid}, {"maxDepth", 25}};
  Json dump = op("ax_dump", pid);
  ASSERT_EQ(dump["ok"], true) << dump.dump().substr(0, 400);
  EXPECT_EQ(dump["app"], "gtk3-widget-factory");
  EXPECT_EQ(dump["tree"]["role"], "AXApplication");

  const auto page = [&dump](const char* title) -> Json {
    const auto found = nodesWhere(dump, [title](const Json& n) {
      return titled(n, "AXRadioButton", title);
    });
    return found.empty() ? Json() : found.front();
  };
  for (const char* title : {"Page 1", "Page 2", "Page 3"}) {
    EXPECT_FALSE(page(title).is_null()) << title;
  }
  EXPECT_EQ(page("Page 1")["value"], "1");
  EXPECT_EQ(page("Page 2")["value"], "0");
  EXPECT_GE(nodesWhere(dump, [](const Json& n) { return titled(n, "AXCheckBox", "checkbutton"); })
                .size(),
            2u);
  EXPECT_FALSE(nodesWhere(dump, [](const Json& n) {
                 return n.value("role", "") == "AXIncrementor" &&
                        n.value("value", "").starts_with("50");
               }).empty());

  // The centre of a node's frame hits that node.
  const Json frame = page("Page 3")["frame"];
  ASSERT_TRUE(frame.is_object()) << page("Page 3").dump();
  const Json hit = op("ax_element_at", {{"x", frame["x"].get<int>() + frame["w"].get<int>() / 2},
                                        {"y", frame["y"].get<int>() + frame["h"].get<int>() / 2}});
  ASSERT_EQ(hit["ok"], true) << hit.dump();
  EXPECT_TRUE(titled(hit["node"], "AXRadioButton", "Page 3")) << hit.dump();

  // The next dump makes the refs of this one stale (pressing through refs: the find test).
  const std::string oldRef = page("Page 2")["ref"];
  dump = op("ax_dump", pid);
  const Json stale = op("ax_action", {{"ref", oldRef}});
  EXPECT_EQ(stale["ok"], false);
  EXPECT_NE(stale.value("error", "").find("is unknown or stale"), std::string::npos)
      << stale.dump();

  // Set a text field's value and focus it; the next dump reads both back.
  const auto fields = nodesWhere(dump, [](const Json& n) {
    return n.value("role", "") == "AXTextField" && n.value("enabled", true) &&
           n.value("value", "") == "";
  });
  ASSERT_FALSE(fields.empty());
  const std::string ref = fields.front()["ref"];
  const std::string frameText = fields.front()["frame"].dump();
  EXPECT_EQ(op("ax_set_value", {{"ref", ref}, {"value", "Grüße 日本"}}), Json({{"ok", true}}));
  EXPECT_EQ(op("ax_focus", {{"ref", ref}}), Json({{"ok", true}}));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  dump = op("ax_dump", pid);
  const auto again = nodesWhere(dump, [&frameText](const Json& n) {
    return n.value("role", "") == "AXTextField" && n.contains("frame") &&
           n["frame"].dump() == frameText;
  });
  ASSERT_EQ(again.size(), 1u);
  EXPECT_EQ(again.front()["value"], "Grüße 日本");
  EXPECT_EQ(again.front().value("focused", false), true);
  EXPECT_EQ(op("ax_set_value", {{"ref", again.front()["ref"]}, {"value", ""}}),
            Json({{"ok", true}}));

  // A pid with no application: a root and nothing under it, never a hang or a crash.
  const Json nobody = op("ax_dump", {{"pid", 999999}});
  ASSERT_EQ(nobody["ok"], true) << nobody.dump();
  EXPECT_FALSE(nobody["tree"].contains("children")) << nobody.dump();
}

// find and wait_for over one connection: the check boxes found by title, "Page 2" pressed through
// a found ref, its rows waited for; then page 1 again through a ref from the first search, which
// no later search made stale.
TEST_F(WidgetFactory, FindThenActThenWaitForThePageToChange) {
  LineClient host = agent->connect();
  const auto op = [&host](const std::string& name, Json members) {
    members["op"] = name;
    members["pid"] = window->pid;
    if (!host.send(members.dump() + "\n")) return Json::object();
    const std::optional<std::string> reply = host.readLine(std::chrono::seconds(30));
    return reply ? Json::parse(*reply) : Json::object();
  };
  const Json checks = op("find", {{"role", "AXCheckBox"}, {"title", "checkbutton"}, {"match", "exact"}});
  ASSERT_EQ(checks["ok"], true) << checks.dump();
  EXPECT_GE(checks["matches"].size(), 2u) << checks.dump();
  for (const Json& node : checks["matches"]) EXPECT_TRUE(titled(node, "AXCheckBox", "checkbutton"));

  // The stack switcher's buttons are the shallowest "Page N" radio buttons.
  const auto pageButton = [&op](const char* title) {
    return op("find", {{"role", "AXRadioButton"}, {"title", title}, {"match", "exact"}, {"limit", 1}});
  };
  const Json page1 = pageButton("Page 1");
  const Json page2 = pageButton("Page 2");
  ASSERT_EQ(page2["matches"].size(), 1u) << page2.dump();
  EXPECT_EQ(page2["matches"][0]["value"], "0");
  const Json row = {{"title", "Row 1"}, {"match", "exact"}};
  EXPECT_EQ(op("find", row)["matches"], Json::array()) << "page 2 is showing already";

  ASSERT_EQ(op("ax_action", {{"ref", page2["matches"][0]["ref"]}}), Json({{"ok", true}}));
  Json waited = op("wait_for", {{"title", "Row 1"}, {"match", "exact"}, {"state", "exists"}});
  ASSERT_EQ(waited["ok"], true) << waited.dump();
  EXPECT_EQ(waited["node"]["title"], "Row 1");
  EXPECT_TRUE(waited["waitedMs"].is_number_integer());
  waited = op("wait_for", {{"role", "AXRadioButton"}, {"title", "Page 2"}, {"match", "exact"},
                           {"state", "value"}, {"equals", "1"}, {"timeout", 5}});
  EXPECT_EQ(waited["ok"], true) << waited.dump();

  ASSERT_EQ(op("ax_action", {{"ref", page1["matches"][0]["ref"]}}), Json({{"ok", true}}));
  waited = op("wait_for", {{"title", "Row 1"}, {"match", "exact"}, {"state", "gone"}});
  EXPECT_EQ(waited["ok"], true) << waited.dump();
  EXPECT_FALSE(waited.contains("node"));
  // A state that never comes: the agent gives up and says what it waited for.
  EXPECT_EQ(op("wait_for", {{"title", "Row 1"}, {"match", "exact"}, {"state", "exists"},
                            {"timeout", 0.3}}),
            Json({{"ok", false},
                  {"error", R"(wait_for gave up after 0.3 s: no element with title "Row 1" appeared)"}}));
}

// An application that stops answering (SIGSTOP, as a main loop stuck in a modal dialog) holds
// only the connection that asks it, each request for about the messaging timeout; meanwhile
// another connection dumps another application in full. Once it runs again, it answers again.
TEST_F(WidgetFactory, AStoppedApplicationHoldsOnlyTheConnectionThatAsksIt) {
  ASSERT_EQ(op("launch_app", {{"name", "gtk3-demo"}}), Json({{"ok", true}}));
  const std::optional<TopLevel> demo = findTopLevel(display, "gtk3-demo", std::chrono::seconds(20));
  ASSERT_TRUE(demo && demo->pid > 0);
  struct Restore {
    pid_t stopped, started;
    ~Restore() {
      ::kill(stopped, SIGCONT);
      ::kill(started, SIGTERM);
    }
  } restore{window->pid, demo->pid};

  const auto ask = [](LineClient& client, const Json& request) {
    if (!client.send(request.dump() + "\n")) return Json::object();
    const std::optional<std::string> reply = client.readLine();
    return reply ? Json::parse(*reply) : Json::object();
  };
  const auto hasChildren = [](const Json& dump) {
    return dump.contains("tree") && dump["tree"].contains("children");
  };
  LineClient stalled = agent->connect();
  LineClient other = agent->connect();
  // Four levels of the demo: its window and what is in it, quick to read even on a loaded machine.
  const Json dumpDemo = {{"op", "ax_dump"}, {"pid", demo->pid}, {"maxDepth", 4}};
  const Json dumpFactory = {{"op", "ax_dump"}, {"pid", window->pid}};
  // The demo joins the accessibility bus a moment after its window shows.
  Json answer;
  for (int i = 0; i < 100 && !hasChildren(answer); ++i) {
    if (i > 0) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    answer = ask(other, dumpDemo);
  }
  ASSERT_TRUE(hasChildren(answer)) << answer.dump().substr(0, 400);

  ASSERT_EQ(::kill(window->pid, SIGSTOP), 0);
  // Three dumps of the stopped factory, answered in turn on their connection: each waits out
  // the timeout, so the three hold that connection several times longer than the dump below.
  const std::string line = dumpFactory.dump() + "\n";
  ASSERT_TRUE(stalled.send(line + line + line));
  answer = ask(other, dumpDemo);
  EXPECT_TRUE(hasChildren(answer)) << "the other application was not read in full: "
                                   << answer.dump().substr(0, 400);
  int answered = 0;
  while (stalled.readLine(std::chrono::milliseconds(0))) ++answered;
  EXPECT_LT(answered, 3) << "the other connection waited for the stopped application";
  // Every dump is answered while the factory is still stopped: a root of which every read
  // timed out, holding just its ref.
  for (; answered < 3; ++answered) {
    const std::optional<std::string> reply = stalled.readLine();
    ASSERT_TRUE(reply) << "dump " << answered + 1 << " of a stopped application never answered";
    const Json dump = Json::parse(*reply);
    EXPECT_EQ(dump["ok"], true) << *reply;
    EXPECT_TRUE(dump["tree"].contains("ref") && !dump["tree"].contains("role")) << *reply;
  }

  ASSERT_EQ(::kill(window->pid, SIGCONT), 0);
  // Its late answers to the timed-out calls arrive now and must not be taken for new ones.
  answer = ask(stalled, dumpFactory);
  const auto pages = nodesWhere(answer, [](const Json& n) { return titled(n, "AXRadioButton", "Page 1"); });
  ASSERT_EQ(pages.size(), 1u) << answer.dump().substr(0, 400);
  EXPECT_EQ(pages.front()["value"], "1");
}

// Keys and buttons a connection holds stay down in the server until it releases them or goes
// away; then they are released, and typing goes on unshifted. A drag with mouse_down, move and
// mouse_up selects text, and a click with shift held extends the selection.
// Before the typing test on purpose: after its keymap changes, this server reports a clicked
// button as down until the next press (the plain click shows it too), which the check of the
// button state below would take for a release that never came.
TEST_F(WidgetFactory, HeldInputIsReleasedWhenItsConnectionGoes) {
  const KeyCode keyA = XKeysymToKeycode(display, XK_a);
  const KeyCode shift = XKeysymToKeycode(display, XK_Shift_L);
  const auto down = [](KeyCode code) {
    char keys[32];
    XQueryKeymap(display, keys);
    return (keys[code / 8] & (1 << (code % 8))) != 0;
  };
  const auto leftButtonDown = [] {
    Window root, child;
    int rx, ry, wx, wy;
    unsigned int mask = 0;
    XQueryPointer(display, DefaultRootWindow(display), &root, &child, &rx, &ry, &wx, &wy, &mask);
    return (mask & Button1Mask) != 0;
  };
  const auto eventually = [](auto condition) {
    for (int i = 0; i < 100 && !condition(); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return condition();
  };
  const auto ask = [](LineClient& client, const Json& request) {
    if (!client.send(request.dump() + "\n")) return Json::object();
    const std::optional<std::string> reply = client.readLine();
    return reply ? Json::parse(*reply) : Json::object();
  };
  const auto copied = [] {
    EXPECT_EQ(op("key", {{"chord", "ctrl+c"}}), Json({{"ok", true}}));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    return op("clipboard_get").value("text", "");
  };

  // Presses apart in time, so that none is taken for a double click.
  const auto pause = [] { std::this_thread::sleep_for(std::chrono::milliseconds(500)); };
  // The first enabled, empty entry: 356 x 34 at (15, 149); its text starts at x = 24, and its
  // right end holds an icon that changes its mode.
  ASSERT_EQ(op("click", at(320, 166)), Json({{"ok", true}}));
  pause();
  {
    LineClient host = agent->connect();
    Json press = at(320, 166);
    press["op"] = "mouse_down";
    ASSERT_EQ(ask(host, {{"op", "key_down"}, {"key", "shift+a"}}), Json({{"ok", true}}));
    ASSERT_EQ(ask(host, press), Json({{"ok", true}}));
    EXPECT_TRUE(down(keyA) && down(shift) && leftButtonDown());
  }  // the host goes away holding all three
  EXPECT_TRUE(eventually([&] { return !down(keyA) && !down(shift); }))
      << "a key held by a connection that went away is still down";
  EXPECT_TRUE(eventually([&] { return !leftButtonDown(); }));
  ASSERT_EQ(op("type", {{"text", "b"}}), Json({{"ok", true}}));
  ASSERT_EQ(op("key", {{"chord", "ctrl+a"}}), Json({{"ok", true}}));
  const std::string typed = copied();
  // Held, the key may have repeated; released, so was shift: "b" comes out small.
  EXPECT_TRUE(typed.size() >= 2 && typed.find_first_not_of('A') == typed.size() - 1 &&
              typed.back() == 'b')
      << typed;

  ASSERT_EQ(op("key", {{"chord", "delete"}}), Json({{"ok", true}}));
  ASSERT_EQ(op("type", {{"text", "hello world"}}), Json({{"ok", true}}));
  {
    // One connection: each op() is a connection of its own, which releases what it pressed.
    LineClient host = agent->connect();
    const auto mouse = [&](const char* name, int x) {
      Json request = at(x, 166);
      request["op"] = name;
      return ask(host, request);
    };
    pause();
    ASSERT_EQ(mouse("mouse_down", 25), Json({{"ok", true}}));
    ASSERT_EQ(mouse("move", 200), Json({{"ok", true}}));
    ASSERT_EQ(mouse("mouse_up", 320), Json({{"ok", true}}));
  }
  EXPECT_EQ(copied(), "hello world") << "mouse_down, move, mouse_up selected nothing";

  // A caret at the start, then a shift-click inside the text: the part before it.
  pause();
  ASSERT_EQ(op("click", at(25, 166)), Json({{"ok", true}}));
  pause();
  Json shiftClick = at(50, 166);
  shiftClick["modifiers"] = Json::array({"shift"});
  ASSERT_EQ(op("click", shiftClick), Json({{"ok", true}}));
  const std::string part = copied();
  EXPECT_TRUE(!part.empty() && part.size() < 11 && std::string("hello world").starts_with(part))
      << "a shift-click selected \"" << part << "\"";

  // Emptied again for the next run of the suite.
  ASSERT_EQ(op("key", {{"chord", "ctrl+a"}}), Json({{"ok", true}}));
  EXPECT_EQ(op("key", {{"chord", "delete"}}), Json({{"ok", true}}));
}

// After the accessibility test on purpose: once an application's accessibility bridge has been
// busy, it reads its key events late, and the keys of remapped characters must still find their
// mapping when it does.
TEST_F(WidgetFactory, TypedUnicodeTextComesBackThroughTheClipboard) {
  // The first enabled, empty entry: 356 x 34 at (15, 149).
  ASSERT_EQ(op("click", at(193, 166)), Json({{"ok", true}}));
  // GTK reads the whole keymap again on its first mapping change, which can take longer than
  // the settle time on a loaded machine: one character first, checked on its own.
  EXPECT_EQ(op("type", {{"text", "é"}}), Json({{"ok", true}}));
  EXPECT_EQ(op("key", {{"chord", "ctrl+a"}}), Json({{"ok", true}}));
  EXPECT_EQ(op("key", {{"chord", "ctrl+c"}}), Json({{"ok", true}}));
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_EQ(op("clipboard_get"), Json({{"ok", true}, {"text", "é"}}));
  std::string text = "Grüße, naïve café — €5 → 日本語 😀 ß ";
  for (int i = 0; i < 6; ++i) text += "Ωμέγα ∑ ×÷ ";  // more distinct characters than spare keys
  EXPECT_EQ(op("type", {{"text", text}}), Json({{"ok", true}}));
  EXPECT_EQ(op("key", {{"chord", "ctrl+a"}}), Json({{"ok", true}}));
  EXPECT_EQ(op("key", {{"chord", "ctrl+c"}}), Json({{"ok", true}}));
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_EQ(op("clipboard_get"), Json({{"ok", true}, {"text", text}}));  // the factory's own
  // Emptied again for the next run of the suite.
  EXPECT_EQ(op("key", {{"chord", "delete"}}), Json({{"ok", true}}));
  // X has no fn key, and the refusal says so rather than leaving the host to guess.
  EXPECT_EQ(op("key", {{"chord", "fn+a"}}),
            Json({{"ok", false},
                  {"error", "this desktop cannot hold every modifier of chord \"fn+a\": the x11 "
                            "desktop has no fn key"}}));
}

// xclip is another X client: what it sets, the agent reads, and what the agent sets, it reads,
// small and large (INCR both ways).
TEST_F(WidgetFactory, ClipboardTextGoesBothWaysWithAnotherClient) {
  TempDir files;
  std::string large;
  for (int i = 0; large.size() < 2 * 1024 * 1024; ++i) {
    large += "line " + std::to_string(i) + " \u00e9\n";
  }
  for (const std::string& text : {std::string("h\u00e9llo \u65e5\u672c"), large}) {
    const std::string in = files.file("in");
    std::ofstream(in) << text;
    const int input = ::open(in.c_str(), O_RDONLY | O_CLOEXEC);
    const pid_t setter = spawnProgram({"/usr/bin/xclip", "-quiet", "-selection", "clipboard", "-i"},
                                      {.stdinFd = input, .stdoutFd = -1});
    ::close(input);
    ASSERT_GT(setter, 0);
    Json got = Json::object();
    for (int i = 0; i < 50 && got.value("text", "") != text; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      got = op("clipboard_get");
    }
    EXPECT_EQ(got.value("text", "") == text, true)
        << text.size() << " bytes: " << got.dump().substr(0, 200);

    // The agent takes the selection over (xclip then ends) and serves it to a new xclip.
    ASSERT_EQ(op("clipboard_set", {{"text", text + "!"}}), Json({{"ok", true}}));
    // Each xclip is stopped if it outlives its part: a test leaves none of its processes behind.
    const auto ended = [](pid_t child, std::chrono::seconds limit) {
      if (waitForChild(child, limit)) return true;
      ::kill(child, SIGKILL);
      waitForChild(child, std::chrono::seconds(5));
      return false;
    };
    EXPECT_TRUE(ended(setter, std::chrono::seconds(5)));
    const std::string out = files.file("out");
    const int output = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const pid_t getter =
        spawnProgram({"/usr/bin/xclip", "-o", "-selection", "clipboard"}, {.stdoutFd = output});
    ::close(output);
    ASSERT_GT(getter, 0);
    ASSERT_TRUE(ended(getter, std::chrono::seconds(10)));
    std::ifstream read(out);
    const std::string back((std::istreambuf_iterator<char>(read)),
                           std::istreambuf_iterator<char>());
    EXPECT_EQ(back == text + "!", true) << back.size() << " bytes back of " << text.size() + 1;
    EXPECT_EQ(op("clipboard_get"), Json({{"ok", true}, {"text", text + "!"}}));
  }

  // An image is not text, and the refusal names what the clipboard holds.
  const std::string in = files.file("in");
  std::ofstream(in) << "\x89PNG\r\n";
  const int input = ::open(in.c_str(), O_RDONLY | O_CLOEXEC);
  const pid_t image = spawnProgram(
      {"/usr/bin/xclip", "-quiet", "-selection", "clipboard", "-t", "image/png", "-i"},
      {.stdinFd = input});
  ::close(input);
  ASSERT_GT(image, 0);
  Json got = Json::object();
  for (int i = 0; i < 50 && got.value("ok", true); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    got = op("clipboard_get");
  }
  EXPECT_EQ(got,
            Json({{"ok", false}, {"error", "the clipboard holds no text (it holds image/png)"}}));
  EXPECT_EQ(op("clipboard_set", {{"text", ""}}), Json({{"ok", true}}));
  if (!waitForChild(image, std::chrono::seconds(5))) {
    ::kill(image, SIGKILL);
    waitForChild(image, std::chrono::seconds(5));
    ADD_FAILURE() << "xclip kept the selection";
  }
  EXPECT_EQ(op("clipboard_get"), Json({{"ok", true}, {"text", ""}}));
}

// ---- Windows and the clipboard ---------------------------------------------------------------

// A factory of its own, launched afresh: once the factory has read remapped keys, openbox has
// been seen to leave later move requests undone (not understood yet), and a window minimised and
// back has been seen to upset the selection by dragging of a later test.
class FactoryWindow : public WidgetFactory {
 protected:
  static void SetUpTestSuite() {
    // The last suite's factory must be gone first, window and all, or it would be found again;
    // meanwhile a window that goes away under a query is no reason to end the test process.
    const auto previous = XSetErrorHandler([](Display*, XErrorEvent*) { return 0; });
    Display* probe = window ? XOpenDisplay(nullptr) : nullptr;
    for (int i = 0; probe != nullptr && i < 100; ++i) {
      XWindowAttributes attributes;
      if (XGetWindowAttributes(probe, window->id, &attributes) == 0) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (probe != nullptr) XCloseDisplay(probe);
    window.reset();
    WidgetFactory::SetUpTestSuite();
    XSetErrorHandler(previous);
  }
};

TEST_F(FactoryWindow, IsListedMovedResizedAndMinimized) {
  // Refs live as long as their connection: every request here goes over one.
  LineClient host = agent->connect();
  const auto op = [&host](const std::string& name, Json members = Json::object()) {
    return ask(host, name, std::move(members));
  };
  // The factory's window as "windows" lists it, once a condition holds (at most 5 s).
  const auto factoryWindow = [&op](const std::function<bool(const Json&)>& until) {
    Json last;
    for (int i = 0; i < 50; ++i) {
      for (const Json& w : op("windows", {}).value("windows", Json::array())) {
        if (w.value("pid", 0) == window->pid) last = w;
      }
      if (!last.is_null() && until(last)) return last;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return last;
  };
  const Json listed = factoryWindow([](const Json& w) { return w.contains("frame"); });
  ASSERT_TRUE(listed.contains("frame")) << listed.dump();
  EXPECT_EQ(listed["app"], "gtk3-widget-factory");
  // Its header bar leaves the accessible window nameless; the title is the window manager's.
  EXPECT_EQ(listed["title"], "gtk3-widget-factory");
  EXPECT_EQ(listed["pid"], window->pid);
  EXPECT_EQ(listed["minimized"], false);
  EXPECT_EQ(listed["frame"]["x"], window->x) << listed.dump();
  EXPECT_EQ(listed["frame"]["y"], window->y) << listed.dump();
  const Json frame = listed["frame"];
  const auto act = [&op](const Json& w, Json members) {
    members["ref"] = w["ref"];
    return op("window_action", std::move(members));
  };
  // The window manager may drop a request it gets while it still places a new window ("ok"
  // means the request was made); a second one is then honoured.
  const auto at37 = [](const Json& w) { return w.contains("frame") && w["frame"]["x"] == 37; };
  Json moved = Json::object();
  for (int attempt = 0; attempt < 3 && !at37(moved); ++attempt) {
    ASSERT_EQ(act(listed, {{"action", "move"}, {"x", 37}, {"y", 51}}), Json({{"ok", true}}));
    moved = factoryWindow(at37);
  }
  EXPECT_EQ(moved["frame"], Json({{"x", 37}, {"y", 51}, {"w", frame["w"]}, {"h", frame["h"]}}))
      << op("windows", {}).dump();
  const int wider = frame["w"].get<int>() + 40;
  ASSERT_EQ(act(moved, {{"action", "resize"}, {"w", wider}, {"h", frame["h"]}}),
            Json({{"ok", true}}));
  moved = factoryWindow([&](const Json& w) { return w["frame"]["w"] == wider; });
  EXPECT_EQ(moved["frame"], Json({{"x", 37}, {"y", 51}, {"w", wider}, {"h", frame["h"]}}));

  ASSERT_EQ(act(moved, {{"action", "minimize"}}), Json({{"ok", true}}));
  EXPECT_EQ(factoryWindow([](const Json& w) { return w["minimized"] == true; })["minimized"], true);
  ASSERT_EQ(act(moved, {{"action", "unminimize"}}), Json({{"ok", true}}));
  EXPECT_EQ(factoryWindow([](const Json& w) { return w["minimized"] == false; })["minimized"],
            false);

  EXPECT_EQ(act(moved, {{"action", "raise"}}), Json({{"ok", true}}));
}

}  // namespace
}  // namespace tervain::testing
