// ftpd's main thread: the command line, the users, detaching, the listener, and the one loop that
// takes accepted connections and the end messages of workers. It alone closes control sockets.
// System code.
#include <cstdlib>
#include <cstring>

#include "daemon/ftpd.h"
#include "platform/device_client.h"
#include "platform/kernel_wrappers.h"
#include "runtime/errno.h"
#include "runtime/heap.h"
#include "runtime/inet.h"
#include "runtime/process.h"
#include "runtime/stdio.h"
#include "runtime/string.h"
#include "runtime/sysvc.h"
#include "runtime/syslog.h"
#include "runtime/tcp_client.h"

namespace orlix {

namespace {

constexpr int EXIT_USAGE = 1;
constexpr int EXIT_FAILURE_STATUS = 2;
constexpr int LOG_FACILITY_DAEMON = 11;
constexpr std::uint64_t MAIN_PORT_FLAGS = 0x4000c;
constexpr std::uint64_t ACCEPT_BLOCK_SIZE = 160;
constexpr std::uint32_t LISTEN_BACKLOG = 32;
constexpr std::size_t USER_LINE_SIZE = 69;

const char TOO_MANY[] = "421 Too many users, server is full.\r\n";
const char NO_WORKER[] = "421 Failed to spawn worker thread.\r\n";

FILE* standard_error() { return __get_std_stream(2); }

void print_usage(const char* program)
{
    printf("Usage: %s ROOT [-L CLIENTLIMIT] [-p PORT] [-I NIFACE] [-T TIMO] [-S] [USERFILE [USER]...]\n", program);
    printf("\n");
    printf("    -L    set maximal number of connections (default: %u, maximal: %u)\n",
           static_cast<unsigned>(DEFAULT_CLIENT_LIMIT), static_cast<unsigned>(MAX_CLIENT_LIMIT));
    printf("    -p    set server port (default: %u)\n", static_cast<unsigned>(DEFAULT_PORT));
    printf("    -I    set network interface\n");
    printf("    -t    set transfer timeout; seconds, must be greater than 0 (default: %u)\n",
           DEFAULT_TRANSFER_SECONDS);
    printf("    -T    set client idle timeout; seconds, 0=unlimited (default: %u)\n", DEFAULT_IDLE_SECONDS);
    printf("    -S    suppress error when USERFILE not exist or not a file\n");
    printf("\n");
    printf("USER format: <name>,<\"ro\"/\"rw\">,<pass>\n");
    printf("\n");
    printf("Example:\n");
    printf(" ftpd /srv/ftp -L 8 /etc/ftpd/users User_ReadOnly,ro,Word1 User_ReadWrite,rw,Word2\n");
    printf("\n");
}

// A start-up failure: one line on standard error, status 2.
int fail(const char* format, const char* program)
{
    fprintf(standard_error(), format, program);
    return EXIT_FAILURE_STATUS;
}

int fail_no_memory(const char* program)
{
    fprintf(standard_error(), "%s: %s\n", program, strerror(ERR_NOMEM));
    return EXIT_FAILURE_STATUS;
}

// Adds one parsed user; false for a name already there.
bool add_user(btree* users, FtpdUser* user) { return btree_insert(users, user, user, false); }

// The users of the file and of the arguments behind it. 0, or the status of a failed start.
int load_users(FtpdServer* server, const char* program, const char* file, char** more, int more_count, bool suppress)
{
    server->users = btree_new(sizeof(char*), sizeof(FtpdUser), ftpd_cmp_lt, ftpd_cmp_eq);
    if (server->users == nullptr)
        return fail("%s: failed to create btree for users\n", program);
    FtpdUser user;
    if (FILE* stream = fopen(file, "rt")) {
        char line[USER_LINE_SIZE];
        while (fgets(line, sizeof line, stream) != nullptr) {
            std::size_t length = std::strlen(line);
            // An over-long line, or a last one without its line feed, ends the reading.
            if (length == 0 || line[length - 1] != '\n')
                break;
            line[length - 1] = '\0';
            if (ftpd_parse_user(line, &user) != 0) {
                fclose(stream);
                return fail("%s: parse error in user file\n", program);
            }
            if (!add_user(server->users, &user)) {
                fclose(stream);
                return fail("%s: failed to add user (maybe a dupe?)\n", program);
            }
        }
        fclose(stream);
    } else if (!suppress) {
        fprintf(standard_error(), "%s: %s: %s:\n", program, file, strerror(errno));
        return EXIT_FAILURE_STATUS;
    }
    for (int i = 0; i < more_count; ++i) {
        if (ftpd_parse_user(more[i], &user) != 0)
            return fail("%s: bad user information\n", program);
        if (!add_user(server->users, &user))
            return fail("%s: failed to add user (maybe a dupe?)\n", program);
    }
    return 0;
}

bool takes_value(const char* option)
{
    static const char* const with_value[] = {"-L", "-t", "-T", "-p", "-I"};
    for (const char* known : with_value)
        if (std::strcmp(option, known) == 0)
            return true;
    return false;
}

void apply_option(FtpdServer* server, const char* option, const char* value, const char** interface_text)
{
    switch (option[1]) {
    case 'L': {
        long limit = std::atol(value);
        server->client_limit = limit < 1 ? 1 : limit > static_cast<long>(MAX_CLIENT_LIMIT) ? MAX_CLIENT_LIMIT
                                                                                          : static_cast<std::uint64_t>(limit);
        break;
    }
    case 'p':
        server->port = static_cast<std::uint16_t>(std::strtoul(value, nullptr, 10));
        break;
    case 'I':
        *interface_text = value;
        break;
    case 't':
        server->transfer_timeout_ms = static_cast<std::uint32_t>(std::strtoul(value, nullptr, 10));
        break;
    case 'T':
        server->idle_timeout_ms = std::strtoul(value, nullptr, 10);
        break;
    }
}

// Options between ROOT and USERFILE, then the users. 0, or the status of a failed start.
int parse_arguments(FtpdServer* server, int argc, char** argv)
{
    const char* interface_text = nullptr;
    bool suppress = false;
    for (int i = 2; i < argc; ++i) {
        const char* argument = argv[i];
        if (argument[0] != '-' || argument[1] == '\0') {
            int status = load_users(server, argv[0], argument, argv + i + 1, argc - i - 1, suppress);
            if (status != 0)
                return status;
            break;
        }
        if (takes_value(argument)) {
            if (i + 1 < argc)
                apply_option(server, argument, argv[++i], &interface_text);
        } else if (std::strcmp(argument, "-S") == 0) {
            suppress = true;
        }
    }
    if (interface_text != nullptr) {
        server->interface_name = strdup(interface_text);
        if (server->interface_name == nullptr)
            return fail_no_memory(argv[0]);
    }
    server->transfer_timeout_ms *= 1000;
    server->idle_timeout_ms *= 1000;
    server->free_connections = server->client_limit;
    if (server->idle_timeout_ms == 0)
        server->idle_timeout_ms = ~std::uint64_t{0};
    return 0;
}

// ROOT on the heap without trailing separators: "/" becomes the empty text.
bool set_root(FtpdServer* server, const char* root)
{
    server->root = strdup(root);
    if (server->root == nullptr)
        return false;
    std::size_t length = std::strlen(server->root);
    while (length > 0 && (server->root[length - 1] == '/' || server->root[length - 1] == '\\'))
        server->root[--length] = '\0';
    server->root_length = static_cast<std::uint32_t>(length);
    return true;
}

[[nodiscard]] int abnormal_end()
{
    syslog(LOG_ERR_LEVEL, "Abnormally terminating");
    return EXIT_FAILURE_STATUS;
}

// After detaching: the line goes to a standard error that leads to /dev/null, then the end.
int fail_detached(const char* format)
{
    fprintf(standard_error(), format, "ftpd");
    return abnormal_end();
}

int fail_detached_port(const char* format, std::uint16_t port)
{
    fprintf(standard_error(), format, "ftpd", static_cast<unsigned>(port));
    return abnormal_end();
}

// The listener loop: never ends but by a failure of its port or of the accept request.
int serve(FtpdServer* server, Handle main_port, Device* device, IOreq* accept)
{
    auto* block = reinterpret_cast<TcpAcceptParams*>(ioreq_area(accept));
    for (;;) {
        std::uint64_t word1 = 0;
        std::uint64_t type = 0;
        std::uint64_t word2 = 0;
        Status result = _SL_RecvMsg(main_port, &word1, &type, &word2, WAIT_FOREVER);
        if (result == STATUS_REPEAT)
            continue;
        if (result != STATUS_DONE) {
            syslog(LOG_ERR_LEVEL, "RecvMsg returned 0x%X", static_cast<unsigned>(result));
            return abnormal_end();
        }
        if (type == MSG_IO_DONE) {
            auto socket = static_cast<std::uint32_t>(block->new_socket);
            BeginIO(accept);
            if (server->free_connections == 0) {
                td_send(device, static_cast<int>(socket), TOO_MANY, sizeof TOO_MANY - 1, 0);
                td_sockclose(device, static_cast<int>(socket));
            } else if (ftpd_spawn_worker(server, socket) == 0) {
                --server->free_connections;
            } else {
                td_send(device, static_cast<int>(socket), NO_WORKER, sizeof NO_WORKER - 1, 0);
                td_sockclose(device, static_cast<int>(socket));
            }
        } else if (type == MSG_WORKER_ENDED) {
            td_sockclose(device, static_cast<int>(word2));
            ++server->free_connections;
        } else if (type == MSG_IO_FAILED) {
            return abnormal_end();
        }
    }
}

// Ports, the TCP device, the listener and the first accept; then the loop.
int listen_and_serve(FtpdServer* server)
{
    Handle main_port = CreateSharedMsgPort(0, 0, 0, MAIN_PORT_FLAGS);
    if (main_port == INVALID_HANDLE)
        return fail_detached("%s: failed to create main message port\n");
    Handle worker_port = _SL_CreateMsgPort(0, 0);
    if (worker_port == INVALID_HANDLE)
        return fail_detached("%s: failed to create worker message port\n");
    server->worker_port = static_cast<std::uint64_t>(worker_port);
    if (_SL_CreateMsgPipe(0, main_port, worker_port, 0, 0) == INVALID_HANDLE)
        return fail_detached("%s: failed to create message pipe\n");

    Device* device = GetTCPDev();
    if (device == nullptr)
        return fail_detached("%s: failed to get TCP device\n");
    IOreq* accept = CreateIOreq(device, 0, 3, ACCEPT_BLOCK_SIZE, main_port);
    if (accept == nullptr)
        return fail_detached("%s: failed to create IO req\n");

    sockaddr_in address{};
    address.sin_family = AF_INET_VALUE;
    address.sin_port = htons(server->port);
    int socket = td_sockcreat(device, AF_INET_VALUE, SOCK_STREAM_VALUE, IPPROTO_TCP_VALUE);
    if (socket < 0)
        return fail_detached("%s: failed to create socket\n");
    std::uint32_t one = 1;
    if (td_socksetopt(device, socket, IPPROTO_TCP_VALUE, TCP_NODELAY_VALUE, &one, sizeof one) == 0)
        return fail_detached("%s: failed to set nodelay option\n");
    if (td_sockbind(device, socket, &address, sizeof address) == 0)
        return fail_detached_port("%s: failed to bind socket to port %u\n", server->port);
    if (td_socklisten(device, socket, LISTEN_BACKLOG) == 0)
        return fail_detached_port("%s: failed to listen on port %u\n", server->port);
    server->listen_address = address;

    auto* block = reinterpret_cast<TcpAcceptParams*>(ioreq_area(accept));
    block->socket = socket;
    block->length = sizeof(sockaddr_in);
    block->address = ioreq_area(accept) + sizeof(TcpAcceptParams);
    accept->params = block;
    accept->command = TCP_ACCEPT;
    BeginIO(accept);
    return serve(server, main_port, device, accept);
}

} // namespace

int main(int argc, char** argv, char**)
{
    auto* record = static_cast<FtpdServer*>(malloc(sizeof(FtpdServer)));
    if (record == nullptr)
        return fail_no_memory(argv[0]);
    openlog("ftpd", LOG_PID_OPTION, LOG_FACILITY_DAEMON);
    syslog(LOG_INFO_LEVEL, "Starting FTP daemon");
    unsetenv("TraceMsg");
    std::memset(record, 0, sizeof *record);
    record->client_limit = DEFAULT_CLIENT_LIMIT;
    record->idle_timeout_ms = DEFAULT_IDLE_SECONDS;
    record->transfer_timeout_ms = DEFAULT_TRANSFER_SECONDS;
    record->port = DEFAULT_PORT;

    if (argc < 2) {
        print_usage(argv[0]);
        return EXIT_USAGE;
    }
    if (argc == 2) {
        record->idle_timeout_ms = std::uint64_t{DEFAULT_IDLE_SECONDS} * 1000;
        record->transfer_timeout_ms = DEFAULT_TRANSFER_SECONDS * 1000;
        record->free_connections = DEFAULT_CLIENT_LIMIT;
    } else if (int status = parse_arguments(record, argc, argv); status != 0) {
        return status;
    }
    if (!set_root(record, argv[1]))
        return fail_no_memory(argv[0]);
    if (daemon(0, 0) < 0)
        return fail("%s: daemon() failed\n", argv[0]);

    // Workers hold a pointer to this copy, which lives as long as the process.
    FtpdServer server = *record;
    free(record);
    return listen_and_serve(&server);
}

} // namespace orlix
