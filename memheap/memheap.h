// nheap: a boundary-tag heap with segregated free-chunk bins, living in blocks from AllocMemory.
// Public records and operations; depends only on platform/ (mutex, memory blocks, task end).
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/mutex.h"

namespace orlix {

// Every chunk starts with this head; the payload (the block) follows it, so blocks are 16-aligned.
//
//   chunk ->  +-----------------+
//             | prev_size       |  distance back to the physically previous chunk
//             | chunk_size|flags|  size with head; flags in the three low bits
//   block ->  +-----------------+
//             | prev_free       |  free chunks only: links of their bin
//             | next_free       |
//             | ...             |
//             +-----------------+  the next chunk, whose prev_size is this chunk's size
struct CHUNK_HEAD {
    std::uint64_t prev_size;
    std::uint64_t chunk_size;
};
static_assert(sizeof(CHUNK_HEAD) == 16);

inline constexpr std::uint64_t CF_RESERVED = 1; // in use; boundary chunks too, so merging stops there
inline constexpr std::uint64_t CF_BOUNDARY = 2; // first or last chunk of an area
inline constexpr std::uint64_t CF_ALIGNED = 4;  // inner head of an aligned block
inline constexpr std::uint64_t CHUNK_FLAG_MASK = 7;

inline constexpr std::uint64_t MIN_SMALL_BIN_SIZE = 32;
inline constexpr std::uint64_t NHEAP_SMALL_BIN_COUNT = 13;
inline constexpr std::uint64_t NHEAP_MAX_LARGE_BIN_COUNT = 16;
inline constexpr std::uint64_t NHEAP_MIN_AREA_SIZE = 88;
inline constexpr std::uint64_t NHEAP_ISOLATED_USAGE_MAX_NESTING = 1;
// Large bins 0..3, sizes below 2048, keep an index of their runs (see heap_state).
inline constexpr std::uint64_t NHEAP_INDEXED_BIN_COUNT = 4;
inline constexpr std::uint64_t NHEAP_INDEXED_SIZE_LIMIT = 2048;
inline constexpr std::uint64_t NHEAP_INDEXED_RUN_COUNT = NHEAP_INDEXED_SIZE_LIMIT / 16 - 8;

// The record at the start of every area; the areas of a heap form a circular list.
struct heapmem {
    std::uint64_t mem_size; // bytes of the area, this record included
    heapmem* prev;
    heapmem* next;
};
static_assert(sizeof(heapmem) == 24);

struct nheap_stat {
    std::uint64_t heap_base;
    std::uint64_t free_byte_count; // heap_size - gross_used_byte_count
    std::uint64_t min_free_byte_count;
    std::uint64_t gross_used_byte_count; // overhead + reserved chunks + 16 per free chunk
    std::uint64_t max_gross_used_byte_count;
    std::uint64_t used_block_count; // reserved chunks, boundary chunks not counted
    std::uint64_t max_used_block_count;
    std::uint64_t free_block_count;
    std::uint64_t max_free_block_count;
};
static_assert(sizeof(nheap_stat) == 72);

// Called on exhaustion, without the heap lock; it may free blocks of the heap. Its result is unused.
using nheap_gc_func = int (*)(void* gc_arg);
// Supervision callback: the literal text of a report, the source ("memheap/memheap" or
// "memheap/memheap_check") and the place in it. Its result is ignored.
using nheap_assert_cb = int (*)(const char* text, const char* file, std::int32_t line);

// The heap's own record, at the start of its first block. The bin heads (13 small, then
// large_bin_count large, 16 bytes each) follow this record directly, and the first area follows
// them:
//
//   heap ->  heap_state | bin heads ... | first_heapmem: heapmem, low boundary, chunks, high boundary
//
// A bin head is the pair prev_free/next_free; it is addressed like a chunk 16 bytes in front of
// that pair, and its head fields (the bytes before the pair) are never read.
struct heap_state {
    std::uint64_t small_bin_count; // always 13
    std::uint64_t large_bin_count; // 6 to 16, fixed at creation
    std::uint64_t grow_size;       // unit of new areas; 0: never grows
    std::uint64_t max_heap_size;   // limit on heap_size for growth; all ones: none
    std::uint64_t heap_size;       // bytes held from the platform, this record included
    nheap_gc_func gc_func;
    void* gc_arg;
    heapmem* first_heapmem; // anchor of the area list; lives in this block and never goes
    CHUNK_HEAD* small_bins; // head of small bin 0
    CHUNK_HEAD* large_bins; // head of large bin 0
    nheap_assert_cb assert_cb;
    Mutex heap_lock; // chunks, bins and areas
    nheap_stat stat;
    nheap_stat stat_stack[NHEAP_ISOLATED_USAGE_MAX_NESTING];
    std::uint64_t stat_stack_count;
    std::uint64_t overhead_byte_count; // bytes in no chunk: this record with its bins, area edges
    Mutex stat_lock;                   // serialises the readers of the statistics
    // Bit i set: bin i (small bins 0..12, then large bins) holds a chunk. Lets a search jump to
    // the first filled bin instead of testing the heads one by one; guarded by heap_lock.
    std::uint64_t occupied_bins;
    // Odd while nheap_event forms the derived statistics. Events run under heap_lock, so they need
    // no second lock; readers, who take stat_lock among themselves, copy until it stays even.
    std::uint64_t stat_sequence;
    // Large bins 0..3 (chunk sizes 144..2047) hold at most 8 << k sizes each, so they keep an
    // index of their runs of equal sizes: bit j of run_sizes[k] is set while bin k holds chunks
    // of ((8 << k) + j) * 16 bytes, and run_leaders[size / 16 - 8] is then the first (newest) of
    // them. Searches and filings in these bins need no walk; guarded by heap_lock.
    std::uint64_t run_sizes[NHEAP_INDEXED_BIN_COUNT];
    CHUNK_HEAD* run_leaders[NHEAP_INDEXED_RUN_COUNT];
};
static_assert(offsetof(heap_state, heap_lock) == 88 && offsetof(heap_state, stat) == 104);
static_assert(offsetof(heap_state, overhead_byte_count) == 256 && offsetof(heap_state, stat_lock) == 264);
static_assert(offsetof(heap_state, stat_sequence) == 288 && offsetof(heap_state, run_sizes) == 296);
static_assert(sizeof(heap_state) == 296 + 4 * 8 + 120 * 8);

// A heap of initial_size bytes in one block from AllocMemory, growing by areas sized in units of
// grow_size (0: never) while heap_size stays within max_heap_size (0: no limit). Null on failure,
// with everything given back.
heap_state* nheap_create(std::uint64_t initial_size, std::uint64_t grow_size, std::uint64_t max_heap_size);
// Frees every area and the heap's block; live blocks simply go. Null does nothing.
void nheap_delete(heap_state* heap);

// A block of at least size bytes, 16-aligned, or null.
void* nheap_alloc(heap_state* heap, std::uint64_t size);
// Releases a block of this heap; null does nothing.
void nheap_free(heap_state* heap, void* block);
// Resizes in place where the next chunk allows, else moves. Null block: allocation. Size 0:
// release, null. Null when it can't, leaving the block valid; null for an aligned block with an
// inner head.
void* nheap_realloc(heap_state* heap, void* block, std::uint64_t size);
// Chunk size of the block, head included: the usable size is 16 less.
std::uint64_t nheap_msize(heap_state* heap, void* block);

// A block whose address is a multiple of alignment (a power of two up to 2^21; below 32 counts
// as 32), or null. Released with nheap_free.
void* nheap_alloc_aligned(heap_state* heap, std::uint64_t size, std::uint64_t alignment);
// Resizes a block that already has the alignment, keeping it; null (block untouched) otherwise.
void* nheap_realloc_aligned(heap_state* heap, void* block, std::uint64_t size, std::uint64_t alignment);

void nheap_set_gc_func(heap_state* heap, nheap_gc_func func, void* arg);
void nheap_clear_gc_func(heap_state* heap);

// Statistics: a copy under stat_lock, without the heap lock.
void nheap_get_stat(heap_state* heap, nheap_stat* out);
// Forms the derived statistics; called with heap_lock held at the end of every change.
void nheap_event(heap_state* heap);
// Kept for callers that install event handlers; they do nothing.
void nheap_set_event_handler(heap_state* heap, void* handler, void* arg);
void nheap_clear_event_handler(heap_state* heap);

// Sets (or with null clears) the supervision callback; returns the one set so far.
nheap_assert_cb nheap_set_assert_cb(heap_state* heap, nheap_assert_cb cb);
// With a callback: runs nheap_check and reports "# inconsistent heap #" at file/line on failure.
// Called with heap_lock free.
void nheap_assert_impl(heap_state* heap, const char* file, std::int32_t line);
// Walks every area, chunk and bin head; true when all is consistent. Reports nothing.
bool nheap_check(heap_state* heap);
// A bracket that checks that the code inside leaves the free/gross byte counts and the block
// counts as it found them. One level only.
void nheap_enter_isolated_usage(heap_state* heap);
void nheap_leave_isolated_usage(heap_state* heap);

// Internals, called with heap_lock held; public for tests.
bool add_heapmem(heap_state* heap, void* mem, std::uint64_t size);
void store_free_chunk(heap_state* heap, CHUNK_HEAD* free_chunk);
void* split_and_reserve(heap_state* heap, CHUNK_HEAD* free_chunk, std::uint64_t needed_size);
// Leading zero bits of a 64-bit value other than 0.
int _memheap_clz(std::uint64_t x);

} // namespace orlix
