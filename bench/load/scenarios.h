// The measurements of the load driver, each over real FTP sessions against one running server.
// Each throws when what the server did is wrong (a reply, a size, a count), so that a figure is
// never printed for work that was not done.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

#include "bench/load/ftp_client.h"

namespace load {

struct SessionRun {
    std::uint64_t completed = 0;  // sessions that succeeded and ended within the window
    std::uint64_t late = 0;       // sessions begun within the window that succeeded after it
    std::uint64_t failed = 0;     // sessions begun within the window that failed, whenever
    double window = 0;            // seconds
    double slowest = 0;           // seconds of the longest session, succeeded or failed
    double overrun = 0;           // seconds from the end of the window to the end of the run
    std::string first_failure;    // what went wrong the first time, if anything did

    double per_second() const { return static_cast<double>(completed) / window; }
};

// `concurrency` clients, each repeating connect, 220, USER (PASS if asked), PWD, QUIT and the
// server's close, beginning sessions for `duration`. A client that fails asks `server_alive` and
// stops if the server has gone, rather than count refused connections at full speed.
SessionRun run_sessions(const Service& service, int concurrency, std::chrono::milliseconds duration,
                        const std::function<bool()>& server_alive);

struct RoundTrips {
    double p50_us = 0;
    double p99_us = 0;
};

// NOOP round trips of one logged-in session.
RoundTrips noop_round_trips(const Service& service, int count);

// RETR of BIG_FILE over a passive connection, from the command to the 226 reply, in MB/s.
double retr_mbps(const Service& service);

// STOR of BIG_SIZE bytes into the upload directory, from the command to the 226 reply, in MB/s;
// checks the stored file's size under `root`.
double stor_mbps(const Service& service, const std::filesystem::path& root);

// LIST, NLST or MLSD of MANY_DIR, from the command to the 226 reply, in seconds; checks that at
// least MANY_ENTRIES lines arrived.
double listing_seconds(const Service& service, std::string_view verb);

// SMALL_FILES times PASV and RETR of a 4 KiB file in one session, files per second.
double small_retrs_per_second(const Service& service);

// Growth of the server's proportional set size with `sessions` logged-in idle sessions open,
// divided by their number, in KiB.
double idle_session_pss_kib(const Service& service, pid_t server, int sessions);

}  // namespace load
