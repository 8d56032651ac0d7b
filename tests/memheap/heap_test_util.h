// Helpers shared by the nheap tests: report capture, statistics, bin inspection, heap ownership.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "memheap/memheap.h"

namespace heap_test {

// Reports of the supervision callback, in order, as "text|file".
inline std::vector<std::string> reports;
inline int capture(const char* text, const char* file, std::int32_t) { return reports.push_back(std::string(text) + "|" + file), 0; }

inline orlix::nheap_stat stat_of(orlix::heap_state* heap) { orlix::nheap_stat s{}; orlix::nheap_get_stat(heap, &s); return s; }

using U64s = std::vector<std::uint64_t>;
// Blocks in use, free chunks, heap size: {0, 1, initial size} once everything is given back.
inline U64s settled(orlix::heap_state* heap)
{
    return {stat_of(heap).used_block_count, stat_of(heap).free_block_count, heap->heap_size};
}

inline orlix::CHUNK_HEAD* chunk_of(void* block) { return static_cast<orlix::CHUNK_HEAD*>(block) - 1; }

// The first chunk in bin i (small bins 0..12, then the large bins), or null; the next in its bin.
inline orlix::CHUNK_HEAD* first_in_bin(orlix::heap_state* heap, std::uint64_t i)
{
    auto* head = reinterpret_cast<char*>(heap->small_bins) + i * 16;
    auto* first = *reinterpret_cast<orlix::CHUNK_HEAD**>(head + 24);
    return reinterpret_cast<char*>(first) == head ? nullptr : first;
}
inline orlix::CHUNK_HEAD* next_in_bin(orlix::CHUNK_HEAD* c) { return reinterpret_cast<orlix::CHUNK_HEAD**>(c + 1)[1]; }

// A heap deleted at the end of the scope.
struct Heap {
    Heap(std::uint64_t initial, std::uint64_t grow, std::uint64_t max) : h(orlix::nheap_create(initial, grow, max)) { EXPECT_NE(h, nullptr); }
    ~Heap() { orlix::nheap_delete(h); }
    Heap(const Heap&) = delete;
    orlix::heap_state* operator->() const { return h; }
    operator orlix::heap_state*() const { return h; }
    orlix::heap_state* h;
};

} // namespace heap_test
