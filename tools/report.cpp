// What "ebridge run" tells. See report.hpp.
#include "report.hpp"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <nlohmann/json.hpp>

namespace ebridge_tool
{

namespace
{
volatile sig_atomic_t progress_shown = 0;
}

void show_progress(size_t answered, size_t all)
{
    static const bool terminal = isatty(STDERR_FILENO) == 1;
    if (!terminal)
        return;
    progress_shown = 1;  // first: a signal may come before the line is out
    std::fprintf(stderr, "\r%zu of %zu answered", answered, all);
}

void end_progress()
{
    constexpr char CLEAR[] = "\r\x1b[K";
    if (progress_shown != 0 && write(STDERR_FILENO, CLEAR, sizeof CLEAR - 1) < 0)
        return;
    progress_shown = 0;
}

void print_table(std::FILE *out, const switch_config &config, const run_result &result)
{
    size_t width = sizeof "TABLE" - 1;
    for (const table_result &table : result.tables)
        width = std::max(width, table.name.size());
    for (const skipped_table &table : config.skipped)
        width = std::max(width, printable(table.name).size());
    const int column = static_cast<int>(width);
    std::fprintf(out, "%-*s  %9s  %9s  %9s  %9s\n", column, "TABLE", "REQUESTED", "GRANTED", "REFUSED", "VERIFIED");
    for (const table_result &table : result.tables)
        std::fprintf(out, "%-*s  %9zu  %9zu  %9zu  %9zu\n", column, table.name.c_str(), table.requested, table.granted,
                     table.refused, table.verified);
    for (const skipped_table &table : config.skipped)
        std::fprintf(out, "%-*s  %9zu  skipped\n", column, printable(table.name).c_str(), table.entries);
    std::fprintf(out, "%.3f seconds\n", result.seconds);
}

namespace
{

// Names are known to be unique: looking them up in an ordered object, one by one, is quadratic.
void add(nlohmann::ordered_json &object, const std::string &name, nlohmann::ordered_json value)
{
    auto &members = static_cast<std::vector<std::pair<const std::string, nlohmann::ordered_json>> &>(
        object.get_ref<nlohmann::ordered_json::object_t &>());
    members.emplace_back(name, std::move(value));
}

}  // namespace

std::string to_json(const switch_config &config, const run_result &result)
{
    nlohmann::ordered_json tables = nlohmann::ordered_json::object();
    for (const table_result &table : result.tables)
        add(tables, table.name,
            {{"requested", table.requested},
             {"granted", table.granted},
             {"refused", table.refused},
             {"verified", table.verified}});
    nlohmann::ordered_json skipped = nlohmann::ordered_json::object();
    for (const skipped_table &table : config.skipped)
        add(skipped, table.name, table.entries);
    return nlohmann::ordered_json{{"tables", tables}, {"skipped", skipped}, {"seconds", result.seconds}}.dump();
}

}  // namespace ebridge_tool
