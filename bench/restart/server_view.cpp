// INFO, and a walk over all keys.
#include "server_view.hpp"

#include <algorithm>
#include <charconv>
#include <functional>
#include <stdexcept>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace bench
{
namespace
{

uint64_t number_of(std::string_view text)
{
    uint64_t number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

// Calls `line(name, value)` for each line "name:value" of a section.
void each_line(raw_connection &to, const char *section,
               const std::function<void(std::string_view name, std::string_view value)> &line)
{
    const raw_reply info = to.ask({"INFO", section});
    std::string_view left(info->str, info->len);
    while (!left.empty()) {
        const std::string_view one = left.substr(0, left.find("\r\n"));
        if (const size_t colon = one.find(':'); colon != one.npos)
            line(one.substr(0, colon), one.substr(colon + 1));
        left.remove_prefix(std::min(one.size() + 2, left.size()));
    }
}

uint64_t sum_of(const redisReply &reply)
{
    if (reply.type != REDIS_REPLY_ARRAY)
        return std::hash<std::string_view>()({reply.str, reply.len});
    uint64_t sum = 0;  // of pairs, whatever their order
    for (size_t i = 0; i + 1 < reply.elements; i += 2)
        sum +=
            std::hash<uint64_t>()(sum_of(*reply.element[i]) * 31 + sum_of(*reply.element[i + 1])) * 0x9e3779b97f4a7c15;
    return sum;
}

// A scan may show a key twice.
void add_page(raw_connection &from, const redisReply &keys, std::unordered_set<std::string> &seen, contents &to)
{
    std::vector<std::string_view> own;
    for (size_t i = 0; i < keys.elements; ++i) {
        const std::string_view key(keys.element[i]->str, keys.element[i]->len);
        if (!key.starts_with("mom:") && seen.emplace(key).second)
            own.push_back(key);
    }
    for (const auto key : own)
        from.append({"TYPE", key});
    std::vector<bool> is_hash;
    for (size_t i = 0; i < own.size(); ++i)
        is_hash.push_back(std::string_view(from.read()->str) == "hash");
    for (size_t i = 0; i < own.size(); ++i)
        from.append({is_hash[i] ? "HGETALL" : "GET", own[i]});
    for (const auto key : own)
        to.sum += (std::hash<std::string_view>()(key) | 1) * sum_of(*from.read());
    to.records += own.size();
}

}  // namespace

server_counts operator-(const server_counts &now, const server_counts &before)
{
    server_counts made = now;
    made.bytes_in -= before.bytes_in;
    made.bytes_out -= before.bytes_out;
    for (const auto &[name, count] : before.commands)
        made.commands[name] -= count;
    std::erase_if(made.commands, [](const auto &each) { return each.second == 0; });
    return made;
}

server_counts look_at_counts(raw_connection &to)
{
    server_counts counts;
    each_line(to, "commandstats", [&](std::string_view name, std::string_view value) {
        counts.commands[std::string(name.substr(name.find('_') + 1))] =
            number_of(value.substr(value.find('=') + 1));  // calls=N,usec=...
    });
    each_line(to, "stats", [&](std::string_view name, std::string_view value) {
        if (name == "total_net_input_bytes")
            counts.bytes_in = number_of(value);
        if (name == "total_net_output_bytes")
            counts.bytes_out = number_of(value);
    });
    return counts;
}

contents look_at_contents(const std::string &socket, uint32_t db)
{
    raw_connection from(socket, static_cast<int>(db));
    contents found;
    std::unordered_set<std::string> seen;
    found.marks = static_cast<uint64_t>(from.ask({"ZCARD", "mom:marks"})->integer);
    for (std::string cursor = "0";;) {
        const raw_reply page = from.ask({"SCAN", cursor, "COUNT", "1000"});
        add_page(from, *page->element[1], seen, found);
        cursor = page->element[0]->str;
        if (cursor == "0")
            return found;
    }
}

}  // namespace bench
