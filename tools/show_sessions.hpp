// "ebridge show sessions", "show ids" and "show holder": who has asked for an id under which key, what came of it, and which
// ids are taken. Only reads.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "show_records.hpp"

namespace ebridge_tool
{

// A type of evlans or of eports. Both have their own numbers.
struct id_kind {
    bool of_eports = false;
    uint32_t type = 0;
    auto operator<=>(const id_kind &) const = default;
};
std::string type_name(const id_kind &of);

enum class session_state : uint8_t { open, granted, refused, idle };

struct shown_session {
    uint32_t db = 0;
    id_kind kind{};
    uint32_t key1 = 0;
    uint32_t key2 = 0;  // of eports
    std::string user{};
    uint32_t wanted = 0;  // with its type in the top byte; number 0: any
    int32_t priority = 0;
    bool requested = false;
    bool answered = false;
    int32_t answer = 0;
    uint32_t mom_db = 0;  // of a mirror: the database that it shows

    session_state state() const;
    // The id that it holds; 0 none.
    uint32_t id() const { return state() == session_state::granted ? static_cast<uint32_t>(answer) : 0; }
};

// The numbers that may be given; min > max: none.
struct shown_range {
    id_kind kind{};
    uint32_t min = 0;
    uint32_t max = 0;
};

// In the order of kinds, keys and users.
int32_t read_sessions(const record_query &query, std::vector<shown_session> *out, std::string *error);
// Of range records of the lowest of the databases.
int32_t read_ranges(const record_query &query, std::vector<shown_range> *out, std::string *error);

// How many ids of a type are taken, and how many of its numbers are left.
struct id_usage {
    id_kind kind{};
    uint32_t min = 0;
    uint32_t max = 0;
    size_t in_use = 0;  // also those that are out of the range
    size_t free = 0;
};
// Of every type, or of those that are wanted.
std::vector<id_usage> usage_of(const std::vector<shown_session> &sessions, const std::vector<shown_range> &ranges,
                               const std::optional<wanted_type> &type);

std::string sessions_table(const std::vector<shown_session> &sessions, bool with_db);
std::string holders_table(const std::vector<shown_session> &holders, uint32_t id);
std::string ids_table(const std::vector<id_usage> &usage);
// [{"db": 4, "kind": "evlan", "type": "VXLAN", "keyid": 5010, "user": NAME, "wanted": n, "priority": 0,
//   "state": "granted", "answer": n, "mom_db": n}]; of eports keyid1 and keyid2
std::string sessions_json(const std::vector<shown_session> &sessions);
// [{"kind": "evlan", "type": "VLAN", "min": 1, "max": 4094, "in_use": n, "free": n}]
std::string ids_json(const std::vector<id_usage> &usage);

}  // namespace ebridge_tool
