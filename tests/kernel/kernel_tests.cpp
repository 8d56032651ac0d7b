// The host kernel as its callers rely on it: handles, ports and pipes, semaphores, events, memos
// and reservations, threads on given stacks, the per-task store, exceptions, and the mutex on top.
#include <atomic>
#include <chrono>
#include <csignal>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "host/kernel/host_kernel.h"
#include "platform/kernel.h"
#include "platform/kernel_wrappers.h"
#include "platform/mutex.h"

using namespace orlix;
using Clock = std::chrono::steady_clock;

namespace {

// Live objects once this thread and the task exist.
std::uint64_t live_objects()
{
    _SL_GetState(STATE_TASK);
    return host::kernel::live_object_count();
}

std::int64_t elapsed_ms(Clock::time_point since)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count();
}

// A kernel thread on a stack of its own memo; the memo is released when the test is over.
struct OwnStack {
    explicit OwnStack(std::size_t size) : size(size)
    {
        memo = _SL_CreateMemo(0, 0, size, 0);
        base = static_cast<char*>(_SL_AllocView(0, memo, nullptr, 0, 0, 0));
    }
    ~OwnStack() { DeleteMemo(memo, 0x20000); }
    void* top() const { return base + size; }
    std::size_t size;
    Handle memo;
    char* base;
};

} // namespace

TEST(KernelHandles, FurtherHandlesShareTheObjectAndDeletionReachesAll)
{
    std::uint64_t before = live_objects();
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
    EXPECT_EQ(_SL_DeleteObject(12345, DELETE_OBJECT), STATUS_BAD_HANDLE);
    EXPECT_EQ(host::kernel::live_object_count(), before);
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
    EXPECT_EQ(_SL_VirtualFree(0, reservation, 0), STATUS_DONE);
    EXPECT_EQ(_SL_VirtualFree(0, reservation, 0), STATUS_BAD_ARGUMENT);
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
        Handle thread = _SL_CreateThread(0, probe_stack, &probe, 64, stack.top());
        ASSERT_NE(thread, INVALID_HANDLE);
        Message m{};
        ASSERT_EQ(_SL_RecvMsgPtr(probe.done_port, &m, 5000), STATUS_DONE);
        // Wait until the thread has gone: its handle stops working.
        for (int i = 0; i < 500 && _SL_GetObjectInfo(thread, INFO_USER_WORD, &m.word1) == STATUS_DONE; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
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

namespace {

struct ExceptionLog {
    std::atomic<int> calls{0};
    std::atomic<Handle> thread{0};
    std::uint64_t number = 0;
    std::uint64_t argument = 0;
    std::uint64_t status_to_return = 0;
};

std::uint64_t log_exception(void* table, std::uint64_t number, std::uint64_t argument, std::uint64_t*, std::uint64_t,
                            std::uint64_t)
{
    auto* log = static_cast<ExceptionLog*>(table);
    log->number = number;
    log->argument = argument;
    log->thread = _SL_GetState(STATE_THREAD);
    log->calls++;
    _SL_RetException(log->status_to_return, 0);
}

} // namespace

TEST(KernelExceptions, DeliveredAtEntryAndDuringWaits)
{
    ExceptionLog log;
    ASSERT_EQ(_SL_SetExceptionHandler(0, EXCEPTION_USER, log_exception, &log), STATUS_DONE);

    // At the next kernel entry of the thread itself.
    Handle self = _SL_GetState(STATE_THREAD);
    ASSERT_EQ(host::kernel::raise_exception(self, EXCEPTION_USER, 8, 2), STATUS_DONE);
    _SL_GetState(STATE_TASK);
    EXPECT_EQ(log.calls, 1);
    EXPECT_EQ(log.number, 8u);
    EXPECT_EQ(log.argument, 2u);

    // During a wait the handler runs on the waiting thread. Status 1 ends the wait with 310;
    // status 0 lets it go on to its message.
    Handle port = _SL_CreateMsgPort(0, 0);
    std::atomic<Handle> waiter_thread{0};
    std::atomic<Status> result{0};
    auto interrupt_a_wait = [&](std::uint64_t status, bool then_send) {
        log.status_to_return = status;
        waiter_thread = 0;
        std::thread waiter([&] {
            waiter_thread = _SL_GetState(STATE_THREAD);
            Message m{};
            result = _SL_RecvMsgPtr(port, &m, -1);
        });
        while (waiter_thread == 0)
            std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        host::kernel::raise_exception(waiter_thread, EXCEPTION_USER, 8, 15);
        if (then_send) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            _SL_SendMsg(port, 0, 1, 0, -1);
        }
        waiter.join();
    };
    interrupt_a_wait(1, false);
    EXPECT_EQ(result, STATUS_REPEAT);
    EXPECT_EQ(log.calls, 2);
    EXPECT_EQ(log.thread, waiter_thread);

    interrupt_a_wait(0, true);
    EXPECT_EQ(result, STATUS_DONE);
    EXPECT_EQ(log.calls, 3);

    // The system class has its own handler.
    ExceptionLog system_log;
    _SL_SetExceptionHandler(0, EXCEPTION_SYSTEM, log_exception, &system_log);
    host::kernel::raise_exception(self, EXCEPTION_SYSTEM, 3, 0);
    _SL_GetState(STATE_TASK);
    EXPECT_EQ(system_log.calls, 1);
    EXPECT_EQ(system_log.number, 3u);
    _SL_SetExceptionHandler(0, EXCEPTION_SYSTEM, nullptr, nullptr);
    _SL_SetExceptionHandler(0, EXCEPTION_USER, nullptr, nullptr);
    DeleteMsgPort(port);
}

TEST(Mutex, ExcludesUnderContention)
{
    Mutex mutex;
    ASSERT_EQ(MutexInit(&mutex), MUTEX_OK);
    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 50000; ++i) {
                ASSERT_EQ(MutexLock(&mutex), MUTEX_OK);
                long seen = counter;
                counter = seen + 1;
                ASSERT_EQ(MutexUnlock(&mutex), MUTEX_OK);
            }
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(counter, 200000);
    EXPECT_EQ(mutex.count, 0);
    EXPECT_EQ(MutexDestroy(&mutex), MUTEX_OK);
    EXPECT_EQ(mutex.semaphore, INVALID_HANDLE);
}

TEST(Mutex, TryTimedAndUnbalancedUse)
{
    Mutex mutex;
    ASSERT_EQ(MutexInit(&mutex), MUTEX_OK);
    EXPECT_EQ(MutexTimedLock(&mutex, 0), MUTEX_BAD_ARGUMENT);
    EXPECT_EQ(mutex.count, 0);
    EXPECT_EQ(MutexTryLock(&mutex), MUTEX_OK);
    EXPECT_EQ(MutexTryLock(&mutex), MUTEX_BUSY);
    std::thread other([&] {
        auto start = Clock::now();
        EXPECT_EQ(MutexTimedLock(&mutex, 50), MUTEX_BUSY);
        EXPECT_GE(elapsed_ms(start), 50);
    });
    other.join();
    // The timed-out waiter left its increment behind, as the mutex does by design.
    EXPECT_EQ(mutex.count, 2);
    mutex.count = 1;
    EXPECT_EQ(MutexUnlock(&mutex), MUTEX_OK);
    EXPECT_EQ(MutexUnlock(&mutex), MUTEX_OK);
    EXPECT_EQ(mutex.count, -1);
    mutex.count = 0;
    EXPECT_EQ(MutexDestroy(&mutex), MUTEX_OK);
    EXPECT_EQ(MutexDestroy(&mutex), MUTEX_KERNEL_FAILURE);
}
