// The B+ tree's default allocation hooks, over the process heap. In the runtime because the
// tree itself depends on nothing above memory functions. System code.
#include "btree/btree.h"

#include "runtime/heap.h"

namespace orlix {

void* lextras_wrap_malloc(void*, std::size_t size) { return orlix::malloc(size); }

void lextras_wrap_free(void*, void* block) { orlix::free(block); }

btree* btree_new(std::uint64_t key_size, std::uint64_t value_size, btree_less_fn less, btree_equal_fn equal)
{
    return btree_new_ex(key_size, value_size, less, equal, nullptr, lextras_wrap_malloc, lextras_wrap_free);
}

} // namespace orlix
