// Signals on user exception 8: the table of handlers, default actions (which differ from the
// host's), the per-thread queue for signals that arrive in a blocking call, and the stop gate that
// every thread passes. System code.
#include <cstring>

#include "platform/atomic.h"
#include "platform/kernel_wrappers.h"
#include "runtime/context.h"
#include "runtime/errno.h"
#include "runtime/heap.h"
#include "runtime/process.h"
#include "runtime/signal.h"

namespace orlix {

namespace {

enum class Action { terminate, stop, resume, nothing };

Action default_action(int signal)
{
    switch (signal) {
    case 1: case 2: case 9: case 10: case 12: case 13: case 14: case 15: case 26: case 27: case 29:
    case 3: case 4: case 5: case 6: case 7: case 8: case 11: case 24: case 25: case 31:
        return Action::terminate;
    case SIGNAL_CONTINUE:
        return Action::resume;
    case 19: case 20: case 21: case 22:
        return Action::stop;
    default:
        return Action::nothing;
    }
}

// The address whose value in a table word means "use the record".
constinit const char anchor = 0;

void stop_action(LibcContext* context)
{
    if (atomic::add(&context->stop_count, std::uint32_t{1}) == 1)
        _SL_ResetEvent(context->stop_event, 0);
    else
        atomic::sub(&context->stop_count, std::uint32_t{1});
}

void continue_action(LibcContext* context)
{
    std::uint32_t before = atomic::sub(&context->stop_count, std::uint32_t{1}) + 1;
    if (before == 1)
        _SL_SetEvent(context->stop_event, 0, 0, 0);
    else if (static_cast<std::int32_t>(before) <= 0)
        atomic::add(&context->stop_count, std::uint32_t{1});
}

void run_default(LibcContext* context, int signal)
{
    switch (default_action(signal)) {
    case Action::terminate:
        __terminate_proc(static_cast<std::uint64_t>(signal) & 255);
    case Action::stop:
        stop_action(context);
        break;
    case Action::resume:
        continue_action(context);
        break;
    case Action::nothing:
        break;
    }
}

int __sigaction_handler_impl(LibcContext* context, ThreadRecord* thread, int signal, SigactionRecord* record)
{
    SignalTable* table = context->signal_table;
    SignalHandler handler = record->handler;
    if (handler == nullptr || signal > SIGNAL_MAX) {
        if (signal == SIGNAL_ABORT)
            table->words[signal] = SIGNAL_WORD_DEFAULT;
        abort();
    }
    if (record->flags & SIGACTION_ONE_SHOT) {
        table->words[signal] = SIGNAL_WORD_DEFAULT;
        record->handler = nullptr;
    }
    SignalSet saved_mask = thread->signal_queue.mask;
    int saved_errno = errno;
    __sigsetOR(&thread->signal_queue.mask, &thread->signal_queue.mask, &record->mask);
    if (!(record->flags & SIGACTION_NO_BLOCK))
        __sigsetSET(&thread->signal_queue.mask, signal - 1);
    handler(signal);
    errno = saved_errno;
    thread->signal_queue.mask = saved_mask;
    if (record->flags & SIGACTION_RESTART)
        return (atomic::load(&thread->io_flags) & IO_RESTARTABLE) ? 0 : 1;
    return 1;
}

} // namespace

std::uintptr_t __sigaction_anchor() { return reinterpret_cast<std::uintptr_t>(&anchor); }

// --- Sets ----------------------------------------------------------------------------------------

void __sigset0(SignalSet* set) { set->bits[0] = set->bits[1] = 0; }

void __sigset1(SignalSet* set)
{
    set->bits[0] = ~std::uint64_t{0};
    set->bits[1] = 0;
}

int sigfillset(SignalSet* set)
{
    __sigset1(set);
    return 0;
}

void __sigsetSET(SignalSet* set, int bit) { set->bits[bit / 64] |= std::uint64_t{1} << (bit % 64); }

void __sigsetOR(SignalSet* out, const SignalSet* a, const SignalSet* b)
{
    out->bits[0] = a->bits[0] | b->bits[0];
    out->bits[1] = a->bits[1] | b->bits[1];
}

bool __sigset_has(const SignalSet* set, int signal)
{
    int bit = signal - 1;
    return bit >= 0 && bit < 128 && (set->bits[bit / 64] >> (bit % 64)) & 1;
}

// --- Queue ---------------------------------------------------------------------------------------

void __sigqueue_init(SignalQueue* queue) { std::memset(queue, 0, sizeof *queue); }

void __sigqueue_add(SignalQueue* queue, int signal)
{
    if (signal >= 1 && signal < FIRST_COUNTED_SIGNAL) {
        std::uint32_t bit = std::uint32_t{1} << signal;
        if ((atomic::fetch_or(&queue->standard, bit) & bit) == 0)
            atomic::add(&queue->pending, std::uint32_t{1});
    } else if (signal >= FIRST_COUNTED_SIGNAL && signal <= SIGNAL_MAX) {
        atomic::add(&queue->counters[signal - FIRST_COUNTED_SIGNAL], std::uint32_t{1});
        atomic::add(&queue->pending, std::uint32_t{1});
    }
}

int __sigqueue_get_next(SignalQueue* queue)
{
    if (atomic::load(&queue->pending) == 0)
        return -1;
    for (int signal = 1; signal < FIRST_COUNTED_SIGNAL; ++signal) {
        std::uint32_t bit = std::uint32_t{1} << signal;
        if (!(atomic::load(&queue->standard) & bit) || __sigset_has(&queue->mask, signal))
            continue;
        if (atomic::fetch_and(&queue->standard, ~bit) & bit) {
            atomic::sub(&queue->pending, std::uint32_t{1});
            return signal;
        }
    }
    for (int signal = FIRST_COUNTED_SIGNAL; signal <= SIGNAL_MAX; ++signal) {
        std::uint32_t* counter = &queue->counters[signal - FIRST_COUNTED_SIGNAL];
        std::uint32_t count = atomic::load(counter);
        if (count == 0 || __sigset_has(&queue->mask, signal))
            continue;
        if (atomic::compare_exchange(counter, &count, count - 1)) {
            atomic::sub(&queue->pending, std::uint32_t{1});
            return signal;
        }
    }
    return -1;
}

// --- Installation and delivery -------------------------------------------------------------------

void libc_install_sighandlers(LibcContext* context)
{
    sigfillset(&context->interrupt_set);
    if (context->signal_table != nullptr)
        return;
    auto* table = static_cast<SignalTable*>(malloc(sizeof(SignalTable)));
    if (table == nullptr)
        return;
    context->stop_event = _SL_CreateEvent(0, EVENT_STARTS_SET);
    if (context->stop_event == INVALID_HANDLE) {
        context->stop_event = 0;
        free(table);
        return;
    }
    setexusrhan(EXCEPTION_SIGNAL, _libc_ex_signal, context);
    std::memset(table, 0, sizeof *table);
    context->signal_table = table;
}

int __run_sighandler(LibcContext* context, ThreadRecord* thread, int signal)
{
    SignalTable* table = context->signal_table;
    std::uintptr_t word = table != nullptr ? table->words[signal] : SIGNAL_WORD_DEFAULT;
    if (word == SIGNAL_WORD_IGNORE)
        return 0;
    if (word == __sigaction_anchor())
        return __sigaction_handler_impl(context, thread, signal, &table->records[signal]);
    int result = 0;
    if (signal < FIRST_COUNTED_SIGNAL && default_action(signal) != Action::nothing)
        result = __sigset_has(&context->interrupt_set, signal) ? 1 : 0;
    if (signal == SIGNAL_CONTINUE)
        continue_action(context);
    int saved_errno = errno;
    if (word != SIGNAL_WORD_DEFAULT)
        reinterpret_cast<SignalHandler>(word)(signal);
    else
        run_default(context, signal);
    errno = saved_errno;
    return result;
}

std::uint64_t _libc_ex_signal(void* raw_context, std::uint64_t, std::uint64_t signal_word, std::uint64_t*,
                              std::uint64_t, std::uint64_t)
{
    auto* context = static_cast<LibcContext*>(raw_context);
    ThreadRecord* thread = __pthread_self();
    auto signal = static_cast<std::int64_t>(signal_word);
    std::uint32_t old = atomic::fetch_or(&thread->io_flags, IO_IN_SIGNAL);
    std::uint64_t result = 0;
    if (signal == SIGNAL_STOP) {
        stop_action(context);
    } else if (signal == SIGNAL_KILL) {
        __terminate_proc(SIGNAL_KILL);
    } else if (signal >= 1 && signal <= SIGNAL_MAX) {
        int number = static_cast<int>(signal);
        if (old & IO_IN_SIGNAL) {
            __sigqueue_add(&thread->signal_queue, number);
            return 1;
        }
        if (old & IO_IN_BLOCKING_CALL) {
            __sigqueue_add(&thread->signal_queue, number);
            atomic::fetch_and(&thread->io_flags, ~IO_IN_SIGNAL);
            return 1;
        }
        if (__sigset_has(&thread->signal_queue.mask, number))
            __sigqueue_add(&thread->signal_queue, number);
        else
            result = static_cast<std::uint64_t>(__run_sighandler(context, thread, number));
    }
    atomic::fetch_and(&thread->io_flags, ~IO_IN_SIGNAL);
    __pending_sig(thread);
    return result;
}

int __pending_sig(ThreadRecord* thread)
{
    if (atomic::load(&thread->io_flags) & IO_IN_SIGNAL)
        return 1;
    LibcContext* context = thread->context;
    int result = 1;
    for (int signal; (signal = __sigqueue_get_next(&thread->signal_queue)) != -1;)
        if (__run_sighandler(context, thread, signal) == 0)
            result = 0;
    if (handle_valid(context->stop_event)) {
        Message record{};
        while (_SL_WaitForEventPtr(context->stop_event, &record, WAIT_FOREVER) == STATUS_REPEAT) {
        }
    }
    return result;
}

// --- Registration --------------------------------------------------------------------------------

int sigaction(int number, const SigactionRecord* action, SigactionRecord* previous)
{
    SignalTable* table = g_libc_context->signal_table;
    if (table == nullptr || number < 1 || number > SIGNAL_MAX || number == SIGNAL_KILL || number == SIGNAL_STOP) {
        errno = ERR_INVAL;
        return -1;
    }
    if (previous != nullptr)
        *previous = table->records[number];
    if (action != nullptr) {
        table->records[number] = *action;
        table->words[number] = __sigaction_anchor();
    }
    return 0;
}

SignalHandler signal(int number, SignalHandler handler)
{
    SignalTable* table = g_libc_context->signal_table;
    if (table == nullptr || number < 1 || number > SIGNAL_MAX || number == SIGNAL_KILL || number == SIGNAL_STOP) {
        errno = ERR_INVAL;
        return reinterpret_cast<SignalHandler>(-1);
    }
    std::uintptr_t previous = table->words[number];
    table->words[number] = reinterpret_cast<std::uintptr_t>(handler);
    return previous == __sigaction_anchor() ? table->records[number].handler
                                            : reinterpret_cast<SignalHandler>(previous);
}

} // namespace orlix
