// Throughput and cost of the tcpip device against plain host sockets on loopback: one 4096-byte
// send through the device and through send(2), and 1 GiB streams of 4096-byte sends and receives
// through the device, from a host thread and from a kernel thread on a system stack of its own (as
// the daemon's workers run, each entry switching to the host stack). Prints MB/s.
#include <benchmark/benchmark.h>

#include <netinet/tcp.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include "host/devices/devices.h"
#include "platform/device_client.h"
#include "platform/kernel_wrappers.h"
#include "tests/devices/tcp_test_util.h"

namespace {

constexpr std::size_t UNIT = 4096;
constexpr std::size_t STREAM = std::size_t{1} << 30;

// A loopback pair: the device's socket (or a host socket) and the host peer, with a host thread
// on the peer that drains or feeds it.
struct Pair {
    int accepted = -1;
    int other = -1;
    Pair()
    {
        std::uint16_t port;
        int listener = devtest::host_listener(port);
        other = devtest::host_connect(port);
        accepted = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        ::close(listener);
    }
    ~Pair()
    {
        ::close(accepted);
        ::close(other);
    }
};

// Reads the peer until the end of the stream.
std::thread drain(int fd)
{
    return std::thread([fd] {
        std::vector<std::uint8_t> buffer(256 << 10);
        while (::read(fd, buffer.data(), buffer.size()) > 0) {
        }
    });
}

using Clock = std::chrono::steady_clock;

// Megabytes (10^6 bytes) per second of wall-clock time since start.
void set_mbps(benchmark::State& state, std::size_t bytes, Clock::time_point start)
{
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    state.counters["MB/s"] = static_cast<double>(bytes) / 1e6 / seconds;
}

// The device's end of a connection to a host peer, with a worker-sized block.
struct DeviceConnection {
    devtest::TcpClient tcp;
    std::int32_t socket = -1;
    int peer = -1;
    DeviceConnection()
    {
        host::devices::boot();
        tcp.open();
        std::uint16_t port;
        int listener = devtest::host_listener(port);
        socket = tcp.create();
        tcp.connect(socket, port);
        peer = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        ::close(listener);
    }
    ~DeviceConnection()
    {
        tcp.close_socket(socket);
        tcp.close();
        ::close(peer);
    }
    // One send of the bytes already at the block's data area, the way the daemon sends.
    bool send_unit()
    {
        auto* p = tcp.params<orlix::TcpTransferParams>();
        p->socket = socket;
        p->data = tcp.at(devtest::DATA);
        p->length = UNIT;
        p->flags = 0;
        p->result = 0;
        tcp.req->command = orlix::TCP_SEND;
        tcp.req->params = p;
        return orlix::SyncIO(tcp.req) == orlix::IO_DONE && p->result == UNIT;
    }
    std::size_t receive_unit()
    {
        auto* p = tcp.params<orlix::TcpTransferParams>();
        p->socket = socket;
        p->data = tcp.at(devtest::DATA);
        p->length = UNIT;
        p->flags = 0;
        p->result = 0;
        tcp.req->command = orlix::TCP_RECEIVE;
        tcp.req->params = p;
        return orlix::SyncIO(tcp.req) == orlix::IO_DONE ? p->result : 0;
    }
};

// Runs body on a kernel thread whose stack is a memo of its own, and waits for it.
void on_system_stack(const std::function<void()>& body)
{
    constexpr std::size_t STACK = 64 * 1024;
    orlix::Handle memo = orlix::_SL_CreateMemo(0, 0, STACK, 0);
    auto* stack = static_cast<char*>(orlix::_SL_AllocView(0, memo, nullptr, 0, 0, 0));
    orlix::Handle done = orlix::_SL_CreateMsgPort(0, 0);
    struct Run {
        const std::function<void()>* body;
        orlix::Handle done;
    } run{&body, done};
    orlix::_SL_CreateThread(0, [](void* raw) {
        auto* r = static_cast<Run*>(raw);
        (*r->body)();
        orlix::_SL_SendMsg(r->done, 0, 1, 0, -1);
    }, &run, 64, stack + STACK);
    orlix::Message m{};
    orlix::_SL_RecvMsgPtr(done, &m, -1);
    std::this_thread::sleep_for(std::chrono::milliseconds(10)); // the thread leaves its stack
    orlix::DeleteMsgPort(done);
    orlix::DeleteMemo(memo, 0x20000);
}

void BM_HostSend4096(benchmark::State& state)
{
    Pair pair;
    std::thread reader = drain(pair.other);
    std::vector<std::uint8_t> bytes(UNIT, 1);
    std::size_t total = 0;
    auto start = Clock::now();
    for (auto _ : state) {
        if (::send(pair.accepted, bytes.data(), UNIT, MSG_NOSIGNAL) != static_cast<ssize_t>(UNIT))
            state.SkipWithError("send failed");
        total += UNIT;
    }
    set_mbps(state, total, start);
    ::shutdown(pair.accepted, SHUT_WR);
    reader.join();
}
BENCHMARK(BM_HostSend4096)->UseRealTime();

void BM_DeviceSend4096(benchmark::State& state)
{
    DeviceConnection c;
    std::thread reader = drain(c.peer);
    std::size_t total = 0;
    auto start = Clock::now();
    for (auto _ : state) {
        if (!c.send_unit())
            state.SkipWithError("send failed");
        total += UNIT;
    }
    set_mbps(state, total, start);
    ::shutdown(c.peer, SHUT_RD);
    c.tcp.close_socket(c.socket);
    c.socket = -1;
    reader.join();
}
BENCHMARK(BM_DeviceSend4096)->UseRealTime();

void BM_DeviceSend4096OnSystemStack(benchmark::State& state)
{
    on_system_stack([&state] { BM_DeviceSend4096(state); });
}
BENCHMARK(BM_DeviceSend4096OnSystemStack)->UseRealTime();

void BM_DeviceSendStream1GiB(benchmark::State& state)
{
    auto start = Clock::now();
    for (auto _ : state) {
        DeviceConnection c;
        std::thread reader = drain(c.peer);
        for (std::size_t sent = 0; sent < STREAM; sent += UNIT)
            if (!c.send_unit()) {
                state.SkipWithError("send failed");
                break;
            }
        c.tcp.close_socket(c.socket); // the reader sees the end once the buffer is out
        c.socket = -1;
        reader.join();
    }
    set_mbps(state, STREAM * state.iterations(), start);
}
BENCHMARK(BM_DeviceSendStream1GiB)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_DeviceSendStream1GiBOnSystemStack(benchmark::State& state)
{
    on_system_stack([&state] { BM_DeviceSendStream1GiB(state); });
}
BENCHMARK(BM_DeviceSendStream1GiBOnSystemStack)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_DeviceReceiveStream1GiB(benchmark::State& state)
{
    auto start = Clock::now();
    for (auto _ : state) {
        DeviceConnection c;
        std::thread writer([fd = c.peer] {
            std::vector<std::uint8_t> bytes(128 << 10, 2);
            for (std::size_t sent = 0; sent < STREAM; sent += bytes.size())
                if (!devtest::host_write_all(fd, bytes.data(), bytes.size()))
                    break;
            ::shutdown(fd, SHUT_WR);
        });
        std::size_t got = 0;
        while (std::size_t n = c.receive_unit())
            got += n;
        writer.join();
        if (got != STREAM)
            state.SkipWithError("stream incomplete");
    }
    set_mbps(state, STREAM * state.iterations(), start);
}
BENCHMARK(BM_DeviceReceiveStream1GiB)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
