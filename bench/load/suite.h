// One pass of every measurement against one running server.
#pragma once

#include <chrono>
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

// Measures every figure of `server`, which serves `tree`, and tells `progress` each figure as it
// comes. A measurement that fails leaves its figure empty with the reason; if the server ends,
// the figures behind it are left empty too.
Results measure(const std::string& name, const Service& service, ServerProcess& server,
                const ServedTree& tree, const SuiteOptions& options, std::ostream& progress);

}  // namespace load
