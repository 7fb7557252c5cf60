// Key chords from a host: any text parses to nothing or to a stroke whose key is in the table and
// whose flags are made only of modifier bits.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "core/key_map.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tervain;
  const std::string_view chord(reinterpret_cast<const char*>(data), size);
  const auto stroke = KeyMap::stroke(chord);
  if (!stroke) return 0;
  bool known = false;
  for (const auto& [name, code] : KeyMap::keyCodes()) known = known || code == stroke->keyCode;
  if (!known) std::abort();
  Modifiers allowed = 0;
  for (const auto& [name, flag] : KeyMap::modifierFlags()) allowed |= flag;
  if ((stroke->modifiers & ~allowed) != 0) std::abort();
  return 0;
}
