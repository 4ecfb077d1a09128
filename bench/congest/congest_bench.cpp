// A producer that writes more than the server takes, which is short of processor time: with an ear for congestion control,
// and without. Fails when a write that was taken over has not arrived, or a notice was not heard.
#include <algorithm>
#include <cstdio>
#include <exception>
#include <nlohmann/json.hpp>
#include <sstream>
#include <vector>

#include "flood.hpp"
#include "notices.hpp"
#include "plot.hpp"
#include "program.hpp"
#include "redis_server.hpp"
#include "starving.hpp"

namespace
{

using namespace bench;
using json = nlohmann::ordered_json;

constexpr int RUNS = 3;

constexpr const char *HELP =
    "usage: congest_bench\n"
    "Writes 200,000 records to a private redis-server that runs for one part of the time in ten: a producer that stops at\n"
    "the high mark of congestion control until it hears the low one, and one that writes on, and tries again after a\n"
    "millisecond when it is refused. Now and then another user of the same process writes a record and waits for the answer,\n"
    "and a second process follows the notices. Of three runs the one in the middle. Prints a table, which is also written to\n"
    "congest.json beside the program, and draws the depth of the queues over time as congestion.svg there. Exit status 1\n"
    "when a record is not as it was written last, or a notice was not heard.\n";

struct figures {
    flood_figures flood;
    notice_figures notices;
};

figures run_once(manners of)
{
    const support::redis_server server("appendonly no\n");
    const process listener([&](const channel &parent) { be_the_listener(parent, server.url()); });
    const process producer([&](const channel &parent) { be_the_producer(parent, server.url(), of); });
    listener.get();
    producer.get();
    const double before = processor_seconds({producer.pid()});
    {
        const support::starving slow(server);
        producer.put();
        producer.get();
    }
    const double processor = processor_seconds({producer.pid()}) - before;
    const double peak = resident(producer.pid()).peak;
    producer.put();
    figures made{take_figures(producer), take_notices(listener)};
    producer.put();
    made.flood.processor = processor;
    made.flood.peak = peak;
    if (made.flood.wrong != 0)
        throw std::runtime_error("records are not as they were written last");
    if (made.notices.highs != made.flood.marks || made.notices.lows != made.flood.marks)
        throw std::runtime_error("notices were not heard");
    return made;
}

figures median_of(manners of)
{
    std::vector<figures> all;
    for (int i = 0; i < RUNS; ++i)
        all.push_back(run_once(of));
    std::ranges::sort(all, {}, [](const figures &each) { return each.flood.seconds; });
    return all[RUNS / 2];
}

json row(const char *what, double listening, double other)
{
    const double ratio = listening != 0 ? other / listening : 0;
    std::printf("%-52s  %12.4f  %12.4f", what, listening, other);
    listening != 0 ? std::printf("  %8.2f\n", ratio) : std::printf("  %8s\n", "-");
    json made{{"what", what}, {"listens", listening}, {"does_not", other}};
    if (listening != 0)
        made["ratio"] = ratio;
    return made;
}

json show(const figures &listening, const figures &other)
{
    const flood_figures &a = listening.flood, &b = other.flood;
    std::printf("%-52s  %12s  %12s  %8s\n", "200000 WRITES TO A STARVING SERVER", "LISTENS", "DOES NOT", "RATIO");
    json rows = json::array();
    rows.push_back(row("seconds until all is answered", a.seconds, b.seconds));
    rows.push_back(row("processor seconds of the producer", a.processor, b.processor));
    rows.push_back(row("refused calls", a.refused, b.refused));
    rows.push_back(row("writes that waited, at most", a.deepest, b.deepest));
    rows.push_back(row("resident megabytes, at most", a.peak / 1e6, b.peak / 1e6));
    rows.push_back(row("high marks", a.marks, b.marks));
    rows.push_back(row("another user's answer, median seconds", a.probe_median, b.probe_median));
    rows.push_back(row("another user's answer, longest", a.probe_longest, b.probe_longest));
    rows.push_back(row("another user's answers", a.probes, b.probes));
    rows.push_back(row("another user's refused calls", a.probes_refused, b.probes_refused));
    rows.push_back(row("from a high mark to its notice, longest", listening.notices.latest, other.notices.latest));
    return rows;
}

}  // namespace

int main(int argc, char **argv)
{
    if (const int status = read_no_arguments(argc, argv, "congest_bench", HELP); status >= 0)
        return status;
    try {
        const figures listening = median_of(manners::listens);
        const figures other = median_of(manners::does_not);
        const json rows = show(listening, other);
        write_beside("congest.json", json{{"rows", rows}}.dump(2) + '\n');
        std::ostringstream drawing;
        write_plot(drawing, "Writes that wait for a starving server, over time",
                   {{"listens to congestion control", "#2b6cb0", listening.flood.depths},
                    {"does not", "#c05621", other.flood.depths}},
                   {{"limit of the client", 65536}, {"high mark", HIGH_MARK}, {"low mark", LOW_MARK}});
        write_beside("congestion.svg", drawing.str());
    } catch (const std::exception &error) {
        std::fprintf(stderr, "congest_bench: %s\n", error.what());
        return 1;
    }
    return 0;
}
