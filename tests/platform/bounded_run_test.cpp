// Bounded runs (SyncIOEx) against the host's real tcpip device when the command ends just as its
// abort is sent: by an interruption whose handler outlasts the command, and by a block time-out
// raced against the run's own. Every run must end; a watchdog turns a hang into a failure.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <random>
#include <thread>

#include "host/kernel/host_kernel.h"
#include "platform/device_client.h"
#include "platform/kernel_wrappers.h"
#include "runtime/tcp_client.h"
#include "tests/devices/tcp_test_util.h"

using namespace orlix;
using Clock = std::chrono::steady_clock;

namespace {

// Deletes the port a stuck run waits on once a round has lasted longer than the limit, which
// ends that wait with 292, and remembers that it had to.
class Watchdog {
public:
    Watchdog(Handle port, std::chrono::milliseconds limit)
        : thread_([this, port, limit] {
              while (!stop_) {
                  auto started = Clock::time_point(Clock::duration(round_start_.load()));
                  if (round_start_.load() != 0 && Clock::now() - started > limit) {
                      fired_ = true;
                      DeleteMsgPort(port);
                      return;
                  }
                  std::this_thread::sleep_for(std::chrono::milliseconds(5));
              }
          })
    {
    }
    ~Watchdog()
    {
        stop_ = true;
        thread_.join();
    }
    void round() { round_start_ = Clock::now().time_since_epoch().count(); }
    bool fired() const { return fired_; }

private:
    std::atomic<bool> stop_{false};
    std::atomic<bool> fired_{false};
    std::atomic<Clock::rep> round_start_{0};
    std::thread thread_;
};

// A device socket connected to a host peer that never writes, and a worker block whose receive
// of one byte therefore waits until something ends it.
class BoundedRun : public ::testing::Test {
protected:
    void SetUp() override
    {
        host::devices::boot();
        dev = OpenDevice("tcpip");
        ASSERT_NE(dev, nullptr);
        std::uint16_t port;
        int listener = devtest::host_listener(port);
        socket = td_sockcreat(dev, 2, 1, 6);
        ASSERT_GE(socket, 0);
        reply = _SL_CreateMsgPort(0, 0);
        block.req = CreateIOreq(dev, 0, 3, devtest::BLOCK_SIZE, reply);
        ASSERT_NE(block.req, nullptr);
        orlix::sockaddr_in to{AF_INET_VALUE, htons(port), htonl(INADDR_LOOPBACK), {}};
        *block.params<TcpConnectParams>() = {socket, 16, block.at(devtest::ADDRESS)};
        std::memcpy(block.at(devtest::ADDRESS), &to, sizeof to);
        block.req->params = block.params<TcpConnectParams>();
        block.req->command = TCP_CONNECT;
        ASSERT_EQ(SyncIO(block.req), IO_DONE);
        peer = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        ::close(listener);
    }
    void TearDown() override
    {
        td_sockclose(dev, socket);
        DeleteIOreq(block.req);
        DeleteMsgPort(reply);
        ::close(peer);
        CloseDevice(dev);
    }
    void receive_one_byte()
    {
        block.req->params = block.transfer(socket, 1, MSG_WAITALL_VALUE);
        block.req->command = TCP_RECEIVE;
    }

    Device* dev = nullptr;
    int socket = -1;
    int peer = -1;
    Handle reply = INVALID_HANDLE;
    devtest::TcpClient block; // only its layout helpers: the runs go through the client
};

std::atomic<int> handler_calls{0};

// Runs while the command is still in flight and returns after the device has failed it.
std::uint64_t slow_interrupting_handler(void*, std::uint64_t, std::uint64_t, std::uint64_t*, std::uint64_t,
                                        std::uint64_t)
{
    ++handler_calls;
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    return 1;
}

} // namespace

TEST_F(BoundedRun, InterruptedWhileTheCommandFailsStillEnds)
{
    // The read path of the runtime: no time-out, abortable, no restart. The block's own time-out
    // fails the receive while the handler runs; the abort that follows meets an ended request.
    ASSERT_EQ(_SL_SetExceptionHandler(0, EXCEPTION_USER, slow_interrupting_handler, nullptr), STATUS_DONE);
    const Handle self = _SL_GetState(STATE_THREAD);
    block.req->timeout = 40;
    receive_one_byte();
    Watchdog watchdog(reply, std::chrono::milliseconds(3000));
    std::thread interrupter([self] {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        host::kernel::raise_exception(self, EXCEPTION_USER, 8, 2);
    });
    watchdog.round();
    int result = SyncIOEx(block.req, -1, 1, 0);
    interrupter.join();
    _SL_SetExceptionHandler(0, EXCEPTION_USER, nullptr, nullptr);
    ASSERT_FALSE(watchdog.fired()) << "SyncIOEx never ended: the abort of a failed command was not answered";
    EXPECT_EQ(handler_calls.load(), 1);
    EXPECT_EQ(result, IO_INTERRUPTED);

    // The port was drained: the block runs its next command cleanly.
    block.req->timeout = 30;
    receive_one_byte();
    EXPECT_EQ(SyncIO(block.req), IO_DEVICE_FAILED);
    EXPECT_EQ(block.req->error, 0xbe000049u);
}

TEST_F(BoundedRun, BlockTimeOutsRacedAgainstTheRunsTimeOutAllEnd)
{
    unsigned seed = std::random_device{}();
    std::printf("seed %u\n", seed);
    std::mt19937 rng(seed);
    Watchdog watchdog(reply, std::chrono::milliseconds(2000));
    int ended_by_device = 0, ended_by_run = 0;
    const auto until = Clock::now() + std::chrono::seconds(4);
    int round = 0;
    for (; round < 1500 && Clock::now() < until; ++round) {
        block.req->timeout = 4 + rng() % 3;
        receive_one_byte();
        watchdog.round();
        int result = SyncIOEx(block.req, 5, 1, 1);
        ASSERT_FALSE(watchdog.fired()) << "round " << round << ": SyncIOEx never ended";
        ASSERT_TRUE(result == IO_DEVICE_FAILED || result == IO_TIMED_OUT) << "round " << round << ": " << result;
        ++(result == IO_DEVICE_FAILED ? ended_by_device : ended_by_run);
    }
    std::printf("%d rounds: %d ended by the device, %d by the run\n", round, ended_by_device, ended_by_run);
    EXPECT_GT(ended_by_run, 0);
}
