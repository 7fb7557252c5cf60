// Accessibility elements and their attribute values: plain C over the AXUIElement API.
//
// Each element handle owns exactly one reference to its AXUIElementRef: one obtained under the
// Create/Copy rule is adopted, one read out of an array (Get rule) is retained first. Attribute
// values are converted into the seam's plain C++ values before the call returns, so no platform
// object crosses the seam except element handles.
#include <ApplicationServices/ApplicationServices.h>

#include <cstdint>
#include <string>
#include <vector>

#include "platform/macos/cf_ref.h"
#include "platform/macos/macos_desktop.h"

namespace tervain::macos {
namespace {

class MacElement final : public Element {
 public:
  explicit MacElement(CFRef<AXUIElementRef> ref) : ref(std::move(ref)) {}
  AXUIElementRef get() const { return ref.get(); }

 private:
  CFRef<AXUIElementRef> ref;
};

// Adopts an owned reference; nothing for null.
ElementRef adopt(AXUIElementRef element) {
  if (!element) return nullptr;
  return std::make_shared<const MacElement>(CFRef<AXUIElementRef>(element));
}

// The platform reference of an element, or null for a handle that is not this adapter's (or
// that wraps a creation that failed): the calls then answer kAXErrorIllegalArgument.
AXUIElementRef refOf(const Element& element) {
  const auto* mine = dynamic_cast<const MacElement*>(&element);
  return mine ? mine->get() : nullptr;
}

CFRef<CFStringRef> makeString(const std::string& text) {
  return CFRef<CFStringRef>(CFStringCreateWithBytes(
      kCFAllocatorDefault, reinterpret_cast<const UInt8*>(text.data()),
      static_cast<CFIndex>(text.size()), kCFStringEncodingUTF8, false));
}

AXValue convertNumber(CFNumberRef number) {
  if (CFNumberIsFloatType(number)) {
    double real = 0;
    CFNumberGetValue(number, kCFNumberDoubleType, &real);
    return real;
  }
  std::int64_t integer = 0;
  CFNumberGetValue(number, kCFNumberSInt64Type, &integer);
  return integer;
}

AXValue convertGeometry(AXValueRef value) {
  switch (AXValueGetType(value)) {
    case kAXValueTypeCGPoint: {
      CGPoint point{};
      if (AXValueGetValue(value, kAXValueTypeCGPoint, &point)) return Point{point.x, point.y};
      break;
    }
    case kAXValueTypeCGSize: {
      CGSize size{};
      if (AXValueGetValue(value, kAXValueTypeCGSize, &size)) return Size{size.width, size.height};
      break;
    }
    default:
      break;
  }
  return AXOther{};
}

// An array of elements, an array of strings (empty counts as elements), or AXOther.
AXValue convertArray(CFArrayRef array) {
  const CFIndex count = CFArrayGetCount(array);
  const CFTypeID elementType = AXUIElementGetTypeID();
  const CFTypeID stringType = CFStringGetTypeID();
  bool allElements = true;
  bool allStrings = true;
  for (CFIndex i = 0; i < count; ++i) {
    const CFTypeRef item = CFArrayGetValueAtIndex(array, i);
    const CFTypeID type = item ? CFGetTypeID(item) : 0;
    allElements = allElements && item && type == elementType;
    allStrings = allStrings && item && type == stringType;
  }
  if (allElements) {
    std::vector<ElementRef> elements;
    elements.reserve(static_cast<std::size_t>(count));
    for (CFIndex i = 0; i < count; ++i) {
      const auto item = static_cast<AXUIElementRef>(CFArrayGetValueAtIndex(array, i));
      elements.push_back(std::make_shared<const MacElement>(CFRef<AXUIElementRef>::retain(item)));
    }
    return elements;
  }
  if (allStrings) {
    std::vector<std::string> strings;
    strings.reserve(static_cast<std::size_t>(count));
    for (CFIndex i = 0; i < count; ++i) {
      strings.push_back(toUtf8(static_cast<CFStringRef>(CFArrayGetValueAtIndex(array, i))));
    }
    return strings;
  }
  return AXOther{};
}

// Converts a value the caller owns; the reference stays the caller's.
AXValue convertValue(CFTypeRef value) {
  if (!value) return std::monostate{};
  const CFTypeID type = CFGetTypeID(value);
  if (type == CFStringGetTypeID()) return toUtf8(static_cast<CFStringRef>(value));
  if (type == CFBooleanGetTypeID()) return CFBooleanGetValue(static_cast<CFBooleanRef>(value)) != 0;
  if (type == CFNumberGetTypeID()) return convertNumber(static_cast<CFNumberRef>(value));
  if (type == CFURLGetTypeID()) {
    const CFRef<CFURLRef> absolute(CFURLCopyAbsoluteURL(static_cast<CFURLRef>(value)));
    if (!absolute) return AXOther{};
    return AXUrl{toUtf8(CFURLGetString(absolute.get()))};
  }
  if (type == AXValueGetTypeID()) return convertGeometry(static_cast<AXValueRef>(value));
  if (type == AXUIElementGetTypeID()) {
    return ElementRef(std::make_shared<const MacElement>(
        CFRef<AXUIElementRef>::retain(static_cast<AXUIElementRef>(value))));
  }
  if (type == CFArrayGetTypeID()) return convertArray(static_cast<CFArrayRef>(value));
  return AXOther{};
}

}  // namespace

// A creation that yields null still gives a handle (the portable code uses it unchecked, as
// the platform's own callers may): every call on it answers kAXErrorIllegalArgument.
ElementRef MacDesktop::applicationElement(std::int32_t pid) {
  return std::make_shared<const MacElement>(
      CFRef<AXUIElementRef>(AXUIElementCreateApplication(static_cast<pid_t>(pid))));
}

AXResult MacDesktop::setMessagingTimeout(const Element& element, float seconds) {
  const AXUIElementRef ref = refOf(element);
  if (!ref) return AXError::illegalArgument;
  return AXUIElementSetMessagingTimeout(ref, seconds);
}

AXResult MacDesktop::copyAttributeValue(const Element& element, const std::string& attribute,
                                        AXValue& out) {
  out = std::monostate{};
  const AXUIElementRef ref = refOf(element);
  const CFRef<CFStringRef> name = makeString(attribute);
  if (!ref || !name) return AXError::illegalArgument;
  CFTypeRef raw = nullptr;
  const ::AXError result = AXUIElementCopyAttributeValue(ref, name.get(), &raw);
  const CFRef<CFTypeRef> value(raw);
  if (result == kAXErrorSuccess) out = convertValue(value.get());
  return result;
}

AXResult MacDesktop::copyActionNames(const Element& element, AXValue& out) {
  out = std::monostate{};
  const AXUIElementRef ref = refOf(element);
  if (!ref) return AXError::illegalArgument;
  CFArrayRef raw = nullptr;
  const ::AXError result = AXUIElementCopyActionNames(ref, &raw);
  const CFRef<CFArrayRef> names(raw);
  if (result == kAXErrorSuccess) out = convertValue(names.get());
  return result;
}

AXResult MacDesktop::performAction(const Element& element, const std::string& action) {
  const AXUIElementRef ref = refOf(element);
  const CFRef<CFStringRef> name = makeString(action);
  if (!ref || !name) return AXError::illegalArgument;
  return AXUIElementPerformAction(ref, name.get());
}

AXResult MacDesktop::isAttributeSettable(const Element& element, const std::string& attribute,
                                         bool& settable) {
  settable = false;
  const AXUIElementRef ref = refOf(element);
  const CFRef<CFStringRef> name = makeString(attribute);
  if (!ref || !name) return AXError::illegalArgument;
  Boolean answer = false;
  const ::AXError result = AXUIElementIsAttributeSettable(ref, name.get(), &answer);
  settable = result == kAXErrorSuccess && answer != 0;
  return result;
}

AXResult MacDesktop::setAttributeValue(const Element& element, const std::string& attribute,
                                       const AXWritableValue& value) {
  const AXUIElementRef ref = refOf(element);
  const CFRef<CFStringRef> name = makeString(attribute);
  if (!ref || !name) return AXError::illegalArgument;
  if (const auto* flag = std::get_if<bool>(&value)) {
    return AXUIElementSetAttributeValue(ref, name.get(), *flag ? kCFBooleanTrue : kCFBooleanFalse);
  }
  const CFRef<CFStringRef> text = makeString(std::get<std::string>(value));
  if (!text) return AXError::illegalArgument;
  return AXUIElementSetAttributeValue(ref, name.get(), text.get());
}

AXResult MacDesktop::windowAction(const Element& window, WindowAction action, Point to) {
  const AXUIElementRef ref = refOf(window);
  if (!ref) return AXError::illegalArgument;
  switch (action) {
    case WindowAction::raise:
      return AXUIElementPerformAction(ref, kAXRaiseAction);
    case WindowAction::minimize:
      return AXUIElementSetAttributeValue(ref, kAXMinimizedAttribute, kCFBooleanTrue);
    case WindowAction::unminimize:
      return AXUIElementSetAttributeValue(ref, kAXMinimizedAttribute, kCFBooleanFalse);
    case WindowAction::close: {
      // The window's close button, pressed as a person would.
      CFTypeRef raw = nullptr;
      const ::AXError result = AXUIElementCopyAttributeValue(ref, kAXCloseButtonAttribute, &raw);
      const CFRef<CFTypeRef> button(raw);
      if (result != kAXErrorSuccess) return result;
      if (!button || CFGetTypeID(button.get()) != AXUIElementGetTypeID()) {
        return AXError::actionUnsupported;
      }
      return AXUIElementPerformAction(static_cast<AXUIElementRef>(button.get()), kAXPressAction);
    }
    case WindowAction::move: {
      const CGPoint point = CGPointMake(to.x, to.y);
      const CFRef<AXValueRef> value(AXValueCreate(kAXValueTypeCGPoint, &point));
      if (!value) return AXError::illegalArgument;
      return AXUIElementSetAttributeValue(ref, kAXPositionAttribute, value.get());
    }
    case WindowAction::resize: {
      const CGSize size = CGSizeMake(to.x, to.y);
      const CFRef<AXValueRef> value(AXValueCreate(kAXValueTypeCGSize, &size));
      if (!value) return AXError::illegalArgument;
      return AXUIElementSetAttributeValue(ref, kAXSizeAttribute, value.get());
    }
  }
  return AXError::illegalArgument;
}

AXResult MacDesktop::elementAtPoint(float x, float y, float timeoutSeconds, ElementRef& out) {
  out = nullptr;
  const CFRef<AXUIElementRef> systemWide(AXUIElementCreateSystemWide());
  if (!systemWide) return AXError::illegalArgument;
  AXUIElementSetMessagingTimeout(systemWide.get(), timeoutSeconds);
  AXUIElementRef raw = nullptr;
  const ::AXError result = AXUIElementCopyElementAtPosition(systemWide.get(), x, y, &raw);
  // Adopted whatever the result, so a reference handed out with an error is not leaked.
  ElementRef found = adopt(raw);
  if (result == kAXErrorSuccess) out = std::move(found);
  return result;
}

}  // namespace tervain::macos
