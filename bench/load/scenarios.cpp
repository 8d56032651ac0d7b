// The measurements: sessions, round trips, bulk transfers, listings, small files, idle memory.
#include "bench/load/scenarios.h"

#include <algorithm>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "bench/load/server.h"
#include "bench/load/tree.h"

namespace load {
namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// A failed session gives up after this long on one step, so a run ends soon after its duration.
constexpr std::chrono::milliseconds SESSION_STEP_LIMIT{5000};

void one_session(const Service& service)
{
    Control control(service, SESSION_STEP_LIMIT);
    control.greet_and_login();
    control.expect("PWD", 257);
    control.expect("QUIT", 221);
    control.await_close();
}

// A logged-in control connection in binary mode.
std::unique_ptr<Control> binary_session(const Service& service)
{
    auto control = std::make_unique<Control>(service);
    control->greet_and_login();
    control->expect("TYPE I", 200);
    return control;
}

std::string upload_path(const Service& service)
{
    return service.upload_dir.empty() ? UPLOAD_FILE : service.upload_dir + "/" + UPLOAD_FILE;
}

// Reads the data connection to its end and returns the number of line feeds.
std::uint64_t count_lines(Socket& data)
{
    std::vector<char> buffer(1 << 16);
    std::uint64_t lines = 0;
    while (std::size_t got = data.receive(buffer))
        lines += static_cast<std::uint64_t>(std::count(buffer.data(), buffer.data() + got, '\n'));
    return lines;
}

}  // namespace

SessionRun run_sessions(const Service& service, int concurrency, std::chrono::milliseconds duration,
                        const std::function<bool()>& server_alive)
{
    SessionRun run;
    std::mutex lock;
    Clock::time_point start = Clock::now();
    Clock::time_point deadline = start + duration;
    std::vector<std::thread> clients;
    for (int i = 0; i < concurrency; ++i) {
        clients.emplace_back([&] {
            SessionRun mine;
            while (Clock::now() < deadline) {
                Clock::time_point begun = Clock::now();
                bool good = false;
                try {
                    one_session(service);
                    good = true;
                } catch (const std::exception& error) {
                    if (mine.failed++ == 0)
                        mine.first_failure = error.what();
                }
                Clock::time_point ended = Clock::now();
                double took = std::chrono::duration<double>(ended - begun).count();
                mine.slowest = std::max(mine.slowest, took);
                if (good)
                    ++(ended <= deadline ? mine.completed : mine.late);
                else if (!server_alive())
                    break;
            }
            std::lock_guard guard(lock);
            run.completed += mine.completed;
            run.late += mine.late;
            run.failed += mine.failed;
            run.slowest = std::max(run.slowest, mine.slowest);
            if (run.first_failure.empty())
                run.first_failure = mine.first_failure;
        });
    }
    for (std::thread& client : clients)
        client.join();
    run.window = std::chrono::duration<double>(duration).count();
    run.overrun = std::chrono::duration<double>(Clock::now() - deadline).count();
    return run;
}

RoundTrips noop_round_trips(const Service& service, int count)
{
    Control control(service);
    control.greet_and_login();
    for (int i = 0; i < count / 10; ++i)  // warm up the session's paths first
        control.expect("NOOP", 200);
    std::vector<double> samples;
    samples.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        Clock::time_point start = Clock::now();
        control.expect("NOOP", 200);
        samples.push_back(seconds_since(start) * 1e6);
    }
    control.expect("QUIT", 221);
    std::sort(samples.begin(), samples.end());
    return {samples[samples.size() / 2], samples[samples.size() * 99 / 100]};
}

double retr_mbps(const Service& service)
{
    auto control = binary_session(service);
    Socket data = control->open_passive();
    Clock::time_point start = Clock::now();
    control->send("RETR " + BIG_FILE);
    control->expect_reply(150, "RETR");
    std::vector<char> buffer(1 << 20);
    std::uint64_t received = data.drain(buffer);
    data = Socket();  // as clients do: some servers send 226 only once the client has closed
    control->expect_reply(226, "RETR");
    double seconds = seconds_since(start);
    if (received != BIG_SIZE)
        throw std::runtime_error("RETR delivered " + std::to_string(received) + " bytes of " +
                                 std::to_string(BIG_SIZE));
    control->expect("QUIT", 221);
    return static_cast<double>(received) / 1e6 / seconds;
}

double stor_mbps(const Service& service, const std::filesystem::path& root)
{
    std::filesystem::path stored = root / upload_path(service);
    std::filesystem::remove(stored);  // so that no run pays for truncating the last one's file
    auto control = binary_session(service);
    Socket data = control->open_passive();
    std::vector<char> block(1 << 20, 'u');
    Clock::time_point start = Clock::now();
    control->send("STOR " + upload_path(service));
    control->expect_reply(150, "STOR");
    for (std::uint64_t sent = 0; sent < BIG_SIZE; sent += block.size())
        data.send_all(block);
    data = Socket();
    control->expect_reply(226, "STOR");
    double seconds = seconds_since(start);
    std::uint64_t size = std::filesystem::file_size(stored);
    if (size != BIG_SIZE)
        throw std::runtime_error("STOR stored " + std::to_string(size) + " bytes of " +
                                 std::to_string(BIG_SIZE));
    control->expect("QUIT", 221);
    std::filesystem::remove(stored);
    return static_cast<double>(BIG_SIZE) / 1e6 / seconds;
}

double listing_seconds(const Service& service, std::string_view verb)
{
    Control control(service);
    control.greet_and_login();
    Socket data = control.open_passive();
    Clock::time_point start = Clock::now();
    std::string command = std::string(verb) + " " + MANY_DIR;
    control.send(command);
    control.expect_reply(150, command);
    std::uint64_t lines = count_lines(data);
    data = Socket();
    control.expect_reply(226, command);
    double seconds = seconds_since(start);
    if (lines < MANY_ENTRIES)
        throw std::runtime_error(command + " sent " + std::to_string(lines) + " lines for " +
                                 std::to_string(MANY_ENTRIES) + " entries");
    control.expect("QUIT", 221);
    return seconds;
}

double small_retrs_per_second(const Service& service)
{
    auto control = binary_session(service);
    std::vector<char> buffer(SMALL_SIZE * 2);
    Clock::time_point start = Clock::now();
    for (int i = 0; i < SMALL_FILES; ++i) {
        Socket data = control->open_passive();
        std::string command = "RETR " + small_file(i);
        control->send(command);
        control->expect_reply(150, command);
        std::uint64_t received = data.drain(buffer);
        data = Socket();
        control->expect_reply(226, command);
        if (received != SMALL_SIZE)
            throw std::runtime_error(command + " delivered " + std::to_string(received) + " bytes");
    }
    double seconds = seconds_since(start);
    control->expect("QUIT", 221);
    return SMALL_FILES / seconds;
}

double idle_session_pss_kib(const Service& service, pid_t server, int sessions)
{
    std::uint64_t idle = tree_pss_kib(server);
    std::vector<std::unique_ptr<Control>> open;
    for (int i = 0; i < sessions; ++i) {
        open.push_back(std::make_unique<Control>(service));
        open.back()->greet_and_login();
        open.back()->expect("PWD", 257);
    }
    // Let every worker settle into its wait for the next command.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    std::uint64_t busy = tree_pss_kib(server);
    // The sessions end by closing, without QUIT: how they end is no part of this figure. The
    // server is then given the time to end them, so the next measurement starts on a quiet one.
    open.clear();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    return (static_cast<double>(busy) - static_cast<double>(idle)) / sessions;
}

}  // namespace load
