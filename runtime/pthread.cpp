// Threads: the record of each thread found through the kernel's user word, attributes, and
// creation in a memo of its own with an unmapped guard below, behind a start gate. System code.
#include <cstring>

#include "platform/atomic.h"
#include "platform/device.h"
#include "platform/device_client.h"
#include "platform/error_numbers.h"
#include "platform/kernel_wrappers.h"
#include "runtime/context.h"
#include "runtime/heap.h"
#include "runtime/signal.h"
#include "runtime/thread.h"

namespace orlix {

namespace {

// The alarm of a thread without a record: sixteen letters in two words, the first in the top byte.
constexpr std::uint64_t ALARM_WORD1 = 0x2162616420707468; // "!bad pth"
constexpr std::uint64_t ALARM_WORD2 = 0x7265616420544c53; // "read TLS"
constexpr std::int64_t ALARM_TIMEOUT = 50;

constexpr std::uint64_t EVENT_MODE_PLAIN = 0;
constexpr std::uint64_t LOCALE_BLOCK_SIZE = 64;
constexpr std::uint64_t STACK_ROUNDING = 256;
constexpr std::uint64_t MIN_STACK_SIZE = 2048;
constexpr std::uint64_t MAX_STACK_SIZE = 0x3fffffffffffffff;

void* __init_pt_locale(LibcContext* context)
{
    return lc_getcontextslot_of(context, SLOT_LOCALE, LOCALE_BLOCK_SIZE, nullptr, nullptr);
}

void delete_if_valid(Handle handle)
{
    if (handle_valid(handle))
        _SL_DeleteObject(handle, DELETE_OBJECT);
}

} // namespace

ThreadRecord* __pthread_self()
{
    Handle thread = _SL_GetState(STATE_THREAD);
    std::uint64_t word = 0;
    if (_SL_GetObjectInfo(thread, INFO_USER_WORD, &word) == STATUS_DONE && word != 0)
        return reinterpret_cast<ThreadRecord*>(word);
    Handle log = GetDeviceMsgPort("syslog");
    if (handle_valid(log))
        SendMsgRetry(log, ALARM_WORD1, MSG_LOG_THREAD_ALARM, ALARM_WORD2, ALARM_TIMEOUT);
    _SL_DeleteObject(thread, DELETE_OBJECT);
    return nullptr;
}

pthread_t pthread_self() { return __pthread_self(); }

int __pthread_set_self(ThreadRecord* record)
{
    return _SL_ControlObject(record->thread, CONTROL_SET_USER_WORD, 2, reinterpret_cast<std::uint64_t>(record), 0,
                             0) == STATUS_DONE
               ? 0
               : -1;
}

Status __pthread_wait_for_event(Handle event)
{
    Message record{};
    Status status;
    do
        status = _SL_WaitForEventPtr(event, &record, WAIT_FOREVER);
    while (status == STATUS_REPEAT);
    return status;
}

int __pthread_init(ThreadRecord* record, LibcContext* context, ThreadRecord* parent)
{
    __sigqueue_init(&record->signal_queue);
    if (parent != nullptr)
        record->signal_queue.mask = parent->signal_queue.mask;
    record->self = record;
    record->task = _SL_GetState(STATE_TASK);
    record->context = context;
    record->io_flags = 0;
    list_init(&record->locked_streams);

    record->exit_event = _SL_CreateEvent(0, EVENT_AUTO_RESET);
    record->wait_event = _SL_CreateEvent(0, EVENT_AUTO_RESET);
    if (record->exit_event == INVALID_HANDLE || record->wait_event == INVALID_HANDLE ||
        MutexInit(&record->record_lock) != MUTEX_OK) {
        delete_if_valid(record->exit_event);
        delete_if_valid(record->wait_event);
        return -1;
    }
    list_init(&record->waiters);
    record->locale = __init_pt_locale(context);
    if (__pthread_set_self(record) != 0) {
        MutexDestroy(&record->record_lock);
        delete_if_valid(record->exit_event);
        delete_if_valid(record->wait_event);
        return -1;
    }
    __libc_lock(context);
    list_append(&context->threads, &record->thread_link);
    __libc_unlock(context);
    return 0;
}

int __pthread_init_main(LibcContext* context, ThreadRecord* record)
{
    e_getheap_of(context);
    record->thread = _SL_GetState(STATE_THREAD);
    return __pthread_init(record, context, nullptr);
}

// --- Attributes ---------------------------------------------------------------------------------

int pthread_attr_init(pthread_attr_t* attr)
{
    std::memset(attr, 0, sizeof *attr);
    return 0;
}

int pthread_attr_destroy(pthread_attr_t*) { return 0; }

int pthread_attr_setdetachstate(pthread_attr_t* attr, int value)
{
    if (value < 0 || value > 1)
        return ERR_INVAL;
    attr->detach_state = static_cast<std::uint32_t>(value);
    return 0;
}

int pthread_attr_setstacksize(pthread_attr_t* attr, std::uint64_t size)
{
    if (size < MIN_STACK_SIZE || size > MAX_STACK_SIZE)
        return ERR_INVAL;
    attr->stack_size = size;
    attr->stack_address = nullptr;
    return 0;
}

// --- Creation -----------------------------------------------------------------------------------

namespace {

// The new thread's first code: it waits at the gate until its record is complete.
void __start_thunk_pthread(void* argument)
{
    auto* record = static_cast<ThreadRecord*>(argument);
    Handle gate = atomic::load(&record->start_event);
    if (gate != INVALID_HANDLE)
        __pthread_wait_for_event(gate);
    __pthread_set_self(record);
    __pthread_exit(record->start_routine(record->start_argument));
}

// What pthread_create has made so far, given back in reverse order on failure.
struct ThreadMemory {
    void* reservation = nullptr;
    Handle memo = INVALID_HANDLE;
    std::uint8_t* view = nullptr;

    void release()
    {
        if (memo != INVALID_HANDLE)
            _SL_DeleteObject(memo, DELETE_MEMO_WITH_VIEWS);
        if (reservation != nullptr)
            _SL_VirtualFree(0, reservation, 0);
    }
};

bool make_thread_memory(ThreadMemory& memory, std::uint64_t block, std::uint64_t guard, bool reserve)
{
    if (reserve) {
        memory.reservation = _SL_VirtualAlloc(0, nullptr, guard + block, 0);
        if (memory.reservation == nullptr)
            return false;
    }
    memory.memo = _SL_CreateMemo(0, 0, block, 0);
    if (memory.memo == INVALID_HANDLE)
        return false;
    void* at = reserve ? static_cast<std::uint8_t*>(memory.reservation) + guard : nullptr;
    memory.view = static_cast<std::uint8_t*>(_SL_AllocView(0, memory.memo, at, 0, 0, 0));
    return memory.view != nullptr;
}

} // namespace

int pthread_create(pthread_t* out, const pthread_attr_t* attr, void* (*routine)(void*), void* argument)
{
    if (routine == nullptr)
        return ERR_INVAL;
    pthread_attr_t a{};
    if (attr != nullptr)
        a = *attr;
    LibcContext* context = g_libc_context;
    if (!context->vm_checked) {
        context->vm_available = _SL_GetState(STATE_VM_AVAILABLE) != 0;
        context->vm_checked = 1;
    }

    std::uint64_t stack_size = a.stack_size != 0 ? a.stack_size : DEFAULT_STACK_SIZE;
    std::uint64_t block;
    if (a.stack_address != nullptr) {
        if (a.stack_size == 0)
            return ERR_INVAL;
        block = THREAD_RECORD_ROOM;
    } else {
        block = (stack_size + STACK_ROUNDING - 1) / STACK_ROUNDING * STACK_ROUNDING + THREAD_RECORD_ROOM;
    }
    std::uint64_t guard = a.guard_size != 0 ? a.guard_size : DEFAULT_GUARD_SIZE;

    ThreadMemory memory;
    if (!make_thread_memory(memory, block, guard, a.stack_address == nullptr && context->vm_available)) {
        memory.release();
        return ERR_AGAIN;
    }
    ThreadRecord* record;
    void* stack_top;
    if (a.stack_address == nullptr) {
        // The record sits on the stack's top, aligned for its words.
        auto at = (reinterpret_cast<std::uintptr_t>(memory.view) + stack_size + 15) & ~std::uintptr_t{15};
        record = reinterpret_cast<ThreadRecord*>(at);
        stack_top = record;
    } else {
        record = reinterpret_cast<ThreadRecord*>(memory.view);
        stack_top = static_cast<std::uint8_t*>(a.stack_address) + a.stack_size;
    }
    std::memset(record, 0, sizeof *record);

    record->start_event = _SL_CreateEvent(0, EVENT_MODE_PLAIN);
    if (record->start_event == INVALID_HANDLE) {
        memory.release();
        return ERR_AGAIN;
    }
    record->start_routine = routine;
    record->start_argument = argument;
    record->stack_reservation = reinterpret_cast<std::uint64_t>(memory.reservation);
    record->stack_memo = memory.memo;
    record->detached = a.detach_state;

    std::uint64_t priority = a.priority != 0 ? a.priority : DEFAULT_PRIORITY;
    record->thread = _SL_CreateThread(0, __start_thunk_pthread, record, priority, stack_top);
    if (record->thread == INVALID_HANDLE || __pthread_init(record, context, __pthread_self()) != 0) {
        delete_if_valid(record->thread);
        _SL_DeleteObject(record->start_event, DELETE_OBJECT);
        memory.release();
        return ERR_AGAIN;
    }
    atomic::add(&context->thread_count, std::uint32_t{1});

    Handle gate = record->start_event;
    atomic::store(&record->start_event, INVALID_HANDLE);
    _SL_DeleteObject(gate, DELETE_OBJECT);
    *out = record;
    return 0;
}

} // namespace orlix
