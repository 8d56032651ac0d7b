// btree: records, creation, lookup, iteration, clearing, insertion and removal of the B+ tree.
// System code: touches only the tree's own nodes, memcpy/memmove and the creator's hooks.
//
// Exhaustion. Both changing operations ask the hooks for everything a call can need before they
// change anything, so a call either fails with the tree untouched or cannot fail:
//  - insertion counts the full nodes from the leaf upwards (each of them splits) and reserves one
//    right node per split, plus a new root when the chain reaches the root;
//  - removal predicts the chain of merges from the leaf upwards (a node at 8 entries whose
//    neighbours cannot lend) and reserves the key-sized block of each merge.
// The reservations are made in the order the splits and merges would ask for them, and each block
// is given back where a merge is done with it, so the hooks see the same calls in the same order
// as without reserving; only the moment of the allocations moves forward.
#include "btree/btree.h"

#include <cstring>

namespace orlix {

namespace {

// Deeper than any tree can grow: every level below the root at least 8-fold, the root 2-fold,
// and at most 2^64 entries.
constexpr std::uint32_t RESERVE_MAX = 32;

struct node_reserve {
    btree_node* node[RESERVE_MAX];
    std::uint32_t count;
    std::uint32_t used;
};

struct key_reserve {
    void* block[RESERVE_MAX];
    std::uint32_t count;
    std::uint32_t used;
};

inline bool is_leaf(const btree_node* node) { return node->values != nullptr; }

inline btree_node* child_at(const btree_node* node, std::uint32_t i) { return static_cast<btree_node*>(node->slot[i]); }

inline std::uint32_t key_bytes(const btree* tree) { return static_cast<std::uint32_t>(tree->key_size); }

inline std::uint32_t value_bytes(const btree* tree) { return static_cast<std::uint32_t>(tree->value_size); }

// The walk to the leaf that holds, or would hold, key. key[0] of an inner node is never compared.
btree_node* descend(const btree* tree, const void* key)
{
    btree_node* node = tree->root;
    const btree_less_fn less = tree->less;
    while (!is_leaf(node)) {
        const std::uint64_t count = node->count;
        std::uint32_t i = 0;
        while (i + 1 < count && !less(key, node->key[i + 1]))
            ++i;
        node = child_at(node, i);
    }
    return node;
}

// Linear scan of a leaf, equal before less: the position of key, or where it would go.
std::uint32_t scan_leaf(const btree* tree, const btree_node* leaf, const void* key, bool* found)
{
    const btree_less_fn less = tree->less;
    const btree_equal_fn equal = tree->equal;
    const std::uint32_t count = static_cast<std::uint32_t>(leaf->count);
    for (std::uint32_t i = 0; i < count; ++i) {
        if (equal(key, leaf->key[i])) {
            *found = true;
            return i;
        }
        if (less(key, leaf->key[i])) {
            *found = false;
            return i;
        }
    }
    *found = false;
    return count;
}

// Carries a node's new smallest key into its parent, and on up while the node is a first child.
void update_separator(btree_node* node, const void* key)
{
    const std::size_t size = node->tree->key_size;
    btree_node* c = node;
    while (btree_node* parent = c->parent) {
        const std::uint32_t count = static_cast<std::uint32_t>(parent->count);
        if (count == 0)
            return;
        if (parent->slot[0] == c) {
            std::memcpy(parent->key[0], key, size);
            c = parent;
            continue;
        }
        for (std::uint32_t i = 1; i < count; ++i) {
            if (parent->slot[i] == c) {
                std::memcpy(parent->key[i], key, size);
                return;
            }
        }
        return;
    }
}

// Appends all entries of src behind those of dst (dst ends with at most 16); src keeps its count.
void append_all(btree* tree, btree_node* dst, const btree_node* src)
{
    const std::uint32_t at = static_cast<std::uint32_t>(dst->count);
    const std::uint32_t n = static_cast<std::uint32_t>(src->count);
    std::memcpy(dst->key[at], src->key_store, n * key_bytes(tree));
    if (is_leaf(dst)) {
        std::memcpy(dst->slot[at], src->values, n * value_bytes(tree));
    } else {
        for (std::uint32_t i = 0; i < n; ++i) {
            btree_node* child = child_at(src, i);
            dst->slot[at + i] = child;
            child->parent = dst;
        }
    }
    dst->count = at + n;
}

// The position of a separator equal to key in an inner node, or the node's count when none is.
std::uint32_t find_separator(const btree* tree, const btree_node* parent, const void* key)
{
    const std::uint32_t count = static_cast<std::uint32_t>(parent->count);
    std::uint32_t i = 0;
    while (i < count && !tree->equal(parent->key[i], key))
        ++i;
    return i;
}

void release_nodes(btree* tree, node_reserve* reserve)
{
    while (reserve->used < reserve->count)
        tree->release(tree->alloc_ctx, reserve->node[reserve->used++]);
}

void release_keys(btree* tree, key_reserve* reserve)
{
    while (reserve->used < reserve->count)
        tree->release(tree->alloc_ctx, reserve->block[reserve->used++]);
}

// Reserves a right node for every node that inserting one entry into node will split, and a new
// root when the root is among them.
bool reserve_splits(btree* tree, btree_node* node, node_reserve* reserve)
{
    reserve->count = 0;
    reserve->used = 0;
    for (btree_node* n = node; n != nullptr && n->count >= BTREE_FANOUT; n = n->parent) {
        // Up to two blocks per level: the right node, and a new root above the old one.
        if (reserve->count + 2 > RESERVE_MAX)
            return false;
        btree_node* right = _btree_alloc_node(tree, is_leaf(n));
        if (right == nullptr)
            return false;
        reserve->node[reserve->count++] = right;
        if (n->parent == nullptr) {
            btree_node* root = _btree_alloc_node(tree, false);
            if (root == nullptr)
                return false;
            reserve->node[reserve->count++] = root;
        }
    }
    return true;
}

btree_node* take_node(node_reserve* reserve) { return reserve->node[reserve->used++]; }

bool insert_reserved(btree* tree, btree_node* node, std::uint32_t index, const void* key, const void* payload,
                     node_reserve* reserve)
{
    const std::uint32_t ks = key_bytes(tree);
    if (index == BTREE_NO_INDEX) {
        const std::uint32_t count = static_cast<std::uint32_t>(node->count);
        index = 0;
        while (index < count && tree->less(node->key[index], key))
            ++index;
    }
    while (node->count >= BTREE_FANOUT) {
        const bool left = index < BTREE_MIN_FILL;
        const std::uint32_t cut = left ? BTREE_MIN_FILL - 1 : BTREE_MIN_FILL;
        btree_node* right = take_node(reserve);
        btree_node* parent = node->parent;
        btree_node* new_root = parent == nullptr ? take_node(reserve) : nullptr;

        right->prev = node;
        right->next = node->next;
        node->next = right;
        right->parent = parent;
        if (right->next != nullptr)
            right->next->prev = right;

        const std::uint32_t moved = BTREE_FANOUT - cut;
        std::memcpy(right->key_store, node->key[cut], moved * ks);
        if (is_leaf(node)) {
            std::memcpy(right->values, node->slot[cut], moved * value_bytes(tree));
        } else {
            for (std::uint32_t i = 0; i < moved; ++i) {
                btree_node* child = child_at(node, cut + i);
                right->slot[i] = child;
                child->parent = right;
            }
        }
        node->count = cut;
        right->count = moved;

        if (parent != nullptr) {
            if (!insert_reserved(tree, parent, BTREE_NO_INDEX, right->key[0], right, reserve))
                return false;
        } else {
            node->parent = new_root;
            right->parent = new_root;
            tree->root = new_root;
            new_root->count = 2;
            std::memcpy(new_root->key[0], node->key[0], ks);
            std::memcpy(new_root->key[1], right->key[0], ks);
            new_root->slot[0] = node;
            new_root->slot[1] = right;
        }

        if (!left) {
            node = right;
            index -= BTREE_MIN_FILL;
            if (!is_leaf(node))
                static_cast<btree_node*>(const_cast<void*>(payload))->parent = node;
        }
    }

    _btree_make_a_place(node, index);
    std::memcpy(node->key[index], key, ks);
    if (is_leaf(node))
        std::memcpy(node->slot[index], payload, value_bytes(tree));
    else
        node->slot[index] = const_cast<void*>(payload);
    if (index > 0)
        return true;
    update_separator(node, key);
    return true;
}

// Merges that erasing one entry from node sets off, level by level upwards.
std::uint32_t merges_after_erase(const btree_node* node)
{
    std::uint32_t merges = 0;
    for (const btree_node* n = node; n != nullptr;) {
        if (n->count > BTREE_MIN_FILL || n->parent == nullptr)
            break;
        if (n->prev != nullptr && n->prev->count > BTREE_MIN_FILL)
            break;
        if (n->next != nullptr && n->next->count > BTREE_MIN_FILL)
            break;
        if (n->prev == nullptr && n->next == nullptr)
            break;
        ++merges;
        // The merged-away node's parent loses an entry: the node itself, or its next when it is
        // the first of its level.
        n = (n->prev != nullptr ? n : n->next)->parent;
    }
    return merges;
}

bool reserve_keys(btree* tree, std::uint32_t merges, key_reserve* reserve)
{
    reserve->count = 0;
    reserve->used = 0;
    if (merges > RESERVE_MAX)
        return false;
    for (std::uint32_t i = 0; i < merges; ++i) {
        void* block = tree->alloc(tree->alloc_ctx, tree->key_size);
        if (block == nullptr)
            return false;
        reserve->block[reserve->count++] = block;
    }
    return true;
}

void* take_key(key_reserve* reserve) { return reserve->block[reserve->used++]; }

bool erase_reserved(btree* tree, btree_node* node, std::uint32_t index, key_reserve* reserve);

bool unite_reserved(btree* tree, btree_node* left, btree_node* right, key_reserve* reserve)
{
    void* saved = take_key(reserve);
    append_all(tree, left, right);
    left->next = right->next;
    if (left->next != nullptr)
        left->next->prev = left;
    std::memcpy(saved, right->key[0], tree->key_size);

    bool ok = true;
    if (btree_node* parent = right->parent) {
        const std::uint32_t i = find_separator(tree, parent, saved);
        if (i < parent->count)
            ok = erase_reserved(tree, parent, i, reserve);
    }
    tree->release(tree->alloc_ctx, saved);
    tree->release(tree->alloc_ctx, right);

    if (left->parent != nullptr && left->prev == nullptr && left->next == nullptr) {
        tree->release(tree->alloc_ctx, left->parent);
        tree->root = left;
        left->parent = nullptr;
    }
    return ok;
}

bool erase_reserved(btree* tree, btree_node* node, std::uint32_t index, key_reserve* reserve)
{
    _btree_remove_place(node, index);
    if (node->count >= BTREE_MIN_FILL) {
        // Separators are exact, so only a new first key can change one.
        if (index == 0)
            update_separator(node, node->key[0]);
        return true;
    }
    if (node->parent == nullptr)
        return true;

    btree_node* prev = node->prev;
    btree_node* next = node->next;
    const bool leaf = is_leaf(node);
    if (prev != nullptr && prev->count > BTREE_MIN_FILL) {
        const std::uint32_t l = static_cast<std::uint32_t>(prev->count) - 1;
        _btree_make_a_place(node, 0);
        std::memcpy(node->key[0], prev->key[l], tree->key_size);
        if (leaf) {
            std::memcpy(node->slot[0], prev->slot[l], tree->value_size);
        } else {
            node->slot[0] = prev->slot[l];
            child_at(node, 0)->parent = node;
        }
        _btree_remove_place(prev, l);
        update_separator(node, node->key[0]);
        return true;
    }
    if (next != nullptr && next->count > BTREE_MIN_FILL) {
        const std::uint32_t c = static_cast<std::uint32_t>(node->count);
        _btree_make_a_place(node, c);
        std::memcpy(node->key[c], next->key[0], tree->key_size);
        if (leaf) {
            std::memcpy(node->slot[c], next->slot[0], tree->value_size);
        } else {
            node->slot[c] = next->slot[0];
            child_at(node, c)->parent = node;
        }
        _btree_remove_place(next, 0);
        update_separator(next, next->key[0]);
        update_separator(node, node->key[0]);
        return true;
    }

    // The merge finds the node's separator by its key, which the removal may have changed.
    update_separator(node, node->key[0]);
    if (prev == nullptr)
        return next == nullptr ? true : unite_reserved(tree, node, next, reserve);
    if (next == nullptr)
        return unite_reserved(tree, prev, node, reserve);

    void* saved = take_key(reserve);
    std::memcpy(saved, node->key[0], tree->key_size);
    append_all(tree, prev, node);
    bool ok = true;
    btree_node* parent = node->parent;
    const std::uint32_t i = find_separator(tree, parent, saved);
    if (i < parent->count)
        ok = erase_reserved(tree, parent, i, reserve);
    tree->release(tree->alloc_ctx, saved);
    tree->release(tree->alloc_ctx, node);
    prev->next = next;
    next->prev = prev;
    return ok;
}

btree_node* leftmost_leaf(const btree* tree)
{
    btree_node* node = tree->root;
    while (!is_leaf(node))
        node = child_at(node, 0);
    return node;
}

btree_node* rightmost_leaf(const btree* tree)
{
    btree_node* node = tree->root;
    while (!is_leaf(node))
        node = child_at(node, static_cast<std::uint32_t>(node->count) - 1);
    return node;
}

} // namespace

btree* btree_new_ex(std::uint64_t key_size, std::uint64_t value_size, btree_less_fn less, btree_equal_fn equal,
                    void* alloc_ctx, btree_alloc_fn alloc, btree_release_fn release)
{
    if (alloc == nullptr || release == nullptr)
        return nullptr;
    btree* tree = static_cast<btree*>(alloc(alloc_ctx, sizeof(btree)));
    if (tree == nullptr)
        return nullptr;
    tree->key_size = key_size;
    tree->value_size = value_size;
    tree->count = 0;
    tree->root = nullptr;
    tree->less = less;
    tree->equal = equal;
    tree->alloc_ctx = alloc_ctx;
    tree->alloc = alloc;
    tree->release = release;
    tree->root = _btree_alloc_node(tree, true);
    if (tree->root == nullptr) {
        release(alloc_ctx, tree);
        return nullptr;
    }
    return tree;
}

btree_node* _btree_alloc_node(btree* tree, bool leaf)
{
    const std::uint32_t ks = key_bytes(tree);
    const std::uint32_t vs = value_bytes(tree);
    const std::uint32_t size = static_cast<std::uint32_t>(sizeof(btree_node)) + BTREE_FANOUT * ks +
                               (leaf ? BTREE_FANOUT * vs : 0);
    btree_node* node = static_cast<btree_node*>(tree->alloc(tree->alloc_ctx, size));
    if (node == nullptr)
        return nullptr;
    node->tree = tree;
    node->parent = nullptr;
    node->prev = nullptr;
    node->next = nullptr;
    node->count = 0;
    node->key_store = reinterpret_cast<unsigned char*>(node + 1);
    for (std::uint32_t i = 0; i < BTREE_FANOUT; ++i)
        node->key[i] = node->key_store + i * ks;
    if (leaf) {
        node->values = node->key_store + BTREE_FANOUT * ks;
        for (std::uint32_t i = 0; i < BTREE_FANOUT; ++i)
            node->slot[i] = node->values + i * vs;
    } else {
        node->values = nullptr;
        for (std::uint32_t i = 0; i < BTREE_FANOUT; ++i)
            node->slot[i] = nullptr;
    }
    return node;
}

void* btree_find(btree* tree, const void* key)
{
    btree_node* leaf = descend(tree, key);
    bool found;
    const std::uint32_t i = scan_leaf(tree, leaf, key, &found);
    return found ? leaf->slot[i] : nullptr;
}

btree_iterator btree_findit(btree* tree, const void* key)
{
    btree_node* leaf = descend(tree, key);
    bool found;
    const std::uint32_t i = scan_leaf(tree, leaf, key, &found);
    if (!found)
        return btree_iterator{nullptr, nullptr, 0, nullptr, nullptr, 0};
    return btree_iterator{leaf->key[i], leaf->slot[i], 1, tree, leaf, i};
}

btree_iterator btree_begin(btree* tree)
{
    if (tree->count == 0)
        return btree_iterator{nullptr, nullptr, 0, nullptr, tree->root, 0};
    btree_node* leaf = leftmost_leaf(tree);
    return btree_iterator{leaf->key[0], leaf->slot[0], 1, tree, leaf, 0};
}

btree_iterator btree_rbegin(btree* tree)
{
    if (tree->count == 0)
        return btree_iterator{nullptr, nullptr, 0, nullptr, tree->root, 0};
    btree_node* leaf = rightmost_leaf(tree);
    const std::uint32_t last = static_cast<std::uint32_t>(leaf->count) - 1;
    return btree_iterator{leaf->key[last], leaf->slot[last], 1, tree, leaf, last};
}

btree_iterator btree_end(btree* tree)
{
    if (tree->count == 0)
        return btree_iterator{nullptr, nullptr, 0, nullptr, tree->root, 0};
    btree_node* leaf = rightmost_leaf(tree);
    return btree_iterator{nullptr, nullptr, 0, tree, leaf, static_cast<std::uint32_t>(leaf->count)};
}

std::int32_t btree_next(btree_iterator* it)
{
    if (it->tree == nullptr || it->node == nullptr) {
        it->valid = 0;
        return 0;
    }
    btree_node* node = it->node;
    // From "before the first entry" the sum wraps to 0 in 32 bits.
    std::uint32_t index = it->index + 1;
    if (index >= node->count) {
        if (index == node->count && node->next != nullptr) {
            node = node->next;
            index = 0;
        } else {
            it->index = static_cast<std::uint32_t>(node->count);
            it->valid = 0;
            return 0;
        }
    }
    it->node = node;
    it->index = index;
    it->key = node->key[index];
    it->value = node->slot[index];
    return 1;
}

std::int32_t btree_prev(btree_iterator* it)
{
    if (it->tree == nullptr || it->node == nullptr) {
        it->valid = 0;
        return 0;
    }
    btree_node* node = it->node;
    std::uint32_t index = it->index;
    if (index == 0 && node->prev != nullptr) {
        node = node->prev;
        index = static_cast<std::uint32_t>(node->count) - 1;
    } else if (index == 0 || index == BTREE_NO_INDEX || index > node->count) {
        it->index = BTREE_NO_INDEX;
        it->valid = 0;
        return 0;
    } else {
        --index;
    }
    it->node = node;
    it->index = index;
    it->key = node->key[index];
    it->value = node->slot[index];
    return 1;
}

bool btree_it_equal(const btree_iterator* a, const btree_iterator* b) { return a->key == b->key; }

void _btree_recursive_clear(btree_node* node)
{
    if (!is_leaf(node)) {
        while (node->count > 0) {
            btree_node* child = child_at(node, static_cast<std::uint32_t>(node->count) - 1);
            --node->count;
            _btree_recursive_clear(child);
        }
    }
    btree* tree = node->tree;
    tree->release(tree->alloc_ctx, node);
}

void btree_clear(btree* tree)
{
    btree_node* keep = (tree->count > 0 && !is_leaf(tree->root)) ? leftmost_leaf(tree) : tree->root;
    if (keep->parent == nullptr) {
        keep->count = 0;
        tree->count = 0;
        return;
    }
    btree_node* parent = keep->parent;
    parent->slot[0] = parent->slot[parent->count - 1];
    --parent->count;
    if (keep->next != nullptr)
        keep->next->prev = nullptr;

    btree_node* root = tree->root;
    while (root->count > 0) {
        btree_node* child = child_at(root, static_cast<std::uint32_t>(root->count) - 1);
        --root->count;
        _btree_recursive_clear(child);
    }
    tree->release(tree->alloc_ctx, root);

    keep->count = 0;
    keep->parent = nullptr;
    keep->prev = nullptr;
    keep->next = nullptr;
    tree->root = keep;
    tree->count = 0;
}

void btree_release(btree* tree)
{
    if (tree == nullptr)
        return;
    btree_clear(tree);
    tree->release(tree->alloc_ctx, tree->root);
    tree->release(tree->alloc_ctx, tree);
}

bool btree_insert(btree* tree, const void* key, const void* value, bool replace)
{
    btree_node* leaf = descend(tree, key);
    bool found;
    const std::uint32_t i = scan_leaf(tree, leaf, key, &found);
    if (found) {
        if (!replace)
            return false;
        std::memcpy(leaf->slot[i], value, tree->value_size);
        return true;
    }
    if (!_btree_insert_keyvalue(tree, leaf, i, key, value))
        return false;
    ++tree->count;
    return true;
}

bool _btree_insert_keyvalue(btree* tree, btree_node* node, std::uint32_t index, const void* key, const void* payload)
{
    node_reserve reserve;
    if (!reserve_splits(tree, node, &reserve)) {
        release_nodes(tree, &reserve);
        return false;
    }
    const bool ok = insert_reserved(tree, node, index, key, payload, &reserve);
    release_nodes(tree, &reserve);
    return ok;
}

void _btree_make_a_place(btree_node* node, std::uint32_t index)
{
    const std::uint32_t count = static_cast<std::uint32_t>(node->count);
    if (index < count) {
        const btree* tree = node->tree;
        const std::uint32_t ks = key_bytes(tree);
        const std::uint32_t n = count - index;
        std::memmove(node->key_store + (index + 1) * ks, node->key_store + index * ks, n * ks);
        if (is_leaf(node)) {
            const std::uint32_t vs = value_bytes(tree);
            std::memmove(node->values + (index + 1) * vs, node->values + index * vs, n * vs);
        } else {
            for (std::uint32_t i = count; i > index; --i)
                node->slot[i] = node->slot[i - 1];
        }
    }
    node->count = count + 1;
}

void _btree_remove_place(btree_node* node, std::uint32_t index)
{
    const std::uint32_t count = static_cast<std::uint32_t>(node->count);
    if (index + 1 < count) {
        const btree* tree = node->tree;
        const std::uint32_t ks = key_bytes(tree);
        const std::uint32_t n = count - index - 1;
        std::memmove(node->key_store + index * ks, node->key_store + (index + 1) * ks, n * ks);
        if (is_leaf(node)) {
            const std::uint32_t vs = value_bytes(tree);
            std::memmove(node->values + index * vs, node->values + (index + 1) * vs, n * vs);
        } else {
            for (std::uint32_t i = index; i + 1 < count; ++i)
                node->slot[i] = node->slot[i + 1];
        }
    }
    node->count = count - 1;
}

bool btree_remove(btree* tree, const void* key)
{
    btree_node* leaf = descend(tree, key);
    bool found;
    const std::uint32_t i = scan_leaf(tree, leaf, key, &found);
    if (!found)
        return false;
    if (!_btree_erase_key_from(tree, leaf, i))
        return false;
    --tree->count;
    return true;
}

bool btree_removeit(btree* tree, btree_iterator* it)
{
    if (it->valid == 0 || it->tree != tree || it->node == nullptr)
        return false;
    if (!_btree_erase_key_from(tree, it->node, it->index))
        return false;
    --tree->count;
    return true;
}

bool _btree_erase_key_from(btree* tree, btree_node* node, std::uint32_t index)
{
    key_reserve reserve;
    if (!reserve_keys(tree, merges_after_erase(node), &reserve)) {
        release_keys(tree, &reserve);
        return false;
    }
    const bool ok = erase_reserved(tree, node, index, &reserve);
    release_keys(tree, &reserve);
    return ok;
}

bool _btree_unite2(btree* tree, btree_node* left, btree_node* right)
{
    const std::uint32_t above = right->parent != nullptr ? merges_after_erase(right->parent) : 0;
    key_reserve reserve;
    if (!reserve_keys(tree, 1 + above, &reserve)) {
        release_keys(tree, &reserve);
        return false;
    }
    const bool ok = unite_reserved(tree, left, right, &reserve);
    release_keys(tree, &reserve);
    return ok;
}

} // namespace orlix
