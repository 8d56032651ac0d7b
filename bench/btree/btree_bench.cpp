// Benchmark of the B+ tree against std::map with the same comparator, at 1,000,000 entries, for
// the daemon's key shape (pointer to a name, strcmp, 48-byte value) and for plain 64-bit keys.
// Host benchmark code: the tree runs on host malloc through its custom hooks, as std::map does.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <vector>

#include "btree/btree.h"

namespace {

constexpr std::size_t N = 1'000'000;

struct Value48 {
    std::uint64_t word[6];
};

// The daemon's comparators: the key is a pointer to a name.
std::int32_t name_less(const void* a, const void* b)
{
    return std::strcmp(*static_cast<const char* const*>(a), *static_cast<const char* const*>(b)) < 0;
}
std::int32_t name_equal(const void* a, const void* b)
{
    return std::strcmp(*static_cast<const char* const*>(a), *static_cast<const char* const*>(b)) == 0;
}
std::int32_t u64_less(const void* a, const void* b)
{
    return *static_cast<const std::uint64_t*>(a) < *static_cast<const std::uint64_t*>(b);
}
std::int32_t u64_equal(const void* a, const void* b)
{
    return *static_cast<const std::uint64_t*>(a) == *static_cast<const std::uint64_t*>(b);
}

void* host_alloc(void*, std::size_t size) { return std::malloc(size); }
void host_free(void*, void* block) { std::free(block); }

// One key shape: N keys to store and N keys that are absent, each list in random order.
template <typename Key>
struct Shape {
    std::vector<Key> present, absent, remove_order;
};

struct NameShape : Shape<const char*> {
    static constexpr orlix::btree_less_fn less = name_less;
    static constexpr orlix::btree_equal_fn equal = name_equal;
    struct Less {
        bool operator()(const char* a, const char* b) const { return name_less(&a, &b) != 0; }
    };
    std::vector<char> arena;
    NameShape()
    {
        // Names like user accounts: a common prefix and 8 digits, laid out in random order.
        std::mt19937_64 rng(1);
        std::vector<std::uint32_t> numbers(2 * N);
        for (std::size_t i = 0; i < numbers.size(); ++i)
            numbers[i] = std::uint32_t(i * 37 + 11) % 100'000'000u;
        std::shuffle(numbers.begin(), numbers.end(), rng);
        arena.resize(numbers.size() * 16);
        for (std::size_t i = 0; i < numbers.size(); ++i) {
            std::snprintf(&arena[i * 16], 16, "user%08u", numbers[i]);
            (i < N ? present : absent).push_back(&arena[i * 16]);
        }
        remove_order = present;
        std::shuffle(remove_order.begin(), remove_order.end(), rng);
    }
};

struct U64Shape : Shape<std::uint64_t> {
    static constexpr orlix::btree_less_fn less = u64_less;
    static constexpr orlix::btree_equal_fn equal = u64_equal;
    struct Less {
        bool operator()(std::uint64_t a, std::uint64_t b) const { return u64_less(&a, &b) != 0; }
    };
    U64Shape()
    {
        std::mt19937_64 rng(2);
        std::vector<std::uint64_t> keys(2 * N);
        for (auto& k : keys)
            k = rng() & ~std::uint64_t(1);
        std::sort(keys.begin(), keys.end());
        keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
        std::shuffle(keys.begin(), keys.end(), rng);
        present.assign(keys.begin(), keys.begin() + N);
        for (std::size_t i = 0; i < N; ++i)
            absent.push_back(keys[i] | 1); // odd, never stored
        remove_order = present;
        std::shuffle(remove_order.begin(), remove_order.end(), rng);
    }
};

template <typename S>
S& shape()
{
    static S s;
    return s;
}

template <typename S>
struct Btree {
    orlix::btree* t = orlix::btree_new_ex(sizeof(typename decltype(S::present)::value_type), sizeof(Value48), S::less,
                                          S::equal, nullptr, host_alloc, host_free);
    ~Btree() { orlix::btree_release(t); }
    void insert(const auto& key, const Value48& v) { orlix::btree_insert(t, &key, &v, false); }
    const void* find(const auto& key) { return orlix::btree_find(t, &key); }
    void remove(const auto& key) { orlix::btree_remove(t, &key); }
    std::uint64_t walk()
    {
        std::uint64_t sum = 0;
        orlix::btree_iterator it = orlix::btree_begin(t);
        if (it.valid)
            do
                sum += static_cast<const Value48*>(it.value)->word[0];
            while (orlix::btree_next(&it));
        return sum;
    }
};

template <typename S>
struct Map {
    std::map<typename decltype(S::present)::value_type, Value48, typename S::Less> m;
    void insert(const auto& key, const Value48& v) { m.emplace(key, v); }
    const void* find(const auto& key)
    {
        auto it = m.find(key);
        return it == m.end() ? nullptr : &it->second;
    }
    void remove(const auto& key) { m.erase(key); }
    std::uint64_t walk()
    {
        std::uint64_t sum = 0;
        for (auto& [k, v] : m)
            sum += v.word[0];
        return sum;
    }
};

template <typename C, typename S>
void fill(C& c, S& s)
{
    Value48 v{};
    for (auto& k : s.present) {
        ++v.word[0];
        c.insert(k, v);
    }
}

void per_op(benchmark::State& state)
{
    state.SetItemsProcessed(std::int64_t(state.iterations()) * N);
    state.counters["per_op"] =
        benchmark::Counter(double(N), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

template <template <typename> class C, typename S>
void BM_insert_random(benchmark::State& state)
{
    S& s = shape<S>();
    for (auto _ : state) {
        auto* c = new C<S>;
        fill(*c, s);
        state.PauseTiming();
        delete c;
        state.ResumeTiming();
    }
    per_op(state);
}

template <template <typename> class C, typename S>
void BM_find_hit(benchmark::State& state)
{
    S& s = shape<S>();
    C<S> c;
    fill(c, s);
    for (auto _ : state)
        for (auto& k : s.remove_order)
            benchmark::DoNotOptimize(c.find(k));
    per_op(state);
}

template <template <typename> class C, typename S>
void BM_find_miss(benchmark::State& state)
{
    S& s = shape<S>();
    C<S> c;
    fill(c, s);
    for (auto _ : state)
        for (auto& k : s.absent)
            benchmark::DoNotOptimize(c.find(k));
    per_op(state);
}

template <template <typename> class C, typename S>
void BM_remove_random(benchmark::State& state)
{
    S& s = shape<S>();
    for (auto _ : state) {
        state.PauseTiming();
        auto* c = new C<S>;
        fill(*c, s);
        state.ResumeTiming();
        for (auto& k : s.remove_order)
            c->remove(k);
        state.PauseTiming();
        delete c;
        state.ResumeTiming();
    }
    per_op(state);
}

template <template <typename> class C, typename S>
void BM_iterate(benchmark::State& state)
{
    S& s = shape<S>();
    C<S> c;
    fill(c, s);
    for (auto _ : state)
        benchmark::DoNotOptimize(c.walk());
    per_op(state);
}

// The tree and std::map one after the other, so that each pair prints side by side.
#define SIDE_BY_SIDE(op, shape_type, label, iters)                                                       \
    BENCHMARK(BM_##op<Btree, shape_type>)                                                                \
        ->Name(#op "/" label "/btree[host-malloc-hooks]")                                                \
        ->Unit(benchmark::kMillisecond)                                                                  \
        ->Iterations(iters);                                                                             \
    BENCHMARK(BM_##op<Map, shape_type>)->Name(#op "/" label "/std::map")->Unit(benchmark::kMillisecond)->Iterations(iters)

SIDE_BY_SIDE(insert_random, NameShape, "name_ptr_strcmp_v48", 3);
SIDE_BY_SIDE(find_hit, NameShape, "name_ptr_strcmp_v48", 3);
SIDE_BY_SIDE(find_miss, NameShape, "name_ptr_strcmp_v48", 3);
SIDE_BY_SIDE(remove_random, NameShape, "name_ptr_strcmp_v48", 3);
SIDE_BY_SIDE(iterate, NameShape, "name_ptr_strcmp_v48", 20);
SIDE_BY_SIDE(insert_random, U64Shape, "u64_v48", 3);
SIDE_BY_SIDE(find_hit, U64Shape, "u64_v48", 3);
SIDE_BY_SIDE(find_miss, U64Shape, "u64_v48", 3);
SIDE_BY_SIDE(remove_random, U64Shape, "u64_v48", 3);
SIDE_BY_SIDE(iterate, U64Shape, "u64_v48", 20);

} // namespace

BENCHMARK_MAIN();
