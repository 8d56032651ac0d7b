// nheap under long seeded random sequences (integrity walk, statistics, contents of live blocks,
// areas coming and going, bins against plain sorted lists) and two threads on one heap.
#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <thread>
#include <utility>

#include "heap_test_util.h"

using namespace orlix;
using namespace heap_test;

namespace {

std::uint64_t seed_for(const char* test)
{
    const char* env = std::getenv("HEAP_TEST_SEED");
    std::uint64_t seed = env != nullptr ? std::strtoull(env, nullptr, 0) : std::random_device{}();
    std::printf("%s: seed %llu (HEAP_TEST_SEED to repeat)\n", test, static_cast<unsigned long long>(seed));
    return seed;
}

struct Live {
    unsigned char* p;
    std::uint64_t size, alignment; // alignment 0: an ordinary block
    unsigned char tag;
    bool intact(std::uint64_t upto) const { return std::count(p, p + upto, tag) == std::ptrdiff_t(upto); }
    bool placed() const { return reinterpret_cast<std::uintptr_t>(p) % std::max<std::uint64_t>(alignment, 16) == 0; }
};

std::uint64_t random_size(std::mt19937_64& rng)
{
    const unsigned kind = rng() % 100;
    return kind < 75 ? rng() % 257 : kind < 97 ? 257 + rng() % 8000 : 8192 + rng() % (128 * 1024);
}

// One random sequence on a growing heap. With check_every, the walk and the statistics are
// checked that often; without, other threads may share the heap.
void run_sequence(heap_state* heap, std::uint64_t seed, int operations, std::size_t max_live, int check_every)
{
    static constexpr std::uint64_t ALIGNMENTS[] = {0, 16, 32, 64, 128, 256, 4096};
    std::mt19937_64 rng(seed);
    std::vector<Live> live;
    for (int op = 0; op < operations; ++op) {
        unsigned what = rng() % 100;
        if (live.size() >= max_live && what < 45)
            what = 45 + what % 30; // full: free instead
        const std::size_t i = live.empty() ? 0 : rng() % live.size();
        if (what < 45 || live.empty()) { // a tenth are aligned blocks; some come from realloc
            const std::uint64_t a = what < 35 ? 0 : ALIGNMENTS[rng() % 7];
            Live b{nullptr, random_size(rng), what < 35 ? 0 : std::max<std::uint64_t>(a, 32), static_cast<unsigned char>(rng())};
            b.p = static_cast<unsigned char*>(what < 30 ? nheap_alloc(heap, b.size)
                                              : what < 35 ? nheap_realloc(heap, nullptr, b.size)
                                                          : nheap_alloc_aligned(heap, b.size, a));
            ASSERT_TRUE(b.p != nullptr && b.placed()) << "op " << op;
            ASSERT_GE(nheap_msize(heap, b.p), b.size + 16);
            std::memset(b.p, b.tag, b.size);
            live.push_back(b);
        } else { // a release, or a resize (to 0: a release too)
            Live& b = live[i];
            ASSERT_TRUE(b.intact(b.size)) << "op " << op;
            const std::uint64_t size = what < 75 ? 0 : random_size(rng);
            void* p = what < 75       ? (nheap_free(heap, b.p), nullptr)
                      : b.alignment ? nheap_realloc_aligned(heap, b.p, size, b.alignment)
                                    : nheap_realloc(heap, b.p, size);
            ASSERT_EQ(p == nullptr, size == 0) << "op " << op << " size " << size;
            if (size == 0) {
                live[i] = live.back();
                live.pop_back();
            } else {
                b.p = static_cast<unsigned char*>(p);
                ASSERT_TRUE(b.intact(std::min(b.size, size)) && b.placed()) << "op " << op;
                b.size = size;
                b.tag = static_cast<unsigned char>(b.tag + 1 + rng() % 255); // stale copies can't pass
                std::memset(b.p, b.tag, b.size);
            }
        }
        if (check_every != 0 && op % check_every == 0) {
            ASSERT_TRUE(nheap_check(heap)) << "op " << op;
            const nheap_stat s = stat_of(heap);
            ASSERT_EQ(s.used_block_count, live.size()) << "op " << op;
            ASSERT_EQ(s.free_byte_count, heap->heap_size - s.gross_used_byte_count) << "op " << op;
            ASSERT_TRUE(s.min_free_byte_count <= s.free_byte_count && s.max_used_block_count >= s.used_block_count &&
                        s.max_free_block_count >= s.free_block_count &&
                        s.max_gross_used_byte_count >= s.gross_used_byte_count) << "op " << op;
        }
    }
    ASSERT_TRUE(check_every == 0 || nheap_check(heap));
    for (Live& b : live) {
        ASSERT_TRUE(b.intact(b.size));
        nheap_free(heap, b.p);
    }
}

// Every bin as a list of (chunk, size), small bins first.
using Bins = std::vector<std::vector<std::pair<CHUNK_HEAD*, std::uint64_t>>>;

Bins snapshot(heap_state* heap)
{
    Bins bins(13 + heap->large_bin_count);
    for (std::uint64_t i = 0; i < bins.size(); ++i) {
        auto* head = reinterpret_cast<CHUNK_HEAD*>(reinterpret_cast<char*>(heap->small_bins) + i * 16);
        for (CHUNK_HEAD* c = first_in_bin(heap, i); c != nullptr && c != head; c = next_in_bin(c))
            bins[i].emplace_back(c, c->chunk_size);
    }
    return bins;
}

// The chunk a bin-by-bin scan of plain lists gives for a chunk of n bytes.
CHUNK_HEAD* plain_fit(const Bins& bins, std::uint64_t n)
{
    std::uint64_t start = n <= 128 ? (n <= 32 ? 0 : ((n - 33) >> 3) + 1) : 13 + 56 - std::countl_zero(n);
    for (std::uint64_t i = start; i < bins.size(); ++i)
        for (auto [c, size] : bins[i])
            if (size >= n)
                return c;
    return nullptr;
}

// The bins after an operation, from those before it: the chunks that left go, and the one chunk
// filed goes to the front of a small bin or in front of the first chunk not smaller than itself.
Bins predicted(const Bins& before, const Bins& after)
{
    Bins out = before;
    for (std::size_t i = 0; i < out.size(); ++i) {
        auto& bin = out[i];
        auto in = [](const auto& list, const auto& e) { return std::find(list.begin(), list.end(), e) != list.end(); };
        std::erase_if(bin, [&](const auto& e) { return !in(after[i], e); });
        for (const auto& e : after[i]) {
            if (in(before[i], e))
                continue;
            auto not_smaller = [&](const auto& o) { return o.second >= e.second; };
            bin.insert(i < 13 ? bin.begin() : std::find_if(bin.begin(), bin.end(), not_smaller), e);
        }
    }
    return out;
}

} // namespace

TEST(HeapRandom, BinsBehaveAsPlainSortedLists)
{
    std::mt19937_64 rng(seed_for("HeapRandom.Plain"));
    Heap heap(1 << 20, 0, 0);
    std::vector<void*> live;
    auto request = [&]() -> std::uint64_t { // mostly chunk sizes 144..2032, with many repeats
        const unsigned kind = rng() % 100;
        return kind < 75 ? 113 + 16 * (rng() % 120) + rng() % 4 : kind < 90 ? rng() % 113 : 2033 + rng() % 4000;
    };
    for (int op = 0; op < 6000; ++op) {
        const Bins before = snapshot(heap);
        const unsigned what = rng() % 100;
        const std::size_t i = live.empty() ? 0 : rng() % live.size();
        bool moved = false;
        if (live.empty() || (what < 50 && live.size() < 500)) {
            const std::uint64_t size = request();
            CHUNK_HEAD* expected = plain_fit(before, std::max<std::uint64_t>(((size + 15) & ~std::uint64_t{15}) + 16, 32));
            live.push_back(nheap_alloc(heap, size));
            ASSERT_TRUE(live.back() && chunk_of(live.back()) == expected) << "op " << op << " size " << size;
        } else if (what < 90) {
            nheap_free(heap, live[i]);
            live[i] = live.back();
            live.pop_back();
        } else {
            void* p = nheap_realloc(heap, live[i], request() + 1);
            ASSERT_NE(p, nullptr);
            moved = p != std::exchange(live[i], p); // an allocation and a release: no single prediction
        }
        const Bins after = snapshot(heap);
        ASSERT_TRUE(moved || after == predicted(before, after)) << "op " << op;
        ASSERT_TRUE(nheap_check(heap)) << "op " << op;
    }

    // The walk notices an index that disagrees with the bins: a size marked present that is not.
    const std::uint64_t absent = std::uint64_t{1} << std::countr_one(heap->run_sizes[3]);
    heap->run_sizes[3] ^= absent;
    EXPECT_FALSE(nheap_check(heap));
    heap->run_sizes[3] ^= absent;
    for (void* p : live)
        nheap_free(heap, p);
}

TEST(HeapRandom, LongSequencesKeepTheHeapConsistent)
{
    const std::uint64_t seed = seed_for("HeapRandom");
    Heap heap(0x10000, 0x10000, 0);
    run_sequence(heap, seed, 100000, 1500, 7);
    // Everything released: only the first area is left, as one free chunk.
    EXPECT_EQ(settled(heap), (U64s{0, 1, 0x10000}));
    EXPECT_GE(stat_of(heap).max_used_block_count, 1000u);
    EXPECT_TRUE(nheap_check(heap));
    // The same under supervision: ordinary work never reports.
    Heap watched(0x10000, 0x10000, 0);
    nheap_set_assert_cb(watched, capture);
    reports.clear();
    run_sequence(watched, seed + 1, 8000, 150, 50);
    EXPECT_EQ(reports, std::vector<std::string>{});
}

TEST(HeapThreads, TwoThreadsOnOneHeap)
{
    const std::uint64_t seed = seed_for("HeapThreads");
    Heap heap(0x10000, 0x10000, 0);
    std::thread a(run_sequence, heap.h, seed, 100000, 400, 0), b(run_sequence, heap.h, seed * 31 + 7, 100000, 400, 0);
    a.join();
    b.join();
    EXPECT_TRUE(nheap_check(heap));
    EXPECT_EQ(settled(heap), (U64s{0, 1, 0x10000}));
}
