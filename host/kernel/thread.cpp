// Kernel threads on Linux. A thread made by _SL_CreateThread is a host thread that keeps the
// host's own bookkeeping on a host stack and runs its entry on the stack the caller gave, reached
// by a context switch; ending the thread switches back. Kernel entries run their host code on the
// idle part of the host stack, reached by a plain switch of the stack pointer. Exceptions are
// delivered at kernel entry and during waits, always on the thread's own stack, and a handler
// leaves through a jump back to its delivery frame.
#include "host/kernel/thread.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <linux/futex.h>
#include <pthread.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "host/kernel/memory.h"
#include "host/kernel/spin_lock.h"
#include "host/kernel/task.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/common_interface_defs.h>
#define ORLIX_FIBERS 1
#endif

namespace host::kernel {

namespace {

// The calling thread's record, and the reference that keeps a taken-over host thread's record.
thread_local KThread* self_thread = nullptr;

struct AdoptedThread {
    std::shared_ptr<KThread> record;
    ~AdoptedThread()
    {
        if (record) {
            delete_object(record);
            self_thread = nullptr;
        }
    }
};
thread_local AdoptedThread adopted;

constexpr int SPINS_BEFORE_SLEEP = 64;
constexpr auto POLL_SPIN = std::chrono::microseconds(50);
constexpr std::size_t HOST_STACK_FOR_SWITCHED = 256 * 1024;
constexpr std::size_t FALLBACK_SYSTEM_STACK = 16 * 1024;
// Left alone below the frame that switches to the system stack: the switch's own frames (the
// sanitizer's interceptor of swapcontext among them) stay live there meanwhile.
constexpr std::size_t SWITCH_FRAMES = 4096;

long futex(std::atomic<std::uint32_t>* word, int op, std::uint32_t value, const timespec* timeout)
{
    return syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(word), op, value, timeout, nullptr, 0);
}

void start_fiber_switch([[maybe_unused]] void** fake_stack, [[maybe_unused]] const void* bottom,
                        [[maybe_unused]] std::size_t size)
{
#ifdef ORLIX_FIBERS
    __sanitizer_start_switch_fiber(fake_stack, bottom, size);
#endif
}

void finish_fiber_switch([[maybe_unused]] void* fake_stack, [[maybe_unused]] const void** bottom,
                         [[maybe_unused]] std::size_t* size)
{
#ifdef ORLIX_FIBERS
    __sanitizer_finish_switch_fiber(fake_stack, bottom, size);
#endif
}

// First code on the system stack.
void system_stack_main()
{
    KThread* self = self_thread;
    finish_fiber_switch(nullptr, nullptr, nullptr);
    self->entry(self->argument);
    end_current_thread();
}

// An address below the caller's frame.
[[gnu::noinline]] char* below_caller()
{
    return static_cast<char*>(__builtin_frame_address(0));
}

// The bounds of the calling host thread's stack.
void host_stack_bounds(KThread* self)
{
    pthread_attr_t attributes;
    void* bottom = nullptr;
    std::size_t size = 0;
    if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
        pthread_attr_getstack(&attributes, &bottom, &size);
        pthread_attr_destroy(&attributes);
    }
    self->host_stack_bottom = bottom;
    self->host_stack_size = size;
}

// The system stack's bounds were taken when the thread was made.
void run_on_system_stack(KThread* self)
{
    void* base = const_cast<void*>(self->system_stack_bottom);
    std::size_t usable = self->system_stack_size;
    host_stack_bounds(self);
    auto top = reinterpret_cast<std::uintptr_t>(below_caller()) - SWITCH_FRAMES;
    self->host_entry_top = reinterpret_cast<char*>(top & ~std::uintptr_t{15});
    getcontext(&self->system_context);
    self->system_context.uc_stack.ss_sp = base;
    self->system_context.uc_stack.ss_size = usable;
    self->system_context.uc_link = nullptr;
    makecontext(&self->system_context, system_stack_main, 0);
    start_fiber_switch(&self->host_fake_stack, base, usable);
    swapcontext(&self->host_context, &self->system_context);
    finish_fiber_switch(self->host_fake_stack, nullptr, nullptr);
}

void* host_thread_main(void* raw)
{
    std::unique_ptr<std::shared_ptr<KThread>> holder(static_cast<std::shared_ptr<KThread>*>(raw));
    std::shared_ptr<KThread> record = *holder;
    holder.reset();
    KThread* self = record.get();
    self_thread = self;
    if (self->stack_top == nullptr)
        self->entry(self->argument);
    else if (!ending(self))
        run_on_system_stack(self);
    if (self->stack_top != nullptr)
        leave_system_stack(self->system_stack_bottom);
    self_thread = nullptr;
    delete_object(record);
    return nullptr;
}

struct HostCall {
    KThread* self;
    void (*fn)(void*);
    void* arg;
};

// First and last code of an entry's stay on the host stack.
void run_host_call(void* raw)
{
    auto* call = static_cast<HostCall*>(raw);
    KThread* self = call->self;
    finish_fiber_switch(self->host_fake_stack, nullptr, nullptr);
    call->fn(call->arg);
    start_fiber_switch(&self->host_fake_stack, self->system_stack_bottom, self->system_stack_size);
}

} // namespace

// host_kernel_call_on_stack(arg, fn, top): calls fn(arg) with the stack pointer at top (16-byte
// aligned) and comes back to the caller's stack. The frame pointer links the two stacks for
// debuggers and unwinders.
#if defined(__x86_64__)
asm(R"(
    .pushsection .text
    .p2align 4
    .type host_kernel_call_on_stack, @function
host_kernel_call_on_stack:
    .cfi_startproc
    pushq %rbp
    .cfi_def_cfa_offset 16
    .cfi_offset %rbp, -16
    movq %rsp, %rbp
    .cfi_def_cfa_register %rbp
    movq %rdx, %rsp
    callq *%rsi
    movq %rbp, %rsp
    popq %rbp
    .cfi_def_cfa %rsp, 8
    retq
    .cfi_endproc
    .size host_kernel_call_on_stack, .-host_kernel_call_on_stack
    .popsection
)");
#else
#error "the switch to the host stack is written for x86-64 only"
#endif

extern "C" void host_kernel_call_on_stack(void* arg, void (*fn)(void*), void* top);

void call_on_host_stack(KThread* self, void (*fn)(void*), void* arg)
{
    HostCall call{self, fn, arg};
    self->on_host_stack = true;
    start_fiber_switch(&self->system_fake_stack, self->host_stack_bottom, self->host_stack_size);
    host_kernel_call_on_stack(&call, run_host_call, self->host_entry_top);
    finish_fiber_switch(self->system_fake_stack, nullptr, nullptr);
    self->on_host_stack = false;
}

namespace {

// Delivers one exception; gives the handler's status.
std::uint64_t deliver(KThread* self, const PendingException& exception)
{
    HandlerEntry entry = exception_handler(exception.exception_class);
    if (entry.handler == nullptr) {
        if (exception.exception_class == orlix::EXCEPTION_SYSTEM)
            on_host_stack(self, [] {
                end_task();
                return 0;
            });
        return 0;
    }
    DeliveryFrame frame{};
    frame.outer = self->frames;
    self->frames = &frame;
    if (setjmp(frame.jump) == 0)
        frame.status = entry.handler(entry.table, exception.number, exception.argument, &frame.word, 0, 0);
    self->frames = frame.outer;
    return frame.status;
}

// The oldest pending exception; false (and no attention left) when there is none.
bool take_pending(KThread* self, PendingException* out)
{
    std::lock_guard guard(self->pending_lock);
    if (self->pending.empty()) {
        self->attention.store(false, std::memory_order_seq_cst);
        return false;
    }
    *out = self->pending.front();
    self->pending.pop_front();
    return true;
}

} // namespace

Parker::~Parker()
{
    if (wake_fd_ >= 0)
        ::close(wake_fd_);
}

void Parker::unpark()
{
    if (permit_.exchange(1, std::memory_order_seq_cst) != 0)
        return;
    futex(&permit_, FUTEX_WAKE_PRIVATE, 1, nullptr);
    if (polling_.load(std::memory_order_seq_cst)) {
        std::uint64_t one = 1;
        [[maybe_unused]] ssize_t n = ::write(wake_fd_, &one, sizeof one);
    }
}

bool Parker::park_polling(int fd, short events, std::optional<Clock::time_point> deadline)
{
    if (wake_fd_ < 0)
        wake_fd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wake_fd_ < 0) {
        park(deadline);
        return false;
    }
    // Either unpark sees the poll coming, or this sees its permit.
    polling_.store(true, std::memory_order_seq_cst);
    if (permit_.load(std::memory_order_seq_cst) != 0) {
        polling_.store(false, std::memory_order_seq_cst);
        return false;
    }
    int timeout = -1;
    if (deadline) {
        auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now()).count();
        timeout = static_cast<int>(std::clamp<std::int64_t>(left, 0, INT_MAX));
    }
    pollfd fds[2] = {{fd, events, 0}, {wake_fd_, POLLIN, 0}};
    // While the other side answers within tens of microseconds, looking for its answer that long
    // costs less than the wake-up of an idle processor that sleeping would need.
    auto start = Clock::now();
    int n = 0;
    if (peer_quick_)
        for (auto until = start + POLL_SPIN; n == 0 && Clock::now() < until;)
            n = ::poll(fds, 2, 0);
    if (n == 0)
        n = ::poll(fds, 2, timeout);
    peer_quick_ = Clock::now() - start < 2 * POLL_SPIN;
    polling_.store(false, std::memory_order_seq_cst);
    if (fds[1].revents != 0) {
        std::uint64_t count;
        [[maybe_unused]] ssize_t r = ::read(wake_fd_, &count, sizeof count);
    }
    return n > 0 && fds[0].revents != 0;
}

void Parker::park(std::optional<Clock::time_point> deadline)
{
    for (int i = 0; i < SPINS_BEFORE_SLEEP; ++i) {
        if (permit_.load(std::memory_order_acquire) != 0)
            return;
        cpu_relax();
    }
    timespec relative{};
    const timespec* timeout = nullptr;
    if (deadline) {
        auto left = *deadline - Clock::now();
        if (left <= Clock::duration::zero())
            return;
        auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
        relative.tv_sec = static_cast<time_t>(ns / 1000000000);
        relative.tv_nsec = static_cast<long>(ns % 1000000000);
        timeout = &relative;
    }
    futex(&permit_, FUTEX_WAIT_PRIVATE, 0, timeout);
}

void KThread::raise(const PendingException& exception)
{
    {
        std::lock_guard guard(pending_lock);
        pending.push_back(exception);
        attention.store(true, std::memory_order_seq_cst);
    }
    parker.unpark();
}

void KThread::on_delete()
{
    delete_requested.store(true, std::memory_order_seq_cst);
    attention.store(true, std::memory_order_seq_cst);
    parker.unpark();
}

KThread* current_thread()
{
    if (self_thread != nullptr)
        return self_thread;
    auto record = std::make_shared<KThread>();
    if (register_handle(record, 0) == orlix::INVALID_HANDLE) {
        std::fputs("kernel: no handle left for a new thread\n", stderr);
        std::abort();
    }
    adopted.record = record;
    self_thread = record.get();
    return self_thread;
}

void attend(KThread* self)
{
    for (;;) {
        if (self->delete_requested.load(std::memory_order_acquire))
            return;
        PendingException exception;
        if (!on_host_stack(self, [&] { return take_pending(self, &exception); }))
            return;
        if (deliver(self, exception) == 1)
            self->repeat_requested = true;
    }
}

void end_current_thread()
{
    KThread* self = current_thread();
    self->kill();
    if (self->entry == nullptr) {
        // A host thread taken over: it ends as a host thread.
        delete_object(adopted.record);
        adopted.record.reset();
        self_thread = nullptr;
        pthread_exit(nullptr);
    }
    if (self->stack_top == nullptr) {
        self_thread = nullptr;
        pthread_exit(nullptr);
    }
    start_fiber_switch(nullptr, self->host_stack_bottom, self->host_stack_size);
    setcontext(&self->host_context);
    std::abort();
}

orlix::Handle create_thread(orlix::ThreadEntry entry, void* argument, void* stack_top)
{
    if (entry == nullptr)
        return orlix::INVALID_HANDLE;
    auto record = std::make_shared<KThread>();
    record->entry = entry;
    record->argument = argument;
    record->stack_top = stack_top;
    if (stack_top != nullptr) {
        // The stack is the caller's view; a thread deleted before it starts never touches it.
        void* base = nullptr;
        std::size_t size = 0;
        if (!view_bounds(static_cast<char*>(stack_top) - 1, &base, &size))
            base = static_cast<char*>(stack_top) - FALLBACK_SYSTEM_STACK;
        record->system_stack_bottom = base;
        record->system_stack_size = static_cast<std::size_t>(static_cast<char*>(stack_top) - static_cast<char*>(base));
    }
    orlix::Handle handle = register_handle(record, 0);
    if (handle == orlix::INVALID_HANDLE)
        return orlix::INVALID_HANDLE;
    if (stack_top != nullptr)
        enter_system_stack(record->system_stack_bottom, record->system_stack_size);

    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    if (stack_top != nullptr)
        pthread_attr_setstacksize(&attributes, HOST_STACK_FOR_SWITCHED);
    sigset_t all;
    sigfillset(&all);
    pthread_attr_setsigmask_np(&attributes, &all);
    auto* holder = new std::shared_ptr<KThread>(record);
    pthread_t id;
    int failed = pthread_create(&id, &attributes, host_thread_main, holder);
    pthread_attr_destroy(&attributes);
    if (failed != 0) {
        if (stack_top != nullptr)
            leave_system_stack(record->system_stack_bottom);
        delete holder;
        delete_object(record);
        return orlix::INVALID_HANDLE;
    }
    return handle;
}

void WaitList::push(KThread* thread)
{
    thread->wait_prev = tail_;
    thread->wait_next = nullptr;
    if (tail_ != nullptr)
        tail_->wait_next = thread;
    else
        head_ = thread;
    tail_ = thread;
    thread->wait_linked = true;
}

void WaitList::remove(KThread* thread)
{
    if (!thread->wait_linked)
        return;
    if (thread->wait_prev != nullptr)
        thread->wait_prev->wait_next = thread->wait_next;
    else
        head_ = thread->wait_next;
    if (thread->wait_next != nullptr)
        thread->wait_next->wait_prev = thread->wait_prev;
    else
        tail_ = thread->wait_prev;
    thread->wait_linked = false;
    thread->wait_next = thread->wait_prev = nullptr;
}

KThread* WaitList::pop()
{
    KThread* thread = head_;
    if (thread != nullptr)
        remove(thread);
    return thread;
}

Deadline deadline_after(std::int64_t timeout_ms)
{
    if (timeout_ms < 0)
        return std::nullopt;
    return Clock::now() + std::chrono::milliseconds(timeout_ms);
}

} // namespace host::kernel
