// The process heap: one nheap per process, made with the sizes the context holds, and the
// standard allocation functions over it. System code; touches the context and errno.
#include "runtime/heap.h"

#include <cstdint>
#include <cstring>

#include "memheap/memheap.h"
#include "platform/kernel_wrappers.h"
#include "runtime/context.h"
#include "runtime/errno.h"

namespace orlix {

heap_state* e_getheap()
{
    LibcContext* context = g_libc_context;
    // The field goes once from null to its final value, so it is read without the lock.
    if (heap_state* heap = __atomic_load_n(&context->heap, __ATOMIC_ACQUIRE))
        return heap;
    return e_getheap_of(context);
}

heap_state* e_getheap_of(LibcContext* context)
{
    if (heap_state* heap = __atomic_load_n(&context->heap, __ATOMIC_ACQUIRE))
        return heap;
    if (MutexLock(&context->lock) != MUTEX_OK)
        DeleteTask(0);
    if (context->heap == nullptr) {
        heap_state* heap = nheap_create(context->initial_size, context->grow_size, context->max_heap_size);
        if (heap == nullptr)
            DeleteTask(0);
        __atomic_store_n(&context->heap, heap, __ATOMIC_RELEASE);
    }
    MutexUnlock(&context->lock);
    return context->heap;
}

void* malloc(std::size_t size)
{
    void* block = nheap_alloc(e_getheap(), size);
    if (block == nullptr)
        errno = ERR_NOMEM;
    return block;
}

void free(void* block) { nheap_free(e_getheap(), block); }

void* calloc(std::size_t count, std::size_t size)
{
    if (size == 0 || count >= UINT64_MAX / size) {
        errno = ERR_INVAL;
        return nullptr;
    }
    void* block = nheap_alloc(e_getheap(), count * size);
    if (block == nullptr) {
        errno = ERR_NOMEM;
        return nullptr;
    }
    std::memset(block, 0, count * size);
    return block;
}

void* realloc(void* block, std::size_t size)
{
    void* result = nheap_realloc(e_getheap(), block, size);
    if (result == nullptr)
        errno = ERR_NOMEM;
    return result;
}

std::size_t e_msize(void* block) { return nheap_msize(e_getheap(), block); }

} // namespace orlix
