// Tests of the B+ tree: step by step against std::map with an invariant walker, the split and
// merge shapes, iterators, clearing, and exhaustion at every allocation of a scripted workload.
// Host test code: uses the container through btree/btree.h, with counting hooks of its own.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <numeric>
#include <random>
#include <string>
#include <unordered_set>
#include <vector>

#include "btree/btree.h"

using namespace orlix;
using Keys = std::vector<std::uint64_t>;

namespace {

std::uint64_t load(const void* p) { std::uint64_t v; std::memcpy(&v, p, 8); return v; }
std::int32_t less_u64(const void* a, const void* b) { return load(a) < load(b); }
std::int32_t equal_u64(const void* a, const void* b) { return load(a) == load(b); }

struct Value { std::uint64_t key, tag; };

// Hooks that count calls, know every live block, and can fail one chosen call (1-based; 0 never).
struct Heap {
    std::unordered_set<void*> live;
    std::uint64_t allocs = 0, releases = 0, bad_releases = 0, fail_at = 0;
    static void* alloc(void* ctx, std::size_t size)
    {
        auto* h = static_cast<Heap*>(ctx);
        void* p = ++h->allocs == h->fail_at ? nullptr : std::malloc(size);
        return p ? *h->live.insert(p).first : nullptr;
    }
    static void release(void* ctx, void* block)
    {
        auto* h = static_cast<Heap*>(ctx);
        h->releases += 1, h->bad_releases += h->live.erase(block) == 0;
        std::free(block);
    }
};

bool ins(btree* t, std::uint64_t k, std::uint64_t tag = 0, bool replace = false)
{
    return btree_insert(t, &k, std::array{k, tag}.data(), replace);
}
bool rem(btree* t, std::uint64_t k) { return btree_remove(t, &k); }
// A tree of keys 10, 20, ... 10 * n.
btree* make_tree(Heap& heap, std::uint64_t n = 0)
{
    btree* t = btree_new_ex(8, sizeof(Value), less_u64, equal_u64, &heap, Heap::alloc, Heap::release);
    for (std::uint64_t k = 10; t && k <= 10 * n; k += 10)
        ins(t, k);
    return t;
}
const btree_node* child(const btree_node* n, int i) { return static_cast<const btree_node*>(n->slot[i]); }

// Walks the whole tree; returns the first broken invariant, or "".
std::string check(const btree* t)
{
    std::vector<std::vector<const btree_node*>> levels;
    std::uint64_t entries = 0;
    std::string err;
    auto fail = [&](const std::string& what) { err = err.empty() ? what : err; };
    auto visit = [&](auto& self, const btree_node* n, std::size_t depth) -> void {
        levels.resize(std::max(levels.size(), depth + 1));
        levels[depth].push_back(n);
        const bool leaf = n->values != nullptr, root = n == t->root;
        if (n->tree != t || n->count > 16 || (!root && n->count < 8) || (root && !leaf && n->count < 2))
            fail("fill " + std::to_string(n->count) + " at depth " + std::to_string(depth));
        for (std::uint32_t i = 0; i < 16; ++i) {
            if (n->key[i] != n->key_store + i * 8 || (leaf && n->slot[i] != n->key_store + 128 + i * sizeof(Value)))
                fail("storage pointers moved");
            if (i > 0 && i < n->count && !(load(n->key[i - 1]) < load(n->key[i])))
                fail("keys not ascending in a node");
        }
        entries += leaf ? n->count : 0;
        for (std::uint32_t i = 0; !leaf && i < n->count; ++i) {
            const btree_node* c = child(n, i);
            if (c == nullptr || c->parent != n)
                return fail("child without its parent");
            while (c->values == nullptr)
                c = child(c, 0);
            if (load(n->key[i]) != load(c->key[0]))
                fail("separator " + std::to_string(load(n->key[i])) + " is not the smallest key below");
            self(self, child(n, i), depth + 1);
        }
    };
    visit(visit, t->root, 0);
    for (std::size_t d = 0; d < levels.size(); ++d)
        for (std::size_t j = 0; j < levels[d].size(); ++j) {
            const btree_node* n = levels[d][j];
            if (n->prev != (j ? levels[d][j - 1] : nullptr) || n->next != (j + 1 < levels[d].size() ? levels[d][j + 1] : nullptr))
                fail("level links broken");
            if ((n->values != nullptr) != (d + 1 == levels.size()))
                fail("leaves at different depths");
        }
    if (t->root->parent != nullptr || entries != t->count)
        fail("tree count " + std::to_string(t->count) + " but " + std::to_string(entries) + " in leaves");
    return err;
}

// The tree holds exactly the model's entries, in order (which, across leaves, is key order).
std::string same_as(btree* t, const std::map<std::uint64_t, Value>& model)
{
    btree_iterator it = btree_begin(t);
    for (auto& [k, v] : model) {
        if (it.key == nullptr || load(it.key) != k || std::memcmp(it.value, &v, sizeof v) != 0)
            return "entry differs at key " + std::to_string(k);
        btree_next(&it);
    }
    return it.valid ? "more entries than the model" : "";
}

std::uint32_t seed()
{
    const char* s = std::getenv("BTREE_TEST_SEED");
    const std::uint32_t seed = s ? std::uint32_t(std::strtoul(s, nullptr, 10)) : std::random_device{}();
    std::printf("btree test seed %u (set BTREE_TEST_SEED to repeat)\n", seed);
    return seed;
}

struct Op { bool insert; std::uint64_t key; bool replace; };

// Results checked on every step, the whole tree every 97 steps. With fail_at, that allocation
// fails: exactly one operation must then fail and leave the tree as it was. Returns the allocations.
std::uint64_t run_against_map(const std::vector<Op>& ops, std::uint64_t fail_at = 0)
{
    Heap heap;
    heap.fail_at = fail_at;
    btree* t = make_tree(heap);
    std::map<std::uint64_t, Value> model;
    bool failed = false;
    for (std::size_t step = 0; step < ops.size(); ++step) {
        const Op& op = ops[step];
        const bool expected = op.insert ? !model.contains(op.key) || op.replace : model.contains(op.key);
        const bool done = op.insert ? ins(t, op.key, step, op.replace) : rem(t, op.key);
        if (done != expected) {
            EXPECT_TRUE(!done && !failed) << "step " << step << ", failing call " << fail_at;
            failed = true;
        } else if (done) {
            op.insert ? (void)(model[op.key] = Value{op.key, step}) : (void)model.erase(op.key);
        }
        auto* found = static_cast<Value*>(btree_find(t, &op.key));
        auto m = model.find(op.key);
        EXPECT_EQ(found ? found->tag : ~0ull, m != model.end() ? m->second.tag : ~0ull) << "step " << step;
        EXPECT_EQ(t->count, model.size());
        if (step % 97 == 0 || step + 1 == ops.size() || done != expected) {
            EXPECT_EQ(check(t), "") << "step " << step << ", failing call " << fail_at;
            EXPECT_EQ(same_as(t, model), "") << "step " << step << ", failing call " << fail_at;
        }
        if (::testing::Test::HasFailure())
            break;
    }
    EXPECT_EQ(failed, fail_at != 0) << "failing call " << fail_at;
    btree_release(t);
    EXPECT_TRUE(heap.live.empty()) << "failing call " << fail_at;
    EXPECT_EQ(heap.bad_releases, 0u);
    return heap.allocs;
}

} // namespace

TEST(BtreeAgainstMap, AscendingDescendingRandomAndDuplicateSequences)
{
    std::mt19937_64 rng(seed());
    // Ascending and descending runs of 5000 fill three levels and empty them from each end,
    // merging across parents.
    std::vector<Op> up, down, random, dupes;
    for (std::uint64_t base = 0; base < 1000000; base += 100000)
        for (std::uint64_t k = 0; k < 10000; ++k) {
            up.push_back({k < 5000, base + k % 5000, false});
            down.push_back({k < 5000, base + 4999 - k % 5000, false});
        }
    for (int i = 0; i < 100000; ++i) {
        const bool growing = (i / 10000) % 2 == 0; // grow and shrink, changing height several times
        random.push_back({rng() % 100 < (growing ? 75u : 25u), rng() % 20000, false});
        dupes.push_back({rng() % 2 == 0, rng() % 400, rng() % 2 == 0});
    }
    for (auto* ops : {&up, &down, &random, &dupes})
        run_against_map(*ops);
}

TEST(BtreeShapes, SplitsBorrowsAndMerges)
{
    // Keys 10 * (1..|n|), ascending (descending for n < 0), then inserted (> 0) or removed (< 0).
    struct Shape { std::int64_t n; std::vector<std::int64_t> ops; Keys root; };
    const Shape shapes[] = {
        {17, {}, {10, 90}},                // a full leaf splits 8 left, 9 right
        {-17, {}, {10, 90}},               // the 17th entry takes position 0 of the left node
        {16, {75}, {10, 80}},              // position 7 stays in the left node
        {16, {85}, {10, 85}},              // position 8 heads the right one
        {17, {-10}, {20, 100}},            // borrows 90 from the right
        {17, {85, -170, -160}, {10, 85}},  // borrows 85 from the left
        {16, {170, -170, -160}, {10, 20, 30, 40, 50, 60, 70, 80, 90, 100, 110, 120, 130, 140, 150}}, // merge
    };
    Heap heap;
    for (const Shape& s : shapes) {
        btree* t = make_tree(heap, std::max<std::int64_t>(s.n, 0));
        for (std::int64_t k = -10 * s.n; k > 0; k -= 10)
            ins(t, k);
        const btree_node* first = nullptr; // leftmost leaf before the last step: survives a merge
        for (std::int64_t op : s.ops) {
            first = t->root->values ? t->root : child(t->root, 0);
            ASSERT_TRUE(op > 0 ? ins(t, op) : rem(t, -op)) << op;
        }
        EXPECT_EQ(check(t), "") << s.n << " " << s.ops.size();
        Keys root;
        for (std::uint32_t i = 0; i < t->root->count; ++i)
            root.push_back(load(t->root->key[i]));
        EXPECT_EQ(root, s.root) << s.n << " " << s.ops.size();
        if (t->root->values == nullptr)
            EXPECT_EQ(child(t->root, 0)->count, 8u);
        else
            EXPECT_EQ(t->root, first);
        btree_release(t);
    }
    EXPECT_TRUE(heap.live.empty());
}

TEST(BtreeIterators, BeginEndStepsAndValidFlags)
{
    Heap heap;
    btree* t = make_tree(heap);
    btree_iterator b = btree_begin(t), e = btree_end(t);
    EXPECT_TRUE(btree_it_equal(&b, &e) && btree_next(&b) == 0);
    btree_release(t);

    t = make_tree(heap, 40);
    std::uint64_t k = 5;
    btree_iterator miss = btree_findit(t, &k);
    e = btree_end(t);
    EXPECT_TRUE(btree_it_equal(&miss, &e));
    // Both walks end showing the last entry they met, invalid; a step back in returns onto it.
    for (bool forward : {true, false}) {
        btree_iterator it = forward ? btree_begin(t) : btree_rbegin(t);
        std::uint64_t expect = forward ? 10 : 400;
        for (; it.key && load(it.key) == expect; expect += forward ? 10 : -10)
            if ((forward ? btree_next(&it) : btree_prev(&it)) == 0)
                break;
        EXPECT_EQ(expect, forward ? 400u : 10u);
        EXPECT_EQ(it.valid, 0u);
        EXPECT_EQ(it.index == BTREE_NO_INDEX, !forward);
        EXPECT_FALSE(btree_it_equal(&it, &e));
        EXPECT_EQ(forward ? btree_prev(&it) : btree_next(&it), 1);
        EXPECT_EQ(load(it.key), expect);
    }
    // Back from the end reaches the last entry without making the iterator valid.
    EXPECT_EQ(btree_prev(&e), 1);
    EXPECT_TRUE(load(e.key) == 400 && e.valid == 0);
    EXPECT_FALSE(btree_removeit(t, &e));
    btree* other = make_tree(heap, 3);
    btree_iterator foreign = btree_begin(other);
    EXPECT_FALSE(btree_removeit(t, &foreign));
    k = 200;
    btree_iterator it = btree_findit(t, &k);
    EXPECT_TRUE(btree_removeit(t, &it));
    EXPECT_EQ(btree_find(t, &k), nullptr);
    btree_release(other);
    btree_release(t);
}

TEST(BtreeLifetime, CreateClearAndReleaseReturnEveryBlockOnce)
{
    Heap heap;
    EXPECT_EQ(btree_new_ex(8, 8, less_u64, equal_u64, &heap, nullptr, Heap::release), nullptr);
    EXPECT_EQ(btree_new_ex(8, 8, less_u64, equal_u64, &heap, Heap::alloc, nullptr), nullptr);
    EXPECT_EQ(heap.allocs + heap.releases, 0u);
    heap.fail_at = 2; // the root leaf
    EXPECT_EQ(make_tree(heap), nullptr);
    EXPECT_EQ(heap.releases, 1u);
    heap.fail_at = 0;
    btree_release(nullptr);

    // Clearing keeps the leftmost leaf as the root and gives back every other node once.
    btree* t = make_tree(heap, 3);
    for (std::uint64_t n : {3, 3000}) {
        for (std::uint64_t k = 0; k < n; ++k)
            ins(t, k);
        const btree_node* leftmost = t->root;
        while (leftmost->values == nullptr)
            leftmost = child(leftmost, 0);
        const std::uint64_t nodes = heap.live.size() - 1, releases = heap.releases;
        btree_clear(t);
        EXPECT_EQ(heap.releases - releases, nodes - 1);
        EXPECT_TRUE(t->root == leftmost && t->count == 0) << n;
    }
    for (std::uint64_t k = 0; k < 100; ++k)
        ASSERT_TRUE(ins(t, k));
    EXPECT_EQ(check(t), "");
    btree_release(t);
    EXPECT_TRUE(heap.live.empty());
    EXPECT_EQ(heap.bad_releases, 0u);

    t = btree_new(8, sizeof(Value), less_u64, equal_u64); // the default hooks: the process heap
    ASSERT_TRUE(t != nullptr && t->alloc == lextras_wrap_malloc && t->release == lextras_wrap_free);
    for (std::uint64_t k = 0; k < 500; ++k)
        ASSERT_TRUE(ins(t, k));
    EXPECT_EQ(check(t), "");
    btree_release(t);
}

TEST(BtreeExhaustion, FailingEveryAllocationOfAWorkloadLosesNothing)
{
    std::mt19937_64 rng(seed());
    std::vector<std::uint64_t> keys(1500);
    std::iota(keys.begin(), keys.end(), 0);
    std::vector<Op> ops;
    for (bool insert : {true, false}) {
        std::shuffle(keys.begin(), keys.end(), rng);
        for (std::uint64_t k : keys)
            ops.push_back({insert, k, false});
    }
    const std::uint64_t allocs = run_against_map(ops);
    for (std::uint64_t n = 3; n <= allocs && !HasFailure(); ++n) // calls 1 and 2 make the tree itself
        run_against_map(ops, n);
}
