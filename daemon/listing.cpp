// LIST, NLST and MLSD: a directory's entries over a data connection, in readdir's order, one
// send per line part as each format says, 150 before and 226 after. System code.
#include <cstring>

#include "daemon/ftpd.h"
#include "daemon/listing.h"
#include "runtime/dirent.h"
#include "runtime/errno.h"
#include "runtime/format.h"
#include "runtime/heap.h"
#include "runtime/string.h"

namespace orlix {

namespace {

enum ListMode { LIST_MODE = 0, NLST_MODE = 1, MLSD_MODE = 2 };

constexpr std::size_t TEXT_BUFFER = 4304;
constexpr std::size_t LIST_TARGET_ROOM = 4296;
constexpr std::size_t MLSD_TARGET_ROOM = 2148;
constexpr std::size_t ENTRY_PATH_EXTRA = 4098;

void send(FtpdSession* session, int socket, const char* text)
{
    ftpd_sendstr(session, static_cast<std::uint32_t>(socket), text);
}

// The path a link's target is read by: the current virtual directory, "/" and the name, in
// list_scratch; null when they don't fit. That path is not put under the root: a target shows
// only where it reaches a link of the same name.
const char* link_path(FtpdSession* session, const char* name)
{
    std::size_t cwd_length = std::strlen(session->cwd);
    if (cwd_length > BUILT_PATH_LIMIT || std::strlen(name) >= BUILT_PATH_LIMIT + 1 - cwd_length)
        return nullptr;
    char* path = session->list_scratch;
    std::memcpy(path, session->cwd, cwd_length);
    path[cwd_length] = '/';
    std::strcpy(path + cwd_length + 1, name);
    return path;
}

void send_list_line(FtpdSession* session, int socket, char* text, const struct stat* st, const char* name)
{
    char* end = ftpd_format_list(text, st, name);
    if (is_link(st->st_mode)) {
        std::memcpy(end, " -> ", 4);
        end += 4;
        const char* path = link_path(session, name);
        std::int64_t length =
            path != nullptr ? readlink(path, end, LIST_TARGET_ROOM - static_cast<std::size_t>(end - text)) : -1;
        if (length > 0)
            end += length;
    }
    std::memcpy(end, "\r\n", 2);
    end += 2;
    ftpd_sendstrl(session, static_cast<std::uint32_t>(socket), text, static_cast<std::uint64_t>(end - text));
}

// spare: room behind the entry's name in the entry path buffer, for a link's target.
void send_mlsd_line(FtpdSession* session, int socket, char* text, char* spare, const struct stat* own,
                    const char* name)
{
    const char* target = nullptr;
    struct stat target_st;
    bool examined = false;
    // The target of a link whose name begins with a dot is not read.
    const char* path = is_link(own->st_mode) && name[0] != '.' ? link_path(session, name) : nullptr;
    if (path != nullptr) {
        bool read = readlink(path, spare, MLSD_TARGET_ROOM) >= 0;
        examined = stat(path, &target_st) == 0;
        if (read && examined)
            target = spare;
    }
    char* end = ftpd_format_mlsd(text, own, name, target, examined ? &target_st : nullptr,
                                 (session->login_flags & LOGIN_WRITE) != 0);
    ftpd_sendstrl(session, static_cast<std::uint32_t>(socket), text, static_cast<std::uint64_t>(end - text));
    send(session, socket, name);
    send(session, socket, "\r\n");
}

// NLST's pattern: the directory to read and the pattern, or false when the "*" stands before the
// first separator.
bool split_pattern(const char* resolved, char* text, const char** directory, const char** pattern)
{
    const char* star = std::strchr(resolved, '*');
    if (star == nullptr)
        return true;
    const char* separator = std::strchr(resolved, '/');
    if (separator == nullptr)
        separator = std::strchr(resolved, '\\');
    if (separator == nullptr || star <= separator)
        return false;
    auto length = static_cast<std::size_t>(star - separator);
    std::memcpy(text, resolved, length);
    text[length] = '\0';
    *directory = text;
    *pattern = separator + 1;
    return true;
}

// Sends the entries of an open directory between the 150 and the 226.
void send_entries(FtpdSession* session, int socket, DIR* dir, char* entry_path, char* name_at, char* text,
                  const char* pattern, const char* command, int mode)
{
    ftpd_sendf(session, session->control_socket, "150 Opening %s mode data connection for %s\r\n",
               session->transfer_type == 'A' ? "ASCII" : "BINARY", command);
    while (dirent* entry = readdir(dir)) {
        if (pattern != nullptr && !ftpd_pattern_match(pattern, entry->d_name))
            continue;
        std::strcpy(name_at, entry->d_name);
        struct stat st;
        if (lstat(entry_path, &st) != 0)
            continue;
        if (mode == LIST_MODE) {
            send_list_line(session, socket, text, &st, entry->d_name);
        } else if (mode == NLST_MODE) {
            send(session, socket, entry->d_name);
            send(session, socket, "\r\n");
        } else {
            send_mlsd_line(session, socket, text, name_at + std::strlen(name_at) + 1, &st, entry->d_name);
        }
    }
    ftpd_sendstr(session, session->control_socket, "226 Transfer complete\r\n");
}

// Reads the directory and sends it; every reply on the control socket is its own.
void list_directory(FtpdSession* session, int socket, const char* directory, char* text, const char* pattern,
                    const char* command, int mode)
{
    std::size_t length = std::strlen(directory);
    auto* entry_path = static_cast<char*>(malloc(length + ENTRY_PATH_EXTRA));
    if (entry_path == nullptr) {
        int saved = errno;
        std::uint32_t control = session->control_socket;
        ftpd_sendstr(session, control, "550: ");
        ftpd_sendstr(session, control, directory);
        ftpd_sendstr(session, control, ": ");
        ftpd_sendstr(session, control, strerror(saved));
        ftpd_sendstr(session, control, "\r\n");
        return;
    }
    std::memcpy(entry_path, directory, length);
    entry_path[length] = '/';
    DIR* dir = opendir(directory);
    if (dir == nullptr) {
        sprintf(entry_path, "550 %s: %s\r\n", directory, strerror(errno));
        ftpd_sendstr(session, session->control_socket, entry_path);
    } else {
        send_entries(session, socket, dir, entry_path, entry_path + length + 1, text, pattern, command, mode);
        closedir(dir);
    }
    free(entry_path);
}

std::int32_t ftpd_cmd_list_impl(FtpdSession* session, char* argument, const char* command, int mode)
{
    int socket = ftpd_open_conn(session);
    if (socket < 0) {
        ftpd_sendstr(session, session->control_socket, ftpd_error_425);
        ftpd_close_conn(session);
        return 0;
    }
    const char* path = argument;
    if (path != nullptr && path[0] == '-') {
        while (*path != '\0' && *path != ' ')
            ++path;
        if (*path == ' ')
            ++path;
    }
    char text[TEXT_BUFFER];
    char* resolved;
    if (path != nullptr && *path != '\0') {
        char* built = ftpd_build_path(session, text, text + BUILT_PATH_LIMIT, path);
        resolved = built != nullptr ? ftpd_effective_path(session, built) : nullptr;
        struct stat st;
        if (resolved != nullptr && stat(resolved, &st) != 0) {
            ftpd_sendf(session, session->control_socket, "550 %s: %s\r\n", path, strerror(errno));
            ftpd_close_conn(session);
            free(resolved);
            return 0;
        }
    } else {
        resolved = ftpd_effective_path(session, nullptr);
    }
    const char* directory = resolved;
    const char* pattern = nullptr;
    if (resolved == nullptr || (mode == NLST_MODE && !split_pattern(resolved, text, &directory, &pattern)))
        ftpd_sendstr(session, session->control_socket, ftpd_error_504);
    else
        list_directory(session, socket, directory, text, pattern, command, mode);
    free(resolved);
    ftpd_close_conn(session);
    return 0;
}

} // namespace

bool ftpd_pattern_match(const char* pattern, const char* name)
{
    if (*pattern == '\0')
        return *name == '\0';
    for (;;) {
        if (*name == '\0')
            return false;
        if (*pattern != '*') {
            if (*pattern != *name)
                return false;
            ++pattern;
            ++name;
            if (*pattern == '\0')
                return *name == '\0';
        } else if (pattern[1] == name[1]) {
            // The "*" is done; the two equal characters are the current ones now.
            ++pattern;
            ++name;
            if (*pattern == '\0')
                return true;
        } else {
            ++name;
        }
    }
}

std::int32_t ftpd_cmd_LIST(FtpdSession* session, char* argument)
{
    return ftpd_cmd_list_impl(session, argument, "LIST", LIST_MODE);
}

std::int32_t ftpd_cmd_NLST(FtpdSession* session, char* argument)
{
    return ftpd_cmd_list_impl(session, argument, "NLST", NLST_MODE);
}

std::int32_t ftpd_cmd_MLSD(FtpdSession* session, char* argument)
{
    return ftpd_cmd_list_impl(session, argument, "MLSD", MLSD_MODE);
}

} // namespace orlix
