// Memos, views and reservations on Linux mappings. A memo is a size until its view is made; a view
// is an anonymous mapping, or a fixed one inside a reservation, whose unmapped rest stays
// inaccessible. Recently freed views wait in a small cache so that a heap that creates and deletes
// areas, or a thread that takes the request blocks another one left, pays no host system call for
// it. A reused view is not cleared.
#include "host/kernel/memory.h"

#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <mutex>
#include <sys/mman.h>
#include <unistd.h>

#include "host/kernel/object.h"
#include "host/kernel/spin_lock.h"

namespace host::kernel {

namespace {

std::size_t page_size()
{
    static const std::size_t size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    return size;
}

// Size rounded up to whole pages; 0 when it would overflow or is 0.
std::size_t whole_pages(std::uint64_t size)
{
    std::size_t page = page_size();
    if (size == 0 || size > SIZE_MAX - page)
        return 0;
    return (size + page - 1) & ~(page - 1);
}

class Memo;

struct ViewRecord {
    std::uintptr_t base;
    std::size_t size;
    orlix::Handle handle; // the memo's primary handle
    Memo* memo;           // alive while its record is here: a memo takes its record out first
};

// Views by address, in shards by 2 MiB granule so that lookups of unrelated areas don't meet.
// A shard holds few views, kept sorted in a vector.
class AddressMap {
public:
    void add(const ViewRecord& record)
    {
        for_each_shard(record.base, record.size, [&](Shard& shard) {
            auto it = std::lower_bound(shard.views.begin(), shard.views.end(), record.base, before);
            shard.views.insert(it, record);
        });
    }

    void remove(std::uintptr_t base, std::size_t size)
    {
        for_each_shard(base, size, [&](Shard& shard) {
            auto it = std::lower_bound(shard.views.begin(), shard.views.end(), base, before);
            if (it != shard.views.end() && it->base == base)
                shard.views.erase(it);
        });
    }

    bool find(std::uintptr_t address, ViewRecord* out)
    {
        Shard& shard = shards_[(address >> GRANULE_BITS) % SHARDS];
        SpinGuard guard(shard.lock);
        auto it = std::upper_bound(shard.views.begin(), shard.views.end(), address,
                                   [](std::uintptr_t a, const ViewRecord& r) { return a < r.base; });
        if (it == shard.views.begin())
            return false;
        --it;
        if (address >= it->base + it->size)
            return false;
        *out = *it;
        return true;
    }

    // The memos whose views lie inside [base, base + size).
    std::vector<std::shared_ptr<Memo>> inside(std::uintptr_t base, std::size_t size);

private:
    static constexpr unsigned GRANULE_BITS = 21;
    static constexpr std::size_t SHARDS = 16;
    struct Shard {
        SpinLock lock;
        std::vector<ViewRecord> views;
    };

    static bool before(const ViewRecord& r, std::uintptr_t base) { return r.base < base; }

    template <typename F> void for_each_shard(std::uintptr_t base, std::size_t size, F f)
    {
        std::uintptr_t first = base >> GRANULE_BITS;
        std::uintptr_t last = (base + size - 1) >> GRANULE_BITS;
        std::uintptr_t count = last - first + 1 < SHARDS ? last - first + 1 : SHARDS;
        for (std::uintptr_t g = first; g < first + count; ++g) {
            Shard& shard = shards_[g % SHARDS];
            SpinGuard guard(shard.lock);
            f(shard);
        }
    }

    std::array<Shard, SHARDS> shards_;
};

AddressMap& address_map()
{
    static AddressMap map;
    return map;
}

// Freed mappings kept for reuse by size, for the whole task: a thread that ends leaves its
// request blocks and heap areas to the next one instead of unmapping them.
class ViewCache {
public:
    void* take(std::size_t size)
    {
        SpinGuard guard(lock_);
        for (Entry& entry : entries_) {
            if (entry.address != nullptr && entry.size == size) {
                void* address = entry.address;
                entry.address = nullptr;
                held_ -= size;
                return address;
            }
        }
        return nullptr;
    }

    // Keeps a freed mapping; the oldest ones go back to the host to make room, so the cache
    // follows the sizes in use now. The host's unmapping is done outside the lock.
    bool keep(void* address, std::size_t size)
    {
        if (size > MAX_HELD)
            return false;
        std::array<Entry, 32> evicted{};
        std::size_t evicted_count = 0;
        bool kept = false;
        {
            SpinGuard guard(lock_);
            for (std::size_t tries = 0; tries < entries_.size() && !kept; ++tries) {
                Entry& entry = entries_[next_];
                next_ = (next_ + 1) % entries_.size();
                if (entry.address != nullptr) {
                    evicted[evicted_count++] = entry;
                    held_ -= entry.size;
                    entry.address = nullptr;
                }
                if (size <= MAX_HELD - held_) {
                    entry = Entry{address, size};
                    held_ += size;
                    kept = true;
                }
            }
        }
        for (std::size_t i = 0; i < evicted_count; ++i)
            munmap(evicted[i].address, evicted[i].size);
        return kept;
    }

private:
    static constexpr std::size_t MAX_HELD = 16 * 1024 * 1024;
    struct Entry {
        void* address = nullptr;
        std::size_t size = 0;
    };
    SpinLock lock_;
    std::array<Entry, 32> entries_{};
    std::size_t held_ = 0;
    std::size_t next_ = 0; // the oldest entry, the next to give way
};

ViewCache& view_cache()
{
    static auto* cache = new ViewCache; // threads may free views after static destruction has begun
    return *cache;
}

// System stacks that threads still run on. A thread that frees the memory of another thread's
// stack (a detached thread frees the one that ended before it, which may not have left its stack
// quite yet) must not pull it away under that thread: the memory goes when the thread has left.
class LiveStacks {
public:
    enum class How { unmap, protect };

    void enter(std::uintptr_t base, std::size_t size)
    {
        std::lock_guard guard(lock_);
        live_.push_back(Range{base, size});
    }

    // The deferred work is done under the lock, in the order it came: a view's protection that
    // ran after its reservation's unmapping could land on a new thread's stack at that address.
    void leave(std::uintptr_t base)
    {
        std::lock_guard guard(lock_);
        std::erase_if(live_, [&](const Range& r) { return r.base == base; });
        std::erase_if(deferred_, [&](const Deferred& d) {
            if (covers_live(d.range))
                return false;
            dispose_now(d.range.base, d.range.size, d.how);
            return true;
        });
    }

    // Unmaps, or makes inaccessible, now or once no live stack lies in the range.
    void dispose(std::uintptr_t base, std::size_t size, How how)
    {
        std::lock_guard guard(lock_);
        Range range{base, size};
        if (covers_live(range))
            deferred_.push_back(Deferred{range, how});
        else
            dispose_now(base, size, how);
    }

    bool overlaps_live(std::uintptr_t base, std::size_t size)
    {
        std::lock_guard guard(lock_);
        return covers_live(Range{base, size});
    }

private:
    struct Range {
        std::uintptr_t base;
        std::size_t size;
    };
    struct Deferred {
        Range range;
        How how;
    };

    bool covers_live(const Range& range) const
    {
        for (const Range& r : live_)
            if (r.base < range.base + range.size && range.base < r.base + r.size)
                return true;
        return false;
    }

    static void dispose_now(std::uintptr_t base, std::size_t size, How how)
    {
        auto* address = reinterpret_cast<void*>(base);
        if (how == How::unmap)
            munmap(address, size);
        else
            mmap(address, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED | MAP_NORESERVE, -1, 0);
    }

    std::mutex lock_;
    std::vector<Range> live_;
    std::vector<Deferred> deferred_;
};

LiveStacks& live_stacks()
{
    static auto* stacks = new LiveStacks; // threads may end after static destruction has begun
    return *stacks;
}

class Reservations {
public:
    void add(std::uintptr_t base, std::size_t size)
    {
        std::lock_guard guard(lock_);
        ranges_[base] = size;
    }

    bool contains(std::uintptr_t base, std::size_t size)
    {
        std::lock_guard guard(lock_);
        auto it = ranges_.upper_bound(base);
        if (it == ranges_.begin())
            return false;
        --it;
        return base >= it->first && base + size <= it->first + it->second && base + size > base;
    }

    std::size_t take(std::uintptr_t base)
    {
        std::lock_guard guard(lock_);
        auto it = ranges_.find(base);
        if (it == ranges_.end())
            return 0;
        std::size_t size = it->second;
        ranges_.erase(it);
        return size;
    }

private:
    std::mutex lock_;
    std::map<std::uintptr_t, std::size_t> ranges_;
};

Reservations& reservations()
{
    static Reservations r;
    return r;
}

class Memo : public Object {
public:
    explicit Memo(std::uint64_t size) : Object(Kind::memo), size_(size) {}
    ~Memo() override { release(); }

    void* map(void* address)
    {
        SpinGuard guard(lock_);
        if (view_ != nullptr || dead())
            return nullptr;
        std::size_t size = whole_pages(size_);
        if (size == 0)
            return nullptr;
        void* view;
        if (address == nullptr) {
            view = view_cache().take(size);
            if (view == nullptr) {
                view = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
                if (view == MAP_FAILED)
                    return nullptr;
            }
        } else {
            auto base = reinterpret_cast<std::uintptr_t>(address);
            ViewRecord other;
            if (base % page_size() != 0 || !reservations().contains(base, size) ||
                address_map().find(base, &other) || address_map().find(base + size - 1, &other))
                return nullptr;
            view = mmap(address, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
            if (view == MAP_FAILED)
                return nullptr;
            in_reservation_ = true;
        }
        view_ = view;
        mapped_ = size;
        address_map().add(ViewRecord{reinterpret_cast<std::uintptr_t>(view), size, primary_handle(), this});
        return view;
    }

    // The reservation that held the view is going, and the view with it.
    void forget_view_inside(std::uintptr_t base, std::size_t size)
    {
        SpinGuard guard(lock_);
        auto view = reinterpret_cast<std::uintptr_t>(view_);
        if (view_ != nullptr && view >= base && view < base + size) {
            address_map().remove(view, mapped_);
            view_ = nullptr;
        }
    }

private:
    void on_delete() override { release(); }

    void release()
    {
        SpinGuard guard(lock_);
        if (view_ == nullptr)
            return;
        auto base = reinterpret_cast<std::uintptr_t>(view_);
        address_map().remove(base, mapped_);
        if (in_reservation_)
            live_stacks().dispose(base, mapped_, LiveStacks::How::protect);
        else if (live_stacks().overlaps_live(base, mapped_) || !view_cache().keep(view_, mapped_))
            live_stacks().dispose(base, mapped_, LiveStacks::How::unmap);
        view_ = nullptr;
    }

    std::uint64_t size_;
    SpinLock lock_;
    void* view_ = nullptr;
    std::size_t mapped_ = 0;
    bool in_reservation_ = false;
};

std::vector<std::shared_ptr<Memo>> AddressMap::inside(std::uintptr_t base, std::size_t size)
{
    std::vector<std::shared_ptr<Memo>> memos;
    for_each_shard(base, size, [&](Shard& shard) {
        for (const ViewRecord& record : shard.views)
            if (record.base >= base && record.base < base + size)
                // The memo can't be gone: it would have taken its record out under this lock.
                if (auto memo = std::static_pointer_cast<Memo>(record.memo->weak_from_this().lock()))
                    memos.push_back(std::move(memo));
    });
    return memos;
}

} // namespace

orlix::Handle create_memo(std::uint64_t size)
{
    if (whole_pages(size) == 0)
        return orlix::INVALID_HANDLE;
    return register_handle(std::make_shared<Memo>(size), 0);
}

void* alloc_view(orlix::Handle memo, void* address)
{
    auto object = lookup_as<Memo>(memo, Kind::memo);
    return object ? object->map(address) : nullptr;
}

orlix::Handle memo_at(const void* address)
{
    ViewRecord record;
    if (!address_map().find(reinterpret_cast<std::uintptr_t>(address), &record))
        return orlix::INVALID_HANDLE;
    return record.handle;
}

void enter_system_stack(const void* base, std::size_t size)
{
    live_stacks().enter(reinterpret_cast<std::uintptr_t>(base), size);
}

void leave_system_stack(const void* base) { live_stacks().leave(reinterpret_cast<std::uintptr_t>(base)); }

bool view_bounds(const void* address, void** base, std::size_t* size)
{
    ViewRecord record;
    if (!address_map().find(reinterpret_cast<std::uintptr_t>(address), &record))
        return false;
    *base = reinterpret_cast<void*>(record.base);
    *size = record.size;
    return true;
}

void* reserve(std::uint64_t size)
{
    std::size_t whole = whole_pages(size);
    if (whole == 0)
        return nullptr;
    void* base = mmap(nullptr, whole, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (base == MAP_FAILED)
        return nullptr;
    reservations().add(reinterpret_cast<std::uintptr_t>(base), whole);
    return base;
}

orlix::Status release_reservation(void* address)
{
    auto base = reinterpret_cast<std::uintptr_t>(address);
    std::size_t size = reservations().take(base);
    if (size == 0)
        return orlix::STATUS_BAD_ARGUMENT;
    for (auto& memo : address_map().inside(base, size))
        memo->forget_view_inside(base, size);
    live_stacks().dispose(base, size, LiveStacks::How::unmap);
    return orlix::STATUS_DONE;
}

} // namespace host::kernel
