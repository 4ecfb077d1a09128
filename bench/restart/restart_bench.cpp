// The restart of an application with nothing changed: a user with many records ends, comes back as a new process,
// reads them, marks all, asks for all of them again and deletes what is still marked. What each phase costs, in time and
// in commands, against the least that plain hiredis needs for as much on the same server. It fails when an id has
// changed, a record is gone or another one, or a mark is left.
#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <exception>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "application.hpp"
#include "processes.hpp"
#include "program.hpp"
#include "raw.hpp"
#include "redis_server.hpp"
#include "server_view.hpp"

namespace
{

using namespace bench;

constexpr int KINDS_OF_RECORDS = 4;  // evlan and eport sessions, and the attributes of both
constexpr int RAW_DB = 1;

constexpr const char *HELP =
    "usage: restart_bench [--records N]\n"
    "Measures the warm restart of one user with N records (400000), a quarter each of evlan sessions, eport sessions,\n"
    "evlan attributes and eport attributes, with nothing changed, on a private redis-server with an allocator running.\n"
    "Prints tables; all of it is also written to restart.json beside the program, and takes a minute on two idle\n"
    "cores. Exit status 1 when a record or an id is not as it was.\n"
    "\n"
    "RAW is plain hiredis on the same server, pipelined: a scan of as many sessions, PEXPIRE of as many keys, and PERSIST\n"
    "with HSET of three fields or SET for each. CPU is processor time, which other work on the machine disturbs least.\n"
    "The commands of the server are those that it has executed, within functions, too. Three calls of pexpire in each\n"
    "phase but the first are this program's way to wait for what was asked before.\n";

// ---- figures --------------------------------------------------------------------------------------------------------

struct cpu_use {
    double application = 0, server = 0, service = 0;
    double all() const { return application + server + service; }
};

struct measured {
    double wall = 0;
    cpu_use cpu;
    call_counts calls{};
    server_counts counts;
};

class meter
{
  public:
    meter(raw_connection &view, pid_t application, pid_t server, pid_t service)
        : view_(view),
          pids_{application, server, service},
          counts_(look_at_counts(view)),
          cpu_(used()),
          start_(clock::now())
    {
    }

    // Since it was made. What the service does last need not have been waited for: `settle` returns when it is over.
    template <typename Settle>
    measured stop(Settle settle) const
    {
        measured made;
        made.wall = seconds_since(start_);
        settle();
        const cpu_use now = used();
        made.cpu = {now.application - cpu_.application, now.server - cpu_.server, now.service - cpu_.service};
        made.counts = look_at_counts(view_) - counts_;
        return made;
    }

  private:
    using clock = std::chrono::steady_clock;

    cpu_use used() const
    {
        const auto of = [](pid_t pid) { return pid > 0 ? processor_seconds({pid}) : 0; };
        return {of(pids_[0]), of(pids_[1]), of(pids_[2])};
    }

    raw_connection &view_;
    const std::array<pid_t, 3> pids_;
    const server_counts counts_;
    const cpu_use cpu_;
    const clock::time_point start_;
};

// Returns when nothing has been added to a log for a while.
void wait_until_quiet(raw_connection &view)
{
    const auto entries = [&view] { return look_at_counts(view).commands["xadd"]; };
    for (uint64_t before = entries(), quiet = 0; quiet < 3;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        const uint64_t now = entries();
        quiet = now == before ? quiet + 1 : 0;
        before = now;
    }
}

// ---- plain hiredis --------------------------------------------------------------------------------------------------

std::string raw_attr_key(int number) { return "attr:bench:" + std::to_string(number); }

template <typename Each>
void pipelined(raw_connection &to, int count, int answers, Each each)
{
    write_groups(to, count, [&](int first) {
        const int size = std::min(GROUP, count - first);
        for (int i = first; i < first + size; ++i)
            each(i);
        return size * answers;
    });
}

void raw_phase(raw_connection &to, phase what, int records)
{
    const int sessions = records / 2;
    const auto key = [sessions](int i) { return i < sessions ? key_of(i) : raw_attr_key(i); };
    const std::string attributes(48, 'a');
    switch (what) {
        case START:
            if (scan_raw(to) != sessions)
                throw std::runtime_error("a scan has not found everything");
            break;
        case MARK:
            pipelined(to, records, 1, [&](int i) { to.append({"PEXPIRE", key(i), "1800000"}); });
            break;
        case REFRESH:
            pipelined(to, records, 2, [&](int i) {
                to.append({"PERSIST", key(i)});
                i < sessions ? to.append_hset(key(i)) : to.append({"SET", key(i), attributes});
            });
            break;
        default:
            break;
    }
}

process start_raw(const std::string &socket, int records)
{
    return process([=](const channel &parent) {
        raw_connection to(socket, RAW_DB);
        raw_phase(to, REFRESH, records);
        parent.put();
        while (true) {
            raw_phase(to, static_cast<phase>(parent.get()), records);
            parent.put();
        }
    });
}

std::array<measured, PHASES> measure_raw(const support::redis_server &server, raw_connection &view, int records)
{
    const process raw = start_raw(server.socket(), records);
    raw.get();
    std::array<measured, PHASES> made;
    for (const phase what : {START, MARK, REFRESH}) {
        const meter running(view, raw.pid(), server.pid(), -1);
        raw.put(what);
        raw.get();
        made[what] = running.stop([] {});
    }
    return made;
}

// ---- ours -----------------------------------------------------------------------------------------------------------

constexpr uint32_t DATABASES[] = {SESSION_DB, EVLAN_ATTR_DB, EPORT_ATTR_DB, MIRROR_DB};

std::vector<contents> look_at_all(const std::string &socket)
{
    std::vector<contents> all;
    for (const uint32_t db : DATABASES)
        all.push_back(look_at_contents(socket, db));
    return all;
}

// Throws unless there are as many records as were made, and so many of them marked.
void check(const std::vector<contents> &found, int each, bool marked)
{
    const auto one = static_cast<uint64_t>(each);
    const uint64_t records[] = {2 * one, one, one, 2 * one};
    for (size_t i = 0; i < found.size(); ++i) {
        const uint64_t marks = marked && DATABASES[i] != MIRROR_DB ? records[i] : 0;
        if (found[i].records != records[i] || found[i].marks != marks)
            throw std::runtime_error("database " + std::to_string(DATABASES[i]) + " has " +
                                     std::to_string(found[i].records) + " records and " +
                                     std::to_string(found[i].marks) + " marks");
    }
}

void make_records(const support::redis_server &server, int each)
{
    const process first = start_application(server.url(), each, 0);
    run_phase(first, START);
    run_phase(first, REFRESH);
}

std::array<measured, PHASES> measure_restart(const support::redis_server &server, const process &service,
                                             raw_connection &view, int each)
{
    make_records(server, each);
    wait_until_quiet(view);
    const auto before = look_at_all(server.socket());
    check(before, each, false);
    const process second = start_application(server.url(), each, each);
    std::array<measured, PHASES> made;
    for (const phase what : {START, MARK, REFRESH, DELETE}) {
        const meter running(view, second.pid(), server.pid(), service.pid());
        const call_counts calls = run_phase(second, what);
        made[what] = running.stop([&] { wait_until_quiet(view); });
        made[what].calls = calls;
        if (what == MARK)
            check(look_at_all(server.socket()), each, true);
    }
    const auto after = look_at_all(server.socket());
    check(after, each, false);
    if (after != before)
        throw std::runtime_error("a record is not as it was");
    return made;
}

// ---- the report -----------------------------------------------------------------------------------------------------

using figures = std::array<measured, PHASES>;

void print_times(const figures &ours, const figures &raw, int records)
{
    std::printf("%-8s  %7s  %7s  %12s  %7s  %8s  %10s  %10s  %6s\n", "PHASE", "WALL s", "CPU s", "APPLICATION",
                "SERVER", "SERVICE", "us/RECORD", "RAW us", "RATIO");
    for (size_t i = 0; i < PHASES; ++i) {
        const cpu_use &cpu = ours[i].cpu;
        std::printf("%-8s  %7.2f  %7.2f  %12.2f  %7.2f  %8.2f  %10.2f", PHASE_NAMES[i], ours[i].wall, cpu.all(),
                    cpu.application, cpu.server, cpu.service, 1e6 * cpu.all() / records);
        if (const double least = raw[i].cpu.all(); least > 0)
            std::printf("  %10.2f  %6.2f", 1e6 * least / records, cpu.all() / least);
        std::printf("\n");
    }
}

void print_calls(const figures &ours)
{
    std::printf("\n%-8s  calls of the library\n", "PHASE");
    for (size_t i = 0; i < PHASES; ++i) {
        std::printf("%-8s", PHASE_NAMES[i]);
        for (size_t call = 0; call < STORE_CALLS; ++call) {
            if (ours[i].calls[call] != 0)
                std::printf("  %s %llu", STORE_CALL_NAMES[call], static_cast<unsigned long long>(ours[i].calls[call]));
        }
        std::printf("\n");
    }
}

void print_commands(const figures &ours, int records)
{
    constexpr uint64_t WORTH_A_WORD = 1000;
    std::printf("\n%-8s  %8s  %9s  %9s  commands of the server\n", "PHASE", "/RECORD", "MB IN", "MB OUT");
    for (size_t i = 0; i < PHASES; ++i) {
        uint64_t all = 0;
        for (const auto &[name, count] : ours[i].counts.commands)
            all += count;
        std::printf("%-8s  %8.2f  %9.1f  %9.1f", PHASE_NAMES[i], static_cast<double>(all) / records,
                    1e-6 * static_cast<double>(ours[i].counts.bytes_in),
                    1e-6 * static_cast<double>(ours[i].counts.bytes_out));
        for (const auto &[name, count] : ours[i].counts.commands) {
            if (count >= WORTH_A_WORD)
                std::printf("  %s %llu", name.c_str(), static_cast<unsigned long long>(count));
        }
        std::printf("\n");
    }
}

nlohmann::ordered_json json_of(const measured &of)
{
    nlohmann::ordered_json calls = nlohmann::ordered_json::object();
    for (size_t call = 0; call < STORE_CALLS; ++call)
        calls[STORE_CALL_NAMES[call]] = of.calls[call];
    return {{"wall_seconds", of.wall},
            {"cpu_seconds", of.cpu.all()},
            {"application_cpu_seconds", of.cpu.application},
            {"server_cpu_seconds", of.cpu.server},
            {"service_cpu_seconds", of.cpu.service},
            {"store_calls", calls},
            {"server_commands", of.counts.commands},
            {"server_bytes_in", of.counts.bytes_in},
            {"server_bytes_out", of.counts.bytes_out}};
}

void write_json(const figures &ours, const figures &raw, int records)
{
    nlohmann::ordered_json phases;
    for (size_t i = 0; i < PHASES; ++i) {
        phases[PHASE_NAMES[i]] = json_of(ours[i]);
        if (raw[i].cpu.all() > 0)
            phases[PHASE_NAMES[i]]["raw"] = {{"wall_seconds", raw[i].wall},
                                             {"cpu_seconds", raw[i].cpu.all()},
                                             {"server_cpu_seconds", raw[i].cpu.server}};
    }
    write_beside("restart.json", nlohmann::ordered_json{{"records", records}, {"phases", phases}}.dump(2) + '\n');
}

void measure(int records)
{
    const support::redis_server server("appendonly no\n");  // no file is measured
    raw_connection view(server.socket());
    const process service(std::vector<std::string>{EBRIDGED_PROGRAM, "--store", server.url()});
    const figures ours = measure_restart(server, service, view, records / KINDS_OF_RECORDS);
    const figures raw = measure_raw(server, view, records);
    std::printf("%d records; CPU: processor seconds, us/RECORD those of all processes\n", records);
    print_times(ours, raw, records);
    print_calls(ours);
    print_commands(ours, records);
    write_json(ours, raw, records);
}

// False: the arguments make no sense.
bool read_arguments(int argc, char **argv, int &records)
{
    if (argc == 1)
        return true;
    const std::string_view number = argc == 3 && std::string_view(argv[1]) == "--records" ? argv[2] : "";
    const auto read = std::from_chars(number.data(), number.data() + number.size(), records);
    constexpr int most = 4000000;
    return !number.empty() && read.ec == std::errc() && read.ptr == number.data() + number.size() &&
           records >= KINDS_OF_RECORDS && records <= most && records % KINDS_OF_RECORDS == 0;
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc == 2 && std::string_view(argv[1]) == "--help") {
        std::fputs(HELP, stdout);
        return 0;
    }
    int records = 400000;
    if (!read_arguments(argc, argv, records)) {
        std::fputs("restart_bench: wants --records N, a multiple of 4 up to 4000000\n", stderr);
        return 2;
    }
    try {
        measure(records);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "restart_bench: %s\n", error.what());
        return 1;
    }
    return 0;
}
