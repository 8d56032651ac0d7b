// Test helpers for the tcpip device: one open with a worker-sized block, its socket commands
// written the way the system's client writes them, and host-side loopback peers. Test code only.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "host/devices/devices.h"
#include "platform/tcp_wire.h"
#include "tests/devices/wire_client.h"

namespace devtest {

// Offsets inside the block, as the daemon's worker uses them.
constexpr std::size_t PARAMS = IOREQ_HEADER_SIZE;
constexpr std::size_t DATA = 176;
constexpr std::size_t ADDRESS = 208;
constexpr std::size_t BLOCK_SIZE = 0x10d0;

struct TcpClient : Open {
    bool open() { return Open::open(host::devices::tcpip_port(), BLOCK_SIZE); }

    std::int32_t create(std::uint32_t domain = 2, std::uint32_t type = 1, std::uint32_t protocol = 6)
    {
        *params<orlix::TcpCreateParams>() = {domain, type, protocol, -1};
        return run(orlix::TCP_CREATE) == MSG_IO_DONE ? params<orlix::TcpCreateParams>()->socket : -1;
    }
    std::uint64_t close_socket(std::int32_t s)
    {
        params<orlix::TcpSocketParams>()->socket = s;
        return run(orlix::TCP_CLOSE);
    }
    // Bind, connect and the address queries: the address travels at ADDRESS.
    std::uint64_t address_command(std::uint32_t command, std::int32_t s, orlix::sockaddr_in& a, std::uint32_t n = 16)
    {
        *params<orlix::TcpAddressParams>() = {s, n, at(ADDRESS)};
        std::memcpy(at(ADDRESS), &a, sizeof a);
        std::uint64_t type = run(command);
        std::memcpy(&a, at(ADDRESS), sizeof a);
        return type;
    }
    // Bind (length 16 unless a test says otherwise) or connect to a loopback port.
    std::uint64_t to_port(std::uint32_t command, std::int32_t s, std::uint16_t port, std::uint32_t length = 16)
    {
        orlix::sockaddr_in a{2, htons(port), htonl(INADDR_LOOPBACK), {}};
        return address_command(command, s, a, length);
    }
    std::uint64_t bind(std::int32_t s, std::uint16_t port) { return to_port(orlix::TCP_BIND, s, port); }
    std::uint64_t connect(std::int32_t s, std::uint16_t port) { return to_port(orlix::TCP_CONNECT, s, port); }
    std::uint64_t set_option(std::int32_t s, std::uint32_t level, std::uint32_t name, const void* v, std::uint32_t n)
    {
        *params<orlix::TcpSetOptParams>() = {s, level, name, 0, at(ADDRESS), n, 0};
        std::memcpy(at(ADDRESS), v, n);
        return run(orlix::TCP_SETOPT);
    }
    void begin_accept(std::int32_t s, std::uint32_t length = 16)
    {
        *params<orlix::TcpAcceptParams>() = {s, -1, length, 0, at(ADDRESS)};
        req->command = orlix::TCP_ACCEPT;
        req->params = at(PARAMS);
        begin(req);
    }
    // Writes a send or receive block, data at DATA; the count comes back in result().
    orlix::TcpTransferParams* transfer(std::int32_t s, std::uint64_t length, std::uint32_t flags = 0)
    {
        auto* p = params<orlix::TcpTransferParams>();
        *p = {};
        p->socket = s;
        p->data = at(DATA);
        p->length = length;
        p->flags = flags;
        return p;
    }
    std::uint64_t send(std::int32_t s, const void* bytes, std::size_t n)
    {
        std::memcpy(at(DATA), bytes, n);
        transfer(s, n);
        return run(orlix::TCP_SEND);
    }
    std::uint64_t receive(std::int32_t s, std::size_t n, std::uint32_t flags = 0)
    {
        transfer(s, n, flags);
        return run(orlix::TCP_RECEIVE);
    }
    std::uint64_t result() { return params<orlix::TcpTransferParams>()->result; }
    std::string received() { return std::string(reinterpret_cast<char*>(at(DATA)), result()); }
};

// A host listening socket on a free loopback port, and a host connection to a loopback port.
inline int host_listener(std::uint16_t& port)
{
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ::sockaddr_in a{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t l = sizeof a;
    ::bind(fd, reinterpret_cast<::sockaddr*>(&a), sizeof a);
    ::listen(fd, 8);
    ::getsockname(fd, reinterpret_cast<::sockaddr*>(&a), &l);
    port = ntohs(a.sin_port);
    return fd;
}

inline int host_connect(std::uint16_t port)
{
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ::sockaddr_in a{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    if (::connect(fd, reinterpret_cast<::sockaddr*>(&a), sizeof a) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// Moves all n bytes through read or send, as long as the peer takes or gives any.
template <bool Write> bool host_all(int fd, const void* bytes, std::size_t n)
{
    for (auto* p = static_cast<std::uint8_t*>(const_cast<void*>(bytes)); n > 0;) {
        ssize_t k = Write ? ::send(fd, p, n, MSG_NOSIGNAL) : ::read(fd, p, n);
        if (k <= 0)
            return false;
        p += k;
        n -= static_cast<std::size_t>(k);
    }
    return true;
}
inline bool host_read_all(int fd, void* out, std::size_t n) { return host_all<false>(fd, out, n); }
inline bool host_write_all(int fd, const void* in, std::size_t n) { return host_all<true>(fd, in, n); }

} // namespace devtest
