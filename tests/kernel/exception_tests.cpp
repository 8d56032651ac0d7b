// Exceptions as the runtime relies on them: delivered at kernel entry and during waits, on the
// thread concerned and on its own stack; status 1 ends an interruptible wait with 310, never a
// semaphore wait; held back while the thread runs device code; a wait goes on to its original
// deadline after a handler.
#include <atomic>
#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "host/kernel/host_kernel.h"
#include "tests/kernel/kernel_test_util.h"

using namespace ktest;

namespace {

struct ExceptionLog {
    std::atomic<int> calls{0};
    std::atomic<Handle> thread{0};
    std::uint64_t number = 0;
    std::uint64_t argument = 0;
    std::uint64_t status_to_return = 0;
    const char* local = nullptr;               // a local of the handler's frame
    std::atomic<bool>* in_device = nullptr;    // set while a test's device code runs
    bool delivered_in_device = false;
};

std::uint64_t log_exception(void* table, std::uint64_t number, std::uint64_t argument, std::uint64_t*, std::uint64_t,
                            std::uint64_t)
{
    auto* log = static_cast<ExceptionLog*>(table);
    char here = 0;
    log->local = &here;
    log->number = number;
    log->argument = argument;
    log->thread = _SL_GetState(STATE_THREAD);
    if (log->in_device != nullptr && *log->in_device)
        log->delivered_in_device = true;
    log->calls++;
    _SL_RetException(log->status_to_return, 0);
}

// Installs the log as the user class's handler for the life of the object.
struct UserHandler {
    explicit UserHandler(ExceptionLog& log) { _SL_SetExceptionHandler(0, EXCEPTION_USER, log_exception, &log); }
    ~UserHandler() { _SL_SetExceptionHandler(0, EXCEPTION_USER, nullptr, nullptr); }
};

} // namespace

TEST(KernelExceptions, DeliveredAtEntryAndDuringWaits)
{
    ExceptionLog log;
    UserHandler installed(log);

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
            result = _SL_RecvMsgPtr(port, &m, 5000);
        });
        ASSERT_TRUE(wait_until([&] { return waiter_thread != 0; }));
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
    DeleteMsgPort(port);
}

TEST(KernelExceptions, SemaphoreWaitsGoOnAndARepeatWaitsForTheNextInterruptibleWait)
{
    ExceptionLog log;
    log.status_to_return = 1;
    UserHandler installed(log);
    Handle semaphore = _SL_CreateSemaphore(0, 0, 1, 0);
    Handle port = _SL_CreateMsgPort(0, 0);
    const Handle self = _SL_GetState(STATE_THREAD);
    std::thread helper([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        host::kernel::raise_exception(self, EXCEPTION_USER, 8, 2);
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        _SL_SignalSemaphore(semaphore, 1);
    });
    // The handler runs inside the semaphore wait, which does not end with 310 but with the signal.
    EXPECT_EQ(_SL_WaitSemaphore(semaphore, 1, 5000), STATUS_DONE);
    helper.join();
    EXPECT_EQ(log.calls, 1);
    // The request for 310 ends the next wait that may end so, at once, and only that one.
    Message m{};
    auto start = Clock::now();
    EXPECT_EQ(_SL_RecvMsgPtr(port, &m, 2000), STATUS_REPEAT);
    EXPECT_LT(elapsed_ms(start), 1000);
    EXPECT_EQ(_SL_RecvMsgPtr(port, &m, 20), STATUS_TIMEOUT);

    // A repeat asked at an entry that never waits is kept the same way; the entry itself goes on.
    host::kernel::raise_exception(self, EXCEPTION_USER, 8, 2);
    EXPECT_EQ(_SL_GetState(STATE_THREAD), self);
    EXPECT_EQ(log.calls, 2);
    EXPECT_EQ(_SL_SendMsg(port, 0, 1, 0, -1), STATUS_REPEAT) << "a send begins with the request";
    EXPECT_EQ(_SL_RecvMsgPtr(port, &m, 20), STATUS_TIMEOUT) << "nothing was sent";
    DeleteSemaphore(semaphore);
    DeleteMsgPort(port);
}

TEST(KernelExceptions, HeldBackWhileDeviceCodeRunsAndDeliveredWhenItIsLeft)
{
    ExceptionLog log;
    std::atomic<bool> in_device{false};
    log.in_device = &in_device;
    log.status_to_return = 1;
    UserHandler installed(log);
    const Handle self = _SL_GetState(STATE_THREAD);
    Handle reply = _SL_CreateMsgPort(0, 0);
    // Device code that is interrupted and then calls kernel entries itself, a send among them.
    Handle device = host::kernel::create_service_port([&](const Message&) {
        in_device = true;
        host::kernel::raise_exception(self, EXCEPTION_USER, 8, 2);
        _SL_GetState(STATE_TASK);
        EXPECT_EQ(_SL_SendMsg(reply, 0, 0x20004, 0, -1), STATUS_DONE);
        in_device = false;
    });
    EXPECT_EQ(_SL_SendMsg(device, 0, 0x20100, 0, -1), STATUS_DONE) << "the command was sent";
    EXPECT_EQ(log.calls, 1);
    EXPECT_FALSE(log.delivered_in_device);
    // The status 1 of the delivery after the send ends the wait that follows, as it would have
    // ended it had the exception come a moment later; the completion is still there after it.
    Message m{};
    EXPECT_EQ(_SL_RecvMsgPtr(reply, &m, 2000), STATUS_REPEAT);
    EXPECT_EQ(_SL_RecvMsgPtr(reply, &m, 2000), STATUS_DONE);
    EXPECT_EQ(m.type, 0x20004u);
    DeleteMsgPort(device);
    DeleteMsgPort(reply);
}

namespace {

struct SystemStackRun {
    ExceptionLog* log;
    Handle port;
    Handle device;
    const char* device_local = nullptr;
    Status timed = 0, interrupted = 0;
    std::int64_t timed_ms = 0;
    std::atomic<int> stage{0};
};

void wait_twice(void* raw)
{
    auto* run = static_cast<SystemStackRun*>(raw);
    _SL_SendMsg(run->device, 0, 1, 0, -1);
    Message m{};
    run->stage = 1;
    auto start = Clock::now();
    run->timed = _SL_RecvMsgPtr(run->port, &m, 300); // interrupted by status 0: goes on to 300 ms
    run->timed_ms = elapsed_ms(start);
    run->log->status_to_return = 1;
    run->stage = 2;
    run->interrupted = _SL_RecvMsgPtr(run->port, &m, 5000);
    run->stage = 3;
}

} // namespace

TEST(KernelExceptions, OnASystemStackHandlersRunThereAndDeviceCodeDoesNot)
{
    ExceptionLog log;
    UserHandler installed(log);
    OwnStack stack(64 * 1024);
    SystemStackRun run{&log, _SL_CreateMsgPort(0, 0), 0};
    run.device = host::kernel::create_service_port([&run](const Message&) {
        char here = 0;
        run.device_local = &here;
    });
    Handle thread = stack.start(wait_twice, &run);
    ASSERT_NE(thread, INVALID_HANDLE);
    ASSERT_TRUE(wait_until([&] { return run.stage == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    host::kernel::raise_exception(thread, EXCEPTION_USER, 8, 2);
    ASSERT_TRUE(wait_until([&] { return run.stage == 2; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    host::kernel::raise_exception(thread, EXCEPTION_USER, 8, 2);
    ASSERT_TRUE(wait_until([&] { return run.stage == 3; })) << "the interrupted wait did not end";

    EXPECT_EQ(run.timed, STATUS_TIMEOUT);
    EXPECT_GE(run.timed_ms, 300);
    EXPECT_LT(run.timed_ms, 420) << "the wait did not keep its deadline";
    EXPECT_EQ(run.interrupted, STATUS_REPEAT);
    EXPECT_EQ(log.calls, 2);
    EXPECT_EQ(log.thread, thread);
    EXPECT_TRUE(stack.holds(log.local)) << "the handler ran off the thread's own stack";
    ASSERT_NE(run.device_local, nullptr);
    EXPECT_FALSE(stack.holds(run.device_local)) << "device code ran on the system stack";
    DeleteMsgPort(run.device);
    DeleteMsgPort(run.port);
}
