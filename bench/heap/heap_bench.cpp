// nheap against the host's malloc on the same workloads, printed side by side: pairs of three
// size classes, a churn of 10,000 live blocks, realloc growth, two threads, memory held.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <random>
#include <vector>

#include "memheap/memheap.h"

namespace {

// The process heap's shape: 64 KiB to start, growing by 256 KiB, at most 2 GiB.
orlix::heap_state* shared_heap()
{
    static orlix::heap_state* heap = orlix::nheap_create(0x10000, 0x40000, 0x80000000);
    return heap;
}

struct Nheap {
    static void* alloc(std::size_t n) { return orlix::nheap_alloc(shared_heap(), n); }
    static void* realloc(void* p, std::size_t n) { return orlix::nheap_realloc(shared_heap(), p, n); }
    static void free(void* p) { orlix::nheap_free(shared_heap(), p); }
};

struct Host {
    static void* alloc(std::size_t n) { return std::malloc(n); }
    static void* realloc(void* p, std::size_t n) { return std::realloc(p, n); }
    static void free(void* p) { std::free(p); }
};

std::vector<std::size_t> sizes(std::size_t lo, std::size_t hi, std::size_t count, unsigned seed)
{
    std::mt19937 rng(seed);
    std::uniform_int_distribution<std::size_t> dist(lo, hi);
    std::vector<std::size_t> out(count);
    for (auto& s : out)
        s = dist(rng);
    return out;
}

template <typename A> void Pairs(benchmark::State& state)
{
    auto table = sizes(static_cast<std::size_t>(state.range(0)), static_cast<std::size_t>(state.range(1)), 4096,
                       static_cast<unsigned>(state.thread_index() + 1));
    std::size_t i = 0;
    for (auto _ : state) {
        void* p = A::alloc(table[i++ & 4095]);
        benchmark::DoNotOptimize(p);
        A::free(p);
    }
    state.SetItemsProcessed(state.iterations());
}

// 10,000 live blocks of 8..512 bytes; each step frees one at random and allocates a new one.
template <typename A> void Churn(benchmark::State& state)
{
    constexpr std::size_t LIVE = 10000;
    auto table = sizes(8, 512, 1 << 16, 7);
    std::mt19937 rng(11);
    std::vector<void*> blocks(LIVE);
    std::vector<std::size_t> held(LIVE);
    std::size_t live_bytes = 0;
    std::size_t t = 0;
    for (std::size_t k = 0; k < LIVE; ++k) {
        held[k] = table[t++ & 0xffff];
        blocks[k] = A::alloc(held[k]);
        live_bytes += held[k];
    }
    for (auto _ : state) {
        std::size_t k = rng() % LIVE;
        A::free(blocks[k]);
        live_bytes -= held[k];
        held[k] = table[t++ & 0xffff];
        blocks[k] = A::alloc(held[k]);
        live_bytes += held[k];
        benchmark::DoNotOptimize(blocks[k]);
    }
    if constexpr (std::is_same_v<A, Nheap>)
        state.counters["held_per_live"] =
            static_cast<double>(shared_heap()->heap_size) / static_cast<double>(live_bytes);
    for (void* p : blocks)
        A::free(p);
    state.SetItemsProcessed(state.iterations());
}

// One block grown from 16 bytes to 1 MiB by halves, then released.
template <typename A> void ReallocGrowth(benchmark::State& state)
{
    for (auto _ : state) {
        void* p = A::alloc(16);
        for (std::size_t n = 24; n <= (1u << 20); n += n / 2) {
            p = A::realloc(p, n);
            static_cast<char*>(p)[n - 1] = 1;
        }
        benchmark::DoNotOptimize(p);
        A::free(p);
    }
    state.SetItemsProcessed(state.iterations());
}

#define SIDE_BY_SIDE(fn, label, ...)                                                                        \
    BENCHMARK_TEMPLATE(fn, Nheap)->Name(label "<nheap>") __VA_ARGS__;                                         \
    BENCHMARK_TEMPLATE(fn, Host)->Name(label "<host>") __VA_ARGS__

// Benchmarks run in this order. The first ones run while the process has a single thread, when
// the host's allocator skips its atomic operations (the heap's mutex never does). Once the
// two-thread run has started threads, the process stays multi-threaded, as a server is: the last
// two show the same workloads in that state, and the two-thread run's time per operation over
// both threads is to be set against the one-thread run after it.
SIDE_BY_SIDE(Pairs, "Pairs/single-threaded-process", ->Args({16, 128}));
SIDE_BY_SIDE(Pairs, "Pairs/single-threaded-process", ->Args({129, 4096}));
SIDE_BY_SIDE(Pairs, "Pairs/single-threaded-process", ->Args({4096, 256 * 1024}));
SIDE_BY_SIDE(Churn, "Churn/single-threaded-process", );
SIDE_BY_SIDE(ReallocGrowth, "ReallocGrowth/single-threaded-process", );
SIDE_BY_SIDE(Pairs, "Pairs/two-threads", ->Args({16, 128})->Threads(2)->UseRealTime());
SIDE_BY_SIDE(Pairs, "Pairs/multi-threaded-process", ->Args({16, 128}));
SIDE_BY_SIDE(Churn, "Churn/multi-threaded-process", );

} // namespace

BENCHMARK_MAIN();
