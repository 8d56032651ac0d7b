// load_driver: starts ftpd (and optionally vsftpd as a peer) on a temporary tree and a free
// loopback port, runs every measurement against it and prints the figures beside their targets.
// Usage: load_driver [FTPD] [--peer vsftpd[=PATH]] [--no-ftpd] [--session-seconds N]
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/load/peer.h"
#include "bench/load/suite.h"

namespace {

namespace fs = std::filesystem;
using namespace load;

struct Options {
    fs::path ftpd;
    bool run_ftpd = true;
    std::optional<fs::path> vsftpd;
    SuiteOptions suite;
};

constexpr const char* USAGE =
    "usage: load_driver [FTPD] [--peer vsftpd[=PATH]] [--no-ftpd] [--session-seconds N]\n"
    "  FTPD defaults to daemon/ftpd of the build tree this driver belongs to;\n"
    "  the peer's PATH defaults to /usr/sbin/vsftpd.\n";

// daemon/ftpd beside bench/load/load_driver in the same build tree.
fs::path default_ftpd()
{
    fs::path build = fs::read_symlink("/proc/self/exe").parent_path().parent_path().parent_path();
    return build / "daemon" / "ftpd";
}

Options parse(int argc, char** argv)
{
    Options options;
    options.ftpd = default_ftpd();
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--peer" && i + 1 < argc) {
            std::string peer = argv[++i];
            if (peer == "vsftpd")
                options.vsftpd = "/usr/sbin/vsftpd";
            else if (peer.rfind("vsftpd=", 0) == 0)
                options.vsftpd = peer.substr(7);
            else
                throw std::invalid_argument("unknown peer " + peer + " (only vsftpd is known)");
        } else if (arg == "--no-ftpd") {
            options.run_ftpd = false;
        } else if (arg == "--session-seconds" && i + 1 < argc) {
            options.suite.session_run = std::chrono::milliseconds(
                static_cast<long>(std::stod(argv[++i]) * 1000));
        } else if (!arg.empty() && arg[0] != '-') {
            options.ftpd = arg;
        } else {
            throw std::invalid_argument("unknown argument " + arg);
        }
    }
    return options;
}

// The first three fields of /proc/loadavg: other work on the machine shows in every figure.
std::string load_average()
{
    std::ifstream in("/proc/loadavg");
    std::string one, five, fifteen;
    in >> one >> five >> fifteen;
    return one + " " + five + " " + fifteen;
}

void require_program(const fs::path& path, const char* what, const char* hint)
{
    if (::access(path.c_str(), X_OK) != 0)
        throw std::runtime_error(std::string("no ") + what + " at " + path.string() + " (" + hint +
                                 ")");
}

// The command line that starts a server on a port.
using Command = std::function<std::vector<std::string>(std::uint16_t port)>;

Results run_server(const std::string& name, const Command& command, const Service& service,
                   const fs::path& log, const ServedTree& tree, const SuiteOptions& options)
{
    std::clog << name << ": load average " << load_average() << std::endl;
    Launcher launch = [&](std::uint16_t port) {
        std::vector<std::string> line = command(port);
        std::clog << name << ": starting " << line[0] << " on port " << port << std::endl;
        return std::make_unique<ServerProcess>(line, log, port);
    };
    Results results = measure(name, service, launch, tree, options, std::clog);
    results.notes.push_back("load average (1, 5, 15 min) after the run: " + load_average());
    return results;
}

int run(const Options& options)
{
    if (options.run_ftpd)
        require_program(options.ftpd, "ftpd", "build it, or name it as the first argument");
    if (options.vsftpd)
        require_program(*options.vsftpd, "vsftpd", "apt-get install vsftpd, or --peer vsftpd=PATH");
    TempDir work("ftpd-load-work");
    std::clog << "making the served tree (1 GiB file, 10,000 entries, 1,000 files of 4 KiB)"
              << std::endl;
    ServedTree tree(options.vsftpd ? vsftpd_anonymous_uid() : ::getuid());
    std::vector<Results> runs;
    if (options.run_ftpd) {
        Command command = [&](std::uint16_t port) {
            return std::vector<std::string>{options.ftpd.string(), tree.root().string(), "-p",
                                            std::to_string(port), "-L", "128"};
        };
        // With no user file every name logs in read-write without a password.
        Service service{0, "load", "", ServedTree::upload_dir()};
        runs.push_back(
            run_server("ftpd", command, service, work.path() / "ftpd.log", tree, options.suite));
    }
    if (options.vsftpd) {
        Command command = [&](std::uint16_t port) {
            return vsftpd_command(*options.vsftpd, port, tree.root(), work.path());
        };
        Results results = run_server("vsftpd", command, vsftpd_service(ServedTree::upload_dir()),
                                     work.path() / "vsftpd.out", tree, options.suite);
        results.notes.push_back(
            "forks per session: CPU counts the listener and the session processes it has reaped, "
            "PSS sums the listener and every process under it");
        runs.push_back(std::move(results));
    }
    std::cout << "\n";
    print_table(std::cout, runs);
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    try {
        options = parse(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "load_driver: " << error.what() << "\n" << USAGE;
        return 1;
    }
    try {
        return run(options);
    } catch (const std::exception& error) {
        std::cerr << "load_driver: " << error.what() << "\n";
        return 2;
    }
}
