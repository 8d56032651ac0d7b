// Helpers of the kernel tests: object counts, elapsed time, bounded waits, and stacks of their own
// for kernel threads. Test code only.
#pragma once

#include <chrono>
#include <thread>

#include "host/kernel/host_kernel.h"
#include "platform/kernel.h"
#include "platform/kernel_wrappers.h"

namespace ktest {

using namespace orlix;
using Clock = std::chrono::steady_clock;

// Live objects once this thread and the task exist.
inline std::uint64_t live_objects()
{
    _SL_GetState(STATE_TASK);
    return host::kernel::live_object_count();
}

inline std::int64_t elapsed_ms(Clock::time_point since)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count();
}

// Polls until ready() holds, for at most ms milliseconds; whether it came to hold.
template <typename Ready> bool wait_until(Ready ready, int ms = 5000)
{
    const auto until = Clock::now() + std::chrono::milliseconds(ms);
    while (!ready()) {
        if (Clock::now() > until)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// A kernel thread on a stack of its own memo; the memo is released when the object goes, after
// the thread has gone (its handle stops working).
struct OwnStack {
    explicit OwnStack(std::size_t size) : size(size)
    {
        memo = _SL_CreateMemo(0, 0, size, 0);
        base = static_cast<char*>(_SL_AllocView(0, memo, nullptr, 0, 0, 0));
    }
    ~OwnStack()
    {
        std::uint64_t word;
        wait_until([&] { return thread == 0 || _SL_GetObjectInfo(thread, INFO_USER_WORD, &word) != STATUS_DONE; });
        DeleteMemo(memo, 0x20000);
    }
    Handle start(ThreadEntry entry, void* argument)
    {
        thread = _SL_CreateThread(0, entry, argument, 64, base + size);
        return thread;
    }
    bool holds(const void* p) const { return p >= base && p < base + size; }
    std::size_t size;
    Handle memo;
    char* base;
    Handle thread = 0;
};

} // namespace ktest
