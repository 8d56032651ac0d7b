// What the loader hands to a program: the start record, the heap configuration, the argument
// block, and the entry point the program's first thread starts at. Wire formats; the loader
// (host/loader) includes this header too.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orlix {

// Heap configuration: with a non-zero switch, the three sizes for the process heap.
struct HeapConfig {
    std::uint32_t enabled;
    std::uint32_t pad4;
    std::uint64_t reserved8;
    std::uint64_t initial_size;
    std::uint64_t grow_size;
    std::uint64_t max_heap_size;
};
static_assert(offsetof(HeapConfig, initial_size) == 16);
static_assert(offsetof(HeapConfig, grow_size) == 24);
static_assert(offsetof(HeapConfig, max_heap_size) == 32);

// One loaded module; it counts only if its size is 41 to 3583.
struct ModuleRecord {
    ModuleRecord* next;
    std::uint64_t size;
    std::uint64_t reserved16;
    const std::uint64_t* dynamic; // tag and value words, ended by tag 0
    std::uint64_t reserved32;
    std::uint64_t load_base;
};
static_assert(offsetof(ModuleRecord, dynamic) == 24);
static_assert(offsetof(ModuleRecord, load_base) == 40);

// The start record. Its size tells which fields from offset 32 on exist.
struct StartRecord {
    const char* arguments;     // the argument block
    const HeapConfig* heap;    // or null
    void (*exit_function)();   // called if the process's end should ever return
    std::uint64_t size;
    const std::uint64_t* dynamic; // the program's dynamic table; needs a size of 33 to 3583
    std::uint64_t word40;      // kept; needs 49 to 3583
    std::uint64_t load_base;   // needs 49 to 3583
    ModuleRecord* modules;     // needs 57 to 3583
    std::uint64_t word64;      // kept; needs 65 to 3583
    std::uint64_t word72;      // kept; needs 73 to 3583
    std::uint64_t word80;      // kept; needs 81 to 3583
};
static_assert(offsetof(StartRecord, size) == 24);
static_assert(offsetof(StartRecord, dynamic) == 32);
static_assert(offsetof(StartRecord, load_base) == 48);
static_assert(offsetof(StartRecord, modules) == 56);
static_assert(offsetof(StartRecord, word80) == 80);
static_assert(sizeof(StartRecord) == 88);

// Tags of a dynamic table that the start-up reads.
inline constexpr std::uint64_t DYNAMIC_INIT_ARRAY = 25;    // address of the initialiser array, from the load base
inline constexpr std::uint64_t DYNAMIC_INIT_ARRAY_SIZE = 27; // its size in bytes

// The entry point of a program: its first thread starts here with the start record.
void _start(void* record);

} // namespace orlix
