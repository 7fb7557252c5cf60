// The pixels of an encoded image (JPEG or PNG), as RGB, for tests to look at.
#pragma once

#include <png.h>
#include <turbojpeg.h>

#include <string_view>
#include <vector>

namespace tervain::testing {

struct DecodedImage {
  int width = 0, height = 0;
  std::vector<unsigned char> rgb;
  const unsigned char* at(int x, int y) const {
    return &rgb[(static_cast<std::size_t>(y) * width + x) * 3];
  }
};

// The empty image when the bytes do not decode.
inline DecodedImage decodeImage(std::string_view bytes, bool png) {
  DecodedImage out;
  const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
  if (png) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_memory(&image, data, bytes.size())) return {};
    image.format = PNG_FORMAT_RGB;
    out = {static_cast<int>(image.width), static_cast<int>(image.height),
           std::vector<unsigned char>(PNG_IMAGE_SIZE(image))};
    if (!png_image_finish_read(&image, nullptr, out.rgb.data(), 0, nullptr)) return {};
    return out;
  }
  tjhandle decoder = tjInitDecompress();
  int subsampling = 0, colourspace = 0;
  if (tjDecompressHeader3(decoder, data, bytes.size(), &out.width, &out.height, &subsampling,
                          &colourspace) == 0) {
    out.rgb.resize(static_cast<std::size_t>(out.width) * out.height * 3);
    if (tjDecompress2(decoder, data, bytes.size(), out.rgb.data(), out.width, 0, out.height,
                      TJPF_RGB, 0) != 0) {
      out = {};
    }
  }
  tjDestroy(decoder);
  return out;
}

}  // namespace tervain::testing
