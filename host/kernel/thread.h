// Kernel threads: the record of each thread, parking, the wait loop every blocking entry uses,
// and the delivery of exceptions at kernel entry and during waits.
#pragma once

#include <chrono>
#include <csetjmp>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <ucontext.h>

#include "host/kernel/object.h"

namespace host::kernel {

// One sleeping place per thread: a permit word and a futex on it.
class Parker {
public:
    void clear() { permit_.store(0, std::memory_order_seq_cst); }
    void unpark();
    // Returns when unparked, at the deadline, or spuriously; callers re-check their condition.
    void park(std::optional<std::chrono::steady_clock::time_point> deadline);

private:
    std::atomic<std::uint32_t> permit_{0};
};

struct PendingException {
    std::uint64_t exception_class;
    std::uint64_t number;
    std::uint64_t argument;
};

// The place a running exception handler returns to.
struct DeliveryFrame {
    std::jmp_buf jump;
    std::uint64_t status;
    std::uint64_t word;
    DeliveryFrame* outer;
};

class KThread : public Object {
public:
    KThread() : Object(Kind::thread) {}

    Parker parker;
    std::atomic<std::uint64_t> user_word{0};
    // Something for the thread to do at its next kernel entry: an exception, or its deletion.
    std::atomic<bool> attention{false};
    std::atomic<bool> delete_requested{false};
    std::mutex pending_lock;
    std::deque<PendingException> pending;
    DeliveryFrame* frames = nullptr;

    // Link in the wait list of the object the thread waits on.
    KThread* wait_next = nullptr;
    KThread* wait_prev = nullptr;
    bool wait_linked = false;

    // Start of a thread made by _SL_CreateThread; null entry for a host thread taken over.
    orlix::ThreadEntry entry = nullptr;
    void* argument = nullptr;
    void* stack_top = nullptr;
    void* system_stack_base = nullptr;
    std::size_t system_stack_size = 0;
    ucontext_t host_context{};
    ucontext_t system_context{};
    void* sanitizer_fake_stack = nullptr;
    const void* host_stack_bottom = nullptr;
    std::size_t host_stack_size = 0;

    void raise(const PendingException& exception);

private:
    void on_delete() override;
};

// The calling thread's record; a host thread that has none is taken over as a kernel thread.
KThread* current_thread();

// Delivers the thread's pending exceptions, unless the thread was deleted. True when a handler
// asked the interrupted call to be repeated (returned status 1).
bool attend(KThread* self);

// Ends the calling kernel thread; the caller holds no lock and no reference on its own stack.
[[noreturn]] void end_current_thread();

inline bool ending(KThread* self) { return self->delete_requested.load(std::memory_order_acquire); }

// First step of every kernel entry, before it holds anything: a deleted thread ends here, and
// pending exceptions run. True when a handler asked the call to be repeated.
inline bool enter_kernel(KThread* self)
{
    if (!self->attention.load(std::memory_order_acquire))
        return false;
    bool repeat = attend(self);
    if (ending(self))
        end_current_thread();
    return repeat;
}

// Last step of every entry that can wait, after its locals are gone: a thread deleted meanwhile
// ends here rather than deep inside a wait.
inline void leave_kernel(KThread* self)
{
    if (ending(self))
        end_current_thread();
}

orlix::Handle create_thread(orlix::ThreadEntry entry, void* argument, void* stack_top);

// Threads waiting on one object, in arrival order; guarded by that object's lock.
class WaitList {
public:
    void push(KThread* thread);
    void remove(KThread* thread);
    KThread* pop();
    bool empty() const { return head_ == nullptr; }

private:
    KThread* head_ = nullptr;
    KThread* tail_ = nullptr;
};

// An object threads wait on: its lock, the threads waiting, and deletion waking them all.
class Waitable : public Object {
public:
    explicit Waitable(Kind kind) : Object(kind) {}

    std::mutex lock;
    WaitList waiters;

protected:
    void on_delete() override
    {
        std::lock_guard guard(lock);
        while (KThread* waiter = waiters.pop())
            waiter->parker.unpark();
    }
};

using Clock = std::chrono::steady_clock;
std::optional<Clock::time_point> deadline_after(std::int64_t timeout_ms);

// The wait of every blocking entry. Called and left with `lock` held. Returns DONE when ready()
// holds (the caller then takes what it waited for), TIMEOUT, DELETED when the object died, or
// REPEAT when an exception handler asked for it and repeat_allowed is set. Exceptions are
// delivered with the lock released. When it gives up while ready() holds, it passes the wake on.
template <typename Ready>
orlix::Status wait_on(std::unique_lock<std::mutex>& lock, WaitList& waiters, const Object& object,
                      std::int64_t timeout_ms, bool repeat_allowed, Ready ready)
{
    KThread* self = current_thread();
    auto deadline = deadline_after(timeout_ms);
    auto give_up = [&](orlix::Status status) {
        if (ready())
            if (KThread* next = waiters.pop())
                next->parker.unpark();
        return status;
    };
    for (;;) {
        self->parker.clear();
        if (object.dead() || ending(self))
            return orlix::STATUS_DELETED;
        if (ready())
            return orlix::STATUS_DONE;
        if (self->attention.load(std::memory_order_seq_cst)) {
            lock.unlock();
            bool repeat = attend(self);
            lock.lock();
            if (repeat && repeat_allowed)
                return give_up(orlix::STATUS_REPEAT);
            continue;
        }
        if (deadline && Clock::now() >= *deadline)
            return give_up(orlix::STATUS_TIMEOUT);
        waiters.push(self);
        lock.unlock();
        self->parker.park(deadline);
        lock.lock();
        waiters.remove(self);
    }
}

} // namespace host::kernel
