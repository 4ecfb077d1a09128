// 4094 VLANs on 512 ports: from an application's calls until another process has heard all of them and compared them, on a
// private redis-server. Fails when a VLAN is not as it should be.
#include <algorithm>
#include <cstdio>
#include <exception>
#include <nlohmann/json.hpp>
#include <string_view>
#include <vector>

#include "application.hpp"
#include "listener.hpp"
#include "ports.hpp"
#include "program.hpp"
#include "raw.hpp"
#include "redis_server.hpp"

namespace
{

using namespace bench;
using json = nlohmann::ordered_json;
using clock = std::chrono::steady_clock;

constexpr int RUNS = 3;

constexpr const char *HELP =
    "usage: vlans_bench\n"
    "Measures 512 ports with 4094 VLANs each on a private redis-server: applied to the library's tables, published, heard by\n"
    "a second process, compared there. Beside it, in the same run: about the same bytes sent by plain pipelined hiredis, which is\n"
    "the floor; and one record for each VLAN of each port, by plain pipelined hiredis too, with nobody listening, which is\n"
    "what it costs not to put a port's VLANs together. Of three runs the one in the middle. Then calls for one VLAN of a port\n"
    "and for 4094. Prints tables, which are also written to vlans.json beside the program. Exit status 1 when a VLAN is not as\n"
    "it should be.\n";

struct figures {
    double applied = 0;  // seconds, each of its own
    double called = 0;   // the calls that publish
    double taken = 0;    // from the first call until the store has taken all
    double heard = 0;    // from the first call until the other process has heard all
    double compared = 0;
    double application = 0;  // processor seconds
    double server = 0;
    double listener = 0;
    double server_bytes = 0;  // that the server holds more afterwards

    double whole() const { return applied + std::max(heard, taken) + compared; }
};

double used_memory(raw_connection &to)
{
    const raw_reply info = to.ask({"INFO", "memory"});
    const std::string_view text(info->str, info->len);
    const std::string_view name = "used_memory:";
    return std::strtod(text.data() + text.find(name) + name.size(), nullptr);
}

figures run_ours()
{
    const support::redis_server server("appendonly no\n");
    raw_connection look(server.socket());
    const process listener([&](const channel &parent) { be_the_listener(parent, server.url()); });
    const process application([&](const channel &parent) { be_the_application(parent, server.url()); });
    listener.get();
    application.get();
    figures made;
    const double before[] = {processor_seconds({application.pid()}), processor_seconds({server.pid()}),
                             processor_seconds({listener.pid()}), used_memory(look)};
    application.put();
    made.applied = application.get();
    const auto start = clock::now();
    application.put();
    made.called = application.get();
    application.get();
    made.taken = seconds_since(start);
    listener.get();
    made.heard = seconds_since(start);
    made.compared = listener.get();
    if (listener.get() != 0)
        throw std::runtime_error("VLANs are not as they should be");
    made.application = processor_seconds({application.pid()}) - before[0];
    made.server = processor_seconds({server.pid()}) - before[1];
    made.listener = processor_seconds({listener.pid()}) - before[2];
    made.server_bytes = used_memory(look) - before[3];
    application.put();
    listener.put();
    return made;
}

// Of one command that `append` puts into the connection for each record.
figures run_raw(int records, const std::function<void(raw_connection &, int)> &append)
{
    const support::redis_server server("appendonly no\n");
    raw_connection to(server.socket(), 4);
    figures made;
    const double before = processor_seconds({server.pid()}), bytes = used_memory(to);
    const auto start = clock::now();
    write_groups(to, records, [&](int first) {
        const int last = std::min(first + GROUP, records);
        for (int record = first; record < last; ++record)
            append(to, record);
        return last - first;
    });
    made.taken = seconds_since(start);
    made.server = processor_seconds({server.pid()}) - before;
    made.server_bytes = used_memory(to) - bytes;
    return made;
}

// About as many bytes as the three bitmaps of a port have as they are stored.
figures run_floor()
{
    const std::string value(size_t{3} * 128 * 5, 'x');
    return run_raw(PORTS, [&value](raw_connection &to, int port) {
        to.append({"SET", "u_bridge.port_vlans:vlans_bench:" + std::to_string(eport_of(port)), value});
    });
}

figures run_record_for_each_member()
{
    return run_raw(PORTS * static_cast<int>(VLANS), [](raw_connection &to, int member) {
        const int port = member / static_cast<int>(VLANS), vlan = member % static_cast<int>(VLANS) + 1;
        to.append({"HSET", "VLAN_MEMBER|Vlan" + std::to_string(vlan) + "|Ethernet" + std::to_string(port),
                   "tagging_mode", "tagged"});
    });
}

figures median_of(const std::function<figures()> &run)
{
    std::vector<figures> all;
    for (int i = 0; i < RUNS; ++i)
        all.push_back(run());
    std::ranges::sort(all, {}, &figures::whole);
    return all[RUNS / 2];
}

json row(const char *what, double seconds, double whole)
{
    std::printf("%-52s  %9.4f  %6.1f%%\n", what, seconds, 100 * seconds / whole);
    return {{"what", what}, {"seconds", seconds}, {"share", seconds / whole}};
}

json show_ours(const figures &of)
{
    std::printf("%-52s  %9s  %7s\n", "512 PORTS WITH 4094 VLANS EACH", "SECONDS", "SHARE");
    const double whole = of.whole();
    json rows = json::array();
    rows.push_back(row("applied to the library's tables", of.applied, whole));
    rows.push_back(row("published, heard by a second process", std::max(of.heard, of.taken), whole));
    rows.push_back(row("compared there", of.compared, whole));
    rows.push_back(row("in all", whole, whole));
    std::printf("of publishing: the calls %.4f s, until the store has taken all %.4f s, until all is heard %.4f s\n",
                of.called, of.taken, of.heard);
    std::printf("processor seconds: application %.3f, server %.3f, listener %.3f\n\n", of.application, of.server,
                of.listener);
    return {{"rows", rows},
            {"calls", of.called},
            {"taken", of.taken},
            {"heard", of.heard},
            {"application_cpu", of.application},
            {"server_cpu", of.server},
            {"listener_cpu", of.listener},
            {"server_bytes", of.server_bytes}};
}

json show_beside(const char *what, const figures &of, const figures &ours)
{
    std::printf("%-52s  %9.4f  %7.2f  %10.1f\n", what, of.whole(), of.whole() / ours.whole(), of.server_bytes / 1e6);
    return {{"what", what},
            {"seconds", of.whole()},
            {"of_ours", of.whole() / ours.whole()},
            {"server_cpu", of.server},
            {"server_bytes", of.server_bytes}};
}

json show_call(const char *what, const call_cost &of)
{
    std::printf("%-52s  %9.3f  %7.3f  %10.2f\n", what, of.one, of.all, of.all / of.one);
    return {{"one_us", of.one}, {"all_us", of.all}, {"ratio", of.all / of.one}};
}

}  // namespace

int main(int argc, char **argv)
{
    if (const int status = read_no_arguments(argc, argv, "vlans_bench", HELP); status >= 0)
        return status;
    try {
        json all;
        const figures ours = median_of(run_ours);
        all["ours"] = show_ours(ours);
        std::printf("%-52s  %9s  %7s  %10s\n", "BESIDE IT", "SECONDS", "OF OURS", "MB STORED");
        all["beside"] = {show_beside("ours, in all", ours, ours),
                         show_beside("plain hiredis, the same bytes", median_of(run_floor), ours),
                         show_beside("plain hiredis, a record for each VLAN of each port",
                                     median_of(run_record_for_each_member), ours)};
        const call_costs costs = costs_of_calls();
        std::printf("\n%-52s  %9s  %7s  %10s\n", "MICROSECONDS OF A CALL", "ONE VLAN", "4094", "RATIO");
        all["adding"] = show_call("VLANs added to a port's table", costs.add);
        all["deleting"] = show_call("VLANs deleted from it", costs.remove);
        all["publishing"] = show_call("published into an embedded store (1, 128 words)", costs.publish);
        write_beside("vlans.json", all.dump(2) + '\n');
    } catch (const std::exception &error) {
        std::fprintf(stderr, "vlans_bench: %s\n", error.what());
        return 1;
    }
    return 0;
}
