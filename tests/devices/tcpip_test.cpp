// The tcpip device over loopback: listener and parked accept, connect, send and receive, the
// block's time-out with and without bytes, abort of a waiting receive, end of stream, a peer's
// reset, the flush before a close, bad input, and that nothing leaks.
#include <gtest/gtest.h>

#include <netinet/tcp.h>

#include <chrono>
#include <random>
#include <thread>
#include <vector>

#include "host/kernel/host_kernel.h"
#include "tests/devices/tcp_test_util.h"

namespace {

using devtest::host_connect;
using devtest::host_listener;
using devtest::host_read_all;
using devtest::host_write_all;

constexpr std::uint32_t TIME_EXPIRED = 0xbe000049;
constexpr std::uint32_t RESET = 0xbe000037;
constexpr std::uint32_t BROKEN_PIPE = 0xbe000005;
constexpr std::uint32_t BAD_ADDRESS = 0xbe000038;

class Tcpip : public ::testing::Test {
protected:
    void SetUp() override
    {
        host::devices::boot();
        devtest::warm_up();
        start_objects = host::kernel::live_object_count();
        start_sockets = host::devices::tcpip_socket_count();
        ASSERT_TRUE(tcp.open());
    }
    void TearDown() override
    {
        tcp.close(); // closes the sockets this open still has
        for (int i = 0; i < 200 && host::devices::tcpip_socket_count() != start_sockets; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        EXPECT_EQ(host::devices::tcpip_socket_count(), start_sockets);
        EXPECT_EQ(host::kernel::live_object_count(), start_objects);
    }
    // A connected pair: the device's socket and the host's.
    std::pair<std::int32_t, int> connected_pair()
    {
        std::uint16_t port;
        int listener = host_listener(port);
        std::int32_t s = tcp.create();
        EXPECT_EQ(tcp.connect(s, port), orlix::MSG_IO_DONE);
        int peer = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        ::close(listener);
        return {s, peer};
    }
    void expect_quiet(int ms = 60) { EXPECT_EQ(devtest::receive(tcp.reply, ms).type, 0u); }

    devtest::TcpClient tcp;
    std::uint64_t start_objects = 0;
    std::size_t start_sockets = 0;
};

TEST_F(Tcpip, AcceptWaitsForAConnectionAndReportsThePeer)
{
    std::int32_t listener = tcp.create();
    ASSERT_GT(listener, 0);
    auto* opt = tcp.params<orlix::TcpSetOptParams>();
    *opt = {listener, 6, 1, 0, tcp.at(devtest::ADDRESS), 4, 0};
    std::uint32_t one = 1;
    std::memcpy(tcp.at(devtest::ADDRESS), &one, 4);
    EXPECT_EQ(tcp.run(orlix::TCP_SETOPT), orlix::MSG_IO_DONE);
    ASSERT_EQ(tcp.bind(listener, 0), orlix::MSG_IO_DONE);
    ASSERT_EQ(tcp.listen(listener), orlix::MSG_IO_DONE);
    orlix::sockaddr_in local{};
    ASSERT_EQ(tcp.address_command(orlix::TCP_GETNAME, listener, local), orlix::MSG_IO_DONE);
    EXPECT_EQ(local.sin_family, 2);
    EXPECT_EQ(local.sin_addr, htonl(INADDR_LOOPBACK));
    std::uint16_t port = ntohs(local.sin_port);
    ASSERT_NE(port, 0);

    tcp.begin_accept(listener);
    expect_quiet();
    int client = host_connect(port);
    ASSERT_GE(client, 0);
    ASSERT_EQ(devtest::receive(tcp.reply).type, orlix::MSG_IO_DONE);
    auto* p = tcp.params<orlix::TcpAcceptParams>();
    std::int32_t accepted = p->new_socket;
    EXPECT_GT(accepted, 0);
    EXPECT_NE(accepted, listener);
    sockaddr_in mine{};
    socklen_t l = sizeof mine;
    ::getsockname(client, reinterpret_cast<sockaddr*>(&mine), &l);
    orlix::sockaddr_in peer{};
    std::memcpy(&peer, tcp.at(devtest::ADDRESS), sizeof peer);
    EXPECT_EQ(peer.sin_family, 2);
    EXPECT_EQ(peer.sin_port, mine.sin_port);
    orlix::sockaddr_in asked{};
    ASSERT_EQ(tcp.address_command(orlix::TCP_GETPEER, accepted, asked), orlix::MSG_IO_DONE);
    EXPECT_EQ(asked.sin_port, mine.sin_port);
    EXPECT_EQ(tcp.params<orlix::TcpAddressParams>()->length, 16u);

    // A second connection already queued: the accept finishes at once.
    int client2 = host_connect(port);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    tcp.begin_accept(listener);
    ASSERT_EQ(devtest::receive(tcp.reply).type, orlix::MSG_IO_DONE);
    std::int32_t accepted2 = tcp.params<orlix::TcpAcceptParams>()->new_socket;
    EXPECT_NE(accepted2, accepted);

    // A restarted listener binds the same port again.
    for (std::int32_t s : {accepted, accepted2, listener})
        EXPECT_EQ(tcp.close_socket(s), orlix::MSG_IO_DONE);
    std::int32_t again = tcp.create();
    EXPECT_EQ(tcp.bind(again, port), orlix::MSG_IO_DONE);
    ::close(client);
    ::close(client2);
}

TEST_F(Tcpip, StreamsArriveWholeInBothDirections)
{
    auto [s, peer] = connected_pair();
    ASSERT_GE(peer, 0);
    unsigned seed = static_cast<unsigned>(std::random_device{}());
    std::printf("seed %u\n", seed);
    std::mt19937 rng(seed);
    std::vector<std::uint8_t> out(3 << 20), in(out.size());
    for (auto& b : out)
        b = static_cast<std::uint8_t>(rng());

    // Device to host, in pieces of random size up to 4096, the host reading meanwhile.
    std::thread reader([&] { EXPECT_TRUE(host_read_all(peer, in.data(), in.size())); });
    for (std::size_t at = 0; at < out.size();) {
        std::size_t n = std::min<std::size_t>(1 + rng() % 4096, out.size() - at);
        ASSERT_EQ(tcp.send(s, out.data() + at, n), orlix::MSG_IO_DONE);
        ASSERT_EQ(tcp.result(), n);
        at += n;
    }
    reader.join();
    EXPECT_TRUE(in == out);

    // Host to device: receives take what has come, at most their length, never nothing.
    std::thread writer([&] { EXPECT_TRUE(host_write_all(peer, out.data(), out.size())); });
    std::fill(in.begin(), in.end(), 0);
    for (std::size_t at = 0; at < in.size();) {
        std::size_t want = 1 + rng() % 4096;
        ASSERT_EQ(tcp.receive(s, want), orlix::MSG_IO_DONE);
        std::size_t got = tcp.result();
        ASSERT_GE(got, 1u);
        ASSERT_LE(got, want);
        std::memcpy(in.data() + at, tcp.at(devtest::DATA), got);
        at += got;
    }
    writer.join();
    EXPECT_TRUE(in == out);

    // One-byte reads with "wait for all", the data pointer on the block's own socket field, as
    // the control connection reads.
    ASSERT_TRUE(host_write_all(peer, "USER x\r\n", 8));
    std::string line;
    for (int i = 0; i < 8; ++i) {
        auto* p = tcp.transfer(s, 1, orlix::MSG_WAITALL_VALUE);
        p->data = tcp.at(devtest::PARAMS);
        ASSERT_EQ(tcp.run(orlix::TCP_RECEIVE), orlix::MSG_IO_DONE);
        ASSERT_EQ(tcp.result(), 1u);
        line.push_back(static_cast<char>(*tcp.at(devtest::PARAMS)));
    }
    EXPECT_EQ(line, "USER x\r\n");
    ::close(peer);
}

TEST_F(Tcpip, TimeOutEndsAReceiveWithStatusSixWhenBytesCame)
{
    auto [s, peer] = connected_pair();
    tcp.req->timeout = 80;
    EXPECT_EQ(tcp.receive(s, 100), orlix::MSG_IO_FAILED);
    EXPECT_EQ(tcp.error(), TIME_EXPIRED);
    EXPECT_EQ(tcp.result(), 0u);

    // Waiting for all ten bytes; three come, then the time runs out: status 6 and the three.
    ASSERT_TRUE(host_write_all(peer, "abc", 3));
    EXPECT_EQ(tcp.receive(s, 10, orlix::MSG_WAITALL_VALUE), orlix::MSG_IO_FAILED);
    EXPECT_EQ(tcp.error(), 6u);
    EXPECT_EQ(tcp.received(), "abc");

    // The same wait, completed in time by a late writer.
    std::thread late([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        host_write_all(peer, "0123456789", 10);
    });
    tcp.req->timeout = 2000;
    EXPECT_EQ(tcp.receive(s, 10, orlix::MSG_WAITALL_VALUE), orlix::MSG_IO_DONE);
    EXPECT_EQ(tcp.received(), "0123456789");
    late.join();
    expect_quiet(120);
    ::close(peer);
}

TEST_F(Tcpip, AbortOfAWaitingReceiveLosesNoBytes)
{
    auto [s, peer] = connected_pair();
    tcp.transfer(s, 100, 0);
    tcp.req->command = orlix::TCP_RECEIVE;
    devtest::begin(tcp.req);
    expect_quiet();
    devtest::abort(tcp.req);
    EXPECT_EQ(devtest::receive(tcp.reply).type, orlix::MSG_IO_ABORT_ACK);
    EXPECT_EQ(devtest::receive(tcp.reply).type, orlix::MSG_IO_ABORTED);
    ASSERT_TRUE(host_write_all(peer, "xyz", 3));
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    expect_quiet(10);
    EXPECT_EQ(tcp.receive(s, 100), orlix::MSG_IO_DONE);
    EXPECT_EQ(tcp.received(), "xyz");
    ::close(peer);
}

TEST_F(Tcpip, EndOfStreamAndPeerResetReachTheCaller)
{
    auto [s, peer] = connected_pair();
    // The receive waits, then the peer ends its side: the result is 0, and stays 0.
    tcp.transfer(s, 100, 0);
    tcp.req->command = orlix::TCP_RECEIVE;
    devtest::begin(tcp.req);
    expect_quiet(30);
    ::shutdown(peer, SHUT_WR);
    ASSERT_EQ(devtest::receive(tcp.reply).type, orlix::MSG_IO_DONE);
    EXPECT_EQ(tcp.result(), 0u);
    EXPECT_EQ(tcp.receive(s, 100), orlix::MSG_IO_DONE);
    EXPECT_EQ(tcp.result(), 0u);
    ::close(peer);

    // A peer that resets: sends are taken into the buffer until the flushing meets the reset,
    // which the next send reports; after that the socket is broken.
    auto [s2, peer2] = connected_pair();
    linger lg{1, 0};
    ::setsockopt(peer2, SOL_SOCKET, SO_LINGER, &lg, sizeof lg);
    ::close(peer2);
    std::vector<std::uint8_t> bytes(4096, 7);
    std::uint32_t status = 0;
    for (int i = 0; i < 200 && status == 0; ++i) {
        if (tcp.send(s2, bytes.data(), bytes.size()) != orlix::MSG_IO_DONE)
            status = tcp.error();
        else
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_EQ(status, RESET);
    EXPECT_EQ(tcp.send(s2, bytes.data(), bytes.size()), orlix::MSG_IO_FAILED);
    EXPECT_EQ(tcp.error(), BROKEN_PIPE);
}

TEST_F(Tcpip, CloseWritesBufferedBytesFirst)
{
    auto [s, peer] = connected_pair();
    // Linger as the daemon sets it on data sockets; the device's close never blocks.
    auto* opt = tcp.params<orlix::TcpSetOptParams>();
    *opt = {s, 1, 13, 0, tcp.at(devtest::ADDRESS), 8, 0};
    std::uint32_t words[2] = {1, 10};
    std::memcpy(tcp.at(devtest::ADDRESS), words, 8);
    EXPECT_EQ(tcp.run(orlix::TCP_SETOPT), orlix::MSG_IO_DONE);

    std::vector<std::uint8_t> out(2 << 20), in(out.size() + 1);
    for (std::size_t i = 0; i < out.size(); ++i)
        out[i] = static_cast<std::uint8_t>(i * 31 + 7);
    std::thread reader([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100)); // let the buffer fill
        ASSERT_TRUE(host_read_all(peer, in.data(), out.size()));
        EXPECT_EQ(::read(peer, in.data() + out.size(), 1), 0); // then the end of the stream
    });
    for (std::size_t at = 0; at < out.size(); at += 4096)
        ASSERT_EQ(tcp.send(s, out.data() + at, 4096), orlix::MSG_IO_DONE);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(tcp.close_socket(s), orlix::MSG_IO_DONE);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(50));
    reader.join();
    in.resize(out.size());
    EXPECT_TRUE(in == out);
    ::close(peer);
    // The closed socket is gone for every command.
    EXPECT_EQ(tcp.send(s, "x"), orlix::MSG_IO_FAILED);
    EXPECT_EQ(tcp.error(), orlix::TCP_STATUS_NOT_SOCKET);
}

TEST_F(Tcpip, SendToAFullBufferWaitsAndCountsWhatWasTakenOnTimeOut)
{
    auto [s, peer] = connected_pair();
    tcp.req->timeout = 100;
    std::vector<std::uint8_t> bytes(4096, 9);
    std::uint64_t taken = 0;
    std::uint32_t status = 0;
    for (int i = 0; i < 50000 && status == 0; ++i) {
        if (tcp.send(s, bytes.data(), bytes.size()) != orlix::MSG_IO_DONE)
            status = tcp.error();
        taken += tcp.result();
    }
    // A send that got part in before its time ran out says so with status 6 and its count.
    EXPECT_TRUE(status == 6 || status == TIME_EXPIRED) << status;
    EXPECT_EQ(status == 6, tcp.result() > 0);
    // Everything taken reaches the peer, and nothing more.
    std::vector<std::uint8_t> sink(1 << 20);
    std::uint64_t read_total = 0;
    while (read_total < taken) {
        ssize_t n = ::read(peer, sink.data(), sink.size());
        ASSERT_GT(n, 0);
        read_total += static_cast<std::uint64_t>(n);
    }
    EXPECT_EQ(read_total, taken);
    timeval tv{0, 100000};
    ::setsockopt(peer, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    EXPECT_LT(::read(peer, sink.data(), sink.size()), 0);
    ::close(peer);
}

TEST_F(Tcpip, BadInputIsRefusedWithTheRightStatus)
{
    EXPECT_EQ(tcp.create(10, 1, 6), -1);
    EXPECT_EQ(tcp.error(), orlix::TCP_STATUS_NO_FAMILY);
    EXPECT_EQ(tcp.create(2, 2, 6), -1);
    EXPECT_EQ(tcp.error(), 0xbe000048u);
    EXPECT_EQ(tcp.create(2, 1, 17), -1);
    EXPECT_EQ(tcp.error(), orlix::TCP_STATUS_NO_PROTOCOL);
    EXPECT_EQ(tcp.close_socket(12345678), orlix::MSG_IO_FAILED);
    EXPECT_EQ(tcp.error(), orlix::TCP_STATUS_NOT_SOCKET);
    EXPECT_EQ(tcp.run(0xc00500ff), orlix::MSG_IO_FAILED);
    EXPECT_EQ(tcp.error(), 2u);

    std::int32_t s = tcp.create();
    ASSERT_GT(s, 0);
    EXPECT_EQ(tcp.bind(s, 0, 8), orlix::MSG_IO_FAILED);
    EXPECT_EQ(tcp.error(), orlix::TCP_STATUS_INVALID);
    // A port a host listener holds.
    std::uint16_t taken;
    int host = host_listener(taken);
    EXPECT_EQ(tcp.bind(s, taken), orlix::MSG_IO_FAILED);
    EXPECT_EQ(tcp.error(), orlix::TCP_STATUS_ADDRESS_IN_USE);
    ::close(host);
    // Nobody listens there any more.
    EXPECT_EQ(tcp.connect(s, taken), orlix::MSG_IO_FAILED);
    EXPECT_EQ(tcp.error(), 0xbe00003cu);

    // Pointers outside the block, or lengths running past its end.
    auto [c, peer] = connected_pair();
    std::uint8_t outside[64];
    auto* p = tcp.transfer(c, 16, 0);
    p->data = outside;
    EXPECT_EQ(tcp.run(orlix::TCP_SEND), orlix::MSG_IO_FAILED);
    EXPECT_EQ(tcp.error(), BAD_ADDRESS);
    p = tcp.transfer(c, devtest::BLOCK_SIZE - devtest::DATA + 1, 0);
    EXPECT_EQ(tcp.run(orlix::TCP_RECEIVE), orlix::MSG_IO_FAILED);
    EXPECT_EQ(tcp.error(), BAD_ADDRESS);
    p = tcp.transfer(c, ~std::uint64_t{0}, 0);
    EXPECT_EQ(tcp.run(orlix::TCP_SEND), orlix::MSG_IO_FAILED);
    EXPECT_EQ(tcp.error(), BAD_ADDRESS);
    EXPECT_EQ(devtest::sync(tcp.req, orlix::TCP_SEND, outside), orlix::MSG_IO_FAILED);
    EXPECT_EQ(tcp.error(), BAD_ADDRESS);
    auto* ap = tcp.params<orlix::TcpAddressParams>();
    *ap = {c, 16, outside};
    EXPECT_EQ(tcp.run(orlix::TCP_GETPEER), orlix::MSG_IO_FAILED);
    EXPECT_EQ(tcp.error(), BAD_ADDRESS);
    // The connection still works after all that.
    EXPECT_EQ(tcp.send(c, "ok"), orlix::MSG_IO_DONE);
    char got[2];
    EXPECT_TRUE(host_read_all(peer, got, 2));
    ::close(peer);
}

} // namespace
