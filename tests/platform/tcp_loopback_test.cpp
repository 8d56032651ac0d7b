// The client against the host's real tcpip device on loopback: the listener's accept begun by
// BeginIO, worker-style blocks, time-outs and aborts of receives, pieces read by a host socket,
// and a real failure translated. Nothing may be left behind.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "host/devices/devices.h"
#include "host/kernel/host_kernel.h"
#include "platform/device_client.h"
#include "platform/kernel_wrappers.h"
#include "platform/tcp_client.h"
#include "platform/tcp_wire.h"

namespace orlix {
int* __get_errno_ptr();
}

namespace {

using namespace orlix;

constexpr std::size_t SEND_BLOCK = 120; // offsets inside a worker-style block
constexpr std::size_t DATA = 176;
constexpr std::size_t ADDRESS = 208;

template <typename T> T* at(IOreq* req, std::size_t offset)
{
    return reinterpret_cast<T*>(reinterpret_cast<std::uint8_t*>(req) + offset);
}

orlix::sockaddr_in loopback(std::uint16_t port_host_order)
{
    orlix::sockaddr_in a{};
    a.sin_family = AF_INET_VALUE;
    a.sin_port = htons(port_host_order);
    a.sin_addr = htonl(INADDR_LOOPBACK);
    return a;
}

// A worker's block with its own reply port, released at the end.
struct WorkerBlock {
    explicit WorkerBlock(Device* d)
    {
        port = _SL_CreateMsgPort(0, 0);
        handle = _SL_CreateHandle(0, port, 0x40004);
        req = CreateIOreq(d, 0, 3, 0x10d0, handle);
    }
    ~WorkerBlock()
    {
        if (req != nullptr) {
            EXPECT_EQ(DeleteIOreq(req), 0);
        }
        DeleteMsgPort(port);
    }
    void transfer(std::uint32_t command, int socket, std::uint64_t length, std::uint32_t flags)
    {
        auto* p = at<TcpTransferParams>(req, SEND_BLOCK);
        std::memset(p, 0, sizeof *p);
        p->socket = socket;
        p->data = at<std::uint8_t>(req, DATA);
        p->length = length;
        p->flags = flags;
        req->params = p;
        req->command = command;
    }
    void accept(int listening)
    {
        auto* p = at<TcpAcceptParams>(req, SEND_BLOCK);
        p->socket = listening;
        p->length = 16;
        p->address = at<std::uint8_t>(req, ADDRESS);
        req->params = p;
        req->command = TCP_ACCEPT;
    }
    std::uint64_t result() { return at<TcpTransferParams>(req, SEND_BLOCK)->result; }
    Handle port, handle;
    IOreq* req;
};

class TcpLoopback : public testing::Test {
protected:
    void SetUp() override
    {
        host::devices::boot();
        sockets_before = host::devices::tcpip_socket_count();
        _SL_GetState(STATE_TASK);
        objects_before = host::kernel::live_object_count();
        dev = OpenDevice("tcpip");
        ASSERT_NE(dev, nullptr);
    }
    void TearDown() override
    {
        EXPECT_EQ(CloseDevice(dev), 0);
        for (int i = 0; i < 200 && (host::devices::tcpip_socket_count() != sockets_before ||
                                    host::kernel::live_object_count() != objects_before);
             ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        EXPECT_EQ(host::devices::tcpip_socket_count(), sockets_before);
        EXPECT_EQ(host::kernel::live_object_count(), objects_before);
    }

    // A listening socket on 127.0.0.1 with a port the device chose; its port in host order.
    int listener(std::uint16_t* port)
    {
        int s = td_sockcreat(dev, 2, 1, 6);
        std::uint32_t one = 1;
        orlix::sockaddr_in a = loopback(0);
        std::uint32_t length = sizeof a;
        if (s < 0 || td_socksetopt(dev, s, 6, 1, &one, 4) != 1 || td_sockbind(dev, s, &a, sizeof a) != 1 ||
            td_socklisten(dev, s, 32) != 1 || td_sockgetname(dev, s, &a, &length) != 1 || length != 16)
            return -1;
        *port = ntohs(a.sin_port);
        return s;
    }

    Device* dev = nullptr;
    std::size_t sockets_before = 0;
    std::uint64_t objects_before = 0;
};

} // namespace

TEST_F(TcpLoopback, AcceptByBeginIOThenSendReceiveTimeOutAndAbortOnWorkerBlocks)
{
    std::uint16_t port = 0;
    int ls = listener(&port);
    ASSERT_GE(ls, 0);

    // The listener's block: accept parameters at 120, the peer's address at 144.
    Handle main_port = CreateSharedMsgPort(0, 0, 0, 0x4000c);
    IOreq* acc = CreateIOreq(dev, 0, 3, 0xa0, main_port);
    ASSERT_NE(acc, nullptr);
    auto* ap = at<TcpAcceptParams>(acc, 120);
    ap->socket = ls;
    ap->length = 16;
    ap->address = at<std::uint8_t>(acc, 144);
    acc->params = ap;
    acc->command = TCP_ACCEPT;
    ASSERT_EQ(BeginIO(acc), 0);

    WorkerBlock client(dev), server(dev);
    ASSERT_NE(client.req, nullptr);
    ASSERT_NE(server.req, nullptr);
    int cs = td_sockcreat(dev, 2, 1, 6);
    ASSERT_GE(cs, 0);
    auto* cp = at<TcpConnectParams>(client.req, SEND_BLOCK);
    cp->socket = cs;
    cp->length = 16;
    cp->address = at<std::uint8_t>(client.req, ADDRESS);
    *at<orlix::sockaddr_in>(client.req, ADDRESS) = loopback(port);
    client.req->params = cp;
    client.req->command = TCP_CONNECT;
    ASSERT_EQ(SyncIO(client.req), 0);

    Message m{};
    ASSERT_EQ(_SL_RecvMsgPtr(main_port, &m, 5000), 0u);
    ASSERT_EQ(m.type, MSG_IO_DONE);
    int as = *at<std::int32_t>(acc, 124);
    ASSERT_GE(as, 0);
    EXPECT_EQ(at<orlix::sockaddr_in>(acc, 144)->sin_addr, htonl(INADDR_LOOPBACK));

    const char text[] = "220 ready\r\n";
    std::memcpy(at<char>(client.req, DATA), text, sizeof text - 1);
    client.transfer(TCP_SEND, cs, sizeof text - 1, 0);
    ASSERT_EQ(SyncIO(client.req), 0);
    EXPECT_EQ(client.result(), sizeof text - 1);
    std::string got;
    while (got.size() < sizeof text - 1) {
        server.transfer(TCP_RECEIVE, as, 4096, 0);
        ASSERT_EQ(SyncIO(server.req), 0);
        ASSERT_GT(server.result(), 0u);
        got.append(at<char>(server.req, DATA), server.result());
    }
    EXPECT_EQ(got, text);

    // A receive with nothing to read ends by the block's time-out.
    server.req->timeout = 60;
    server.transfer(TCP_RECEIVE, as, 1, MSG_WAITALL_VALUE);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(SyncIO(server.req), 1);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(60));
    EXPECT_EQ(td_trans_ec(server.req->error), 73);
    server.req->timeout = IOREQ_NO_TIMEOUT;

    // A pending receive aborted by AbortIO, and one by a bounded run.
    server.transfer(TCP_RECEIVE, as, 1, MSG_WAITALL_VALUE);
    ASSERT_EQ(BeginIO(server.req), 0);
    EXPECT_EQ(AbortIO(server.req), 0);
    int r;
    do
        r = WaitIO(server.req, 2000);
    while (r == -20); // the acknowledgement of the abort
    EXPECT_EQ(r, -35);
    EXPECT_EQ(SyncIOEx(server.req, 40, 1, 1), -73);

    // The block is still good: a byte sent now is received.
    *at<char>(client.req, DATA) = 'x';
    client.transfer(TCP_SEND, cs, 1, 0);
    ASSERT_EQ(SyncIO(client.req), 0);
    server.transfer(TCP_RECEIVE, as, 1, MSG_WAITALL_VALUE);
    ASSERT_EQ(SyncIOEx(server.req, 2000, 1, 1), 0);
    EXPECT_EQ(*at<char>(server.req, DATA), 'x');

    // A second bind to the listener's address fails as "Address already in use".
    int other = td_sockcreat(dev, 2, 1, 6);
    orlix::sockaddr_in taken = loopback(port);
    EXPECT_EQ(td_sockbind(dev, other, &taken, sizeof taken), 0);
    EXPECT_EQ(*__get_errno_ptr(), 81);

    for (int s : {other, cs, as, ls})
        EXPECT_EQ(td_sockclose(dev, s), 1);
    // The accept is not restarted; its block goes with the listener's port.
    EXPECT_EQ(DeleteIOreq(acc), 0);
    DeleteMsgPort(main_port);
}

TEST_F(TcpLoopback, SendInPiecesIsReadWholeByAHostSocket)
{
    std::uint16_t port = 0;
    int ls = listener(&port);
    ASSERT_GE(ls, 0);

    int host_socket = ::socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(host_socket, 0);
    ::sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::connect(host_socket, reinterpret_cast<::sockaddr*>(&to), sizeof to), 0);

    WorkerBlock server(dev);
    ASSERT_NE(server.req, nullptr);
    server.accept(ls);
    ASSERT_EQ(SyncIO(server.req), 0);
    int as = at<TcpAcceptParams>(server.req, SEND_BLOCK)->new_socket;
    ASSERT_GE(as, 0);

    // Two and a half pieces of the shared area; random bytes, seeded.
    const std::size_t piece = host::devices::TCPIP_SHARED_AREA - 56;
    const unsigned seed = static_cast<unsigned>(std::random_device{}());
    std::printf("seed %u\n", seed);
    std::mt19937 random(seed);
    std::vector<std::uint8_t> data(piece * 5 / 2);
    for (auto& byte : data)
        byte = static_cast<std::uint8_t>(random());
    EXPECT_EQ(td_send(dev, as, data.data(), data.size(), 0), static_cast<std::int64_t>(data.size()));

    std::vector<std::uint8_t> back;
    std::uint8_t buffer[8192];
    while (back.size() < data.size()) {
        ssize_t n = ::recv(host_socket, buffer, sizeof buffer, 0);
        ASSERT_GT(n, 0);
        back.insert(back.end(), buffer, buffer + n);
    }
    EXPECT_EQ(back, data);

    std::uint32_t length = 16;
    orlix::sockaddr_in peer{};
    EXPECT_EQ(td_sockgetpeer(dev, as, &peer, &length), 1);
    EXPECT_EQ(peer.sin_family, AF_INET_VALUE);
    EXPECT_EQ(peer.sin_addr, htonl(INADDR_LOOPBACK));

    // Bad input: a socket the device never handed out.
    EXPECT_EQ(td_send(dev, 99999, data.data(), 1, 0), -1);
    EXPECT_EQ(*__get_errno_ptr(), 18);
    EXPECT_EQ(td_sockclose(dev, 99999), 0);
    EXPECT_EQ(*__get_errno_ptr(), 18);

    EXPECT_EQ(td_sockclose(dev, as), 1);
    EXPECT_EQ(::recv(host_socket, buffer, sizeof buffer, 0), 0); // the close reached the peer
    ::close(host_socket);
    EXPECT_EQ(td_sockclose(dev, ls), 1);
}
