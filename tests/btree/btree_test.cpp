// Tests of the B+ tree: step by step against std::map with an invariant walker, the split and
// merge shapes, iterators, clearing, and exhaustion at every allocation of a scripted workload.
// Host test code: uses the container through btree/btree.h, with counting hooks of its own.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <unordered_set>
#include <vector>

#include "btree/btree.h"

using namespace orlix;

namespace {

std::uint64_t load(const void* p)
{
    std::uint64_t v;
    std::memcpy(&v, p, 8);
    return v;
}
std::int32_t less_u64(const void* a, const void* b) { return load(a) < load(b); }
std::int32_t equal_u64(const void* a, const void* b) { return load(a) == load(b); }

struct Value {
    std::uint64_t key, tag;
};

// Hooks that count calls, know every live block, and can fail one chosen call.
struct Heap {
    std::unordered_set<void*> live;
    std::uint64_t allocs = 0, releases = 0, bad_releases = 0, fail_at = 0; // fail_at: 1-based, 0 never
    static void* alloc(void* ctx, std::size_t size)
    {
        auto* h = static_cast<Heap*>(ctx);
        if (++h->allocs == h->fail_at)
            return nullptr;
        void* p = std::malloc(size);
        h->live.insert(p);
        return p;
    }
    static void release(void* ctx, void* block)
    {
        auto* h = static_cast<Heap*>(ctx);
        ++h->releases;
        h->bad_releases += h->live.erase(block) == 0;
        std::free(block);
    }
};

btree* make_tree(Heap& heap) { return btree_new_ex(8, sizeof(Value), less_u64, equal_u64, &heap, Heap::alloc, Heap::release); }
bool ins(btree* t, std::uint64_t k, std::uint64_t tag = 0, bool replace = false)
{
    Value v{k, tag};
    return btree_insert(t, &k, &v, replace);
}
bool rem(btree* t, std::uint64_t k) { return btree_remove(t, &k); }
const btree_node* child(const btree_node* n, int i) { return static_cast<const btree_node*>(n->slot[i]); }

// Walks the whole tree; returns the first broken invariant, or "".
std::string check(const btree* t)
{
    std::vector<std::vector<const btree_node*>> levels;
    std::uint64_t entries = 0;
    std::string err;
    auto fail = [&](const std::string& what) { err = err.empty() ? what : err; };
    auto smallest = [](const btree_node* n) {
        while (n->values == nullptr)
            n = child(n, 0);
        return load(n->key[0]);
    };
    auto visit = [&](auto& self, const btree_node* n, std::size_t depth) -> void {
        levels.resize(std::max(levels.size(), depth + 1));
        levels[depth].push_back(n);
        const bool leaf = n->values != nullptr, root = n == t->root;
        if (n->tree != t || n->count > 16 || (!root && n->count < 8) || (root && !leaf && n->count < 2))
            fail("fill " + std::to_string(n->count) + " at depth " + std::to_string(depth));
        for (std::uint32_t i = 0; i < 16; ++i)
            if (n->key[i] != n->key_store + i * 8 || (leaf && n->slot[i] != n->key_store + 128 + i * sizeof(Value)))
                fail("storage pointers moved");
        for (std::uint32_t i = 1; i < n->count; ++i)
            if (!(load(n->key[i - 1]) < load(n->key[i])))
                fail("keys not ascending in a node");
        entries += leaf ? n->count : 0;
        for (std::uint32_t i = 0; !leaf && i < n->count; ++i) {
            if (child(n, i) == nullptr || child(n, i)->parent != n)
                return fail("child without its parent");
            if (load(n->key[i]) != smallest(child(n, i)))
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

btree* ascending_tree(Heap& heap, std::uint64_t n) // keys 10, 20, ... 10 * n
{
    btree* t = make_tree(heap);
    for (std::uint64_t k = 10; k <= 10 * n; k += 10)
        ins(t, k);
    return t;
}

std::vector<std::uint64_t> keys_of(const btree_node* n)
{
    std::vector<std::uint64_t> out;
    for (std::uint32_t i = 0; i < n->count; ++i)
        out.push_back(load(n->key[i]));
    return out;
}

struct Op {
    bool insert;
    std::uint64_t key;
    bool replace;
};

// Results checked on every step, the whole tree every 97 steps.
void run_against_map(const std::vector<Op>& ops)
{
    Heap heap;
    btree* t = make_tree(heap);
    std::map<std::uint64_t, Value> model;
    for (std::size_t step = 0; step < ops.size(); ++step) {
        const Op& op = ops[step];
        if (op.insert) {
            auto [pos, added] = model.try_emplace(op.key, Value{op.key, step});
            if (!added && op.replace)
                pos->second.tag = step;
            ASSERT_EQ(ins(t, op.key, step, op.replace), added || op.replace) << "step " << step;
        } else {
            ASSERT_EQ(rem(t, op.key), model.erase(op.key) == 1) << "step " << step;
        }
        auto* found = static_cast<Value*>(btree_find(t, &op.key));
        auto m = model.find(op.key);
        ASSERT_EQ(found ? found->tag : ~0ull, m != model.end() ? m->second.tag : ~0ull) << "step " << step;
        ASSERT_EQ(t->count, model.size());
        if (step % 97 == 0 || step + 1 == ops.size()) {
            ASSERT_EQ(check(t), "") << "step " << step;
            ASSERT_EQ(same_as(t, model), "") << "step " << step;
        }
    }
    btree_release(t);
    EXPECT_TRUE(heap.live.empty());
    EXPECT_EQ(heap.bad_releases, 0u);
}

} // namespace

TEST(BtreeAgainstMap, AscendingDescendingRandomAndDuplicateSequences)
{
    std::mt19937_64 rng(seed());
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

TEST(BtreeShapes, SplitsKeepEightLeftAndNineRight)
{
    Heap heap;
    for (bool ascending : {true, false}) { // descending, the 17th entry takes position 0 of the left node
        btree* t = make_tree(heap);
        for (std::uint64_t i = 1; i <= 17; ++i)
            ins(t, ascending ? 10 * i : 180 - 10 * i);
        EXPECT_EQ(check(t), "");
        EXPECT_EQ(keys_of(child(t->root, 0)), (std::vector<std::uint64_t>{10, 20, 30, 40, 50, 60, 70, 80}));
        EXPECT_EQ(keys_of(t->root), (std::vector<std::uint64_t>{10, 90}));
        btree_release(t);
    }
    // A full leaf 10..160: position 7 stays in the left node, position 8 heads the right one.
    for (std::uint64_t key : {75u, 85u}) {
        btree* t = ascending_tree(heap, 16);
        ASSERT_TRUE(ins(t, key));
        EXPECT_EQ(check(t), "");
        EXPECT_EQ(child(t->root, 0)->count, 8u);
        EXPECT_EQ(keys_of(t->root), (std::vector<std::uint64_t>{10, key == 75 ? 80u : 85u}));
        btree_release(t);
    }
    EXPECT_TRUE(heap.live.empty());
}

TEST(BtreeShapes, BorrowMergeAndHeightShrink)
{
    Heap heap;
    btree* t = ascending_tree(heap, 17); // [10..80] [90..170]: removing 10 borrows 90 from the right
    rem(t, 10);
    EXPECT_EQ(check(t), "");
    EXPECT_EQ(keys_of(t->root), (std::vector<std::uint64_t>{20, 100}));
    btree_release(t);

    t = ascending_tree(heap, 17); // [10..85] [90..160]: removing 160 borrows 85 from the left
    ins(t, 85), rem(t, 170), rem(t, 160);
    EXPECT_EQ(check(t), "");
    EXPECT_EQ(keys_of(t->root), (std::vector<std::uint64_t>{10, 85}));
    EXPECT_EQ(child(t->root, 0)->count, 8u);
    btree_release(t);

    t = ascending_tree(heap, 16); // two leaves of 8 merge; the survivor becomes the root
    ins(t, 170), rem(t, 170);
    const btree_node* left = child(t->root, 0);
    const std::uint64_t allocs = heap.allocs, releases = heap.releases;
    ASSERT_TRUE(rem(t, 160));
    EXPECT_EQ(check(t), "");
    EXPECT_EQ(t->root, left);
    EXPECT_EQ(t->root->count, 15u);
    EXPECT_EQ(heap.allocs - allocs, 1u);     // the merge's key block
    EXPECT_EQ(heap.releases - releases, 3u); // key block, right leaf, old root
    btree_release(t);

    t = ascending_tree(heap, 2000); // three levels emptied from the front, merging across parents
    for (std::uint64_t key = 10; key <= 20000; key += 10) {
        ASSERT_TRUE(rem(t, key));
        ASSERT_EQ(key % 370 ? "" : check(t), "") << key;
    }
    EXPECT_EQ(check(t), "");
    EXPECT_EQ(heap.live.size(), 2u); // the tree record and its root leaf
    btree_release(t);
    EXPECT_TRUE(heap.live.empty());
}

TEST(BtreeIterators, BeginEndStepsAndValidFlags)
{
    Heap heap;
    btree* t = make_tree(heap);
    btree_iterator b = btree_begin(t), e = btree_end(t);
    EXPECT_TRUE(btree_it_equal(&b, &e));
    EXPECT_EQ(btree_next(&b), 0);
    std::uint64_t k = 5;
    EXPECT_EQ(btree_find(t, &k), nullptr);
    EXPECT_FALSE(rem(t, k));
    btree_release(t);

    t = ascending_tree(heap, 40);
    btree_iterator miss = btree_findit(t, &k);
    e = btree_end(t);
    EXPECT_TRUE(btree_it_equal(&miss, &e));

    btree_iterator it = btree_begin(t);
    std::uint64_t expect = 10;
    for (; it.key && load(it.key) == expect; expect += 10)
        if (btree_next(&it) == 0)
            break;
    EXPECT_EQ(expect, 400u);
    EXPECT_EQ(it.valid, 0u);
    EXPECT_EQ(load(it.key), 400u); // the walk ends showing the last entry, not equal to the end
    EXPECT_FALSE(btree_it_equal(&it, &e));
    EXPECT_EQ(btree_prev(&it), 1);
    EXPECT_EQ(load(it.key), 400u);

    it = btree_rbegin(t);
    for (expect = 400; it.key && load(it.key) == expect; expect -= 10)
        if (btree_prev(&it) == 0)
            break;
    EXPECT_EQ(expect, 10u);
    EXPECT_EQ(it.index, BTREE_NO_INDEX);
    EXPECT_EQ(btree_next(&it), 1); // from before the first entry back onto it
    EXPECT_EQ(load(it.key), 10u);

    // Back from the end reaches the last entry without making the iterator valid.
    EXPECT_EQ(btree_prev(&e), 1);
    EXPECT_EQ(load(e.key), 400u);
    EXPECT_EQ(e.valid, 0u);
    EXPECT_FALSE(btree_removeit(t, &e));
    btree* other = ascending_tree(heap, 3);
    btree_iterator foreign = btree_begin(other);
    EXPECT_FALSE(btree_removeit(t, &foreign));
    k = 200;
    it = btree_findit(t, &k);
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

    btree* t = ascending_tree(heap, 3);
    std::uint64_t releases = heap.releases;
    btree_clear(t);
    EXPECT_EQ(heap.releases, releases); // a single leaf gives nothing back
    for (std::uint64_t k = 0; k < 3000; ++k)
        ins(t, k);
    const btree_node* leftmost = t->root;
    while (leftmost->values == nullptr)
        leftmost = child(leftmost, 0);
    const std::size_t nodes = heap.live.size() - 1;
    releases = heap.releases;
    btree_clear(t);
    EXPECT_EQ(heap.releases - releases, nodes - 1);
    EXPECT_EQ(t->root, leftmost);
    EXPECT_EQ(check(t), "");
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
    std::vector<std::uint64_t> keys(1500), removals;
    for (std::uint64_t i = 0; i < keys.size(); ++i)
        keys[i] = i * 7;
    std::shuffle(keys.begin(), keys.end(), rng);
    removals = keys;
    std::shuffle(removals.begin(), removals.end(), rng);
    auto run = [&](Heap& heap, bool checking) {
        btree* t = make_tree(heap);
        ASSERT_NE(t, nullptr);
        std::map<std::uint64_t, Value> model;
        bool failed = false;
        for (std::size_t i = 0; i < 2 * keys.size(); ++i) {
            const bool insert = i < keys.size();
            const std::uint64_t k = insert ? keys[i] : removals[i - keys.size()];
            const bool done = insert ? ins(t, k, 1) : rem(t, k);
            if (done)
                insert ? (void)model.emplace(k, Value{k, 1}) : (void)model.erase(k);
            failed |= !done;
            if (checking && (!done || i % 300 == 0)) {
                ASSERT_EQ(check(t), "") << "failing call " << heap.fail_at << ", op " << i;
                ASSERT_EQ(same_as(t, model), "") << "failing call " << heap.fail_at << ", op " << i;
            }
        }
        EXPECT_EQ(failed, heap.fail_at != 0) << "failing call " << heap.fail_at;
        btree_release(t);
        EXPECT_TRUE(heap.live.empty()) << "failing call " << heap.fail_at;
        EXPECT_EQ(heap.bad_releases, 0u);
    };
    Heap probe;
    run(probe, false);
    for (std::uint64_t n = 3; n <= probe.allocs; ++n) { // calls 1 and 2 make the tree itself
        Heap heap;
        heap.fail_at = n;
        run(heap, true);
        if (HasFailure())
            break;
    }
}
