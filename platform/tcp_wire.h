// Wire formats of the TCP device: command codes, parameter blocks, the socket address and the
// statuses the device reports. Shared with the device service.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/error_numbers.h"

namespace orlix {

// The 16-byte IPv4 socket address: family in host order, port and address in network order.
struct sockaddr_in {
    std::uint16_t sin_family;
    std::uint16_t sin_port;
    std::uint32_t sin_addr;
    std::uint8_t sin_zero[8];
};
static_assert(sizeof(sockaddr_in) == 16);
static_assert(offsetof(sockaddr_in, sin_port) == 2);
static_assert(offsetof(sockaddr_in, sin_addr) == 4);

inline constexpr std::uint32_t AF_INET_VALUE = 2;
inline constexpr std::uint32_t SOCK_STREAM_VALUE = 1;
inline constexpr std::uint32_t IPPROTO_TCP_VALUE = 6;
inline constexpr std::uint32_t SOL_SOCKET_VALUE = 1;
inline constexpr std::uint32_t TCP_NODELAY_VALUE = 1;
inline constexpr std::uint32_t SO_LINGER_VALUE = 13;
inline constexpr std::uint32_t MSG_WAITALL_VALUE = 0x100; // receive: wait for the whole count
inline constexpr std::uint32_t MSG_MORE_VALUE = 0x8000;   // send: more data follows

inline constexpr std::uint32_t TCP_CREATE = 0xc0050010;
inline constexpr std::uint32_t TCP_CLOSE = 0xc0050011;
inline constexpr std::uint32_t TCP_BIND = 0xc0050012;
inline constexpr std::uint32_t TCP_GETNAME = 0xc0050013;
inline constexpr std::uint32_t TCP_SETOPT = 0xc0050014;
inline constexpr std::uint32_t TCP_GETPEER = 0xc0050016;
inline constexpr std::uint32_t TCP_LISTEN = 0xc0050017;
inline constexpr std::uint32_t TCP_ACCEPT = 0xc0050018;
inline constexpr std::uint32_t TCP_CONNECT = 0xc0050019;
inline constexpr std::uint32_t TCP_INHERIT = 0xc005001c;
inline constexpr std::uint32_t TCP_SEND = 0xc0050020;
inline constexpr std::uint32_t TCP_RECEIVE = 0xc0050021;

struct TcpCreateParams {
    std::uint32_t domain;
    std::uint32_t type;
    std::uint32_t protocol;
    std::int32_t socket; // out
};
static_assert(sizeof(TcpCreateParams) == 16);

struct TcpSocketParams { // close
    std::int32_t socket;
};

// Bind, local address and peer address: the address bytes follow at offset 16.
struct TcpAddressParams {
    std::int32_t socket;
    std::uint32_t length; // in; out for the address queries
    void* address;
};
static_assert(offsetof(TcpAddressParams, address) == 8);
static_assert(sizeof(TcpAddressParams) == 16);

// Set option: the value bytes follow at offset 32.
struct TcpSetOptParams {
    std::int32_t socket;
    std::uint32_t level;
    std::uint32_t option;
    std::uint32_t pad12;
    void* value;
    std::uint32_t value_length;
    std::uint32_t pad28;
};
static_assert(offsetof(TcpSetOptParams, value) == 16);
static_assert(offsetof(TcpSetOptParams, value_length) == 24);
static_assert(sizeof(TcpSetOptParams) == 32);

struct TcpListenParams {
    std::int32_t socket;
    std::uint32_t backlog;
};
static_assert(sizeof(TcpListenParams) == 8);

struct TcpAcceptParams {
    std::int32_t socket;
    std::int32_t new_socket; // out
    std::uint32_t length;
    std::uint32_t pad12;
    void* address;           // out: the peer's address
};
static_assert(offsetof(TcpAcceptParams, new_socket) == 4);
static_assert(offsetof(TcpAcceptParams, length) == 8);
static_assert(offsetof(TcpAcceptParams, address) == 16);
static_assert(sizeof(TcpAcceptParams) == 24);

struct TcpConnectParams {
    std::int32_t socket;
    std::uint32_t length;
    void* address;
};
static_assert(offsetof(TcpConnectParams, address) == 8);

struct TcpInheritParams {
    std::uint32_t flag;
};

// Send and receive; the data usually follows the block.
struct TcpTransferParams {
    std::int32_t socket;
    std::uint32_t pad4;
    std::uint64_t zero8;
    std::uint32_t zero16;
    std::uint32_t pad20;
    void* data;
    std::uint64_t length;
    std::uint32_t flags;
    std::uint32_t pad44;
    std::uint64_t result; // out: bytes sent or received; 0 at the end of the stream
};
static_assert(offsetof(TcpTransferParams, data) == 24);
static_assert(offsetof(TcpTransferParams, length) == 32);
static_assert(offsetof(TcpTransferParams, flags) == 40);
static_assert(offsetof(TcpTransferParams, result) == 48);
static_assert(sizeof(TcpTransferParams) == 56);

// Statuses of the TCP device, as the client's translation table knows them.
inline constexpr std::uint32_t TCP_STATUS_BAD_COMMAND = 2;
inline constexpr std::uint32_t TCP_STATUS_TOO_LARGE = 4;
inline constexpr std::uint32_t TCP_STATUS_BUSY = 5;
inline constexpr std::uint32_t TCP_STATUS_NO_MEMORY = 0xe0050001;
inline constexpr std::uint32_t TCP_STATUS_NO_FAMILY = 0xe0050007;
inline constexpr std::uint32_t TCP_STATUS_BAD_STATE = 0xe0050008;
inline constexpr std::uint32_t TCP_STATUS_ABORTED = 0xe0050013;
inline constexpr std::uint32_t TCP_STATUS_NOT_CONNECTED = 0xe0050014;
inline constexpr std::uint32_t TCP_STATUS_INVALID = 0xe0050016;
inline constexpr std::uint32_t TCP_STATUS_NO_PROTOCOL = 0xe0050035;
inline constexpr std::uint32_t TCP_STATUS_NOT_SOCKET = 0xe0050038;
inline constexpr std::uint32_t TCP_STATUS_BAD_MESSAGE = 0xe0050041;
inline constexpr std::uint32_t TCP_STATUS_MESSAGE_SIZE = 0xe0050042;
inline constexpr std::uint32_t TCP_STATUS_ADDRESS_IN_USE = 0xe0050043;
inline constexpr std::uint32_t TCP_STATUS_ADDRESS_NOT_AVAILABLE = 0xe0050044;
inline constexpr std::uint32_t TCP_STATUS_PERMISSION = 0xe0050046;
inline constexpr std::uint32_t TCP_STATUS_CONNECTED = 0xe0050047;
inline constexpr std::uint32_t TCP_STATUS_AGAIN = 0xe0050049;
inline constexpr std::uint32_t TCP_STATUS_IN_PROGRESS = 0xe0050050;
inline constexpr std::uint32_t TCP_STATUS_OVERFLOW = 0xe0050051;
inline constexpr std::uint32_t TCP_STATUS_TOO_MANY_FILES = 0xe0050052;
inline constexpr std::uint32_t TCP_STATUS_NOT_SUPPORTED = 0xe0050054;

} // namespace orlix
