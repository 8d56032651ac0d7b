// The supervisor: a kernel port that hears of the task's start, its exit status and, through a
// watch object, its end. Its messages are recorded in the sender's thread, before the send
// returns, so the status of a task is known before the task's deletion; the loader waits on that
// record. Host code.
#include <condition_variable>
#include <mutex>

#include "host/devices/devices.h"
#include "host/kernel/host_kernel.h"
#include "platform/device.h"

namespace host::devices {

namespace {

struct SupervisorState {
    std::mutex lock;
    std::condition_variable changed;
    TaskRecord record;
    orlix::Handle port = orlix::INVALID_HANDLE;
};

SupervisorState& state()
{
    static auto* s = new SupervisorState; // lives as long as the process: its thread never ends
    return *s;
}

void record_message(const orlix::Message& m)
{
    SupervisorState& s = state();
    std::lock_guard g(s.lock);
    switch (m.type) {
    case orlix::MSG_SUPERVISOR_STARTED:
        s.record.started = true;
        break;
    case orlix::MSG_SUPERVISOR_EXIT:
        if (!s.record.exit_reported) {
            s.record.exit_reported = true;
            s.record.exit_status = m.word2;
        }
        break;
    case host::kernel::MSG_WATCH_TASK_ENDED:
        s.record.ended = true;
        break;
    default:
        return;
    }
    s.changed.notify_all();
}

} // namespace

// Called once by boot().
orlix::Handle start_supervisor()
{
    SupervisorState& s = state();
    s.port = host::kernel::create_service_port(record_message);
    return s.port;
}

orlix::Handle supervisor_port() { return state().port; }

bool supervisor_wait_end(std::int64_t timeout_ms)
{
    SupervisorState& s = state();
    std::unique_lock g(s.lock);
    auto over = [&] { return s.record.exit_reported || s.record.ended; };
    if (timeout_ms < 0) {
        s.changed.wait(g, over);
        return true;
    }
    return s.changed.wait_for(g, std::chrono::milliseconds(timeout_ms), over);
}

TaskRecord supervisor_record()
{
    SupervisorState& s = state();
    std::lock_guard g(s.lock);
    return s.record;
}

int host_exit_status(const TaskRecord& record)
{
    if (!record.exit_reported)
        return 128 + 9;
    std::uint64_t status = record.exit_status;
    if ((status & 0xff) != 0)
        return 128 + static_cast<int>(status & 0xff);
    return static_cast<int>((status >> 8) & 0xff);
}

} // namespace host::devices
