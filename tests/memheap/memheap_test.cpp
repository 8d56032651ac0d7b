// nheap at its edges: creation and areas, chunk sizes and bins, splitting and merging, growth,
// area return and the limit, the collector, and resizing in place or by a move.
#include <cstring>

#include "heap_test_util.h"

using namespace orlix;
using namespace heap_test;

TEST(HeapLayout, CreationAreasAndFreshStatistics)
{
    Heap heap(0x10000, 0, 0);
    const std::uint64_t state_size = sizeof(heap_state) + 29 * 16;
    EXPECT_EQ(heap->large_bin_count, 16u);
    EXPECT_EQ(heap->max_heap_size, ~std::uint64_t{0});
    heapmem* first = heap->first_heapmem;
    ASSERT_EQ(reinterpret_cast<char*>(first), reinterpret_cast<char*>(heap.h) + state_size);
    EXPECT_EQ(first->next, first);
    // A fresh heap is one free chunk; all else is overhead.
    nheap_stat s = stat_of(heap);
    std::uint64_t f = 0x10000 - heap->overhead_byte_count;
    EXPECT_EQ(s.used_block_count, 0u);
    EXPECT_EQ(s.free_block_count, 1u);
    EXPECT_EQ(s.free_byte_count, f - 16);
    EXPECT_EQ(s.min_free_byte_count, f - 16);
    EXPECT_EQ(s.gross_used_byte_count, heap->overhead_byte_count + 16);
    EXPECT_EQ(first_in_bin(heap, 13 + 8)->chunk_size, f); // 2^15 <= f < 2^16

    // The limit fixes the number of large bins; a limit below the first block is raised to it.
    for (auto [max, bins] : {std::pair<std::uint64_t, std::uint64_t>{(1u << 13) - 1, 6}, {1u << 13, 7},
                             {(1u << 22) - 1, 15}, {1u << 22, 16}}) {
        Heap small(4096, 0, max);
        EXPECT_EQ(small->large_bin_count, bins) << max;
    }
    EXPECT_EQ(Heap(0x8000, 0, 100)->max_heap_size, 0x8000u);
    EXPECT_EQ(nheap_create(sizeof(heap_state) + 20 * 16, 0, 0), nullptr); // no room for the bins
    EXPECT_EQ(nheap_create(state_size + 87, 0, 0), nullptr);               // no room for an area
    EXPECT_EQ(_memheap_clz(1), 63);
    nheap_delete(nullptr);

    // Areas below 96 bytes can't hold a chunk; new areas go to the end of the circular list.
    alignas(16) static unsigned char area[2][128];
    ASSERT_EQ(MutexLock(&heap->heap_lock), 0);
    for (std::uint64_t size = 80; size < 96; ++size)
        EXPECT_FALSE(add_heapmem(heap, area[0], size)) << size;
    EXPECT_EQ(heap->heap_size, 0x10000u);
    EXPECT_TRUE(add_heapmem(heap, area[0], 96));
    EXPECT_TRUE(add_heapmem(heap, area[1], 128));
    ASSERT_EQ(MutexUnlock(&heap->heap_lock), 0);
    EXPECT_EQ(first->next, reinterpret_cast<heapmem*>(area[0]));
    EXPECT_EQ(first->next->next, reinterpret_cast<heapmem*>(area[1]));
    EXPECT_EQ(first->prev->next, first);
    EXPECT_EQ(heap->heap_size, 0x10000u + 96 + 128);
    EXPECT_EQ(first_in_bin(heap, 0)->chunk_size, 32u);
    EXPECT_TRUE(nheap_check(heap));
    first->next = first->prev = first; // these areas are not the kernel's: out before the heap goes
}

TEST(HeapBins, ChunkSizesBinsAndOrder)
{
    Heap heap(0x10000, 0, 0);
    std::vector<void*> guards;
    for (auto [request, chunk] : {std::pair<std::uint64_t, std::uint64_t>{0, 32}, {16, 32}, {17, 48},
                                  {112, 128}, {113, 144}})
        EXPECT_EQ(nheap_msize(heap, nheap_alloc(heap, request)), chunk) << request;
    // Carve every chunk first, each followed by a guard, so that releases leave them isolated.
    auto carve = [&](std::uint64_t size) {
        void* b = nheap_alloc(heap, size - 16);
        guards.push_back(nheap_alloc(heap, 0));
        return b;
    };
    void* c128 = carve(128);
    void* c144 = carve(144);
    void* c256 = carve(256);
    void* a48 = carve(48);
    void* b48 = carve(48);
    void* c400 = carve(400);
    void* c304 = carve(304);
    void* d400 = carve(400);
    auto freed_into = [&](void* block, std::uint64_t bin) {
        nheap_free(heap, block);
        EXPECT_EQ(first_in_bin(heap, bin), chunk_of(block)) << bin;
    };
    freed_into(c128, 12);
    freed_into(c144, 13 + 0);
    freed_into(c256, 13 + 1);
    // Small bins are stacks; large bins ascend, the last stored first among equals.
    freed_into(a48, 2);
    freed_into(b48, 2);
    EXPECT_EQ(next_in_bin(chunk_of(b48)), chunk_of(a48));
    for (void* b : {c400, c304, d400})
        nheap_free(heap, b);
    EXPECT_EQ(next_in_bin(chunk_of(c256)), chunk_of(c304));
    EXPECT_EQ(next_in_bin(chunk_of(c304)), chunk_of(d400));
    EXPECT_EQ(next_in_bin(chunk_of(d400)), chunk_of(c400));
    EXPECT_EQ(nheap_alloc(heap, 384), d400); // best fit in its bin, newest first
    EXPECT_EQ(nheap_alloc(heap, 32), b48);
    EXPECT_EQ(nheap_alloc(heap, 0), a48); // first filled bin from bin 0 on, 16 spare: taken whole
    EXPECT_EQ(nheap_msize(heap, a48), 48u);
    EXPECT_EQ(nheap_alloc(heap, 64), c128); // 48 spare: split
    EXPECT_EQ(nheap_msize(heap, c128), 80u);
    EXPECT_EQ(first_in_bin(heap, 2), chunk_of(c128) + 5);
    EXPECT_TRUE(nheap_check(heap));

    Heap big(0x500000, 0, 0);
    void* huge = nheap_alloc(big, (4u << 20) - 16);
    nheap_alloc(big, 0);
    nheap_free(big, huge);
    EXPECT_EQ(first_in_bin(big, 13 + 15), chunk_of(huge));
}

TEST(HeapFree, MergesBothWaysAndKeepsTheFirstArea)
{
    Heap heap(0x10000, 0, 0);
    void* a = nheap_alloc(heap, 100);
    void* b = nheap_alloc(heap, 100);
    void* c = nheap_alloc(heap, 100);
    void* d = nheap_alloc(heap, 100);
    nheap_free(heap, a);
    nheap_free(heap, c);
    nheap_stat before = stat_of(heap);
    nheap_free(heap, b);
    nheap_stat after = stat_of(heap);
    EXPECT_EQ(after.free_block_count, before.free_block_count - 1);
    EXPECT_EQ(chunk_of(a)->chunk_size, 3 * 128u);
    EXPECT_EQ(after.free_byte_count, before.free_byte_count + 128 + 16); // one head kept of three
    nheap_free(heap, d);
    EXPECT_EQ(stat_of(heap).free_block_count, 1u);
    EXPECT_EQ(heap->heap_size, 0x10000u);
    EXPECT_TRUE(nheap_check(heap));
}

TEST(HeapGrowth, AreasComeAndGoWithinTheLimit)
{
    Heap heap(4096, 0x10000, 0);
    std::uint64_t first_free = stat_of(heap).free_byte_count; // the first area's chunk less its head
    void* big = nheap_alloc(heap, 0x10000 - 16); // needed 0x10000 is below 0x10000 + 88: two units
    EXPECT_EQ(heap->heap_size, 4096u + 0x20000);
    // Fill the first area, then give the grown one back: a new minimum without an allocation.
    void* fill = nheap_alloc(heap, first_free);
    ASSERT_EQ(heap->heap_size, 4096u + 0x20000);
    nheap_stat full = stat_of(heap);
    nheap_free(heap, big);
    nheap_stat returned = stat_of(heap);
    EXPECT_EQ(heap->heap_size, 4096u);
    EXPECT_EQ(heap->first_heapmem->next, heap->first_heapmem);
    EXPECT_LT(returned.free_byte_count, full.min_free_byte_count);
    EXPECT_EQ(returned.min_free_byte_count, returned.free_byte_count);
    void* again = nheap_alloc(heap, 0x1000); // grows again, by one unit this time
    EXPECT_EQ(heap->heap_size, 4096u + 0x10000);
    EXPECT_EQ(stat_of(heap).min_free_byte_count, returned.min_free_byte_count);
    nheap_free(heap, again);
    nheap_free(heap, fill);
    EXPECT_TRUE(nheap_check(heap));

    // Reaching the limit exactly is allowed, passing it by one byte is not; 0 never grows.
    Heap exact(4096, 0x10000, 4096 + 0x20000);
    EXPECT_NE(nheap_alloc(exact, 0x10000 - 16), nullptr);
    Heap over(4096, 0x10000, 4096 + 0x20000 - 1);
    EXPECT_EQ(nheap_alloc(over, 0x10000 - 16), nullptr);
    EXPECT_EQ(over->heap_size, 4096u);
    EXPECT_EQ(nheap_alloc(Heap(4096, 0, 0), 4096), nullptr);
    // Rounding that would wrap fails instead of giving a small block.
    EXPECT_EQ(nheap_alloc(heap, ~std::uint64_t{0} - 8), nullptr);
    EXPECT_EQ(nheap_alloc_aligned(heap, ~std::uint64_t{0} - 8, 64), nullptr);
}

namespace {
struct Collector {
    heap_state* heap;
    void* held;
    int calls;
};
int collect(void* arg)
{
    auto* c = static_cast<Collector*>(arg);
    c->calls += 1;
    nheap_free(c->heap, c->held); // a block of the same heap: runs without the heap lock
    c->held = nullptr;
    return 0;
}
} // namespace

TEST(HeapCollector, RunsOnlyOnExhaustionAndAtMostOnce)
{
    Heap heap(0x4000, 0, 0);
    Collector col{heap, nullptr, 0};
    nheap_set_gc_func(heap, collect, &col);
    EXPECT_EQ(nheap_alloc(heap, 0x8000), nullptr);
    EXPECT_EQ(col.calls, 1);
    void* small = nheap_alloc(heap, 100);
    EXPECT_EQ(col.calls, 1);
    col.held = nheap_alloc(heap, 0x2000);
    void* again = nheap_alloc(heap, 0x2000); // the collector's release makes room
    EXPECT_NE(again, nullptr);
    EXPECT_EQ(col.calls, 2);
    nheap_clear_gc_func(heap);
    EXPECT_EQ(nheap_alloc(heap, 0x8000), nullptr);
    EXPECT_EQ(col.calls, 2);
    nheap_free(heap, small);
    nheap_free(heap, again);
    EXPECT_TRUE(nheap_check(heap));
}

TEST(HeapRealloc, InPlaceWhereTheNextChunkServesElseMoves)
{
    Heap heap(0x10000, 0, 0);
    EXPECT_NE(nheap_realloc(heap, nullptr, 0), nullptr);
    void* a = nheap_alloc(heap, 200); // chunk 224
    void* guard = nheap_alloc(heap, 0);
    std::memset(a, 0x5a, 200);
    nheap_stat s0 = stat_of(heap);
    EXPECT_EQ(nheap_realloc(heap, a, 193), a); // same chunk size
    EXPECT_EQ(nheap_realloc(heap, a, 180), a); // one step of 16: kept whole
    nheap_stat s1 = stat_of(heap);
    EXPECT_EQ(std::memcmp(&s0, &s1, sizeof s0), 0);
    EXPECT_EQ(nheap_realloc(heap, a, 100), a); // cuts 96 off
    EXPECT_EQ(nheap_msize(heap, a), 128u);
    EXPECT_EQ(stat_of(heap).free_block_count, s0.free_block_count + 1);
    EXPECT_EQ(nheap_realloc(heap, a, 200), a); // grows into exactly what it gave up: taken whole
    EXPECT_EQ(nheap_msize(heap, a), 224u);
    EXPECT_EQ(stat_of(heap).free_block_count, s0.free_block_count);
    EXPECT_EQ(stat_of(heap).gross_used_byte_count, s0.gross_used_byte_count);

    // Shrinking next to a free chunk merges the cut-off part into it.
    void* b = nheap_alloc(heap, 300);
    void* c = nheap_alloc(heap, 300);
    nheap_alloc(heap, 0);
    nheap_free(heap, c);
    std::uint64_t free_count = stat_of(heap).free_block_count;
    EXPECT_EQ(nheap_realloc(heap, b, 100), b);
    EXPECT_EQ(stat_of(heap).free_block_count, free_count);
    EXPECT_EQ(chunk_of(b)[8].chunk_size, 320u + 320 - 128); // the merged chunk behind b

    // A move keeps the contents; a failed one keeps the block; size 0 releases.
    void* moved = nheap_realloc(heap, a, 5000);
    ASSERT_NE(moved, a);
    for (int i = 0; i < 100; ++i) // what the shrink to 100 kept
        ASSERT_EQ(static_cast<unsigned char*>(moved)[i], 0x5a);
    EXPECT_EQ(nheap_realloc(heap, moved, ~std::uint64_t{0}), nullptr);
    EXPECT_EQ(static_cast<unsigned char*>(moved)[99], 0x5a);
    std::uint64_t used = stat_of(heap).used_block_count;
    EXPECT_EQ(nheap_realloc(heap, moved, 0), nullptr);
    EXPECT_EQ(stat_of(heap).used_block_count, used - 1);
    nheap_free(heap, guard);
    EXPECT_TRUE(nheap_check(heap));
}
