// What "ebridge run" tells. See report.hpp.
#include "report.hpp"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "config_file.hpp"

namespace ebridge_tool
{

using config_text::printable;

namespace
{

volatile sig_atomic_t progress_shown = 0;

// Whether standard error has a line that is written over and over.
bool begin_progress()
{
    static const bool terminal = isatty(STDERR_FILENO) == 1;
    if (terminal)
        progress_shown = 1;  // first: a signal may come before the line is out
    return terminal;
}

}  // namespace

void show_progress(size_t answered, size_t all)
{
    if (begin_progress())
        std::fprintf(stderr, "\r%zu of %zu answered", answered, all);
}

void show_phase(const char *what)
{
    if (begin_progress())
        std::fprintf(stderr, "\r\x1b[Krestart: %s", what);
}

void end_progress()
{
    constexpr char CLEAR[] = "\r\x1b[K";
    if (progress_shown != 0 && write(STDERR_FILENO, CLEAR, sizeof CLEAR - 1) < 0)
        return;
    progress_shown = 0;
}

namespace
{

void print_rows(std::FILE *out, int column, const std::vector<table_result> &rows)
{
    for (const table_result &row : rows)
        std::fprintf(out, "%-*s  %9zu  %9zu  %9zu  %9zu%s\n", column, row.name.c_str(), row.requested, row.granted,
                     row.refused, row.verified,
                     row.not_expressed ? ("  " + std::to_string(*row.not_expressed) + " not expressed").c_str() : "");
}

void print_rules(std::FILE *out, int column, const std::vector<rule_result> &rows)
{
    std::fprintf(out, "%-*s  %9s  %9s  %9s  %9s  %9s\n", column, "RULES", "PUBLISHED", "HOLDING", "LOST", "SHADOWED",
                 "VERIFIED");
    for (const rule_result &row : rows)
        std::fprintf(out, "%-*s  %9zu  %9zu  %9zu  %9zu  %9zu\n", column, row.name.c_str(), row.published, row.holding,
                     row.lost, row.shadowed, row.verified);
}

void print_restart(std::FILE *out, int column, const std::vector<restart_result> &rows)
{
    std::fprintf(out, "%-*s  %9s  %9s  %9s  %9s\n", column, "RESTARTED", "KEPT", "UNCHANGED", "DROPPED", "GONE");
    for (const restart_result &row : rows)
        std::fprintf(out, "%-*s  %9zu  %9zu  %9zu  %9zu\n", column, row.name.c_str(), row.kept, row.unchanged,
                     row.dropped, row.gone);
}

}  // namespace

void print_table(std::FILE *out, const switch_config &config, const run_result &result)
{
    size_t width = result.restarted.empty() ? sizeof "TABLE" - 1 : sizeof "RESTARTED" - 1;
    for (const table_result &table : result.tables)
        width = std::max(width, table.name.size());
    for (const skipped_table &table : config.skipped)
        width = std::max(width, printable(table.name).size());
    for (const rule_result &user : result.rules)
        width = std::max(width, user.name.size());
    const int column = static_cast<int>(width);
    std::fprintf(out, "%-*s  %9s  %9s  %9s  %9s\n", column, "TABLE", "REQUESTED", "GRANTED", "REFUSED", "VERIFIED");
    print_rows(out, column, result.tables);
    for (const skipped_table &table : config.skipped)
        std::fprintf(out, "%-*s  %9zu  skipped\n", column, printable(table.name).c_str(), table.entries);
    std::fputs("IDS\n", out);
    print_rows(out, column, result.kinds);
    if (!result.rules.empty())
        print_rules(out, column, result.rules);
    if (!result.restarted.empty())
        print_restart(out, column, result.restarted);
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

namespace
{

using json = nlohmann::ordered_json;

json counts_of(const table_result &row)
{
    json counts{
        {"requested", row.requested}, {"granted", row.granted}, {"refused", row.refused}, {"verified", row.verified}};
    if (row.not_expressed)
        counts["not_expressed"] = *row.not_expressed;
    return counts;
}

json counts_of(const rule_result &row)
{
    return {{"published", row.published},
            {"holding", row.holding},
            {"lost", row.lost},
            {"shadowed", row.shadowed},
            {"verified", row.verified}};
}

json counts_of(const restart_result &row)
{
    return {{"kept", row.kept}, {"unchanged", row.unchanged}, {"dropped", row.dropped}, {"gone", row.gone}};
}

size_t counts_of(const skipped_table &row) { return row.entries; }

template <typename Row>
json object_of(const std::vector<Row> &rows)
{
    json object = json::object();
    for (const Row &row : rows)
        add(object, row.name, counts_of(row));
    return object;
}

}  // namespace

std::string to_json(const switch_config &config, const run_result &result)
{
    json whole{
        {"tables", object_of(result.tables)}, {"skipped", object_of(config.skipped)}, {"ids", object_of(result.kinds)}};
    if (!result.rules.empty())
        whole["rules"] = object_of(result.rules);
    if (!result.restarted.empty())
        whole["restarted"] = object_of(result.restarted);
    whole["seconds"] = result.seconds;
    return whole.dump();
}

}  // namespace ebridge_tool
