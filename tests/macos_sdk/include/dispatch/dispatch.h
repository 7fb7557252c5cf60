// libdispatch, as far as the macOS adapter uses it: counting semaphores with deadlines. Under
// Objective-C the dispatch objects are Objective-C objects that ARC retains and releases (so a
// block that captures a semaphore keeps it alive); elsewhere they are opaque pointers.
#pragma once

#include <stdint.h>

#ifdef __OBJC__
@protocol OS_dispatch_object
@end
@protocol OS_dispatch_semaphore <OS_dispatch_object>
@end
@class NSObject;
typedef NSObject<OS_dispatch_semaphore>* dispatch_semaphore_t;
#else
typedef struct dispatch_semaphore_s* dispatch_semaphore_t;
#endif

typedef uint64_t dispatch_time_t;
#define DISPATCH_TIME_NOW (0ull)
#define DISPATCH_TIME_FOREVER (~0ull)

#ifdef __cplusplus
extern "C" {
#endif

#pragma clang assume_nonnull begin

dispatch_time_t dispatch_time(dispatch_time_t when, int64_t delta);
dispatch_semaphore_t dispatch_semaphore_create(intptr_t value);
intptr_t dispatch_semaphore_wait(dispatch_semaphore_t dsema, dispatch_time_t timeout);
intptr_t dispatch_semaphore_signal(dispatch_semaphore_t dsema);

#pragma clang assume_nonnull end

#ifdef __cplusplus
}
#endif
