// The process's context: its creation at start-up, its lookup through the per-task store, the
// process lock and the context slots. System code; touches kernel entries and the process heap.
#include "runtime/context.h"

#include <cstring>

#include "memheap/memheap.h"
#include "platform/kernel_wrappers.h"
#include "runtime/heap.h"
#include "runtime/process.h"

namespace orlix {

constinit LibcContext* g_libc_context = nullptr;

namespace {

constexpr std::uint64_t STORE_CONTEXT = 1;
constexpr std::uint64_t WATCH_TASK_END = 0x10001;

// The seed of the 48-bit random state the standard library starts from.
constexpr std::uint16_t INITIAL_SEED[7] = {0x330e, 0xabcd, 0x1234, 0xe66d, 0xdeec, 0x5, 0xb};

} // namespace

LibcContext* __lc_getcontext()
{
    std::uint64_t word = 0;
    if (_SL_GetStore(0, STORE_CONTEXT, &word) != STATUS_DONE)
        return nullptr;
    return reinterpret_cast<LibcContext*>(word);
}

LibcContext* __initcontext(std::uint64_t initial_size, std::uint64_t grow_size, std::uint64_t max_heap_size)
{
    Handle task = _SL_GetState(STATE_TASK);
    Handle supervisor = _SL_GetState(STATE_SUPERVISOR_PORT);

    Handle memo = _SL_CreateMemo(0, 0, sizeof(LibcContext), 0);
    if (memo == INVALID_HANDLE)
        DeleteTask(0);
    auto* context = static_cast<LibcContext*>(_SL_AllocView(0, memo, nullptr, 0, 0, 0));
    if (context == nullptr)
        DeleteTask(0);
    std::memset(context, 0, sizeof *context);
    g_libc_context = context;

    std::memcpy(context->seed48, INITIAL_SEED, sizeof INITIAL_SEED);
    context->initial_size = initial_size;
    context->grow_size = grow_size;
    context->max_heap_size = max_heap_size;
    list_init(&context->streams);
    list_init(&context->threads);

    if (_SL_CreateStore(task, STORE_CONTEXT, reinterpret_cast<std::uint64_t>(context), 5) != STATUS_DONE)
        DeleteTask(0);
    if (MutexInit(&context->lock) != MUTEX_OK)
        DeleteTask(0);
    if (__pthread_init_main(context, &context->main_thread) != 0)
        DeleteTask(0);
    if (handle_valid(supervisor) &&
        _SL_CreateWatchObject(task, supervisor, task, WATCH_TASK_END) == INVALID_HANDLE)
        DeleteTask(0);
    return context;
}

void __libc_lock(LibcContext* context)
{
    if (MutexLock(&context->lock) != MUTEX_OK)
        DeleteTask(0);
}

void __libc_unlock(LibcContext* context)
{
    if (MutexUnlock(&context->lock) != MUTEX_OK)
        DeleteTask(0);
}

namespace {

// The slot's lock, made on first need.
Mutex* slot_lock(ContextSlot& slot)
{
    if (!slot.lock_ready) {
        if (MutexInit(&slot.lock) != MUTEX_OK)
            abort();
        slot.lock_ready = 1;
    }
    return &slot.lock;
}

void* cleared_block(LibcContext* context, std::uint64_t size)
{
    void* block = nheap_alloc(e_getheap_of(context), size);
    if (block == nullptr)
        abort();
    std::memset(block, 0, size);
    return block;
}

} // namespace

void* lc_getcontextslot_of(LibcContext* context, unsigned index, std::uint64_t size, Mutex** out_lock,
                           void (*init)(void* block, std::uint64_t size))
{
    if (index >= CONTEXT_SLOTS)
        return nullptr;
    ContextSlot& slot = context->slots[index];
    __libc_lock(context);
    if (slot.block != nullptr) {
        // An init may still run on the block: pass through its lock.
        if (slot.lock_ready) {
            MutexLock(&slot.lock);
            MutexUnlock(&slot.lock);
        }
        if (out_lock != nullptr)
            *out_lock = slot_lock(slot);
        __libc_unlock(context);
        return slot.block;
    }
    if (init == nullptr && out_lock == nullptr) {
        slot.block = cleared_block(context, size);
        __libc_unlock(context);
        return slot.block;
    }
    Mutex* lock = slot_lock(slot);
    if (out_lock != nullptr)
        *out_lock = lock;
    void* block = cleared_block(context, size);
    slot.block = block;
    if (init == nullptr) {
        __libc_unlock(context);
        return block;
    }
    MutexLock(lock);
    __libc_unlock(context);
    init(block, size);
    MutexUnlock(lock);
    return block;
}

void* lc_getcontextslot(unsigned index, std::uint64_t size, Mutex** out_lock,
                        void (*init)(void* block, std::uint64_t size))
{
    return lc_getcontextslot_of(g_libc_context, index, size, out_lock, init);
}

} // namespace orlix
