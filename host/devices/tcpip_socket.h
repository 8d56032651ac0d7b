// What the two halves of the tcpip device share: the socket record, its send buffer and the
// limits they keep. Host code, private to tcpip.cpp and tcpip_send.cpp.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "host/devices/tcpip.h"
#include "host/kernel/host_kernel.h"

namespace host::devices {

// Linux error numbers to the device's statuses.
std::uint32_t tcp_status_of_errno(int e);

inline constexpr std::uint32_t STATUS_PIPE = orlix::STATUS_CARRIES_ERRNO | 5;

inline constexpr std::size_t CHUNK_SIZE = std::size_t{64} << 10;
inline constexpr std::size_t SEND_LIMIT = std::size_t{512} << 10;       // buffered bytes before sends wait
inline constexpr std::size_t RECV_MIN = std::size_t{16} << 10;
inline constexpr std::size_t RECV_MAX = std::size_t{256} << 10;
inline constexpr std::size_t POOL_KEEP = 64;                              // idle chunks kept for reuse
inline constexpr std::size_t SHORT_SEND = 4096;                           // sent at once when possible
inline constexpr std::size_t WRITE_AT = std::size_t{32} << 10;          // a sender writes from this many
inline constexpr auto DEFER_FLUSH = std::chrono::milliseconds(1);        // a short remainder waits so long
// The host queues connections beyond the backlog asked for: a burst of clients that comes faster
// than they are accepted must not be dropped.
inline constexpr int LISTEN_QUEUE_MIN = 1024;
inline constexpr int FLUSH_IOVECS = 16;
inline constexpr int FLUSH_ROUNDS = 64;                                   // writes per turn of one socket
inline constexpr auto CLOSE_FLUSH_LIMIT = std::chrono::seconds(30);       // without linger

struct Tcpip::Chunk {
    std::size_t start = 0;
    std::size_t end = 0;
    std::uint8_t bytes[CHUNK_SIZE];
};

struct Tcpip::Waiter {
    RequestRef request;
    std::uint64_t serial;
    bool connect; // waits for the connection rather than for buffer space
};

struct Tcpip::Socket : std::enable_shared_from_this<Tcpip::Socket> {
    std::int32_t number = -1;
    int fd = -1;
    Open* owner = nullptr;
    std::mutex lock; // guards all below; the reactor writes from `chunks` without it, a sender with it

    bool connected = false;
    bool eof = false;
    bool closed = false;      // closed by the client; the reactor may still be flushing
    bool broken = false;      // a send failed on the host: nothing more goes out
    std::uint32_t pending_error = 0; // found while flushing, told to the next command
    bool linger_on = false;
    std::uint32_t linger_seconds = 0;

    std::uint32_t armed = 0;  // events the reactor is armed for
    bool flush_queued = false; // the reactor owns the writing until it clears this
    bool flush_blocked = false; // the host socket is full; waiting for EPOLLOUT
    bool deferred = false;      // in the reactor's list of remainders to write at its next turn

    std::vector<Waiter> readers; // accepts and receives
    std::vector<Waiter> writers; // connects and sends waiting for space

    std::vector<Chunk*> chunks; // bytes taken and not yet written, oldest first
    std::size_t buffered = 0;

    std::unique_ptr<std::uint8_t[]> rbuf; // bytes read ahead
    std::size_t rcap = 0, rstart = 0, rend = 0;
    bool answers = false; // bytes have come in: a reply goes out at once, not through the reactor
    // Set while the thread waiting on the first reader's reply port watches the descriptor itself;
    // the reactor then doesn't.
    std::shared_ptr<host::kernel::PortWatch> watch;
    orlix::Handle watch_port = 0;
    std::size_t rnext = RECV_MIN; // size of the next read-ahead buffer
};

} // namespace host::devices
