// Kernel objects and the handle table that names them. Every kernel entry turns a handle into an
// object here; the lookup takes only the lock of the handle's own slot.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "host/kernel/spin_lock.h"
#include "platform/kernel.h"

namespace host::kernel {

// The handles of one object. Nearly every object has one or two, which live inline.
class HandleList {
public:
    void add(orlix::Handle handle);
    void remove(orlix::Handle handle);
    bool empty() const { return inline_count_ == 0 && more_.empty(); }
    // Moves every handle out, leaving the list empty: up to two into first, the rest into more.
    std::size_t take_all(std::array<orlix::Handle, 2>& first, std::vector<orlix::Handle>& more);

private:
    std::array<orlix::Handle, 2> inline_{};
    std::size_t inline_count_ = 0;
    std::vector<orlix::Handle> more_;
};

enum class Kind { task, thread, port, pipe, semaphore, event, memo, watch };

class Object : public std::enable_shared_from_this<Object> {
public:
    explicit Object(Kind kind);
    virtual ~Object();
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;

    Kind kind() const { return kind_; }
    bool dead() const { return dead_.load(std::memory_order_acquire); }
    orlix::Handle primary_handle() const { return primary_.load(std::memory_order_relaxed); }

    // Marks the object dead once and runs on_delete; true for the call that did it.
    bool kill();

private:
    friend orlix::Handle register_handle(const std::shared_ptr<Object>&, std::uint64_t);
    friend bool remove_handle(orlix::Handle);
    friend void remove_all_handles(Object&);

    // What an object does when it is deleted: wake its waiters, give back its memory.
    virtual void on_delete() {}

    Kind kind_;
    std::atomic<bool> dead_{false};
    std::atomic<orlix::Handle> primary_{orlix::INVALID_HANDLE};
    SpinLock handles_lock_;
    HandleList handles_;
};

using ObjectRef = std::shared_ptr<Object>;

// Gives the object a new handle with the flags; the first handle of an object is its primary one.
// -1 when the table is full.
orlix::Handle register_handle(const ObjectRef& object, std::uint64_t flags);

// The live object behind a handle, or null.
ObjectRef lookup(orlix::Handle handle);

// The same through the calling thread's cache of recent lookups, without taking the slot's lock.
// The reference stays valid until the thread's next cached lookup; copy it to keep the object.
const ObjectRef* lookup_cached(orlix::Handle handle);

// Only a hit of that cache, or null: a few loads, no host code, no write to shared memory. The
// object stays valid until the thread's next cached lookup.
Object* find_cached(orlix::Handle handle);

template <typename T> T* find_cached_as(orlix::Handle handle, Kind kind)
{
    Object* object = find_cached(handle);
    return object != nullptr && object->kind() == kind ? static_cast<T*>(object) : nullptr;
}

template <typename T> std::shared_ptr<T> lookup_as(orlix::Handle handle, Kind kind)
{
    ObjectRef object = lookup(handle);
    if (!object || object->kind() != kind)
        return nullptr;
    return std::static_pointer_cast<T>(object);
}

// Removes one handle; the object lives on through its other handles. False for an unknown handle.
bool remove_handle(orlix::Handle handle);

// Removes every handle of the object.
void remove_all_handles(Object& object);

// Deletes an object: it dies, all its handles go, and its memory goes with the last reference.
void delete_object(const ObjectRef& object);

// Objects not yet deleted, and handles not yet removed.
std::uint64_t live_objects();
std::uint64_t live_handles();

} // namespace host::kernel
