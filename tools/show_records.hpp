// "ebridge show evlans", "show eports" and "show users": what users have published, and who they are. Only reads.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "bridge_tables.hpp"
#include "table_scan.hpp"

namespace ebridge_tool
{

struct record_query {
    std::string store{};  // URL
    std::vector<uint32_t> databases{};
    std::string user{};                  // only this one's, of tables that have users; "" all
    std::optional<wanted_type> type{};   // only of this type
    int64_t patience_usec = 30'000'000;  // without anything heard
};

// Reads these tables one after the other. 0, or a qz_mom_code and a line in *error.
int32_t read_records(const record_query &query, std::span<const bridge_table *const> tables, const record_heard &heard,
                     std::string *error);

// ---- attributes -----------------------------------------------------------------------------------------------------

// What a user says of an evlan or eport.
struct shown_attributes {
    uint32_t id = 0;
    uint32_t db = 0;
    std::string user{};
    std::string type{};
    std::string words{};   // for people
    std::string object{};  // the record as JSON
};
// In the order of ids. `table`: evlan or eport.
int32_t read_attributes(const record_query &query, const bridge_table &table, std::vector<shown_attributes> *out,
                        std::string *error);
std::string attributes_table(const std::vector<shown_attributes> &all, const char *what, bool with_db);
// [{"id": n, "db": n, "user": NAME, "type": NAME, "record": {...}}]
std::string attributes_json(const std::vector<shown_attributes> &all);

// ---- users ----------------------------------------------------------------------------------------------------------

// How many records of each kind a user has. Mirrors of sessions do not count: they are the service's.
struct user_counts {
    size_t sessions = 0;
    size_t attributes = 0;
    size_t rules = 0;
    size_t port_vlans = 0;
    size_t pvids = 0;
    size_t others = 0;
};
using counted_users = std::map<std::string, user_counts>;
int32_t count_users(const record_query &query, counted_users *out, std::string *error);
std::string users_table(const counted_users &users);
// [{"user": NAME, "sessions": n, "attributes": n, "rules": n, "port_vlans": n, "pvids": n, "others": n}]
std::string users_json(const counted_users &users);

}  // namespace ebridge_tool
