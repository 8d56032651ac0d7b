// Test helpers for the tcpip device: one open with a worker-sized block, its socket commands
// written the way the system's client writes them, and host-side loopback peers. Test code only.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "host/devices/devices.h"
#include "platform/tcp_wire.h"
#include "tests/devices/wire_client.h"

namespace devtest {

// Offsets inside the block, as the daemon's worker uses them.
constexpr std::size_t PARAMS = 120;
constexpr std::size_t ADDRESS = 208;
constexpr std::size_t DATA = 176;
constexpr std::size_t BLOCK_SIZE = 0x10d0;

struct TcpClient {
    orlix::Handle reply = orlix::INVALID_HANDLE;
    orlix::Device* device = nullptr;
    orlix::IOreq* req = nullptr;

    bool open(std::size_t size = BLOCK_SIZE)
    {
        reply = make_port();
        device = open_device(host::devices::tcpip_port(), reply);
        req = device ? create_block(device, size, reply) : nullptr;
        return req != nullptr;
    }
    void close()
    {
        if (req)
            delete_block(req);
        if (device)
            close_device(device, reply);
        orlix::_SL_DeleteObject(reply, orlix::DELETE_OBJECT);
    }

    std::uint8_t* at(std::size_t offset) { return reinterpret_cast<std::uint8_t*>(req) + offset; }
    template <typename T> T* params() { return reinterpret_cast<T*>(at(PARAMS)); }
    std::uint64_t run(std::uint32_t command) { return sync(req, command, at(PARAMS)); }
    std::uint32_t error() const { return req->error; }

    std::int32_t create(std::uint32_t domain = 2, std::uint32_t type = 1, std::uint32_t protocol = 6)
    {
        *params<orlix::TcpCreateParams>() = {domain, type, protocol, -1};
        return run(orlix::TCP_CREATE) == orlix::MSG_IO_DONE ? params<orlix::TcpCreateParams>()->socket : -1;
    }
    std::uint64_t close_socket(std::int32_t s)
    {
        params<orlix::TcpSocketParams>()->socket = s;
        return run(orlix::TCP_CLOSE);
    }
    std::uint64_t address_command(std::uint32_t command, std::int32_t s, orlix::sockaddr_in& a,
                                  std::uint32_t length = 16)
    {
        auto* p = params<orlix::TcpAddressParams>();
        p->socket = s;
        p->length = length;
        p->address = at(ADDRESS);
        std::memcpy(at(ADDRESS), &a, sizeof a);
        std::uint64_t type = run(command);
        std::memcpy(&a, at(ADDRESS), sizeof a);
        return type;
    }
    std::uint64_t bind(std::int32_t s, std::uint16_t port, std::uint32_t length = 16)
    {
        orlix::sockaddr_in a{2, htons(port), htonl(INADDR_LOOPBACK), {}};
        return address_command(orlix::TCP_BIND, s, a, length);
    }
    std::uint16_t local_port(std::int32_t s)
    {
        orlix::sockaddr_in a{};
        return address_command(orlix::TCP_GETNAME, s, a) == orlix::MSG_IO_DONE ? ntohs(a.sin_port) : 0;
    }
    std::uint64_t listen(std::int32_t s, std::uint32_t backlog = 8)
    {
        *params<orlix::TcpListenParams>() = {s, backlog};
        return run(orlix::TCP_LISTEN);
    }
    void begin_accept(std::int32_t s)
    {
        auto* p = params<orlix::TcpAcceptParams>();
        *p = {};
        p->socket = s;
        p->new_socket = -1;
        p->length = 16;
        p->address = at(ADDRESS);
        req->command = orlix::TCP_ACCEPT;
        req->params = p;
        begin(req);
    }
    std::uint64_t connect(std::int32_t s, std::uint16_t port)
    {
        auto* p = params<orlix::TcpConnectParams>();
        p->socket = s;
        p->length = 16;
        p->address = at(ADDRESS);
        orlix::sockaddr_in a{2, htons(port), htonl(INADDR_LOOPBACK), {}};
        std::memcpy(at(ADDRESS), &a, sizeof a);
        return run(orlix::TCP_CONNECT);
    }
    // Writes a send or receive block; data at offset 176.
    orlix::TcpTransferParams* transfer(std::int32_t s, std::uint64_t length, std::uint32_t flags)
    {
        auto* p = params<orlix::TcpTransferParams>();
        *p = {};
        p->socket = s;
        p->data = at(DATA);
        p->length = length;
        p->flags = flags;
        return p;
    }
    std::uint64_t send(std::int32_t s, const void* bytes, std::size_t n, std::uint32_t flags = 0)
    {
        transfer(s, n, flags);
        std::memcpy(at(DATA), bytes, n);
        return run(orlix::TCP_SEND);
    }
    std::uint64_t send(std::int32_t s, const std::string& text) { return send(s, text.data(), text.size()); }
    // Runs a receive; the bytes stand at offset 176 and their count in result().
    std::uint64_t receive(std::int32_t s, std::size_t n, std::uint32_t flags = 0)
    {
        transfer(s, n, flags);
        return run(orlix::TCP_RECEIVE);
    }
    std::uint64_t result() { return params<orlix::TcpTransferParams>()->result; }
    std::string received() { return std::string(reinterpret_cast<char*>(at(DATA)), result()); }
};

// A host listening socket on a free loopback port.
inline int host_listener(std::uint16_t& port)
{
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    ::listen(fd, 8);
    socklen_t l = sizeof a;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &l);
    port = ntohs(a.sin_port);
    return fd;
}

inline int host_connect(std::uint16_t port)
{
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

inline bool host_read_all(int fd, void* out, std::size_t n)
{
    auto* p = static_cast<std::uint8_t*>(out);
    while (n > 0) {
        ssize_t k = ::read(fd, p, n);
        if (k <= 0)
            return false;
        p += k;
        n -= static_cast<std::size_t>(k);
    }
    return true;
}

inline bool host_write_all(int fd, const void* in, std::size_t n)
{
    auto* p = static_cast<const std::uint8_t*>(in);
    while (n > 0) {
        ssize_t k = ::send(fd, p, n, MSG_NOSIGNAL);
        if (k <= 0)
            return false;
        p += k;
        n -= static_cast<std::size_t>(k);
    }
    return true;
}

} // namespace devtest
