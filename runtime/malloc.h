// The standard allocation functions of the system, on the process heap.
#pragma once

#include <cstddef>

namespace orlix {

void* malloc(std::size_t size);
void* calloc(std::size_t count, std::size_t size);
void* realloc(void* block, std::size_t size);
void free(void* block);
// Chunk size of a block of the process heap, head included (nheap_msize).
std::size_t e_msize(void* block);

} // namespace orlix
