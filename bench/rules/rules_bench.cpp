// Match rules of eight users, four of which want each key: how fast a burst of them settles, whether a backlog grows
// meanwhile, and what one more rule costs as the table grows. Fails when a result in the store is not as it should be.
#include <charconv>
#include <cstdio>
#include <exception>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "burst.hpp"
#include "calculation.hpp"
#include "processes.hpp"
#include "program.hpp"
#include "rule_set.hpp"

namespace
{

using namespace bench;
using json = nlohmann::ordered_json;

constexpr int RUNS = 3;
constexpr int TIMES = 4;
constexpr int TABLES[] = {1'000, 10'000, 100'000, 1'000'000};

constexpr const char *HELP =
    "usage: rules_bench [--rules N]\n"
    "Measures a burst of N match rules (100000) that 8 users write as fast as the store takes them, 4 rivals for each key,\n"
    "until every result is written and acknowledged: on the embedded store in one process, and on a private redis-server\n"
    "with a process for each user and one for the arbiter; there also what the rules alone cost, with nobody to decide,\n"
    "and with each rule written four times, whether what waits grows. Of three runs the one in the middle. Then the calculation alone, with 1,000 to 1,000,000 rules in the table.\n"
    "Prints tables; all of it is also written to rules.json beside the program. Exit status 1 when a result is wrong.\n"
    "\n"
    "CPU is processor time of all processes, which other work on the machine disturbs least. BACKLOG is the most that\n"
    "waited for the arbiter in each quarter of the time: changes that it had not heard, its own results among them, and\n"
    "keys to be calculated. MB: the most that the arbiter's process has held.\n";

burst median_of(const std::function<burst()> &run)
{
    std::vector<burst> all;
    for (int i = 0; i < RUNS; ++i)
        all.push_back(run());
    std::ranges::sort(all, {}, &burst::seconds);
    return all[RUNS / 2];
}

json show_burst(const std::string &what, int rules, const burst &of)
{
    std::printf("%-24s  %8.2f  %9.0f  %8.2f  %6.2f  %6.2f  %6.1f  %8.2f  %8.2f", what.c_str(), of.seconds,
                rules / of.seconds, 1e6 * of.processor / rules, of.server_processor, of.service_processor,
                1e-6 * of.arbiter_bytes, of.calculations / rules, of.results / rules);
    json waiting = json::array();
    for (const backlog &most : of.waiting) {
        std::printf("  %6.0f+%-6.0f", most.changes, most.keys);
        waiting.push_back({{"changes", most.changes}, {"keys", most.keys}});
    }
    std::printf("\n");
    std::fflush(stdout);
    return {{"what", what},
            {"rules", rules},
            {"seconds", of.seconds},
            {"rules_per_second", rules / of.seconds},
            {"cpu_seconds", of.processor},
            {"application_cpu_seconds", of.application_processor},
            {"server_cpu_seconds", of.server_processor},
            {"arbiter_cpu_seconds", of.service_processor},
            {"arbiter_bytes", of.arbiter_bytes},
            {"calculations", of.calculations},
            {"results", of.results},
            {"backlog_by_quarter", waiting}};
}

json show_bursts(int rules)
{
    std::printf("%d rules of %d users, %d rivals for each key\n", rules, USERS, RIVALS);
    std::printf("%-24s  %8s  %9s  %8s  %6s  %6s  %6s  %8s  %8s  BACKLOG by quarter of the time: changes+keys\n",
                "BURST", "SECONDS", "RULES/s", "CPU us", "SERVER", "ARBIT.", "MB", "CALC/R.", "RESULT/R");
    const auto redis = [rules](int times, bool decided) {
        return median_of([=] { return burst_on_redis(rules, times, decided); });
    };
    json rows = json::array();
    rows.push_back(
        show_burst("embedded, one process", rules, median_of([=] { return burst_on_embedded_store(rules); })));
    rows.push_back(show_burst("Redis", rules, redis(1, true)));
    rows.push_back(show_burst("Redis, nobody decides", rules, redis(1, false)));
    rows.push_back(show_burst("Redis, written " + std::to_string(TIMES) + " times", TIMES * rules, redis(TIMES, true)));
    return rows;
}

json show_calculations()
{
    std::printf("\n%-24s  %8s  %8s  %10s\n", "RULES IN THE TABLE", "us/RULE", "RATIO", "BYTES/RULE");
    std::vector<std::vector<double>> microseconds(std::size(TABLES));
    double bytes[std::size(TABLES)];
    for (int turn = 0; turn < RUNS; ++turn) {
        for (size_t i = 0; i < std::size(TABLES); ++i) {
            const calculation_cost cost = cost_of_one_more_rule(TABLES[i]);
            microseconds[i].push_back(cost.microseconds);
            bytes[i] = cost.bytes;
        }
    }
    json rows = json::array();
    const double least = median(microseconds[0]);
    for (size_t i = 0; i < std::size(TABLES); ++i) {
        const double cost = median(microseconds[i]);
        std::printf("%-24d  %8.2f  %8.2f  %10.0f\n", TABLES[i], cost, cost / least, bytes[i]);
        rows.push_back(
            {{"rules", TABLES[i]}, {"microseconds", cost}, {"ratio", cost / least}, {"bytes_per_rule", bytes[i]}});
    }
    return rows;
}

// False: the arguments make no sense.
bool read_arguments(int argc, char **argv, int &rules)
{
    if (argc == 1)
        return true;
    const std::string_view number = argc == 3 && std::string_view(argv[1]) == "--rules" ? argv[2] : "";
    const auto read = std::from_chars(number.data(), number.data() + number.size(), rules);
    constexpr int most = 4000000;
    return !number.empty() && read.ec == std::errc() && read.ptr == number.data() + number.size() && rules >= USERS &&
           rules <= most && rules % USERS == 0;
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc == 2 && std::string_view(argv[1]) == "--help") {
        std::fputs(HELP, stdout);
        return 0;
    }
    int rules = 100'000;
    if (!read_arguments(argc, argv, rules)) {
        std::fputs("rules_bench: wants --rules N, a multiple of 8 up to 4000000\n", stderr);
        return 2;
    }
    try {
        json all;
        all["bursts"] = show_bursts(rules);
        all["calculation"] = show_calculations();
        write_beside("rules.json", all.dump(2) + '\n');
    } catch (const std::exception &error) {
        std::fprintf(stderr, "rules_bench: %s\n", error.what());
        return 1;
    }
    return 0;
}
