// Device opening and request blocks against scripted fake devices: exact message sequences,
// results, the abort exchange of bounded runs, and that nothing leaks.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>
#include <tuple>
#include <unistd.h>

#include "fake_device.h"
#include "platform/device_client.h"

using namespace orlix;
using fake::FakeDevice;
using fake::FakeRegistry;
using Types = std::vector<std::uint64_t>;

namespace {

// A worker-style block with its own reply port, deleted at the end of the test.
struct Block {
    explicit Block(FakeDevice& dev) : port(_SL_CreateMsgPort(0, 0)), req(CreateIOreq(dev.device(), 0, 3, 0x200, port))
    {
    }
    ~Block()
    {
        if (req != nullptr)
            DeleteIOreq(req);
        DeleteMsgPort(port);
    }
    Handle port;
    IOreq* req;
};

} // namespace

TEST(DeviceOpen, FindsDeviceThroughRegistryAndLeavesNothingBehind)
{
    FakeRegistry reg;
    FakeDevice dev;
    reg.add("fakedev", dev.port());
    reg.abort_first = true; // an aborted message does not end the lookup
    // Every answer comes after a message of another type, which each wait passes over.
    reg.registry.stray_before_answers = dev.stray_before_answers = true;
    const Handle task = _SL_GetState(STATE_TASK);
    std::uint64_t live = host::kernel::live_object_count();
    const std::uint64_t handles = host::kernel::live_handle_count();

    EXPECT_EQ(OpenDevice("fakedev"), dev.device());
    EXPECT_EQ(reg.registry.types(),
              (Types{MSG_DEVICE_OPEN, MSG_IOREQ_CREATE, MSG_IO_BEGIN, MSG_IOREQ_DELETE, MSG_DEVICE_CLOSE}));
    EXPECT_EQ(reg.registry.messages[1].word2, 136u + sizeof("run/dev/fakedev"));
    EXPECT_EQ(reg.registry.commands.at(0).command, REG_GET_KEY);
    ASSERT_EQ(dev.types(), Types{MSG_DEVICE_OPEN});
    // The task itself, or a further handle of it where the kernel wants that.
    std::uint64_t id_sent = 0, id = 0;
    EXPECT_EQ(_SL_GetObjectInfo(static_cast<Handle>(dev.messages[0].word2), INFO_TASK_ID, &id_sent), 0u);
    EXPECT_EQ(_SL_GetObjectInfo(task, INFO_TASK_ID, &id), 0u);
    EXPECT_EQ(id_sent, id);
    EXPECT_EQ(host::kernel::live_object_count(), live);
    // The task handle went to the device, which keeps it while open: nothing else is left.
    EXPECT_EQ(host::kernel::live_handle_count(), handles + 1);
    EXPECT_EQ(CloseDevice(dev.device()), 0);

    // Unknown name: the registry is closed, the block deleted, the device never asked. No name:
    // nothing is sent at all.
    EXPECT_EQ(OpenDevice("nosuch"), nullptr);
    EXPECT_EQ(reg.registry.count(MSG_DEVICE_CLOSE), 2u);
    EXPECT_EQ(OpenDevice(nullptr), nullptr);
    EXPECT_EQ(OpenDevice(""), nullptr);
    EXPECT_EQ(GetDeviceMsgPort(""), INVALID_HANDLE);
    EXPECT_EQ(reg.registry.messages.size(), 10u); // two lookups of five messages each
    EXPECT_EQ(reg.registry.blocks.size(), 0u);
    EXPECT_EQ(dev.messages.size(), 2u); // the open and its close
    EXPECT_EQ(host::kernel::live_object_count(), live);
    EXPECT_EQ(host::kernel::live_handle_count(), handles);
}

TEST(DeviceOpen, EveryExchangeTakesItsOwnAnswerAndLeavesItsPortEmpty)
{
    // Each answer follows a stray: a wait that stopped at the stray would leave the answer behind.
    FakeDevice dev;
    dev.stray_before_answers = true;
    Handle reply = _SL_CreateMsgPort(0, 0);
    auto empty = [](Handle port) {
        Message m{};
        return _SL_RecvMsgPtr(port, &m, 0) == STATUS_TIMEOUT;
    };
    EXPECT_EQ(devlib_open_device_from_msgport(dev.port(), reply), dev.device());
    EXPECT_TRUE(empty(reply)) << "open";
    IOreq* req = CreateIOreq(dev.device(), 0, 3, 0x200, reply);
    ASSERT_NE(req, nullptr);
    EXPECT_TRUE(empty(dev.device()->create_reply_port)) << "create";
    EXPECT_EQ(DeleteIOreq(req), 0);
    EXPECT_TRUE(empty(dev.device()->create_reply_port)) << "delete";
    devlib_close_device(reply, dev.device());
    EXPECT_TRUE(empty(reply)) << "close";
    EXPECT_EQ(dev.types(), (Types{MSG_DEVICE_OPEN, MSG_IOREQ_CREATE, MSG_IOREQ_DELETE, MSG_DEVICE_CLOSE}));
    DeleteMsgPort(reply);
}

TEST(DeviceOpen, NoRegistryOrARefusalGivesNullAtOnceAndGivesBackItsHandles)
{
    FakeRegistry reg;
    FakeDevice dev;
    reg.add("fakedev", dev.port());
    _SL_GetState(STATE_TASK); // the task exists before the count
    const std::uint64_t handles = host::kernel::live_handle_count();
    // A refused open: the task handle that went with it is deleted again.
    dev.open_answer_override = 0;
    dev.stray_before_answers = true;
    EXPECT_EQ(fake::bounded("a refused open", [&] { return OpenDeviceFromMsgPort(dev.port()); }), nullptr);
    EXPECT_EQ(fake::bounded("a refused open by name", [] { return OpenDevice("fakedev"); }), nullptr);
    EXPECT_EQ(dev.count(MSG_DEVICE_OPEN), 2u);
    EXPECT_EQ(host::kernel::live_handle_count(), handles);
    // No registry port: nothing to ask, no wait.
    for (std::int64_t none : {std::int64_t{0}, std::int64_t{-1}}) {
        host::kernel::set_state(STATE_REGISTRY_PORT, none);
        EXPECT_EQ(fake::bounded("an open without a registry", [] { return OpenDevice("fakedev"); }), nullptr);
        EXPECT_EQ(fake::bounded("a lookup without a registry", [] { return GetDeviceMsgPort("fakedev"); }),
                  INVALID_HANDLE);
        EXPECT_EQ(host::kernel::live_handle_count(), handles) << none;
    }
    host::kernel::set_state(STATE_REGISTRY_PORT, reg.registry.port());
    EXPECT_EQ(reg.registry.count(MSG_DEVICE_OPEN), 1u); // the refused open by name only
    // A registry that refuses the open: the lookup gives up and gives its handle back.
    reg.registry.open_answer_override = 0;
    EXPECT_EQ(fake::bounded("a lookup the registry refuses", [] { return GetDeviceMsgPort("fakedev"); }),
              INVALID_HANDLE);
    EXPECT_EQ(reg.registry.count(MSG_DEVICE_OPEN), 2u);
    EXPECT_EQ(host::kernel::live_handle_count(), handles);
}

TEST(DeviceOpen, RegistryOpensStraightRefusalsGiveNullAndSlotsCache)
{
    FakeRegistry reg;
    EXPECT_EQ(OpenDevice("Registry"), reg.registry.device());
    EXPECT_EQ(reg.registry.types(), Types{MSG_DEVICE_OPEN});
    EXPECT_EQ(GetDeviceMsgPort("Registry"), reg.registry.port());
    EXPECT_FALSE(devlib_intern_is_registry("Registryx") || devlib_intern_is_registry("Registr"));

    FakeDevice dev;
    dev.device()->open_state = 0; // an open that failed is undone with a close
    EXPECT_EQ(OpenDeviceFromMsgPort(dev.port()), nullptr);
    EXPECT_EQ(dev.types(), (Types{MSG_DEVICE_OPEN, MSG_DEVICE_CLOSE}));
    dev.device()->open_state = 1;
    dev.open_answer_override = 0;
    for (Handle port : {dev.port(), Handle{0}, Handle{-1}})
        EXPECT_EQ(OpenDeviceFromMsgPort(port), nullptr);
    // Closing: only a record the kernel knows as memory gets a message.
    Device not_mapped{};
    EXPECT_EQ(CloseDevice(nullptr), 0);
    EXPECT_EQ(CloseDevice(&not_mapped), 0);
    EXPECT_EQ(dev.count(MSG_DEVICE_CLOSE), 1u);
    EXPECT_EQ(CloseDevice(dev.device()), 0);
    EXPECT_EQ(dev.count(MSG_DEVICE_CLOSE), 2u);

    dev.open_answer_override = ~0ull;
    reg.add("fakedev", dev.port());
    Mutex lock{};
    ASSERT_EQ(MutexInit(&lock), 0);
    Device* slot = nullptr;
    EXPECT_EQ(__ensureopendevice(&lock, &slot, "fakedev"), dev.device());
    EXPECT_EQ(__ensureopendevice(&lock, &slot, "fakedev"), dev.device());
    EXPECT_EQ(dev.count(MSG_DEVICE_OPEN), 3u); // one more than before
    EXPECT_EQ(__tryopendevice(&lock, &slot, "nosuch"), dev.device()); // a filled slot is the answer
    slot = nullptr;
    EXPECT_EQ(__tryopendevice(&lock, &slot, "nosuch"), nullptr);
    EXPECT_EQ(slot, nullptr);
    EXPECT_EQ(lock.count, 0);
    MutexDestroy(&lock);
    EXPECT_EQ(devlib_pack_name("abc"), 0x6162630000000000u);
}

TEST(DeviceOpenDeathTest, MissingRequiredDeviceIsReportedToTheLogAndEndsTheTask)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            FakeRegistry reg;
            FakeDevice log;
            reg.add("syslog", log.port());
            host::kernel::set_task_end_hook([&log] {
                for (const Message& m : log.messages)
                    std::fprintf(stderr, "%lx %lx %lx\n", m.word1, m.type, m.word2);
                _exit(7);
            });
            Mutex lock{};
            MutexInit(&lock);
            Device* slot = nullptr;
            __ensureopendevice(&lock, &slot, "nosuchdevice");
        },
        testing::ExitedWithCode(7), "216465766c61636b d0510001 6e6f737563686465");
}

TEST(Requests, CreateInitialisesTheBlockAndDeleteReleasesIt)
{
    FakeDevice dev;
    dev.stray_before_answers = true; // passed over while waiting for the answer
    Handle port = _SL_CreateMsgPort(0, 0);
    IOreq* req = CreateIOreq(dev.device(), 7, 3, 0x200, port);
    ASSERT_NE(req, nullptr);
    // The fake hands out blocks full of garbage.
    EXPECT_EQ(std::tuple(req->unit, req->priority, req->timeout, req->command, req->error, req->reply_port),
              std::tuple(7u, std::uint8_t{3}, 0xffffffffu, 0u, 0u, port));
    EXPECT_EQ(req->device, dev.device());
    EXPECT_EQ(req->cleared[0] | req->cleared[1] | req->cleared[2], 0u);
    const Message create = dev.messages.at(0);
    EXPECT_EQ(std::pair(create.word1, create.word2), std::pair(std::uintptr_t(dev.device()), 0x200ul));
    EXPECT_EQ(DeleteIOreq(req), 0);
    EXPECT_EQ(dev.messages.back().word2, 1u); // the block's id

    dev.refuse_create = true;
    EXPECT_EQ(CreateIOreq(dev.device(), 0, 3, 0x200, port), nullptr);
    dev.refuse_create = false;
    IOreq* again = CreateIOreq(dev.device(), 0, 3, 0x200, port); // the lock was given back
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(DeleteIOreqAsync(again), 0);
    EXPECT_EQ(std::pair(dev.messages.back().type, dev.messages.back().word1), std::pair(MSG_IOREQ_DELETE_ASYNC, 0ul));
    EXPECT_EQ(dev.blocks.size(), 0u);
    EXPECT_EQ(CreateIOreq(nullptr, 0, 3, 0x200, port), nullptr);

    // Exchanges that break down give back create_lock: a request port that is gone, a reply port
    // that is gone. The next create still gets through.
    for (Handle Device::*broken : {&Device::request_port, &Device::create_reply_port}) {
        IOreq* doomed = CreateIOreq(dev.device(), 0, 3, 0x200, port);
        ASSERT_NE(doomed, nullptr);
        const std::uint64_t id = doomed->id;
        Device copy = *dev.device();
        copy.*broken = INVALID_HANDLE;
        EXPECT_EQ(fake::bounded("a create that breaks down", [&] { return CreateIOreq(&copy, 0, 3, 0x200, port); }),
                  nullptr);
        doomed->device = &copy;
        EXPECT_EQ(fake::bounded("a delete that breaks down", [&] { return DeleteIOreq(doomed); }), 0);
        EXPECT_EQ(_SL_WaitSemaphore(dev.device()->create_lock, 1, 0), STATUS_DONE) << "create_lock kept";
        _SL_SignalSemaphore(dev.device()->create_lock, 1);
        if (dev.blocks.count(id) != 0) { // the delete never reached the device
            doomed->device = dev.device();
            EXPECT_EQ(DeleteIOreq(doomed), 0);
        }
    }
    // The create whose answer could not be received left its block with the device and the
    // answer on the device's port.
    Message left{};
    while (_SL_RecvMsgPtr(dev.device()->create_reply_port, &left, 0) == STATUS_DONE) {
    }
    while (!dev.blocks.empty())
        DeleteIOreq(reinterpret_cast<IOreq*>(dev.blocks.begin()->second.data()));
    EXPECT_EQ(dev.blocks.size(), 0u);
    DeleteMsgPort(port);
}

TEST(Requests, SyncIOPassesOverStrayMessagesAndWaitIODoesNot)
{
    FakeDevice dev;
    Block b(dev);
    ASSERT_NE(b.req, nullptr);
    std::uint64_t answer = MSG_IO_DONE;
    dev.on_begin = [&answer](FakeDevice&, IOreq* req) {
        FakeDevice::reply(req, 0x777);
        req->error = 0xe0050043;
        FakeDevice::reply(req, answer);
    };
    b.req->command = 0xc0050099;
    EXPECT_EQ(SyncIO(b.req), 0);
    const Message begin = dev.messages.back();
    EXPECT_EQ(std::tuple(begin.type, static_cast<Handle>(begin.word1), begin.word2),
              std::tuple(MSG_IO_BEGIN, b.port, b.req->id));
    EXPECT_EQ(dev.commands.back().command, 0xc0050099u);
    answer = MSG_IO_FAILED;
    EXPECT_EQ(SyncIO(b.req), 1);
    EXPECT_EQ(b.req->error, 0xe0050043u);
    answer = MSG_IO_ABORTED;
    EXPECT_EQ(SyncIO(b.req), -35);

    answer = MSG_IO_DONE;
    EXPECT_EQ(BeginIO(b.req), 0);
    EXPECT_EQ(WaitIO(b.req, -1), -20);
    EXPECT_EQ(WaitIO(b.req, -1), 0);
    EXPECT_EQ(WaitIO(b.req, 20), -73);
    answer = MSG_IO_FAILED;
    EXPECT_EQ(SyncIOEx(b.req, 1000, 1, 1), -20);
    EXPECT_EQ(WaitIO(b.req, -1), 1);

    // A device that can't be reached: error 1 and -47; a reply port that is gone: -20.
    Device gone{};
    gone.request_port = INVALID_HANDLE;
    IOreq lost{};
    lost.device = &gone;
    lost.reply_port = b.port;
    EXPECT_EQ(SyncIO(&lost), -47);
    EXPECT_EQ(lost.error, 1u);
    lost.error = 0;
    EXPECT_EQ(SyncIOEx(&lost, 10, 1, 1), -47);
    EXPECT_EQ(lost.error, 1u);
    b.req->reply_port = INVALID_HANDLE;
    b.req->error = 0;
    EXPECT_EQ(SyncIO(b.req), -20);
    EXPECT_EQ(b.req->error, 1u);
}

TEST(Requests, BoundedRunAbortsAfterTheTimeOut)
{
    FakeDevice dev;
    Block b(dev);
    ASSERT_NE(b.req, nullptr);
    dev.on_begin = [](FakeDevice&, IOreq*) {}; // the command hangs until aborted
    Types after_abort;
    dev.on_abort = [&after_abort](FakeDevice&, IOreq* req) {
        for (std::uint64_t type : after_abort)
            FakeDevice::reply(req, type);
    };
    const std::pair<Types, int> cases[] = {
        {{MSG_IO_ABORT_ACK, MSG_IO_DONE}, 0},
        {{MSG_IO_DONE, MSG_IO_ABORT_ACK}, 0},
        {{MSG_IO_DONE, 0x777, MSG_IO_ABORT_ACK, MSG_IO_DONE}, 0}, // leftovers are drained
        {{MSG_IO_ABORTED}, -73},
        {{MSG_IO_DONE, MSG_IO_ABORTED}, -73}, // completion without the acknowledgement
        {{MSG_IO_ABORT_ACK, MSG_IO_ABORTED}, -73},
    };
    for (const auto& [replies, result] : cases) {
        after_abort = replies;
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(SyncIOEx(b.req, 40, 1, 1), result);
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(40));
        EXPECT_EQ(dev.messages.back().type, MSG_IO_ABORT);
        EXPECT_EQ(WaitIO(b.req, 5), -73) << "port left with messages";
    }
    std::size_t aborts = dev.count(MSG_IO_ABORT);
    EXPECT_EQ(SyncIOEx(b.req, 10, 0, 1), -47); // not abortable
    EXPECT_EQ(dev.count(MSG_IO_ABORT), aborts);
}

namespace {
std::atomic<int> handled{0};
std::uint64_t ask_repeat(void*, std::uint64_t, std::uint64_t, std::uint64_t*, std::uint64_t, std::uint64_t)
{
    ++handled;
    return 1; // the interrupted wait comes back with 310
}
} // namespace

TEST(Requests, BoundedRunInterruptedByAnExceptionAbortsOrRestarts)
{
    FakeDevice dev;
    Block b(dev);
    ASSERT_NE(b.req, nullptr);
    dev.on_begin = [](FakeDevice&, IOreq*) {};
    ASSERT_EQ(_SL_SetExceptionHandler(0, EXCEPTION_USER, ask_repeat, nullptr), 0u);
    const Handle self = _SL_GetState(STATE_THREAD);
    // Interrupts this thread soon; then, given a block, completes its command.
    auto interrupt_soon = [self](IOreq* complete) {
        return std::thread([self, complete] {
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
            host::kernel::raise_exception(self, EXCEPTION_USER, 1, 0);
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
            if (complete != nullptr)
                FakeDevice::reply(complete, MSG_IO_DONE);
        });
    };
    // restart clear: the interruption aborts the command; aborted alone gives -3. restart set:
    // the wait goes on and the command completes.
    for (auto [restart, result, aborts] : {std::tuple(0, -3, 1u), std::tuple(1, 0, 1u)}) {
        std::thread t = interrupt_soon(restart ? b.req : nullptr);
        EXPECT_EQ(SyncIOEx(b.req, 5000, 1, restart), result);
        t.join();
        EXPECT_EQ(dev.count(MSG_IO_ABORT), aborts);
    }
    // An exception already pending makes the begin itself answer 310: with restart clear that is
    // -3 with error 1, and nothing was begun.
    std::size_t begins = dev.count(MSG_IO_BEGIN);
    host::kernel::raise_exception(self, EXCEPTION_USER, 1, 0);
    b.req->error = 0;
    EXPECT_EQ(SyncIOEx(b.req, 5000, 1, 0), -3);
    EXPECT_EQ(b.req->error, 1u);
    EXPECT_EQ(dev.count(MSG_IO_BEGIN), begins);
    EXPECT_EQ(handled.load(), 3);
    _SL_SetExceptionHandler(0, EXCEPTION_USER, nullptr, nullptr);
}
