// nheap at its edges: creation and areas, chunk sizes and bins, growth, area return and the limit,
// the collector, resizing in place, aligned blocks in each of their forms, and the supervision
// reports on corruption, double release and the isolated-usage bracket.
#include <cstring>
#include <utility>

#include "heap_test_util.h"

using namespace orlix;
using namespace heap_test;

namespace {
bool aligned(void* p, std::uint64_t a) { return reinterpret_cast<std::uintptr_t>(p) % a == 0; }
std::uintptr_t addr(void* p) { return reinterpret_cast<std::uintptr_t>(p); }

// Pads the heap so that the next ordinary block starts `pre` bytes short of a multiple of
// `alignment`; returns that block's address. Works on a heap whose front is one free chunk.
std::uintptr_t place(heap_state* heap, std::uint64_t alignment, std::uint64_t pre)
{
    void* probe = nheap_alloc(heap, 2000); // large, so that no small leftover is taken instead
    nheap_free(heap, probe);
    std::uint64_t pad = (alignment - (addr(probe) + pre) % alignment) % alignment;
    while (pad < 160)
        pad += alignment;
    EXPECT_EQ(nheap_alloc(heap, pad - 16), probe);
    return addr(probe) + pad;
}
} // namespace

TEST(HeapLayout, CreationAreasAndFreshStatistics)
{
    Heap heap(0x10000, 0, 0);
    EXPECT_EQ(heap->max_heap_size, ~std::uint64_t{0});
    // A fresh heap is one free chunk; all else is overhead.
    const nheap_stat s = stat_of(heap);
    const std::uint64_t f = 0x10000 - heap->overhead_byte_count;
    EXPECT_EQ((U64s{s.used_block_count, s.free_block_count, s.free_byte_count, s.min_free_byte_count, s.gross_used_byte_count}),
              (U64s{0, 1, f - 16, f - 16, heap->overhead_byte_count + 16}));
    EXPECT_EQ(first_in_bin(heap, 13 + 8)->chunk_size, f); // 2^15 <= f < 2^16

    // The limit fixes the number of large bins; a limit below the first block is raised to it.
    for (auto [max, bins] : {std::pair<std::uint64_t, std::uint64_t>{(1u << 13) - 1, 6}, {1u << 13, 7},
                             {(1u << 22) - 1, 15}, {1u << 22, 16}, {0, 16}})
        EXPECT_EQ(Heap(4096, 0, max)->large_bin_count, bins) << max;
    EXPECT_EQ(Heap(0x8000, 0, 100)->max_heap_size, 0x8000u);
    EXPECT_EQ(nheap_create(sizeof(heap_state) + 20 * 16, 0, 0), nullptr); // no room for the bins
    EXPECT_EQ(nheap_create(sizeof(heap_state) + 29 * 16 + 87, 0, 0), nullptr); // nor for an area
    nheap_delete(nullptr);

    // Areas below 96 bytes can't hold a chunk.
    alignas(16) static unsigned char area[2][128];
    heapmem* first = heap->first_heapmem;
    ASSERT_EQ(MutexLock(&heap->heap_lock), 0);
    EXPECT_FALSE(add_heapmem(heap, area[0], 95));
    EXPECT_TRUE(add_heapmem(heap, area[0], 96) && add_heapmem(heap, area[1], 128));
    ASSERT_EQ(MutexUnlock(&heap->heap_lock), 0);
    EXPECT_EQ(heap->heap_size, 0x10000u + 96 + 128);
    EXPECT_EQ(first_in_bin(heap, 0)->chunk_size, 32u);
    EXPECT_TRUE(nheap_check(heap));
    first->next = first->prev = first; // these areas are not the kernel's: out before the heap goes
}

TEST(HeapLayout, ChunkSizesAndBinEdges)
{
    Heap heap(0x10000, 0, 0);
    for (auto [request, chunk] : {std::pair<std::uint64_t, std::uint64_t>{0, 32}, {16, 32}, {17, 48},
                                  {112, 128}, {113, 144}})
        EXPECT_EQ(nheap_msize(heap, nheap_alloc(heap, request)), chunk) << request;
    // Chunks of each size, each behind a guard so that its release leaves it alone, and their bins.
    struct { std::uint64_t size, bin; void* block = nullptr; } c[] = {{128, 12}, {144, 13}, {256, 14}, {48, 2}};
    for (auto& e : c)
        e.block = nheap_alloc(heap, e.size - 16), nheap_alloc(heap, 0);
    for (auto& e : c) {
        nheap_free(heap, e.block);
        EXPECT_EQ(first_in_bin(heap, e.bin), chunk_of(e.block)) << e.size;
    }
    EXPECT_EQ(nheap_alloc(heap, 0), c[3].block); // 16 spare: taken whole
    EXPECT_EQ(nheap_alloc(heap, 80), c[0].block); // 32 spare: split off
    EXPECT_EQ((U64s{nheap_msize(heap, c[3].block), nheap_msize(heap, c[0].block)}), (U64s{48, 96}));
    EXPECT_EQ(first_in_bin(heap, 0), chunk_of(c[0].block) + 6);
    EXPECT_TRUE(nheap_check(heap));

    Heap big(0x500000, 0, 0);
    void* huge = nheap_alloc(big, (4u << 20) - 16);
    nheap_alloc(big, 0);
    nheap_free(big, huge);
    EXPECT_EQ(first_in_bin(big, 13 + 15), chunk_of(huge));
}

TEST(HeapGrowth, AreasComeAndGoWithinTheLimitAndTheCollector)
{
    Heap heap(4096, 0x10000, 0);
    const std::uint64_t first_free = stat_of(heap).free_byte_count; // the first area's chunk less its head
    void* big = nheap_alloc(heap, 0x10000 - 16); // needed 0x10000 is below 0x10000 + 88: two units
    EXPECT_EQ(heap->heap_size, 4096u + 0x20000);
    // Fill the first area, then give the grown one back: a new minimum without an allocation.
    nheap_alloc(heap, first_free);
    const nheap_stat full = stat_of(heap);
    nheap_free(heap, big);
    const nheap_stat returned = stat_of(heap);
    EXPECT_EQ(heap->heap_size, 4096u);
    EXPECT_LT(returned.free_byte_count, full.min_free_byte_count);
    EXPECT_EQ(returned.min_free_byte_count, returned.free_byte_count);
    nheap_alloc(heap, 0x1000); // grows again, by one unit this time
    EXPECT_EQ(heap->heap_size, 4096u + 0x10000);
    EXPECT_EQ(stat_of(heap).min_free_byte_count, returned.min_free_byte_count);

    // Reaching the limit exactly is allowed, passing it by one byte is not; 0 never grows.
    EXPECT_NE(nheap_alloc(Heap(4096, 0x10000, 4096 + 0x20000), 0x10000 - 16), nullptr);
    Heap over(4096, 0x10000, 4096 + 0x20000 - 1);
    EXPECT_EQ(nheap_alloc(over, 0x10000 - 16), nullptr);
    EXPECT_EQ(over->heap_size, 4096u);
    EXPECT_EQ(nheap_alloc(Heap(4096, 0, 0), 4096), nullptr);
    // Rounding that would wrap fails instead of giving a small block.
    EXPECT_EQ(nheap_alloc(heap, ~std::uint64_t{0} - 8), nullptr);
    EXPECT_EQ(nheap_alloc_aligned(heap, ~std::uint64_t{0} - 8, 64), nullptr);

    // The collector runs on exhaustion only, at most once an allocation.
    Heap gc(0x4000, 0, 0);
    struct Collector { heap_state* heap; void* held; int calls; } col{gc, nullptr, 0};
    auto collect = [](void* arg) { // releases a block of the same heap: runs without the heap lock
        auto* c = static_cast<Collector*>(arg);
        c->calls += 1;
        nheap_free(c->heap, std::exchange(c->held, nullptr));
        return 0;
    };
    nheap_set_gc_func(gc, collect, &col);
    EXPECT_TRUE(nheap_alloc(gc, 0x8000) == nullptr && col.calls == 1);
    EXPECT_TRUE(nheap_alloc(gc, 100) != nullptr && col.calls == 1);
    col.held = nheap_alloc(gc, 0x2000);
    EXPECT_TRUE(nheap_alloc(gc, 0x2000) != nullptr && col.calls == 2); // the collector's release makes room
    nheap_clear_gc_func(gc);
    EXPECT_TRUE(nheap_alloc(gc, 0x8000) == nullptr && col.calls == 2);
    EXPECT_TRUE(nheap_check(gc));
}

TEST(HeapRealloc, InPlaceWhereTheNextChunkServesElseMoves)
{
    Heap heap(0x10000, 0, 0);
    void* a = nheap_alloc(heap, 200); // chunk 224
    nheap_alloc(heap, 0);
    std::memset(a, 0x5a, 200);
    const nheap_stat s0 = stat_of(heap);
    // The same chunk size, one step of 16 less (kept whole), a cut of 96, and a growth into
    // exactly what was given up (taken whole).
    for (auto [size, chunk] : {std::pair<std::uint64_t, std::uint64_t>{193, 224}, {180, 224}, {100, 128}, {200, 224}}) {
        EXPECT_EQ(nheap_realloc(heap, a, size), a) << size;
        EXPECT_EQ(nheap_msize(heap, a), chunk) << size;
        EXPECT_EQ(stat_of(heap).free_block_count, s0.free_block_count + (chunk == 128)) << size;
    }
    EXPECT_EQ(stat_of(heap).gross_used_byte_count, s0.gross_used_byte_count);

    // Shrinking next to a free chunk merges the cut-off part into it.
    void* b = nheap_alloc(heap, 300);
    void* c = nheap_alloc(heap, 300);
    nheap_alloc(heap, 0);
    nheap_free(heap, c);
    const std::uint64_t free_count = stat_of(heap).free_block_count;
    EXPECT_EQ(nheap_realloc(heap, b, 100), b);
    EXPECT_EQ(stat_of(heap).free_block_count, free_count);
    EXPECT_EQ(chunk_of(b)[8].chunk_size, 320u + 320 - 128); // the merged chunk behind b

    // A failed move keeps the block.
    EXPECT_EQ(nheap_realloc(heap, a, ~std::uint64_t{0}), nullptr);
    EXPECT_EQ(static_cast<unsigned char*>(a)[99], 0x5a);
    EXPECT_TRUE(nheap_check(heap));
}

TEST(HeapAligned, NoFrontInnerHeadPreChunkAndResizing)
{
    Heap heap(0x10000, 0, 0);
    for (std::uint64_t a : {0, 1, 16}) // up to 32 is 32
        EXPECT_TRUE(aligned(nheap_alloc_aligned(heap, 40, a), 32)) << a;
    EXPECT_EQ(nheap_alloc_aligned(heap, 40, 48), nullptr);
    const std::uint64_t n = 224; // the chunk of 200 bytes

    // Already aligned: no front, only the tail is cut and released.
    std::uintptr_t at = place(heap, 64, 0);
    void* plain = nheap_alloc_aligned(heap, 200, 64);
    EXPECT_EQ(addr(plain), at);
    EXPECT_EQ(chunk_of(plain)->chunk_size, n | CF_RESERVED);

    // 16 bytes short: an inner head 16 bytes into the long chunk; released through the long chunk.
    at = place(heap, 64, 16);
    nheap_stat before = stat_of(heap);
    void* inner = nheap_alloc_aligned(heap, 200, 64);
    EXPECT_EQ(addr(inner), at + 16);
    EXPECT_EQ(nheap_realloc(heap, inner, 50), nullptr); // refused, nothing changes
    EXPECT_EQ((U64s{chunk_of(inner)->prev_size, chunk_of(inner)->chunk_size, nheap_msize(heap, inner),
                    chunk_of(reinterpret_cast<void*>(at))->chunk_size}),
              (U64s{16, n | CF_RESERVED | CF_ALIGNED, n, (n + 16) | CF_RESERVED}));
    nheap_free(heap, inner);
    EXPECT_EQ(stat_of(heap).gross_used_byte_count, before.gross_used_byte_count);

    // 48 bytes short: a pre-chunk of its own goes back to the bins.
    at = place(heap, 128, 48);
    void* pre = nheap_alloc_aligned(heap, 200, 128);
    EXPECT_EQ(addr(pre), at + 48);
    EXPECT_EQ(chunk_of(pre)->prev_size, 48u);
    EXPECT_EQ(first_in_bin(heap, 2), chunk_of(reinterpret_cast<void*>(at)));

    // A free chunk of the request's own bin that is aligned is reused as it is.
    at = place(heap, 256, 0);
    void* spot = nheap_alloc(heap, 200);
    ASSERT_EQ(addr(spot), at);
    nheap_alloc(heap, 300);
    nheap_free(heap, spot);
    EXPECT_EQ(nheap_alloc_aligned(heap, 200, 256), spot);

    // Resizing refuses a lower alignment than asked; with an inner head, shrinking and growing in
    // place make the head follow (moves are left to the random sequences).
    at = place(heap, 64, 32);
    void* low = nheap_alloc_aligned(heap, 100, 32);
    ASSERT_EQ(addr(low), at);
    EXPECT_EQ(nheap_realloc_aligned(heap, low, 300, 64), nullptr);
    EXPECT_EQ(nheap_realloc_aligned(heap, low, 300, 48), nullptr);
    place(heap, 64, 16);
    void* b = nheap_alloc_aligned(heap, 500, 64);
    EXPECT_EQ(nheap_realloc_aligned(heap, b, 100, 64), b);
    EXPECT_EQ(chunk_of(b)->chunk_size, 128 | CF_RESERVED | CF_ALIGNED); // real chunk 144 less 16
    EXPECT_EQ(nheap_realloc_aligned(heap, b, 300, 64), b);
    EXPECT_EQ(nheap_msize(heap, b), 320u);
    EXPECT_TRUE(aligned(nheap_realloc_aligned(heap, nullptr, 10, 128), 128));
    // Alignments up to 2 MiB; a block from a grown area gives the whole area back.
    Heap grows(0x10000, 0x10000, 0);
    EXPECT_EQ(nheap_alloc_aligned(grows, 40, 0x400000), nullptr);
    void* big = nheap_alloc_aligned(grows, 100, 0x200000);
    EXPECT_TRUE(big != nullptr && aligned(big, 0x200000));
    nheap_free(grows, big);
    EXPECT_EQ(grows->heap_size, 0x10000u);
    EXPECT_TRUE(nheap_check(heap) && nheap_check(grows));
}

TEST(HeapSupervision, ReportsCorruptionDoubleReleaseAndTheIsolatedUsageBracket)
{
    Heap heap(0x10000, 0, 0);
    reports.clear();
    EXPECT_EQ(nheap_set_assert_cb(heap, capture), nullptr);
    EXPECT_EQ(nheap_set_assert_cb(heap, capture), capture);
    // Double release: the missing flag, then the heap found broken on the way out.
    void* a = nheap_alloc(heap, 100);
    nheap_alloc(heap, 100); // a's neighbour stays reserved
    a = nheap_realloc(heap, a, 40);
    nheap_free(heap, a);
    nheap_free(heap, a);
    const std::string flag = "TEST_CHUNK_FLAG(chunk,CF_RESERVED)|memheap/memheap";
    EXPECT_EQ(reports, (std::vector<std::string>{flag, "# inconsistent heap #|memheap/memheap"}));
    reports.clear();
    EXPECT_EQ(nheap_msize(heap, a), 128u); // merged with the part the shrink cut off
    EXPECT_EQ(reports, std::vector<std::string>{flag});

    // An overwritten head: the walk fails, and each operation reports on entry and on leaving.
    Heap other(0x10000, 0, 0);
    nheap_alloc(other, 64);
    CHUNK_HEAD* y = chunk_of(nheap_alloc(other, 64));
    const CHUNK_HEAD saved = *y;
    y->chunk_size = 0x1235;
    EXPECT_FALSE(nheap_check(other));
    *y = saved;
    y->prev_size = 0x40;
    EXPECT_FALSE(nheap_check(other));
    reports.clear();
    nheap_set_assert_cb(other, capture);
    nheap_free(other, nheap_alloc(other, 10));
    EXPECT_EQ(reports, std::vector<std::string>(4, "# inconsistent heap #|memheap/memheap"));
    *y = saved;

    // The bracket: balanced work is silent; a block left behind changes three values; releasing it
    // in front of another block changes the free chunk count as well.
    Heap iso(0x10000, 0, 0);
    nheap_set_assert_cb(iso, capture);
    auto bracket = [&](auto work) {
        reports.clear();
        nheap_enter_isolated_usage(iso);
        work();
        nheap_leave_isolated_usage(iso);
        return reports;
    };
    EXPECT_TRUE(bracket([&] { nheap_free(iso, nheap_alloc(iso, 300)); }).empty());
    void* left = nullptr;
    const std::string at = "|memheap/memheap_check";
    auto differs = [&](std::string v) { return "heap_state->stat." + v + " == saved_stat->" + v + at; };
    std::vector<std::string> changed{differs("free_byte_count"), differs("gross_used_byte_count"),
                                     differs("used_block_count")};
    EXPECT_EQ(bracket([&] { left = nheap_alloc(iso, 300); }), changed);
    nheap_alloc(iso, 0);
    changed.push_back(differs("free_block_count"));
    EXPECT_EQ(bracket([&] { nheap_free(iso, left); }), changed);
    // Nesting beyond one and leaving with no bracket are reported; the count stays in range.
    EXPECT_EQ(bracket([&] {
                  nheap_enter_isolated_usage(iso);
                  EXPECT_EQ(iso->stat_stack_count, 1u);
                  nheap_leave_isolated_usage(iso);
              }),
              (std::vector<std::string>{"heap_state->stat_stack_count < NHEAP_ISOLATED_USAGE_MAX_NESTING" + at,
                                        "heap_state->stat_stack_count > 0" + at}));
    EXPECT_EQ(iso->stat_stack_count, 0u);
}
