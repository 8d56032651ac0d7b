// The order of the measurements and the bookkeeping around them: the idle-memory figure comes
// first, while the server is fresh; the bulk transfers come last.
#include "bench/load/suite.h"

#include <algorithm>
#include <cstdio>
#include <functional>
#include <initializer_list>
#include <vector>

#include "bench/load/scenarios.h"
#include "bench/load/socket.h"

namespace load {
namespace {

constexpr int IDLE_SESSIONS = 100;
constexpr int NOOPS = 20000;
constexpr int LISTING_RUNS = 5;
constexpr int BIG_RUNS = 3;

double median_of(int runs, const std::function<double()>& measure)
{
    std::vector<double> values;
    for (int i = 0; i < runs; ++i)
        values.push_back(measure());
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

std::string two_places(double value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.2f", value);
    return text;
}

Figure offset(Figure first, std::size_t index)
{
    return static_cast<Figure>(static_cast<std::size_t>(first) + index);
}

class Pass {
public:
    Pass(const std::string& name, const Service& service, const Launcher& launch,
         const ServedTree& tree, const SuiteOptions& options, std::ostream& progress)
        : service_(service), launch_(launch), tree_(tree), options_(options), progress_(progress)
    {
        results_.server = name;
    }

    Results run();

private:
    // Runs `body`, which records `figures`; a failure or an earlier end of the server leaves
    // those it did not record empty, with the reason.
    void attempt(std::initializer_list<Figure> figures, const std::function<void()>& body);
    void record(Figure figure, double value);
    void note(const std::string& text);
    // A running server: the one there is, or a new one if it has ended. Throws if none starts.
    ServerProcess& server();
    void sessions();

    Service service_;  // its port is the running server's
    const Launcher& launch_;
    std::unique_ptr<ServerProcess> server_;
    const ServedTree& tree_;
    const SuiteOptions& options_;
    std::ostream& progress_;
    Results results_;
};

void Pass::record(Figure figure, double value)
{
    results_[figure].value = value;
    progress_ << results_.server << ": " << label_of(figure) << " " << value << std::endl;
}

void Pass::note(const std::string& text)
{
    results_.notes.push_back(text);
    progress_ << results_.server << ": " << text << std::endl;
}

ServerProcess& Pass::server()
{
    if (server_) {
        std::optional<std::string> status = server_->ended();
        if (!status)
            return *server_;
        note("server ended (" + *status + "); started anew for what follows. Its log ended:\n" +
             server_->log_tail());
        server_.reset();
    }
    service_.port = free_port();
    server_ = launch_(service_.port);
    return *server_;
}

void Pass::attempt(std::initializer_list<Figure> figures, const std::function<void()>& body)
{
    std::string error;
    try {
        body();
    } catch (const std::exception& failure) {
        error = failure.what();
    }
    for (Figure figure : figures) {
        if (!results_[figure].value) {
            results_[figure].error = error.empty() ? "not measured" : error;
            progress_ << results_.server << ": " << label_of(figure) << " failed: "
                      << results_[figure].error << std::endl;
        }
    }
}

void Pass::sessions()
{
    std::uint64_t cpu = 0, completed = 0, all_completed = 0;
    std::uint64_t driver_before = own_cpu_us();
    std::string excluded;
    for (std::size_t i = 0; i < std::size(SESSION_LEVELS); ++i) {
        int level = SESSION_LEVELS[i];
        ServerProcess& running = server();
        std::uint64_t cpu_before = cpu_us(running.pid());
        SessionRun run = run_sessions(service_, level, options_.session_run,
                                      [&] { return !running.ended(); });
        record(offset(Figure::sessions_1, i), run.per_second());
        record(offset(Figure::failed_1, i), static_cast<double>(run.failed));
        all_completed += run.completed + run.late;
        // Sessions that stall past the window would otherwise hide in the rate.
        if (run.slowest > 1) {
            note("sessions at " + std::to_string(level) + " concurrent: the slowest took " +
                 two_places(run.slowest) + " s; " + std::to_string(run.late) +
                 " that succeeded after the window are not counted; the run ended " +
                 two_places(run.overrun) + " s after it");
        }
        if (run.failed > 0) {
            note(std::to_string(run.failed) + " of " +
                 std::to_string(run.failed + run.completed + run.late) +
                 " sessions at " + std::to_string(level) + " concurrent failed; the first: " +
                 run.first_failure);
        }
        // A server that died in the run took its CPU time with it.
        if (running.ended()) {
            excluded += ' ';
            excluded += std::to_string(level);
            continue;
        }
        cpu += cpu_us(running.pid()) - cpu_before;
        completed += run.completed + run.late;
    }
    // The driver shares the machine's cores with the server; its cost bounds what can be seen.
    if (all_completed > 0) {
        note("the driver's own CPU per session: " +
             std::to_string((own_cpu_us() - driver_before) / all_completed) + " us");
    }
    if (completed == 0)
        throw std::runtime_error("no session completed on a server that stayed up");
    record(Figure::cpu_per_session, static_cast<double>(cpu) / static_cast<double>(completed));
    if (!excluded.empty())
        note("CPU per session leaves out the runs in which the server ended, at" + excluded +
             " concurrent");
}

Results Pass::run()
{
    attempt({Figure::idle_pss}, [&] {
        record(Figure::idle_pss, idle_session_pss_kib(service_, server().pid(), IDLE_SESSIONS));
    });
    attempt({Figure::noop_p50, Figure::noop_p99}, [&] {
        server();
        RoundTrips trips = noop_round_trips(service_, NOOPS);
        record(Figure::noop_p50, trips.p50_us);
        record(Figure::noop_p99, trips.p99_us);
    });
    attempt({Figure::sessions_1, Figure::sessions_16, Figure::sessions_64, Figure::sessions_128,
             Figure::failed_1, Figure::failed_16, Figure::failed_64, Figure::failed_128,
             Figure::cpu_per_session},
            [&] { sessions(); });
    attempt({Figure::small_retrs}, [&] {
        server();
        record(Figure::small_retrs, small_retrs_per_second(service_));
    });
    const std::pair<Figure, const char*> listings[] = {
        {Figure::list_many, "LIST"}, {Figure::mlsd_many, "MLSD"}, {Figure::nlst_many, "NLST"}};
    for (const auto& [figure, verb] : listings) {
        attempt({figure}, [&] {
            server();
            auto once = [&] { return listing_seconds(service_, verb); };
            record(figure, median_of(LISTING_RUNS, once));
        });
    }
    attempt({Figure::retr_big}, [&] {
        server();
        record(Figure::retr_big, median_of(BIG_RUNS, [&] { return retr_mbps(service_); }));
    });
    attempt({Figure::stor_big}, [&] {
        server();
        auto once = [&] { return stor_mbps(service_, tree_.root()); };
        record(Figure::stor_big, median_of(BIG_RUNS, once));
    });
    if (server_)
        note("stopped: " + server_->stop());
    return std::move(results_);
}

}  // namespace

Results measure(const std::string& name, const Service& service, const Launcher& launch,
                const ServedTree& tree, const SuiteOptions& options, std::ostream& progress)
{
    return Pass(name, service, launch, tree, options, progress).run();
}

}  // namespace load
