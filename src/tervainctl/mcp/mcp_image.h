// Screenshots for a model: the agent's JPEG scaled down to a width that fits a model's image
// input, as JPEG or PNG.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tervain::mcp {

enum class ImageFormat { jpeg, png };

struct EncodedImage {
  std::string bytes;
  const char* mimeType = "image/jpeg";
  int width = 0;
  int height = 0;
};

// The JPEG scaled so its width is at most maxWidth (never enlarged; the aspect ratio kept, the
// height rounded to the nearest pixel), in the given format. A JPEG that already fits and is
// wanted as JPEG comes back unchanged. Nothing, with error set, when the input cannot be decoded
// or the output cannot be encoded. quality (1 to 100) applies to JPEG output.
std::optional<EncodedImage> fitImage(std::string_view jpeg, int maxWidth, ImageFormat format,
                                     int quality, std::string& error);

}  // namespace tervain::mcp
