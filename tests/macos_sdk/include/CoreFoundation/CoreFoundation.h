// CoreFoundation, as far as the macOS adapter uses it: the base types, retain/release, type ids,
// strings, numbers, booleans, URLs, arrays and the run loop.
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma clang assume_nonnull begin

typedef unsigned char Boolean;
typedef unsigned char UInt8;
typedef unsigned short UInt16;
typedef unsigned int UInt32;
typedef int SInt32;
typedef UInt16 UniChar;
typedef unsigned long UniCharCount;

typedef long CFIndex;
typedef unsigned long CFTypeID;
typedef unsigned long CFOptionFlags;
typedef double CFTimeInterval;
typedef CFTimeInterval CFAbsoluteTime;

typedef struct {
  CFIndex location;
  CFIndex length;
} CFRange;

typedef const void* CFTypeRef;
typedef const struct __CFAllocator* CFAllocatorRef;
typedef const struct __CFString* CFStringRef;
typedef const struct __CFArray* CFArrayRef;
typedef const struct __CFNumber* CFNumberRef;
typedef const struct __CFBoolean* CFBooleanRef;
typedef const struct __CFURL* CFURLRef;
typedef struct __CFRunLoop* CFRunLoopRef;
typedef struct __CFRunLoopTimer* CFRunLoopTimerRef;

extern const CFAllocatorRef kCFAllocatorDefault;

// Ownership.
CFTypeRef CFRetain(CFTypeRef cf);
void CFRelease(CFTypeRef cf);
CFTypeID CFGetTypeID(CFTypeRef cf);

// Strings.
typedef UInt32 CFStringEncoding;
enum : CFStringEncoding { kCFStringEncodingUTF8 = 0x08000100 };
CFTypeID CFStringGetTypeID(void);
CFIndex CFStringGetLength(CFStringRef theString);
CFIndex CFStringGetBytes(CFStringRef theString, CFRange range, CFStringEncoding encoding,
                         UInt8 lossByte, Boolean isExternalRepresentation,
                         UInt8* _Nullable buffer, CFIndex maxBufLen,
                         CFIndex* _Nullable usedBufLen);
CFStringRef _Nullable CFStringCreateWithBytes(CFAllocatorRef _Nullable alloc,
                                              const UInt8* bytes, CFIndex numBytes,
                                              CFStringEncoding encoding,
                                              Boolean isExternalRepresentation);

// Numbers and booleans.
typedef enum CFNumberType : CFIndex {
  kCFNumberSInt8Type = 1,
  kCFNumberSInt16Type = 2,
  kCFNumberSInt32Type = 3,
  kCFNumberSInt64Type = 4,
  kCFNumberFloat32Type = 5,
  kCFNumberFloat64Type = 6,
  kCFNumberCharType = 7,
  kCFNumberShortType = 8,
  kCFNumberIntType = 9,
  kCFNumberLongType = 10,
  kCFNumberLongLongType = 11,
  kCFNumberFloatType = 12,
  kCFNumberDoubleType = 13,
  kCFNumberCFIndexType = 14,
  kCFNumberNSIntegerType = 15,
  kCFNumberCGFloatType = 16,
} CFNumberType;
CFTypeID CFNumberGetTypeID(void);
Boolean CFNumberIsFloatType(CFNumberRef number);
Boolean CFNumberGetValue(CFNumberRef number, CFNumberType theType, void* valuePtr);

extern const CFBooleanRef kCFBooleanTrue;
extern const CFBooleanRef kCFBooleanFalse;
CFTypeID CFBooleanGetTypeID(void);
Boolean CFBooleanGetValue(CFBooleanRef boolean);

// URLs.
CFTypeID CFURLGetTypeID(void);
CFURLRef _Nullable CFURLCopyAbsoluteURL(CFURLRef relativeURL);
CFStringRef CFURLGetString(CFURLRef anURL);

// Arrays (the Get rule: items are not retained for the caller).
CFTypeID CFArrayGetTypeID(void);
CFIndex CFArrayGetCount(CFArrayRef theArray);
const void* _Nullable CFArrayGetValueAtIndex(CFArrayRef theArray, CFIndex idx);

// The run loop.
typedef CFStringRef CFRunLoopMode;
extern const CFRunLoopMode kCFRunLoopCommonModes;
typedef struct {
  CFIndex version;
  void* _Nullable info;
  const void* _Nonnull (*_Nullable retain)(const void* info);
  void (*_Nullable release)(const void* info);
  CFStringRef _Nonnull (*_Nullable copyDescription)(const void* info);
} CFRunLoopTimerContext;
typedef void (*CFRunLoopTimerCallBack)(CFRunLoopTimerRef timer, void* _Nullable info);

CFAbsoluteTime CFAbsoluteTimeGetCurrent(void);
CFRunLoopRef CFRunLoopGetCurrent(void);
void CFRunLoopRun(void);
CFRunLoopTimerRef _Nullable CFRunLoopTimerCreate(CFAllocatorRef _Nullable allocator,
                                                 CFAbsoluteTime fireDate,
                                                 CFTimeInterval interval, CFOptionFlags flags,
                                                 CFIndex order, CFRunLoopTimerCallBack callout,
                                                 CFRunLoopTimerContext* _Nullable context);
void CFRunLoopAddTimer(CFRunLoopRef rl, CFRunLoopTimerRef timer, CFRunLoopMode mode);

#pragma clang assume_nonnull end

#ifdef __cplusplus
}
#endif
