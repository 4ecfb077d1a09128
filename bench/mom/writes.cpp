// Runs of writers and subscribers.
#include "writes.hpp"

#include <chrono>
#include <string>

#include "raw.hpp"

namespace bench
{
namespace
{

process start_raw_writer(const std::string &socket, int count, bool formatted)
{
    return process([=](const channel &parent) {
        raw_connection to(socket);
        write_raw(to, KEYS);
        parent.put();
        parent.get();
        formatted ? write_formatted(to, count) : write_raw(to, count);
        parent.put();
        parent.get();
    });
}

}  // namespace

figure time_writes(const support::redis_server &server, const process &writer, const std::vector<process> &subscribers,
                   int count)
{
    std::vector<pid_t> all{server.pid(), writer.pid()};
    for (const process &each : subscribers) {
        each.get();
        each.put();
        all.push_back(each.pid());
    }
    const double used_before = processor_seconds(all);
    const auto start = std::chrono::steady_clock::now();
    writer.put();
    for (const process &each : subscribers)
        each.get();
    writer.get();
    const double seconds = seconds_since(start);
    return {count / seconds, 1e6 * (processor_seconds(all) - used_before) / count};
}

figure raw_writes(const support::redis_server &server, int count, bool formatted)
{
    const process writer = start_raw_writer(server.socket(), count, formatted);
    writer.get();
    return time_writes(server, writer, {}, count);
}

}  // namespace bench
