// The standard allocation functions over the process heap, an nheap made on first use.
// Stand-in until the runtime's context holds the heap; touches only that heap and errno.
#include "runtime/malloc.h"

#include <cstdint>
#include <cstring>

#include "memheap/memheap.h"
#include "platform/atomic.h"
#include "platform/kernel_wrappers.h"
#include "runtime/errno.h"

namespace orlix {

namespace {

constexpr int ERROR_NO_SPACE = 22;
constexpr int ERROR_INVALID = 11;

constinit heap_state* process_heap = nullptr;

// Made once: two threads that race here both create a heap, and the loser deletes its own.
heap_state* stand_in_heap()
{
    heap_state* heap = atomic::load(&process_heap);
    if (heap != nullptr) [[likely]]
        return heap;
    heap_state* fresh = nheap_create(0x10000, 0x40000, 0x80000000);
    if (fresh == nullptr)
        DeleteTask(0); // a process without a heap ends
    heap_state* expected = nullptr;
    if (atomic::compare_exchange(&process_heap, &expected, fresh))
        return fresh;
    nheap_delete(fresh);
    return expected;
}

} // namespace

void* malloc(std::size_t size)
{
    void* block = nheap_alloc(stand_in_heap(), size);
    if (block == nullptr)
        errno = ERROR_NO_SPACE;
    return block;
}

void free(void* block) { nheap_free(stand_in_heap(), block); }

void* calloc(std::size_t count, std::size_t size)
{
    if (size == 0 || count >= SIZE_MAX / size) {
        errno = ERROR_INVALID;
        return nullptr;
    }
    void* block = nheap_alloc(stand_in_heap(), count * size);
    if (block == nullptr) {
        errno = ERROR_NO_SPACE;
        return nullptr;
    }
    std::memset(block, 0, count * size); // memos may hand back old bytes of this process
    return block;
}

void* realloc(void* block, std::size_t size)
{
    void* result = nheap_realloc(stand_in_heap(), block, size);
    if (result == nullptr)
        errno = ERROR_NO_SPACE;
    return result;
}

std::size_t e_msize(void* block) { return nheap_msize(stand_in_heap(), block); }

} // namespace orlix
