// What has to hold after any fault, as one check: the store, what each user's callbacks said, and its index map agree.
// Evlans and eports are looked at each by themselves: an id of one is nothing to the other.
//
//  - Every session is answered, and in the mirror database as it is in the application database.
//  - No key has two ids, no id two keys.
//  - What a user was told last is what the store holds: nothing missing, nothing changed, no removal unheard.
//  - A user's index map, both directions, says the same.
//  - No id changes while it is held.
//
// What a user is promised to hear. One that follows its own sessions hears those; one that follows all hears all. Equal
// callbacks may repeat. When connections were lost, several changes of a record may be heard as one, so that a removal
// between two grants can go unheard. A key that several users share leaves the index map with the first release that
// is heard, unless the user of this process has it requested; the next grant brings it back. A request that is taken
// back before anybody answered it can leave its key in the index map: no removal is heard of what nobody had heard of.
// It stays without an id, or with an earlier one when the removal of that was heard while the key was requested again;
// the same goes for a key that the store has lost. That is so of evlans: the removal of an eport takes it out of the
// index map whatever is requested. A user's own evlan records outlive a release, and are not looked at.
#pragma once

#include <compare>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace fault
{

constexpr uint32_t REFUSED = 0xffffffff;

enum class table { evlan, eport };

struct bridge_key {
    table of = table::evlan;
    uint32_t type = 0;
    uint32_t keyid = 0;
    uint32_t keyid2 = 0;  // of eports
    auto operator<=>(const bridge_key &) const = default;
};

struct session_name {
    std::string user;
    bridge_key key;
    auto operator<=>(const session_name &) const = default;
};

// Answered sessions have an id, or REFUSED; others 0.
using session_ids = std::map<session_name, uint32_t>;

struct store_view {
    session_ids sessions;  // of the application database
    session_ids mirrors;   // of the data-plane database
};

struct event {
    enum class kind {
        started,    // a new life of the user's process: it knows nothing
        requested,  // calls of this user
        released,
        granted,  // callbacks
        refused,
        removed
    };
    kind what = kind::started;
    session_name who;
    uint32_t id = 0;
};

struct index_map {
    std::map<bridge_key, uint32_t> id_of;   // id 0: requested, not granted yet
    std::map<uint32_t, bridge_key> key_of;  // the other direction
};

struct user_view {
    std::string name;
    bool follows_all = false;  // else its own sessions
    std::vector<event> events;
    std::map<table, index_map> maps;  // of those tables that it keeps one of
};

// What the faults of a run excuse.
struct excuses {
    bool data_lost = false;       // the store forgot: ids are given anew
    bool changes_merged = false;  // tables were read anew: what happened meanwhile is heard as one change
};

// What is wrong, a sentence each; empty when all is well.
std::vector<std::string> ledger(const store_view &store, const std::vector<user_view> &users,
                                const excuses &excused = {});

}  // namespace fault
