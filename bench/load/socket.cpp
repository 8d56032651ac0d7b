// Loopback sockets of the load driver: connect with time-outs, whole sends, draining reads.
#include "bench/load/socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace load {
namespace {

[[noreturn]] void fail(const char* what)
{
    int error = errno;
    // A connect that runs out of time reports EINPROGRESS.
    if (error == EAGAIN || error == EWOULDBLOCK || error == EINPROGRESS)
        throw std::runtime_error(std::string(what) + ": timed out");
    throw std::runtime_error(std::string(what) + ": " + std::strerror(error));
}

sockaddr_in address_of(std::uint32_t address, std::uint16_t port)
{
    sockaddr_in sin{};
    sin.sin_family = AF_INET;
    sin.sin_port = htons(port);
    sin.sin_addr.s_addr = htonl(address);
    return sin;
}

}  // namespace

Socket& Socket::operator=(Socket&& other) noexcept
{
    if (this != &other) {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
}

Socket::~Socket()
{
    if (fd_ >= 0)
        ::close(fd_);
}

void Socket::send_all(std::span<const char> bytes)
{
    while (!bytes.empty()) {
        ssize_t sent = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent < 0) {
            if (errno == EINTR)
                continue;
            fail("send");
        }
        bytes = bytes.subspan(static_cast<std::size_t>(sent));
    }
}

std::size_t Socket::receive(std::span<char> bytes)
{
    for (;;) {
        ssize_t got = ::recv(fd_, bytes.data(), bytes.size(), 0);
        if (got >= 0)
            return static_cast<std::size_t>(got);
        if (errno != EINTR)
            fail("recv");
    }
}

std::uint64_t Socket::drain(std::span<char> scratch)
{
    std::uint64_t total = 0;
    while (std::size_t got = receive(scratch))
        total += got;
    return total;
}

void Socket::shutdown_send()
{
    if (::shutdown(fd_, SHUT_WR) != 0)
        fail("shutdown");
}

Socket connect_to(std::uint32_t address, std::uint16_t port, std::chrono::milliseconds limit)
{
    if (!is_loopback(address))
        throw std::runtime_error("refusing to connect outside 127.0.0.0/8");
    Socket socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (socket.fd() < 0)
        fail("socket");
    timeval bound{};
    bound.tv_sec = static_cast<time_t>(limit.count() / 1000);
    bound.tv_usec = static_cast<suseconds_t>(limit.count() % 1000 * 1000);
    int one = 1;
    // On Linux the send time-out also bounds a blocking connect.
    if (::setsockopt(socket.fd(), SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof bound) != 0 ||
        ::setsockopt(socket.fd(), SOL_SOCKET, SO_SNDTIMEO, &bound, sizeof bound) != 0 ||
        ::setsockopt(socket.fd(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one) != 0)
        fail("setsockopt");
    sockaddr_in sin = address_of(address, port);
    if (::connect(socket.fd(), reinterpret_cast<sockaddr*>(&sin), sizeof sin) != 0)
        fail("connect");
    return socket;
}

std::uint16_t free_port()
{
    Socket probe(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in sin = address_of(LOOPBACK, 0);
    socklen_t length = sizeof sin;
    if (probe.fd() < 0 || ::bind(probe.fd(), reinterpret_cast<sockaddr*>(&sin), sizeof sin) != 0 ||
        ::getsockname(probe.fd(), reinterpret_cast<sockaddr*>(&sin), &length) != 0)
        fail("free port");
    return ntohs(sin.sin_port);
}

}  // namespace load
