// CoreGraphics, as far as the macOS adapter uses it: geometry, displays, the privacy-grant
// preflights, event creation and posting, and image sizes.
#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma clang assume_nonnull begin

// Geometry: CGFloat is a double on every 64-bit Mac.
typedef double CGFloat;
typedef struct CGPoint {
  CGFloat x;
  CGFloat y;
} CGPoint;
typedef struct CGSize {
  CGFloat width;
  CGFloat height;
} CGSize;
typedef struct CGRect {
  CGPoint origin;
  CGSize size;
} CGRect;

// From <mach/machine/boolean.h>: int on arm64.
typedef int boolean_t;

typedef enum CGError : int32_t {
  kCGErrorSuccess = 0,
  kCGErrorFailure = 1000,
  kCGErrorIllegalArgument = 1001,
  kCGErrorInvalidConnection = 1002,
  kCGErrorInvalidContext = 1003,
  kCGErrorCannotComplete = 1004,
  kCGErrorNotImplemented = 1006,
  kCGErrorRangeCheck = 1007,
  kCGErrorTypeCheck = 1008,
  kCGErrorInvalidOperation = 1010,
  kCGErrorNoneAvailable = 1011,
} CGError;

// Displays.
typedef uint32_t CGDirectDisplayID;
CGDirectDisplayID CGMainDisplayID(void);
CGError CGGetActiveDisplayList(uint32_t maxDisplays,
                               CGDirectDisplayID* _Nullable activeDisplays,
                               uint32_t* _Nullable displayCount);
size_t CGDisplayPixelsWide(CGDirectDisplayID display);
size_t CGDisplayPixelsHigh(CGDirectDisplayID display);
boolean_t CGDisplayIsMain(CGDirectDisplayID display);

// Privacy grants (CGEvent.h and CGWindow.h, macOS 10.15+); neither prompts.
bool CGPreflightPostEventAccess(void);
bool CGPreflightScreenCaptureAccess(void);

// Events.
typedef struct __CGEvent* CGEventRef;
typedef struct __CGEventSource* CGEventSourceRef;
typedef uint16_t CGKeyCode;

typedef enum CGEventType : uint32_t {
  kCGEventNull = 0,
  kCGEventLeftMouseDown = 1,
  kCGEventLeftMouseUp = 2,
  kCGEventRightMouseDown = 3,
  kCGEventRightMouseUp = 4,
  kCGEventMouseMoved = 5,
  kCGEventLeftMouseDragged = 6,
  kCGEventRightMouseDragged = 7,
  kCGEventKeyDown = 10,
  kCGEventKeyUp = 11,
  kCGEventFlagsChanged = 12,
  kCGEventScrollWheel = 22,
  kCGEventOtherMouseDown = 25,
  kCGEventOtherMouseUp = 26,
  kCGEventOtherMouseDragged = 27,
} CGEventType;

typedef enum CGMouseButton : uint32_t {
  kCGMouseButtonLeft = 0,
  kCGMouseButtonRight = 1,
  kCGMouseButtonCenter = 2,
} CGMouseButton;

typedef enum CGScrollEventUnit : uint32_t {
  kCGScrollEventUnitPixel = 0,
  kCGScrollEventUnitLine = 1,
} CGScrollEventUnit;

typedef enum CGEventField : uint32_t {
  kCGMouseEventNumber = 0,
  kCGMouseEventClickState = 1,
} CGEventField;

// An option set: in C++ the type is the 64-bit integer itself, the masks are its constants.
typedef uint64_t CGEventFlags;
enum : CGEventFlags {
  kCGEventFlagMaskAlphaShift = 0x00010000,
  kCGEventFlagMaskShift = 0x00020000,
  kCGEventFlagMaskControl = 0x00040000,
  kCGEventFlagMaskAlternate = 0x00080000,
  kCGEventFlagMaskCommand = 0x00100000,
  kCGEventFlagMaskSecondaryFn = 0x00800000,
};

typedef enum CGEventTapLocation : uint32_t {
  kCGHIDEventTap = 0,
  kCGSessionEventTap = 1,
  kCGAnnotatedSessionEventTap = 2,
} CGEventTapLocation;

CGEventRef _Nullable CGEventCreate(CGEventSourceRef _Nullable source);
CGPoint CGEventGetLocation(CGEventRef _Nullable event);
CGEventRef _Nullable CGEventCreateMouseEvent(CGEventSourceRef _Nullable source,
                                             CGEventType mouseType, CGPoint mouseCursorPosition,
                                             CGMouseButton mouseButton);
CGEventRef _Nullable CGEventCreateKeyboardEvent(CGEventSourceRef _Nullable source,
                                                CGKeyCode virtualKey, bool keyDown);
CGEventRef _Nullable CGEventCreateScrollWheelEvent2(CGEventSourceRef _Nullable source,
                                                    CGScrollEventUnit units, uint32_t wheelCount,
                                                    int32_t wheel1, int32_t wheel2,
                                                    int32_t wheel3);
void CGEventKeyboardSetUnicodeString(CGEventRef _Nullable event, UniCharCount stringLength,
                                     const UniChar* _Nullable unicodeString);
void CGEventSetIntegerValueField(CGEventRef _Nullable event, CGEventField field, int64_t value);
void CGEventSetFlags(CGEventRef _Nullable event, CGEventFlags flags);
void CGEventPost(CGEventTapLocation tap, CGEventRef _Nullable event);

// Images.
typedef struct CGImage* CGImageRef;
size_t CGImageGetWidth(CGImageRef _Nullable image);
size_t CGImageGetHeight(CGImageRef _Nullable image);
CGImageRef _Nullable CGImageRetain(CGImageRef _Nullable image);
void CGImageRelease(CGImageRef _Nullable image);

#pragma clang assume_nonnull end

#ifdef __cplusplus
}
#endif
