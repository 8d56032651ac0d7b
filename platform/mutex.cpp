// The mutex: the count is the only shared word of the fast path; waiters sleep on the
// semaphore and every unlock with a waiter hands over through one signal.
#include "platform/mutex.h"

#include "platform/atomic.h"
#include "platform/kernel_wrappers.h"

namespace orlix {

namespace {

constexpr int SPINS_BEFORE_WAIT = 1000;

constinit const char never_alone = 0;
constinit const char* single_thread_flag = nullptr;

// True while the task runs one thread: nothing can then come between a read and a write of the
// count (exceptions arrive only at kernel entries), so the count needs no atomic operation.
bool alone()
{
    const char* flag = atomic::load_relaxed(&single_thread_flag);
    if (flag == nullptr) [[unlikely]] {
        flag = reinterpret_cast<const char*>(_SL_GetState(STATE_SINGLE_THREAD_FLAG));
        if (flag == nullptr)
            flag = &never_alone;
        atomic::store(&single_thread_flag, flag);
    }
    return atomic::load_relaxed(flag) != 0;
}

// count + delta, atomically unless the task is alone; gives the new value.
std::int64_t add_to_count(Mutex* mutex, std::int64_t delta)
{
    if (alone()) {
        std::int64_t now = atomic::load_relaxed(&mutex->count) + delta;
        __atomic_store_n(&mutex->count, now, __ATOMIC_RELAXED);
        return now;
    }
    return atomic::add(&mutex->count, delta);
}

// The free mutex taken by 0 -> 1, as a waiter would never see it: a short spin before sleeping
// saves the semaphore round trip when the holder is about to leave.
bool take_free(Mutex* mutex)
{
    for (int i = 0; i < SPINS_BEFORE_WAIT; ++i) {
        std::int64_t expected = 0;
        if (atomic::load_relaxed(&mutex->count) == 0 &&
            atomic::compare_exchange(&mutex->count, &expected, std::int64_t{1}))
            return true;
        atomic::cpu_relax();
    }
    return false;
}

} // namespace

int MutexInit(Mutex* mutex)
{
    mutex->count = 0;
    Handle semaphore = _SL_CreateSemaphore(0, 0, 1, 0);
    if (semaphore == INVALID_HANDLE)
        return MUTEX_NO_RESOURCE;
    Handle handle = _SL_CreateHandle(0, semaphore, 0x40024);
    if (handle == INVALID_HANDLE) {
        DeleteSemaphore(semaphore);
        return MUTEX_NO_RESOURCE;
    }
    mutex->semaphore = handle;
    return MUTEX_OK;
}

int MutexLock(Mutex* mutex)
{
    if (!alone() && take_free(mutex))
        return MUTEX_OK;
    if (add_to_count(mutex, 1) < 2)
        return MUTEX_OK;
    return _SL_WaitSemaphore(mutex->semaphore, 1, WAIT_FOREVER) == STATUS_DONE ? MUTEX_OK
                                                                                : MUTEX_KERNEL_FAILURE;
}

int MutexTryLock(Mutex* mutex)
{
    if (alone()) {
        if (atomic::load_relaxed(&mutex->count) != 0)
            return MUTEX_BUSY;
        __atomic_store_n(&mutex->count, std::int64_t{1}, __ATOMIC_RELAXED);
        return MUTEX_OK;
    }
    std::int64_t expected = 0;
    return atomic::compare_exchange(&mutex->count, &expected, std::int64_t{1}) ? MUTEX_OK : MUTEX_BUSY;
}

int MutexTimedLock(Mutex* mutex, std::int64_t ms)
{
    if (ms < 1)
        return MUTEX_BAD_ARGUMENT;
    if (add_to_count(mutex, 1) < 2)
        return MUTEX_OK;
    Status status = _SL_WaitSemaphore(mutex->semaphore, 1, ms);
    if (status == STATUS_DONE)
        return MUTEX_OK;
    return status == STATUS_DELETED ? MUTEX_KERNEL_FAILURE : MUTEX_BUSY;
}

int MutexUnlock(Mutex* mutex)
{
    if (add_to_count(mutex, -1) <= 0)
        return MUTEX_OK;
    return _SL_SignalSemaphore(mutex->semaphore, 1) == STATUS_DONE ? MUTEX_OK : MUTEX_KERNEL_FAILURE;
}

int MutexDestroy(Mutex* mutex)
{
    if (DeleteSemaphore(mutex->semaphore) != STATUS_DONE)
        return MUTEX_KERNEL_FAILURE;
    mutex->semaphore = INVALID_HANDLE;
    return MUTEX_OK;
}

} // namespace orlix
