// The task, its state words, per-task store, watchers and exception handlers, and the entries that
// act on objects of any kind: further handles, information, control and deletion.
#include "host/kernel/task.h"

#include <array>
#include <cstdio>
#include <unistd.h>

#include "host/kernel/host_kernel.h"
#include "host/kernel/memory.h"
#include "host/kernel/thread.h"

namespace host::kernel {

class Watch : public Object {
public:
    explicit Watch(orlix::Handle port) : Object(Kind::watch), port(port) {}
    const orlix::Handle port;
};

namespace {

constexpr std::size_t STATE_WORDS = 64;
std::array<std::atomic<std::int64_t>, STATE_WORDS> host_state{};

std::mutex hook_lock;
std::function<void()> task_end_hook;

std::size_t class_index(std::uint64_t exception_class)
{
    return exception_class == orlix::EXCEPTION_SYSTEM ? 0 : 1;
}

} // namespace

std::uint64_t Task::id() const { return static_cast<std::uint64_t>(getpid()); }

std::shared_ptr<Task> the_task_ref()
{
    static std::shared_ptr<Task> task = [] {
        auto made = std::make_shared<Task>();
        register_handle(made, 0);
        return made;
    }();
    return task;
}

Task& the_task() { return *the_task_ref(); }

HandlerEntry exception_handler(std::uint64_t exception_class)
{
    std::size_t i = class_index(exception_class);
    Task& task = the_task();
    return HandlerEntry{task.handlers[i].load(std::memory_order_acquire), task.tables[i].load(std::memory_order_acquire)};
}

void end_task()
{
    Task& task = the_task();
    std::vector<std::shared_ptr<Watch>> watches;
    {
        std::lock_guard guard(task.watch_lock);
        for (auto& weak : task.watches)
            if (auto watch = weak.lock(); watch && !watch->dead())
                watches.push_back(watch);
    }
    for (auto& watch : watches)
        orlix::_SL_SendMsg(watch->port, task.id(), MSG_WATCH_TASK_ENDED, 0, 0);
    std::function<void()> hook;
    {
        std::lock_guard guard(hook_lock);
        hook = task_end_hook;
    }
    if (hook)
        hook();
    std::fflush(nullptr);
    _exit(128 + 9);
}

void set_state(std::uint64_t selector, std::int64_t value)
{
    if (selector < STATE_WORDS)
        host_state[selector].store(value, std::memory_order_release);
}

orlix::Status raise_exception(orlix::Handle thread, std::uint64_t exception_class, std::uint64_t number,
                              std::uint64_t argument)
{
    auto target = lookup_as<KThread>(thread, Kind::thread);
    if (!target)
        return orlix::STATUS_BAD_HANDLE;
    if (exception_class != orlix::EXCEPTION_SYSTEM && exception_class != orlix::EXCEPTION_USER)
        return orlix::STATUS_BAD_ARGUMENT;
    target->raise(PendingException{exception_class, number, argument});
    return orlix::STATUS_DONE;
}

void set_task_end_hook(std::function<void()> hook)
{
    std::lock_guard guard(hook_lock);
    task_end_hook = std::move(hook);
}

std::uint64_t live_object_count() { return live_objects(); }

std::uint64_t live_handle_count() { return live_handles(); }

} // namespace host::kernel

namespace orlix {

using namespace host::kernel;

// The thread's own handle and user word are a few instructions: every errno access of the
// runtime comes through them, so they stay on the caller's stack. Everything else runs its host
// code on the host stack.
std::int64_t _SL_GetState(std::uint64_t selector)
{
    KThread* self = current_thread();
    enter_kernel(self);
    if (selector == STATE_THREAD)
        return self->primary_handle();
    return on_host_stack(self, [selector]() -> std::int64_t {
        switch (selector) {
        case STATE_TASK:
            return the_task().primary_handle();
        case STATE_TASKS_AS_HANDLES:
        case STATE_VM_AVAILABLE:
            return 1;
        default:
            return selector < STATE_WORDS ? host_state[selector].load(std::memory_order_acquire) : 0;
        }
    });
}

Status _SL_SetState(std::uint64_t, std::uint64_t)
{
    enter_kernel(current_thread());
    return STATUS_DONE;
}

Handle _SL_CreateHandle(std::uint64_t, Handle object, std::uint64_t flags)
{
    return host_entry([object, flags] {
        ObjectRef target = lookup(object);
        return target ? register_handle(target, flags) : INVALID_HANDLE;
    });
}

Status _SL_GetObjectInfo(Handle object, std::uint64_t selector, std::uint64_t* out)
{
    KThread* self = current_thread();
    enter_kernel(self);
    if (out == nullptr)
        return STATUS_BAD_ARGUMENT;
    if (selector == INFO_USER_WORD && object == self->primary_handle()) {
        *out = self->user_word.load(std::memory_order_relaxed);
        return STATUS_DONE;
    }
    return on_host_stack(self, [=] {
        ObjectRef target = lookup(object);
        if (!target)
            return STATUS_BAD_HANDLE;
        if (selector == INFO_USER_WORD && target->kind() == Kind::thread) {
            *out = static_cast<KThread&>(*target).user_word.load(std::memory_order_acquire);
            return STATUS_DONE;
        }
        if (selector == INFO_TASK_ID && target->kind() == Kind::task) {
            *out = static_cast<Task&>(*target).id();
            return STATUS_DONE;
        }
        return STATUS_BAD_ARGUMENT;
    });
}

Status _SL_ControlObject(Handle object, std::uint64_t code, std::uint64_t a, std::uint64_t b, std::uint64_t,
                         std::uint64_t)
{
    KThread* self = current_thread();
    enter_kernel(self);
    if (code == CONTROL_SET_USER_WORD && a == 2 && object == self->primary_handle()) {
        self->user_word.store(b, std::memory_order_release);
        return STATUS_DONE;
    }
    return on_host_stack(self, [=] {
        if (code == CONTROL_SET_USER_WORD && a == 2) {
            auto thread = lookup_as<KThread>(object, Kind::thread);
            if (!thread)
                return STATUS_BAD_HANDLE;
            thread->user_word.store(b, std::memory_order_release);
            return STATUS_DONE;
        }
        if (code == CONTROL_TASK_DYING)
            return lookup_as<Task>(object, Kind::task) ? STATUS_DONE : STATUS_BAD_HANDLE;
        return STATUS_BAD_ARGUMENT;
    });
}

namespace {

enum class Deletion { done, unknown, own_thread, own_task };

// The deletion itself, in a frame of its own so that no reference is left on a stack that ends.
Deletion delete_handle(Handle object, std::uint64_t flags, KThread* self)
{
    if (flags == DELETE_HANDLE)
        return remove_handle(object) ? Deletion::done : Deletion::unknown;
    ObjectRef target = lookup(object);
    if (!target)
        return Deletion::unknown;
    if (target.get() == self)
        return Deletion::own_thread;
    if (target->kind() == Kind::task)
        return Deletion::own_task;
    delete_object(target);
    return Deletion::done;
}

} // namespace

Status _SL_DeleteObject(Handle object, std::uint64_t flags)
{
    KThread* self = current_thread();
    enter_kernel(self);
    switch (on_host_stack(self, [=] { return delete_handle(object, flags, self); })) {
    case Deletion::done:
        return STATUS_DONE;
    case Deletion::unknown:
        return STATUS_BAD_HANDLE;
    case Deletion::own_thread:
        end_current_thread();
    case Deletion::own_task:
        on_host_stack(self, [] {
            end_task();
            return 0;
        });
    }
    return STATUS_BAD_ARGUMENT;
}

Handle _SL_CreateThread(std::uint64_t, ThreadEntry entry, void* argument, std::uint64_t, void* stack_top)
{
    return host_entry([=] { return create_thread(entry, argument, stack_top); });
}

Handle _SL_CreateMemo(std::uint64_t, std::uint64_t, std::uint64_t size, std::uint64_t)
{
    return host_entry([size] { return create_memo(size); });
}

void* _SL_AllocView(std::uint64_t, Handle memo, void* address, std::uint64_t, std::uint64_t, std::uint64_t)
{
    return host_entry([=] { return alloc_view(memo, address); });
}

Handle _SL_GetAddressMemo(std::uint64_t, const void* address, std::uint64_t)
{
    return host_entry([address] { return memo_at(address); });
}

Handle _SL_GetAddressView(std::uint64_t, const void* address, std::uint64_t)
{
    return host_entry([address] {
        void* base;
        std::size_t size;
        return view_bounds(address, &base, &size) ? reinterpret_cast<Handle>(base) : INVALID_HANDLE;
    });
}

void* _SL_VirtualAlloc(std::uint64_t, void*, std::uint64_t size, std::uint64_t)
{
    return host_entry([size] { return reserve(size); });
}

Status _SL_VirtualFree(std::uint64_t, void* address, std::uint64_t)
{
    return host_entry([address] { return release_reservation(address); });
}

Status _SL_CreateStore(Handle task, std::uint64_t index, std::uint64_t value, std::uint64_t)
{
    return host_entry([=] {
        auto target = lookup_as<Task>(task, Kind::task);
        if (!target)
            return STATUS_BAD_HANDLE;
        if (index >= target->store.size())
            return STATUS_BAD_ARGUMENT;
        target->store[index].store(value, std::memory_order_release);
        return STATUS_DONE;
    });
}

Status _SL_GetStore(std::uint64_t, std::uint64_t index, std::uint64_t* out)
{
    return host_entry([=] {
        Task& task = the_task();
        if (out == nullptr || index >= task.store.size())
            return STATUS_BAD_ARGUMENT;
        *out = task.store[index].load(std::memory_order_acquire);
        return STATUS_DONE;
    });
}

Handle _SL_CreateWatchObject(Handle task, Handle port, Handle watched, std::uint64_t)
{
    return host_entry([=] {
        auto owner = lookup_as<Task>(task, Kind::task);
        auto target = lookup_as<Task>(watched, Kind::task);
        if (!owner || !target || !lookup(port))
            return INVALID_HANDLE;
        auto watch = std::make_shared<Watch>(port);
        Handle handle = register_handle(watch, 0);
        if (handle == INVALID_HANDLE)
            return INVALID_HANDLE;
        std::lock_guard guard(target->watch_lock);
        target->watches.push_back(watch);
        return handle;
    });
}

Status _SL_SetExceptionHandler(std::uint64_t, std::uint64_t exception_class, ExceptionHandler handler, void* table)
{
    return host_entry([=] {
        if (exception_class != EXCEPTION_SYSTEM && exception_class != EXCEPTION_USER)
            return STATUS_BAD_ARGUMENT;
        Task& task = the_task();
        std::size_t i = class_index(exception_class);
        task.tables[i].store(table, std::memory_order_release);
        task.handlers[i].store(handler, std::memory_order_release);
        return STATUS_DONE;
    });
}

void _SL_RetException(std::uint64_t status, std::uint64_t word)
{
    KThread* self = current_thread();
    DeliveryFrame* frame = self->frames;
    if (frame == nullptr) {
        std::fputs("kernel: _SL_RetException outside an exception handler\n", stderr);
        std::abort();
    }
    frame->status = status;
    frame->word = word;
    std::longjmp(frame->jump, 1);
}

} // namespace orlix
