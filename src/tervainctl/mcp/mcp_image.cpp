// Decoding and encoding go through TurboJPEG (and libpng for PNG output). Scaling is done in two
// steps: the decoder's own DCT scaling (1/2, 3/8, 1/4, ... of the size, nearly free) to the
// smallest size still at least as wide as the target, then an area average to the exact target
// size, which keeps thin text legible where sampling single pixels would drop strokes.
#include "tervainctl/mcp/mcp_image.h"

#include <png.h>
#include <turbojpeg.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

namespace tervain::mcp {
namespace {

struct TjDeleter {
  void operator()(void* handle) const { tjDestroy(handle); }
};
using TjHandle = std::unique_ptr<void, TjDeleter>;

// Area average of src to exactly width x height (both no larger than src's).
Pixels areaScale(const Pixels& src, int width, int height) {
  Pixels out{width, height, std::vector<unsigned char>(static_cast<std::size_t>(width) * height * 3)};
  auto span = [](int i, int from, int to) {
    const long long first = static_cast<long long>(i) * from / to;
    const long long last = std::max(first + 1, static_cast<long long>(i + 1) * from / to);
    return std::pair<int, int>(static_cast<int>(first), static_cast<int>(last));
  };
  std::vector<std::uint32_t> sums(static_cast<std::size_t>(width) * 3);
  for (int y = 0; y < height; ++y) {
    const auto [y0, y1] = span(y, src.height, height);
    std::fill(sums.begin(), sums.end(), 0);
    for (int sy = y0; sy < y1; ++sy) {
      const unsigned char* row = src.rgb.data() + static_cast<std::size_t>(sy) * src.width * 3;
      for (int x = 0; x < width; ++x) {
        const auto [x0, x1] = span(x, src.width, width);
        for (int sx = x0; sx < x1; ++sx) {
          for (int c = 0; c < 3; ++c) sums[static_cast<std::size_t>(x) * 3 + c] += row[sx * 3 + c];
        }
      }
    }
    unsigned char* target = out.rgb.data() + static_cast<std::size_t>(y) * width * 3;
    for (int x = 0; x < width; ++x) {
      const auto [x0, x1] = span(x, src.width, width);
      const std::uint32_t count = static_cast<std::uint32_t>((x1 - x0) * (y1 - y0));
      for (int c = 0; c < 3; ++c) {
        target[x * 3 + c] =
            static_cast<unsigned char>((sums[static_cast<std::size_t>(x) * 3 + c] + count / 2) / count);
      }
    }
  }
  return out;
}

std::optional<std::string> encodePng(const Pixels& pixels, std::string& error) {
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  image.width = static_cast<png_uint_32>(pixels.width);
  image.height = static_cast<png_uint_32>(pixels.height);
  image.format = PNG_FORMAT_RGB;
  png_alloc_size_t size = 0;
  if (!png_image_write_to_memory(&image, nullptr, &size, 0, pixels.rgb.data(), 0, nullptr)) {
    error = std::string("PNG encoding failed: ") + image.message;
    return std::nullopt;
  }
  std::string bytes(size, '\0');
  if (!png_image_write_to_memory(&image, bytes.data(), &size, 0, pixels.rgb.data(), 0, nullptr)) {
    error = std::string("PNG encoding failed: ") + image.message;
    return std::nullopt;
  }
  bytes.resize(size);
  return bytes;
}

std::optional<std::string> encodeJpeg(const Pixels& pixels, int quality, std::string& error) {
  TjHandle encoder(tjInitCompress());
  if (!encoder) {
    error = "JPEG encoder unavailable";
    return std::nullopt;
  }
  unsigned char* buffer = nullptr;
  unsigned long size = 0;
  if (tjCompress2(encoder.get(), pixels.rgb.data(), pixels.width, 0, pixels.height, TJPF_RGB,
                  &buffer, &size, TJSAMP_420, std::clamp(quality, 1, 100), TJFLAG_ACCURATEDCT) != 0) {
    error = std::string("JPEG encoding failed: ") + tjGetErrorStr2(encoder.get());
    tjFree(buffer);
    return std::nullopt;
  }
  std::string bytes(reinterpret_cast<const char*>(buffer), size);
  tjFree(buffer);
  return bytes;
}

}  // namespace

std::optional<Pixels> decodeImage(std::string_view bytes, std::string& error) {
  if (bytes.size() >= 8 && png_sig_cmp(reinterpret_cast<png_const_bytep>(bytes.data()), 0, 8) == 0) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_memory(&image, bytes.data(), bytes.size())) {
      error = std::string("the image is not a PNG this program can read: ") + image.message;
      return std::nullopt;
    }
    image.format = PNG_FORMAT_RGB;
    Pixels pixels{static_cast<int>(image.width), static_cast<int>(image.height), {}};
    pixels.rgb.resize(PNG_IMAGE_SIZE(image));
    if (!png_image_finish_read(&image, nullptr, pixels.rgb.data(), 0, nullptr)) {
      error = std::string("decoding the PNG failed: ") + image.message;
      return std::nullopt;
    }
    return pixels;
  }
  TjHandle decoder(tjInitDecompress());
  auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
  int width = 0, height = 0, subsampling = 0, colorspace = 0;
  if (!decoder || tjDecompressHeader3(decoder.get(), data, bytes.size(), &width, &height,
                                      &subsampling, &colorspace) != 0 || width <= 0 || height <= 0) {
    error = "the image is neither a JPEG nor a PNG this program can read";
    return std::nullopt;
  }
  Pixels pixels{width, height, std::vector<unsigned char>(static_cast<std::size_t>(width) * height * 3)};
  if (tjDecompress2(decoder.get(), data, bytes.size(), pixels.rgb.data(), width, 0, height,
                    TJPF_RGB, TJFLAG_ACCURATEDCT) != 0 &&
      tjGetErrorCode(decoder.get()) == TJERR_FATAL) {
    error = std::string("decoding the JPEG failed: ") + tjGetErrorStr2(decoder.get());
    return std::nullopt;
  }
  return pixels;
}

std::optional<EncodedImage> encodeImage(const Pixels& pixels, ImageFormat format, int quality,
                                        std::string& error) {
  auto bytes = format == ImageFormat::png ? encodePng(pixels, error)
                                          : encodeJpeg(pixels, quality, error);
  if (!bytes) return std::nullopt;
  return EncodedImage{std::move(*bytes), format == ImageFormat::png ? "image/png" : "image/jpeg",
                      pixels.width, pixels.height};
}

std::optional<EncodedImage> fitImage(std::string_view jpeg, int maxWidth, ImageFormat format,
                                     int quality, std::string& error,
                                     const std::function<void(Pixels&)>& paint) {
  TjHandle decoder(tjInitDecompress());
  if (!decoder) {
    error = "JPEG decoder unavailable";
    return std::nullopt;
  }
  auto* data = reinterpret_cast<const unsigned char*>(jpeg.data());
  int width = 0, height = 0, subsampling = 0, colorspace = 0;
  if (tjDecompressHeader3(decoder.get(), data, jpeg.size(), &width, &height, &subsampling,
                          &colorspace) != 0 || width <= 0 || height <= 0) {
    error = std::string("the screenshot is not a JPEG this program can read: ") +
            tjGetErrorStr2(decoder.get());
    return std::nullopt;
  }
  const int targetWidth = std::clamp(maxWidth, 1, width);
  const int targetHeight = std::max(
      1, static_cast<int>(std::lround(static_cast<double>(height) * targetWidth / width)));
  if (targetWidth == width && format == ImageFormat::jpeg && !paint) {
    return EncodedImage{std::string(jpeg), "image/jpeg", width, height};
  }

  // The smallest DCT scaling that still leaves at least the target size.
  int factorCount = 0;
  const tjscalingfactor* factors = tjGetScalingFactors(&factorCount);
  Pixels decoded{width, height, {}};
  for (int i = 0; i < factorCount; ++i) {
    const int w = TJSCALED(width, factors[i]);
    const int h = TJSCALED(height, factors[i]);
    if (w >= targetWidth && h >= targetHeight && w * h < decoded.width * decoded.height) {
      decoded.width = w;
      decoded.height = h;
    }
  }
  decoded.rgb.resize(static_cast<std::size_t>(decoded.width) * decoded.height * 3);
  if (tjDecompress2(decoder.get(), data, jpeg.size(), decoded.rgb.data(), decoded.width, 0,
                    decoded.height, TJPF_RGB, TJFLAG_ACCURATEDCT) != 0 &&
      tjGetErrorCode(decoder.get()) == TJERR_FATAL) {
    error = std::string("decoding the screenshot failed: ") + tjGetErrorStr2(decoder.get());
    return std::nullopt;
  }
  Pixels scaled = decoded.width == targetWidth && decoded.height == targetHeight
                      ? std::move(decoded)
                      : areaScale(decoded, targetWidth, targetHeight);
  if (paint) paint(scaled);
  return encodeImage(scaled, format, quality, error);
}

}  // namespace tervain::mcp
