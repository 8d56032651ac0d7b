// The one lock of the system: a count and a kernel semaphore. Not recursive, no owner.
// An uncontended lock and unlock are one atomic operation each and never enter the kernel.
#pragma once

#include "platform/kernel.h"

namespace orlix {

struct Mutex {
    std::int64_t count; // 0 free; otherwise the holder plus the waiters
    Handle semaphore;
};
static_assert(sizeof(Mutex) == 16);

// Results of all mutex calls.
inline constexpr int MUTEX_OK = 0;
inline constexpr int MUTEX_BUSY = -1;        // busy, or the time-out ran out
inline constexpr int MUTEX_BAD_ARGUMENT = -2;
inline constexpr int MUTEX_KERNEL_FAILURE = -3;
inline constexpr int MUTEX_NO_RESOURCE = -4;

int MutexInit(Mutex* mutex);                       // 0, -4
int MutexLock(Mutex* mutex);                       // 0, -3
int MutexTryLock(Mutex* mutex);                    // 0, -1
int MutexTimedLock(Mutex* mutex, std::int64_t ms); // 0, -1, -2, -3
int MutexUnlock(Mutex* mutex);                     // 0, -3
int MutexDestroy(Mutex* mutex);                    // 0, -3

} // namespace orlix
