// Blocking loopback TCP for the load driver. Every socket carries send and receive time-outs, so
// no step of a measurement waits for ever: a step that runs out throws instead.
#pragma once

#include <chrono>
#include <cstdint>
#include <span>
#include <utility>

namespace load {

class Socket {
public:
    Socket() = default;
    explicit Socket(int fd) : fd_(fd) {}
    Socket(Socket&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Socket& operator=(Socket&& other) noexcept;
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    ~Socket();

    int fd() const { return fd_; }

    // Sends every byte; throws on a failure or when the time-out runs out.
    void send_all(std::span<const char> bytes);
    // Up to bytes.size() bytes, 0 at the end of the stream; throws on a failure or time-out.
    std::size_t receive(std::span<char> bytes);
    // Reads until the peer closes and returns the count; `scratch` takes the bytes.
    std::uint64_t drain(std::span<char> scratch);
    // Ends the sending direction, so the peer reads the end of the stream.
    void shutdown_send();

private:
    int fd_ = -1;
};

constexpr std::uint32_t LOOPBACK = 0x7f000001;

// True for an address in 127.0.0.0/8 (host order): the only addresses the driver ever connects to.
constexpr bool is_loopback(std::uint32_t address) { return (address >> 24) == 127; }

// Connects to a loopback address (host order) and port; `limit` bounds the connect and every later
// send and receive. Throws on a failure, and for an address outside 127.0.0.0/8.
Socket connect_to(std::uint32_t address, std::uint16_t port, std::chrono::milliseconds limit);

// A port of 127.0.0.1 that was free a moment ago.
std::uint16_t free_port();

}  // namespace load
