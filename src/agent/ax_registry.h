// Refs: the short names under which one connection hands out accessibility elements.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/desktop.h"

namespace tervain {

// Maps refs ("e1", "e2", ...) to the element handles they name, for one connection.
//
// A ref text is never reused on a connection: the counter keeps growing across resets, so a ref
// from before the last dump can only miss, never name a different element. The registry holds a
// reference to every handle it maps and lets go of them when it is reset or destroyed, or when
// it passes kMaxRefs: searches add refs without a reset, and the oldest ones then go first.
// Used only by its connection's thread.
class AXRegistry {
 public:
  static constexpr std::size_t kMaxRefs = 4096;

  // Mints the next ref for the element and keeps the element under it, forgetting the oldest
  // ref when there are kMaxRefs already. The same element registered twice gets two refs.
  std::string registerElement(ElementRef element);

  // The element under ref, or null when there is none. Exact, case-sensitive match.
  ElementRef operator[](std::string_view ref) const;

  // Forgets every ref (releasing their elements); the numbering goes on where it was.
  void reset();

 private:
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
  };

  std::unordered_map<std::string, ElementRef, Hash, std::equal_to<>> refs;
  std::deque<std::string> order;  // the refs in refs, oldest first
  std::int64_t counter = 0;  // the number in the most recent ref; 0 before the first
};

}  // namespace tervain
