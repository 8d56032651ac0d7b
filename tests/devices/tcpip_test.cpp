// The tcpip device over loopback: listener and parked accept, connect, send and receive, the
// block's time-out with and without bytes, abort of a waiting receive, end of stream, a peer's
// reset, the flush before a close, bad input, and that nothing leaks.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "host/kernel/host_kernel.h"
#include "tests/devices/tcp_test_util.h"

namespace {

using devtest::host_read_all;
using devtest::host_write_all;
using orlix::MSG_IO_DONE;
using orlix::MSG_IO_FAILED;
using std::chrono::milliseconds;
using std::this_thread::sleep_for;

constexpr std::uint32_t TIME_EXPIRED = 0xbe000049, BAD_ADDRESS = 0xbe000038;

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
        EXPECT_TRUE(tcp.close()); // closes the sockets this open still has
        for (int i = 0; i < 200 && host::devices::tcpip_socket_count() != start_sockets; ++i)
            sleep_for(milliseconds(10));
        EXPECT_EQ(host::devices::tcpip_socket_count(), start_sockets);
        EXPECT_EQ(host::kernel::live_object_count(), start_objects);
    }
    // A connected pair: the device's socket and the host's.
    std::pair<std::int32_t, int> connected_pair()
    {
        std::uint16_t port;
        int listener = devtest::host_listener(port);
        std::int32_t s = tcp.create();
        EXPECT_EQ(tcp.connect(s, port), MSG_IO_DONE);
        int peer = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        ::close(listener);
        return {s, peer};
    }
    void begin_receive(std::int32_t s, std::size_t n)
    {
        tcp.transfer(s, n);
        tcp.req->command = orlix::TCP_RECEIVE;
        devtest::begin(tcp.req);
    }
    std::uint64_t next(int ms = 5000) { return devtest::receive(tcp.reply, ms).type; }
    void expect_quiet(int ms = 60) { EXPECT_EQ(next(ms), 0u); }

    devtest::TcpClient tcp;
    std::uint64_t start_objects = 0;
    std::size_t start_sockets = 0;
};

TEST_F(Tcpip, AcceptWaitsForAConnectionAndReportsThePeer)
{
    std::int32_t listener = tcp.create();
    ASSERT_GT(listener, 0);
    std::uint32_t one = 1;
    EXPECT_EQ(tcp.set_option(listener, 6, 1, &one, 4), MSG_IO_DONE);
    ASSERT_EQ(tcp.bind(listener, 0), MSG_IO_DONE);
    *tcp.params<orlix::TcpListenParams>() = {listener, 8};
    ASSERT_EQ(tcp.run(orlix::TCP_LISTEN), MSG_IO_DONE);
    orlix::sockaddr_in local{}, peer{};
    // A caller's buffer larger than the address: the length comes back as the address's own.
    ASSERT_EQ(tcp.address_command(orlix::TCP_GETNAME, listener, local, 32), MSG_IO_DONE);
    EXPECT_EQ(tcp.params<orlix::TcpAddressParams>()->length, 16u);
    EXPECT_EQ(std::pair(local.sin_family, local.sin_addr), std::pair(std::uint16_t{2}, htonl(INADDR_LOOPBACK)));
    std::uint16_t port = ntohs(local.sin_port);

    tcp.begin_accept(listener, 24);
    expect_quiet();
    int client = devtest::host_connect(port);
    ASSERT_EQ(next(), MSG_IO_DONE);
    EXPECT_EQ(tcp.params<orlix::TcpAcceptParams>()->length, 16u) << "the address length comes back";
    std::int32_t accepted = tcp.params<orlix::TcpAcceptParams>()->new_socket;
    EXPECT_TRUE(accepted > 0 && accepted != listener) << accepted;
    sockaddr_in mine{};
    socklen_t l = sizeof mine;
    ::getsockname(client, reinterpret_cast<sockaddr*>(&mine), &l);
    std::memcpy(&peer, tcp.at(devtest::ADDRESS), sizeof peer);
    EXPECT_EQ(std::pair(peer.sin_family, peer.sin_port), std::pair(std::uint16_t{2}, mine.sin_port));
    ASSERT_EQ(tcp.address_command(orlix::TCP_GETPEER, accepted, peer = {}), MSG_IO_DONE);
    EXPECT_EQ(std::pair(peer.sin_port, tcp.params<orlix::TcpAddressParams>()->length), std::pair(mine.sin_port, 16u));

    // A second connection already queued: the accept finishes at once.
    int client2 = devtest::host_connect(port);
    sleep_for(milliseconds(20));
    tcp.begin_accept(listener);
    ASSERT_EQ(next(), MSG_IO_DONE);
    EXPECT_NE(tcp.params<orlix::TcpAcceptParams>()->new_socket, accepted);
    // A restarted listener binds the same port again.
    for (std::int32_t s : {accepted, tcp.params<orlix::TcpAcceptParams>()->new_socket, listener})
        EXPECT_EQ(tcp.close_socket(s), MSG_IO_DONE);
    EXPECT_EQ(tcp.bind(tcp.create(), port), MSG_IO_DONE);
    ::close(client);
    ::close(client2);
}

TEST_F(Tcpip, StreamsArriveWholeInBothDirections)
{
    auto [s, peer] = connected_pair();
    unsigned seed = static_cast<unsigned>(std::random_device{}());
    std::printf("seed %u\n", seed);
    std::mt19937 rng(seed);
    std::vector<std::uint8_t> out(3 << 20), in(out.size());
    for (auto& b : out)
        b = static_cast<std::uint8_t>(rng());

    // Device to host in sends of random size up to 4096, then host to device: receives take what
    // has come, at most their length, never nothing.
    std::thread reader([&] { EXPECT_TRUE(host_read_all(peer, in.data(), in.size())); });
    for (std::size_t at = 0, n; at < out.size(); at += n) {
        n = std::min<std::size_t>(1 + rng() % 4096, out.size() - at);
        ASSERT_EQ(tcp.send(s, out.data() + at, n), MSG_IO_DONE);
        ASSERT_EQ(tcp.result(), n);
    }
    reader.join();
    EXPECT_TRUE(in == out);
    std::thread writer([&] { EXPECT_TRUE(host_write_all(peer, out.data(), out.size())); });
    std::fill(in.begin(), in.end(), 0);
    for (std::size_t at = 0, want; at < in.size(); at += tcp.result()) {
        want = 1 + rng() % 4096;
        ASSERT_EQ(tcp.receive(s, want), MSG_IO_DONE);
        ASSERT_TRUE(tcp.result() >= 1 && tcp.result() <= want) << tcp.result();
        std::memcpy(in.data() + at, tcp.at(devtest::DATA), tcp.result());
    }
    writer.join();
    EXPECT_TRUE(in == out);

    // One-byte reads with "wait for all", the data pointer on the block's own socket field, as
    // the control connection reads.
    ASSERT_TRUE(host_write_all(peer, "USER x\r\n", 8));
    std::string line;
    for (int i = 0; i < 8; ++i) {
        tcp.transfer(s, 1, orlix::MSG_WAITALL_VALUE)->data = tcp.at(devtest::PARAMS);
        ASSERT_EQ(tcp.run(orlix::TCP_RECEIVE), MSG_IO_DONE);
        ASSERT_EQ(tcp.result(), 1u);
        line.push_back(static_cast<char>(*tcp.at(devtest::PARAMS)));
    }
    EXPECT_EQ(line, "USER x\r\n");
    ::close(peer);
}

TEST_F(Tcpip, TimeOutEndsReceivesAndSendsWithStatusSixWhenBytesMoved)
{
    auto [s, peer] = connected_pair();
    tcp.req->timeout = 80;
    EXPECT_EQ(tcp.receive(s, 100), MSG_IO_FAILED);
    EXPECT_EQ(std::pair(tcp.req->error, tcp.result()), std::pair(TIME_EXPIRED, std::uint64_t{0}));
    // Waiting for all ten bytes; three come, then the time runs out: status 6 and the three.
    ASSERT_TRUE(host_write_all(peer, "abc", 3));
    EXPECT_EQ(tcp.receive(s, 10, orlix::MSG_WAITALL_VALUE), MSG_IO_FAILED);
    EXPECT_EQ(tcp.req->error, 6u);
    EXPECT_EQ(tcp.received(), "abc");

    // Sends into a buffer nobody drains: the one cut short says status 6 and its count when it
    // got part in, time expired when it got nothing in; all that was taken reaches the peer.
    std::vector<std::uint8_t> bytes(4096, 9);
    std::uint64_t taken = 0;
    tcp.req->error = 0;
    for (int i = 0; i < 50000 && tcp.send(s, bytes.data(), bytes.size()) == MSG_IO_DONE; ++i)
        taken += tcp.result();
    taken += tcp.result();
    EXPECT_TRUE(tcp.req->error == 6 || tcp.req->error == TIME_EXPIRED) << tcp.req->error;
    EXPECT_EQ(tcp.req->error == 6, tcp.result() > 0);
    std::vector<std::uint8_t> sink(taken + 1);
    EXPECT_TRUE(host_read_all(peer, sink.data(), taken));
    timeval tv{0, 100000};
    ::setsockopt(peer, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    EXPECT_LT(::read(peer, sink.data(), 1), 0) << "more than was taken";
    ::close(peer);
}

TEST_F(Tcpip, AWaitingReceiveEndsByAbortLosingNoBytesOrByEndOfStream)
{
    auto [s, peer] = connected_pair();
    begin_receive(s, 100);
    expect_quiet();
    devtest::abort(tcp.req);
    EXPECT_EQ(next(), orlix::MSG_IO_ABORT_ACK);
    EXPECT_EQ(next(), orlix::MSG_IO_ABORTED);
    ASSERT_TRUE(host_write_all(peer, "xyz", 3));
    sleep_for(milliseconds(30));
    expect_quiet(10);
    EXPECT_EQ(tcp.receive(s, 100), MSG_IO_DONE);
    EXPECT_EQ(tcp.received(), "xyz");

    // The receive waits, then the peer ends its side: the result is 0, and stays 0.
    begin_receive(s, 100);
    expect_quiet(30);
    ::shutdown(peer, SHUT_WR);
    ASSERT_EQ(next(), MSG_IO_DONE);
    EXPECT_EQ(tcp.result(), 0u);
    EXPECT_EQ(tcp.receive(s, 100), MSG_IO_DONE);
    EXPECT_EQ(tcp.result(), 0u);
    ::close(peer);
}

TEST_F(Tcpip, ShortSendsGoOutUnpromptedAndReceivesTakeAllThatHasCome)
{
    auto [s, peer] = connected_pair();
    timeval two_seconds{2, 0};
    ::setsockopt(peer, SOL_SOCKET, SO_RCVTIMEO, &two_seconds, sizeof two_seconds);
    // A line at a time, as a listing goes, on a socket that has received nothing: the bytes reach
    // the peer without a close, a receive or any further send.
    std::string lines;
    for (int i = 0; i < 500; ++i) {
        std::string line = "entry-" + std::to_string(i) + "\r\n";
        ASSERT_EQ(tcp.send(s, line.data(), line.size()), MSG_IO_DONE);
        lines += line;
    }
    std::string got(lines.size(), '\0');
    ASSERT_TRUE(host_read_all(peer, got.data(), got.size()));
    EXPECT_EQ(got, lines);
    ASSERT_TRUE(host_write_all(peer, "x", 1));
    ASSERT_EQ(tcp.receive(s, 1), MSG_IO_DONE);
    // Once it answers, a short send leaves at once too.
    ASSERT_EQ(tcp.send(s, "200 ok\r\n", 8), MSG_IO_DONE);
    ASSERT_TRUE(host_read_all(peer, got.data(), 8));
    EXPECT_EQ(got.substr(0, 8), "200 ok\r\n");

    // With everything already come, each receive is full however the bytes read ahead fall.
    std::vector<std::uint8_t> out(200000);
    for (std::size_t i = 0; i < out.size(); ++i)
        out[i] = static_cast<std::uint8_t>(i % 251);
    ASSERT_TRUE(host_write_all(peer, out.data(), out.size()));
    sleep_for(milliseconds(50));
    std::vector<std::uint8_t> in;
    while (in.size() < out.size()) {
        ASSERT_EQ(tcp.receive(s, 3000), MSG_IO_DONE);
        ASSERT_EQ(tcp.result(), std::min<std::size_t>(3000, out.size() - in.size())) << "at " << in.size();
        in.insert(in.end(), tcp.at(devtest::DATA), tcp.at(devtest::DATA) + tcp.result());
    }
    EXPECT_TRUE(in == out);
    ::close(peer);
}

TEST_F(Tcpip, PeerResetReachesTheCaller)
{
    // A peer that resets: sends are taken into the buffer until the flushing meets the reset,
    // which the next send reports; after that the socket is broken.
    auto [s, peer] = connected_pair();
    linger lg{1, 0};
    ::setsockopt(peer, SOL_SOCKET, SO_LINGER, &lg, sizeof lg);
    ::close(peer);
    std::vector<std::uint8_t> bytes(4096, 7);
    for (int i = 0; i < 200 && tcp.send(s, bytes.data(), bytes.size()) == MSG_IO_DONE; ++i)
        sleep_for(milliseconds(5));
    EXPECT_EQ(tcp.req->error, 0xbe000037u); // reset
    EXPECT_EQ(tcp.send(s, bytes.data(), bytes.size()), MSG_IO_FAILED);
    EXPECT_EQ(tcp.req->error, 0xbe000005u); // broken pipe
}

TEST_F(Tcpip, CloseWritesBufferedBytesFirst)
{
    auto [s, peer] = connected_pair();
    // Linger as the daemon sets it on data sockets; the device's close never blocks.
    std::uint32_t linger_on[2] = {1, 10};
    EXPECT_EQ(tcp.set_option(s, 1, 13, linger_on, 8), MSG_IO_DONE);
    std::vector<std::uint8_t> out(2 << 20), in(out.size() + 1);
    for (std::size_t i = 0; i < out.size(); ++i)
        out[i] = static_cast<std::uint8_t>(i * 31 + 7);
    std::thread reader([&] {
        sleep_for(milliseconds(100)); // let the buffer fill
        EXPECT_TRUE(host_read_all(peer, in.data(), out.size()));
        EXPECT_EQ(::read(peer, in.data() + out.size(), 1), 0); // then the end of the stream
    });
    for (std::size_t at = 0; at < out.size(); at += 4096)
        ASSERT_EQ(tcp.send(s, out.data() + at, 4096), MSG_IO_DONE);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(tcp.close_socket(s), MSG_IO_DONE);
    EXPECT_LT(std::chrono::steady_clock::now() - start, milliseconds(50));
    reader.join();
    in.resize(out.size());
    EXPECT_TRUE(in == out);
    ::close(peer);
}

TEST_F(Tcpip, BadInputIsRefusedWithTheRightStatus)
{
    auto [c, peer] = connected_pair();
    std::int32_t s = tcp.create();
    std::uint16_t taken;
    int host = devtest::host_listener(taken);
    std::uint8_t outside[64];
    // Each row writes its parameters and runs one command, which must fail with the status.
    const std::pair<std::function<std::uint64_t()>, std::uint32_t> rows[] = {
        {[&] { *tcp.params<orlix::TcpCreateParams>() = {10, 1, 6, -1}; return tcp.run(orlix::TCP_CREATE); },
         orlix::TCP_STATUS_NO_FAMILY},
        {[&] { return tcp.close_socket(12345678); }, orlix::TCP_STATUS_NOT_SOCKET},
        {[&] { return tcp.run(0xc00500ff); }, 2},
        {[&] { return tcp.to_port(orlix::TCP_BIND, s, 0, 8); }, orlix::TCP_STATUS_INVALID},
        // Not connected yet, or connected already.
        {[&] { orlix::sockaddr_in a{}; return tcp.address_command(orlix::TCP_GETPEER, s, a); },
         orlix::TCP_STATUS_NOT_CONNECTED},
        {[&] { return tcp.send(s, "x", 1); }, orlix::TCP_STATUS_NOT_CONNECTED},
        {[&] { return tcp.connect(c, taken); }, orlix::TCP_STATUS_CONNECTED},
        {[&] { return tcp.bind(s, taken); }, orlix::TCP_STATUS_ADDRESS_IN_USE}, // a host listener holds it
        {[&] { ::close(host); return tcp.connect(s, taken); }, 0xbe00003c},     // nobody listens there now
        // Pointers outside the block, or lengths running past its end.
        {[&] { tcp.transfer(c, 16)->data = outside; return tcp.run(orlix::TCP_SEND); }, BAD_ADDRESS},
        {[&] { return tcp.receive(c, devtest::BLOCK_SIZE - devtest::DATA + 1); }, BAD_ADDRESS},
        {[&] { return devtest::sync(tcp.req, orlix::TCP_SEND, outside); }, BAD_ADDRESS},
        {[&] { *tcp.params<orlix::TcpAddressParams>() = {c, 16, outside}; return tcp.run(orlix::TCP_GETPEER); },
         BAD_ADDRESS},
    };
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        EXPECT_EQ(rows[i].first(), MSG_IO_FAILED) << "row " << i;
        EXPECT_EQ(tcp.req->error, rows[i].second) << "row " << i;
    }
    // The connection still works after all that; a closed socket is gone for every command.
    EXPECT_EQ(tcp.send(c, "ok", 2), MSG_IO_DONE);
    char got[2];
    EXPECT_TRUE(host_read_all(peer, got, 2));
    EXPECT_EQ(tcp.close_socket(c), MSG_IO_DONE);
    EXPECT_EQ(tcp.send(c, "x", 1), MSG_IO_FAILED);
    EXPECT_EQ(tcp.req->error, orlix::TCP_STATUS_NOT_SOCKET);
    ::close(peer);
}

} // namespace
