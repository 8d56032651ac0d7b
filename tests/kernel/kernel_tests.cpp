// The host kernel as its callers rely on it: handles, ports and pipes, semaphores, events, memos
// and reservations, threads on given stacks, the per-task store.
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <poll.h>
#include <unistd.h>

#include "host/kernel/host_kernel.h"
#include "platform/kernel.h"
#include "platform/kernel_wrappers.h"
#include "tests/kernel/kernel_test_util.h"

using namespace ktest;

TEST(KernelHandles, FurtherHandlesShareTheObjectAndDeletionReachesAll)
{
    std::uint64_t before = live_objects();
    const std::uint64_t handles = host::kernel::live_handle_count();
    Handle port = _SL_CreateMsgPort(0, 0);
    ASSERT_NE(port, INVALID_HANDLE);
    Handle further = _SL_CreateHandle(0, port, 0x40004);
    ASSERT_NE(further, INVALID_HANDLE);
    EXPECT_NE(further, port);

    EXPECT_EQ(_SL_SendMsg(further, 1, 2, 3, -1), STATUS_DONE);
    Message m{};
    EXPECT_EQ(_SL_RecvMsgPtr(port, &m, 0), STATUS_DONE);
    EXPECT_EQ(m.word1, 1u);
    EXPECT_EQ(m.type, 2u);
    EXPECT_EQ(m.word2, 3u);

    // Deleting the further handle alone keeps the port; deleting the object ends every handle.
    EXPECT_EQ(_SL_DeleteObject(further, DELETE_HANDLE), STATUS_DONE);
    EXPECT_EQ(_SL_SendMsg(further, 0, 0, 0, -1), STATUS_BAD_HANDLE);
    Handle again = _SL_CreateHandle(0, port, 0x40024);
    EXPECT_EQ(_SL_DeleteObject(port, DELETE_OBJECT), STATUS_DONE);
    EXPECT_EQ(_SL_SendMsg(again, 0, 0, 0, -1), STATUS_BAD_HANDLE);
    EXPECT_EQ(_SL_SendMsg(port, 0, 0, 0, -1), STATUS_BAD_HANDLE);
    EXPECT_EQ(_SL_CreateHandle(0, INVALID_HANDLE, 0), INVALID_HANDLE);
    // A slot used again gives a new handle: the old one names nothing.
    Handle gone = _SL_CreateMsgPort(0, 0);
    DeleteMsgPort(gone);
    Handle next = _SL_CreateMsgPort(0, 0);
    EXPECT_NE(next, gone);
    EXPECT_EQ(_SL_SendMsg(gone, 0, 0, 0, -1), STATUS_BAD_HANDLE);
    DeleteMsgPort(next);
    EXPECT_EQ(_SL_DeleteObject(12345, DELETE_OBJECT), STATUS_BAD_HANDLE);
    EXPECT_EQ(host::kernel::live_object_count(), before);
    EXPECT_EQ(host::kernel::live_handle_count(), handles);
}

TEST(KernelPorts, FifoTimeoutsAndPipes)
{
    Handle a = _SL_CreateMsgPort(0, 0);
    Handle b = _SL_CreateMsgPort(0, 0);
    for (std::uint64_t i = 0; i < 100; ++i)
        ASSERT_EQ(_SL_SendMsg(a, i, 7, i * 2, -1), STATUS_DONE);
    for (std::uint64_t i = 0; i < 100; ++i) {
        std::uint64_t w1 = 0, type = 0, w2 = 0;
        ASSERT_EQ(_SL_RecvMsg(a, &w1, &type, &w2, 0), STATUS_DONE);
        EXPECT_EQ(w1, i);
        EXPECT_EQ(w2, i * 2);
    }

    // A time-out really expires, and no sooner.
    Message m{};
    auto start = Clock::now();
    EXPECT_EQ(_SL_RecvMsgPtr(a, &m, 80), STATUS_TIMEOUT);
    EXPECT_GE(elapsed_ms(start), 80);
    EXPECT_EQ(_SL_RecvMsgPtr(a, &m, 0), STATUS_TIMEOUT);

    // What is sent to B is received on A.
    Handle pipe = _SL_CreateMsgPipe(0, a, b, 0, 0);
    ASSERT_NE(pipe, INVALID_HANDLE);
    std::thread sender([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        _SL_SendMsg(b, 0, 0x1f7d0001, 42, -1);
    });
    EXPECT_EQ(_SL_RecvMsgPtr(a, &m, -1), STATUS_DONE);
    EXPECT_EQ(m.type, 0x1f7d0001u);
    EXPECT_EQ(m.word2, 42u);
    sender.join();
    EXPECT_EQ(_SL_RecvMsgPtr(b, &m, 0), STATUS_TIMEOUT);

    // Two threads waiting on one port: two sends wake both at once, each with one message, however
    // far the first has come when the second message arrives.
    for (int round = 0; round < 20; ++round) {
        std::atomic<int> woken{0};
        std::vector<std::thread> receivers;
        for (int i = 0; i < 2; ++i)
            receivers.emplace_back([&] {
                Message got{};
                if (_SL_RecvMsgPtr(a, &got, 5000) == STATUS_DONE && got.type == 9)
                    ++woken;
            });
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        _SL_SendMsg(a, 0, 9, 1, -1);
        _SL_SendMsg(a, 0, 9, 2, -1);
        EXPECT_TRUE(wait_until([&] { return woken == 2; }, 1000)) << "round " << round << ": a receiver slept on";
        for (auto& receiver : receivers)
            receiver.join();
    }

    // Deleting a port ends a wait on it.
    std::thread deleter([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        DeleteMsgPort(a);
    });
    EXPECT_EQ(_SL_RecvMsgPtr(a, &m, -1), STATUS_DELETED);
    deleter.join();
    _SL_DeleteObject(pipe, DELETE_OBJECT);
    DeleteMsgPort(b);
}

TEST(KernelPorts, AWaiterWatchesADescriptorOrHandsTheWatchBack)
{
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    Handle port = _SL_CreateMsgPort(0, 0);
    std::atomic<int> readied{0}, handed_back{0};
    auto watch = std::make_shared<host::kernel::PortWatch>();
    watch->fd = fds[0];
    watch->events = POLLIN;
    // The device finishes its command in the waiter's thread and posts the completion there.
    watch->ready = [&] {
        ++readied;
        _SL_SendMsg(port, 1, 2, 3, -1);
    };
    watch->unwatched = [&] { ++handed_back; };
    ASSERT_TRUE(host::kernel::watch_port(port, watch));
    EXPECT_FALSE(host::kernel::watch_port(port, watch)) << "one watch per port";
    std::thread writer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        [[maybe_unused]] ssize_t n = ::write(fds[1], "x", 1);
    });
    Message m{};
    EXPECT_EQ(_SL_RecvMsgPtr(port, &m, 5000), STATUS_DONE);
    writer.join();
    EXPECT_EQ(m.type, 2u);
    EXPECT_EQ(readied.load(), 1);
    EXPECT_EQ(handed_back.load(), 0);

    // A waiter that gives up hands the watch back; a watch taken back is nobody's.
    char drained;
    [[maybe_unused]] ssize_t n = ::read(fds[0], &drained, 1);
    ASSERT_TRUE(host::kernel::watch_port(port, watch));
    EXPECT_EQ(_SL_RecvMsgPtr(port, &m, 20), STATUS_TIMEOUT);
    EXPECT_EQ(handed_back.load(), 1);
    ASSERT_TRUE(host::kernel::watch_port(port, watch));
    host::kernel::unwatch_port(port, watch);
    EXPECT_EQ(_SL_RecvMsgPtr(port, &m, 20), STATUS_TIMEOUT);
    EXPECT_EQ(handed_back.load(), 1);

    // A port that forwards its messages can't be watched.
    Handle source = _SL_CreateMsgPort(0, 0);
    Handle pipe = _SL_CreateMsgPipe(0, port, source, 0, 0);
    EXPECT_FALSE(host::kernel::watch_port(source, watch));
    for (Handle h : {pipe, source, port})
        DeleteMsgPort(h);
    ::close(fds[0]);
    ::close(fds[1]);
}

TEST(KernelSync, SemaphoresKeepSignalsAndEventsFollowTheirModes)
{
    Handle s = _SL_CreateSemaphore(0, 0, 1, 0);
    EXPECT_EQ(_SL_WaitSemaphore(s, 1, 0), STATUS_TIMEOUT);
    EXPECT_EQ(_SL_SignalSemaphore(s, 1), STATUS_DONE);
    EXPECT_EQ(_SL_SignalSemaphore(s, 1), STATUS_DONE);
    EXPECT_EQ(_SL_WaitSemaphore(s, 1, 0), STATUS_DONE);
    EXPECT_EQ(_SL_WaitSemaphore(s, 1, 0), STATUS_DONE);
    EXPECT_EQ(_SL_WaitSemaphore(s, 1, 30), STATUS_TIMEOUT);
    DeleteSemaphore(s);

    // Three waiters that sleep: each signal lets exactly one through, a signal of two lets two,
    // and a wait that times out meanwhile takes none.
    Handle shared = _SL_CreateSemaphore(0, 0, 1, 0);
    std::atomic<int> through{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i)
        waiters.emplace_back([&] {
            if (_SL_WaitSemaphore(shared, 1, 5000) == STATUS_DONE)
                ++through;
        });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(_SL_WaitSemaphore(shared, 1, 10), STATUS_TIMEOUT);
    EXPECT_EQ(through, 0);
    _SL_SignalSemaphore(shared, 1);
    EXPECT_TRUE(wait_until([&] { return through == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(through, 1);
    _SL_SignalSemaphore(shared, 2);
    EXPECT_TRUE(wait_until([&] { return through == 3; }, 1000)) << "a signal of two woke one";
    for (auto& waiter : waiters)
        waiter.join();
    // Two signals in a row while the first woken waiter may still be on its way: both get
    // through, in every round.
    for (int round = 0; round < 10; ++round) {
        waiters.clear();
        through = 0;
        for (int i = 0; i < 3; ++i)
            waiters.emplace_back([&] {
                if (_SL_WaitSemaphore(shared, 1, 5000) == STATUS_DONE)
                    ++through;
            });
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        _SL_SignalSemaphore(shared, 1);
        _SL_SignalSemaphore(shared, 1);
        EXPECT_TRUE(wait_until([&] { return through == 2; }, 1000)) << "round " << round << ": a signal was lost";
        _SL_SignalSemaphore(shared, 1);
        for (auto& waiter : waiters)
            waiter.join();
    }
    EXPECT_EQ(_SL_WaitSemaphore(shared, 1, 0), STATUS_TIMEOUT);
    // Deleting a semaphore ends its waits.
    std::thread deleter([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        DeleteSemaphore(shared);
    });
    EXPECT_EQ(_SL_WaitSemaphore(shared, 1, 5000), STATUS_DELETED);
    deleter.join();
    EXPECT_EQ(_SL_SignalSemaphore(shared, 1), STATUS_BAD_HANDLE);

    Message record{};
    Handle set = _SL_CreateEvent(0, EVENT_STARTS_SET);
    EXPECT_EQ(_SL_WaitForEventPtr(set, &record, 0), STATUS_DONE);
    EXPECT_EQ(_SL_WaitForEventPtr(set, &record, 0), STATUS_DONE); // stays set
    EXPECT_EQ(_SL_ResetEvent(set, 0), STATUS_DONE);
    EXPECT_EQ(_SL_WaitForEventPtr(set, &record, 10), STATUS_TIMEOUT);

    Handle pulse = _SL_CreateEvent(0, EVENT_AUTO_RESET);
    EXPECT_EQ(_SL_SetEvent(pulse, 0, 0, 0), STATUS_DONE);
    EXPECT_EQ(_SL_WaitForEventPtr(pulse, &record, 0), STATUS_DONE);
    EXPECT_EQ(_SL_WaitForEventPtr(pulse, &record, 0), STATUS_TIMEOUT);

    // A set wakes every waiter of an event that stays set.
    Handle open_gate = _SL_CreateEvent(0, 0);
    std::atomic<int> passed{0};
    std::vector<std::thread> at_gate;
    for (int i = 0; i < 2; ++i)
        at_gate.emplace_back([&] {
            Message r{};
            if (_SL_WaitForEventPtr(open_gate, &r, 5000) == STATUS_DONE)
                ++passed;
        });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    _SL_SetEvent(open_gate, 0, 0, 0);
    EXPECT_TRUE(wait_until([&] { return passed == 2; }, 1000)) << "a waiter stayed at the gate";
    for (auto& waiter : at_gate)
        waiter.join();
    DeleteEvent(open_gate);

    // A gate: the waiter is released by the deletion of the event.
    Handle gate = _SL_CreateEvent(0, 0);
    std::atomic<bool> released{false};
    std::thread waiter([&] {
        _SL_WaitForEventPtr(gate, &record, -1);
        released = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(released);
    DeleteEvent(gate);
    waiter.join();
    EXPECT_TRUE(released);
    DeleteEvent(set);
    DeleteEvent(pulse);
}

TEST(KernelMemory, MemosViewsAndTheirCache)
{
    Handle memo = _SL_CreateMemo(0, 0, 100000, 0);
    ASSERT_NE(memo, INVALID_HANDLE);
    auto* view = static_cast<char*>(_SL_AllocView(0, memo, nullptr, 0, 0, 0));
    ASSERT_NE(view, nullptr);
    view[0] = 1;
    view[99999] = 2;
    EXPECT_EQ(_SL_GetAddressMemo(0, view, 2), memo);
    EXPECT_EQ(_SL_GetAddressMemo(0, view + 5000, 2), memo);
    EXPECT_EQ(_SL_GetAddressMemo(0, view + 102399, 2), memo); // the memo's last page
    EXPECT_NE(_SL_GetAddressMemo(0, view + 102400, 2), memo); // the byte past the view
    EXPECT_EQ(_SL_AllocView(0, memo, nullptr, 0, 0, 0), nullptr); // one view per memo
    EXPECT_EQ(DeleteMemo(memo, 0x20000), STATUS_DONE);
    EXPECT_EQ(_SL_GetAddressMemo(0, view, 2), INVALID_HANDLE);

    // A memo of the size just deleted comes back from the cache, at the same place.
    Handle again = _SL_CreateMemo(0, 0, 100000, 0);
    EXPECT_EQ(_SL_AllocView(0, again, nullptr, 0, 0, 0), view);
    DeleteMemo(again, 0x20000);

    EXPECT_EQ(_SL_CreateMemo(0, 0, 0, 0), INVALID_HANDLE);
    EXPECT_EQ(_SL_GetAddressMemo(0, &memo, 2), INVALID_HANDLE);
}

namespace {

// The access of the host mapping that holds an address ("rw-p", "---p"), or "" when none does.
std::string host_mapping(const void* address)
{
    std::ifstream maps("/proc/self/maps");
    auto at = reinterpret_cast<std::uintptr_t>(address);
    for (std::string line; std::getline(maps, line);) {
        std::uintptr_t low = 0, high = 0;
        char access[5] = {};
        if (std::sscanf(line.c_str(), "%lx-%lx %4s", &low, &high, access) == 3 && at >= low && at < high)
            return access;
    }
    return "";
}

} // namespace

TEST(KernelMemory, ViewInsideReservationAndUnmappedPartFaults)
{
    const std::size_t guard = 4096, block = 8192;
    auto* reservation = static_cast<char*>(_SL_VirtualAlloc(0, nullptr, guard + block, 0));
    ASSERT_NE(reservation, nullptr);
    Handle memo = _SL_CreateMemo(0, 0, block, 0);
    EXPECT_EQ(_SL_AllocView(0, memo, reservation + guard, 0, 0, 0), reservation + guard);
    reservation[guard + block - 1] = 7;
    EXPECT_EQ(_SL_AllocView(0, _SL_CreateMemo(0, 0, 4096, 0), reservation + 100, 0, 0, 0), nullptr);
    EXPECT_DEATH(reservation[guard - 1] = 1, "");
    EXPECT_EQ(DeleteMemo(memo, 0x20000), STATUS_DONE);
    EXPECT_DEATH(reservation[guard] = 1, "");
    // The range stays reserved: still mapped without access, and a view can be placed there again.
    EXPECT_EQ(host_mapping(reservation + guard), "---p");
    EXPECT_EQ(host_mapping(reservation + guard + block - 1), "---p");
    for (int round = 0; round < 2; ++round) {
        Handle again = _SL_CreateMemo(0, 0, block, 0);
        ASSERT_EQ(_SL_AllocView(0, again, reservation + guard, 0, 0, 0), reservation + guard);
        reservation[guard] = 3;
        EXPECT_EQ(_SL_GetAddressMemo(0, reservation + guard + block - 1, 2), again);
        EXPECT_EQ(DeleteMemo(again, 0x20000), STATUS_DONE);
    }
    EXPECT_EQ(_SL_VirtualFree(0, reservation, 0), STATUS_DONE);
    EXPECT_EQ(_SL_VirtualFree(0, reservation, 0), STATUS_BAD_ARGUMENT);
    // Once released, the range takes no view.
    Handle late = _SL_CreateMemo(0, 0, block, 0);
    EXPECT_EQ(_SL_AllocView(0, late, reservation + guard, 0, 0, 0), nullptr);
    DeleteMemo(late, 0x20000);
}

namespace {

struct StackProbe {
    char* low;
    char* high;
    bool on_stack = false;
    Handle self = 0;
    std::uint64_t word = 0;
    Handle done_port = 0;
};

void probe_stack(void* raw)
{
    auto* probe = static_cast<StackProbe*>(raw);
    char local = 0;
    probe->on_stack = &local >= probe->low && &local < probe->high;
    probe->self = _SL_GetState(STATE_THREAD);
    _SL_ControlObject(probe->self, CONTROL_SET_USER_WORD, 2, 0x1234, 0, 0);
    _SL_GetObjectInfo(probe->self, INFO_USER_WORD, &probe->word);
    _SL_SendMsg(probe->done_port, 0, 1, 0, -1);
    _SL_DeleteObject(probe->self, DELETE_OBJECT);
    probe->on_stack = false; // never reached: the thread is gone
}

} // namespace

TEST(KernelThreads, RunOnTheirGivenStackAndDeleteThemselves)
{
    std::uint64_t before = live_objects();
    {
        OwnStack stack(16 * 1024);
        StackProbe probe{stack.base, stack.base + stack.size};
        probe.done_port = _SL_CreateMsgPort(0, 0);
        Handle thread = stack.start(probe_stack, &probe);
        ASSERT_NE(thread, INVALID_HANDLE);
        Message m{};
        ASSERT_EQ(_SL_RecvMsgPtr(probe.done_port, &m, 5000), STATUS_DONE);
        // The thread goes: its handle stops working.
        EXPECT_TRUE(wait_until([&] { return _SL_GetObjectInfo(thread, INFO_USER_WORD, &m.word1) != STATUS_DONE; }));
        EXPECT_EQ(_SL_GetObjectInfo(thread, INFO_USER_WORD, &m.word1), STATUS_BAD_HANDLE);
        EXPECT_TRUE(probe.on_stack);
        EXPECT_EQ(probe.self, thread);
        EXPECT_EQ(probe.word, 0x1234u);
        EXPECT_NE(_SL_GetState(STATE_THREAD), thread);
        DeleteMsgPort(probe.done_port);
    }
    EXPECT_EQ(host::kernel::live_object_count(), before);
}

TEST(KernelTask, StateStoreAndObjectInfo)
{
    Handle task = _SL_GetState(STATE_TASK);
    EXPECT_NE(task, INVALID_HANDLE);
    EXPECT_EQ(_SL_GetState(STATE_TASK), task);
    EXPECT_NE(_SL_GetState(STATE_TASKS_AS_HANDLES), 0);
    EXPECT_NE(_SL_GetState(STATE_VM_AVAILABLE), 0);
    EXPECT_EQ(_SL_CreateStore(task, 1, 0xabcdef, 5), STATUS_DONE);
    std::uint64_t word = 0;
    EXPECT_EQ(_SL_GetStore(0, 1, &word), STATUS_DONE);
    EXPECT_EQ(word, 0xabcdefu);
    EXPECT_EQ(_SL_GetObjectInfo(task, INFO_TASK_ID, &word), STATUS_DONE);
    EXPECT_NE(word, 0u);
    EXPECT_EQ(_SL_GetObjectInfo(task, 999, &word), STATUS_BAD_ARGUMENT);
    host::kernel::set_state(STATE_SUPERVISOR_PORT, 77);
    EXPECT_EQ(_SL_GetState(STATE_SUPERVISOR_PORT), 77);
    host::kernel::set_state(STATE_SUPERVISOR_PORT, 0);
}

TEST(KernelTask, DeletionTellsTheWatchersAndEndsTheProcess)
{
    EXPECT_EXIT(
        {
            Handle task = _SL_GetState(STATE_TASK);
            Handle port = _SL_CreateMsgPort(0, 0);
            _SL_CreateWatchObject(task, port, task, 0x10001);
            host::kernel::set_task_end_hook([port] {
                Message m{};
                bool told = _SL_RecvMsgPtr(port, &m, 0) == STATUS_DONE && m.type == host::kernel::MSG_WATCH_TASK_ENDED;
                std::_Exit(told ? 7 : 1);
            });
            DeleteTask(0);
        },
        testing::ExitedWithCode(7), "");
}

