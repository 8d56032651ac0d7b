// Replies and the end of a data connection, all on the session's own request block: the text
// goes to the block's data area and from there to the device. System code.
#include <cstdarg>
#include <cstring>

#include "daemon/ftpd.h"
#include "platform/device_client.h"
#include "runtime/format.h"
#include "runtime/heap.h"

namespace orlix {

const char* const ftpd_error_532 = "532 Need account for storing files.\r\n";
const char* const ftpd_error_521 = "521 Supported address families are (4).\r\n";
const char* const ftpd_error_504 = "504 Command not implemented for that parameter.\r\n";
const char* const ftpd_error_503 = "503 Bad sequence of commands.\r\n";
const char* const ftpd_error_501 = "501 Syntax error in parameters or arguments.\r\n";
const char* const ftpd_error_430 = "430 Invalid username or password\r\n";
const char* const ftpd_error_425 = "425 Can't open data connection.\r\n";
const char* const ftpd_error_421 = "421 Internal error: closing control connection\r\n";
const char* const ftpd_error_332 = "332 Need account for login.\r\n";

namespace {

constexpr std::uint32_t MORE_FOLLOWS = 0x8000;

char* payload(FtpdSession* session) { return reinterpret_cast<char*>(session->ioreq_params + PAYLOAD_OFFSET); }

// Sends what already stands in the data area, as one piece.
int send_piece(FtpdSession* session, std::uint32_t socket, std::uint64_t length, std::uint32_t flags)
{
    auto* block = reinterpret_cast<TcpTransferParams*>(session->ioreq_params);
    block->socket = static_cast<std::int32_t>(socket);
    block->zero8 = 0;
    block->zero16 = 0;
    block->data = payload(session);
    block->length = length;
    block->flags = flags;
    block->result = 0;
    return ftpd_run(session, TCP_SEND);
}

} // namespace

int ftpd_run(FtpdSession* session, std::uint32_t command)
{
    session->ioreq->params = session->ioreq_params;
    session->ioreq->command = command;
    return SyncIO(session->ioreq);
}

int ftpd_sendstrl(FtpdSession* session, std::uint32_t socket, const char* buffer, std::uint64_t length)
{
    int result;
    do {
        std::uint64_t piece = length < PAYLOAD_SIZE ? length : PAYLOAD_SIZE;
        std::memmove(payload(session), buffer, piece);
        result = send_piece(session, socket, piece, length > PAYLOAD_SIZE ? MORE_FOLLOWS : 0);
        buffer += piece;
        length -= piece;
    } while (length > 0);
    return result;
}

int ftpd_sendstr(FtpdSession* session, std::uint32_t socket, const char* text)
{
    return ftpd_sendstrl(session, socket, text, std::strlen(text));
}

int ftpd_sendf(FtpdSession* session, std::uint32_t socket, const char* format, ...)
{
    std::va_list args;
    va_start(args, format);
    int length = vsnprintf(payload(session), PAYLOAD_SIZE, format, args);
    va_end(args);
    if (length < 0)
        return length;
    if (static_cast<std::size_t>(length) < PAYLOAD_SIZE)
        return send_piece(session, socket, static_cast<std::uint64_t>(length), 0);
    // Longer than the data area: formatted again on the heap and sent in pieces.
    auto* text = static_cast<char*>(malloc(static_cast<std::size_t>(length) + 1));
    if (text == nullptr)
        return ftpd_sendstrl(session, socket, payload(session), PAYLOAD_SIZE - 1);
    va_start(args, format);
    vsnprintf(text, static_cast<std::size_t>(length) + 1, format, args);
    va_end(args);
    int result = ftpd_sendstrl(session, socket, text, static_cast<std::uint64_t>(length));
    free(text);
    return result;
}

int ftpd_sendtimo(FtpdSession* session, std::uint32_t socket, std::uint64_t idle_ms)
{
    int length = snprintf(payload(session), PAYLOAD_SIZE, "421 Idle timeout (%u seconds): closing control connection\r\n",
                          static_cast<unsigned>(idle_ms / 1000));
    return send_piece(session, socket, static_cast<std::uint64_t>(length), 0);
}

void ftpd_close_conn(FtpdSession* session)
{
    auto* block = reinterpret_cast<TcpSocketParams*>(session->ioreq_params);
    if (session->data_mode == DATA_PASSIVE) {
        block->socket = session->accepted_socket;
        ftpd_run(session, TCP_CLOSE);
        session->accepted_socket = -1;
    }
    block->socket = session->data_socket;
    ftpd_run(session, TCP_CLOSE);
    session->data_socket = -1;
    session->data_mode = DATA_NONE;
}

} // namespace orlix
