// Semaphores and events. A semaphore starts empty and keeps every signal. An event is set or
// reset; a wait passes while it is set, and an auto-reset event lets one wait through per set.
// Deleting either ends its waits.
#include "host/kernel/thread.h"

namespace host::kernel {

namespace {

class Semaphore : public Waitable {
public:
    Semaphore() : Waitable(Kind::semaphore) {}
    std::uint64_t count = 0;
};

class Event : public Waitable {
public:
    explicit Event(std::uint64_t mode)
        : Waitable(Kind::event), set((mode & orlix::EVENT_STARTS_SET) != 0),
          auto_reset((mode & orlix::EVENT_AUTO_RESET) != 0)
    {
    }
    bool set;
    const bool auto_reset;
};

} // namespace

} // namespace host::kernel

namespace orlix {

using namespace host::kernel;

Handle _SL_CreateSemaphore(std::uint64_t, std::uint64_t, std::uint64_t, std::uint64_t)
{
    enter_kernel(current_thread());
    return register_handle(std::make_shared<Semaphore>(), 0);
}

namespace {

// The wait itself, in a frame of its own so that nothing of it is left when the thread ends.
Status wait_semaphore(Handle handle, std::uint64_t count, std::int64_t timeout)
{
    auto semaphore = lookup_as<Semaphore>(handle, Kind::semaphore);
    if (!semaphore)
        return STATUS_BAD_HANDLE;
    if (count == 0)
        return STATUS_BAD_ARGUMENT;
    std::unique_lock lock(semaphore->lock);
    // A semaphore wait never ends for an exception: the mutex built on it has no way to retry.
    Status status = wait_on(lock, semaphore->waiters, *semaphore, timeout, false,
                            [&] { return semaphore->count >= count; });
    if (status == STATUS_DONE)
        semaphore->count -= count;
    return status;
}

Status wait_event(Handle handle, Message* record, std::int64_t timeout)
{
    auto event = lookup_as<Event>(handle, Kind::event);
    if (!event)
        return STATUS_BAD_HANDLE;
    std::unique_lock lock(event->lock);
    Status status = wait_on(lock, event->waiters, *event, timeout, true, [&] { return event->set; });
    if (status == STATUS_DONE && event->auto_reset)
        event->set = false;
    if (record != nullptr)
        *record = Message{static_cast<std::uint64_t>(handle), 0, status == STATUS_DONE ? 1u : 0u};
    return status;
}

} // namespace

Status _SL_WaitSemaphore(Handle semaphore, std::uint64_t count, std::int64_t timeout)
{
    KThread* self = current_thread();
    enter_kernel(self);
    Status status = wait_semaphore(semaphore, count, timeout);
    leave_kernel(self);
    return status;
}

Status _SL_SignalSemaphore(Handle handle, std::uint64_t count)
{
    enter_kernel(current_thread());
    auto semaphore = lookup_as<Semaphore>(handle, Kind::semaphore);
    if (!semaphore)
        return STATUS_BAD_HANDLE;
    std::lock_guard guard(semaphore->lock);
    semaphore->count += count;
    for (std::uint64_t i = 0; i < count; ++i) {
        KThread* waiter = semaphore->waiters.pop();
        if (waiter == nullptr)
            break;
        waiter->parker.unpark();
    }
    return STATUS_DONE;
}

Handle _SL_CreateEvent(std::uint64_t, std::uint64_t mode)
{
    enter_kernel(current_thread());
    return register_handle(std::make_shared<Event>(mode), 0);
}

Status _SL_WaitForEventPtr(Handle event, Message* record, std::int64_t timeout)
{
    KThread* self = current_thread();
    if (enter_kernel(self))
        return STATUS_REPEAT;
    Status status = wait_event(event, record, timeout);
    leave_kernel(self);
    return status;
}

Status _SL_SetEvent(Handle handle, std::uint64_t, std::uint64_t, std::uint64_t)
{
    enter_kernel(current_thread());
    auto event = lookup_as<Event>(handle, Kind::event);
    if (!event)
        return STATUS_BAD_HANDLE;
    std::lock_guard guard(event->lock);
    event->set = true;
    while (KThread* waiter = event->waiters.pop()) {
        waiter->parker.unpark();
        if (event->auto_reset)
            break;
    }
    return STATUS_DONE;
}

Status _SL_ResetEvent(Handle handle, std::uint64_t)
{
    enter_kernel(current_thread());
    auto event = lookup_as<Event>(handle, Kind::event);
    if (!event)
        return STATUS_BAD_HANDLE;
    std::lock_guard guard(event->lock);
    event->set = false;
    return STATUS_DONE;
}

} // namespace orlix
