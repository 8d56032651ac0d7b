// One pass of every measurement against one running server.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <string>

#include "bench/load/ftp_client.h"
#include "bench/load/report.h"
#include "bench/load/server.h"
#include "bench/load/tree.h"

namespace load {

struct SuiteOptions {
    std::chrono::milliseconds session_run{2000};  // per concurrency level
};

// Starts the server under test on a port, ready to serve; throws if it cannot.
using Launcher = std::function<std::unique_ptr<ServerProcess>(std::uint16_t port)>;

// Starts a server that serves `tree` and measures every figure of it, reached as `service` on a
// free port, telling `progress` each one as it comes. A measurement that fails leaves its figures
// empty with the reason. A server that has ended is started anew, on a new port, for the
// measurements behind, and the notes say so; the last one is stopped with SIGTERM at the end.
Results measure(const std::string& name, const Service& service, const Launcher& launch,
                const ServedTree& tree, const SuiteOptions& options, std::ostream& progress);

}  // namespace load
