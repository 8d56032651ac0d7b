// Semaphores and events. A semaphore starts empty and keeps every signal; its count changes
// without a lock, a wait spins a little before it sleeps, and a signal takes the lock only when
// someone sleeps. An event is set or reset; a wait passes while it is set, and an auto-reset event
// lets one wait through per set. Deleting either ends its waits.
#include "host/kernel/spin_lock.h"
#include "host/kernel/thread.h"

namespace host::kernel {

namespace {

// A few microseconds of spinning, four looks about a microsecond apart: a holder of the mutex
// built on the semaphore is usually out by then, and the waiter takes the signal without sleeping
// or waking anybody. Looks far apart leave a thread that takes the mutex again and again alone
// with its cache lines (measured: two threads allocating small blocks 2.5 times one thread's time
// an operation with these, 4 times with ten looks 200 ns apart).
constexpr int SPINS_BEFORE_SLEEP = 4;
constexpr int RELAX_PER_LOOK = 64;

class Semaphore : public Waitable {
public:
    Semaphore() : Waitable(Kind::semaphore) {}

    // Takes n signals if they are there.
    bool try_take(std::uint64_t n)
    {
        std::uint64_t now = count.load(std::memory_order_relaxed);
        while (now >= n)
            if (count.compare_exchange_weak(now, now - n, std::memory_order_acquire, std::memory_order_relaxed))
                return true;
        return false;
    }

    // A signal is taken only once it has stayed there a look long: a thread that signals and at
    // once waits again (a mutex taken again and again) keeps it, and the data it works on stays in
    // its cache, instead of every operation moving over to the spinning thread.
    bool spin_take(std::uint64_t n)
    {
        bool seen = false;
        for (int i = 0; i < SPINS_BEFORE_SLEEP; ++i) {
            for (int k = 0; k < RELAX_PER_LOOK; ++k)
                cpu_relax();
            bool there = count.load(std::memory_order_relaxed) >= n;
            if (there && seen && try_take(n))
                return true;
            seen = there;
        }
        return false;
    }

    // Wakes the first sleeper (lock held); it will look at the signals again.
    void wake_one()
    {
        if (KThread* waiter = waiters.pop()) {
            waking.store(true, std::memory_order_seq_cst);
            waiter->parker.unpark();
        }
    }

    // The signals kept, the waiters that sleep (changed under the lock), and whether a sleeper
    // was woken and has not looked at the signals yet. A waiter counts itself, or clears
    // `waking`, before it looks at the signals, and a signal adds before it looks at those two,
    // so that one side always sees the other. While a woken sleeper is on its way, signals wake
    // nobody more: a thread that takes the lock again and again then pays no wake-up each time.
    alignas(64) std::atomic<std::uint64_t> count{0};
    std::atomic<std::uint32_t> sleepers{0};
    std::atomic<bool> waking{false};
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

// The semaphore behind a handle, through the thread's lookup cache so that its fast paths find
// it next time; null for another kind of object.
std::shared_ptr<Semaphore> semaphore_at(orlix::Handle handle)
{
    const ObjectRef* object = lookup_cached(handle);
    if (object == nullptr || (*object)->kind() != Kind::semaphore)
        return nullptr;
    return std::static_pointer_cast<Semaphore>(*object);
}

// The sleeping part of a semaphore wait, on the host stack. A waiter woken for a signal that a
// spinning one took first sleeps again.
orlix::Status sleep_on(orlix::Handle handle, std::uint64_t n, const Deadline& deadline)
{
    auto semaphore = semaphore_at(handle);
    if (!semaphore)
        return orlix::STATUS_BAD_HANDLE;
    std::unique_lock lock(semaphore->lock);
    semaphore->sleepers.fetch_add(1, std::memory_order_seq_cst);
    orlix::Status status;
    do
        status = wait_on(lock, semaphore->waiters, *semaphore, deadline, [&] {
            semaphore->waking.store(false, std::memory_order_seq_cst);
            return semaphore->count.load(std::memory_order_seq_cst) >= n;
        });
    while (status == orlix::STATUS_DONE && !semaphore->try_take(n));
    semaphore->sleepers.fetch_sub(1, std::memory_order_relaxed);
    // Signals that came while this waiter was on its way woke nobody, and a waiter that leaves
    // without a signal (time-out, exception, its own end) may have been the one woken: what is
    // there goes to the next sleeper.
    semaphore->waking.store(false, std::memory_order_seq_cst);
    if (semaphore->count.load(std::memory_order_seq_cst) != 0)
        semaphore->wake_one();
    return status;
}

void wake_sleepers(orlix::Handle handle, std::uint64_t n)
{
    auto semaphore = semaphore_at(handle);
    if (!semaphore)
        return;
    std::lock_guard guard(semaphore->lock);
    for (std::uint64_t i = 0; i < n && !semaphore->waiters.empty(); ++i)
        semaphore->wake_one();
}

orlix::Status wait_event(orlix::Handle handle, orlix::Message* record, const Deadline& deadline)
{
    auto event = lookup_as<Event>(handle, Kind::event);
    if (!event)
        return orlix::STATUS_BAD_HANDLE;
    std::unique_lock lock(event->lock);
    orlix::Status status = wait_on(lock, event->waiters, *event, deadline, [&] { return event->set; });
    if (status == orlix::STATUS_DONE && event->auto_reset)
        event->set = false;
    if (record != nullptr && status != STATUS_ATTEND)
        *record = orlix::Message{static_cast<std::uint64_t>(handle), 0, status == orlix::STATUS_DONE ? 1u : 0u};
    return status;
}

} // namespace

} // namespace host::kernel

namespace orlix {

using namespace host::kernel;

Handle _SL_CreateSemaphore(std::uint64_t, std::uint64_t, std::uint64_t, std::uint64_t)
{
    return host_entry([] { return register_handle(std::make_shared<Semaphore>(), 0); });
}

// A semaphore wait never ends with 310: the mutex built on it has no way to repeat it. An
// exception's handler runs during the wait, which then goes on; a request for 310 is kept for the
// thread's next wait that may end so.
Status _SL_WaitSemaphore(Handle handle, std::uint64_t count, std::int64_t timeout)
{
    KThread* self = current_thread();
    enter_kernel(self);
    if (count == 0)
        return STATUS_BAD_ARGUMENT;
    if (auto* semaphore = find_cached_as<Semaphore>(handle, Kind::semaphore))
        if (semaphore->try_take(count) || (timeout != 0 && semaphore->spin_take(count)))
            return STATUS_DONE;
    return blocking_entry(self, false, timeout,
                          [&](const Deadline& deadline) { return sleep_on(handle, count, deadline); });
}

Status _SL_SignalSemaphore(Handle handle, std::uint64_t count)
{
    KThread* self = current_thread();
    enter_kernel(self);
    auto* semaphore = find_cached_as<Semaphore>(handle, Kind::semaphore);
    if (semaphore == nullptr)
        semaphore = on_host_stack(self, [&] { return semaphore_at(handle).get(); });
    if (semaphore == nullptr)
        return STATUS_BAD_HANDLE;
    semaphore->count.fetch_add(count, std::memory_order_seq_cst);
    if (semaphore->sleepers.load(std::memory_order_seq_cst) != 0 &&
        !semaphore->waking.load(std::memory_order_seq_cst))
        on_host_stack(self, [&] {
            wake_sleepers(handle, count);
            return 0;
        });
    return STATUS_DONE;
}

Handle _SL_CreateEvent(std::uint64_t, std::uint64_t mode)
{
    return host_entry([mode] { return register_handle(std::make_shared<Event>(mode), 0); });
}

Status _SL_WaitForEventPtr(Handle event, Message* record, std::int64_t timeout)
{
    KThread* self = current_thread();
    if (enter_interruptible(self))
        return STATUS_REPEAT;
    return blocking_entry(self, true, timeout,
                          [&](const Deadline& deadline) { return wait_event(event, record, deadline); });
}

Status _SL_SetEvent(Handle handle, std::uint64_t, std::uint64_t, std::uint64_t)
{
    return host_entry([handle] {
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
    });
}

Status _SL_ResetEvent(Handle handle, std::uint64_t)
{
    return host_entry([handle] {
        auto event = lookup_as<Event>(handle, Kind::event);
        if (!event)
            return STATUS_BAD_HANDLE;
        std::lock_guard guard(event->lock);
        event->set = false;
        return STATUS_DONE;
    });
}

} // namespace orlix
