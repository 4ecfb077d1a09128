// Ways to have a server write a record and tell of it, on plain hiredis alone: transactions, scripts and functions, one
// record or many at a time, told by publishing or by a stream. One writer, and one subscriber in another process that
// hears every record. As shares of pipelined HSET that nobody hears.
#include <sys/mman.h>

#include <atomic>
#include <cstdio>
#include <exception>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "processes.hpp"
#include "program.hpp"
#include "raw.hpp"
#include "redis_server.hpp"
#include "report.hpp"
#include "writes.hpp"

namespace
{

using namespace bench;

constexpr const char *HELP =
    "usage: mechanisms_bench\n"
    "Measures ways to have a redis-server write a record and tell of it, on plain hiredis alone, as shares of pipelined HSET\n"
    "that nobody hears. Prints a table, which is also written to mechanisms.json beside the program.\n";

constexpr int TURNS = 3;
constexpr int WRITES = 2000 * GROUP;
constexpr int MAX_BEHIND = 256 * GROUP;  // records that the subscriber may be behind the writer
constexpr int WORDS = 7;                 // of a record: its key, and three times field and bytes
constexpr const char *NEWS = "news";     // the channel, and the stream

// ---- what the server runs -------------------------------------------------------------------------------------------

const std::string HSET_EACH =
    "for i = 1, #w, 7 do redis.call('HSET', w[i], w[i+1], w[i+2], w[i+3], w[i+4], w[i+5], w[i+6]) end ";
const std::string PUBLISH_ALL = "redis.call('PUBLISH', 'news', cmsgpack.pack(w)) return 1";
const std::string ADD_ALL = "redis.call('XADD', 'news', 'MAXLEN', '~', 4096, '*', 'c', cmsgpack.pack(w)) return 1";
const std::string SCRIPT_PUBLISH = "local w = ARGV " + HSET_EACH + PUBLISH_ALL;
const std::string SCRIPT_ADD = "local w = ARGV " + HSET_EACH + ADD_ALL;
const std::string SCRIPT_ADD_PACKED = "local w = cmsgpack.unpack(ARGV[1]) " + HSET_EACH +
                                      "redis.call('XADD', 'news', 'MAXLEN', '~', 4096, '*', 'c', ARGV[1]) return 1";
const std::string SCRIPT_ADD_EACH = "local w = ARGV " + HSET_EACH +
                                    "for i = 1, #w, 7 do redis.call('XADD', 'news', 'MAXLEN', '~', 65536, '*', 'c', "
                                    "cmsgpack.pack({unpack(w, i, i + 6)})) end return 1";
const std::string FUNCTION_PUBLISH =
    "#!lua name=bench\nredis.register_function('one', function(keys, w) " + HSET_EACH + PUBLISH_ALL + " end)";

// ---- records --------------------------------------------------------------------------------------------------------

// The words of so many records, in one row.
struct words {
    std::vector<std::string> keys;
    std::vector<std::string_view> all;

    words(int first, int count)
    {
        for (int i = first; i < first + count; ++i)
            keys.push_back(key_of(i % KEYS));
        for (const auto &key : keys) {
            all.push_back(key);
            all.insert(all.end(), std::begin(FIELD_WORDS), std::end(FIELD_WORDS));
        }
    }
};

// A row of texts as the server's cmsgpack packs it.
std::string packed(const std::vector<std::string_view> &texts)
{
    std::string out;
    const auto byte = [&out](size_t value) { out += static_cast<char>(value); };
    if (texts.size() < 16)
        byte(0x90 | texts.size());
    else
        byte(0xdc), byte(texts.size() >> 8), byte(texts.size());
    for (const auto text : texts) {
        if (text.size() < 32)
            byte(0xa0 | text.size());
        else
            byte(0xd9), byte(text.size());
        out += text;
    }
    return out;
}

int records_of(const redisReply &row)
{
    const auto byte = [&row](size_t at) { return static_cast<unsigned char>(row.str[at]); };
    if (row.len == 0)
        throw std::runtime_error("an empty notification");
    return (byte(0) == 0xdc ? byte(1) << 8 | byte(2) : byte(0) & 0x0f) / WORDS;
}

// ---- the mechanisms -------------------------------------------------------------------------------------------------

struct mechanism {
    const char *what;
    bool stream;
    int together;  // records of one call
    // Appends the commands of one call; the number of its answers.
    std::function<int(raw_connection &, const words &, const std::string &loaded)> call;
    const std::string *script = nullptr;  // loaded beforehand
};

int publish(raw_connection &to, const words &of, const std::string &)
{
    to.append_hset(of.keys[0]);
    to.append({"PUBLISH", NEWS, packed(of.all)});
    return 2;
}

int transact_publish(raw_connection &to, const words &of, const std::string &loaded)
{
    to.append({"MULTI"});
    publish(to, of, loaded);
    to.append({"EXEC"});
    return 4;
}

int transact_add(raw_connection &to, const words &of, const std::string &)
{
    to.append({"MULTI"});
    to.append_hset(of.keys[0]);
    to.append({"XADD", NEWS, "MAXLEN", "~", "65536", "*", "c", packed(of.all)});
    to.append({"EXEC"});
    return 4;
}

int call_function(raw_connection &to, const words &of, const std::string &)
{
    std::vector<std::string_view> command{"FCALL", "one", "0"};
    command.insert(command.end(), of.all.begin(), of.all.end());
    to.append(command);
    return 1;
}

int call_script(raw_connection &to, const words &of, const std::string &loaded)
{
    std::vector<std::string_view> command{"EVALSHA", loaded, "0"};
    command.insert(command.end(), of.all.begin(), of.all.end());
    to.append(command);
    return 1;
}

int call_script_packed(raw_connection &to, const words &of, const std::string &loaded)
{
    to.append({"EVALSHA", loaded, "0", packed(of.all)});
    return 1;
}

std::vector<mechanism> mechanisms()
{
    return {{"HSET and PUBLISH, no transaction", false, 1, publish},
            {"MULTI, HSET, PUBLISH, EXEC", false, 1, transact_publish},
            {"MULTI, HSET, XADD, EXEC", true, 1, transact_add},
            {"script a record, PUBLISH", false, 1, call_script, &SCRIPT_PUBLISH},
            {"function a record, PUBLISH", false, 1, call_function},
            {"script for 16 records, one PUBLISH", false, 16, call_script, &SCRIPT_PUBLISH},
            {"script for 128 records, one PUBLISH", false, 128, call_script, &SCRIPT_PUBLISH},
            {"script for 16 records, one stream entry", true, 16, call_script, &SCRIPT_ADD},
            {"script for 128 records, one stream entry", true, 128, call_script, &SCRIPT_ADD},
            {"script for 128 records, a stream entry each", true, 128, call_script, &SCRIPT_ADD_EACH},
            {"script for 128 packed records, entry as it came", true, 128, call_script_packed, &SCRIPT_ADD_PACKED}};
}

// ---- running --------------------------------------------------------------------------------------------------------

// Records that the subscriber has heard, for the writer to see.
using counter = std::atomic<int>;

counter &shared_counter()
{
    static void *page = mmap(nullptr, sizeof(counter), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED)
        throw std::runtime_error("no shared memory");
    return *new (page) counter(0);
}

process start_writer(const std::string &socket, const mechanism &of, const counter &heard)
{
    return process([&](const channel &parent) {
        raw_connection to(socket);
        const std::string loaded = of.script == nullptr ? "" : to.ask({"SCRIPT", "LOAD", *of.script})->str;
        parent.put();
        parent.get();
        write_groups(to, WRITES, [&](int first) {
            while (first - heard > MAX_BEHIND)
                sched_yield();
            int answers = 0;
            for (int at = first; at < first + GROUP; at += of.together)
                answers += of.call(to, words(at, of.together), loaded);
            return answers;
        });
        parent.put();
        parent.get();
    });
}

void hear_channel(raw_connection &from, counter &heard)
{
    while (heard < WRITES)
        heard += records_of(*from.read()->element[2]);
}

void hear_stream(raw_connection &from, counter &heard)
{
    for (std::string last = "0-0"; heard < WRITES;) {
        const raw_reply reply = from.ask({"XREAD", "COUNT", "256", "BLOCK", "1000", "STREAMS", NEWS, last});
        if (reply->type == REDIS_REPLY_NIL)
            continue;
        const redisReply &entries = *reply->element[0]->element[1];
        for (size_t i = 0; i < entries.elements; ++i)
            heard += records_of(*entries.element[i]->element[1]->element[1]);
        last = entries.element[entries.elements - 1]->element[0]->str;
    }
}

process start_subscriber(const std::string &socket, bool stream, counter &heard)
{
    return process([&, stream](const channel &parent) {
        raw_connection from(socket);
        if (!stream)
            from.ask({"SUBSCRIBE", NEWS});
        parent.put();
        parent.get();
        stream ? hear_stream(from, heard) : hear_channel(from, heard);
        if (heard != WRITES)
            throw std::runtime_error("the subscriber has not heard each record once");
        parent.put();
        parent.get();
    });
}

figure run(const support::redis_server &server, const mechanism &of)
{
    raw_connection(server.socket()).ask({"DEL", NEWS});
    counter &heard = shared_counter();
    const process writer = start_writer(server.socket(), of, heard);
    writer.get();
    std::vector<process> subscribers;
    subscribers.push_back(start_subscriber(server.socket(), of.stream, heard));
    return time_writes(server, writer, subscribers, WRITES);
}

void measure(report &out, const std::string &placement)
{
    const support::redis_server server("appendonly no\n");  // no file is measured
    raw_connection(server.socket()).ask({"FUNCTION", "LOAD", FUNCTION_PUBLISH});
    const auto all = mechanisms();
    std::vector<std::function<figure()>> runs{[&] { return raw_writes(server, WRITES); }};
    for (const mechanism &each : all)
        runs.emplace_back([&] { return run(server, each); });
    const auto made = medians(TURNS, runs);
    for (size_t i = 0; i < all.size(); ++i)
        out.row(placement, all[i].what, made[i + 1], made[0]);
}

}  // namespace

int main(int argc, char **argv)
{
    if (const int status = read_no_arguments(argc, argv, "mechanisms_bench", HELP); status >= 0)
        return status;
    try {
        report out("mechanisms", "HSET");
        measure(out, "free");
        {
            const one_core pinned;
            measure(out, "one core");
        }
        out.write();
    } catch (const std::exception &error) {
        std::fprintf(stderr, "mechanisms_bench: %s\n", error.what());
        return 1;
    }
    return 0;
}
