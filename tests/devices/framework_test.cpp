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

using namespace host::devices;
using orlix::MSG_IO_ABORT_ACK;
using orlix::MSG_IO_ABORTED;
using orlix::MSG_IO_DONE;
using orlix::MSG_IO_FAILED;

constexpr std::uint32_t CMD_DONE = 1, CMD_FAIL = 2, CMD_WAIT = 3, CMD_TOUCH = 4;
constexpr std::uint32_t FAIL_STATUS = 77;

class TestDevice final : public Service {
public:
    TestDevice() : Service("test", 256) {}
    ~TestDevice() override { shutdown(); }

    // Finishes every waiting command well.
    void release_all()
    {
        std::vector<std::pair<RequestRef, std::uint64_t>> list;
        std::unique_lock g(lock_);
        list.swap(parked_);
        g.unlock();
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
        case CMD_TOUCH: { // writes the 16 bytes the parameter pointer names, if they lie in the block
            std::uint8_t* p = r.area(r.block->params, 16);
            return p ? (std::memset(p, 0xab, 16), Outcome::ok()) : Outcome::fail(STATUS_BAD_ADDRESS);
        }
        default: return Outcome::fail(STATUS_BAD_COMMAND);
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

class Framework : public ::testing::Test, protected devtest::Open {
protected:
    void SetUp() override
    {
        devtest::warm_up();
        start_objects = host::kernel::live_object_count();
        start_handles = host::kernel::live_handle_count();
        service = std::make_unique<TestDevice>();
        ASSERT_TRUE(open(service->port(), 256));
    }
    void TearDown() override
    {
        EXPECT_TRUE(close());
        service.reset();
        EXPECT_EQ(host::kernel::live_object_count(), start_objects);
        EXPECT_EQ(host::kernel::live_handle_count(), start_handles) << "the open's task handle, or another, kept";
    }
    std::uint64_t run(std::uint32_t command, void* params = nullptr)
    {
        return devtest::sync(req, command, params ? params : orlix::ioreq_area(req));
    }
    void begin(std::uint32_t command)
    {
        req->command = command;
        devtest::begin(req);
    }
    std::uint64_t next(int ms = 5000) { return devtest::receive(reply, ms).type; }
    // Nothing more arrives on the reply port for a while.
    void expect_quiet(int ms = 60) { EXPECT_EQ(next(ms), 0u); }

    std::uint64_t start_objects = 0;
    std::uint64_t start_handles = 0;
    std::unique_ptr<TestDevice> service;
};

// The record's handles and shared memory are used end to end by the client's loopback test; here
// what that test would not notice.
TEST_F(Framework, OpenGivesAFreeCreateLockASharedRequestAndBoundedBlocks)
{
    EXPECT_EQ(orlix::_SL_WaitSemaphore(device->create_lock, 1, 0), orlix::STATUS_DONE);
    EXPECT_EQ(orlix::_SL_WaitSemaphore(device->create_lock, 1, 0), orlix::STATUS_TIMEOUT) << "not binary";
    orlix::_SL_SignalSemaphore(device->create_lock, 1);
    // The shared request runs like any other, on the reply port the device gave it.
    orlix::DeviceSharedIO* io = device->shared_io;
    ASSERT_NE(io, nullptr);
    EXPECT_EQ(io->params_size, 256u);
    EXPECT_EQ(devtest::sync(io->request, CMD_FAIL, io->params), MSG_IO_FAILED);
    EXPECT_EQ(io->request->error, FAIL_STATUS);
    // A new block has no time-out; sizes below the header, or more than memory, are refused. A
    // block grows as large as a transfer asks, zeroed.
    EXPECT_EQ(req->timeout, orlix::IOREQ_NO_TIMEOUT);
    EXPECT_EQ(devtest::create_block(device, 119, reply), nullptr);
    EXPECT_EQ(devtest::create_block(device, std::uint64_t{1} << 40, reply), nullptr);
    const std::uint64_t big = (std::uint64_t{64} << 20) + 120;
    orlix::IOreq* large = devtest::create_block(device, big, reply);
    ASSERT_NE(large, nullptr);
    auto* last = reinterpret_cast<std::uint8_t*>(large) + big - 16;
    EXPECT_EQ(devtest::sync(large, CMD_TOUCH, last), MSG_IO_DONE);
    EXPECT_EQ(last[15], 0xab);
    EXPECT_EQ(reinterpret_cast<std::uint8_t*>(large)[big / 2], 0);
    EXPECT_TRUE(devtest::delete_block(large));
}

TEST_F(Framework, CommandsCompleteWithDoneOrFailedAndTheStatus)
{
    auto* block = reinterpret_cast<std::uint8_t*>(req);
    std::uint8_t outside[16];
    // A parameter pointer inside the block works; one outside, or running over its end, fails.
    const std::tuple<std::uint32_t, void*, std::uint64_t, std::uint32_t> rows[] = {
        {CMD_DONE, nullptr, MSG_IO_DONE, 0},
        {CMD_FAIL, nullptr, MSG_IO_FAILED, FAIL_STATUS},
        {0xc0ff0001, nullptr, MSG_IO_FAILED, STATUS_BAD_COMMAND},
        {CMD_TOUCH, block + 256 - 16, MSG_IO_DONE, 0},
        {CMD_TOUCH, outside, MSG_IO_FAILED, STATUS_BAD_ADDRESS},
        {CMD_TOUCH, block + 256 - 15, MSG_IO_FAILED, STATUS_BAD_ADDRESS},
    };
    for (auto [command, params, type, status] : rows) {
        req->error = 0;
        EXPECT_EQ(run(command, params), type) << command;
        EXPECT_EQ(req->error, status) << command;
    }
    EXPECT_EQ(block[255], 0xab);
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
        EXPECT_EQ(next(), MSG_IO_FAILED) << id;
    }
    // A delete of an id that names nothing is still answered, and deletes nothing.
    for (std::uint64_t id : {old_id, std::uint64_t{0x7777}}) {
        orlix::_SL_SendMsg(device->request_port, reinterpret_cast<std::uint64_t>(device), orlix::MSG_IOREQ_DELETE, id, -1);
        EXPECT_EQ(devtest::receive(device->create_reply_port).type, orlix::MSG_IOREQ_DELETED) << id;
    }
    // The live blocks still work.
    EXPECT_EQ(devtest::sync(third, CMD_DONE, orlix::ioreq_area(third)), MSG_IO_DONE);
    EXPECT_EQ(run(CMD_DONE), MSG_IO_DONE);
    EXPECT_TRUE(devtest::delete_block(third));
}

TEST_F(Framework, AbortOfAWaitingCommandAcknowledgesThenAborts)
{
    begin(CMD_WAIT);
    expect_quiet();
    // A second begin on the block in flight fails with status 5 and leaves the first alone.
    devtest::begin(req);
    EXPECT_EQ(next(), MSG_IO_FAILED);
    EXPECT_EQ(req->error, STATUS_BUSY);
    EXPECT_EQ(service->waiting(), 1u);

    devtest::abort(req);
    EXPECT_EQ(next(), MSG_IO_ABORT_ACK);
    EXPECT_EQ(next(), MSG_IO_ABORTED);
    EXPECT_EQ(service->waiting(), 0u);
    expect_quiet();
    // Abort after the command ended, well or not, or of an id that names nothing: acknowledged
    // and then aborted, so that a client that missed the end still gets an answer. The block is
    // idle again.
    for (std::uint32_t command : {CMD_DONE, CMD_FAIL}) {
        EXPECT_EQ(run(command), command == CMD_DONE ? MSG_IO_DONE : MSG_IO_FAILED);
        devtest::abort(req);
        EXPECT_EQ(next(), MSG_IO_ABORT_ACK);
        EXPECT_EQ(next(), MSG_IO_ABORTED);
        expect_quiet(20);
    }
    orlix::_SL_SendMsg(device->request_port, static_cast<std::uint64_t>(reply), orlix::MSG_IO_ABORT, 0x7777, -1);
    EXPECT_EQ(next(), MSG_IO_ABORT_ACK);
    EXPECT_EQ(next(), MSG_IO_ABORTED);
    EXPECT_EQ(run(CMD_DONE), MSG_IO_DONE);
}

TEST_F(Framework, TimeOutEndsAWaitingCommandOnce)
{
    req->timeout = 50;
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(run(CMD_WAIT), MSG_IO_FAILED);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(45));
    EXPECT_EQ(req->error, STATUS_TIME_EXPIRED);
    EXPECT_EQ(service->waiting(), 0u);
    // A late wake-up of the timed-out begin sends nothing.
    service->release_all();
    expect_quiet();
    // A command that finishes before its time-out is not ended by it later.
    req->timeout = 40;
    begin(CMD_WAIT);
    service->release_all();
    EXPECT_EQ(next(), MSG_IO_DONE);
    expect_quiet(120);
}

TEST_F(Framework, RacingCompletionAbortAndTimeOutGiveOneEndPerBegin)
{
    // Each round: a waiting command, then release, abort and a short time-out at once. Whatever
    // wins, the abort is answered ACK then ABORTED, after at most one end of the command itself.
    unsigned seed = static_cast<unsigned>(std::chrono::steady_clock::now().time_since_epoch().count());
    std::printf("seed %u\n", seed);
    std::srand(seed);
    for (int round = 0; round < 60; ++round) {
        req->timeout = static_cast<std::uint32_t>(std::rand() % 3);
        begin(CMD_WAIT);
        std::thread releaser([&] { service->release_all(); });
        devtest::abort(req);
        releaser.join();
        std::vector<std::uint64_t> types;
        for (std::uint64_t type; (type = next(types.size() >= 2 && types.back() == MSG_IO_ABORTED ? 20 : 2000)) != 0;)
            types.push_back(type);
        ASSERT_GE(types.size(), 2u) << "round " << round;
        const std::vector<std::uint64_t> tail(types.end() - 2, types.end());
        ASSERT_EQ(tail, (std::vector<std::uint64_t>{MSG_IO_ABORT_ACK, MSG_IO_ABORTED})) << "round " << round;
        ASSERT_LE(types.size(), 3u) << "round " << round;
        if (types.size() == 3) {
            ASSERT_TRUE(types[0] == MSG_IO_DONE || types[0] == MSG_IO_FAILED) << "round " << round;
        }
    }
}

TEST_F(Framework, DeleteAndCloseEndWaitingCommandsSilently)
{
    begin(CMD_WAIT);
    EXPECT_TRUE(devtest::delete_block(req));
    req = nullptr;
    EXPECT_EQ(service->waiting(), 0u);
    expect_quiet();
    // A waiting command on a block still open when the device is closed goes with it.
    orlix::IOreq* other = devtest::create_block(device, 300, reply);
    ASSERT_NE(other, nullptr);
    other->command = CMD_WAIT;
    devtest::begin(other);
    EXPECT_TRUE(devtest::close_device(device, reply));
    EXPECT_EQ(service->waiting(), 0u);
    ASSERT_NE(device = devtest::open_device(service->port(), reply), nullptr); // for TearDown
    expect_quiet();
}

} // namespace
