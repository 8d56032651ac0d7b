// Chunk and bin helpers shared by the sources of nheap; not for callers of the heap.
// Touches only memory of the heap it is given, and the platform mutex.
#pragma once

#include <cstdint>

#include "memheap/memheap.h"
#include "platform/kernel_wrappers.h"

namespace orlix::nheap_detail {

// The links of a free chunk (and the pair of a bin head), 16 bytes behind its head.
struct FreeLinks {
    CHUNK_HEAD* prev_free;
    CHUNK_HEAD* next_free;
};

// Large bins ascend by size and may hold long runs of equal sizes. The first chunk of each run,
// its leader, is found without walking the run. In bins 0..3 the heap's run index knows it (see
// heap_state). In the bins from 4 on, the leader keeps two more links in its own free payload (a
// large chunk has at least 144 bytes): a circular list of the leaders of its bin. A walk "to the
// first chunk of at least n bytes" then steps over whole runs and stops at the very chunk a walk
// of the bin list would reach. Chunks there that lead no run have a null next_leader. Neither
// scheme touches the bin list itself.
struct LeaderLinks {
    CHUNK_HEAD* prev_leader;
    CHUNK_HEAD* next_leader;
};
inline LeaderLinks* leader(CHUNK_HEAD* c) { return reinterpret_cast<LeaderLinks*>(reinterpret_cast<char*>(c) + 32); }

inline constexpr std::uint64_t HEAD_SIZE = sizeof(CHUNK_HEAD);
inline constexpr std::uint64_t BOUNDARY_HEAD = 16 | CF_RESERVED | CF_BOUNDARY; // 0x13

inline std::uint64_t chunk_size(const CHUNK_HEAD* c) { return c->chunk_size & ~CHUNK_FLAG_MASK; }
inline bool has_flag(const CHUNK_HEAD* c, std::uint64_t flag) { return (c->chunk_size & flag) != 0; }

inline CHUNK_HEAD* at(void* base, std::uint64_t offset)
{
    return reinterpret_cast<CHUNK_HEAD*>(static_cast<char*>(base) + offset);
}
inline CHUNK_HEAD* before(CHUNK_HEAD* c, std::uint64_t distance)
{
    return reinterpret_cast<CHUNK_HEAD*>(reinterpret_cast<char*>(c) - distance);
}
inline CHUNK_HEAD* next_chunk(CHUNK_HEAD* c) { return at(c, chunk_size(c)); }
inline CHUNK_HEAD* prev_chunk(CHUNK_HEAD* c) { return before(c, c->prev_size); }
inline FreeLinks* links(CHUNK_HEAD* c) { return reinterpret_cast<FreeLinks*>(reinterpret_cast<char*>(c) + HEAD_SIZE); }
inline void* block_of(CHUNK_HEAD* c) { return reinterpret_cast<char*>(c) + HEAD_SIZE; }
inline CHUNK_HEAD* chunk_of(void* block) { return before(static_cast<CHUNK_HEAD*>(block), HEAD_SIZE); }

// Bin i: small bins 0..12, then the large bins; its head lies 16 bytes before its pair.
inline CHUNK_HEAD* bin_head(heap_state* heap, std::uint64_t index) { return at(heap->small_bins, index * HEAD_SIZE); }

// Run index of large bins 0..3: the first size of bin k in units of 16 is 8 << k; a size s of that
// bin has bit (s >> 4) - (8 << k) in run_sizes[k] and its leader in run_leaders[(s >> 4) - 8].
inline std::uint64_t run_base(std::uint64_t k) { return std::uint64_t{8} << k; }
inline std::uint64_t bin_count(const heap_state* heap) { return heap->small_bin_count + heap->large_bin_count; }

// The area record's low boundary chunk.
inline CHUNK_HEAD* low_boundary(heapmem* mem)
{
    return reinterpret_cast<CHUNK_HEAD*>((reinterpret_cast<std::uintptr_t>(mem) + 39) & ~std::uintptr_t{15});
}
inline CHUNK_HEAD* high_boundary(heapmem* mem)
{
    return reinterpret_cast<CHUNK_HEAD*>((reinterpret_cast<std::uintptr_t>(mem) + mem->mem_size - 16) &
                                         ~std::uintptr_t{15});
}

inline void report(heap_state* heap, const char* text, const char* file, int line)
{
    nheap_assert_cb cb = heap->assert_cb;
    if (cb != nullptr)
        cb(text, file, line);
}

// A lock failure is reported (with a callback) and ends the task.
inline void lock(heap_state* heap, Mutex* mutex, const char* file, int line)
{
    if (MutexLock(mutex) != MUTEX_OK) [[unlikely]] {
        report(heap, "# failed to enter CS #", file, line);
        DeleteTask(0);
    }
}
inline void unlock(heap_state* heap, Mutex* mutex, const char* file, int line)
{
    if (MutexUnlock(mutex) != MUTEX_OK) [[unlikely]] {
        report(heap, "# failed to leave CS #", file, line);
        DeleteTask(0);
    }
}

} // namespace orlix::nheap_detail
