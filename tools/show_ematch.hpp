// "ebridge show ematch": the match rules that a store holds, by key: who has which rule, and what came of it. Only reads.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sw_ebridge.h"
#include "verdicts.hpp"

namespace ebridge_tool
{

struct ematch_query {
    std::string store{};  // URL
    std::vector<uint32_t> databases{4};
    std::string user{};                  // only keys for which this one has a rule; "" all
    std::optional<int32_t> type{};       // match type
    int64_t patience_usec = 30'000'000;  // without anything heard
};

// A rule as its record stands in the store. The item has no user; its mom_db is the database.
struct match_rule {
    std::string user;
    sw_ematch_item item;
    bool whole = true;  // false: the record's addresses are of no form that an item has
};

// What came of a rule, as far as it is known.
enum class rule_state : uint8_t {
    holds,
    lost,
    no_room,       // it won, but the hardware has no room for it
    undecided,     // nobody has decided yet
    not_compared,  // the user has another rule for the key, of a higher priority
    ignored,       // nobody decides it: its user's name is too long, there is no such priority, or it is not whole
};

struct judged_rule {
    match_rule rule;
    rule_state state = rule_state::undecided;
    std::optional<claim> lost_to{};  // nothing: to nobody, or it is not known
};

enum class explanation : uint8_t {
    complete,  // the results are those of a comparison among these users
    none,      // nobody has decided: all of several users' results are what they are without a verdict
    differs,   // they are not, in any order of the users that is known: what the records say is all there is to tell
};

// The rules for one key, the highest priority first.
struct judged_key {
    std::vector<judged_rule> rules;
    explanation explained = explanation::complete;
};

// Reads what a query asks for, with the rules of others for the same keys. 0, or a qz_mom_code and a line in *error.
int32_t read_match_rules(const ematch_query &query, std::vector<match_rule> *out, std::string *error);

// What came of rules, sorted by key; only keys for which that user has a rule, "" all. The users are registered in the
// registry of this process, whose order they are compared in; where the results are not of that order, of any other.
std::vector<judged_key> judge(std::vector<match_rule> rules, const std::string &user);

// For people, with a line's end; on request with the database of each rule.
std::string ematch_table(const std::vector<judged_key> &keys, bool with_db);
// {"keys": [{"key": {...}, "verdicts": "explained", "rules": [{"user": NAME, "db": n, "priority": n, "state": "holds",
//  "lost_to": {"user": NAME, "priority": n}, "result": NAME, "action": {...}}]}], "rules": n, "holds": n, ...}
std::string ematch_json(const std::vector<judged_key> &keys);

}  // namespace ebridge_tool
