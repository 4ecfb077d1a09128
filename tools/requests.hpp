// What "ebridge run" asks for, and what requester and observer each learned of it. The two sides may be one process or
// several.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "attributes.hpp"
#include "run.hpp"

namespace ebridge_tool
{

// What a side's index map makes of a key.
struct translation {
    int32_t id = 0;     // that the key translates to, 0 none
    bool back = false;  // the id translates back to the key
};

// Facts are plain values: processes hand them to each other as they are.
struct requester_facts {
    int32_t code = 0;   // of the request call
    bool sent = false;  // an answer counts from here on
    bool answered = false;
    int32_t reply = -1;     // the id as the requester heard it, -1 refused
    int32_t attr_code = 0;  // of the call that sets the attributes
    bool held = false;      // the id is in the requester's local database
    translation map;
};

struct observer_facts {
    int32_t heard = -1;     // the id as the observer heard it
    uint32_t removals = 0;  // heard
    bool held = false;      // it is in the observer's local database (evlans)
    translation map;
    bool found = false;  // the requester's session is found by the scan; then what stands there
    int32_t request_value = 0;
    int32_t reply_value = 0;
    int32_t reply = 0;
    int32_t mom_db = 0;
};

// The key of a session.
struct app_key {
    id_kind kind;
    uint32_t type;
    uint32_t key1;      // of evlans, the only one
    uint32_t key2 = 0;  // of eports
    bool operator==(const app_key &) const = default;
};

// An id as one user holds it.
struct held_id {
    id_kind kind;
    size_t user;  // index of its name
    int32_t id;
    bool operator==(const held_id &) const = default;
};

struct words_hash {
    static uint64_t mix(uint64_t seed, uint64_t word) noexcept { return (seed ^ word) * 0x9e3779b97f4a7c15U; }
    size_t operator()(const app_key &key) const noexcept
    {
        const uint64_t mixed = mix(mix(static_cast<uint64_t>(key.kind) << 8 | key.type, key.key1), key.key2);
        return static_cast<size_t>(mixed >> 16);
    }
    size_t operator()(const held_id &id) const noexcept
    {
        const uint64_t mixed = mix(mix(static_cast<uint64_t>(id.kind), id.user), static_cast<uint32_t>(id.id));
        return static_cast<size_t>(mixed >> 16);
    }
};

// What is asked for an entry of a table. A map is an evlan, and a circuit that leads a VLAN into it.
enum class role : uint8_t { port, lag, vlan, tunnel, map, circuit };
inline constexpr size_t ROLES = 6;
const char *table_of(role as);

struct request {
    role as;
    size_t table;     // index of its table_result
    size_t entry;     // index in its table of the configuration
    std::string key;  // in the configuration
    size_t user;      // index of the requester's name
    app_key app;
    uint32_t wanted;  // request_value: an id, or the type with number 0

    requester_facts requester{};
    observer_facts observer{};

    // After a restart.
    bool dropped = false;
    int32_t id_before = -1;  // -1 none
    uint32_t removals_before = 0;
};

// The requests of one run, spread over its users in turns. Entries that are dropped later keep those of the others where
// they are.
class request_book
{
  public:
    // When a request waits for nothing more, unless it was refused.
    enum class patience {
        answered,  // in the requester's own process
        heard,     // the observer heard the grant
        described  // and has read the attributes
    };

    // Adds the configuration's tables to the result. `users` from 1. The configuration must outlive the book.
    request_book(const switch_config &config, size_t users, run_result *result);

    size_t size() const { return requests_.size(); }
    const request &at(size_t index) const { return requests_[index]; }
    const std::vector<std::string> &users() const { return users_; }
    const std::string &user_of(const request &of) const { return users_[of.user]; }
    // The index of the request with this key; size() when there is none.
    size_t find(const app_key &key) const;
    // The index of a user's name; users().size() when it is none of theirs.
    size_t find_user(const char *name) const;

    void set(size_t index, const requester_facts &facts);
    void set(size_t index, const observer_facts &facts);
    // What an id was found to be: attributes as the observer reads them, or null: none any more.
    void set(const held_id &of, const attributes *found);
    // Before the observer reads all anew.
    void forget_attributes();
    const attributes *find_attributes(const held_id &of) const;
    const std::unordered_map<held_id, attributes, words_hash> &all_attributes() const { return attributes_; }

    // The attributes that belong to a granted request, by the configuration and the ids that others were granted.
    sw_evlan_attr evlan_attributes(const request &of) const;
    sw_eport_attr eport_attributes(const request &of) const;
    attributes wanted_attributes(const request &of) const;

    // The requesters begin anew, with the same configuration in which some entries are dropped: nothing is known but what
    // the observer has heard.
    void restart(const switch_config &reduced);

    void wait_for(patience what);
    // Requests that are wanted; those of them that wait for nothing more; those that were answered.
    size_t wanted() const { return wanted_; }
    size_t settled() const { return settled_; }
    size_t answered() const { return answered_; }
    // Requests that were dropped and of whose removal the observer has not heard.
    size_t left() const { return left_; }

  private:
    template <typename Entry, typename Key>
    void list(role as, const std::optional<std::vector<Entry>> &entries, const Key &key_of);
    void list_all();
    void add_tables(run_result *result);
    void deal_out(size_t users);
    const config_item &item_of(const request &of) const;
    // The id that an entry's request was granted; 0 without one.
    uint32_t id_of(role as, size_t entry) const;
    void count_maps();
    // The map of a tunnel that has one alone; nothing otherwise.
    std::optional<size_t> only_map(const tunnel_entry &tunnel) const;
    void describe_wire(const tunnel_entry &tunnel, sw_eport_attr *out) const;
    void describe_circuit(size_t map, sw_eport_attr *out) const;
    bool is_settled(const request &of) const;
    // Adds it to the counts, or takes it away.
    void count(const request &of, bool add);
    void recount();

    const switch_config *config_;
    std::vector<request> requests_;
    std::vector<std::string> users_;
    size_t first_[ROLES] = {};                                      // index of the first request of a role
    std::unordered_map<std::string, std::vector<size_t>> maps_of_;  // tunnel -> the entries of its maps
    std::unordered_map<app_key, size_t, words_hash> by_key_;
    std::unordered_map<held_id, size_t, words_hash> by_id_;
    std::unordered_map<held_id, attributes, words_hash> attributes_;
    patience until_ = patience::heard;
    size_t wanted_ = 0;
    size_t settled_ = 0;
    size_t answered_ = 0;
    size_t left_ = 0;
};

}  // namespace ebridge_tool
