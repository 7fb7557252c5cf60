// ApplicationServices, as far as the macOS adapter uses it: the accessibility API of
// HIServices (plain C), on top of CoreFoundation and CoreGraphics as the umbrella brings them.
#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <CoreGraphics/CoreGraphics.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma clang assume_nonnull begin

typedef const struct __AXUIElement* AXUIElementRef;
typedef const struct __AXValue* AXValueRef;

typedef enum AXError : int32_t {
  kAXErrorSuccess = 0,
  kAXErrorFailure = -25200,
  kAXErrorIllegalArgument = -25201,
  kAXErrorInvalidUIElement = -25202,
  kAXErrorInvalidUIElementObserver = -25203,
  kAXErrorCannotComplete = -25204,
  kAXErrorAttributeUnsupported = -25205,
  kAXErrorActionUnsupported = -25206,
  kAXErrorNotificationUnsupported = -25207,
  kAXErrorNotImplemented = -25208,
  kAXErrorNotificationAlreadyRegistered = -25209,
  kAXErrorNotificationNotRegistered = -25210,
  kAXErrorAPIDisabled = -25211,
  kAXErrorNoValue = -25212,
  kAXErrorParameterizedAttributeUnsupported = -25213,
  kAXErrorNotEnoughPrecision = -25214,
} AXError;

typedef enum AXValueType : UInt32 {
  kAXValueTypeIllegal = 0,
  kAXValueTypeCGPoint = 1,
  kAXValueTypeCGSize = 2,
  kAXValueTypeCGRect = 3,
  kAXValueTypeCFRange = 4,
  kAXValueTypeAXError = 5,
  // The older names of the same values.
  kAXValueCGPointType = 1,
  kAXValueCGSizeType = 2,
  kAXValueCGRectType = 3,
  kAXValueCFRangeType = 4,
  kAXValueAXErrorType = 5,
  kAXValueIllegalType = 0,
} AXValueType;

Boolean AXIsProcessTrusted(void);

// Elements (Create and Copy rules: the caller releases what it gets).
CFTypeID AXUIElementGetTypeID(void);
AXUIElementRef AXUIElementCreateApplication(pid_t pid);
AXUIElementRef AXUIElementCreateSystemWide(void);
AXError AXUIElementGetPid(AXUIElementRef element, pid_t* pid);
AXError AXUIElementSetMessagingTimeout(AXUIElementRef element, float timeoutInSeconds);
AXError AXUIElementCopyAttributeValue(AXUIElementRef element, CFStringRef attribute,
                                      CFTypeRef _Nullable* _Nonnull value);
AXError AXUIElementCopyActionNames(AXUIElementRef element, CFArrayRef _Nullable* _Nonnull names);
AXError AXUIElementPerformAction(AXUIElementRef element, CFStringRef action);
AXError AXUIElementIsAttributeSettable(AXUIElementRef element, CFStringRef attribute,
                                       Boolean* settable);
AXError AXUIElementSetAttributeValue(AXUIElementRef element, CFStringRef attribute,
                                     CFTypeRef value);
AXError AXUIElementCopyElementAtPosition(AXUIElementRef application, float x, float y,
                                         AXUIElementRef _Nullable* _Nonnull element);

// Values (points, sizes, rectangles, ranges, errors).
CFTypeID AXValueGetTypeID(void);
AXValueType AXValueGetType(AXValueRef value);
Boolean AXValueGetValue(AXValueRef value, AXValueType theType, void* valuePtr);

#pragma clang assume_nonnull end

#ifdef __cplusplus
}
#endif
