// Strict base64 decoding of host text: never crashes, and whatever it accepts re-encodes to text
// that decodes to the same bytes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "core/base64.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto decoded = tervain::base64::decode(text);
  if (decoded) {
    if (decoded->size() != size / 4 * 3 - (size && text.back() == '=') -
                               (size > 1 && text[size - 2] == '=')) {
      std::abort();
    }
    if (tervain::base64::decode(tervain::base64::encode(*decoded)) != *decoded) std::abort();
  }
  // Raw bytes round-trip too.
  if (tervain::base64::decode(tervain::base64::encode(text)) != text) std::abort();
  return 0;
}
