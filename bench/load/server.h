// Servers under test as child processes of the driver: started with their output in a log file,
// stopped by SIGTERM, and watched through /proc for CPU time and proportional memory.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace load {

class ServerProcess {
public:
    // Starts argv[0] with the arguments, its standard output and error appended to `log`, then
    // waits until `port` answers with a 220 greeting. Throws, with the log's tail, if the server
    // exits or stays silent for 10 seconds.
    ServerProcess(const std::vector<std::string>& argv, const std::filesystem::path& log,
                  std::uint16_t port);
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;
    ~ServerProcess();

    pid_t pid() const { return pid_; }
    // The exit status text if the process has ended, else nothing. Safe from any thread.
    std::optional<std::string> ended();
    // SIGTERM, up to 5 seconds for the end, then SIGKILL; then SIGKILL to what is left of its
    // process group. Returns how it ended.
    std::string stop();
    // The last lines of the log, for messages.
    std::string log_tail() const;

private:
    void await_greeting(std::uint16_t port);

    pid_t pid_ = -1;
    std::filesystem::path log_;
    std::mutex lock_;  // guards status_
    std::optional<std::string> status_;
};

// CPU time of the process and of the children it has reaped (utime + stime + cutime + cstime of
// /proc/PID/stat), in microseconds.
std::uint64_t cpu_us(pid_t pid);

// CPU time of the calling process (the driver itself), user and system, in microseconds.
std::uint64_t own_cpu_us();

// Sum of "Pss:" of /proc/P/smaps_rollup over the process and all its descendants, in KiB: a server
// that forks per session is counted whole.
std::uint64_t tree_pss_kib(pid_t pid);

}  // namespace load
