// Whole blocks of memory from the kernel, one memo each: what the heap is built from.
// Touches only the kernel's memo entries.
#pragma once

#include <cstdint>

namespace orlix {

// A block of at least size bytes, page-aligned, or null. Its contents are unspecified.
void* AllocMemory(std::uint64_t size);
// Gives a block from AllocMemory back whole; an address that is no such block is ignored.
void FreeMemory(void* block);

} // namespace orlix
