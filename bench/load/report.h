// The figures of a run, their targets, and the table that puts a server's figures beside them and
// beside a peer's.
#pragma once

#include <array>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace load {

enum class Figure {
    sessions_1,
    sessions_16,
    sessions_64,
    sessions_128,
    failed_1,
    failed_16,
    failed_64,
    failed_128,
    cpu_per_session,
    noop_p50,
    noop_p99,
    retr_big,
    stor_big,
    list_many,
    mlsd_many,
    nlst_many,
    small_retrs,
    idle_pss,
    count
};

constexpr int SESSION_LEVELS[] = {1, 16, 64, 128};

// One measured figure, or why there is none.
struct Cell {
    std::optional<double> value;
    std::string error;
};

// One server's figures, with notes on how they were taken (failures, exit status).
struct Results {
    std::string server;
    std::array<Cell, static_cast<std::size_t>(Figure::count)> cells;
    std::vector<std::string> notes;

    Cell& operator[](Figure figure) { return cells[static_cast<std::size_t>(figure)]; }
    const Cell& operator[](Figure figure) const { return cells[static_cast<std::size_t>(figure)]; }
};

// The label and unit of a figure, for progress lines.
std::string label_of(Figure figure);

// Prints one table: a row per figure with its target, the first results' verdict, and the
// further results (peers) beside it; then every note and error.
void print_table(std::ostream& out, const std::vector<Results>& runs);

}  // namespace load
