// Users: the line format of the user file and of USER arguments, the tree's comparisons, and the
// USER and PASS commands that set a session's login state. System code.
#include <cstring>

#include "daemon/ftpd.h"
#include "runtime/string.h"
#include "runtime/syslog.h"

namespace orlix {

namespace {

constexpr char ANONYMOUS_NAME[] = "anonymus";
constexpr std::size_t USER_ARGUMENT_MAX = 32;

std::int32_t log_in(FtpdSession* session, const char* name)
{
    syslog(LOG_INFO_LEVEL, "user %s logged in from %s", name, session->peer_text);
    ftpd_sendf(session, session->control_socket, "230 User %s logged in\r\n", name);
    return 0;
}

} // namespace

int ftpd_parse_user(const char* line, FtpdUser* user)
{
    std::memset(user, 0, sizeof *user);
    char name[USER_FIELD_MAX + 1] = {};
    std::size_t length = 0;
    const char* p = line;
    for (; *p != ','; ++p) {
        if (*p == '\0' || length == USER_FIELD_MAX)
            return 1;
        name[length++] = *p;
    }
    user->name = strdup(name);
    if (user->name == nullptr)
        return 2;
    ++p;
    if (p[0] != 'r' || (p[1] != 'o' && p[1] != 'w') || p[2] != ',')
        return 3;
    user->rights = p[1] == 'w' ? (LOGIN_OK | LOGIN_WRITE) : LOGIN_OK;
    p += 3;
    for (std::size_t i = 0; p[i] != '\0'; ++i) {
        if (i == USER_FIELD_MAX)
            return 4;
        user->password[i] = p[i];
    }
    return 0;
}

std::int32_t ftpd_cmp_lt(const void* a, const void* b)
{
    return std::strcmp(*static_cast<char* const*>(a), *static_cast<char* const*>(b)) < 0;
}

std::int32_t ftpd_cmp_eq(const void* a, const void* b)
{
    return std::strcmp(*static_cast<char* const*>(a), *static_cast<char* const*>(b)) == 0;
}

std::int32_t ftpd_cmd_USER(FtpdSession* session, char* argument)
{
    if (std::strlen(argument) > USER_ARGUMENT_MAX) {
        ftpd_sendstr(session, session->control_socket, ftpd_error_501);
        return 0;
    }
    if (session->server->users == nullptr) {
        session->login_flags = LOGIN_OK | LOGIN_WRITE;
        return log_in(session, argument);
    }
    if (std::strcmp(argument, ANONYMOUS_NAME) == 0) {
        session->login_flags = LOGIN_OK;
        return log_in(session, argument);
    }
    auto* user = static_cast<FtpdUser*>(btree_find(session->server->users, &argument));
    if (user == nullptr) {
        ftpd_sendstr(session, session->control_socket, ftpd_error_430);
        return 1;
    }
    session->user = user;
    session->login_flags = LOGIN_PASSWORD_WAIT;
    ftpd_sendf(session, session->control_socket, "331 Password required for %s\r\n", argument);
    return 0;
}

std::int32_t ftpd_cmd_PASS(FtpdSession* session, char* argument)
{
    if (session->user == nullptr || !(session->login_flags & LOGIN_PASSWORD_WAIT)) {
        ftpd_sendstr(session, session->control_socket, ftpd_error_503);
        return 0;
    }
    if (std::strcmp(argument, session->user->password) != 0) {
        ftpd_sendstr(session, session->control_socket, ftpd_error_430);
        return 1;
    }
    session->login_flags = (session->login_flags & ~LOGIN_PASSWORD_WAIT) | LOGIN_OK | session->user->rights;
    return log_in(session, session->user->name);
}

} // namespace orlix
