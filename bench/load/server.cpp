// Child processes of the driver and what /proc says about them.
#include "bench/load/server.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "bench/load/ftp_client.h"

namespace load {
namespace {

using Clock = std::chrono::steady_clock;

// The fields of /proc/PID/stat behind the command name, which may hold blanks and parentheses:
// element 0 is field 3 (state).
std::vector<std::string> stat_fields(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::size_t close = text.rfind(')');
    if (close == std::string::npos)
        return {};
    std::istringstream rest(text.substr(close + 1));
    std::vector<std::string> fields;
    for (std::string field; rest >> field;)
        fields.push_back(field);
    return fields;
}

std::uint64_t pss_kib(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/smaps_rollup");
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("Pss:", 0) == 0)
            return std::stoull(line.substr(4));
    }
    return 0;
}

// Runs in the child between fork and exec, so it only makes system calls.
[[noreturn]] void exec_child(char* const* args, const char* log)
{
    // Never outlive the driver, and keep any processes the server forks in one group.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::setpgid(0, 0);
    int out = ::open(log, O_WRONLY | O_CREAT | O_APPEND, 0644);
    int null = ::open("/dev/null", O_RDONLY);
    if (out < 0 || null < 0 || ::dup2(null, 0) < 0 || ::dup2(out, 1) < 0 || ::dup2(out, 2) < 0)
        ::_exit(126);
    ::execv(args[0], args);
    ::_exit(127);
}

}  // namespace

ServerProcess::ServerProcess(const std::vector<std::string>& argv, const std::filesystem::path& log,
                             std::uint16_t port)
    : log_(log)
{
    std::vector<char*> args;
    for (const std::string& arg : argv)
        args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    pid_ = ::fork();
    if (pid_ < 0)
        throw std::runtime_error("fork failed");
    if (pid_ == 0)
        exec_child(args.data(), log.c_str());
    try {
        await_greeting(port);
    } catch (...) {
        stop();
        throw;
    }
}

ServerProcess::~ServerProcess()
{
    stop();
}

void ServerProcess::await_greeting(std::uint16_t port)
{
    Service probe{port, {}, {}, {}};
    auto deadline = Clock::now() + std::chrono::seconds(10);
    std::string last = "no answer";
    while (Clock::now() < deadline) {
        if (auto status = ended())
            throw std::runtime_error("server ended at start (" + *status + "):\n" + log_tail());
        try {
            Control control(probe, std::chrono::seconds(2));
            control.expect_reply(220, "greeting");
            control.expect("QUIT", 221);
            control.await_close();
            return;
        } catch (const std::exception& error) {
            last = error.what();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    throw std::runtime_error("server did not greet within 10 s (" + last + "):\n" + log_tail());
}

std::optional<std::string> ServerProcess::ended()
{
    // The child is only looked at, not reaped: while it stays a zombie its id, and so its process
    // group's, cannot be taken by another process.
    std::lock_guard guard(lock_);
    siginfo_t info{};
    if (!status_ && pid_ > 0 &&
        ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
        info.si_pid == pid_)
        status_ = info.si_code == CLD_EXITED ? "exit status " + std::to_string(info.si_status)
                                             : "signal " + std::to_string(info.si_status);
    return status_;
}

std::string ServerProcess::stop()
{
    if (pid_ <= 0)
        return status_.value_or("not started");
    if (ended()) {
        status_ = "had ended before SIGTERM: " + *status_;
    } else {
        ::kill(pid_, SIGTERM);
        auto deadline = Clock::now() + std::chrono::seconds(5);
        while (!ended() && Clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        if (!ended())
            status_ = "still running 5 s after SIGTERM, killed";
        else
            status_ = "ended on SIGTERM: " + *status_;
    }
    // Session processes of a forking server may outlive it; they are in its group.
    ::kill(-pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
    return *status_;
}

std::string ServerProcess::log_tail() const
{
    std::ifstream in(log_);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    std::string tail;
    for (std::size_t i = lines.size() > 10 ? lines.size() - 10 : 0; i < lines.size(); ++i)
        tail += "    " + lines[i] + "\n";
    return tail.empty() ? "    (log is empty)\n" : tail;
}

std::uint64_t cpu_us(pid_t pid)
{
    std::vector<std::string> fields = stat_fields(pid);
    if (fields.size() < 15)
        throw std::runtime_error("cannot read /proc/" + std::to_string(pid) + "/stat");
    std::uint64_t ticks = 0;
    for (std::size_t field = 14; field <= 17; ++field)  // utime, stime, cutime, cstime
        ticks += std::stoull(fields[field - 3]);
    return ticks * 1000000 / static_cast<std::uint64_t>(::sysconf(_SC_CLK_TCK));
}

std::uint64_t own_cpu_us()
{
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    auto us = [](const timeval& t) {
        return static_cast<std::uint64_t>(t.tv_sec) * 1000000 +
               static_cast<std::uint64_t>(t.tv_usec);
    };
    return us(usage.ru_utime) + us(usage.ru_stime);
}

std::uint64_t tree_pss_kib(pid_t pid)
{
    std::multimap<pid_t, pid_t> children;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        std::string name = entry.path().filename();
        if (name.find_first_not_of("0123456789") != std::string::npos)
            continue;
        std::vector<std::string> fields = stat_fields(std::stoi(name));
        if (fields.size() > 1)
            children.emplace(std::stoi(fields[1]), std::stoi(name));
    }
    std::uint64_t total = 0;
    std::vector<pid_t> pending{pid};
    while (!pending.empty()) {
        pid_t next = pending.back();
        pending.pop_back();
        total += pss_kib(next);
        auto [first, last] = children.equal_range(next);
        for (auto it = first; it != last; ++it)
            pending.push_back(it->second);
    }
    return total;
}

}  // namespace load
