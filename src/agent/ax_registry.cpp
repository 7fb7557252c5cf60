#include "agent/ax_registry.h"

#include <cstdlib>
#include <limits>

namespace tervain {

std::string AXRegistry::registerElement(ElementRef element) {
  // Unreachable in practice (one ref per emitted node); a wrapped counter would reuse refs.
  if (counter == std::numeric_limits<std::int64_t>::max()) std::abort();
  ++counter;
  // Appended rather than "e" + std::to_string(...): GCC 12 warns (-Wrestrict, its bug 105651)
  // about the inlined operator+(const char*, std::string&&) in release builds.
  std::string ref = "e";
  ref += std::to_string(counter);
  if (order.size() == kMaxRefs) {
    refs.erase(order.front());
    order.pop_front();
  }
  refs.emplace(ref, std::move(element));
  order.push_back(ref);
  return ref;
}

ElementRef AXRegistry::operator[](std::string_view ref) const {
  const auto it = refs.find(ref);
  return it == refs.end() ? nullptr : it->second;
}

void AXRegistry::reset() {
  refs.clear();
  order.clear();
}

}  // namespace tervain
