// The Redis store against raw pipelined hiredis, in one run on one private server: writes that a subscriber in another
// process hears, and scans. Ratios count; the absolute figures are the machine's. Both placements: everything on one
// core, and wherever the system puts it.
#include <hiredis/hiredis.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "qz_mom.h"
#include "redis_server.hpp"
#include "u_bridge.pb-c.h"

namespace
{

constexpr uint32_t DB = 4;
constexpr uint32_t FIELDS[] = {6, 7, 8};
constexpr int DEPTH = 128;
constexpr int KEYS = 10000;

using clock_type = std::chrono::steady_clock;

double seconds_since(clock_type::time_point start)
{
    return std::chrono::duration<double>(clock_type::now() - start).count();
}

[[noreturn]] void give_up(const char *what)
{
    std::fprintf(stderr, "mom_bench: %s\n", what);
    std::exit(1);
}

// ---- raw ------------------------------------------------------------------------------------------------------------

struct free_context {
    void operator()(redisContext *context) const { redisFree(context); }
};
using raw_connection = std::unique_ptr<redisContext, free_context>;

raw_connection connect_raw(const support::redis_server &server)
{
    raw_connection made(redisConnectUnix(server.socket().c_str()));
    if (made == nullptr || made->err != 0)
        give_up("the server cannot be reached");
    return made;
}

void read_replies(redisContext &from, int count)
{
    for (int i = 0; i < count; ++i) {
        void *reply = nullptr;
        if (redisGetReply(&from, &reply) != REDIS_OK)
            give_up("no reply");
        freeReplyObject(reply);
    }
}

double raw_writes(const support::redis_server &server, int count)
{
    const auto to = connect_raw(server);
    const auto start = clock_type::now();
    for (int i = 0; i < count; i += DEPTH) {
        for (int k = 0; k < DEPTH; ++k)
            redisAppendCommand(to.get(), "HSET raw:app:32:%d 6 %b 7 %b 8 %b", (i + k) % KEYS, "0\x05", size_t{2}, "",
                               size_t{0}, "@\x01", size_t{2});
        read_replies(*to, DEPTH);
    }
    return count / seconds_since(start);
}

double raw_scan(const support::redis_server &server, int *found)
{
    const auto to = connect_raw(server);
    redisAppendCommand(to.get(), "SELECT %d", static_cast<int>(DB));
    read_replies(*to, 1);
    const auto start = clock_type::now();
    std::string cursor = "0";
    *found = 0;
    do {
        auto *page = static_cast<redisReply *>(
            redisCommand(to.get(), "SCAN %s MATCH u_bridge.evlan_session:* COUNT 1000", cursor.c_str()));
        if (page == nullptr)
            give_up("no reply");
        cursor = page->element[0]->str;
        const auto *keys = page->element[1];
        for (size_t i = 0; i < keys->elements; ++i)
            redisAppendCommand(to.get(), "HGETALL %b", keys->element[i]->str, keys->element[i]->len);
        read_replies(*to, static_cast<int>(keys->elements));
        *found += static_cast<int>(keys->elements);
        freeReplyObject(page);
    } while (cursor != "0");
    return *found / seconds_since(start);
}

// ---- ours -----------------------------------------------------------------------------------------------------------

struct session_message {
    UBridge__EvlanAppIndex index = U_BRIDGE__EVLAN_APP_INDEX__INIT;
    UBridge__EvlanSession record = U_BRIDGE__EVLAN_SESSION__INIT;
    char user[4] = "app";

    explicit session_message(int key)
    {
        record.index = &index;
        if (key < 0)
            return;
        index.t_user = user;
        index.type = 32;
        index.keyid = key;
        record.request_value = 5;
        record.request = 1;
    }
    session_message(const session_message &) = delete;
    session_message &operator=(const session_message &) = delete;
};

// A handle on a loop of its own.
struct endpoint {
    qz_thread_master *master = qz_thread_master_create(QZ_THREAD_CLOCK_REAL);
    qz_mom_handle *handle = nullptr;
    int heard = 0;
    int wanted = 0;
    bool confirmed = false;

    explicit endpoint(const support::redis_server &server)
    {
        if (qz_mom_client_open(server.url().c_str(), master, &handle) != 0)
            give_up("the store cannot be opened");
    }
    ~endpoint()
    {
        qz_mom_client_close(handle);
        qz_thread_master_free(master);
    }
    endpoint(const endpoint &) = delete;
    endpoint &operator=(const endpoint &) = delete;

    static int32_t hear(qz_mom_handle *, const qz_mom_notification *msg, void *args)
    {
        auto &self = *static_cast<endpoint *>(args);
        if (msg->cmd == QZ_MOM_CMD_SUBSCRIBED)
            self.confirmed = true;
        else if (msg->value != nullptr)
            ++self.heard;
        if (msg->cmd == QZ_MOM_CMD_SUBSCRIBED || msg->end != 0 || (self.wanted != 0 && self.heard >= self.wanted))
            qz_thread_stop(self.master);
        return 0;
    }
};

// A process that subscribes, says so, hears `count` changes, and ends.
pid_t start_subscriber(const support::redis_server &server, int count)
{
    int ready[2];
    if (pipe(ready) != 0)
        give_up("no pipe");
    const pid_t child = fork();
    if (child == 0) {
        endpoint self(server);
        const session_message any(-1);
        qz_mom_subscribe(self.handle, DB, &any.record.base, 0, endpoint::hear, &self);
        qz_thread_run(self.master);
        self.wanted = count;
        if (write(ready[1], "x", 1) != 1)
            _exit(1);
        qz_thread_run(self.master);
        _exit(self.heard == count ? 0 : 1);
    }
    char byte = 0;
    if (read(ready[0], &byte, 1) != 1)
        give_up("the subscriber has not come up");
    close(ready[0]);
    close(ready[1]);
    return child;
}

double our_writes(const support::redis_server &server, int count, int subscribers)
{
    std::vector<pid_t> children;
    for (int i = 0; i < subscribers; ++i)
        children.push_back(start_subscriber(server, count));
    endpoint writer(server);
    const qz_mom_timeval none{0, 0};
    const session_message absent(KEYS);
    qz_mom_pexpire_sync(writer.handle, DB, &absent.record.base, QZ_MOM_EXPIRE_EVLAN_SESSION, &none);  // connected now
    const auto start = clock_type::now();
    for (int i = 0; i < count; ++i) {
        const session_message written(i % KEYS);
        while (qz_mom_hmset(writer.handle, DB, &written.record.base, FIELDS, std::size(FIELDS), nullptr, nullptr) ==
               QZ_MOM_EFULL)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    if (children.empty())
        qz_mom_pexpire_sync(writer.handle, DB, &absent.record.base, QZ_MOM_EXPIRE_EVLAN_SESSION, &none);
    for (const pid_t child : children) {
        int status = 0;
        if (waitpid(child, &status, 0) != child || status != 0)
            give_up("a subscriber has not heard everything");
    }
    return count / seconds_since(start);
}

double our_scan(const support::redis_server &server, int expected)
{
    endpoint reader(server);
    const session_message any(-1);
    const auto start = clock_type::now();
    qz_mom_scan(reader.handle, DB, &any.record.base, 0, endpoint::hear, &reader);
    qz_thread_run(reader.master);
    if (reader.heard != expected)
        give_up("a scan has not found everything");
    return reader.heard / seconds_since(start);
}

void fill(const support::redis_server &server, int count)
{
    endpoint writer(server);
    for (int i = 0; i < count; ++i) {
        const session_message written(i);
        while (qz_mom_hmset(writer.handle, DB, &written.record.base, FIELDS, std::size(FIELDS), nullptr, nullptr) ==
               QZ_MOM_EFULL)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    const qz_mom_timeval none{0, 0};
    const session_message absent(count);
    qz_mom_pexpire_sync(writer.handle, DB, &absent.record.base, QZ_MOM_EXPIRE_EVLAN_SESSION, &none);
}

// ---- report ---------------------------------------------------------------------------------------------------------

std::string json;

void line(const char *placement, const char *what, double ours, double raw)
{
    std::printf("%-9s  %-34s  %12.0f  %12.0f  %6.2f\n", placement, what, ours, raw, ours / raw);
    std::fflush(stdout);
    char row[256];
    std::snprintf(row, sizeof row, "%s  {\"placement\": \"%s\", \"what\": \"%s\", \"ours\": %.0f, \"raw\": %.0f}",
                  json.empty() ? "" : ",\n", placement, what, ours, raw);
    json += row;
}

void measure(const char *placement)
{
    const support::redis_server server;
    constexpr int WRITES = 400000 / DEPTH * DEPTH;
    raw_writes(server, WRITES / 4);
    const double raw = raw_writes(server, WRITES);
    line(placement, "writes/s, nobody hears", our_writes(server, WRITES, 0), raw);
    line(placement, "writes/s, one subscriber hears all", our_writes(server, WRITES, 1), raw);
    line(placement, "writes/s, eight hear all", our_writes(server, WRITES / 4, 8), raw);
    for (const int count : {KEYS, 1000000}) {
        fill(server, count);
        int found = 0;
        const double raw_rate = raw_scan(server, &found);
        line(placement, ("scan records/s, " + std::to_string(count) + " records").c_str(), our_scan(server, found),
             raw_rate);
    }
}

}  // namespace

int main(int, char **argv)
{
    std::printf("%-9s  %-34s  %12s  %12s  %6s\n", "PLACEMENT", "WHAT", "OURS", "RAW", "SHARE");
    measure("free");
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(0, &one);
    sched_setaffinity(0, sizeof one, &one);
    measure("one core");
    const std::string program = argv[0];
    const std::string out = program.substr(0, program.rfind('/') + 1) + "mom.json";
    if (std::FILE *file = std::fopen(out.c_str(), "w"); file != nullptr) {
        std::fprintf(file, "[\n%s\n]\n", json.c_str());
        std::fclose(file);
        std::printf("written to %s\n", out.c_str());
    }
    return 0;
}
