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
#include <type_traits>
#include <ucontext.h>

#include "host/kernel/object.h"

namespace host::kernel {

// One sleeping place per thread: a permit word and a futex on it. A thread may also sleep in the
// host's poll of a descriptor, and then an eventfd wakes it.
class Parker {
public:
    ~Parker();
    void clear() { permit_.store(0, std::memory_order_seq_cst); }
    void unpark();
    // Returns when unparked, at the deadline, or spuriously; callers re-check their condition.
    void park(std::optional<std::chrono::steady_clock::time_point> deadline);
    // The same, also ending when fd shows one of the poll events; true in that case.
    bool park_polling(int fd, short events, std::optional<std::chrono::steady_clock::time_point> deadline);

private:
    std::atomic<std::uint32_t> permit_{0};
    std::atomic<bool> polling_{false};
    int wake_fd_ = -1;
    bool peer_quick_ = true; // the last watched wait ended soon
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
    // Touched by the thread itself only. While host_depth is non-zero the thread runs host device
    // code, which may hold host locks: exceptions and the thread's end wait until it leaves. A
    // handler's request to end a wait with 310 that no wait could take yet waits in
    // repeat_requested for the thread's next wait that may end so.
    int host_depth = 0;
    bool repeat_requested = false;

    // Link in the wait list of the object the thread waits on.
    KThread* wait_next = nullptr;
    KThread* wait_prev = nullptr;
    bool wait_linked = false;

    // Start of a thread made by _SL_CreateThread; null entry for a host thread taken over.
    orlix::ThreadEntry entry = nullptr;
    void* argument = nullptr;
    void* stack_top = nullptr;
    ucontext_t host_context{};
    ucontext_t system_context{};

    // The two stacks of a thread that runs on a system stack: kernel entries run their host code
    // on the host stack below the frame that switched away from it (host_entry_top, null for a
    // thread without a system stack). Bounds and saved fake stacks serve the sanitizer's fibers.
    char* host_entry_top = nullptr;
    bool on_host_stack = false;
    const void* host_stack_bottom = nullptr;
    std::size_t host_stack_size = 0;
    const void* system_stack_bottom = nullptr;
    std::size_t system_stack_size = 0;
    void* host_fake_stack = nullptr;
    void* system_fake_stack = nullptr;

    void raise(const PendingException& exception);

private:
    void on_delete() override;
};

// The calling thread's record; a host thread that has none is taken over as a kernel thread.
KThread* current_thread();

// Delivers the thread's pending exceptions, unless the thread was deleted, on the thread's own
// stack. A handler that returned status 1 leaves repeat_requested set.
void attend(KThread* self);

// Ends the calling kernel thread; the caller holds no lock and no reference on its own stack.
[[noreturn]] void end_current_thread();

inline bool ending(KThread* self) { return self->delete_requested.load(std::memory_order_acquire); }

// First step of every kernel entry, before it holds anything: a deleted thread ends here, and
// pending exceptions run, unless the caller is host device code.
inline void enter_kernel(KThread* self)
{
    if (self->host_depth > 0 || !self->attention.load(std::memory_order_acquire))
        return;
    attend(self);
    if (ending(self))
        end_current_thread();
}

// The same for an entry that may end with 310: true when a handler asked for that, now or since
// the thread's last such entry.
inline bool enter_interruptible(KThread* self)
{
    enter_kernel(self);
    if (self->host_depth > 0 || !self->repeat_requested)
        return false;
    self->repeat_requested = false;
    return true;
}

// Last step of an entry that ran host code or waited, back on the thread's own stack: what was
// held back meanwhile is delivered, and a thread deleted meanwhile ends here.
inline void leave_kernel(KThread* self) { enter_kernel(self); }

// Marks the calling thread as running host device code for the life of the guard.
class HostCode {
public:
    explicit HostCode(KThread* self) : self_(self) { ++self_->host_depth; }
    ~HostCode() { --self_->host_depth; }
    HostCode(const HostCode&) = delete;
    HostCode& operator=(const HostCode&) = delete;

private:
    KThread* self_;
};

// Calls fn(arg) on the calling thread's host stack, switching to it and back.
void call_on_host_stack(KThread* self, void (*fn)(void*), void* arg);

// Runs body() on the thread's host stack, so that host code never runs on a system stack; a thread
// without one, or already on its host stack, runs it where it is. Gives body's result.
template <typename Body> auto on_host_stack(KThread* self, Body&& body)
{
    using Result = decltype(body());
    if (self->host_entry_top == nullptr || self->on_host_stack)
        return body();
    struct Call {
        std::remove_reference_t<Body>* body;
        Result result;
    } call{&body, Result{}};
    call_on_host_stack(self, [](void* raw) {
        auto* c = static_cast<Call*>(raw);
        c->result = (*c->body)();
    }, &call);
    return call.result;
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

// A kernel entry that runs host code and never waits: body runs on the host stack.
template <typename Body> auto host_entry(Body&& body)
{
    KThread* self = current_thread();
    enter_kernel(self);
    return on_host_stack(self, body);
}

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
using Deadline = std::optional<Clock::time_point>;
Deadline deadline_after(std::int64_t timeout_ms);

// The kernel's own status of a wait that stops for an exception to be delivered; never returned
// by an entry.
inline constexpr orlix::Status STATUS_ATTEND = ~orlix::Status{0};

// The wait of every blocking entry, on the host stack. Called and left with `lock` held. Returns
// DONE when ready() holds (the caller then takes what it waited for), TIMEOUT, DELETED when the
// object died or the thread is being deleted, or ATTEND when an exception is to be delivered
// (never while the thread runs host device code). When it gives up while ready() holds, it passes
// the wake on.
template <typename Ready, typename Sleep>
orlix::Status wait_on(std::unique_lock<std::mutex>& lock, WaitList& waiters, const Object& object,
                      const Deadline& deadline, Ready ready, Sleep sleep)
{
    KThread* self = current_thread();
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
        if (self->host_depth == 0 && self->attention.load(std::memory_order_seq_cst))
            return give_up(STATUS_ATTEND);
        if (deadline && Clock::now() >= *deadline)
            return give_up(orlix::STATUS_TIMEOUT);
        waiters.push(self);
        sleep(lock, deadline);
        waiters.remove(self);
    }
}

// The same, sleeping on the thread's parker with the lock released.
template <typename Ready>
orlix::Status wait_on(std::unique_lock<std::mutex>& lock, WaitList& waiters, const Object& object,
                      const Deadline& deadline, Ready ready)
{
    return wait_on(lock, waiters, object, deadline, ready, [](std::unique_lock<std::mutex>& held, const Deadline& d) {
        held.unlock();
        current_thread()->parker.park(d);
        held.lock();
    });
}

// A blocking entry: runs wait(deadline) on the host stack until it ends for good. An exception
// that stops it is delivered here, on the thread's own stack; then, unless the entry is
// interruptible and a handler asked for 310, the wait goes on with its original deadline.
template <typename Wait>
orlix::Status blocking_entry(KThread* self, bool interruptible, std::int64_t timeout_ms, Wait wait)
{
    Deadline deadline;
    bool started = false;
    for (;;) {
        orlix::Status status = on_host_stack(self, [&] {
            if (!started) {
                deadline = deadline_after(timeout_ms);
                started = true;
            }
            return wait(deadline);
        });
        if (status != STATUS_ATTEND) {
            leave_kernel(self);
            return status;
        }
        attend(self);
        if (ending(self))
            end_current_thread();
        if (interruptible && self->repeat_requested) {
            self->repeat_requested = false;
            return orlix::STATUS_REPEAT;
        }
    }
}

} // namespace host::kernel
