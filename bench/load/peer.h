// A common FTP server started as a peer to compare against: vsftpd in standalone mode, serving
// the tree anonymously on a loopback port with a configuration written for the run.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "bench/load/ftp_client.h"

namespace load {

// The account vsftpd runs anonymous sessions as, which must own the upload directory.
uid_t vsftpd_anonymous_uid();

// Writes a configuration under `work` and returns the command line that starts `binary` with it.
std::vector<std::string> vsftpd_command(const std::filesystem::path& binary, std::uint16_t port,
                                        const std::filesystem::path& root,
                                        const std::filesystem::path& work);

// How the driver logs in to that configuration; the port is the running server's.
Service vsftpd_service(const std::string& upload_dir);

}  // namespace load
