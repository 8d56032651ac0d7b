// What the kernel entries cost a thread's own stack: a thread runs on a painted 16 KiB stack with
// a guard page below it, calls the entries that run host code (a device command in the caller's
// thread, a wait that sleeps and one that an exception interrupts, memo creation), and the bytes
// it touched are counted. Host code must run on the thread's host stack, not there.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <thread>

#include "host/devices/devices.h"
#include "host/kernel/host_kernel.h"
#include "platform/kernel.h"
#include "platform/kernel_wrappers.h"
#include "platform/tcp_wire.h"
#include "tests/devices/wire_client.h"

using namespace orlix;

namespace {

constexpr std::size_t STACK = 16 * 1024;
constexpr std::size_t GUARD = 4096;
constexpr std::uint8_t PAINT = 0xc5;
constexpr std::size_t MARGIN = 256; // left unpainted below the painting frame

// Bytes below the calling frame that each group of entries may touch: a few frames of the
// entries themselves; the interrupted wait also delivers the exception here, with the handler.
// The sanitizer's red zones make every frame some times larger.
#if defined(__SANITIZE_ADDRESS__)
constexpr std::size_t FRAME_FACTOR = 3;
#else
constexpr std::size_t FRAME_FACTOR = 1;
#endif
constexpr std::size_t ENTRY_BOUND = 1024 * FRAME_FACTOR;
constexpr std::size_t DELIVERY_BOUND = 2048 * FRAME_FACTOR;

enum Group { DEVICE, RECEIVE, INTERRUPTED_WAIT, MEMO, GROUPS };
const char* const GROUP_NAMES[] = {"device command", "receive", "semaphore wait with an exception", "memo"};

struct Probe {
    Handle done_port;
    Handle semaphore;
    char* low = nullptr;
    std::size_t used[GROUPS] = {};
    bool ok[GROUPS] = {};
};

// Paints the stack below the caller's frame; gives that frame's address.
[[gnu::noinline]] char* paint_below(char* low)
{
    char* frame = static_cast<char*>(__builtin_frame_address(0));
    std::memset(low, PAINT, static_cast<std::size_t>(frame - MARGIN - low));
    return frame;
}

// Bytes touched below a frame since it painted.
std::size_t touched_below(const char* low, const char* frame)
{
    const char* p = low;
    while (p < frame && static_cast<std::uint8_t>(*p) == PAINT)
        ++p;
    return static_cast<std::size_t>(frame - p);
}

std::uint64_t count_exception(void* table, std::uint64_t, std::uint64_t, std::uint64_t*, std::uint64_t, std::uint64_t)
{
    ++*static_cast<int*>(table);
    return 0;
}

bool device_command()
{
    devtest::Open tcp;
    bool ok = tcp.open(host::devices::tcpip_port(), 0x200);
    *tcp.params<TcpCreateParams>() = {2, 1, 6, -1};
    ok = ok && tcp.run(TCP_CREATE) == MSG_IO_DONE;
    tcp.params<TcpSocketParams>()->socket = tcp.params<TcpCreateParams>()->socket;
    ok = ok && tcp.run(TCP_CLOSE) == MSG_IO_DONE;
    return tcp.close() && ok;
}

bool receive()
{
    Handle port = _SL_CreateMsgPort(0, 0);
    Message m{};
    bool ok = _SL_RecvMsgPtr(port, &m, 20) == STATUS_TIMEOUT;
    return DeleteMsgPort(port) == STATUS_DONE && ok;
}

bool memo()
{
    Handle memo = _SL_CreateMemo(0, 0, 100000, 0);
    void* view = _SL_AllocView(0, memo, nullptr, 0, 0, 0);
    bool ok = view != nullptr && _SL_GetAddressMemo(0, view, 2) == memo;
    return DeleteMemo(memo, 0x20000) == STATUS_DONE && ok;
}

void heavy_entries(void* raw)
{
    auto* probe = static_cast<Probe*>(raw);
    Handle semaphore = probe->semaphore;
    bool (*const groups[])(Handle) = {
        [](Handle) { return device_command(); },
        [](Handle) { return receive(); },
        [](Handle s) { return _SL_WaitSemaphore(s, 1, 5000) == STATUS_DONE; },
        [](Handle) { return memo(); },
    };
    for (int g = 0; g < GROUPS; ++g) {
        char* frame = paint_below(probe->low);
        probe->ok[g] = groups[g](semaphore);
        probe->used[g] = touched_below(probe->low, frame);
    }
    _SL_SendMsg(probe->done_port, 0, 1, 0, -1);
}

} // namespace

TEST(KernelStack, HeavyEntriesLeaveTheSystemStackAlmostUntouched)
{
    host::devices::boot();
    int exceptions = 0;
    ASSERT_EQ(_SL_SetExceptionHandler(0, EXCEPTION_USER, count_exception, &exceptions), STATUS_DONE);
    auto* reservation = static_cast<char*>(_SL_VirtualAlloc(0, nullptr, GUARD + STACK, 0));
    ASSERT_NE(reservation, nullptr);
    Handle memo = _SL_CreateMemo(0, 0, STACK, 0);
    auto* low = static_cast<char*>(_SL_AllocView(0, memo, reservation + GUARD, 0, 0, 0));
    ASSERT_EQ(low, reservation + GUARD);

    Probe probe{_SL_CreateMsgPort(0, 0), _SL_CreateSemaphore(0, 0, 1, 0)};
    probe.low = low;
    Handle thread = _SL_CreateThread(0, heavy_entries, &probe, 64, low + STACK);
    ASSERT_NE(thread, INVALID_HANDLE);
    // Interrupt the semaphore wait, then end it.
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    host::kernel::raise_exception(thread, EXCEPTION_USER, 8, 2);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    _SL_SignalSemaphore(probe.semaphore, 1);
    Message m{};
    ASSERT_EQ(_SL_RecvMsgPtr(probe.done_port, &m, 5000), STATUS_DONE) << "the thread never finished";
    EXPECT_EQ(exceptions, 1);
    for (int g = 0; g < GROUPS; ++g) {
        std::printf("system stack used by %s: %zu bytes\n", GROUP_NAMES[g], probe.used[g]);
        EXPECT_TRUE(probe.ok[g]) << GROUP_NAMES[g];
        EXPECT_LT(probe.used[g], g == INTERRUPTED_WAIT ? DELIVERY_BOUND : ENTRY_BOUND) << GROUP_NAMES[g];
    }
    for (int i = 0; i < 500 && _SL_GetObjectInfo(thread, INFO_USER_WORD, &m.word1) == STATUS_DONE; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    _SL_SetExceptionHandler(0, EXCEPTION_USER, nullptr, nullptr);
    DeleteMsgPort(probe.done_port);
    DeleteSemaphore(probe.semaphore);
    DeleteMemo(memo, 0x20000);
    _SL_VirtualFree(0, reservation, 0);
}
