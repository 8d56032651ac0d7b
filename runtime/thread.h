// The thread layer: one record per thread holding all of the runtime's per-thread state, found
// through the kernel's user word of the thread; attributes; creation behind a start gate; the
// orderly end. System code.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/ioreq.h"
#include "platform/kernel.h"
#include "platform/mutex.h"
#include "runtime/list.h"

namespace orlix {

struct LibcContext;
struct Device;

// A set of 128 signals: signal n is bit n - 1.
struct SignalSet {
    std::uint64_t bits[2];
};

// A thread's cached request on one device service.
struct IoSlot {
    IOreq* request;         // null while there is none
    std::uint8_t* data;     // the block's data part
    std::uint64_t data_size;
    Handle reply_port;      // the port the block was made with
};
static_assert(sizeof(IoSlot) == 32);

// Signals queued on a thread: standard ones (1 to 31) at most once, later ones counted.
struct SignalQueue {
    std::uint32_t pending;       // signals queued
    std::uint32_t standard;      // bit n for signal n
    std::uint32_t counters[33];  // signals 32 to 64
    SignalSet mask;              // the thread's blocked signals
};

struct CleanupHandler {
    void (*function)(void*);
    void* argument;
    CleanupHandler* next;
};

// Flags of io_flags, changed only by compare-and-exchange: a signal exception may come between
// any two instructions of the thread.
inline constexpr std::uint32_t IO_IN_BLOCKING_CALL = 1;  // a signal is queued, not run
inline constexpr std::uint32_t IO_RESTARTABLE = 2;       // the call may be restarted
inline constexpr std::uint32_t IO_IN_SIGNAL = 4;         // inside the signal exception

inline constexpr int TSD_KEYS = 128;

// The record of one thread, cleared when made. The identity pthread_create returns is its address.
struct ThreadRecord {
    ThreadRecord* self;
    Handle task;
    Handle thread;
    Handle exit_event;          // set when the thread has finished
    ListHead thread_link;       // place in the context's threads
    ListHead waiters;           // empty, linked to itself
    ListHead locked_streams;    // streams this thread holds locked
    Handle wait_event;
    void* exit_value;
    void* (*start_routine)(void*);
    void* start_argument;
    LibcContext* context;
    CleanupHandler* cleanup_handlers;
    Handle stack_memo;          // memo of this thread's memory
    std::uint64_t stack_reservation; // reservation around it, or 0
    IoSlot vfs_io;
    IoSlot spare_io1;
    IoSlot sysvc_io;
    IoSlot spare_io3;
    void* locale;
    Mutex record_lock;
    SignalQueue signal_queue;
    std::uint32_t io_flags;
    std::uint32_t cancel_flags;
    std::uint32_t cancel_state;
    std::uint32_t cancel_type;
    std::uint32_t exited;
    std::uint32_t detached;
    int errno_value;            // what __get_errno_ptr points to
    std::uint32_t error_flag;   // the current blocking call's last run failed, errno is set
    std::uint32_t tsd_used;
    Handle start_event;         // the gate; -1 once the thread has been released
    void* tsd[TSD_KEYS];
    char inet_buffer[16];       // inet_ntoa's result
};

// The memory made for a thread holds its stack and, above it, its record.
inline constexpr std::uint64_t THREAD_RECORD_ROOM = 1792;
static_assert(sizeof(ThreadRecord) <= THREAD_RECORD_ROOM);

struct pthread_attr_t {
    std::uint64_t stack_size;
    std::uint64_t guard_size;
    void* stack_address;
    std::uint32_t detach_state;
    std::uint64_t priority;
};

using pthread_t = ThreadRecord*;

inline constexpr std::uint64_t DEFAULT_STACK_SIZE = 0x20000;
inline constexpr std::uint64_t DEFAULT_GUARD_SIZE = 4096;
inline constexpr std::uint64_t DEFAULT_PRIORITY = 64;

int pthread_attr_init(pthread_attr_t* attr);
int pthread_attr_destroy(pthread_attr_t* attr);
int pthread_attr_setdetachstate(pthread_attr_t* attr, int value); // 0 or 11
int pthread_attr_setstacksize(pthread_attr_t* attr, std::uint64_t size); // 0 or 11

// 0, 11 (no routine, or a stack address without a size) or 47 (no memory, event or thread); on
// failure nothing made is left behind.
int pthread_create(pthread_t* out, const pthread_attr_t* attr, void* (*routine)(void*), void* argument);

// The calling thread's record. A thread without one cannot go on: it raises the alarm on the log
// device and deletes itself.
ThreadRecord* __pthread_self();
// Makes record the user word of record->thread; 0 or -1.
int __pthread_set_self(ThreadRecord* record);
// Waits for ever on an event, repeating while the kernel asks to.
Status __pthread_wait_for_event(Handle event);
// Fills in a record whose thread, task and memory fields are set: signal queue and mask (from
// parent), events, lock, locale, the thread's user word, its place in the context's threads.
// 0, or nonzero with nothing of its own left made.
int __pthread_init(ThreadRecord* record, LibcContext* context, ThreadRecord* parent);
// The first thread: makes sure the heap exists and makes record the calling thread's own.
int __pthread_init_main(LibcContext* context, ThreadRecord* record);
[[noreturn]] void __pthread_exit(void* value);
void pthread_exit(void* value);
pthread_t pthread_self();

// Thread-specific values.
int pthread_key_create(unsigned* key, void (*destructor)(void*));
int pthread_setspecific(unsigned key, const void* value);
void* pthread_getspecific(unsigned key);

// Cleanup handlers, run first-pushed last at the thread's end.
void __pthread_cleanup_push(CleanupHandler* handler, void (*function)(void*), void* argument);
void __pthread_cleanup_pop(int execute);

// The detached threads' memory: the previous one's is released, this one's kept for the next.
void __pthread_unlink(ThreadRecord* record, int free_now);
void __pthread_tsd_run_dtors(ThreadRecord* record);
void __pthread_free_io(ThreadRecord* record);

// Cancellation, for user exception 12; the daemon never asks for it.
std::uint64_t __pthread_cancel_handler(void* context, std::uint64_t number, std::uint64_t argument,
                                       std::uint64_t* result_word, std::uint64_t, std::uint64_t);
int __pthread_do_cancel(ThreadRecord* record);

} // namespace orlix
