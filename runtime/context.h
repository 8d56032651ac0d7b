// The process's one record, g_libc_context: everything the runtime shares per process. It lies in
// a memo of its own, is built at start-up and never torn down. System code.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/device.h"
#include "platform/kernel.h"
#include "platform/mutex.h"
#include "runtime/list.h"
#include "runtime/thread.h"

namespace orlix {

struct heap_state;
struct FILE;
struct ExceptionEntry;
struct SignalTable;

// A per-process block made on first use, with a lock for its initialisation.
struct ContextSlot {
    void* block;              // null until created
    std::uint8_t lock_ready;
    Mutex lock;
};

inline constexpr int CONTEXT_SLOTS = 8;
inline constexpr int SLOT_TIMEZONE = 0;
inline constexpr int SLOT_LOCALE = 3;
inline constexpr int SLOT_SYSLOG = 4;

inline constexpr int EXIT_BLOCK_ENTRIES = 32;

// A block of exit handlers; the first lies inside the context, later ones on the heap.
struct ExitBlock {
    ExitBlock* next; // the older block
    void (*functions[EXIT_BLOCK_ENTRIES])(void*);
    void* arguments[EXIT_BLOCK_ENTRIES];
};

struct LibcContext {
    Mutex lock;               // environment, context slots, stream and thread lists, device opening
    Device* registry_device;
    heap_state* heap;
    std::uint64_t initial_size;
    std::uint64_t grow_size;
    std::uint64_t max_heap_size;
    std::int64_t pid;         // 0 until asked
    char** environ;
    std::uint8_t* env_states; // null until the first change; 1 where the entry's text is the heap's
    char* fdinit;
    char* iwd;
    char* infn;
    char* outfn;
    char* errfn;
    FILE* std_in;
    FILE* std_out;
    FILE* std_err;
    ListHead streams;
    ExceptionEntry* exception_table;
    SignalTable* signal_table;
    Handle stop_event;
    std::uint8_t vm_checked;
    std::uint8_t vm_available;
    std::uint32_t stop_count;
    SignalSet interrupt_set;
    ListHead threads;
    Handle dead_stack_memo;
    std::uint64_t dead_stack_reservation;
    std::uint32_t thread_count; // live threads, not counting one
    void (*tsd_destructors[TSD_KEYS])(void*);
    std::uint64_t atexit_count;
    ExitBlock* atexit_block;
    ExitBlock atexit_first;
    std::uint16_t seed48[7];
    std::uint64_t random_state;
    ContextSlot slots[CONTEXT_SLOTS];
    ThreadRecord main_thread;
    std::uint64_t crt_args[6];
    const char* program_name;
};

// The process's context, set by __initcontext.
extern constinit LibcContext* g_libc_context;

// The context through the per-task store, as another module of the task would find it.
LibcContext* __lc_getcontext();

// Builds the context: memo, store, process lock, the first thread's record (and the heap), the
// supervisor's watch. Any failure ends the task.
LibcContext* __initcontext(std::uint64_t initial_size, std::uint64_t grow_size, std::uint64_t max_heap_size);

// The block of a context slot, made and cleared on first use; with init, init(block, size) runs
// once under the slot's lock, and later callers wait for it. out_lock, if given, receives the
// slot's lock. An index above 7 gives null.
void* lc_getcontextslot_of(LibcContext* context, unsigned index, std::uint64_t size, Mutex** out_lock,
                           void (*init)(void* block, std::uint64_t size));
void* lc_getcontextslot(unsigned index, std::uint64_t size, Mutex** out_lock,
                        void (*init)(void* block, std::uint64_t size));

// The process lock, whose failure ends the task.
void __libc_lock(LibcContext* context);
void __libc_unlock(LibcContext* context);

} // namespace orlix
