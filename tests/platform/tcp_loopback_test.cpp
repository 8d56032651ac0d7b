// The client against the host's real tcpip device on loopback, end to end: a listener whose
// accept is begun by BeginIO, worker-style blocks, a receive ended by the block's time-out, aborts
// of pending receives, and a send in pieces read by a host socket. Nothing may be left behind.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "host/kernel/host_kernel.h"
#include "platform/device_client.h"
#include "platform/kernel_wrappers.h"
#include "runtime/tcp_client.h"
#include "tests/devices/tcp_test_util.h"

using namespace orlix;
using devtest::DATA;
using Block = devtest::TcpClient; // only its layout helpers: the runs go through the client

namespace {

// Writes a send or receive of n bytes at DATA into a worker's block.
IOreq* transfer(Block& b, std::uint32_t command, int socket, std::uint64_t n, std::uint32_t flags)
{
    b.req->params = b.transfer(socket, n, flags);
    b.req->command = command;
    return b.req;
}

} // namespace

TEST(TcpLoopback, AcceptByBeginIOWorkerBlocksTimeOutAbortAndSendInPieces)
{
    host::devices::boot();
    _SL_GetState(STATE_TASK);
    const std::size_t sockets_before = host::devices::tcpip_socket_count();
    const std::uint64_t objects_before = host::kernel::live_object_count();
    Device* dev = OpenDevice("tcpip");
    ASSERT_NE(dev, nullptr);

    // A listener on 127.0.0.1 at a port the device chooses, set up the way the daemon does it.
    int ls = td_sockcreat(dev, 2, 1, 6);
    std::uint32_t one = 1, length = 16;
    orlix::sockaddr_in address{AF_INET_VALUE, 0, htonl(INADDR_LOOPBACK), {}};
    ASSERT_GE(ls, 0);
    ASSERT_EQ(td_socksetopt(dev, ls, 6, 1, &one, 4), 1);
    ASSERT_EQ(td_sockbind(dev, ls, &address, sizeof address), 1);
    ASSERT_EQ(td_socklisten(dev, ls, 32), 1);
    ASSERT_EQ(td_sockgetname(dev, ls, &address, &length), 1);
    ASSERT_NE(address.sin_port, 0);

    // The listener's block on a shared port: accept parameters at 120, the peer's address at 144.
    Handle main_port = CreateSharedMsgPort(0, 0, 0, 0x4000c);
    Block acc;
    ASSERT_NE(acc.req = CreateIOreq(dev, 0, 3, 0xa0, main_port), nullptr);
    auto begin_accept = [&] {
        *acc.params<TcpAcceptParams>() = {ls, -1, 16, 0, acc.at(144)};
        acc.req->params = acc.params<TcpAcceptParams>();
        acc.req->command = TCP_ACCEPT;
        return BeginIO(acc.req);
    };
    auto accepted = [&] {
        Message m{};
        bool done = _SL_RecvMsgPtr(main_port, &m, 5000) == 0 && m.type == MSG_IO_DONE;
        return done ? acc.params<TcpAcceptParams>()->new_socket : -1;
    };
    ASSERT_EQ(begin_accept(), 0);

    // Worker-style blocks, each with its reply port reached through a further handle.
    Block client, server;
    Handle ports[2] = {_SL_CreateMsgPort(0, 0), _SL_CreateMsgPort(0, 0)};
    client.req = CreateIOreq(dev, 0, 3, 0x10d0, _SL_CreateHandle(0, ports[0], 0x40004));
    server.req = CreateIOreq(dev, 0, 3, 0x10d0, _SL_CreateHandle(0, ports[1], 0x40004));
    ASSERT_TRUE(client.req != nullptr && server.req != nullptr);
    int cs = td_sockcreat(dev, 2, 1, 6);
    ASSERT_GE(cs, 0);
    *client.params<TcpConnectParams>() = {cs, 16, client.at(devtest::ADDRESS)};
    std::memcpy(client.at(devtest::ADDRESS), &address, sizeof address);
    client.req->params = client.params<TcpConnectParams>();
    client.req->command = TCP_CONNECT;
    ASSERT_EQ(SyncIO(client.req), 0);
    int as = accepted();
    ASSERT_GE(as, 0);
    EXPECT_EQ(reinterpret_cast<orlix::sockaddr_in*>(acc.at(144))->sin_addr, htonl(INADDR_LOOPBACK));

    // A receive with nothing to read ends by the block's time-out.
    server.req->timeout = 60;
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(SyncIO(transfer(server, TCP_RECEIVE, as, 1, MSG_WAITALL_VALUE)), 1);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(60));
    EXPECT_EQ(td_trans_ec(server.req->error), 73);
    server.req->timeout = IOREQ_NO_TIMEOUT;

    // A pending receive aborted by AbortIO, and one by a bounded run.
    ASSERT_EQ(BeginIO(transfer(server, TCP_RECEIVE, as, 1, MSG_WAITALL_VALUE)), 0);
    EXPECT_EQ(AbortIO(server.req), 0);
    int r;
    do
        r = WaitIO(server.req, 2000);
    while (r == -20); // the acknowledgement of the abort
    EXPECT_EQ(r, -35);
    EXPECT_EQ(SyncIOEx(server.req, 40, 1, 1), -73);

    // The block is still good: a line sent now arrives whole.
    const std::string text = "220 ready\r\n";
    std::memcpy(client.at(DATA), text.data(), text.size());
    ASSERT_EQ(SyncIO(transfer(client, TCP_SEND, cs, text.size(), 0)), 0);
    EXPECT_EQ(client.result(), text.size());
    std::string got;
    while (got.size() < text.size() && SyncIO(transfer(server, TCP_RECEIVE, as, 4096, 0)) == 0 && server.result() > 0)
        got += server.received();
    EXPECT_EQ(got, text);

    // Two and a half pieces of the shared area through td_send, read whole by a host socket.
    ASSERT_EQ(begin_accept(), 0);
    int host_socket = devtest::host_connect(ntohs(address.sin_port));
    int hs = accepted();
    ASSERT_GE(hs, 0);
    std::vector<std::uint8_t> data((host::devices::TCPIP_SHARED_AREA - 56) * 5 / 2), back(data.size());
    for (std::size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<std::uint8_t>(i % 251); // a period that no piece size matches
    EXPECT_EQ(td_send(dev, hs, data.data(), data.size(), 0), static_cast<std::int64_t>(data.size()));
    EXPECT_TRUE(devtest::host_read_all(host_socket, back.data(), back.size()));
    EXPECT_EQ(back, data);
    ::close(host_socket);

    for (int s : {hs, cs, as, ls})
        EXPECT_EQ(td_sockclose(dev, s), 1);
    for (IOreq* req : {acc.req, client.req, server.req}) // the accept is not restarted; its block goes
        EXPECT_EQ(DeleteIOreq(req), 0);
    for (Handle port : {main_port, ports[0], ports[1]})
        DeleteMsgPort(port);

    // Nothing is left behind once the device is closed.
    EXPECT_EQ(CloseDevice(dev), 0);
    for (int i = 0; i < 200 && (host::devices::tcpip_socket_count() != sockets_before ||
                                host::kernel::live_object_count() != objects_before);
         ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(host::devices::tcpip_socket_count(), sockets_before);
    EXPECT_EQ(host::kernel::live_object_count(), objects_before);
}
