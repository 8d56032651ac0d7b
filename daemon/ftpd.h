// ftpd: the server-wide record, the session of a worker, the command table and the users, and
// the functions the command handlers share. System code; every reply goes through
// ftpd_sendstr/ftpd_sendstrl on the session's own request block.
#pragma once

#include <cstddef>
#include <cstdint>

#include "btree/btree.h"
#include "platform/device.h"
#include "platform/ioreq.h"
#include "platform/tcp_wire.h"

namespace orlix {

// --- Server --------------------------------------------------------------------------------------

struct FtpdServer {
    btree* users;                    // null: no user list, any name logs in read-write
    std::uint64_t client_limit;      // -L, 1 to 128
    std::uint64_t free_connections;  // changed by the main thread only
    std::uint64_t worker_port;       // where workers send their end message
    char* root;                      // ROOT without trailing separators; empty for "/"
    std::uint64_t idle_timeout_ms;   // all ones: unlimited
    std::uint32_t root_length;
    std::uint32_t transfer_timeout_ms;
    char* interface_name;            // -I, or null
    sockaddr_in listen_address;
    std::uint16_t port;
};

inline constexpr std::uint64_t DEFAULT_CLIENT_LIMIT = 16;
inline constexpr std::uint64_t MAX_CLIENT_LIMIT = 128;
inline constexpr std::uint16_t DEFAULT_PORT = 21;
inline constexpr std::uint32_t DEFAULT_IDLE_SECONDS = 120;
inline constexpr std::uint32_t DEFAULT_TRANSFER_SECONDS = 150;

// The end message of a worker: word2 is its control socket.
inline constexpr std::uint64_t MSG_WORKER_ENDED = 0x1f7d0001;

// --- Users ---------------------------------------------------------------------------------------

struct FtpdUser {
    char* name;              // the key: at most 31 bytes
    std::uint32_t rights;    // 1 read-only, 3 read-write
    char password[32];       // at most 31 bytes, zero-filled
};
static_assert(sizeof(FtpdUser) == 48);

inline constexpr std::size_t USER_FIELD_MAX = 31;

// 0 parsed; 1 no comma or a name over 31 bytes; 2 no memory; 3 bad rights; 4 a password over 31.
int ftpd_parse_user(const char* line, FtpdUser* user);
std::int32_t ftpd_cmp_lt(const void* a, const void* b);
std::int32_t ftpd_cmp_eq(const void* a, const void* b);

// --- Session -------------------------------------------------------------------------------------

inline constexpr std::uint32_t LOGIN_OK = 0x0001;
inline constexpr std::uint32_t LOGIN_WRITE = 0x0002;
inline constexpr std::uint32_t LOGIN_PASSWORD_WAIT = 0x8000;

inline constexpr std::uint32_t DATA_NONE = 0;
inline constexpr std::uint32_t DATA_PASSIVE = 1;
inline constexpr std::uint32_t DATA_ACTIVE = 2;

// The worker's request block: the header, the 56-byte send and receive block, then the data
// area of which replies and transfers use 4096 bytes.
inline constexpr std::uint64_t SESSION_IOREQ_SIZE = 4304;
inline constexpr std::size_t PAYLOAD_OFFSET = sizeof(TcpTransferParams); // from the parameter block
inline constexpr std::size_t PAYLOAD_SIZE = 4096;
// The scratch place for an address or option value, from the parameter block.
inline constexpr std::size_t SCRATCH_OFFSET = 88;

// The path block: four buffers of 4098 bytes and the peer's text.
inline constexpr std::size_t PATH_BUFFER = 4098;
inline constexpr std::size_t PATH_BLOCK_SIZE = 16904;
inline constexpr std::size_t PEER_TEXT_OFFSET = 16392;
inline constexpr std::size_t LINE_BUFFER_SIZE = 512;
// A handler's buffer for a built path; its limit is the start plus 4095.
inline constexpr std::size_t BUILT_PATH_LIMIT = 4095;

struct FtpdSession {
    FtpdServer* server;
    std::uint32_t control_socket;
    std::int32_t data_socket;      // the prepared socket, -1 when none
    std::int32_t accepted_socket;  // passive: the accepted one, -1 when none
    sockaddr_in active_address;    // the client's data address from PORT or LPRT
    sockaddr_in local_address;     // of the control connection
    sockaddr_in peer_address;      // of the control connection
    IOreq* ioreq;
    std::uint8_t* ioreq_params;    // the caller's area of ioreq
    Device* tcp_device;
    std::uint64_t message_port;
    std::uint64_t port_handle;
    std::uint32_t data_mode;
    char transfer_type;            // 'A' or 'I'
    char* cwd;                     // the virtual directory; owns the path block
    char* root_realpath;
    char* path_scratch;
    char* resolved_path;
    char* list_scratch;
    std::uint32_t login_flags;
    FtpdUser* user;
    char expected_command[8];
    char* rename_source;
    char* peer_text;
};

// --- Commands ------------------------------------------------------------------------------------

// The argument lies in the session's line buffer, null when the line has none; a handler may cut it.
using FtpdHandler = std::int32_t (*)(FtpdSession* session, char* argument);

inline constexpr std::uint32_t CMD_NO_LOGIN = 0x01;
inline constexpr std::uint32_t CMD_FEATURE = 0x02;
inline constexpr std::uint32_t CMD_NEEDS_ARG = 0x04;
inline constexpr std::uint32_t CMD_NEEDS_DATA = 0x08;
inline constexpr std::uint32_t CMD_NEEDS_WRITE = 0x10;
inline constexpr std::uint32_t CMD_EXPECTED_ONLY = 0x20;

struct FtpdCommand {
    const char* name;
    FtpdHandler handler;
    std::uint32_t flags;
};

// Ends with a row whose name is null.
extern const FtpdCommand ftpd_commands[];

extern const char* const ftpd_error_532;
extern const char* const ftpd_error_521;
extern const char* const ftpd_error_504;
extern const char* const ftpd_error_503;
extern const char* const ftpd_error_501;
extern const char* const ftpd_error_430;
extern const char* const ftpd_error_425;
extern const char* const ftpd_error_421;
extern const char* const ftpd_error_332;

// --- Shared by the handlers ----------------------------------------------------------------------

// Sends a counted buffer on a socket through the session's request, in pieces of 4096 bytes;
// the SyncIO result of the last piece.
int ftpd_sendstrl(FtpdSession* session, std::uint32_t socket, const char* buffer, std::uint64_t length);
int ftpd_sendstr(FtpdSession* session, std::uint32_t socket, const char* text);
// Formats into the request's own data area and sends it; a text longer than the area goes
// through a heap copy.
int ftpd_sendf(FtpdSession* session, std::uint32_t socket, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
int ftpd_sendtimo(FtpdSession* session, std::uint32_t socket, std::uint64_t idle_ms);
// Ends the data connection and its preparation, whatever state they are in.
void ftpd_close_conn(FtpdSession* session);
// Runs a command of the TCP device on the session's request, its block at ioreq_params.
int ftpd_run(FtpdSession* session, std::uint32_t command);

// Paths: the virtual path of an argument (null when it would not fit below limit), and the
// file-system path of a virtual one (a heap copy, or null when outside the root or unresolved).
char* ftpd_build_path(FtpdSession* session, char* out, char* limit, const char* argument);
char* ftpd_effective_path(FtpdSession* session, const char* path);

// Data connections.
std::int64_t ftpd_parse_numcom(char** cursor);
int ftpd_open_conn(FtpdSession* session);

// Listings.
char* _ftpd_append_timeval(char* out, std::int64_t seconds, std::int64_t nanoseconds);
bool ftpd_pattern_match(const char* pattern, const char* name);

// The worker.
int ftpd_spawn_worker(FtpdServer* server, std::uint32_t socket);
void* ftpd_worker(void* argument);

// Handlers.
std::int32_t ftpd_cmd_NOOP(FtpdSession*, char*);
std::int32_t ftpd_cmd_USER(FtpdSession*, char*);
std::int32_t ftpd_cmd_PASS(FtpdSession*, char*);
std::int32_t ftpd_cmd_SYST(FtpdSession*, char*);
std::int32_t ftpd_cmd_FEAT(FtpdSession*, char*);
std::int32_t ftpd_cmd_CDUP(FtpdSession*, char*);
std::int32_t ftpd_cmd_CWD(FtpdSession*, char*);
std::int32_t ftpd_cmd_PWD(FtpdSession*, char*);
std::int32_t ftpd_cmd_TYPE(FtpdSession*, char*);
std::int32_t ftpd_cmd_PASV(FtpdSession*, char*);
std::int32_t ftpd_cmd_PORT(FtpdSession*, char*);
std::int32_t ftpd_cmd_LPRT(FtpdSession*, char*);
std::int32_t ftpd_cmd_LIST(FtpdSession*, char*);
std::int32_t ftpd_cmd_NLST(FtpdSession*, char*);
std::int32_t ftpd_cmd_MLSD(FtpdSession*, char*);
std::int32_t ftpd_cmd_SIZE(FtpdSession*, char*);
std::int32_t ftpd_cmd_RETR(FtpdSession*, char*);
std::int32_t ftpd_cmd_STOR(FtpdSession*, char*);
std::int32_t ftpd_cmd_DELE(FtpdSession*, char*);
std::int32_t ftpd_cmd_MKD(FtpdSession*, char*);
std::int32_t ftpd_cmd_RMD(FtpdSession*, char*);
std::int32_t ftpd_cmd_RNFR(FtpdSession*, char*);
std::int32_t ftpd_cmd_RNTO(FtpdSession*, char*);

} // namespace orlix
