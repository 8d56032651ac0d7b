// The device framework's message exchanges, seen at the kernel-message level through a small
// device whose commands finish at once, fail, or wait until the test lets them go.
#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "host/devices/framework.h"
#include "host/kernel/host_kernel.h"
#include "tests/devices/wire_client.h"

namespace {

using host::devices::Outcome;
using host::devices::Request;
using host::devices::RequestRef;

constexpr std::uint32_t CMD_DONE = 1, CMD_FAIL = 2, CMD_WAIT = 3, CMD_TOUCH = 4;
constexpr std::uint32_t FAIL_STATUS = 77;

class TestDevice final : public host::devices::Service {
public:
    TestDevice() : Service("test", 256) {}
    ~TestDevice() override { shutdown(); }

    // Finishes every waiting command well.
    void release_all()
    {
        std::vector<std::pair<RequestRef, std::uint64_t>> list;
        {
            std::lock_guard g(lock_);
            list.swap(parked_);
        }
        for (auto& [r, serial] : list)
            resume(r, serial, [](Request&) { return Outcome::ok(); });
    }
    std::size_t waiting()
    {
        std::lock_guard g(lock_);
        return parked_.size();
    }

private:
    Outcome run(Request& r) override
    {
        switch (r.block->command) {
        case CMD_DONE: return Outcome::ok();
        case CMD_FAIL: return Outcome::fail(FAIL_STATUS);
        case CMD_WAIT: {
            std::lock_guard g(lock_);
            parked_.push_back({r.shared_from_this(), r.serial});
            return Outcome::wait();
        }
        case CMD_TOUCH: {
            // Writes the 16 bytes the parameter pointer names, if they lie in the block.
            std::uint8_t* p = r.area(r.block->params, 16);
            if (!p)
                return Outcome::fail(host::devices::STATUS_BAD_ADDRESS);
            std::memset(p, 0xab, 16);
            return Outcome::ok();
        }
        default: return Outcome::fail(host::devices::STATUS_BAD_COMMAND);
        }
    }
    void cancel(Request& r) override
    {
        std::lock_guard g(lock_);
        std::erase_if(parked_, [&](auto& e) { return e.first.get() == &r; });
    }

    std::mutex lock_;
    std::vector<std::pair<RequestRef, std::uint64_t>> parked_;
};

class Framework : public ::testing::Test {
protected:
    void SetUp() override
    {
        devtest::warm_up();
        start_objects = host::kernel::live_object_count();
        device_service = std::make_unique<TestDevice>();
        reply = devtest::make_port();
        device = devtest::open_device(device_service->port(), reply);
        ASSERT_NE(device, nullptr);
        req = devtest::create_block(device, 256, reply);
        ASSERT_NE(req, nullptr);
    }
    void TearDown() override
    {
        if (req) {
            EXPECT_TRUE(devtest::delete_block(req));
        }
        EXPECT_TRUE(devtest::close_device(device, reply));
        orlix::_SL_DeleteObject(reply, orlix::DELETE_OBJECT);
        device_service.reset();
        EXPECT_EQ(host::kernel::live_object_count(), start_objects);
    }
    std::uint64_t run(std::uint32_t command)
    {
        return devtest::sync(req, command, orlix::ioreq_area(req));
    }
    // Nothing more arrives on the reply port for a while.
    void expect_quiet(int ms = 60) { EXPECT_EQ(devtest::receive(reply, ms).type, 0u); }

    std::uint64_t start_objects = 0;
    std::unique_ptr<TestDevice> device_service;
    orlix::Handle reply = orlix::INVALID_HANDLE;
    orlix::Device* device = nullptr;
    orlix::IOreq* req = nullptr;
};

TEST_F(Framework, OpenGivesACompleteDeviceRecordInSharedMemory)
{
    EXPECT_NE(device->open_state, 0u);
    EXPECT_TRUE(orlix::handle_valid(device->create_lock));
    EXPECT_TRUE(orlix::handle_valid(device->request_port));
    EXPECT_TRUE(orlix::handle_valid(device->create_reply_port));
    EXPECT_NE(orlix::_SL_GetAddressMemo(0, device, 2), orlix::INVALID_HANDLE);
    // The create lock is a free binary lock.
    EXPECT_EQ(orlix::_SL_WaitSemaphore(device->create_lock, 1, 0), orlix::STATUS_DONE);
    EXPECT_EQ(orlix::_SL_WaitSemaphore(device->create_lock, 1, 0), orlix::STATUS_TIMEOUT);
    orlix::_SL_SignalSemaphore(device->create_lock, 1);

    orlix::DeviceSharedIO* io = device->shared_io;
    ASSERT_NE(io, nullptr);
    EXPECT_EQ(io->lock->count, 0);
    EXPECT_TRUE(orlix::handle_valid(io->lock->semaphore));
    ASSERT_NE(io->request, nullptr);
    EXPECT_EQ(io->request->device, device);
    EXPECT_EQ(io->params, orlix::ioreq_area(io->request));
    EXPECT_EQ(io->params_size, 256u);
    // The shared request runs like any other, on the reply port the device gave it.
    EXPECT_EQ(devtest::sync(io->request, CMD_FAIL, io->params), orlix::MSG_IO_FAILED);
    EXPECT_EQ(io->request->error, FAIL_STATUS);

    // A new block: id and device set, no time-out.
    EXPECT_NE(req->id, 0u);
    EXPECT_EQ(req->device, device);
    EXPECT_EQ(req->timeout, orlix::IOREQ_NO_TIMEOUT);
    // Sizes below the header, or absurd, are refused.
    EXPECT_EQ(devtest::create_block(device, 119, reply), nullptr);
    EXPECT_EQ(devtest::create_block(device, std::uint64_t{1} << 40, reply), nullptr);
}

TEST_F(Framework, CommandsCompleteWithDoneOrFailedAndTheStatus)
{
    EXPECT_EQ(run(CMD_DONE), orlix::MSG_IO_DONE);
    EXPECT_EQ(run(CMD_FAIL), orlix::MSG_IO_FAILED);
    EXPECT_EQ(req->error, FAIL_STATUS);
    EXPECT_EQ(run(0xc0ff0001), orlix::MSG_IO_FAILED);
    EXPECT_EQ(req->error, host::devices::STATUS_BAD_COMMAND);
    // A parameter pointer inside the block works; one outside, or running over its end, fails.
    EXPECT_EQ(run(CMD_TOUCH), orlix::MSG_IO_DONE);
    EXPECT_EQ(orlix::ioreq_area(req)[15], 0xab);
    std::uint8_t outside[16];
    EXPECT_EQ(devtest::sync(req, CMD_TOUCH, outside), orlix::MSG_IO_FAILED);
    EXPECT_EQ(req->error, host::devices::STATUS_BAD_ADDRESS);
    EXPECT_EQ(devtest::sync(req, CMD_TOUCH, reinterpret_cast<std::uint8_t*>(req) + 256 - 15), orlix::MSG_IO_FAILED);
    EXPECT_EQ(devtest::sync(req, CMD_TOUCH, reinterpret_cast<std::uint8_t*>(req) + 256 - 16), orlix::MSG_IO_DONE);
    expect_quiet();
}

TEST_F(Framework, StaleAndForgedIdsAreRefused)
{
    orlix::IOreq* second = devtest::create_block(device, 200, reply);
    ASSERT_NE(second, nullptr);
    std::uint64_t old_id = second->id;
    ASSERT_TRUE(devtest::delete_block(second));
    // The slot is reused with a new generation: the old id names nothing.
    orlix::IOreq* third = devtest::create_block(device, 200, reply);
    ASSERT_NE(third, nullptr);
    EXPECT_NE(third->id, old_id);
    for (std::uint64_t id : {old_id, std::uint64_t{0}, std::uint64_t{0x7777}, req->id + (std::uint64_t{1} << 32)}) {
        orlix::_SL_SendMsg(device->request_port, static_cast<std::uint64_t>(reply), orlix::MSG_IO_BEGIN, id, -1);
        EXPECT_EQ(devtest::receive(reply).type, orlix::MSG_IO_FAILED) << id;
    }
    // The live blocks still work.
    EXPECT_EQ(devtest::sync(third, CMD_DONE, orlix::ioreq_area(third)), orlix::MSG_IO_DONE);
    EXPECT_EQ(run(CMD_DONE), orlix::MSG_IO_DONE);
    EXPECT_TRUE(devtest::delete_block(third));
}

TEST_F(Framework, AbortOfAWaitingCommandAcknowledgesThenAborts)
{
    req->command = CMD_WAIT;
    devtest::begin(req);
    expect_quiet();
    // A second begin on the block in flight fails with status 5 and leaves the first alone.
    devtest::begin(req);
    EXPECT_EQ(devtest::receive(reply).type, orlix::MSG_IO_FAILED);
    EXPECT_EQ(req->error, host::devices::STATUS_BUSY);
    EXPECT_EQ(device_service->waiting(), 1u);

    devtest::abort(req);
    EXPECT_EQ(devtest::receive(reply).type, orlix::MSG_IO_ABORT_ACK);
    EXPECT_EQ(devtest::receive(reply).type, orlix::MSG_IO_ABORTED);
    EXPECT_EQ(device_service->waiting(), 0u);
    expect_quiet();

    // Abort after completion: only the acknowledgement.
    req->command = CMD_WAIT;
    devtest::begin(req);
    device_service->release_all();
    EXPECT_EQ(devtest::receive(reply).type, orlix::MSG_IO_DONE);
    devtest::abort(req);
    EXPECT_EQ(devtest::receive(reply).type, orlix::MSG_IO_ABORT_ACK);
    expect_quiet();
    // The block is idle again.
    EXPECT_EQ(run(CMD_DONE), orlix::MSG_IO_DONE);
}

TEST_F(Framework, TimeOutEndsAWaitingCommandOnce)
{
    req->timeout = 50;
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(run(CMD_WAIT), orlix::MSG_IO_FAILED);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(45));
    EXPECT_EQ(req->error, host::devices::STATUS_TIME_EXPIRED);
    EXPECT_EQ(device_service->waiting(), 0u);
    // A late wake-up of the timed-out begin sends nothing.
    device_service->release_all();
    expect_quiet();
    // A command that finishes before its time-out is not ended by it later.
    req->timeout = 40;
    req->command = CMD_WAIT;
    devtest::begin(req);
    device_service->release_all();
    EXPECT_EQ(devtest::receive(reply).type, orlix::MSG_IO_DONE);
    expect_quiet(120);
}

TEST_F(Framework, RacingCompletionAbortAndTimeOutGiveOneEndPerBegin)
{
    // Each round: a waiting command, then release, abort and a short time-out at once. Whatever
    // wins, exactly one of DONE, FAILED (time-out) or ABORTED arrives, plus the abort's ACK.
    unsigned seed = static_cast<unsigned>(std::chrono::steady_clock::now().time_since_epoch().count());
    std::printf("seed %u\n", seed);
    std::srand(seed);
    for (int round = 0; round < 60; ++round) {
        req->timeout = static_cast<std::uint32_t>(std::rand() % 3);
        req->command = CMD_WAIT;
        devtest::begin(req);
        std::thread releaser([&] { device_service->release_all(); });
        devtest::abort(req);
        releaser.join();
        int ends = 0, acks = 0;
        for (;;) {
            orlix::Message m = devtest::receive(reply, ends == 1 && acks == 1 ? 20 : 2000);
            if (m.type == 0)
                break;
            if (m.type == orlix::MSG_IO_ABORT_ACK)
                ++acks;
            else
                ++ends;
        }
        ASSERT_EQ(acks, 1) << "round " << round;
        ASSERT_EQ(ends, 1) << "round " << round;
    }
}

TEST_F(Framework, DeleteAndCloseEndWaitingCommandsSilently)
{
    req->command = CMD_WAIT;
    devtest::begin(req);
    EXPECT_TRUE(devtest::delete_block(req));
    req = nullptr;
    EXPECT_EQ(device_service->waiting(), 0u);
    expect_quiet();
    // A waiting command on a block still open when the device is closed goes with it.
    orlix::IOreq* other = devtest::create_block(device, 300, reply);
    ASSERT_NE(other, nullptr);
    other->command = CMD_WAIT;
    devtest::begin(other);
    EXPECT_TRUE(devtest::close_device(device, reply));
    EXPECT_EQ(device_service->waiting(), 0u);
    device = devtest::open_device(device_service->port(), reply); // for TearDown
    ASSERT_NE(device, nullptr);
    expect_quiet();
}

} // namespace
