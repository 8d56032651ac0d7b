// The virtual tree: joining a client's path with the current directory, turning a virtual path
// into the file system's under the served root (its directory part resolved, its last component
// as typed), and the commands that move the current directory. System code.
#include <cstring>

#include "daemon/ftpd.h"
#include "runtime/files.h"
#include "runtime/heap.h"
#include "runtime/string.h"

namespace orlix {

char* ftpd_build_path(FtpdSession* session, char* out, char* limit, const char* argument)
{
    const char* p = argument;
    char* end;
    if (*p == '/') {
        out[0] = '/';
        out[1] = '\0';
        end = out + 1;
        ++p;
    } else {
        std::size_t length = std::strlen(session->cwd);
        std::memcpy(out, session->cwd, length + 1);
        end = out + length;
    }
    while (*p != '\0') {
        const char* slash = std::strchr(p, '/');
        std::size_t length = slash != nullptr ? static_cast<std::size_t>(slash - p) : std::strlen(p);
        if (length == 0) {
            ++p;
            continue;
        }
        if (end + length + 1 >= limit)
            return nullptr;
        if (end[-1] != '/')
            *end++ = '/';
        std::memcpy(end, p, length);
        end += length;
        *end = '\0';
        p += length;
        if (*p == '/')
            ++p;
    }
    return out;
}

char* ftpd_effective_path(FtpdSession* session, const char* path)
{
    const char* virtual_path = path != nullptr ? path : session->cwd;
    const FtpdServer* server = session->server;
    std::size_t root_length = server->root_length;
    std::size_t path_length = std::strlen(virtual_path);
    char* scratch = session->path_scratch;
    if (root_length + 2 + path_length + 1 > PATH_BUFFER)
        return nullptr;
    std::memcpy(scratch, server->root, root_length);
    scratch[root_length] = '/';
    scratch[root_length + 1] = '/';
    std::memcpy(scratch + root_length + 2, virtual_path, path_length + 1);

    char* split = scratch + root_length + 2 + path_length;
    while (*split != '/' && *split != '\\')
        --split;
    *split = '\0';
    char* resolved = session->resolved_path;
    if (realpath(scratch, resolved) == nullptr)
        return nullptr;
    const char* root = session->root_realpath;
    for (std::size_t i = 0; root[i] != '\0'; ++i)
        if (resolved[i] != root[i])
            return nullptr;
    *split = '/';
    std::size_t resolved_length = std::strlen(resolved);
    std::size_t rest_length = std::strlen(split);
    if (resolved_length + rest_length + 1 > PATH_BUFFER)
        return nullptr;
    std::memcpy(resolved + resolved_length, split, rest_length + 1);
    return strdup(resolved);
}

std::int32_t ftpd_cmd_CWD(FtpdSession* session, char* argument)
{
    char built[BUILT_PATH_LIMIT + 1];
    char* path = ftpd_build_path(session, built, built + BUILT_PATH_LIMIT, argument);
    char* effective = path != nullptr ? ftpd_effective_path(session, path) : nullptr;
    if (effective == nullptr) {
        ftpd_sendstr(session, session->control_socket, ftpd_error_504);
        return 0;
    }
    struct stat st;
    bool directory = stat(effective, &st) == 0 && is_dir(st.st_mode);
    free(effective);
    if (directory) {
        ftpd_sendstr(session, session->control_socket, "250 CWD command successful\r\n");
        std::strcpy(session->cwd, built);
    } else {
        ftpd_sendf(session, session->control_socket, "550 %s: No such file or directory\r\n", argument);
    }
    return 0;
}

std::int32_t ftpd_cmd_CDUP(FtpdSession* session, char*)
{
    char* last = std::strrchr(session->cwd, '/');
    if (last == session->cwd)
        last[1] = '\0';
    else
        *last = '\0';
    ftpd_sendstr(session, session->control_socket, "250 CDUP command successful\r\n");
    return 0;
}

std::int32_t ftpd_cmd_PWD(FtpdSession* session, char*)
{
    ftpd_sendf(session, session->control_socket, "257 \"%s\" is the current directory\r\n", session->cwd);
    return 0;
}

} // namespace orlix
