// The mutex: the count is the only shared word of the fast path, always changed atomically; waiters
// sleep on the semaphore, and every unlock with a waiter hands over through one signal.
#include "platform/mutex.h"

#include "platform/atomic.h"
#include "platform/kernel_wrappers.h"

namespace orlix {

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

// The wait is not repeated on 310: the kernel's semaphore wait never ends with it.
int MutexLock(Mutex* mutex)
{
    if (atomic::add(&mutex->count, std::int64_t{1}) < 2)
        return MUTEX_OK;
    return _SL_WaitSemaphore(mutex->semaphore, 1, WAIT_FOREVER) == STATUS_DONE ? MUTEX_OK : MUTEX_KERNEL_FAILURE;
}

int MutexTryLock(Mutex* mutex)
{
    std::int64_t expected = 0;
    return atomic::compare_exchange(&mutex->count, &expected, std::int64_t{1}) ? MUTEX_OK : MUTEX_BUSY;
}

int MutexTimedLock(Mutex* mutex, std::int64_t ms)
{
    if (ms < 1)
        return MUTEX_BAD_ARGUMENT;
    if (atomic::add(&mutex->count, std::int64_t{1}) < 2)
        return MUTEX_OK;
    Status status = _SL_WaitSemaphore(mutex->semaphore, 1, ms);
    if (status == STATUS_DONE)
        return MUTEX_OK;
    return status == STATUS_DELETED ? MUTEX_KERNEL_FAILURE : MUTEX_BUSY;
}

int MutexUnlock(Mutex* mutex)
{
    if (atomic::sub(&mutex->count, std::int64_t{1}) <= 0)
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
