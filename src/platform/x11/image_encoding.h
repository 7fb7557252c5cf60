// Encoding captured pixels: JPEG through libjpeg-turbo, PNG through libpng, and the scaling a
// capture at another size than the screen's needs.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tervain::x11 {

// Pixels as 4 bytes each: blue, green, red, unused (the layout of a 24- or 32-bit TrueColor
// visual on a little-endian server).
struct Pixels {
  const std::uint8_t* data = nullptr;
  int width = 0, height = 0, stride = 0;  // stride in bytes
};

struct Encoded {
  bool ok = false;
  std::string error;  // why not, when !ok
  std::string bytes;
};

// Baseline JPEG, 4:2:0, at quality 1..100. Thread-safe.
Encoded encodeJpeg(const Pixels& pixels, int quality);

// The same, for one caller at a time that encodes again and again (screenshots): the encoder
// and its output buffer are kept, so a frame costs no fresh memory but its result's.
class JpegEncoder {
 public:
  JpegEncoder() = default;
  ~JpegEncoder();
  JpegEncoder(const JpegEncoder&) = delete;
  JpegEncoder& operator=(const JpegEncoder&) = delete;

  Encoded encode(const Pixels& pixels, int quality);

 private:
  void* handle = nullptr;
  unsigned char* buffer = nullptr;
  unsigned long capacity = 0;
};
// 8-bit RGB PNG. Thread-safe.
Encoded encodePng(const Pixels& pixels);

// The pixels at another size, nearest neighbour, written into storage; the result points there.
Pixels scaleNearest(const Pixels& pixels, int width, int height, std::vector<std::uint8_t>& storage);

}  // namespace tervain::x11
