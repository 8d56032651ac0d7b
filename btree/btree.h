// btree: an ordered map of fixed-size keys and values, a B+ tree of fan-out 16 whose levels are
// doubly linked lists. System code: depends on nothing but memcpy/memmove and, for the default
// hooks, which the runtime provides over the process heap.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orlix {

// Comparators get pointers to two keys and return nonzero for "a orders before b" / "same key".
using btree_less_fn = std::int32_t (*)(const void* a, const void* b);
using btree_equal_fn = std::int32_t (*)(const void* a, const void* b);
// Allocation hooks: alloc returns a block or null; release gives a block back. ctx is passed through.
using btree_alloc_fn = void* (*)(void* ctx, std::size_t size);
using btree_release_fn = void (*)(void* ctx, void* block);

inline constexpr std::uint32_t BTREE_FANOUT = 16;
inline constexpr std::uint32_t BTREE_MIN_FILL = 8;
inline constexpr std::uint32_t BTREE_NO_INDEX = 0xFFFFFFFF;

struct btree_node;

// The tree record, one block from its own alloc hook.
struct btree {
    std::uint64_t key_size;
    std::uint64_t value_size;
    std::uint64_t count; // entries in the whole tree
    btree_node* root;    // never null between creation and release
    btree_less_fn less;
    btree_equal_fn equal;
    void* alloc_ctx;
    btree_alloc_fn alloc;
    btree_release_fn release;
};

// One node, one block: the fixed fields, then the storage.
//
//   +--------------------------------------------+  0
//   | tree | parent | prev | next | count | values|
//   | slot[16]   leaf: value i / inner: child i   |  48
//   | key[16]    -> key i in key_store            |  176
//   | key_store                                   |  304
//   +--------------------------------------------+  312
//   | 16 x key_size bytes of keys                 |
//   | leaf only: 16 x value_size bytes of values  |
//   +--------------------------------------------+
//
// key[i] and a leaf's slot[i] are fixed when the node is made; shifts move the bytes they point at.
struct btree_node {
    btree* tree;
    btree_node* parent; // null at the root
    btree_node* prev;   // neighbours on the same level, in key order
    btree_node* next;
    std::uint64_t count;          // entries in use, 0..16
    unsigned char* values;        // value storage of a leaf; null marks an inner node
    void* slot[BTREE_FANOUT];     // leaf: value i; inner: child i (null until set)
    void* key[BTREE_FANOUT];      // key i
    unsigned char* key_store;     // start of the key storage
};
static_assert(sizeof(btree_node) == 312);

// Held by the caller and passed by value. Good only until the tree next changes.
struct btree_iterator {
    void* key;           // key slot of the current entry, or null
    void* value;         // value slot of the current entry, or null
    std::uint64_t valid; // 1 when made on an entry; 0 otherwise and after a step that found none
    btree* tree;         // null for an iterator that cannot move
    btree_node* node;    // leaf of the current entry
    std::uint32_t index; // position in node; BTREE_NO_INDEX is before the first entry
};

// Creation: a tree with an empty root leaf, or null on exhaustion (nothing stays allocated) or
// when a hook is missing. btree_new uses the process heap.
btree* btree_new(std::uint64_t key_size, std::uint64_t value_size, btree_less_fn less, btree_equal_fn equal);
btree* btree_new_ex(std::uint64_t key_size, std::uint64_t value_size, btree_less_fn less, btree_equal_fn equal,
                    void* alloc_ctx, btree_alloc_fn alloc, btree_release_fn release);
void* lextras_wrap_malloc(void* ctx, std::size_t size);
void lextras_wrap_free(void* ctx, void* block);

// Lookup: the stored value, or null. Allocates nothing.
void* btree_find(btree* tree, const void* key);
// Iterator on the entry, or an all-zero iterator when absent.
btree_iterator btree_findit(btree* tree, const void* key);
btree_iterator btree_begin(btree* tree);
btree_iterator btree_rbegin(btree* tree);
btree_iterator btree_end(btree* tree);
// Steps: 1 on an entry, 0 when none is left (then valid is 0 and key/value keep the last entry).
std::int32_t btree_next(btree_iterator* it);
std::int32_t btree_prev(btree_iterator* it);
// Same key pointer.
bool btree_it_equal(const btree_iterator* a, const btree_iterator* b);

// Empties the tree, keeping one leaf as the new root. btree_release also gives back the tree.
void btree_clear(btree* tree);
void btree_release(btree* tree);

// Adds an entry, or with replace overwrites the value of a present key (the stored key stays).
// False for a present key without replace, and on exhaustion: the tree is then unchanged.
bool btree_insert(btree* tree, const void* key, const void* value, bool replace);
// Takes one entry out. False when absent, for an iterator not valid on this tree, or on
// exhaustion (a merge needs a key-sized block): the tree is then unchanged.
bool btree_remove(btree* tree, const void* key);
bool btree_removeit(btree* tree, btree_iterator* it);

// Internal steps of the operations above, not for callers. Each leaves the tree consistent on
// exhaustion (false, nothing changed).
btree_node* _btree_alloc_node(btree* tree, bool leaf);
void _btree_recursive_clear(btree_node* node);
bool _btree_insert_keyvalue(btree* tree, btree_node* node, std::uint32_t index, const void* key,
                            const void* payload);
void _btree_make_a_place(btree_node* node, std::uint32_t index);
bool _btree_erase_key_from(btree* tree, btree_node* node, std::uint32_t index);
void _btree_remove_place(btree_node* node, std::uint32_t index);
bool _btree_unite2(btree* tree, btree_node* left, btree_node* right);

} // namespace orlix
