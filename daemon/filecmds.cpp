// The commands that need no data connection: SIZE, DELE, MKD and RMD on one path, the RNFR and
// RNTO pair, and FEAT, SYST and NOOP. Each replies and returns 0. System code.
#include <cstring>

#include "daemon/ftpd.h"
#include "runtime/files.h"
#include "runtime/heap.h"
#include "runtime/string.h"

namespace orlix {

namespace {

constexpr std::uint32_t NEW_DIRECTORY_MODE = 0755;

// The frame of the one-path commands: the effective path of the argument, or the 504 line and
// null.
char* path_of(FtpdSession* session, const char* argument)
{
    char built[BUILT_PATH_LIMIT + 1];
    char* path = ftpd_build_path(session, built, built + BUILT_PATH_LIMIT, argument);
    char* effective = path != nullptr ? ftpd_effective_path(session, path) : nullptr;
    if (effective == nullptr)
        ftpd_sendstr(session, session->control_socket, ftpd_error_504);
    return effective;
}

// Runs operation on the argument's path: the success line, or failure's with the argument.
template <typename Operation>
std::int32_t on_path(FtpdSession* session, const char* argument, Operation operation, const char* done,
                     const char* failed)
{
    char* effective = path_of(session, argument);
    if (effective == nullptr)
        return 0;
    if (operation(effective) == 0)
        ftpd_sendstr(session, session->control_socket, done);
    else
        ftpd_sendf(session, session->control_socket, failed, argument);
    free(effective);
    return 0;
}

} // namespace

std::int32_t ftpd_cmd_SIZE(FtpdSession* session, char* argument)
{
    char* effective = path_of(session, argument);
    if (effective == nullptr)
        return 0;
    struct stat st;
    if (stat(effective, &st) == 0)
        ftpd_sendf(session, session->control_socket, "213 %lli\r\n", static_cast<long long>(st.st_size));
    else
        ftpd_sendf(session, session->control_socket, "550 %s: No such file or directory\r\n", argument);
    free(effective);
    return 0;
}

std::int32_t ftpd_cmd_DELE(FtpdSession* session, char* argument)
{
    return on_path(session, argument, [](const char* path) { return unlink(path); },
                   "250 DELE command successful\r\n", "550 %s: Cannot delete file, or not a file\r\n");
}

std::int32_t ftpd_cmd_MKD(FtpdSession* session, char* argument)
{
    return on_path(session, argument, [](const char* path) { return mkdir(path, NEW_DIRECTORY_MODE); },
                   "250 MKD command successful\r\n", "550 %s: Cannot make directory\r\n");
}

std::int32_t ftpd_cmd_RMD(FtpdSession* session, char* argument)
{
    return on_path(session, argument, [](const char* path) { return rmdir(path); },
                   "250 RMD command successful\r\n", "550 %s: Cannot remove directory\r\n");
}

std::int32_t ftpd_cmd_RNFR(FtpdSession* session, char* argument)
{
    session->rename_source = strdup(argument);
    if (session->rename_source == nullptr) {
        ftpd_sendstr(session, session->control_socket, ftpd_error_504);
        return 0;
    }
    ftpd_sendstr(session, session->control_socket, "350 File or directory exists, ready for destination name\r\n");
    std::strcpy(session->expected_command, "RNTO");
    return 0;
}

std::int32_t ftpd_cmd_RNTO(FtpdSession* session, char* argument)
{
    char destination[BUILT_PATH_LIMIT + 1];
    char source[BUILT_PATH_LIMIT + 1];
    char* built_destination = ftpd_build_path(session, destination, destination + BUILT_PATH_LIMIT, argument);
    char* built_source = ftpd_build_path(session, source, source + BUILT_PATH_LIMIT, session->rename_source);
    char* from = built_source != nullptr ? ftpd_effective_path(session, built_source) : nullptr;
    char* to = from != nullptr && built_destination != nullptr ? ftpd_effective_path(session, built_destination)
                                                                : nullptr;
    if (to != nullptr && rename(from, to) == 0)
        ftpd_sendstr(session, session->control_socket, "250 RNTO command successful\r\n");
    else
        ftpd_sendstr(session, session->control_socket, ftpd_error_504);
    free(from);
    free(to);
    free(session->rename_source);
    session->rename_source = nullptr;
    session->expected_command[0] = '\0';
    return 0;
}

std::int32_t ftpd_cmd_FEAT(FtpdSession* session, char*)
{
    ftpd_sendstr(session, session->control_socket, "211-Features:\r\n");
    for (const FtpdCommand* row = ftpd_commands; row->name != nullptr; ++row)
        if (row->flags & CMD_FEATURE)
            ftpd_sendf(session, session->control_socket, " %s\r\n", row->name);
    ftpd_sendstr(session, session->control_socket, "211 End\r\n");
    return 0;
}

std::int32_t ftpd_cmd_SYST(FtpdSession* session, char*)
{
    ftpd_sendstr(session, session->control_socket, "215 UNIX Type: L8\r\n");
    return 0;
}

std::int32_t ftpd_cmd_NOOP(FtpdSession* session, char*)
{
    ftpd_sendstr(session, session->control_socket, "200 NOOP command successful\r\n");
    return 0;
}

} // namespace orlix

