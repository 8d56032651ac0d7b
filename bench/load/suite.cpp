// The order of the measurements and the bookkeeping around them: the idle-memory figure comes
// first, while the server is fresh; the bulk transfers come last.
#include "bench/load/suite.h"

#include <algorithm>
#include <functional>
#include <initializer_list>
#include <vector>

#include "bench/load/scenarios.h"

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

Figure offset(Figure first, std::size_t index)
{
    return static_cast<Figure>(static_cast<std::size_t>(first) + index);
}

class Pass {
public:
    Pass(const std::string& name, const Service& service, ServerProcess& server,
         const ServedTree& tree, const SuiteOptions& options, std::ostream& progress)
        : service_(service), server_(server), tree_(tree), options_(options), progress_(progress)
    {
        results_.server = name;
    }

    Results run();

private:
    // Runs `body`, which records `figures`; a failure or an earlier end of the server leaves
    // those it did not record empty, with the reason.
    void attempt(std::initializer_list<Figure> figures, const std::function<void()>& body);
    void record(Figure figure, double value);
    void sessions();

    const Service& service_;
    ServerProcess& server_;
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

void Pass::attempt(std::initializer_list<Figure> figures, const std::function<void()>& body)
{
    std::string error;
    if (auto status = server_.ended()) {
        error = "server had ended (" + *status + ")";
    } else {
        try {
            body();
        } catch (const std::exception& failure) {
            error = failure.what();
        }
        if (auto status = server_.ended()) {
            results_.notes.push_back("server ended during a measurement (" + *status + "); log:\n" +
                                     server_.log_tail());
        }
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
    std::uint64_t cpu_before = cpu_us(server_.pid());
    std::uint64_t completed = 0;
    for (std::size_t i = 0; i < std::size(SESSION_LEVELS); ++i) {
        SessionRun run = run_sessions(service_, SESSION_LEVELS[i], options_.session_run);
        record(offset(Figure::sessions_1, i), static_cast<double>(run.completed) / run.seconds);
        record(offset(Figure::failed_1, i), static_cast<double>(run.failed));
        if (run.failed > 0) {
            results_.notes.push_back(std::to_string(run.failed) + " of " +
                                     std::to_string(run.failed + run.completed) + " sessions at " +
                                     std::to_string(SESSION_LEVELS[i]) +
                                     " concurrent failed; the first: " + run.first_failure);
        }
        completed += run.completed;
    }
    std::uint64_t cpu_after = cpu_us(server_.pid());
    if (completed == 0)
        throw std::runtime_error("no session completed");
    record(Figure::cpu_per_session, static_cast<double>(cpu_after - cpu_before) / static_cast<double>(completed));
}

Results Pass::run()
{
    attempt({Figure::idle_pss}, [&] {
        record(Figure::idle_pss, idle_session_pss_kib(service_, server_.pid(), IDLE_SESSIONS));
    });
    attempt({Figure::noop_p50, Figure::noop_p99}, [&] {
        RoundTrips trips = noop_round_trips(service_, NOOPS);
        record(Figure::noop_p50, trips.p50_us);
        record(Figure::noop_p99, trips.p99_us);
    });
    attempt({Figure::sessions_1, Figure::sessions_16, Figure::sessions_64, Figure::sessions_128,
             Figure::failed_1, Figure::failed_16, Figure::failed_64, Figure::failed_128,
             Figure::cpu_per_session},
            [&] { sessions(); });
    attempt({Figure::small_retrs},
            [&] { record(Figure::small_retrs, small_retrs_per_second(service_)); });
    const std::pair<Figure, const char*> listings[] = {
        {Figure::list_many, "LIST"}, {Figure::mlsd_many, "MLSD"}, {Figure::nlst_many, "NLST"}};
    for (const auto& [figure, verb] : listings) {
        attempt({figure}, [&] {
            record(figure, median_of(LISTING_RUNS, [&] { return listing_seconds(service_, verb); }));
        });
    }
    attempt({Figure::retr_big},
            [&] { record(Figure::retr_big, median_of(BIG_RUNS, [&] { return retr_mbps(service_); })); });
    attempt({Figure::stor_big}, [&] {
        record(Figure::stor_big, median_of(BIG_RUNS, [&] { return stor_mbps(service_, tree_.root()); }));
    });
    return std::move(results_);
}

}  // namespace

Results measure(const std::string& name, const Service& service, ServerProcess& server,
                const ServedTree& tree, const SuiteOptions& options, std::ostream& progress)
{
    return Pass(name, service, server, tree, options, progress).run();
}

}  // namespace load
