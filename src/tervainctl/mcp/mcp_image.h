// Screenshots for a model: the agent's JPEG scaled down to a width that fits a model's image
// input, as JPEG or PNG.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tervain::mcp {

enum class ImageFormat { jpeg, png };

struct EncodedImage {
  std::string bytes;
  const char* mimeType = "image/jpeg";
  int width = 0;
  int height = 0;
};

// An image's pixels, 8-bit RGB, row by row.
struct Pixels {
  int width = 0;
  int height = 0;
  std::vector<unsigned char> rgb;  // width * height * 3
  unsigned char* at(int x, int y) { return &rgb[(static_cast<std::size_t>(y) * width + x) * 3]; }
};

// The pixels of a JPEG or a PNG; nothing, with error set, when the bytes are neither.
std::optional<Pixels> decodeImage(std::string_view bytes, std::string& error);
// The pixels encoded; quality (1 to 100) applies to JPEG.
std::optional<EncodedImage> encodeImage(const Pixels& pixels, ImageFormat format, int quality,
                                        std::string& error);

// The JPEG scaled so its width is at most maxWidth (never enlarged; the aspect ratio kept, the
// height rounded to the nearest pixel), in the given format. A JPEG that already fits and is
// wanted as JPEG comes back unchanged. Nothing, with error set, when the input cannot be decoded
// or the output cannot be encoded. quality (1 to 100) applies to JPEG output. paint, when
// given, draws on the scaled pixels before they are encoded.
std::optional<EncodedImage> fitImage(std::string_view jpeg, int maxWidth, ImageFormat format,
                                     int quality, std::string& error,
                                     const std::function<void(Pixels&)>& paint = {});

}  // namespace tervain::mcp
