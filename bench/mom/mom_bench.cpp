// The Redis store against raw pipelined hiredis, in one run on one private server: writes that subscribers in other
// processes hear, scans, requests and grants, memory. Ratios count; the absolute figures are the machine's. Both
// placements: wherever the system puts the processes, and all of them, the server too, on one core.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "grants.hpp"
#include "memory.hpp"
#include "ours.hpp"
#include "processes.hpp"
#include "raw.hpp"
#include "redis_server.hpp"
#include "report.hpp"
#include "writes.hpp"

namespace
{

using namespace bench;

constexpr int TURNS = 3;
constexpr int WRITE_TURNS = 5;
constexpr int WRITES = 1000 * GROUP;
constexpr int WRITES_FOR_EIGHT = WRITES / 4;

constexpr const char *HELP =
    "usage: mom_bench [--memory] [writes] [grants] [scans] [memory]\n"
    "Measures the store client on a private redis-server against plain hiredis on the same server: all of it, or the\n"
    "named parts. Prints a table; all of it is also written to mom.json beside the program, and takes three minutes on\n"
    "two idle cores.\n"
    "  --memory  a longer run of memory: 10 million writes heard instead of 1 million\n"
    "\n"
    "OURS and RAW are rates a second unless a row says otherwise; RATIO is OURS / RAW. CPU us is the processor time of\n"
    "all processes together for each record or grant, BY CPU the ratio that follows from it on one core. A busy machine\n"
    "disturbs it less than the rates.\n";

// ---- writes ---------------------------------------------------------------------------------------------------------

figure our_writes(const support::redis_server &server, int count, int subscribers)
{
    const process writer = start_writer(server.url(), count, KEYS);
    writer.get();  // subscribers come after its first writes, which are not measured
    std::vector<process> all;
    for (int i = 0; i < subscribers; ++i)
        all.push_back(start_subscriber(server.url(), count));
    return time_writes(server, writer, all, count);
}

void measure_writes(report &out, const std::string &placement)
{
    const support::redis_server server("appendonly no\n");  // no file is measured
    const auto made =
        medians(WRITE_TURNS,
                {[&] { return raw_writes(server, WRITES, false); }, [&] { return raw_writes(server, WRITES, true); },
                 [&] { return our_writes(server, WRITES, 0); }, [&] { return our_writes(server, WRITES, 1); },
                 [&] { return our_writes(server, WRITES_FOR_EIGHT, 8); }});
    out.row(placement, "(plain HSET/s put together from a format string)", made[1], made[0]);
    out.row(placement, "writes/s, nobody hears", made[2], made[0]);
    out.row(placement, "writes/s, one subscriber hears all", made[3], made[0]);
    out.row(placement, "writes/s, eight hear all", made[4], made[0]);
}

// ---- scans ----------------------------------------------------------------------------------------------------------

// A process that is connected, and scans whenever it is told to; says how many records it has found.
process start_scanner(const std::function<std::function<int()>()> &connect)
{
    return process([&](const channel &parent) {
        const auto scan = connect();
        for (parent.put();; parent.put(scan()))
            parent.get();
    });
}

figure time_scan(const process &scanner, int expected)
{
    const auto start = std::chrono::steady_clock::now();
    scanner.put();
    if (static_cast<int>(scanner.get()) != expected)
        throw std::runtime_error("a scan has not found everything");
    return {expected / seconds_since(start), 0};
}

void measure_scans(report &out, const std::string &placement)
{
    const support::redis_server server("appendonly no\n");  // no file is measured
    for (const int count : {10000, 1000000}) {
        raw_connection to(server.socket(), DB);
        write_raw(to, count, count);
        const process ours = start_scanner([&]() -> std::function<int()> {
            return [self = std::make_shared<endpoint>(server.url())] { return self->scan(); };
        });
        const process raw = start_scanner([&]() -> std::function<int()> {
            return [self = std::make_shared<raw_connection>(server.socket(), DB)] { return scan_raw(*self); };
        });
        ours.get();
        raw.get();
        const auto made = medians(count > KEYS ? 1 : WRITE_TURNS,
                                  {[&] { return time_scan(raw, count); }, [&] { return time_scan(ours, count); }});
        out.row(placement, "scan records/s, " + std::to_string(count) + " records", made[1], made[0]);
    }
}

// ---- grants ---------------------------------------------------------------------------------------------------------

struct load {
    int in_flight;
    int count;
};

// One side: who asks, and all whose processor time it costs.
struct side {
    const process *requester;
    std::vector<pid_t> all;
};

struct grant_figures {
    figure rate, p50, p99;
};

grant_figures middle(const std::vector<grants> &turns, std::vector<double> processor)
{
    std::vector<double> rates, p50, p99;
    for (const grants &made : turns) {
        rates.push_back(made.rate);
        p50.push_back(made.p50);
        p99.push_back(made.p99);
    }
    return {{median(rates), median(std::move(processor))}, {median(p50), 0}, {median(p99), 0}};
}

// Both sides answer the same demands in turns, each with keys that were not asked for before.
void measure_load(report &out, const std::string &placement, const load &of, const side (&sides)[2], int first)
{
    std::vector<grants> made[2];
    std::vector<double> processor[2];
    for (int turn = 0; turn < TURNS; ++turn, first += of.count) {
        for (const int i : {0, 1}) {
            const double used_before = processor_seconds(sides[i].all);
            made[i].push_back(ask(*sides[i].requester, {first, of.count, of.in_flight}));
            processor[i].push_back(1e6 * (processor_seconds(sides[i].all) - used_before) / of.count);
        }
    }
    const grant_figures ours = middle(made[0], processor[0]), raw = middle(made[1], processor[1]);
    const std::string in_flight = std::to_string(of.in_flight) + " in flight";
    out.row(placement, "grants/s, " + in_flight, ours.rate, raw.rate);
    if (of.in_flight > 1)
        return;
    out.row(placement, "request to grant heard, us at p50, " + in_flight, ours.p50, raw.p50);
    out.row(placement, "request to grant heard, us at p99, " + in_flight, ours.p99, raw.p99);
}

void measure_grants(report &out, const std::string &placement)
{
    const support::redis_server server("appendonly no\n");  // no file is measured
    const process service(std::vector<std::string>{EBRIDGED_PROGRAM, "--store", server.url()});
    const process responder = start_raw_responder(server.socket());
    responder.get();
    const process ours = start_requester(server.url());
    const process raw = start_raw_requester(server.socket());
    const side sides[] = {{&ours, {server.pid(), service.pid(), ours.pid()}},
                          {&raw, {server.pid(), responder.pid(), raw.pid()}}};
    for (const side &each : sides)
        ask(*each.requester, {1, 100, 1});  // waits until the other side is up
    int first = 1000;
    for (const load &of : {load{1, 3000}, load{16, 10000}, load{256, 40000}}) {
        measure_load(out, placement, of, sides, first);
        first += TURNS * of.count;
    }
}

// ---- all ------------------------------------------------------------------------------------------------------------

struct choice {
    bool writes = false, grants = false, scans = false, memory = false;
    bool long_run = false;

    bool any() const { return writes || grants || scans || memory; }
};

// False when an argument makes no sense.
bool read_arguments(int argc, char **argv, choice &out)
{
    const std::pair<std::string_view, bool *> known[] = {{"--memory", &out.long_run},
                                                         {"writes", &out.writes},
                                                         {"grants", &out.grants},
                                                         {"scans", &out.scans},
                                                         {"memory", &out.memory}};
    for (int i = 1; i < argc; ++i) {
        const auto at = std::ranges::find(known, argv[i], [](const auto &each) { return each.first; });
        if (at == std::end(known)) {
            std::fprintf(stderr, "mom_bench: argument '%s' is unknown (see mom_bench --help)\n", argv[i]);
            return false;
        }
        *at->second = true;
    }
    return true;
}

void measure_speed(report &out, const std::string &placement, const choice &wanted)
{
    if (wanted.writes)
        measure_writes(out, placement);
    if (wanted.grants)
        measure_grants(out, placement);
    if (wanted.scans)
        measure_scans(out, placement);
}

void measure(const choice &wanted)
{
    const bool all = !wanted.any();
    const choice parts = all ? choice{true, true, true, true, wanted.long_run} : wanted;
    report out("mom", "RAW");
    measure_speed(out, "free", parts);
    {
        const one_core pinned;
        measure_speed(out, "one core", parts);
    }
    if (parts.memory) {
        measure_memory_of_records(out);
        measure_memory_over_writes(out, parts.long_run ? 10000000 : 1000000, 1000000);
    }
    if (all)
        out.write();
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc == 2 && std::string_view(argv[1]) == "--help") {
        std::fputs(HELP, stdout);
        return 0;
    }
    choice wanted;
    if (!read_arguments(argc, argv, wanted))
        return 2;
    try {
        measure(wanted);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "mom_bench: %s\n", error.what());
        return 1;
    }
    return 0;
}
