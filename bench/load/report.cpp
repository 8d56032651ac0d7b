// Rows of the table: label, unit, target and the verdict of a figure against its target.
#include "bench/load/report.h"

#include <cstdio>
#include <iomanip>

namespace load {
namespace {

enum class Bound { none, at_least, at_most };

struct Row {
    const char* label;
    const char* unit;
    Bound bound;
    double limit;
    int decimals;
};

constexpr Row ROWS[] = {
    {"sessions, 1 concurrent", "1/s", Bound::none, 0, 0},
    {"sessions, 16 concurrent", "1/s", Bound::none, 0, 0},
    {"sessions, 64 concurrent", "1/s", Bound::none, 0, 0},
    {"sessions, 128 concurrent", "1/s", Bound::at_least, 2900, 0},
    {"failed sessions, 1 concurrent", "count", Bound::none, 0, 0},
    {"failed sessions, 16 concurrent", "count", Bound::none, 0, 0},
    {"failed sessions, 64 concurrent", "count", Bound::none, 0, 0},
    {"failed sessions, 128 concurrent", "count", Bound::at_most, 0, 0},
    {"server CPU per session", "us", Bound::at_most, 150, 1},
    {"NOOP round trip p50", "us", Bound::at_most, 24, 1},
    {"NOOP round trip p99", "us", Bound::none, 0, 1},
    {"RETR 1 GiB", "MB/s", Bound::at_least, 2000, 0},
    {"STOR 1 GiB", "MB/s", Bound::at_least, 1600, 0},
    {"LIST 10,000 entries", "s", Bound::at_most, 0.036, 4},
    {"MLSD 10,000 entries", "s", Bound::none, 0, 4},
    {"NLST 10,000 entries", "s", Bound::at_most, 0.005, 4},
    {"RETR of 4 KiB files", "1/s", Bound::at_least, 3000, 0},
    {"PSS per idle session (100 open)", "KiB", Bound::at_most, 24, 1},
};
static_assert(std::size(ROWS) == static_cast<std::size_t>(Figure::count));

std::string fixed(double value, int decimals)
{
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}

std::string target_text(const Row& row)
{
    switch (row.bound) {
    case Bound::at_least:
        return ">= " + fixed(row.limit, row.decimals);
    case Bound::at_most:
        return "<= " + fixed(row.limit, row.decimals);
    case Bound::none:
        break;
    }
    return "-";
}

std::string cell_text(const Row& row, const Cell& cell)
{
    return cell.value ? fixed(*cell.value, row.decimals) : "error";
}

std::string verdict(const Row& row, const Cell& cell)
{
    if (!cell.value)
        return "no figure";
    switch (row.bound) {
    case Bound::at_least:
        return *cell.value >= row.limit ? "met" : "MISSED";
    case Bound::at_most:
        return *cell.value <= row.limit ? "met" : "MISSED";
    case Bound::none:
        break;
    }
    return "";
}

}  // namespace

std::string label_of(Figure figure)
{
    const Row& row = ROWS[static_cast<std::size_t>(figure)];
    return std::string(row.label) + " (" + row.unit + ")";
}

void print_table(std::ostream& out, const std::vector<Results>& runs)
{
    if (runs.empty())
        return;
    out << std::left << std::setw(40) << "figure" << std::setw(7) << "unit" << std::setw(12)
        << "target" << std::setw(14) << runs[0].server << std::setw(11) << "verdict";
    for (std::size_t i = 1; i < runs.size(); ++i)
        out << std::setw(14) << runs[i].server;
    out << "\n";
    for (std::size_t f = 0; f < std::size(ROWS); ++f) {
        const Row& row = ROWS[f];
        out << std::setw(40) << row.label << std::setw(7) << row.unit << std::setw(12)
            << target_text(row) << std::setw(14) << cell_text(row, runs[0].cells[f])
            << std::setw(11) << verdict(row, runs[0].cells[f]);
        for (std::size_t i = 1; i < runs.size(); ++i)
            out << std::setw(14) << cell_text(row, runs[i].cells[f]);
        out << "\n";
    }
    for (const Results& run : runs) {
        for (const std::string& note : run.notes)
            out << run.server << ": " << note << "\n";
        for (std::size_t f = 0; f < std::size(ROWS); ++f) {
            if (!run.cells[f].value)
                out << run.server << ": " << ROWS[f].label << ": " << run.cells[f].error << "\n";
        }
    }
}

}  // namespace load
