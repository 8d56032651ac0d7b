// nheap aligned blocks in each of their forms, their resizing, and the supervision reports:
// texts, order and source of each, on corruption, double release and the isolated-usage bracket.
#include <cstring>

#include "heap_test_util.h"

using namespace orlix;
using namespace heap_test;

namespace {

// Pads the heap so that the next ordinary block starts `pre` bytes short of a multiple of
// `alignment`; returns that block's address. Works on a heap whose front is one free chunk.
std::uintptr_t place(heap_state* heap, std::uint64_t alignment, std::uint64_t pre, std::vector<void*>& keep)
{
    // Large sizes only, so that no small free chunk left by an earlier step is taken instead.
    void* probe = nheap_alloc(heap, 2000);
    nheap_free(heap, probe);
    auto p = reinterpret_cast<std::uintptr_t>(probe);
    std::uint64_t pad = (alignment - (p + pre) % alignment) % alignment;
    while (pad < 160)
        pad += alignment;
    keep.push_back(nheap_alloc(heap, pad - 16));
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(keep.back()), p);
    return p + pad;
}

bool aligned(void* p, std::uint64_t a) { return reinterpret_cast<std::uintptr_t>(p) % a == 0; }

} // namespace

TEST(HeapAligned, AlignmentRules)
{
    Heap heap(0x10000, 0x10000, 0);
    for (std::uint64_t a : {0, 1, 16})
        EXPECT_TRUE(aligned(nheap_alloc_aligned(heap, 40, a), 32)) << a;
    EXPECT_EQ(nheap_alloc_aligned(heap, 40, 48), nullptr);
    EXPECT_EQ(nheap_alloc_aligned(heap, 40, 0x400000), nullptr);
    void* big = nheap_alloc_aligned(heap, 100, 0x200000);
    EXPECT_TRUE(big != nullptr && aligned(big, 0x200000));
    nheap_free(heap, big);
    EXPECT_EQ(heap->heap_size, 0x10000u); // the grown area went back whole
    EXPECT_EQ(stat_of(heap).used_block_count, 3u);
    EXPECT_TRUE(nheap_check(heap));
}

TEST(HeapAligned, NoFrontInnerHeadAndPreChunk)
{
    Heap heap(0x10000, 0, 0);
    std::vector<void*> keep;
    const std::uint64_t n = 224; // needed_size of 200

    // Already aligned: no front, only the tail is cut and released.
    std::uintptr_t at = place(heap, 64, 0, keep);
    nheap_stat before = stat_of(heap);
    void* plain = nheap_alloc_aligned(heap, 200, 64);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(plain), at);
    EXPECT_EQ(chunk_of(plain)->chunk_size, n | CF_RESERVED);
    EXPECT_EQ(stat_of(heap).used_block_count, before.used_block_count + 1);
    EXPECT_TRUE(nheap_check(heap));
    keep.push_back(plain);

    // 16 bytes short: an inner head 16 bytes into the long chunk.
    at = place(heap, 64, 16, keep);
    before = stat_of(heap);
    void* inner = nheap_alloc_aligned(heap, 200, 64);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(inner), at + 16);
    CHUNK_HEAD* head = chunk_of(inner);
    CHUNK_HEAD* long_chunk = chunk_of(reinterpret_cast<void*>(at));
    EXPECT_EQ(head->prev_size, 16u);
    EXPECT_EQ(head->chunk_size, n | CF_RESERVED | CF_ALIGNED);
    EXPECT_EQ(long_chunk->chunk_size, (n + 16) | CF_RESERVED);
    EXPECT_EQ(nheap_msize(heap, inner), n);
    EXPECT_EQ(stat_of(heap).used_block_count, before.used_block_count + 1);
    EXPECT_EQ(nheap_realloc(heap, inner, 50), nullptr); // refused, nothing changes
    EXPECT_EQ(head->chunk_size, n | CF_RESERVED | CF_ALIGNED);
    EXPECT_TRUE(nheap_check(heap));
    nheap_free(heap, inner); // released through the long chunk
    nheap_stat after = stat_of(heap);
    EXPECT_EQ(after.used_block_count, before.used_block_count);
    EXPECT_EQ(after.gross_used_byte_count, before.gross_used_byte_count);

    // 48 bytes short: a pre-chunk of its own goes back to the bins.
    at = place(heap, 128, 48, keep);
    before = stat_of(heap);
    void* pre = nheap_alloc_aligned(heap, 200, 128);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(pre), at + 48);
    EXPECT_EQ(chunk_of(pre)->prev_size, 48u);
    EXPECT_EQ(first_in_bin(heap, 2), chunk_of(reinterpret_cast<void*>(at)));
    EXPECT_EQ(stat_of(heap).used_block_count, before.used_block_count + 1);
    EXPECT_EQ(stat_of(heap).free_block_count, before.free_block_count + 1);
    EXPECT_TRUE(nheap_check(heap));

    // A free chunk of the request's own bin that is aligned is reused as it is.
    at = place(heap, 256, 0, keep);
    void* spot = nheap_alloc(heap, 200);
    ASSERT_EQ(reinterpret_cast<std::uintptr_t>(spot), at);
    keep.push_back(nheap_alloc(heap, 300));
    nheap_free(heap, spot);
    nheap_stat freed = stat_of(heap);
    EXPECT_EQ(nheap_alloc_aligned(heap, 200, 256), spot);
    EXPECT_EQ(stat_of(heap).gross_used_byte_count, freed.gross_used_byte_count + n - 16);
}

TEST(HeapAligned, ReallocAlignedKeepsTheAlignment)
{
    Heap heap(0x10000, 0, 0);
    std::vector<void*> keep;
    // A block of a lower alignment than asked is refused.
    std::uintptr_t at = place(heap, 64, 32, keep);
    void* low = nheap_alloc_aligned(heap, 100, 32);
    ASSERT_EQ(reinterpret_cast<std::uintptr_t>(low), at);
    EXPECT_EQ(nheap_realloc_aligned(heap, low, 300, 64), nullptr);
    EXPECT_EQ(nheap_realloc_aligned(heap, low, 300, 48), nullptr);

    // With an inner head, shrinking and growing in place make the inner head follow.
    place(heap, 64, 16, keep);
    void* b = nheap_alloc_aligned(heap, 500, 64);
    std::memset(b, 0x3c, 500);
    EXPECT_EQ(nheap_realloc_aligned(heap, b, 100, 64), b);
    EXPECT_EQ(chunk_of(b)->chunk_size, 128 | CF_RESERVED | CF_ALIGNED); // real chunk 144 less 16
    EXPECT_TRUE(nheap_check(heap));
    EXPECT_EQ(nheap_realloc_aligned(heap, b, 300, 64), b);
    EXPECT_EQ(nheap_msize(heap, b), 320u);
    EXPECT_TRUE(nheap_check(heap));
    keep.push_back(nheap_alloc(heap, 0));
    std::memset(b, 0xc3, 300); // a value found nowhere else in the heap
    void* moved = nheap_realloc_aligned(heap, b, 2000, 64);
    ASSERT_NE(moved, nullptr);
    EXPECT_TRUE(aligned(moved, 64));
    for (int i = 0; i < 300; ++i)
        ASSERT_EQ(static_cast<unsigned char*>(moved)[i], 0xc3) << i;
    EXPECT_EQ(nheap_realloc_aligned(heap, moved, 0, 64), nullptr);
    EXPECT_NE(nheap_realloc_aligned(heap, nullptr, 10, 128), nullptr);
    EXPECT_TRUE(nheap_check(heap));
}

TEST(HeapSupervision, ReportsCorruptionAndDoubleRelease)
{
    Heap heap(0x10000, 0, 0);
    reports().clear();
    EXPECT_EQ(nheap_set_assert_cb(heap, capture), nullptr);
    EXPECT_EQ(nheap_set_assert_cb(heap, capture), capture);
    // Ordinary work under supervision reports nothing.
    void* a = nheap_alloc(heap, 100);
    nheap_alloc(heap, 100); // a's neighbour stays reserved
    a = nheap_realloc(heap, a, 40);
    nheap_free(heap, nheap_realloc_aligned(heap, nheap_alloc_aligned(heap, 100, 256), 1000, 256));
    EXPECT_TRUE(reports().empty());

    // Double release: the missing flag, then the heap found broken on the way out.
    nheap_free(heap, a);
    nheap_free(heap, a);
    EXPECT_EQ(reports(), (std::vector<std::string>{"TEST_CHUNK_FLAG(chunk,CF_RESERVED)|memheap/memheap",
                                                   "# inconsistent heap #|memheap/memheap"}));
    reports().clear();
    EXPECT_EQ(nheap_msize(heap, a), 128u); // merged with the part the shrink cut off
    EXPECT_EQ(reports(), std::vector<std::string>{"TEST_CHUNK_FLAG(chunk,CF_RESERVED)|memheap/memheap"});

    // An overwritten head: the walk fails, and each operation reports on entry and on leaving.
    Heap other(0x10000, 0, 0);
    void* x = nheap_alloc(other, 64);
    void* y = nheap_alloc(other, 64);
    CHUNK_HEAD saved = *chunk_of(y);
    chunk_of(y)->chunk_size = 0x1235;
    EXPECT_FALSE(nheap_check(other));
    *chunk_of(y) = saved;
    chunk_of(y)->prev_size = 0x40;
    EXPECT_FALSE(nheap_check(other));
    reports().clear();
    nheap_set_assert_cb(other, capture);
    nheap_free(other, nheap_alloc(other, 10));
    EXPECT_EQ(reports(), std::vector<std::string>(4, "# inconsistent heap #|memheap/memheap"));
    *chunk_of(y) = saved;
    reports().clear();
    nheap_free(other, x);
    EXPECT_TRUE(reports().empty());
}

TEST(HeapSupervision, IsolatedUsageBracket)
{
    Heap heap(0x10000, 0, 0);
    nheap_set_assert_cb(heap, capture);
    reports().clear();
    nheap_enter_isolated_usage(heap);
    nheap_free(heap, nheap_alloc(heap, 300));
    nheap_leave_isolated_usage(heap);
    EXPECT_TRUE(reports().empty());

    // A block left behind: three values differ; the free chunk count stays (the chunk was split).
    const std::string at = "|memheap/memheap_check";
    nheap_enter_isolated_usage(heap);
    void* left = nheap_alloc(heap, 300);
    nheap_leave_isolated_usage(heap);
    EXPECT_EQ(reports(), (std::vector<std::string>{
                             "heap_state->stat.free_byte_count == saved_stat->free_byte_count" + at,
                             "heap_state->stat.gross_used_byte_count == saved_stat->gross_used_byte_count" + at,
                             "heap_state->stat.used_block_count == saved_stat->used_block_count" + at}));
    // Releasing it in front of another block changes the free chunk count as well.
    nheap_alloc(heap, 0);
    reports().clear();
    nheap_enter_isolated_usage(heap);
    nheap_free(heap, left);
    nheap_leave_isolated_usage(heap);
    ASSERT_EQ(reports().size(), 4u);
    EXPECT_EQ(reports().back(), "heap_state->stat.free_block_count == saved_stat->free_block_count" + at);

    // Nesting beyond one and leaving with no bracket are reported; the count stays in range.
    reports().clear();
    nheap_enter_isolated_usage(heap);
    nheap_enter_isolated_usage(heap);
    EXPECT_EQ(heap->stat_stack_count, 1u);
    nheap_leave_isolated_usage(heap);
    nheap_leave_isolated_usage(heap);
    EXPECT_EQ(heap->stat_stack_count, 0u);
    EXPECT_EQ(reports(), (std::vector<std::string>{"heap_state->stat_stack_count < NHEAP_ISOLATED_USAGE_MAX_NESTING" + at,
                                                   "heap_state->stat_stack_count > 0" + at}));
}
