// What the server itself says: which commands it has executed, how many bytes it has taken and given, what it holds.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "raw.hpp"

namespace bench
{

struct server_counts {
    std::map<std::string, uint64_t> commands;  // those within functions, too
    uint64_t bytes_in = 0;
    uint64_t bytes_out = 0;
};

server_counts operator-(const server_counts &now, const server_counts &before);
server_counts look_at_counts(raw_connection &to);

struct contents {
    uint64_t records = 0;
    uint64_t sum = 0;  // of all keys and what they hold, in any order
    uint64_t marks = 0;
    bool operator==(const contents &) const = default;
};

// Of one database, the store client's own keys aside.
contents look_at_contents(const std::string &socket, uint32_t db);

}  // namespace bench
