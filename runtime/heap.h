// The process heap and the standard allocation functions over it. System code.
#pragma once

#include <cstddef>

namespace orlix {

struct heap_state;
struct LibcContext;

// The process heap: the context's, made on first use (a process without a heap ends).
heap_state* e_getheap();
heap_state* e_getheap_of(LibcContext* context);

// Null on failure with errno 22 ("Not enough space"); calloc refuses a size of 0 and a product
// that would overflow with errno 11. realloc to size 0 releases the block and gives null, errno 22.
void* malloc(std::size_t size);
void* calloc(std::size_t count, std::size_t size);
void* realloc(void* block, std::size_t size);
void free(void* block);
// Chunk size of a block of the process heap, head included (nheap_msize).
std::size_t e_msize(void* block);

} // namespace orlix
