// Labels are digits of a 5x7 bitmap font, drawn white on a box of the mark's colour at the
// top-left corner of its outline (inside the image), doubled in size on images wider than
// 1,200 pixels so they stay readable on HiDPI captures. Colours cycle through a few that stand
// out against both light and dark interfaces, so neighbouring boxes can be told apart.
#include "tervainctl/mcp/annotate.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <string_view>

namespace tervain::mcp {
namespace {

// Roles a user acts on even when the tree lists no action for them.
constexpr std::string_view kControlRoles[] = {
    "AXButton",   "AXCheckBox", "AXRadioButton", "AXTextField", "AXTextArea",  "AXComboBox",
    "AXPopUpButton", "AXMenuButton", "AXMenuItem", "AXLink",   "AXSlider",     "AXIncrementor",
    "AXTab",      "AXDisclosureTriangle", "AXSearchField", "AXSwitch"};
constexpr std::string_view kActingActions[] = {"AXPress", "AXPick", "AXConfirm", "AXIncrement",
                                               "AXDecrement", "AXShowMenu", "AXOpen"};

bool actionable(const client::AXNode& node) {
  if (node.role) {
    for (std::string_view role : kControlRoles) {
      if (*node.role == role) return true;
    }
  }
  for (const std::string& action : node.actions) {
    for (std::string_view acting : kActingActions) {
      if (action == acting) return true;
    }
  }
  return false;
}

void collect(const client::AXNode& node, const ImageGeometry& g, int width, int height,
             std::vector<Mark>& marks) {
  if (node.frame && actionable(node)) {
    const client::Rect& f = *node.frame;
    const double x0 = std::max(0.0, (static_cast<double>(f.x) - g.originX) * g.scale);
    const double y0 = std::max(0.0, (static_cast<double>(f.y) - g.originY) * g.scale);
    const double x1 = std::min<double>(width, (static_cast<double>(f.x + f.w) - g.originX) * g.scale);
    const double y1 = std::min<double>(height, (static_cast<double>(f.y + f.h) - g.originY) * g.scale);
    if (f.w > 0 && f.h > 0 && x1 - x0 >= 1 && y1 - y0 >= 1) {
      const auto ix0 = static_cast<std::int64_t>(std::floor(x0));
      const auto iy0 = static_cast<std::int64_t>(std::floor(y0));
      marks.push_back(Mark{static_cast<int>(marks.size()) + 1, node.ref, node.role.value_or(""),
                           node.title.value_or(""),
                           client::Rect{ix0, iy0, static_cast<std::int64_t>(std::ceil(x1)) - ix0,
                                        static_cast<std::int64_t>(std::ceil(y1)) - iy0},
                           client::Point{f.x + f.w / 2, f.y + f.h / 2}});
    }
  }
  for (const client::AXNode& child : node.children) collect(child, g, width, height, marks);
}

// Rows of each digit, five bits a row, the leftmost pixel the highest bit.
constexpr std::array<std::array<std::uint8_t, 7>, 10> kDigits = {{
    {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}, {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E},
    {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}, {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E},
    {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}, {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E},
    {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}, {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08},
    {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}, {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C},
}};

constexpr std::array<std::array<unsigned char, 3>, 6> kColours = {{
    {230, 25, 75}, {0, 130, 200}, {60, 160, 60}, {145, 30, 180}, {245, 130, 48}, {0, 128, 128}}};

struct Canvas {
  Pixels& pixels;
  void fill(std::int64_t x, std::int64_t y, std::int64_t w, std::int64_t h,
            const std::array<unsigned char, 3>& colour) {
    const std::int64_t xa = std::max<std::int64_t>(0, x), ya = std::max<std::int64_t>(0, y);
    const std::int64_t xb = std::min<std::int64_t>(pixels.width, x + w);
    const std::int64_t yb = std::min<std::int64_t>(pixels.height, y + h);
    for (std::int64_t py = ya; py < yb; ++py) {
      for (std::int64_t px = xa; px < xb; ++px) {
        std::copy(colour.begin(), colour.end(), pixels.at(static_cast<int>(px), static_cast<int>(py)));
      }
    }
  }
};

}  // namespace

std::vector<Mark> actionableMarks(const client::AXNode& root, const ImageGeometry& geometry,
                                  int imageWidth, int imageHeight) {
  std::vector<Mark> marks;
  collect(root, geometry, imageWidth, imageHeight, marks);
  return marks;
}

void drawMarks(Pixels& pixels, const std::vector<Mark>& marks) {
  Canvas canvas{pixels};
  const int dot = pixels.width > 1200 ? 2 : 1;  // font pixel size
  const int line = 2 * dot;
  constexpr std::array<unsigned char, 3> kWhite = {255, 255, 255};
  for (const Mark& mark : marks) {
    const auto& colour = kColours[static_cast<std::size_t>(mark.number - 1) % kColours.size()];
    const client::Rect& b = mark.box;
    canvas.fill(b.x, b.y, b.w, line, colour);
    canvas.fill(b.x, b.y + b.h - line, b.w, line, colour);
    canvas.fill(b.x, b.y, line, b.h, colour);
    canvas.fill(b.x + b.w - line, b.y, line, b.h, colour);

    const std::string digits = std::to_string(mark.number);
    const std::int64_t labelW = (static_cast<std::int64_t>(digits.size()) * 6 + 1) * dot;
    const std::int64_t labelH = 9 * dot;
    // Inside the image even when the box touches its right or bottom edge.
    const std::int64_t lx = std::clamp<std::int64_t>(b.x, 0, std::max<std::int64_t>(0, pixels.width - labelW));
    const std::int64_t ly = std::clamp<std::int64_t>(b.y, 0, std::max<std::int64_t>(0, pixels.height - labelH));
    canvas.fill(lx, ly, labelW, labelH, colour);
    for (std::size_t d = 0; d < digits.size(); ++d) {
      const auto& glyph = kDigits[static_cast<std::size_t>(digits[d] - '0')];
      for (int row = 0; row < 7; ++row) {
        for (int col = 0; col < 5; ++col) {
          if (glyph[static_cast<std::size_t>(row)] & (0x10 >> col)) {
            canvas.fill(lx + (static_cast<std::int64_t>(d) * 6 + 1 + col) * dot,
                        ly + (1 + row) * dot, dot, dot, kWhite);
          }
        }
      }
    }
  }
}

std::string markLegend(const std::vector<Mark>& marks) {
  std::string out;
  for (const Mark& mark : marks) {
    out += std::to_string(mark.number) + "  " + mark.ref + "  " +
           (mark.role.empty() ? "-" : mark.role) + "  " + Json(mark.title).dump() + "  at " +
           std::to_string(mark.center.x) + "," + std::to_string(mark.center.y) + "\n";
  }
  return out;
}

}  // namespace tervain::mcp
