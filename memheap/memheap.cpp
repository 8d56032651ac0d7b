// nheap: creation, areas, bins, allocation, release, resizing and aligned blocks.
// Touches only the heap's own blocks; memory comes from AllocMemory/FreeMemory, locks are platform mutexes.
#include "memheap/memheap.h"

#include <bit>
#include <cstring>

#include "memheap/memheap_internal.h"
#include "platform/memory.h"

namespace orlix {

using namespace nheap_detail;

namespace {

constexpr const char* FILE_NAME = "memheap/memheap";

#define NHEAP_REPORT(text) report(heap, text, FILE_NAME, __LINE__)
#define NHEAP_LOCK() lock(heap, &heap->heap_lock, FILE_NAME, __LINE__)
#define NHEAP_UNLOCK() unlock(heap, &heap->heap_lock, FILE_NAME, __LINE__)
#define NHEAP_SUPERVISE()                                                                                   \
    do {                                                                                                    \
        if (heap->assert_cb != nullptr) [[unlikely]]                                                        \
            nheap_assert_impl(heap, FILE_NAME, __LINE__);                                                   \
    } while (0)

constexpr std::uint64_t STATE_SIZE = sizeof(heap_state);
// The largest request whose chunk size does not wrap around 64 bits.
constexpr std::uint64_t MAX_REQUEST = ~std::uint64_t{0} - 31;
constexpr std::uint64_t MAX_ALIGNMENT = 0x3FFFFF;

constexpr std::uint64_t needed_size(std::uint64_t size)
{
    std::uint64_t n = ((size + 15) & ~std::uint64_t{15}) + HEAD_SIZE;
    return n < MIN_SMALL_BIN_SIZE ? MIN_SMALL_BIN_SIZE : n;
}

// Small bin of a chunk of up to 128 bytes: sizes 32, 48, ... 128 land in the even bins 0..12.
constexpr std::uint64_t small_index(std::uint64_t s) { return s <= 32 ? 0 : ((s - 33) >> 3) + 1; }

// Large bin of a chunk above 128 bytes: one bin per power of two from 2^7, the last open-ended.
inline std::uint64_t large_index(std::uint64_t s)
{
    std::uint64_t i = 56 - static_cast<std::uint64_t>(_memheap_clz(s));
    return i > 15 ? 15 : i;
}

// Bit of the occupied-bins map and head of the bin that a free chunk of size s belongs to.
inline std::uint64_t bin_index(const heap_state* heap, std::uint64_t s)
{
    if (s <= 128)
        return small_index(s);
    std::uint64_t i = large_index(s);
    // Only a heap whose chunks outgrow its limit could get here; keep it inside the bins.
    if (i >= heap->large_bin_count) [[unlikely]]
        i = heap->large_bin_count - 1;
    return NHEAP_SMALL_BIN_COUNT + i;
}

// In a bin from large bin 4 on: the first chunk with chunk_size of at least n, or the head when
// there is none. Sizes in the upper half of the bin's range are looked for from the largest run
// down, which finds the same chunk with fewer steps.
inline CHUNK_HEAD* walk_leaders(CHUNK_HEAD* head, std::uint64_t n)
{
    CHUNK_HEAD* first = links(head)->next_free;
    if (first == head)
        return head;
    int top = 63 - std::countl_zero(n); // the bin's range is [2^top, 2^(top+1))
    bool upper = ((n >> (top - 1)) & 1) != 0 && top < 22;
    CHUNK_HEAD* c;
    if (!upper) {
        c = first;
        while (c->chunk_size < n) {
            c = leader(c)->next_leader;
            if (c == first)
                return head;
        }
        return c;
    }
    c = leader(first)->prev_leader; // the last run
    if (c->chunk_size < n)
        return head;
    while (c != first) {
        CHUNK_HEAD* before = leader(c)->prev_leader;
        if (before->chunk_size < n)
            return c;
        c = before;
    }
    return first;
}

// In large bin k below NHEAP_INDEXED_BIN_COUNT: the leader of the smallest size present from n
// (a multiple of 16 within the bin's range) on, or null.
inline CHUNK_HEAD* indexed_first_at_least(heap_state* heap, std::uint64_t k, std::uint64_t n)
{
    std::uint64_t base = run_base(k);
    std::uint64_t present = heap->run_sizes[k] & (~std::uint64_t{0} << ((n >> 4) - base));
    if (present == 0)
        return nullptr;
    return heap->run_leaders[base - 8 + static_cast<std::uint64_t>(std::countr_zero(present))];
}

// The first chunk of large bin `index` (counted from small bin 0) with chunk_size of at least n,
// or the bin's head when there is none.
inline CHUNK_HEAD* first_at_least(heap_state* heap, std::uint64_t index, std::uint64_t n)
{
    std::uint64_t k = index - NHEAP_SMALL_BIN_COUNT;
    if (k < NHEAP_INDEXED_BIN_COUNT) {
        CHUNK_HEAD* c = indexed_first_at_least(heap, k, n);
        return c != nullptr ? c : bin_head(heap, index);
    }
    return walk_leaders(bin_head(heap, index), n);
}

inline void unlink_free(heap_state* heap, CHUNK_HEAD* c)
{
    FreeLinks* l = links(c);
    CHUNK_HEAD* prev = l->prev_free;
    CHUNK_HEAD* next = l->next_free;
    std::uint64_t s = c->chunk_size;
    if (s > 128 && s < NHEAP_INDEXED_SIZE_LIMIT) {
        // A leaving run leader hands the run to the next chunk if it has the same size; else its
        // size is gone from the bin.
        CHUNK_HEAD** slot = &heap->run_leaders[(s >> 4) - 8];
        if (*slot == c) {
            std::uint64_t k = large_index(s);
            if (next != bin_head(heap, NHEAP_SMALL_BIN_COUNT + k) && next->chunk_size == s)
                *slot = next;
            else
                heap->run_sizes[k] &= ~(std::uint64_t{1} << ((s >> 4) - run_base(k)));
        }
    } else if (s > 128 && leader(c)->next_leader != nullptr && prev != next) {
        // A leaving run leader hands the run to the next chunk of its size, or leaves the list of
        // leaders. When it was the last chunk of its bin (prev == next) there is nothing to keep.
        LeaderLinks* lead = leader(c);
        bool alone = lead->next_leader == c;
        if (next != bin_head(heap, bin_index(heap, c->chunk_size)) && next->chunk_size == c->chunk_size) {
            LeaderLinks* heir = leader(next);
            if (alone) {
                heir->prev_leader = heir->next_leader = next;
            } else {
                heir->prev_leader = lead->prev_leader;
                heir->next_leader = lead->next_leader;
                leader(lead->prev_leader)->next_leader = next;
                leader(lead->next_leader)->prev_leader = next;
            }
        } else if (!alone) {
            leader(lead->prev_leader)->next_leader = lead->next_leader;
            leader(lead->next_leader)->prev_leader = lead->prev_leader;
        }
    }
    links(prev)->next_free = next;
    links(next)->prev_free = prev;
    // Both neighbours the same means they are the bin head: the bin is empty now.
    if (prev == next) {
        std::uint64_t index = static_cast<std::uint64_t>(reinterpret_cast<char*>(prev) -
                                                         reinterpret_cast<char*>(heap->small_bins)) /
                              HEAD_SIZE;
        heap->occupied_bins &= ~(std::uint64_t{1} << index);
    }
}

// The first fitting chunk in the order of a bin-by-bin scan, or null. A small request takes the
// first chunk of the first filled bin from its own on: every chunk there, and every large chunk,
// is big enough. A large request walks its own bin for the best fit; any chunk of a higher bin
// is bigger than the request, so its first chunk serves.
inline CHUNK_HEAD* find_fit(heap_state* heap, std::uint64_t n)
{
    std::uint64_t start;
    if (n <= 128) {
        start = small_index(n);
    } else {
        std::uint64_t k = large_index(n);
        if (k >= heap->large_bin_count)
            return nullptr;
        start = NHEAP_SMALL_BIN_COUNT + k;
        if (heap->occupied_bins & (std::uint64_t{1} << start)) {
            if (k < NHEAP_INDEXED_BIN_COUNT) {
                if (CHUNK_HEAD* c = indexed_first_at_least(heap, k, n))
                    return c;
            } else {
                CHUNK_HEAD* head = bin_head(heap, start);
                CHUNK_HEAD* c = walk_leaders(head, n);
                if (c != head)
                    return c;
            }
        }
        ++start;
    }
    std::uint64_t candidates = start < 64 ? heap->occupied_bins & (~std::uint64_t{0} << start) : 0;
    if (candidates == 0)
        return nullptr;
    return links(bin_head(heap, static_cast<std::uint64_t>(std::countr_zero(candidates))))->next_free;
}

// A new area of S bytes: needed_size rounded up to grow_size, with room for the area's edges.
bool grow(heap_state* heap, std::uint64_t n)
{
    std::uint64_t g = heap->grow_size;
    std::uint64_t s;
    if (g == 0 || n > ~std::uint64_t{0} - NHEAP_MIN_AREA_SIZE || __builtin_add_overflow(n, g - 1, &s))
        return false;
    s = s / g * g;
    while (s < n + NHEAP_MIN_AREA_SIZE)
        if (__builtin_add_overflow(s, g, &s))
            return false;
    if (s > heap->max_heap_size || heap->heap_size > heap->max_heap_size - s)
        return false;
    void* mem = AllocMemory(s);
    if (mem == nullptr)
        return false;
    if (add_heapmem(heap, mem, s))
        return true;
    FreeMemory(mem);
    return false;
}

bool alignment_ok(std::uint64_t& alignment)
{
    if (alignment < 32)
        alignment = 32;
    return alignment <= MAX_ALIGNMENT && (alignment & (alignment - 1)) == 0;
}

} // namespace

int _memheap_clz(std::uint64_t x) { return std::countl_zero(x); }

// ---------------------------------------------------------------------------------------------
// Creation, areas and bins

heap_state* nheap_create(std::uint64_t initial_size, std::uint64_t grow_size, std::uint64_t max_heap_size)
{
    void* block = AllocMemory(initial_size);
    if (block == nullptr)
        return nullptr;
    if (initial_size < STATE_SIZE) {
        FreeMemory(block);
        return nullptr;
    }
    auto* heap = static_cast<heap_state*>(block);
    std::memset(heap, 0, STATE_SIZE);
    heap->grow_size = grow_size;
    if (max_heap_size == 0)
        max_heap_size = ~std::uint64_t{0};
    else if (max_heap_size < initial_size)
        max_heap_size = initial_size;
    heap->max_heap_size = max_heap_size;

    if (MutexInit(&heap->heap_lock) != MUTEX_OK) {
        FreeMemory(block);
        return nullptr;
    }
    bool stat_lock_made = false;
    bool ok = false;
    heap->small_bin_count = NHEAP_SMALL_BIN_COUNT;
    // The first pair lies right behind the record; its head is addressed 16 bytes earlier.
    heap->small_bins = at(heap, STATE_SIZE - HEAD_SIZE);
    if (initial_size >= STATE_SIZE + NHEAP_SMALL_BIN_COUNT * HEAD_SIZE) {
        for (std::uint64_t i = 0; i < NHEAP_SMALL_BIN_COUNT; ++i) {
            CHUNK_HEAD* head = bin_head(heap, i);
            links(head)->prev_free = links(head)->next_free = head;
        }
        std::uint64_t large = 6;
        while (large < NHEAP_MAX_LARGE_BIN_COUNT && max_heap_size >= (std::uint64_t{1} << (large + 7)))
            ++large;
        heap->large_bin_count = large;
        std::uint64_t state_size = STATE_SIZE + (NHEAP_SMALL_BIN_COUNT + large) * HEAD_SIZE;
        if (initial_size >= state_size) {
            heap->large_bins = bin_head(heap, NHEAP_SMALL_BIN_COUNT);
            for (std::uint64_t i = 0; i < large; ++i) {
                CHUNK_HEAD* head = bin_head(heap, NHEAP_SMALL_BIN_COUNT + i);
                links(head)->prev_free = links(head)->next_free = head;
            }
            heapmem* first = reinterpret_cast<heapmem*>(reinterpret_cast<char*>(heap) + state_size);
            heap->first_heapmem = first;
            first->prev = first->next = first;
            heap->heap_size = heap->overhead_byte_count = state_size;
            heap->stat.gross_used_byte_count = heap->stat.max_gross_used_byte_count = state_size;
            heap->stat.min_free_byte_count = ~std::uint64_t{0};
            heap->stat.heap_base = reinterpret_cast<std::uint64_t>(heap);
            if (MutexInit(&heap->stat_lock) == MUTEX_OK) {
                stat_lock_made = true;
                NHEAP_LOCK();
                ok = add_heapmem(heap, first, initial_size - state_size);
                NHEAP_UNLOCK();
            }
        }
    }
    if (ok) {
        NHEAP_SUPERVISE();
        return heap;
    }
    MutexDestroy(&heap->heap_lock);
    if (stat_lock_made)
        MutexDestroy(&heap->stat_lock);
    FreeMemory(block);
    return nullptr;
}

bool add_heapmem(heap_state* heap, void* mem, std::uint64_t size)
{
    if (size < NHEAP_MIN_AREA_SIZE)
        return false;
    auto* area = static_cast<heapmem*>(mem);
    auto base = reinterpret_cast<std::uintptr_t>(mem);
    auto* lo = reinterpret_cast<CHUNK_HEAD*>((base + 39) & ~std::uintptr_t{15});
    auto* hi = reinterpret_cast<CHUNK_HEAD*>((base + size - 16) & ~std::uintptr_t{15});
    CHUNK_HEAD* free_chunk = at(lo, HEAD_SIZE);
    // An area too small for a smallest chunk between its boundaries (88..95 bytes) is refused:
    // the free chunk's links would overlay the high boundary.
    if (reinterpret_cast<char*>(hi) < reinterpret_cast<char*>(free_chunk) + MIN_SMALL_BIN_SIZE)
        return false;
    std::uint64_t f = static_cast<std::uint64_t>(reinterpret_cast<char*>(hi) - reinterpret_cast<char*>(free_chunk));

    lo->prev_size = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(lo) - base);
    lo->chunk_size = BOUNDARY_HEAD;
    free_chunk->prev_size = HEAD_SIZE;
    free_chunk->chunk_size = f;
    hi->prev_size = f;
    hi->chunk_size = BOUNDARY_HEAD;

    heapmem* first = heap->first_heapmem;
    area->prev = first->prev;
    area->next = first;
    first->prev->next = area;
    first->prev = area;
    area->mem_size = size;

    heap->heap_size += size;
    heap->overhead_byte_count += size - f;
    heap->stat.gross_used_byte_count += size - f + HEAD_SIZE;
    store_free_chunk(heap, free_chunk);
    nheap_event(heap);
    return true;
}

void store_free_chunk(heap_state* heap, CHUNK_HEAD* free_chunk)
{
    if (heap->assert_cb != nullptr) [[unlikely]] {
        if (free_chunk->chunk_size != chunk_size(free_chunk))
            NHEAP_REPORT("free_chunk->chunk_size == CHUNK_SIZE(free_chunk)");
        if (!has_flag(prev_chunk(free_chunk), CF_RESERVED))
            NHEAP_REPORT("TEST_CHUNK_FLAG(PREV_OF_FREE_CHUNK(free_chunk), CF_RESERVED)");
        if (!has_flag(next_chunk(free_chunk), CF_RESERVED))
            NHEAP_REPORT("TEST_CHUNK_FLAG(NEXT_OF_FREE_CHUNK(free_chunk), CF_RESERVED)");
    }
    std::uint64_t s = chunk_size(free_chunk);
    std::uint64_t index = bin_index(heap, s);
    CHUNK_HEAD* head = bin_head(heap, index);
    CHUNK_HEAD* behind; // the chunk the new one goes in front of
    if (s <= 128) {
        behind = links(head)->next_free;
    } else if (s < NHEAP_INDEXED_SIZE_LIMIT) {
        // In front of the leader of its size, or of the next larger size present, or at the end;
        // either way it leads its own size now.
        std::uint64_t k = index - NHEAP_SMALL_BIN_COUNT;
        std::uint64_t base = run_base(k);
        std::uint64_t bit = std::uint64_t{1} << ((s >> 4) - base);
        std::uint64_t& present = heap->run_sizes[k];
        CHUNK_HEAD*& slot = heap->run_leaders[(s >> 4) - 8];
        if (present & bit) {
            behind = slot;
        } else {
            std::uint64_t larger = present & ~(bit | (bit - 1));
            behind = larger == 0 ? head
                                 : heap->run_leaders[base - 8 + static_cast<std::uint64_t>(std::countr_zero(larger))];
            present |= bit;
        }
        slot = free_chunk;
    } else {
        // In front of the first chunk that is not smaller: it leads its run, or the bin ends there.
        behind = walk_leaders(head, s);
        LeaderLinks* lead = leader(free_chunk);
        if (behind != head && behind->chunk_size == s) {
            // The newest of equal sizes comes first and leads the run in place of the old leader.
            LeaderLinks* old = leader(behind);
            if (old->next_leader == behind) {
                lead->prev_leader = lead->next_leader = free_chunk;
            } else {
                lead->prev_leader = old->prev_leader;
                lead->next_leader = old->next_leader;
                leader(old->prev_leader)->next_leader = free_chunk;
                leader(old->next_leader)->prev_leader = free_chunk;
            }
            old->next_leader = nullptr;
        } else {
            CHUNK_HEAD* first = links(head)->next_free;
            if (first == head) {
                lead->prev_leader = lead->next_leader = free_chunk;
            } else {
                // A run of its own, between the leader before it and the one behind it (or the
                // first leader, when it goes last).
                CHUNK_HEAD* next_lead = behind == head ? first : behind;
                CHUNK_HEAD* prev_lead = leader(next_lead)->prev_leader;
                lead->prev_leader = prev_lead;
                lead->next_leader = next_lead;
                leader(prev_lead)->next_leader = free_chunk;
                leader(next_lead)->prev_leader = free_chunk;
            }
        }
    }
    CHUNK_HEAD* front = links(behind)->prev_free;
    links(free_chunk)->prev_free = front;
    links(free_chunk)->next_free = behind;
    links(front)->next_free = free_chunk;
    links(behind)->prev_free = free_chunk;
    heap->occupied_bins |= std::uint64_t{1} << index;
    heap->stat.free_block_count += 1;
}

// ---------------------------------------------------------------------------------------------
// Allocation and release

namespace {

// Makes chunk a reserved chunk of n bytes and files the r bytes behind it as a free chunk.
void keep_and_file_rest(heap_state* heap, CHUNK_HEAD* chunk, std::uint64_t n, std::uint64_t r)
{
    CHUNK_HEAD* rest = at(chunk, n);
    rest->prev_size = n;
    rest->chunk_size = r;
    at(rest, r)->prev_size = r;
    chunk->chunk_size = n | CF_RESERVED;
    store_free_chunk(heap, rest);
}

} // namespace

void* split_and_reserve(heap_state* heap, CHUNK_HEAD* free_chunk, std::uint64_t needed)
{
    if (heap->assert_cb != nullptr) [[unlikely]] {
        if (has_flag(free_chunk, CF_RESERVED))
            NHEAP_REPORT("!TEST_CHUNK_FLAG(free_chunk,CF_RESERVED)");
        if (!(needed >= MIN_SMALL_BIN_SIZE && needed == ((needed + 15) & ~std::uint64_t{15})))
            NHEAP_REPORT("needed_size >= MIN_SMALL_BIN_SIZE && needed_size == ROUND_UP_TO_CHUNK_SIZE(needed_size)");
    }
    unlink_free(heap, free_chunk);
    heap->stat.free_block_count -= 1;
    std::uint64_t size = chunk_size(free_chunk);
    std::uint64_t r = size - needed;
    if (r >= MIN_SMALL_BIN_SIZE) {
        keep_and_file_rest(heap, free_chunk, needed, r);
        heap->stat.gross_used_byte_count += needed;
    } else {
        free_chunk->chunk_size |= CF_RESERVED;
        heap->stat.gross_used_byte_count += size - HEAD_SIZE;
    }
    heap->stat.used_block_count += 1;
    nheap_event(heap);
    return block_of(free_chunk);
}

void* nheap_alloc(heap_state* heap, std::uint64_t size)
{
    NHEAP_SUPERVISE();
    if (size > MAX_REQUEST) [[unlikely]] {
        NHEAP_SUPERVISE();
        return nullptr;
    }
    std::uint64_t n = needed_size(size);
    NHEAP_LOCK();
    bool gc_done = false;
    void* result = nullptr;
    for (;;) {
        if (CHUNK_HEAD* c = find_fit(heap, n)) {
            result = split_and_reserve(heap, c, n);
            break;
        }
        if (grow(heap, n))
            continue;
        if (heap->gc_func != nullptr && !gc_done) {
            NHEAP_UNLOCK();
            heap->gc_func(heap->gc_arg);
            NHEAP_LOCK();
            gc_done = true;
            continue;
        }
        break;
    }
    NHEAP_UNLOCK();
    NHEAP_SUPERVISE();
    return result;
}

void nheap_free(heap_state* heap, void* block)
{
    NHEAP_SUPERVISE();
    if (block == nullptr)
        return;
    NHEAP_LOCK();
    CHUNK_HEAD* chunk = chunk_of(block);
    if (has_flag(chunk, CF_ALIGNED))
        chunk = prev_chunk(chunk);
    if (heap->assert_cb != nullptr && !has_flag(chunk, CF_RESERVED)) [[unlikely]]
        NHEAP_REPORT("TEST_CHUNK_FLAG(chunk,CF_RESERVED)");
    chunk->chunk_size &= ~CF_RESERVED;
    std::uint64_t size = chunk_size(chunk);
    heap->stat.gross_used_byte_count = heap->stat.gross_used_byte_count - size + HEAD_SIZE;
    heap->stat.used_block_count -= 1;

    CHUNK_HEAD* prev = prev_chunk(chunk);
    if (!has_flag(prev, CF_RESERVED)) {
        unlink_free(heap, prev);
        prev->chunk_size += size;
        chunk = prev;
        size = prev->chunk_size;
        at(chunk, size)->prev_size = size;
        heap->stat.free_block_count -= 1;
        heap->stat.gross_used_byte_count -= HEAD_SIZE;
    }
    CHUNK_HEAD* next = at(chunk, size);
    if (!has_flag(next, CF_RESERVED)) {
        if (heap->assert_cb != nullptr && !has_flag(next_chunk(next), CF_RESERVED)) [[unlikely]]
            NHEAP_REPORT("TEST_CHUNK_FLAG(next_next_chunk,CF_RESERVED)");
        unlink_free(heap, next);
        size += chunk_size(next);
        chunk->chunk_size = size | (chunk->chunk_size & CHUNK_FLAG_MASK);
        at(chunk, size)->prev_size = size;
        heap->stat.free_block_count -= 1;
        heap->stat.gross_used_byte_count -= HEAD_SIZE;
    }
    store_free_chunk(heap, chunk);

    CHUNK_HEAD* first_chunk = prev_chunk(chunk);
    if (has_flag(first_chunk, CF_BOUNDARY) && has_flag(next_chunk(chunk), CF_BOUNDARY)) {
        auto* area = reinterpret_cast<heapmem*>(before(first_chunk, first_chunk->prev_size));
        if (area != heap->first_heapmem) {
            if (heap->assert_cb != nullptr) [[unlikely]] {
                if (!has_flag(first_chunk, CF_BOUNDARY))
                    NHEAP_REPORT("TEST_CHUNK_FLAG(first_chunk,CF_BOUNDARY)");
                if (has_flag(chunk, CF_RESERVED))
                    NHEAP_REPORT("!TEST_CHUNK_FLAG(free_chunk,CF_RESERVED)");
                if (!has_flag(next_chunk(chunk), CF_BOUNDARY))
                    NHEAP_REPORT("TEST_CHUNK_FLAG(NEXT_OF_FREE_CHUNK(free_chunk),CF_BOUNDARY)");
            }
            std::uint64_t f = chunk_size(chunk);
            std::uint64_t s = area->mem_size;
            heap->heap_size -= s;
            heap->overhead_byte_count -= s - f;
            heap->stat.gross_used_byte_count -= s - f + HEAD_SIZE;
            unlink_free(heap, chunk);
            heap->stat.free_block_count -= 1;
            area->prev->next = area->next;
            area->next->prev = area->prev;
            FreeMemory(area);
        }
    }
    nheap_event(heap);
    NHEAP_UNLOCK();
    NHEAP_SUPERVISE();
}

std::uint64_t nheap_msize(heap_state* heap, void* block)
{
    CHUNK_HEAD* chunk = chunk_of(block);
    if (heap->assert_cb != nullptr && !has_flag(chunk, CF_RESERVED)) [[unlikely]]
        NHEAP_REPORT("TEST_CHUNK_FLAG(chunk,CF_RESERVED)");
    return chunk_size(chunk);
}

// ---------------------------------------------------------------------------------------------
// Resizing in place, shared by nheap_realloc and nheap_realloc_aligned

namespace {

enum class Resize { done, move };

// Gives the reserved chunk the size n (needed_size) in place, or says that it has to move.
// With an inner head, the head follows the chunk's new size. Runs with heap_lock held.
Resize resize_in_place(heap_state* heap, CHUNK_HEAD* chunk, std::uint64_t n, CHUNK_HEAD* inner)
{
    std::uint64_t old = chunk_size(chunk);
    auto d = static_cast<std::int64_t>(n - old);
    if (d > 0) {
        auto grow_by = static_cast<std::uint64_t>(d);
        CHUNK_HEAD* next = at(chunk, old);
        if (has_flag(next, CF_RESERVED) || next->chunk_size < grow_by)
            return Resize::move;
        unlink_free(heap, next);
        heap->stat.free_block_count -= 1;
        std::uint64_t next_size = chunk_size(next);
        std::uint64_t r = next_size - grow_by;
        if (r >= MIN_SMALL_BIN_SIZE) {
            keep_and_file_rest(heap, chunk, n, r);
            heap->stat.gross_used_byte_count += grow_by;
        } else {
            std::uint64_t size = old + next_size;
            chunk->chunk_size = size | CF_RESERVED;
            at(chunk, size)->prev_size = size;
            heap->stat.gross_used_byte_count += next_size - HEAD_SIZE;
        }
    } else if (d <= -32) {
        auto r = static_cast<std::uint64_t>(-d);
        heap->stat.gross_used_byte_count = heap->stat.gross_used_byte_count - r + HEAD_SIZE;
        CHUNK_HEAD* next = at(chunk, old);
        if (!has_flag(next, CF_RESERVED)) {
            unlink_free(heap, next);
            r += chunk_size(next);
            heap->stat.gross_used_byte_count -= HEAD_SIZE;
            heap->stat.free_block_count -= 1;
        }
        keep_and_file_rest(heap, chunk, n, r);
    } else {
        return Resize::done; // a shrink by one step of 16 at most keeps the chunk whole
    }
    if (inner != nullptr)
        inner->chunk_size = (chunk_size(chunk) - inner->prev_size) | CF_RESERVED | CF_ALIGNED;
    nheap_event(heap);
    return Resize::done;
}

} // namespace

void* nheap_realloc(heap_state* heap, void* block, std::uint64_t size)
{
    if (block == nullptr)
        return nheap_alloc(heap, size);
    NHEAP_SUPERVISE();
    if (size == 0) {
        nheap_free(heap, block);
        return nullptr;
    }
    CHUNK_HEAD* chunk = chunk_of(block);
    if (has_flag(chunk, CF_ALIGNED) || size > MAX_REQUEST) {
        NHEAP_SUPERVISE();
        return nullptr;
    }
    NHEAP_LOCK();
    std::uint64_t old = chunk_size(chunk);
    Resize how = resize_in_place(heap, chunk, needed_size(size), nullptr);
    NHEAP_UNLOCK();
    NHEAP_SUPERVISE();
    if (how == Resize::done)
        return block;
    void* moved = nheap_alloc(heap, size);
    if (moved == nullptr)
        return nullptr;
    std::memcpy(moved, block, old - HEAD_SIZE);
    nheap_free(heap, block);
    return moved;
}

// ---------------------------------------------------------------------------------------------
// Aligned blocks: cut out of an over-sized ordinary block

void* nheap_alloc_aligned(heap_state* heap, std::uint64_t size, std::uint64_t alignment)
{
    if (!alignment_ok(alignment))
        return nullptr;
    std::uint64_t mask = alignment - 1;
    NHEAP_SUPERVISE();
    if (size > MAX_REQUEST - 2 * MAX_ALIGNMENT) {
        NHEAP_SUPERVISE();
        return nullptr;
    }
    std::uint64_t n = needed_size(size);
    void* result = nullptr;
    NHEAP_LOCK();
    // A free chunk of the right bin that happens to be aligned is used as it is.
    std::uint64_t index = n <= 128 ? small_index(n) : NHEAP_SMALL_BIN_COUNT + large_index(n);
    if (index < bin_count(heap) && (heap->occupied_bins & (std::uint64_t{1} << index))) {
        CHUNK_HEAD* head = bin_head(heap, index);
        CHUNK_HEAD* c = n <= 128 ? links(head)->next_free : first_at_least(heap, index, n);
        for (; c != head; c = links(c)->next_free) {
            if (c->chunk_size >= n && (reinterpret_cast<std::uintptr_t>(block_of(c)) & mask) == 0) {
                result = split_and_reserve(heap, c, n);
                break;
            }
        }
    }
    NHEAP_UNLOCK();
    if (result != nullptr) {
        NHEAP_SUPERVISE();
    } else {
        void* unaligned = nheap_alloc(heap, n + alignment - 1);
        if (unaligned == nullptr) {
            NHEAP_SUPERVISE();
            return nullptr;
        }
        NHEAP_LOCK();
        result = reinterpret_cast<void*>((reinterpret_cast<std::uintptr_t>(unaligned) + mask) & ~mask);
        CHUNK_HEAD* unaligned_chunk = chunk_of(unaligned);
        CHUNK_HEAD* aligned_chunk = chunk_of(result);
        auto pre_chunk_size = static_cast<std::uint64_t>(static_cast<char*>(result) - static_cast<char*>(unaligned));
        std::uint64_t unaligned_chunk_size = chunk_size(unaligned_chunk);
        CHUNK_HEAD* next = at(unaligned_chunk, unaligned_chunk_size);
        if (heap->assert_cb != nullptr) [[unlikely]] {
            if (!has_flag(unaligned_chunk, CF_RESERVED))
                NHEAP_REPORT("TEST_CHUNK_FLAG(unaligned_chunk, CF_RESERVED)");
            if (has_flag(unaligned_chunk, CF_BOUNDARY | CF_ALIGNED))
                NHEAP_REPORT("!TEST_CHUNK_FLAG(unaligned_chunk, CF_BOUNDARY|CF_ALIGNED)");
            if (!(unaligned_chunk_size >= pre_chunk_size + sizeof(CHUNK_HEAD) + size))
                NHEAP_REPORT("unaligned_chunk_size >= pre_chunk_size + sizeof(CHUNK_HEAD) + aligned_memblock_size");
        }
        CHUNK_HEAD* pre_chunk = nullptr;
        CHUNK_HEAD* long_chunk = unaligned_chunk;
        std::uint64_t long_chunk_fix_size = n;
        if (pre_chunk_size >= MIN_SMALL_BIN_SIZE) {
            aligned_chunk->prev_size = pre_chunk_size;
            aligned_chunk->chunk_size = (unaligned_chunk_size - pre_chunk_size) | CF_RESERVED;
            unaligned_chunk->chunk_size = pre_chunk_size | CF_RESERVED;
            pre_chunk = unaligned_chunk;
            heap->stat.used_block_count += 1;
            long_chunk = aligned_chunk;
        } else if (pre_chunk_size != 0) {
            aligned_chunk->prev_size = pre_chunk_size;
            aligned_chunk->chunk_size = (unaligned_chunk_size - pre_chunk_size) | CF_RESERVED | CF_ALIGNED;
            long_chunk_fix_size = n + pre_chunk_size;
        }
        if (heap->assert_cb != nullptr && !(chunk_size(long_chunk) >= long_chunk_fix_size)) [[unlikely]]
            NHEAP_REPORT("CHUNK_SIZE(long_chunk) >= long_chunk_fix_size");
        CHUNK_HEAD* tail = nullptr;
        std::uint64_t r = chunk_size(long_chunk) - long_chunk_fix_size;
        if (r >= MIN_SMALL_BIN_SIZE) {
            long_chunk->chunk_size = long_chunk_fix_size | (long_chunk->chunk_size & CHUNK_FLAG_MASK);
            tail = at(long_chunk, long_chunk_fix_size);
            tail->prev_size = long_chunk_fix_size;
            tail->chunk_size = r | CF_RESERVED;
            next->prev_size = r;
            if (long_chunk != aligned_chunk)
                aligned_chunk->chunk_size =
                    (chunk_size(long_chunk) - aligned_chunk->prev_size) | CF_RESERVED | CF_ALIGNED;
            heap->stat.used_block_count += 1;
        } else {
            next->prev_size = chunk_size(long_chunk);
        }
        nheap_event(heap);
        NHEAP_UNLOCK();
        NHEAP_SUPERVISE();
        if (pre_chunk != nullptr)
            nheap_free(heap, block_of(pre_chunk));
        if (tail != nullptr)
            nheap_free(heap, block_of(tail));
    }
    if (heap->assert_cb != nullptr && (reinterpret_cast<std::uintptr_t>(result) & mask) != 0) [[unlikely]]
        NHEAP_REPORT("((uintptr_t)result & alignment_mask) == 0");
    return result;
}

void* nheap_realloc_aligned(heap_state* heap, void* block, std::uint64_t size, std::uint64_t alignment)
{
    NHEAP_SUPERVISE();
    if (block == nullptr)
        return nheap_alloc_aligned(heap, size, alignment);
    if (size == 0) {
        nheap_free(heap, block);
        return nullptr;
    }
    if (!alignment_ok(alignment) || (reinterpret_cast<std::uintptr_t>(block) & (alignment - 1)) != 0 ||
        size > MAX_REQUEST - 2 * MAX_ALIGNMENT)
        return nullptr;
    NHEAP_LOCK();
    CHUNK_HEAD* head = chunk_of(block);
    CHUNK_HEAD* chunk = head;
    CHUNK_HEAD* inner = nullptr;
    std::uint64_t length = size;
    if (has_flag(head, CF_ALIGNED)) {
        inner = head;
        chunk = prev_chunk(head);
        length = size + head->prev_size;
    }
    std::uint64_t payload = chunk_size(head) - HEAD_SIZE;
    Resize how = resize_in_place(heap, chunk, needed_size(length), inner);
    NHEAP_UNLOCK();
    NHEAP_SUPERVISE();
    if (how == Resize::done)
        return block;
    void* moved = nheap_alloc_aligned(heap, size, alignment);
    if (moved == nullptr)
        return nullptr;
    std::memcpy(moved, block, payload);
    nheap_free(heap, block);
    return moved;
}

// ---------------------------------------------------------------------------------------------
// Deletion and setters

void nheap_delete(heap_state* heap)
{
    if (heap == nullptr)
        return;
    MutexDestroy(&heap->heap_lock);
    MutexDestroy(&heap->stat_lock);
    heapmem* first = heap->first_heapmem;
    heapmem* area = first->next;
    first->prev->next = nullptr;
    while (area != nullptr && area != first) {
        heapmem* next = area->next;
        FreeMemory(area);
        area = next;
    }
    FreeMemory(heap);
}

void nheap_set_gc_func(heap_state* heap, nheap_gc_func func, void* arg)
{
    heap->gc_func = func;
    heap->gc_arg = arg;
}

void nheap_clear_gc_func(heap_state* heap)
{
    heap->gc_func = nullptr;
    heap->gc_arg = nullptr;
}

void nheap_set_event_handler(heap_state*, void*, void*) {}
void nheap_clear_event_handler(heap_state*) {}

void nheap_event(heap_state* heap)
{
    std::uint64_t sequence = heap->stat_sequence;
    __atomic_store_n(&heap->stat_sequence, sequence + 1, __ATOMIC_RELAXED);
    __atomic_thread_fence(__ATOMIC_RELEASE);
    nheap_stat& s = heap->stat;
    s.free_byte_count = heap->heap_size - s.gross_used_byte_count;
    if (s.free_byte_count < s.min_free_byte_count)
        s.min_free_byte_count = s.free_byte_count;
    if (s.gross_used_byte_count > s.max_gross_used_byte_count)
        s.max_gross_used_byte_count = s.gross_used_byte_count;
    if (s.used_block_count > s.max_used_block_count)
        s.max_used_block_count = s.used_block_count;
    if (s.free_block_count > s.max_free_block_count)
        s.max_free_block_count = s.free_block_count;
    __atomic_store_n(&heap->stat_sequence, sequence + 2, __ATOMIC_RELEASE);
}

} // namespace orlix
