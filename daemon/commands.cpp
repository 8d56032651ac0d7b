// The command table: each command's handler and the checks the command loop applies before it.
// QUIT is no row: the loop serves it itself. System code.
#include "daemon/ftpd.h"

namespace orlix {

const FtpdCommand ftpd_commands[] = {
    {"NOOP", ftpd_cmd_NOOP, CMD_NO_LOGIN},
    {"USER", ftpd_cmd_USER, CMD_NO_LOGIN | CMD_NEEDS_ARG},
    {"PASS", ftpd_cmd_PASS, CMD_NO_LOGIN | CMD_NEEDS_ARG},
    {"SYST", ftpd_cmd_SYST, 0},
    {"FEAT", ftpd_cmd_FEAT, 0},
    {"CDUP", ftpd_cmd_CDUP, 0},
    {"CWD", ftpd_cmd_CWD, CMD_NEEDS_ARG},
    {"PWD", ftpd_cmd_PWD, 0},
    {"TYPE", ftpd_cmd_TYPE, CMD_NEEDS_ARG},
    {"PASV", ftpd_cmd_PASV, 0},
    {"PORT", ftpd_cmd_PORT, CMD_NEEDS_ARG},
    {"LPRT", ftpd_cmd_LPRT, CMD_NEEDS_ARG},
    {"LIST", ftpd_cmd_LIST, CMD_NEEDS_DATA},
    {"NLST", ftpd_cmd_NLST, CMD_NEEDS_DATA},
    {"MLSD", ftpd_cmd_MLSD, CMD_FEATURE | CMD_NEEDS_DATA},
    {"SIZE", ftpd_cmd_SIZE, CMD_FEATURE | CMD_NEEDS_ARG},
    {"RETR", ftpd_cmd_RETR, CMD_NEEDS_ARG | CMD_NEEDS_DATA},
    {"STOR", ftpd_cmd_STOR, CMD_NEEDS_ARG | CMD_NEEDS_DATA | CMD_NEEDS_WRITE},
    {"DELE", ftpd_cmd_DELE, CMD_NEEDS_ARG | CMD_NEEDS_WRITE},
    {"MKD", ftpd_cmd_MKD, CMD_NEEDS_ARG | CMD_NEEDS_WRITE},
    {"RMD", ftpd_cmd_RMD, CMD_NEEDS_ARG | CMD_NEEDS_WRITE},
    {"RNFR", ftpd_cmd_RNFR, CMD_NEEDS_ARG | CMD_NEEDS_WRITE},
    {"RNTO", ftpd_cmd_RNTO, CMD_NEEDS_ARG | CMD_NEEDS_WRITE | CMD_EXPECTED_ONLY},
    {nullptr, nullptr, 0},
};

} // namespace orlix
