// tervain_desktop_soak SECONDS: the agent on a real desktop under load, run by
// `scripts/soak --desktop` inside a private test desktop.
//
// The agent (--desktop x11) and gtk3-widget-factory are started; several client threads then mix
// accessibility dumps, hit tests, clicks on the factory's check boxes, typing into one of its
// text fields and screenshots, each on connections of their own. Afterwards the agent must
// still answer, and hold about the descriptors, memory and X server resources it had after a
// first round of each request. The last line sums it up; the exit status says whether it held.
#include <dirent.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <X11/Xlib.h>
#include <X11/extensions/XRes.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "agent_process.h"
#include "core/json.h"

extern char** environ;

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using tervain::Json;
using tervain::testing::AgentProcess;
using tervain::testing::LineClient;

constexpr int kClients = 6;

std::atomic<long> requests{0};
std::atomic<long> errors{0};

void fail(const char* what, const std::string& detail) {
  ++errors;
  static std::atomic<int> printed{0};
  if (printed.fetch_add(1) < 20) {
    std::fprintf(stderr, "desktop soak: %s: %s\n", what, detail.substr(0, 300).c_str());
  }
}

int countEntries(const std::string& dir) {
  int count = 0;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      if (e->d_name[0] != '.') ++count;
    }
    closedir(d);
  }
  return count;
}

long rssKib(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
  }
  return -1;
}

// The X server resources (windows, pixmaps, GCs, shared memory segments, ...) that the
// clients of this process hold, or -1 where the server cannot say.
long xResources(pid_t pid) {
  Display* display = XOpenDisplay(nullptr);
  if (display == nullptr) return -1;
  int eventBase = 0, errorBase = 0, major = 0, minor = 0;
  long total = -1;
  int count = 0;
  XResClient* clients = nullptr;
  // The older calls answer in Xlib's way (zero is failure); the id query answers Success.
  if (XResQueryExtension(display, &eventBase, &errorBase) &&
      XResQueryVersion(display, &major, &minor) && (major > 1 || minor >= 2) &&
      XResQueryClients(display, &count, &clients) != 0) {
    total = 0;
    for (int i = 0; i < count; ++i) {
      XResClientIdSpec wanted{clients[i].resource_base, XRES_CLIENT_ID_PID_MASK};
      long found = 0;
      XResClientIdValue* ids = nullptr;
      if (XResQueryClientIds(display, 1, &wanted, &found, &ids) != Success) continue;
      const bool ours = found > 0 && XResGetClientPid(&ids[0]) == pid;
      XResClientIdsDestroy(found, ids);
      int types = 0;
      XResType* used = nullptr;
      if (!ours) continue;
      if (XResQueryClientResources(display, clients[i].resource_base, &types, &used) == 0) continue;
      for (int t = 0; t < types; ++t) total += used[t].count;
      XFree(used);
    }
    XFree(clients);
  }
  XCloseDisplay(display);
  return total;
}

// One request on a connection; the reply when it came and said "ok": true.
std::optional<Json> ask(LineClient& client, const Json& request) {
  ++requests;
  const std::string what = request.value("op", "?");
  if (!client.send(request.dump() + "\n")) {
    fail(what.c_str(), "send failed");
    return std::nullopt;
  }
  const std::optional<std::string> line = client.readLine(20s);
  if (!line) {
    fail(what.c_str(), "no reply in 20 s");
    return std::nullopt;
  }
  Json reply = Json::parse(*line, nullptr, false);
  if (!reply.is_object() || reply.value("ok", false) != true) {
    fail(what.c_str(), *line);
    return std::nullopt;
  }
  return reply;
}

struct Point {
  long x, y;
};

// The centres of the dump's nodes with this role (and title, when given) that are enabled.
void centres(const Json& node, const std::string& role, const std::string& title,
             std::vector<Point>& out) {
  if (node.value("role", "") == role && (title.empty() || node.value("title", "") == title) &&
      node.value("enabled", true) && node.contains("frame")) {
    const Json& f = node["frame"];
    out.push_back({f["x"].get<long>() + f["w"].get<long>() / 2,
                   f["y"].get<long>() + f["h"].get<long>() / 2});
  }
  if (node.contains("children")) {
    for (const Json& child : node["children"]) centres(child, role, title, out);
  }
}

struct Targets {
  std::vector<Point> checkBoxes;
  std::optional<Point> field;
};

// One round of a client: a request of each kind, in an order of its own.
void round(const AgentProcess& agent, pid_t factory, const Targets& targets, std::mt19937& rng) {
  LineClient client = agent.connect();
  for (int i = 0; i < 4; ++i) {
    switch (rng() % 5) {
      case 0: {
        const auto dump = ask(client, {{"op", "ax_dump"}, {"pid", factory}});
        if (dump && !dump->at("tree").contains("children")) fail("ax_dump", "an empty tree");
        break;
      }
      case 1: {
        const Point p = targets.checkBoxes[rng() % targets.checkBoxes.size()];
        ask(client, {{"op", "ax_element_at"}, {"x", p.x}, {"y", p.y}});
        break;
      }
      case 2: {
        const Point p = targets.checkBoxes[rng() % targets.checkBoxes.size()];
        ask(client, {{"op", "click"}, {"x", p.x}, {"y", p.y}});
        break;
      }
      case 3:
        if (targets.field) {
          ask(client, {{"op", "click"}, {"x", targets.field->x}, {"y", targets.field->y}});
          ask(client, {{"op", "type"}, {"text", "soak \u00e9\u00df "}});
          ask(client, {{"op", "key"}, {"chord", "ctrl+a"}});
          ask(client, {{"op", "key"}, {"chord", "delete"}});
        }
        break;
      default: {
        const auto shot = ask(client, {{"op", "screenshot"}});
        if (shot && shot->value("image", "").empty()) fail("screenshot", "no image");
        break;
      }
    }
  }
}

pid_t spawn(const char* program) {
  pid_t pid = -1;
  char* argv[] = {const_cast<char*>(program), nullptr};
  return posix_spawnp(&pid, program, nullptr, nullptr, argv, environ) == 0 ? pid : -1;
}

}  // namespace

int main(int argc, char** argv) {
  const int seconds = argc > 1 ? std::atoi(argv[1]) : 15;
  signal(SIGPIPE, SIG_IGN);
  if (std::getenv("DISPLAY") == nullptr) {
    std::fprintf(stderr, "desktop soak: no DISPLAY (run it through scripts/soak --desktop)\n");
    return 2;
  }
  AgentProcess agent({.args = {"--desktop", "x11"}, .env = {{"TERVAIN_DULK_DISABLE", "1"}}});
  const pid_t factory = spawn("gtk3-widget-factory");
  if (factory <= 0) {
    std::fprintf(stderr, "desktop soak: gtk3-widget-factory did not start\n");
    return 2;
  }
  struct Reap {
    pid_t pid;
    ~Reap() {
      ::kill(pid, SIGTERM);
      ::waitpid(pid, nullptr, 0);
    }
  } reap{factory};

  // The factory's targets, once it is on the accessibility bus and drawn.
  Targets targets;
  for (int i = 0; i < 200 && targets.checkBoxes.empty(); ++i) {
    std::this_thread::sleep_for(100ms);
    const auto reply = agent.request(Json{{"op", "ax_dump"}, {"pid", factory}}.dump());
    const Json dump = reply ? Json::parse(*reply, nullptr, false) : Json();
    if (!dump.is_object() || !dump.contains("tree")) continue;
    centres(dump["tree"], "AXCheckBox", "checkbutton", targets.checkBoxes);
    std::vector<Point> fields;
    centres(dump["tree"], "AXTextField", "", fields);
    if (!fields.empty()) targets.field = fields.front();
  }
  if (targets.checkBoxes.empty()) {
    std::fprintf(stderr, "desktop soak: the widget factory showed no check box in 20 s\n");
    return 2;
  }

  // Every kind of request once, so that what the agent sets up on first use counts as before.
  std::mt19937 warm(1);
  for (int i = 0; i < 3; ++i) round(agent, factory, targets, warm);
  const std::string fdDir = "/proc/" + std::to_string(agent.pid()) + "/fd";
  const int fdsBefore = countEntries(fdDir);
  const long rssBefore = rssKib(agent.pid());
  const long xBefore = xResources(agent.pid());
  const long warmErrors = errors.load();

  const auto deadline = Clock::now() + std::chrono::seconds(seconds);
  std::vector<std::thread> clients;
  for (int c = 0; c < kClients; ++c) {
    clients.emplace_back([&, c] {
      std::mt19937 rng(static_cast<unsigned>(c) * 7919u + 3);
      while (Clock::now() < deadline) round(agent, factory, targets, rng);
    });
  }
  for (auto& t : clients) t.join();

  // Closed connections are released a moment after their clients leave.
  int fdsAfter = 0;
  long xAfter = 0;
  for (int i = 0; i < 50; ++i) {
    fdsAfter = countEntries(fdDir);
    xAfter = xResources(agent.pid());
    if (fdsAfter <= fdsBefore && xAfter <= xBefore) break;
    std::this_thread::sleep_for(100ms);
  }
  const long rssAfter = rssKib(agent.pid());
  const bool alive = agent.request(R"({"op":"ping"})").has_value() && agent.running();
  if (!alive) fail("end", "the agent does not answer");

  // A screenshot's buffers and the allocator's free lists are not a leak; steady growth is.
  const long rssLimit = rssBefore + 24 * 1024;
  if (xBefore < 0) fail("end", "the X server does not report resources per client (XRes 1.2)");
  const bool ok = alive && errors == 0 && warmErrors == 0 && fdsAfter <= fdsBefore &&
                  rssAfter <= rssLimit && xBefore >= 0 && xAfter <= xBefore;
  std::printf("desktop soak: %ld requests, %ld errors, fds %d->%d, rss %ld->%ld KiB, "
              "x resources %ld->%ld\n",
              requests.load(), errors.load(), fdsBefore, fdsAfter, rssBefore, rssAfter, xBefore,
              xAfter);
  return ok ? 0 : 1;
}
