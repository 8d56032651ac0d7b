// Data connections: PASV, PORT and LPRT prepare a socket and note the mode; ftpd_open_conn makes
// the connection when a transfer or listing begins. IPv4 only. System code.
#include <cstdlib>
#include <cstring>

#include "daemon/ftpd.h"
#include "runtime/inet.h"
#include "runtime/tcp_client.h"

namespace orlix {

namespace {

constexpr std::uint32_t PASSIVE_BACKLOG = 1;
constexpr std::uint32_t LINGER_WORDS[2] = {1, 10}; // on, for 10 seconds

std::uint8_t* scratch(FtpdSession* session) { return session->ioreq_params + SCRATCH_OFFSET; }

bool prepared(FtpdSession* session)
{
    if (session->data_socket < 0)
        return false;
    ftpd_sendstr(session, session->control_socket, ftpd_error_503);
    return true;
}

// Four address bytes, the first the most significant, into active_address; false on a missing
// or negative number.
bool parse_address(char** cursor, sockaddr_in* address)
{
    auto* bytes = reinterpret_cast<std::uint8_t*>(&address->sin_addr);
    for (int i = 0; i < 4; ++i) {
        std::int64_t number = ftpd_parse_numcom(cursor);
        if (number < 0)
            return false;
        bytes[i] = static_cast<std::uint8_t>(number);
    }
    return true;
}

bool parse_port(char** cursor, sockaddr_in* address)
{
    std::int64_t high = ftpd_parse_numcom(cursor);
    if (high < 0)
        return false;
    std::int64_t low = ftpd_parse_numcom(cursor);
    if (low < 0)
        return false;
    address->sin_port = htons(static_cast<std::uint16_t>((high << 8) | (low & 0xff)));
    return true;
}

// The socket of an active connection, bound to the listener's address with a port the device
// picks; the 425 line when it can't be made.
bool make_active_socket(FtpdSession* session)
{
    sockaddr_in local = session->server->listen_address;
    local.sin_port = 0;
    int socket = td_sockcreat(session->tcp_device, local.sin_family, SOCK_STREAM_VALUE, IPPROTO_TCP_VALUE);
    if (socket < 0) {
        ftpd_sendstr(session, session->control_socket, ftpd_error_425);
        return false;
    }
    td_sockbind(session->tcp_device, socket, &local, sizeof local);
    session->data_socket = socket;
    session->data_mode = DATA_ACTIVE;
    session->active_address.sin_family = local.sin_family;
    return true;
}

} // namespace

std::int64_t ftpd_parse_numcom(char** cursor)
{
    char* text = *cursor;
    if (text == nullptr || *text == '\0')
        return -1;
    if (char* comma = std::strchr(text, ',')) {
        *comma = '\0';
        *cursor = comma + 1;
    } else {
        *cursor = nullptr;
    }
    return static_cast<std::int32_t>(std::atol(text));
}

std::int32_t ftpd_cmd_PASV(FtpdSession* session, char*)
{
    if (prepared(session))
        return 0;
    sockaddr_in address = session->local_address;
    address.sin_port = 0;
    Device* device = session->tcp_device;
    int socket = td_sockcreat(device, address.sin_family, SOCK_STREAM_VALUE, IPPROTO_TCP_VALUE);
    if (socket < 0) {
        ftpd_sendstr(session, session->control_socket, ftpd_error_425);
        return 0;
    }
    td_sockbind(device, socket, &address, sizeof address);
    td_socklisten(device, socket, PASSIVE_BACKLOG);
    std::memset(&address, 0, sizeof address);
    std::uint32_t length = sizeof address;
    td_sockgetname(device, socket, &address, &length);
    if (address.sin_family != AF_INET_VALUE) {
        td_sockclose(device, socket);
        ftpd_sendstr(session, session->control_socket, ftpd_error_425);
        return 0;
    }
    session->data_socket = socket;
    session->data_mode = DATA_PASSIVE;
    auto* bytes = reinterpret_cast<const std::uint8_t*>(&address.sin_addr);
    std::uint16_t port = ntohs(address.sin_port);
    ftpd_sendf(session, session->control_socket, "227 Entering Passive Mode (%u,%u,%u,%u,%u,%u).\r\n", bytes[0],
               bytes[1], bytes[2], bytes[3], static_cast<unsigned>(port >> 8), static_cast<unsigned>(port & 0xff));
    return 0;
}

std::int32_t ftpd_cmd_PORT(FtpdSession* session, char* argument)
{
    if (prepared(session))
        return 0;
    char* cursor = argument;
    if (!parse_address(&cursor, &session->active_address) || !parse_port(&cursor, &session->active_address)) {
        ftpd_sendstr(session, session->control_socket, ftpd_error_501);
        return 0;
    }
    if (make_active_socket(session))
        ftpd_sendstr(session, session->control_socket, "200 PORT command successful\r\n");
    return 0;
}

std::int32_t ftpd_cmd_LPRT(FtpdSession* session, char* argument)
{
    if (prepared(session))
        return 0;
    char* cursor = argument;
    std::int64_t family = ftpd_parse_numcom(&cursor);
    if (family < 0) {
        ftpd_sendstr(session, session->control_socket, ftpd_error_501);
        return 0;
    }
    if (family != 4) {
        ftpd_sendstr(session, session->control_socket, ftpd_error_521);
        return 0;
    }
    if (ftpd_parse_numcom(&cursor) != 4 || !parse_address(&cursor, &session->active_address) ||
        ftpd_parse_numcom(&cursor) != 2 || !parse_port(&cursor, &session->active_address)) {
        ftpd_sendstr(session, session->control_socket, ftpd_error_501);
        return 0;
    }
    if (make_active_socket(session))
        ftpd_sendstr(session, session->control_socket, "200 LPRT command successful\r\n");
    return 0;
}

int ftpd_open_conn(FtpdSession* session)
{
    int socket;
    if (session->data_mode == DATA_PASSIVE) {
        auto* block = reinterpret_cast<TcpAcceptParams*>(session->ioreq_params);
        block->socket = session->data_socket;
        block->length = sizeof(sockaddr_in);
        block->address = scratch(session);
        if (ftpd_run(session, TCP_ACCEPT) != IO_DONE)
            return -1;
        socket = block->new_socket;
        session->accepted_socket = socket;
    } else if (session->data_mode == DATA_ACTIVE) {
        auto* block = reinterpret_cast<TcpConnectParams*>(session->ioreq_params);
        block->socket = session->data_socket;
        block->length = sizeof(sockaddr_in);
        block->address = scratch(session);
        std::memcpy(scratch(session), &session->active_address, sizeof(sockaddr_in));
        if (ftpd_run(session, TCP_CONNECT) != IO_DONE)
            return -1;
        socket = session->data_socket;
    } else {
        return -1;
    }
    if (socket < 0)
        return socket;
    auto* block = reinterpret_cast<TcpSetOptParams*>(session->ioreq_params);
    block->socket = socket;
    block->level = SOL_SOCKET_VALUE;
    block->option = SO_LINGER_VALUE;
    block->value = scratch(session);
    block->value_length = sizeof LINGER_WORDS;
    std::memcpy(scratch(session), LINGER_WORDS, sizeof LINGER_WORDS);
    ftpd_run(session, TCP_SETOPT);
    return socket;
}

} // namespace orlix
