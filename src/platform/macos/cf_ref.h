// An owning handle for one CoreFoundation reference.
//
// Every platform object the adapter gets under the Create or Copy rule goes into a CFRef at once
// and is released when the handle goes; objects got under the Get rule are retained into one
// with CFRef::retain when they must outlive their container.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <string>
#include <utility>

#include "core/utf16.h"

namespace tervain::macos {

template <typename Ref>
class CFRef {
 public:
  CFRef() = default;
  // Takes over a reference the caller owns (+1); null is allowed.
  explicit CFRef(Ref ref) : ref(ref) {}
  // Adds a reference of its own to an object the caller does not own.
  static CFRef retain(Ref ref) {
    if (ref) CFRetain(ref);
    return CFRef(ref);
  }

  CFRef(const CFRef&) = delete;
  CFRef& operator=(const CFRef&) = delete;
  CFRef(CFRef&& other) noexcept : ref(std::exchange(other.ref, nullptr)) {}
  CFRef& operator=(CFRef&& other) noexcept {
    if (this != &other) reset(std::exchange(other.ref, nullptr));
    return *this;
  }
  ~CFRef() { reset(nullptr); }

  Ref get() const { return ref; }
  explicit operator bool() const { return ref != nullptr; }

  // Gives up ownership without releasing.
  Ref release() { return std::exchange(ref, nullptr); }

 private:
  void reset(Ref next) {
    if (ref) CFRelease(ref);
    ref = next;
  }

  Ref ref = nullptr;
};

// The UTF-8 text of a platform string, read through its UTF-16 units: CFStringGetBytes and
// -UTF8String stop (or give nothing) at an unpaired surrogate, which would cut a title, a value or
// an application's name short. Such a surrogate becomes U+FFFD. Null gives "".
inline std::string toUtf8(CFStringRef text) {
  if (!text) return std::string();
  const CFIndex length = CFStringGetLength(text);
  std::u16string units(static_cast<std::size_t>(length), u'\0');
  static_assert(sizeof(UniChar) == sizeof(char16_t));
  CFStringGetCharacters(text, CFRange{0, length}, reinterpret_cast<UniChar*>(units.data()));
  return utf16ToUtf8(units);
}

}  // namespace tervain::macos
