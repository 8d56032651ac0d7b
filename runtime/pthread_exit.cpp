// The end of a thread: cleanup handlers, thread-specific destructors, the last thread ending the
// process, and the memory of detached threads, each freed by the next one to end (a dying thread
// runs on the memory it would have to free). Also cancellation. System code.
#include "platform/atomic.h"
#include "platform/device_client.h"
#include "platform/error_numbers.h"
#include "platform/kernel_wrappers.h"
#include "runtime/context.h"
#include "runtime/process.h"
#include "runtime/stdio.h"
#include "runtime/thread.h"

namespace orlix {

namespace {

constexpr int TSD_DESTRUCTOR_ROUNDS = 4;
constexpr std::uint32_t CANCEL_BEGUN = 2;
constexpr std::uint32_t CANCEL_OFF = 1;
void* const CANCELED_VALUE = reinterpret_cast<void*>(-1);

void release_memory(Handle memo, std::uint64_t reservation)
{
    if (memo != INVALID_HANDLE && memo != 0)
        _SL_DeleteObject(memo, DELETE_MEMO_WITH_VIEWS);
    if (reservation != 0)
        _SL_VirtualFree(0, reinterpret_cast<void*>(reservation), 0);
}

} // namespace

void __pthread_cleanup_push(CleanupHandler* handler, void (*function)(void*), void* argument)
{
    ThreadRecord* self = __pthread_self();
    handler->function = function;
    handler->argument = argument;
    handler->next = self->cleanup_handlers;
    self->cleanup_handlers = handler;
}

void __pthread_cleanup_pop(int execute)
{
    ThreadRecord* self = __pthread_self();
    CleanupHandler* handler = self->cleanup_handlers;
    if (handler == nullptr)
        return;
    self->cleanup_handlers = handler->next;
    if (execute)
        handler->function(handler->argument);
}

void __pthread_tsd_run_dtors(ThreadRecord* record)
{
    if (record->tsd_used == 0)
        return;
    void (**destructors)(void*) = record->context->tsd_destructors;
    bool called = true;
    for (int round = 0; round < TSD_DESTRUCTOR_ROUNDS && called; ++round) {
        called = false;
        for (int key = 0; key < TSD_KEYS; ++key) {
            void* value = record->tsd[key];
            if (value != nullptr && destructors[key] != nullptr) {
                record->tsd[key] = nullptr;
                destructors[key](value);
                called = true;
            }
        }
    }
}

void __pthread_free_io(ThreadRecord* record)
{
    IoSlot* slots[] = {&record->vfs_io, &record->spare_io1, &record->sysvc_io, &record->spare_io3};
    for (IoSlot* slot : slots) {
        if (slot->request != nullptr)
            DeleteIOreq(slot->request);
        if (handle_valid(slot->reply_port))
            _SL_DeleteObject(slot->reply_port, DELETE_OBJECT);
        *slot = IoSlot{};
    }
}

void __pthread_unlink(ThreadRecord* record, int free_now)
{
    LibcContext* context = record->context;
    if (MutexLock(&context->lock) != MUTEX_OK)
        abort();
    release_memory(context->dead_stack_memo, context->dead_stack_reservation);
    list_remove(&record->thread_link);
    list_init(&record->waiters);
    _SL_DeleteObject(record->exit_event, DELETE_OBJECT);
    _SL_DeleteObject(record->wait_event, DELETE_OBJECT);
    // The record's lock is the thread's too: a server that ends a thread per session must not
    // leave a semaphore behind each time.
    MutexDestroy(&record->record_lock);
    __pthread_free_io(record);
    if (free_now) {
        release_memory(record->stack_memo, record->stack_reservation);
        context->dead_stack_memo = 0;
        context->dead_stack_reservation = 0;
    } else {
        context->dead_stack_memo = record->stack_memo;
        context->dead_stack_reservation = record->stack_reservation;
    }
    if (MutexUnlock(&context->lock) != MUTEX_OK)
        abort();
}

void __pthread_exit(void* value)
{
    ThreadRecord* self = __pthread_self();
    self->exit_value = value;
    self->cancel_state = CANCEL_OFF;
    self->cancel_type = 0;
    while (CleanupHandler* handler = self->cleanup_handlers) {
        self->cleanup_handlers = handler->next;
        handler->function(handler->argument);
    }
    __pthread_tsd_run_dtors(self);

    if (MutexLock(&self->record_lock) != MUTEX_OK)
        abort();
    self->exited = 1;
    if (MutexUnlock(&self->record_lock) != MUTEX_OK)
        abort();

    LibcContext* context = self->context;
    if (atomic::sub(&context->thread_count, std::uint32_t{1}) == UINT32_MAX) {
        atomic::store(&context->thread_count, std::uint32_t{0});
        exit(0);
    }
    _SL_SetEvent(self->exit_event, 0, 0, 0);
    __fsi_unlock_thread_streams(self);
    if (self->detached && self->stack_memo != INVALID_HANDLE)
        __pthread_unlink(self, 0);
    for (;;)
        _SL_DeleteObject(self->thread, DELETE_OBJECT);
}

void pthread_exit(void* value) { __pthread_exit(value); }

std::uint64_t __pthread_cancel_handler(void*, std::uint64_t, std::uint64_t, std::uint64_t*, std::uint64_t,
                                       std::uint64_t)
{
    ThreadRecord* self = __pthread_self();
    std::uint32_t flags = atomic::load(&self->cancel_flags);
    if (flags != 0 && self->cancel_state != CANCEL_OFF && (flags & CANCEL_BEGUN) == 0) {
        atomic::fetch_or(&self->cancel_flags, CANCEL_BEGUN);
        __pthread_exit(CANCELED_VALUE);
    }
    return 0;
}

int __pthread_do_cancel(ThreadRecord* record)
{
    if (record->cancel_state == 0 || record->cancel_type != 0)
        __pthread_exit(CANCELED_VALUE);
    record->cancel_state = CANCEL_OFF;
    return -ERR_CANCELED;
}

} // namespace orlix
