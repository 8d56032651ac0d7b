// nheap supervision: the integrity walk, the supervision callback, statistics snapshots and the
// isolated-usage bracket. Reads the heap under its locks; changes only the statistics stack.
#include <cstdint>
#include <cstring>

#include "memheap/memheap.h"
#include "memheap/memheap_internal.h"

namespace orlix {

using namespace nheap_detail;

namespace {

constexpr const char* FILE_NAME = "memheap/memheap_check";

bool links_ok(CHUNK_HEAD* c)
{
    FreeLinks* l = links(c);
    return l->prev_free != nullptr && l->next_free != nullptr && links(l->prev_free)->next_free == c &&
           links(l->next_free)->prev_free == c;
}

struct Counts {
    std::uint64_t gross;
    std::uint64_t used;
    std::uint64_t free;
};

// One area: its list links, its boundaries, and every chunk between them. The walk also stays
// inside the area, so that a corrupted size is caught instead of followed.
bool check_area(heapmem* area, Counts& counts)
{
    if (area->prev == nullptr || area->next == nullptr || area->prev->next != area || area->next->prev != area)
        return false;
    CHUNK_HEAD* lo = low_boundary(area);
    CHUNK_HEAD* hi = high_boundary(area);
    if (chunk_size(lo) != 16 || !has_flag(lo, CF_RESERVED) || !has_flag(lo, CF_BOUNDARY))
        return false;
    auto* end = reinterpret_cast<char*>(hi);
    CHUNK_HEAD* c = at(lo, HEAD_SIZE);
    bool prev_free = false;
    while (!has_flag(c, CF_BOUNDARY)) {
        std::uint64_t size = chunk_size(c);
        if ((reinterpret_cast<std::uintptr_t>(c) & 15) != 0 || c->chunk_size < MIN_SMALL_BIN_SIZE ||
            c->prev_size == 0)
            return false;
        if (size > static_cast<std::uint64_t>(end - reinterpret_cast<char*>(c)) ||
            c->prev_size > static_cast<std::uint64_t>(reinterpret_cast<char*>(c) - reinterpret_cast<char*>(lo)))
            return false;
        if (at(c, size)->prev_size != size || chunk_size(prev_chunk(c)) != c->prev_size)
            return false;
        if (has_flag(c, CF_RESERVED)) {
            counts.used += 1;
            counts.gross += size;
            prev_free = false;
        } else {
            if (prev_free || c->chunk_size != size || !links_ok(c))
                return false;
            counts.free += 1;
            counts.gross += HEAD_SIZE;
            prev_free = true;
        }
        c = at(c, size);
    }
    return c == hi && has_flag(c, CF_RESERVED);
}

// Large bin k below NHEAP_INDEXED_BIN_COUNT ascends by size, holds only sizes of its range, and
// its run index names exactly the sizes present, each with the first chunk of that size. The
// walk gives up after more steps than there are free chunks, so that a cycle can't hold it.
bool check_indexed_bin(heap_state* heap, std::uint64_t k, std::uint64_t steps)
{
    CHUNK_HEAD* head = bin_head(heap, NHEAP_SMALL_BIN_COUNT + k);
    std::uint64_t base = run_base(k);
    std::uint64_t seen = 0;
    std::uint64_t last = 0;
    for (CHUNK_HEAD* c = links(head)->next_free; c != head; c = links(c)->next_free) {
        std::uint64_t s = c->chunk_size;
        if (steps-- == 0 || (s & 15) != 0 || s < base * 16 || s >= base * 32 || s < last)
            return false;
        if (s != last) {
            if (heap->run_leaders[(s >> 4) - 8] != c)
                return false;
            seen |= std::uint64_t{1} << ((s >> 4) - base);
            last = s;
        }
    }
    return seen == heap->run_sizes[k];
}

// A large bin from 4 on ascends by size, and its run leaders form the circular list that
// searches use.
bool check_large_bin(CHUNK_HEAD* head)
{
    CHUNK_HEAD* first = links(head)->next_free;
    if (first == head)
        return true;
    CHUNK_HEAD* run = first; // leader of the run being walked
    for (CHUNK_HEAD* c = links(first)->next_free;; c = links(c)->next_free) {
        if (c != head && c->chunk_size == run->chunk_size) {
            if (leader(c)->next_leader != nullptr)
                return false;
            continue;
        }
        CHUNK_HEAD* next_run = c == head ? first : c;
        if (c != head && c->chunk_size < run->chunk_size)
            return false;
        if (leader(run)->next_leader != next_run || leader(next_run)->prev_leader != run)
            return false;
        if (c == head)
            return true;
        run = c;
    }
}

} // namespace

bool nheap_check(heap_state* heap)
{
    lock(heap, &heap->heap_lock, FILE_NAME, __LINE__);
    Counts counts{heap->overhead_byte_count, 0, 0};
    bool ok = true;
    heapmem* first = heap->first_heapmem;
    heapmem* area = first;
    do {
        ok = check_area(area, counts);
        area = area->next;
    } while (ok && area != first);
    ok = ok && counts.gross == heap->stat.gross_used_byte_count && counts.used == heap->stat.used_block_count &&
         counts.free == heap->stat.free_block_count;
    for (std::uint64_t i = 0; ok && i < bin_count(heap); ++i) {
        CHUNK_HEAD* head = bin_head(heap, i);
        ok = links_ok(head);
        // The map of filled bins must agree with the bins themselves.
        bool filled = links(head)->next_free != head;
        ok = ok && filled == ((heap->occupied_bins >> i) & 1);
        if (i >= NHEAP_SMALL_BIN_COUNT + NHEAP_INDEXED_BIN_COUNT)
            ok = ok && check_large_bin(head);
        else if (i >= NHEAP_SMALL_BIN_COUNT)
            ok = ok && check_indexed_bin(heap, i - NHEAP_SMALL_BIN_COUNT, counts.free);
    }
    unlock(heap, &heap->heap_lock, FILE_NAME, __LINE__);
    return ok;
}

void nheap_assert_impl(heap_state* heap, const char* file, std::int32_t line)
{
    if (heap->assert_cb == nullptr)
        return;
    if (!nheap_check(heap))
        report(heap, "# inconsistent heap #", file, line);
}

nheap_assert_cb nheap_set_assert_cb(heap_state* heap, nheap_assert_cb cb)
{
    nheap_assert_cb before = heap->assert_cb;
    heap->assert_cb = cb;
    return before;
}

namespace {

// A copy of the statistics taken while no event was forming the derived ones.
void copy_stat(heap_state* heap, nheap_stat* out)
{
    constexpr std::size_t words = sizeof(nheap_stat) / sizeof(std::uint64_t);
    const auto* from = reinterpret_cast<const std::uint64_t*>(&heap->stat);
    auto* to = reinterpret_cast<std::uint64_t*>(out);
    for (;;) {
        std::uint64_t before = __atomic_load_n(&heap->stat_sequence, __ATOMIC_ACQUIRE);
        if ((before & 1) == 0) {
            for (std::size_t i = 0; i < words; ++i)
                to[i] = __atomic_load_n(&from[i], __ATOMIC_RELAXED);
            __atomic_thread_fence(__ATOMIC_ACQUIRE);
            if (__atomic_load_n(&heap->stat_sequence, __ATOMIC_RELAXED) == before)
                return;
        }
    }
}

} // namespace

void nheap_get_stat(heap_state* heap, nheap_stat* out)
{
    lock(heap, &heap->stat_lock, FILE_NAME, __LINE__);
    copy_stat(heap, out);
    unlock(heap, &heap->stat_lock, FILE_NAME, __LINE__);
}

void nheap_enter_isolated_usage(heap_state* heap)
{
    // Beyond the report, a second bracket is ignored: the one saved entry stays as it is.
    if (heap->stat_stack_count >= NHEAP_ISOLATED_USAGE_MAX_NESTING) {
        report(heap, "heap_state->stat_stack_count < NHEAP_ISOLATED_USAGE_MAX_NESTING", FILE_NAME, __LINE__);
        return;
    }
    lock(heap, &heap->stat_lock, FILE_NAME, __LINE__);
    copy_stat(heap, &heap->stat_stack[heap->stat_stack_count]);
    heap->stat_stack_count += 1;
    unlock(heap, &heap->stat_lock, FILE_NAME, __LINE__);
}

void nheap_leave_isolated_usage(heap_state* heap)
{
    if (heap->stat_stack_count == 0) {
        report(heap, "heap_state->stat_stack_count > 0", FILE_NAME, __LINE__);
        return;
    }
    heap->stat_stack_count -= 1;
    lock(heap, &heap->stat_lock, FILE_NAME, __LINE__);
    if (heap->assert_cb != nullptr) {
        const nheap_stat* saved_stat = &heap->stat_stack[heap->stat_stack_count];
        nheap_stat now;
        copy_stat(heap, &now);
        if (now.free_byte_count != saved_stat->free_byte_count)
            report(heap, "heap_state->stat.free_byte_count == saved_stat->free_byte_count", FILE_NAME, __LINE__);
        if (now.gross_used_byte_count != saved_stat->gross_used_byte_count)
            report(heap, "heap_state->stat.gross_used_byte_count == saved_stat->gross_used_byte_count", FILE_NAME,
                   __LINE__);
        if (now.used_block_count != saved_stat->used_block_count)
            report(heap, "heap_state->stat.used_block_count == saved_stat->used_block_count", FILE_NAME, __LINE__);
        if (now.free_block_count != saved_stat->free_block_count)
            report(heap, "heap_state->stat.free_block_count == saved_stat->free_block_count", FILE_NAME, __LINE__);
    }
    unlock(heap, &heap->stat_lock, FILE_NAME, __LINE__);
}

} // namespace orlix
