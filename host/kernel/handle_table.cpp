// The handle table: chunks of slots, each slot guarded by its own spin lock, free slots on a
// lock-free stack. A handle carries its slot index and the slot's generation, so a stale handle
// never reaches the object that took its slot later. Hot paths look handles up through a small
// per-thread cache that checks the slot without taking its lock.
#include <array>
#include <atomic>

#include "host/kernel/object.h"
#include "host/kernel/spin_lock.h"

namespace host::kernel {

namespace {

constexpr std::uint32_t CHUNK_BITS = 12;
constexpr std::uint32_t CHUNK_SIZE = 1u << CHUNK_BITS;
constexpr std::uint32_t MAX_CHUNKS = 1024;

struct Slot {
    SpinLock lock;
    std::atomic<orlix::Handle> handle{0}; // 0 while free; written under the lock
    std::uint64_t flags = 0;
    ObjectRef object;
    std::uint32_t generation = 0;
    std::atomic<std::uint32_t> next_free{0};
};

struct Chunk {
    std::array<Slot, CHUNK_SIZE> slots;
};

std::array<std::atomic<Chunk*>, MAX_CHUNKS> chunks{};
std::atomic<std::uint32_t> high_water{0};
// Top of the free stack: (tag << 32) | (index + 1), low half 0 when empty. The tag, which
// every change raises, defeats ABA.
std::atomic<std::uint64_t> free_top{0};
std::atomic<std::uint64_t> live_count{0};
std::atomic<std::uint64_t> handle_count{0};

Slot* slot_at(std::uint32_t index)
{
    std::uint32_t c = index >> CHUNK_BITS;
    if (c >= MAX_CHUNKS)
        return nullptr;
    Chunk* chunk = chunks[c].load(std::memory_order_acquire);
    if (chunk == nullptr) {
        auto* fresh = new Chunk();
        if (chunks[c].compare_exchange_strong(chunk, fresh, std::memory_order_acq_rel))
            chunk = fresh;
        else
            delete fresh;
    }
    return &chunk->slots[index & (CHUNK_SIZE - 1)];
}

bool pop_free(std::uint32_t* index)
{
    std::uint64_t top = free_top.load(std::memory_order_acquire);
    while (static_cast<std::uint32_t>(top) != 0) {
        std::uint32_t i = static_cast<std::uint32_t>(top) - 1;
        std::uint64_t next = slot_at(i)->next_free.load(std::memory_order_relaxed);
        std::uint64_t replacement = (((top >> 32) + 1) << 32) | next;
        if (free_top.compare_exchange_weak(top, replacement, std::memory_order_acq_rel)) {
            *index = i;
            return true;
        }
    }
    return false;
}

void push_free(std::uint32_t index)
{
    Slot* slot = slot_at(index);
    std::uint64_t top = free_top.load(std::memory_order_relaxed);
    for (;;) {
        slot->next_free.store(static_cast<std::uint32_t>(top), std::memory_order_relaxed);
        std::uint64_t replacement = (((top >> 32) + 1) << 32) | (index + 1);
        if (free_top.compare_exchange_weak(top, replacement, std::memory_order_acq_rel))
            return;
    }
}

bool take_slot(std::uint32_t* index)
{
    if (pop_free(index))
        return true;
    std::uint32_t fresh = high_water.fetch_add(1, std::memory_order_relaxed);
    if (fresh >= MAX_CHUNKS * CHUNK_SIZE) {
        high_water.fetch_sub(1, std::memory_order_relaxed);
        return false;
    }
    *index = fresh;
    return true;
}

Slot* slot_of(orlix::Handle handle, std::uint32_t* index_out = nullptr)
{
    if (handle <= 0)
        return nullptr;
    std::uint32_t low = static_cast<std::uint32_t>(handle);
    if (low == 0 || low - 1 >= high_water.load(std::memory_order_acquire))
        return nullptr;
    if (index_out != nullptr)
        *index_out = low - 1;
    return slot_at(low - 1);
}

} // namespace

void HandleList::add(orlix::Handle handle)
{
    if (inline_count_ < inline_.size())
        inline_[inline_count_++] = handle;
    else
        more_.push_back(handle);
}

void HandleList::remove(orlix::Handle handle)
{
    for (std::size_t i = 0; i < inline_count_; ++i) {
        if (inline_[i] == handle) {
            inline_[i] = inline_[--inline_count_];
            if (!more_.empty()) {
                inline_[inline_count_++] = more_.back();
                more_.pop_back();
            }
            return;
        }
    }
    std::erase(more_, handle);
}

std::size_t HandleList::take_all(std::array<orlix::Handle, 2>& first, std::vector<orlix::Handle>& more)
{
    std::size_t count = inline_count_;
    first = inline_;
    inline_count_ = 0;
    more.swap(more_);
    return count;
}

// An object counts as live until it dies; a dead one may linger in a lookup cache a while.
Object::Object(Kind kind) : kind_(kind) { live_count.fetch_add(1, std::memory_order_relaxed); }

Object::~Object()
{
    if (!dead())
        live_count.fetch_sub(1, std::memory_order_relaxed);
}

bool Object::kill()
{
    if (dead_.exchange(true, std::memory_order_acq_rel))
        return false;
    live_count.fetch_sub(1, std::memory_order_relaxed);
    on_delete();
    return true;
}

namespace {
// Tests make the n-th next handle fail, to walk the failure paths of whoever asked for it.
std::atomic<std::uint64_t> failure_countdown{0};
} // namespace

void fail_object_after(std::uint64_t n) { failure_countdown.store(n, std::memory_order_relaxed); }

orlix::Handle register_handle(const ObjectRef& object, std::uint64_t flags)
{
    if (failure_countdown.load(std::memory_order_relaxed) != 0 &&
        failure_countdown.fetch_sub(1, std::memory_order_relaxed) == 1)
        return orlix::INVALID_HANDLE;
    std::uint32_t index;
    if (!take_slot(&index))
        return orlix::INVALID_HANDLE;
    Slot* slot = slot_at(index);
    orlix::Handle handle;
    {
        SpinGuard guard(slot->lock);
        slot->generation = (slot->generation + 1) & 0x7fffffff;
        if (slot->generation == 0)
            slot->generation = 1;
        handle = (static_cast<orlix::Handle>(slot->generation) << 32) | (index + 1);
        slot->flags = flags;
        slot->object = object;
        slot->handle.store(handle, std::memory_order_release);
    }
    SpinGuard guard(object->handles_lock_);
    if (object->dead()) {
        {
            SpinGuard slot_guard(slot->lock);
            slot->handle.store(0, std::memory_order_release);
            slot->object.reset();
        }
        push_free(index);
        return orlix::INVALID_HANDLE;
    }
    handle_count.fetch_add(1, std::memory_order_relaxed);
    object->handles_.add(handle);
    orlix::Handle none = orlix::INVALID_HANDLE;
    object->primary_.compare_exchange_strong(none, handle, std::memory_order_relaxed);
    return handle;
}

ObjectRef lookup(orlix::Handle handle)
{
    Slot* slot = slot_of(handle);
    if (slot == nullptr)
        return nullptr;
    ObjectRef object;
    {
        SpinGuard guard(slot->lock);
        if (slot->handle.load(std::memory_order_relaxed) == handle)
            object = slot->object;
    }
    if (object && object->dead())
        return nullptr;
    return object;
}

namespace {

// Handles this thread used lately, each with a reference that keeps its object's memory: a hit
// costs two plain loads (the slot still holds the handle, the object is alive) and no write to
// memory another thread uses.
class LookupCache {
public:
    Object* find(orlix::Handle handle) const
    {
        for (const Entry& entry : entries_)
            if (entry.handle == handle)
                return entry.slot->handle.load(std::memory_order_acquire) == handle && !entry.object->dead()
                           ? entry.object.get()
                           : nullptr;
        return nullptr;
    }

    // Replaces what the cache held for the handle, or its oldest entry.
    const ObjectRef* keep(orlix::Handle handle, Slot* slot, ObjectRef object)
    {
        Entry* entry = nullptr;
        for (Entry& e : entries_)
            if (e.handle == handle)
                entry = &e;
        if (entry == nullptr) {
            entry = &entries_[next_];
            next_ = (next_ + 1) % entries_.size();
        }
        *entry = Entry{handle, slot, std::move(object)};
        return &entry->object;
    }

    const ObjectRef* get(orlix::Handle handle) const
    {
        for (const Entry& entry : entries_)
            if (entry.handle == handle)
                return &entry.object;
        return nullptr;
    }

private:
    struct Entry {
        orlix::Handle handle = 0;
        Slot* slot = nullptr;
        ObjectRef object;
    };
    std::array<Entry, 8> entries_{};
    std::size_t next_ = 0;
};

thread_local LookupCache lookup_cache;

} // namespace

const ObjectRef* lookup_cached(orlix::Handle handle)
{
    if (lookup_cache.find(handle) != nullptr)
        return lookup_cache.get(handle);
    ObjectRef object = lookup(handle);
    if (!object)
        return nullptr;
    return lookup_cache.keep(handle, slot_of(handle), std::move(object));
}

Object* find_cached(orlix::Handle handle) { return lookup_cache.find(handle); }

namespace {

// Empties a slot; the object reference is dropped outside the slot's lock.
ObjectRef clear_slot(orlix::Handle handle)
{
    std::uint32_t index;
    Slot* slot = slot_of(handle, &index);
    if (slot == nullptr)
        return nullptr;
    ObjectRef object;
    {
        SpinGuard guard(slot->lock);
        if (slot->handle.load(std::memory_order_relaxed) != handle)
            return nullptr;
        slot->handle.store(0, std::memory_order_release);
        object = std::move(slot->object);
    }
    handle_count.fetch_sub(1, std::memory_order_relaxed);
    push_free(index);
    return object;
}

} // namespace

bool remove_handle(orlix::Handle handle)
{
    ObjectRef object = clear_slot(handle);
    if (!object)
        return false;
    bool last;
    {
        SpinGuard guard(object->handles_lock_);
        object->handles_.remove(handle);
        last = object->handles_.empty();
    }
    // An object without handles can't be reached again: it dies with its last one.
    if (last)
        object->kill();
    return true;
}

void remove_all_handles(Object& object)
{
    std::array<orlix::Handle, 2> first;
    std::vector<orlix::Handle> more;
    std::size_t count;
    {
        SpinGuard guard(object.handles_lock_);
        count = object.handles_.take_all(first, more);
    }
    for (std::size_t i = 0; i < count; ++i)
        clear_slot(first[i]);
    for (orlix::Handle handle : more)
        clear_slot(handle);
}

void delete_object(const ObjectRef& object)
{
    object->kill();
    remove_all_handles(*object);
}

std::uint64_t live_objects() { return live_count.load(std::memory_order_relaxed); }

std::uint64_t live_handles() { return handle_count.load(std::memory_order_relaxed); }

} // namespace host::kernel
