// Measuring memory. Nothing depends on the core that a process runs on, so all of it runs where the system puts it.
#include "memory.hpp"

#include <unistd.h>

#include <string>
#include <vector>

#include "ours.hpp"
#include "processes.hpp"
#include "raw.hpp"
#include "redis_server.hpp"

namespace bench
{
namespace
{

constexpr const char *ANYWHERE = "free";
constexpr int TENTHS = 10;

// Bytes that the server has in use; without the log, whose length is bounded.
double used_memory(const support::redis_server &server)
{
    raw_connection to(server.socket(), DB);
    const raw_reply info = to.ask({"INFO", "memory"});
    const std::string text(info->str, info->len);
    const raw_reply log = to.ask({"MEMORY", "USAGE", "mom:log", "SAMPLES", "0"});
    const double used = std::stod(text.substr(text.find("used_memory:") + 12));
    return used - (log->type == REDIS_REPLY_INTEGER ? static_cast<double>(log->integer) : 0);
}

double raw_bytes(int count)
{
    const support::redis_server server("appendonly no\n");  // no file is measured
    raw_connection to(server.socket());
    const double before = used_memory(server);
    write_raw(to, count, count);
    return (used_memory(server) - before) / count;
}

struct bytes {
    double client;
    double server;
};

// The follower says how much it has grown when it knows the table.
bytes our_bytes(int count)
{
    const support::redis_server server("appendonly no\n");  // no file is measured
    const double before = used_memory(server);
    {
        const process writer([&](const channel &parent) {
            endpoint(server.url()).write(count, count);
            parent.put();
            parent.get();
        });
        writer.get();
    }
    const double after = used_memory(server);
    const process follower([&](const channel &parent) {
        endpoint self(server.url());
        const double alone = resident(getpid()).now;
        self.follow();
        parent.put(resident(getpid()).now - alone);
        parent.get();
    });
    return {follower.get() / count, (after - before) / count};
}

struct watched {
    std::string name;
    pid_t pid;
    double at_half = 0;
};

void tell(report &out, const std::string &run, const std::vector<watched> &all)
{
    for (const watched &each : all) {
        const resident_memory at_end = resident(each.pid);
        out.row(ANYWHERE, run + ": " + each.name + ", end against half-way", {at_end.now, 0}, {each.at_half, 0});
        out.row(ANYWHERE, run + ": " + each.name + ", at most", at_end.peak);
    }
}

// Writes a tenth whenever it is told to.
process start_tenths(const std::string &url, int count)
{
    return process([=](const channel &parent) {
        endpoint self(url);
        while (true) {
            parent.put();
            parent.get();
            self.write(count / TENTHS, KEYS);
        }
    });
}

process start_hearer(const std::string &url, int count)
{
    return process([=](const channel &parent) {
        endpoint self(url);
        self.follow();
        parent.put();
        for (int i = 0; i < TENTHS; ++i) {
            self.hear(count / TENTHS);
            parent.put();
        }
        parent.get();
    });
}

// It follows, and then nobody runs its loop.
process start_deaf(const std::string &url)
{
    return process([=](const channel &parent) {
        endpoint self(url);
        self.follow();
        parent.put();
        parent.get();
    });
}

void run(report &out, int count, bool reads)
{
    const support::redis_server server("appendonly no\n");  // no file is measured
    const process subscriber = reads ? start_hearer(server.url(), count) : start_deaf(server.url());
    subscriber.get();
    const process writer = start_tenths(server.url(), count);
    writer.get();
    std::vector<watched> all{{"writer", writer.pid()}, {"subscriber", subscriber.pid()}, {"server", server.pid()}};
    for (int tenth = 0; tenth < TENTHS; ++tenth) {
        writer.put();
        writer.get();
        if (reads)
            subscriber.get();
        for (watched &each : all)
            each.at_half = tenth == TENTHS / 2 - 1 ? resident(each.pid).now : each.at_half;
    }
    tell(out, std::to_string(count) + (reads ? " writes heard" : " writes not read"), all);
}

}  // namespace

void measure_memory_of_records(report &out)
{
    for (const int count : {100000, 1000000}) {
        const std::string records = ", " + std::to_string(count) + " records";
        const double raw = raw_bytes(count);
        const bytes ours = our_bytes(count);
        out.row(ANYWHERE, "bytes a record in the server" + records, {ours.server, 0}, {raw, 0});
        out.row(ANYWHERE, "bytes a record in a follower" + records, {ours.client, 0}, {raw, 0});
    }
}

void measure_memory_over_writes(report &out, int heard, int unheard)
{
    run(out, heard, true);
    run(out, unheard, false);
}

}  // namespace bench
