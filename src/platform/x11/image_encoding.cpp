#include "platform/x11/image_encoding.h"

#include <png.h>
#include <turbojpeg.h>

#include <algorithm>

namespace tervain::x11 {

Encoded encodeJpeg(const Pixels& pixels, int quality) {
  JpegEncoder encoder;
  return encoder.encode(pixels, quality);
}

JpegEncoder::~JpegEncoder() {
  tjFree(buffer);
  if (handle != nullptr) tjDestroy(handle);
}

Encoded JpegEncoder::encode(const Pixels& pixels, int quality) {
  Encoded result;
  if (handle == nullptr) handle = tjInitCompress();
  if (handle == nullptr) {
    result.error = "the JPEG encoder could not start";
    return result;
  }
  // The largest JPEG these pixels can make, so the encoder never reallocates; a buffer kept
  // from frame to frame keeps its pages too.
  const unsigned long needed = tjBufSize(pixels.width, pixels.height, TJSAMP_420);
  if (needed == static_cast<unsigned long>(-1)) {
    result.error = tjGetErrorStr2(handle);
    return result;
  }
  if (needed > capacity) {
    tjFree(buffer);
    buffer = tjAlloc(static_cast<int>(needed));
    capacity = buffer == nullptr ? 0 : needed;
  }
  unsigned long size = capacity;
  const int flags = buffer == nullptr ? 0 : TJFLAG_NOREALLOC;
  unsigned char* out = buffer;
  if (tjCompress2(handle, pixels.data, pixels.width, pixels.stride, pixels.height, TJPF_BGRX, &out,
                  &size, TJSAMP_420, std::clamp(quality, 1, 100), flags) != 0) {
    result.error = tjGetErrorStr2(handle);
    if (out != buffer) tjFree(out);
    return result;
  }
  result.bytes.assign(reinterpret_cast<const char*>(out), size);
  if (out != buffer) tjFree(out);
  result.ok = true;
  return result;
}

Encoded encodePng(const Pixels& pixels) {
  Encoded result;
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  image.width = static_cast<png_uint_32>(pixels.width);
  image.height = static_cast<png_uint_32>(pixels.height);
  image.format = PNG_FORMAT_BGRA;  // the fourth byte is read as alpha and dropped below
  // libpng's simplified API writes alpha whenever the format has it: make the pixels RGB first.
  std::vector<std::uint8_t> rgb(static_cast<std::size_t>(pixels.width) * pixels.height * 3);
  for (int y = 0; y < pixels.height; ++y) {
    const std::uint8_t* in = pixels.data + static_cast<std::ptrdiff_t>(y) * pixels.stride;
    std::uint8_t* out = rgb.data() + static_cast<std::ptrdiff_t>(y) * pixels.width * 3;
    for (int x = 0; x < pixels.width; ++x, in += 4, out += 3) {
      out[0] = in[2];
      out[1] = in[1];
      out[2] = in[0];
    }
  }
  image.format = PNG_FORMAT_RGB;
  png_alloc_size_t size = 0;
  if (!png_image_write_to_memory(&image, nullptr, &size, 0, rgb.data(), 0, nullptr)) {
    result.error = image.message;
    return result;
  }
  result.bytes.resize(size);
  if (!png_image_write_to_memory(&image, result.bytes.data(), &size, 0, rgb.data(), 0, nullptr)) {
    result.error = image.message;
    result.bytes.clear();
    return result;
  }
  result.bytes.resize(size);
  result.ok = true;
  return result;
}

Pixels scaleNearest(const Pixels& pixels, int width, int height,
                    std::vector<std::uint8_t>& storage) {
  storage.resize(static_cast<std::size_t>(width) * height * 4);
  for (int y = 0; y < height; ++y) {
    const int sy = static_cast<int>(static_cast<std::int64_t>(y) * pixels.height / height);
    const auto* row = pixels.data + static_cast<std::ptrdiff_t>(sy) * pixels.stride;
    auto* out = storage.data() + static_cast<std::ptrdiff_t>(y) * width * 4;
    for (int x = 0; x < width; ++x) {
      const int sx = static_cast<int>(static_cast<std::int64_t>(x) * pixels.width / width);
      std::copy_n(row + static_cast<std::ptrdiff_t>(sx) * 4, 4, out + static_cast<std::ptrdiff_t>(x) * 4);
    }
  }
  return {storage.data(), width, height, width * 4};
}

}  // namespace tervain::x11
