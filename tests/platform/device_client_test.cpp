// Device opening and request blocks against scripted fake devices: exact message sequences,
// results, the abort exchange of bounded runs, and that nothing leaks.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>
#include <unistd.h>

#include "fake_device.h"
#include "platform/device_client.h"

using namespace orlix;
using fake::FakeDevice;
using fake::FakeRegistry;

namespace {

std::vector<std::uint64_t> types(const std::vector<Message>& messages)
{
    std::vector<std::uint64_t> out;
    for (const Message& m : messages)
        out.push_back(m.type);
    return out;
}

// A worker-style block with its own reply port, deleted at the end of the test.
struct Block {
    explicit Block(FakeDevice& dev)
    {
        port = _SL_CreateMsgPort(0, 0);
        req = CreateIOreq(dev.device(), 0, 3, 0x200, port);
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

TEST(DeviceOpen, FindsDeviceThroughRegistryAndDeletesItsPorts)
{
    FakeRegistry reg;
    FakeDevice dev;
    reg.add("fakedev", dev.port());
    reg.abort_first = true; // an aborted message does not end the lookup
    const Handle task = _SL_GetState(STATE_TASK);
    std::uint64_t live = host::kernel::live_object_count();

    EXPECT_EQ(OpenDevice("fakedev"), dev.device());
    EXPECT_EQ(types(reg.registry.messages()),
              (std::vector<std::uint64_t>{MSG_DEVICE_OPEN, MSG_IOREQ_CREATE, MSG_IO_BEGIN, MSG_IOREQ_DELETE,
                                          MSG_DEVICE_CLOSE}));
    EXPECT_EQ(reg.registry.messages()[1].word2, 136u + sizeof("run/dev/fakedev"));
    EXPECT_EQ(reg.registry.commands().at(0).command, REG_GET_KEY);
    ASSERT_EQ(dev.messages().size(), 1u);
    EXPECT_EQ(dev.messages()[0].type, MSG_DEVICE_OPEN);
    // The task itself, or a further handle of it where the kernel wants that.
    std::uint64_t id_sent = 0, id = 0;
    EXPECT_EQ(_SL_GetObjectInfo(static_cast<Handle>(dev.messages()[0].word2), INFO_TASK_ID, &id_sent), 0u);
    EXPECT_EQ(_SL_GetObjectInfo(task, INFO_TASK_ID, &id), 0u);
    EXPECT_EQ(id_sent, id);
    EXPECT_EQ(reg.registry.live_blocks(), 0u);
    EXPECT_EQ(host::kernel::live_object_count(), live);

    // Unknown name: the registry is closed, the block deleted, the device never asked.
    EXPECT_EQ(OpenDevice("nosuch"), nullptr);
    EXPECT_EQ(reg.registry.count(MSG_DEVICE_CLOSE), 2u);
    EXPECT_EQ(reg.registry.live_blocks(), 0u);
    EXPECT_EQ(dev.messages().size(), 1u);
    EXPECT_EQ(host::kernel::live_object_count(), live);

    // No name: nothing is sent at all.
    std::size_t sent = reg.registry.messages().size();
    EXPECT_EQ(OpenDevice(nullptr), nullptr);
    EXPECT_EQ(OpenDevice(""), nullptr);
    EXPECT_EQ(GetDeviceMsgPort(""), INVALID_HANDLE);
    EXPECT_EQ(reg.registry.messages().size(), sent);
    EXPECT_EQ(host::kernel::live_object_count(), live);
}

TEST(DeviceOpen, RegistryOpensStraightAtItsPortAndRefusalsGiveNull)
{
    FakeRegistry reg;
    EXPECT_EQ(OpenDevice("Registry"), reg.registry.device());
    EXPECT_EQ(types(reg.registry.messages()), (std::vector<std::uint64_t>{MSG_DEVICE_OPEN}));
    EXPECT_EQ(GetDeviceMsgPort("Registry"), reg.registry.port());
    EXPECT_FALSE(devlib_intern_is_registry("Registryx"));
    EXPECT_FALSE(devlib_intern_is_registry("Registr"));

    FakeDevice dev;
    dev.device()->open_state = 0; // an open that failed is undone with a close
    EXPECT_EQ(OpenDeviceFromMsgPort(dev.port()), nullptr);
    EXPECT_EQ(types(dev.messages()), (std::vector<std::uint64_t>{MSG_DEVICE_OPEN, MSG_DEVICE_CLOSE}));
    dev.device()->open_state = 1;
    dev.open_answer_override = 0;
    EXPECT_EQ(OpenDeviceFromMsgPort(dev.port()), nullptr);
    EXPECT_EQ(OpenDeviceFromMsgPort(0), nullptr);
    EXPECT_EQ(OpenDeviceFromMsgPort(-1), nullptr);
    EXPECT_EQ(dev.count(MSG_DEVICE_CLOSE), 1u);

    // Closing: only a record the kernel knows as memory gets a message.
    Device not_mapped{};
    std::size_t sent = dev.messages().size();
    EXPECT_EQ(CloseDevice(nullptr), 0);
    EXPECT_EQ(CloseDevice(&not_mapped), 0);
    EXPECT_EQ(dev.messages().size(), sent);
    EXPECT_EQ(CloseDevice(dev.device()), 0);
    EXPECT_EQ(dev.count(MSG_DEVICE_CLOSE), 2u);
}

TEST(DeviceOpen, SlotsCacheAndOptionalFailureStoresNull)
{
    FakeRegistry reg;
    FakeDevice dev;
    reg.add("fakedev", dev.port());
    Mutex lock{};
    ASSERT_EQ(MutexInit(&lock), 0);
    Device* slot = nullptr;
    EXPECT_EQ(__ensureopendevice(&lock, &slot, "fakedev"), dev.device());
    EXPECT_EQ(slot, dev.device());
    EXPECT_EQ(__ensureopendevice(&lock, &slot, "fakedev"), dev.device());
    EXPECT_EQ(dev.count(MSG_DEVICE_OPEN), 1u);
    EXPECT_EQ(lock.count, 0);

    Device* other = dev.device();
    EXPECT_EQ(__tryopendevice(&lock, &other, "nosuch"), dev.device()); // a filled slot is the answer
    other = nullptr;
    EXPECT_EQ(__tryopendevice(&lock, &other, "nosuch"), nullptr);
    EXPECT_EQ(other, nullptr);
    EXPECT_EQ(lock.count, 0);
    MutexDestroy(&lock);

    EXPECT_EQ(devlib_pack_name("abc"), 0x6162630000000000u);
    EXPECT_EQ(devlib_pack_name("abcdefghij"), 0x6162636465666768u);
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
                for (const Message& m : log.messages())
                    std::fprintf(stderr, "%llx %llx %llx\n", (unsigned long long)m.word1,
                                 (unsigned long long)m.type, (unsigned long long)m.word2);
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
    dev.stray_before_created = true; // passed over while waiting for the answer
    Handle port = _SL_CreateMsgPort(0, 0);
    IOreq* req = CreateIOreq(dev.device(), 7, 3, 0x200, port);
    ASSERT_NE(req, nullptr);
    EXPECT_EQ(req->unit, 7u);
    EXPECT_EQ(req->priority, 3u);
    EXPECT_EQ(req->timeout, 0xffffffffu);
    EXPECT_EQ(req->command, 0u);
    EXPECT_EQ(req->error, 0u);
    EXPECT_EQ(req->cleared[0] | req->cleared[1] | req->cleared[2], 0u);
    EXPECT_EQ(req->reply_port, port);
    EXPECT_EQ(req->device, dev.device());
    const Message create = dev.messages().at(0);
    EXPECT_EQ(create.word1, reinterpret_cast<std::uintptr_t>(dev.device()));
    EXPECT_EQ(create.word2, 0x200u);

    EXPECT_EQ(DeleteIOreq(req), 0);
    EXPECT_EQ(dev.live_blocks(), 0u);
    EXPECT_EQ(dev.messages().back().word2, 1u); // the block's id

    dev.refuse_create = true;
    EXPECT_EQ(CreateIOreq(dev.device(), 0, 3, 0x200, port), nullptr);
    dev.refuse_create = false;
    IOreq* again = CreateIOreq(dev.device(), 0, 3, 0x200, port); // the lock was given back
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(DeleteIOreqAsync(again), 0);
    EXPECT_EQ(dev.messages().back().type, MSG_IOREQ_DELETE_ASYNC);
    EXPECT_EQ(dev.messages().back().word1, 0u);
    EXPECT_EQ(dev.live_blocks(), 0u);
    EXPECT_EQ(CreateIOreq(nullptr, 0, 3, 0x200, port), nullptr);
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
        req->error = answer == MSG_IO_FAILED ? 0xe0050043 : req->error;
        FakeDevice::reply(req, answer);
    };
    b.req->command = 0xc0050099;
    EXPECT_EQ(SyncIO(b.req), 0);
    const Message begin = dev.messages().back();
    EXPECT_EQ(begin.type, MSG_IO_BEGIN);
    EXPECT_EQ(static_cast<Handle>(begin.word1), b.port);
    EXPECT_EQ(begin.word2, b.req->id);
    EXPECT_EQ(dev.commands().back().command, 0xc0050099u);
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
    EXPECT_EQ(BeginIO(&lost), -47);
    EXPECT_EQ(AbortIO(&lost), -47);
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
    std::vector<std::uint64_t> after_abort;
    dev.on_abort = [&after_abort](FakeDevice&, IOreq* req) {
        for (std::uint64_t type : after_abort)
            FakeDevice::reply(req, type);
    };

    struct Case {
        std::vector<std::uint64_t> replies;
        int result;
    };
    const Case cases[] = {
        {{MSG_IO_ABORT_ACK, MSG_IO_DONE}, 0},
        {{MSG_IO_DONE, MSG_IO_ABORT_ACK}, 0},
        {{MSG_IO_DONE, 0x777, MSG_IO_ABORT_ACK, MSG_IO_DONE}, 0}, // leftovers are drained
        {{MSG_IO_ABORTED}, -73},
        {{MSG_IO_DONE, MSG_IO_ABORTED}, -73}, // completion without the acknowledgement
        {{MSG_IO_ABORT_ACK, MSG_IO_ABORTED}, -73},
    };
    for (const Case& c : cases) {
        after_abort = c.replies;
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(SyncIOEx(b.req, 40, 1, 1), c.result);
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(40));
        EXPECT_EQ(dev.messages().back().type, MSG_IO_ABORT);
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
    handled = 0;
    ASSERT_EQ(_SL_SetExceptionHandler(0, EXCEPTION_USER, ask_repeat, nullptr), 0u);
    const Handle self = _SL_GetState(STATE_THREAD);
    auto interrupt_soon = [self](IOreq* complete) {
        return std::thread([self, complete] {
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
            host::kernel::raise_exception(self, EXCEPTION_USER, 1, 0);
            if (complete != nullptr) {
                std::this_thread::sleep_for(std::chrono::milliseconds(30));
                FakeDevice::reply(complete, MSG_IO_DONE);
            }
        });
    };

    // restart clear: the interruption aborts the command; aborted alone gives -3.
    std::thread t = interrupt_soon(nullptr);
    EXPECT_EQ(SyncIOEx(b.req, 5000, 1, 0), -3);
    t.join();
    EXPECT_EQ(dev.count(MSG_IO_ABORT), 1u);
    EXPECT_EQ(handled.load(), 1);

    // restart set: the wait goes on and the command completes.
    t = interrupt_soon(b.req);
    EXPECT_EQ(SyncIOEx(b.req, 5000, 1, 1), 0);
    t.join();
    EXPECT_EQ(dev.count(MSG_IO_ABORT), 1u);
    EXPECT_EQ(handled.load(), 2);

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
