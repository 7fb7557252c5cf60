#include "client/render.h"

namespace tervain::client {
namespace {

const char* yesNo(bool value) { return value ? "yes" : "no"; }

// Titles and values are shown as JSON strings: quoted, with line breaks and control
// characters escaped, so one element stays on one line.
std::string quoted(const std::string& text) {
  return Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
}

void renderInto(std::string& out, const AXNode& node, int depth) {
  out.append(static_cast<std::size_t>(depth) * 2, ' ');
  out += renderNode(node);
  out += '\n';
  for (const AXNode& child : node.children) renderInto(out, child, depth + 1);
  if (node.childrenOmitted > 0) {
    out.append(static_cast<std::size_t>(depth + 1) * 2, ' ');
    out += "... " + std::to_string(node.childrenOmitted) + " more not shown\n";
  }
}

}  // namespace

std::string renderPing(const PingInfo& ping) {
  std::string out = "agent protocol v" + std::to_string(ping.version) +
                    (ping.agentVersion.empty() ? "" : ", build " + ping.agentVersion) +
                    (ping.desktop.empty() ? "" : ", " + ping.desktop + " desktop") + "\n";
  if (ping.displays.empty()) {
    out += "displays: none\n";
  } else {
    out += "displays: " + std::to_string(ping.displays.size()) + "\n";
    for (const Display& d : ping.displays) {
      out += "  " + std::to_string(d.id) + ": " + std::to_string(d.width) + "x" +
             std::to_string(d.height) + " pixels" + (d.main ? " (main)" : "") + "\n";
    }
  }
  const Readiness& r = ping.readiness;
  out += std::string("grants: accessibility ") + yesNo(r.accessibility) + ", screen recording " +
         yesNo(r.screenRecording) + ", input synthesis " + yesNo(r.postEvent) + "\n";
  if (!ping.features.empty()) {
    out += "features:";
    for (const std::string& name : ping.features) out += " " + name;
    out += "\n";
  }
  return out;
}

std::string renderNode(const AXNode& node) {
  std::string out = node.ref.empty() ? "?" : node.ref;
  if (node.role) {
    out += " " + (node.role->empty() ? std::string("(no role)") : *node.role);
    if (node.subrole && !node.subrole->empty()) out += "/" + *node.subrole;
  }
  // Appended piece by piece: GCC 12 warns (-Wrestrict, its bug 105651) about an inlined
  // operator+(const char*, std::string&&) here in release builds.
  if (node.title) out.append(" ").append(quoted(*node.title));
  if (node.value) out.append(" value=").append(quoted(*node.value));
  if (node.frame) {
    const Rect& f = *node.frame;
    out += " [" + std::to_string(f.x) + "," + std::to_string(f.y) + " " + std::to_string(f.w) +
           "x" + std::to_string(f.h) + "]";
  }
  if (node.disabled) out += " disabled";
  if (node.focused) out += " focused";
  return out;
}

std::string renderTree(const AXTree& tree) {
  std::string out = "app: " + tree.app + "\n";
  renderInto(out, tree.root, 0);
  if (tree.truncated) out += "(the dump stopped at its node budget: some elements are missing)\n";
  return out;
}

}  // namespace tervain::client
