// What the host platform's own parts (devices, supervisor, loader, tests) need of the kernel
// beyond the kernel entries. Host code only.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "platform/kernel.h"

namespace host::kernel {

// A port whose messages are not queued: a send runs the handler at once, in the sender's thread,
// with the message. Devices take their requests this way, so that a command that can finish at
// once costs no thread switch. The handler must not block for long. It runs on the thread's host
// stack, and exceptions raised meanwhile wait until it has returned.
using PortHandler = std::function<void(const orlix::Message&)>;
orlix::Handle create_service_port(PortHandler handler);

// A device whose parked command ends when a host descriptor becomes ready can let the thread that
// waits on the command's reply port watch the descriptor itself: the data wakes that thread
// directly, where a reactor would have to wake and then wake it. When fd shows the poll events,
// the waiting thread calls ready (on its host stack, holding no kernel lock). A waiter that gives
// up before that (time-out, exception) hands the watch back by calling unwatched, after which the
// device watches by other means. One watch per port.
struct PortWatch {
    int fd;
    short events;
    std::function<void()> ready;
    std::function<void()> unwatched;
};
// False when the port can't take a watch (it forwards its messages, or is watched already).
bool watch_port(orlix::Handle port, std::shared_ptr<PortWatch> watch);
// Takes the watch back unless a waiter already took it.
void unwatch_port(orlix::Handle port, const std::shared_ptr<PortWatch>& watch);

// Values that _SL_GetState reports for the selectors the host decides (registry port 9,
// supervisor port 10).
void set_state(std::uint64_t selector, std::int64_t value);

// Raises an exception of a class on a kernel thread. It is delivered at the thread's next kernel
// entry or at once if the thread waits in the kernel, on the thread's own stack; never while the
// thread runs a service port's handler, but as soon as the handler has returned.
orlix::Status raise_exception(orlix::Handle thread, std::uint64_t exception_class, std::uint64_t number,
                              std::uint64_t argument);

// Called, on the deleting thread, when the task is deleted; it must not return. The default ends
// the host process with status 128 + 9.
void set_task_end_hook(std::function<void()> hook);

// Type of the message that a watch object (_SL_CreateWatchObject) sends to its port when the
// watched task ends: word1 the task's id, word2 0.
inline constexpr std::uint64_t MSG_WATCH_TASK_ENDED = 0xd0030003;

// Number of live kernel objects, and of their handles: tests use them to prove that nothing leaks.
std::uint64_t live_object_count();
std::uint64_t live_handle_count();

// Makes the n-th handle given out from now on fail (1: the next one), as if the kernel had no
// room: tests walk failure paths with it. 0 stops it.
void fail_object_after(std::uint64_t n);

} // namespace host::kernel
