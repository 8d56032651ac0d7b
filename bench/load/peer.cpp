// vsftpd as a peer: anonymous sessions chrooted to the served root, uploads into one directory,
// passive mode, no logs, nothing that needs more of the machine than a loopback port.
#include "bench/load/peer.h"

#include <pwd.h>

#include <fstream>
#include <stdexcept>

namespace load {
namespace {

constexpr const char* ANONYMOUS_ACCOUNT = "ftp";

}  // namespace

uid_t vsftpd_anonymous_uid()
{
    const passwd* account = ::getpwnam(ANONYMOUS_ACCOUNT);
    if (!account)
        throw std::runtime_error("the peer needs the account \"ftp\", which Debian's vsftpd makes");
    return account->pw_uid;
}

std::vector<std::string> vsftpd_command(const std::filesystem::path& binary, std::uint16_t port,
                                        const std::filesystem::path& root,
                                        const std::filesystem::path& work)
{
    std::filesystem::path empty = work / "empty";
    std::filesystem::create_directory(empty);
    std::filesystem::path config = work / "vsftpd.conf";
    std::ofstream out(config);
    out << "listen=YES\nlisten_ipv6=NO\nlisten_address=127.0.0.1\nlisten_port=" << port << "\n"
        << "background=NO\n"
        << "anonymous_enable=YES\nno_anon_password=YES\nlocal_enable=NO\n"
        << "ftp_username=" << ANONYMOUS_ACCOUNT << "\nanon_root=" << root.string() << "\n"
        << "write_enable=YES\nanon_upload_enable=YES\nanon_umask=022\n"
        << "pasv_enable=YES\nconnect_from_port_20=NO\n"
        << "max_clients=0\nmax_per_ip=0\n"
        << "xferlog_enable=NO\nsyslog_enable=NO\ndirmessage_enable=NO\n"
        << "vsftpd_log_file=" << (work / "vsftpd.log").string() << "\n"
        << "secure_chroot_dir=" << empty.string() << "\n"
        // Namespaces and a seccomp filter may be refused inside a container.
        << "seccomp_sandbox=NO\nisolate=NO\nisolate_network=NO\n";
    if (!out.flush())
        throw std::runtime_error("cannot write " + config.string());
    return {binary.string(), config.string()};
}

Service vsftpd_service(const std::string& upload_dir)
{
    return {0, "anonymous", "load@", upload_dir};
}

}  // namespace load
