// Wire formats of the request scheme: the request block, the messages of a running command,
// the results of the request operations. Device services include this same header, so the
// layout can never drift between the two sides.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/kernel.h"

namespace orlix {

struct Device;

// The request block. The device allocates it; the caller's area follows the 120-byte header.
struct IOreq {
    std::uint64_t id;           // the device's identifier; word2 of every message about it
    Device* device;             // the device the block belongs to
    std::uint64_t device_word;  // the device's own
    Handle reply_port;          // where completions arrive; word1 of begin and abort
    std::uint32_t unit;
    std::uint32_t timeout;      // milliseconds the device allows the command; 0xffffffff none
    std::uint32_t command;      // 0xc00Xnnnn; X: 2 registry, 3 system services, 4 VFS, 5 TCP
    std::uint8_t priority;
    std::uint8_t pad45[3];
    std::uint32_t error;        // device status after a failed run; 1 when the exchange broke
    std::uint32_t pad52;
    std::uint64_t cleared[3];   // 56, 64, 72: cleared at creation
    std::uint64_t device_area[4]; // 80..111: the device's own
    void* params;               // the command's parameter block, usually the caller's area
};
inline constexpr std::size_t IOREQ_HEADER_SIZE = 120;
inline constexpr std::uint32_t IOREQ_NO_TIMEOUT = 0xffffffff;
static_assert(offsetof(IOreq, id) == 0);
static_assert(offsetof(IOreq, device) == 8);
static_assert(offsetof(IOreq, reply_port) == 24);
static_assert(offsetof(IOreq, unit) == 32);
static_assert(offsetof(IOreq, timeout) == 36);
static_assert(offsetof(IOreq, command) == 40);
static_assert(offsetof(IOreq, priority) == 44);
static_assert(offsetof(IOreq, error) == 48);
static_assert(offsetof(IOreq, cleared) == 56);
static_assert(offsetof(IOreq, params) == 112);
static_assert(sizeof(IOreq) == IOREQ_HEADER_SIZE);

// The caller's area behind the header.
inline std::uint8_t* ioreq_area(IOreq* req) { return reinterpret_cast<std::uint8_t*>(req) + IOREQ_HEADER_SIZE; }

// Messages of a running command.
inline constexpr std::uint64_t MSG_IO_BEGIN = 0x20100;     // to request_port: word1 reply port, word2 id
inline constexpr std::uint64_t MSG_IO_ABORT = 0x20101;     // to request_port: word1 reply port, word2 id
inline constexpr std::uint64_t MSG_IO_DONE = 0x20004;      // to the reply port
inline constexpr std::uint64_t MSG_IO_FAILED = 0x20003;    // to the reply port; status in error
inline constexpr std::uint64_t MSG_IO_ABORTED = 0x20002;   // to the reply port
inline constexpr std::uint64_t MSG_IO_ABORT_ACK = 0x20012; // to the reply port

// Results of the request operations: 0, 1 (read error), or a negative error number.
inline constexpr int IO_DONE = 0;
inline constexpr int IO_DEVICE_FAILED = 1;
inline constexpr int IO_INTERRUPTED = -3;
inline constexpr int IO_BAD_REPLY = -20;
inline constexpr int IO_ABORTED = -35;
inline constexpr int IO_SEND_FAILED = -47;
inline constexpr int IO_TIMED_OUT = -73;

// Status of a receive that the device ended early while it still carried bytes.
inline constexpr std::uint32_t IO_STATUS_PARTIAL = 6;

} // namespace orlix
