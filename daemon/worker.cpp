// The session worker: a detached thread per control connection that reads the connection one
// byte per request under the idle time-out, cuts lines, applies the command table's checks in
// order and runs the handlers, and at its end tells the main thread. System code.
#include <cctype>
#include <cstring>

#include "daemon/ftpd.h"
#include "platform/device_client.h"
#include "platform/kernel_wrappers.h"
#include "runtime/files.h"
#include "runtime/format.h"
#include "runtime/heap.h"
#include "runtime/inet.h"
#include "runtime/syslog.h"
#include "runtime/tcp_client.h"
#include "runtime/thread.h"

namespace orlix {

namespace {

constexpr std::uint64_t WORKER_STACK = 16384;
constexpr std::uint64_t HANDLE_FLAGS = 0x40004;
constexpr std::size_t LINE_LIMIT = 510;

struct WorkerArgument {
    FtpdServer* server;
    std::uint32_t socket;
};

enum class Reading { byte, gone, timed_out };

// One byte of the control connection into the first byte of the parameter block.
Reading read_byte(FtpdSession* session, char* byte)
{
    auto* block = reinterpret_cast<TcpTransferParams*>(session->ioreq_params);
    block->socket = static_cast<std::int32_t>(session->control_socket);
    block->zero8 = 0;
    block->zero16 = 0;
    block->data = session->ioreq_params;
    block->length = 1;
    block->flags = MSG_WAITALL_VALUE;
    block->result = 0;
    session->ioreq->params = session->ioreq_params;
    session->ioreq->command = TCP_RECEIVE;
    BeginIO(session->ioreq);
    Status status;
    do {
        std::uint64_t word1 = 0;
        std::uint64_t type = 0;
        std::uint64_t word2 = 0;
        status = _SL_RecvMsg(static_cast<Handle>(session->port_handle), &word1, &type, &word2,
                             static_cast<std::int64_t>(session->server->idle_timeout_ms));
    } while (status == STATUS_REPEAT);
    if (status != STATUS_DONE) {
        AbortIO(session->ioreq);
        return Reading::timed_out;
    }
    if (block->result == 0)
        return Reading::gone;
    *byte = static_cast<char>(session->ioreq_params[0]);
    return Reading::byte;
}

const FtpdCommand* find_command(const char* word)
{
    for (const FtpdCommand* row = ftpd_commands; row->name != nullptr; ++row)
        if (std::strcmp(row->name, word) == 0)
            return row;
    return nullptr;
}

// The table's checks in order; the reply of the first that fails, or null.
const char* refusal(FtpdSession* session, const FtpdCommand* row, const char* word, const char* argument)
{
    if (session->expected_command[0] != '\0' && std::strcmp(session->expected_command, word) != 0) {
        session->expected_command[0] = '\0';
        free(session->rename_source);
        session->rename_source = nullptr;
        return ftpd_error_503;
    }
    if ((row->flags & CMD_EXPECTED_ONLY) && std::strcmp(word, session->expected_command) != 0)
        return ftpd_error_503;
    if (!(row->flags & CMD_NO_LOGIN) && (session->login_flags & (LOGIN_PASSWORD_WAIT | LOGIN_OK)) != LOGIN_OK)
        return ftpd_error_332;
    if ((row->flags & CMD_NEEDS_WRITE) && !(session->login_flags & LOGIN_WRITE))
        return ftpd_error_532;
    if ((row->flags & CMD_NEEDS_ARG) && argument == nullptr)
        return ftpd_error_501;
    if ((row->flags & CMD_NEEDS_DATA) && session->data_socket < 0)
        return ftpd_error_503;
    return nullptr;
}

// Serves one line (its line feed included, terminated behind it); false ends the session.
bool serve_line(FtpdSession* session, char* line, std::size_t length)
{
    for (std::size_t end = length; end > 0 && (line[end - 1] == '\r' || line[end - 1] == '\n'); --end)
        line[end - 1] = '\0';
    char* argument = nullptr;
    if (char* blank = std::strchr(line, ' ')) {
        while (*blank == ' ')
            *blank++ = '\0';
        if (*blank != '\0')
            argument = blank;
    }
    for (char* c = line; *c != '\0'; ++c)
        *c = static_cast<char>(std::toupper(static_cast<unsigned char>(*c)));
    if (std::strcmp(line, "QUIT") == 0) {
        ftpd_sendstr(session, session->control_socket, "221 Goodbye.\r\n");
        return false;
    }
    const FtpdCommand* row = find_command(line);
    if (row == nullptr) {
        if (session->data_socket >= 0)
            ftpd_close_conn(session);
        ftpd_sendstr(session, session->control_socket, "502 Command not implemented.\r\n");
        return true;
    }
    if (const char* reply = refusal(session, row, line, argument)) {
        ftpd_sendstr(session, session->control_socket, reply);
        if (session->data_socket >= 0)
            ftpd_close_conn(session);
        return true;
    }
    return row->handler(session, argument) == 0;
}

// Reads and serves lines until the session ends.
void command_loop(FtpdSession* session, char* line)
{
    std::size_t position = 0;
    bool discarding = false;
    for (;;) {
        char byte;
        Reading reading = read_byte(session, &byte);
        if (reading == Reading::timed_out) {
            ftpd_sendtimo(session, session->control_socket, session->server->idle_timeout_ms & 0xffffffff);
            return;
        }
        if (reading == Reading::gone)
            return;
        line[position] = byte;
        if (discarding) {
            position = 0;
            if (byte == '\n') {
                ftpd_sendstr(session, session->control_socket, "500 Syntax error: command too long.\r\n");
                discarding = false;
            }
        } else if (byte == '\n') {
            line[position + 1] = '\0';
            if (!serve_line(session, line, position + 1))
                return;
            position = 0;
        } else if (++position == LINE_LIMIT) {
            position = 0;
            discarding = true;
        }
    }
}

void send_end_message(FtpdSession* session)
{
    SendMsgRetry(static_cast<Handle>(session->server->worker_port), 0, MSG_WORKER_ENDED,
                static_cast<std::uint64_t>(static_cast<std::int64_t>(static_cast<std::int32_t>(session->control_socket))),
                WAIT_FOREVER);
}

// A failure before the session could start: the 421 line, by the session's request once it exists.
void refuse_start(FtpdSession* session)
{
    if (session->ioreq != nullptr)
        ftpd_sendstr(session, session->control_socket, ftpd_error_421);
    else
        td_send(session->tcp_device, static_cast<int>(session->control_socket), ftpd_error_421,
                std::strlen(ftpd_error_421), 0);
}

// The path block cut into its buffers, the current directory "/".
void set_path_block(FtpdSession* session, char* block)
{
    session->cwd = block;
    session->path_scratch = block + PATH_BUFFER;
    session->resolved_path = block + 2 * PATH_BUFFER;
    session->list_scratch = block + 3 * PATH_BUFFER;
    session->peer_text = block + PEER_TEXT_OFFSET;
    std::strcpy(session->cwd, "/");
}

// Ports, request and addresses; false after the 421 line, with what was made given back.
bool open_session(FtpdSession* session)
{
    Handle port = _SL_CreateMsgPort(0, 0);
    if (port == INVALID_HANDLE) {
        refuse_start(session);
        return false;
    }
    session->message_port = static_cast<std::uint64_t>(port);
    Handle handle = _SL_CreateHandle(0, port, HANDLE_FLAGS);
    if (handle != INVALID_HANDLE) {
        session->port_handle = static_cast<std::uint64_t>(handle);
        session->ioreq = CreateIOreq(session->tcp_device, 0, 3, SESSION_IOREQ_SIZE, handle);
    }
    if (session->ioreq == nullptr) {
        refuse_start(session);
        DeleteMsgPort(port);
        return false;
    }
    std::uint32_t local_length = sizeof(sockaddr_in);
    std::uint32_t peer_length = sizeof(sockaddr_in);
    int socket = static_cast<int>(session->control_socket);
    td_sockgetname(session->tcp_device, socket, &session->local_address, &local_length);
    td_sockgetpeer(session->tcp_device, socket, &session->peer_address, &peer_length);
    if (local_length != sizeof(sockaddr_in) || peer_length != sizeof(sockaddr_in)) {
        refuse_start(session);
        DeleteIOreq(session->ioreq);
        DeleteMsgPort(port);
        return false;
    }
    session->ioreq_params = ioreq_area(session->ioreq);
    return true;
}

// The steps every end takes, in order, behind the greeting.
void end_session(FtpdSession* session)
{
    if (session->data_socket >= 0)
        ftpd_close_conn(session);
    DeleteIOreq(session->ioreq);
    syslog(LOG_INFO_LEVEL, "connection from %s has been closed", session->peer_text);
    DeleteMsgPort(static_cast<Handle>(session->message_port));
    free(session->rename_source);
    free(session->root_realpath);
}

} // namespace

int ftpd_spawn_worker(FtpdServer* server, std::uint32_t socket)
{
    auto* argument = static_cast<WorkerArgument*>(malloc(sizeof(WorkerArgument)));
    if (argument == nullptr)
        return 1;
    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0) {
        free(argument);
        return 2;
    }
    if (pthread_attr_setstacksize(&attr, WORKER_STACK) != 0 || pthread_attr_setdetachstate(&attr, 1) != 0) {
        pthread_attr_destroy(&attr);
        free(argument);
        return 3;
    }
    argument->server = server;
    argument->socket = socket;
    pthread_t thread;
    int failed = pthread_create(&thread, &attr, ftpd_worker, argument);
    pthread_attr_destroy(&attr);
    if (failed != 0) {
        free(argument);
        return 4;
    }
    return 0;
}

void* ftpd_worker(void* raw)
{
    FtpdSession session;
    std::memset(&session, 0, sizeof session);
    session.transfer_type = 'A';
    session.data_socket = -1;
    session.accepted_socket = -1;
    auto* argument = static_cast<WorkerArgument*>(raw);
    session.server = argument->server;
    session.control_socket = argument->socket;
    session.tcp_device = GetTCPDev();
    free(argument);

    auto* line = static_cast<char*>(malloc(LINE_BUFFER_SIZE));
    auto* block = line != nullptr ? static_cast<char*>(malloc(PATH_BLOCK_SIZE)) : nullptr;
    if (block == nullptr)
        refuse_start(&session);
    if (block == nullptr || !open_session(&session)) {
        free(block);
        free(line);
        send_end_message(&session);
        return nullptr;
    }
    set_path_block(&session, block);
    const char* root = session.server->root[0] != '\0' ? session.server->root : "/";
    session.root_realpath = realpath(root, nullptr);
    snprintf(session.peer_text, LINE_BUFFER_SIZE, "%s:%u", inet_ntoa(session.peer_address.sin_addr),
             static_cast<unsigned>(ntohs(session.peer_address.sin_port)));
    syslog(LOG_INFO_LEVEL, "connection accepted from %s", session.peer_text);
    if (session.root_realpath == nullptr) {
        ftpd_sendstr(&session, session.control_socket, ftpd_error_421);
    } else {
        ftpd_sendstr(&session, session.control_socket, "220 Welcome to Orlix FTPD.\r\n");
        command_loop(&session, line);
    }
    end_session(&session);
    free(block);
    free(line);
    send_end_message(&session);
    return nullptr;
}

} // namespace orlix
