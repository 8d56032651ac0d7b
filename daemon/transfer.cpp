// TYPE, RETR and STOR: whole files over a data connection, 4096 bytes at a time through the
// session's request block, which the file and network services read and write in place. The
// type changes only the word of the 150 line. System code.
#include <cstring>

#include "daemon/ftpd.h"
#include "runtime/errno.h"
#include "runtime/fd.h"
#include "runtime/files.h"
#include "runtime/heap.h"
#include "runtime/string.h"

namespace orlix {

namespace {

constexpr std::uint32_t STORED_FILE_MODE = 0644;
constexpr std::uint32_t STOR_FLAGS = OPEN_CREATE | OPEN_WRITE | OPEN_TRUNCATE; // 42

std::uint8_t* data_area(FtpdSession* session) { return session->ioreq_params + PAYLOAD_OFFSET; }

void reply_150(FtpdSession* session, const char* command)
{
    ftpd_sendf(session, session->control_socket, "150 Opening %s mode data connection for %s\r\n",
               session->transfer_type == 'A' ? "ASCII" : "BINARY", command);
}

void fill_transfer(FtpdSession* session, int socket, std::uint64_t length)
{
    auto* block = reinterpret_cast<TcpTransferParams*>(session->ioreq_params);
    block->socket = socket;
    block->zero8 = 0;
    block->zero16 = 0;
    block->data = data_area(session);
    block->length = length;
    block->flags = 0;
    block->result = 0;
}

// The common start: the connection, then the path and the file. The open descriptor, or -1 after
// the reply and the close of the connection.
int begin_transfer(FtpdSession* session, const char* argument, std::uint32_t flags, int* socket, char** effective)
{
    *socket = ftpd_open_conn(session);
    if (*socket < 0) {
        ftpd_sendstr(session, session->control_socket, ftpd_error_425);
        ftpd_close_conn(session);
        return -1;
    }
    char built[BUILT_PATH_LIMIT + 1];
    char* path = ftpd_build_path(session, built, built + BUILT_PATH_LIMIT, argument);
    *effective = path != nullptr ? ftpd_effective_path(session, path) : nullptr;
    if (*effective == nullptr) {
        ftpd_sendstr(session, session->control_socket, ftpd_error_504);
        ftpd_close_conn(session);
        return -1;
    }
    int fd = open(*effective, flags, STORED_FILE_MODE);
    if (fd < 0) {
        ftpd_sendf(session, session->control_socket, "550 %s: %s\r\n", argument, strerror(errno));
        ftpd_close_conn(session);
        free(*effective);
    }
    return fd;
}

void finish_transfer(FtpdSession* session, bool complete)
{
    ftpd_sendstr(session, session->control_socket,
                 complete ? "226 Transfer complete\r\n" : "426 Connection closed; transfer aborted.\r\n");
    ftpd_close_conn(session);
}

} // namespace

std::int32_t ftpd_cmd_TYPE(FtpdSession* session, char* argument)
{
    if (std::strlen(argument) > 1)
        ftpd_sendstr(session, session->control_socket, ftpd_error_501);
    else if (argument[0] == 'A' || argument[0] == 'I') {
        session->transfer_type = argument[0];
        ftpd_sendf(session, session->control_socket, "200 Type set to %c\r\n", argument[0]);
    } else
        ftpd_sendstr(session, session->control_socket, ftpd_error_504);
    return 0;
}

std::int32_t ftpd_cmd_RETR(FtpdSession* session, char* argument)
{
    int socket;
    char* effective;
    int fd = begin_transfer(session, argument, OPEN_READ, &socket, &effective);
    if (fd < 0)
        return 0;
    reply_150(session, "RETR");
    std::uint32_t saved_timeout = session->ioreq->timeout;
    session->ioreq->timeout = session->server->transfer_timeout_ms;
    std::int64_t got;
    for (;;) {
        got = read(fd, data_area(session), PAYLOAD_SIZE);
        if (got <= 0)
            break;
        fill_transfer(session, socket, static_cast<std::uint64_t>(got));
        if (ftpd_run(session, TCP_SEND) != IO_DONE)
            break;
    }
    session->ioreq->timeout = saved_timeout;
    close(fd);
    free(effective);
    finish_transfer(session, got == 0);
    return 0;
}

std::int32_t ftpd_cmd_STOR(FtpdSession* session, char* argument)
{
    int socket;
    char* effective;
    int fd = begin_transfer(session, argument, STOR_FLAGS, &socket, &effective);
    if (fd < 0)
        return 0;
    std::uint32_t saved_timeout = session->ioreq->timeout;
    session->ioreq->timeout = session->server->transfer_timeout_ms;
    reply_150(session, "STOR");
    auto* block = reinterpret_cast<TcpTransferParams*>(session->ioreq_params);
    bool complete;
    for (;;) {
        fill_transfer(session, socket, PAYLOAD_SIZE);
        int result = ftpd_run(session, TCP_RECEIVE);
        std::uint64_t received = block->result;
        if (result == IO_DONE && received == 0) {
            complete = true;
            break;
        }
        // A receive the device ended early still hands over the bytes that came before.
        bool usable = result == IO_DONE || (session->ioreq->error == IO_STATUS_PARTIAL && received != 0);
        if (!usable || write(fd, data_area(session), received) != static_cast<std::int64_t>(received)) {
            complete = false;
            break;
        }
    }
    close(fd);
    session->ioreq->timeout = saved_timeout;
    free(effective);
    finish_transfer(session, complete);
    return 0;
}

} // namespace orlix
