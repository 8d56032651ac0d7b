// The one task of the host process: its per-task store, its exception handlers, its watchers,
// and its end.
#pragma once

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "host/kernel/object.h"

namespace host::kernel {

class Watch;

class Task : public Object {
public:
    Task() : Object(Kind::task) {}

    std::uint64_t id() const;

    std::array<std::atomic<std::uint64_t>, 16> store{};
    std::array<std::atomic<orlix::ExceptionHandler>, 2> handlers{};
    std::array<std::atomic<void*>, 2> tables{};

    std::mutex watch_lock;
    std::vector<std::weak_ptr<Watch>> watches;
};

// The task, made on first use.
Task& the_task();
std::shared_ptr<Task> the_task_ref();

// Handler and table registered for an exception class; a null handler when none.
struct HandlerEntry {
    orlix::ExceptionHandler handler;
    void* table;
};
HandlerEntry exception_handler(std::uint64_t exception_class);

// Tells the watchers and ends the task through the task-end hook.
[[noreturn]] void end_task();

} // namespace host::kernel
