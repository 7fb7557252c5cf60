// Screenshots annotated with element marks: each actionable element of an accessibility tree
// outlined on the image with a small numbered label, and a legend that ties each number to the
// element's ref, so a person or a model can say "click 7" and a program can act on the ref.
#pragma once

#include <string>
#include <vector>

#include "client/tervain_client.h"
#include "tervainctl/mcp/mcp_image.h"

namespace tervain::mcp {

// Where an image sits among global points: the point (x, y) is the image pixel
// ((x - originX) * scale, (y - originY) * scale).
struct ImageGeometry {
  double originX = 0;
  double originY = 0;
  double scale = 1;  // image pixels per point
};

// An element to mark, its frame already in image pixels.
struct Mark {
  int number = 0;  // from 1, in tree order
  std::string ref;
  std::string role;
  std::string title;
  client::Rect box;      // in image pixels
  client::Point center;  // of the element's frame, in global points: where to click it
};

// The elements of the tree a user can act on (pressable, editable, adjustable) whose frames
// show on an image of that size, numbered in tree order. Boxes are clipped to the image.
std::vector<Mark> actionableMarks(const client::AXNode& root, const ImageGeometry& geometry,
                                  int imageWidth, int imageHeight);

// Draws each mark's outline and numbered label onto the pixels.
void drawMarks(Pixels& pixels, const std::vector<Mark>& marks);

// The legend, one line a mark: `7  e12  AXButton  "Title"  at 120,340`.
std::string markLegend(const std::vector<Mark>& marks);

}  // namespace tervain::mcp
