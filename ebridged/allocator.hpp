// The allocator's decisions: which id a request gets. No store, no clock, no log: service.cpp brings requests in and
// carries answers out.
//
// One id per key. Holders that ask for the same key share its id; the id is free again when the last of them has let
// go. The kinds of key are alike for all bridge ids: an evlan's is (type, keyid), an eport's (type, keyid1, keyid2).
//
// A call that fails for lack of memory (std::bad_alloc) has changed nothing, and may be made again.
#pragma once

#include <compare>
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "id_pool.hpp"

namespace ebridged
{

struct id_key {
    uint32_t type = 0;
    uint32_t key1 = 0;
    uint32_t key2 = 0;  // 0 for evlans
    auto operator<=>(const id_key &) const = default;
};

// Not noexcept, nor are its neighbours: so the standard library keeps the hash beside each entry, and need not look at
// keys, which are elsewhere in memory, to see where a bucket ends.
struct id_key_hash {
    size_t operator()(const id_key &key) const;
};

// A type that ids exist of, and its numbers as long as nobody says otherwise.
struct id_type {
    uint32_t type;
    number_range numbers;
    uint32_t also = 0;  // a second type whose ids its keys may ask for; 0: none
};

// The types of evlans. VLAN and routed subinterface numbers are VLAN ids.
std::span<const id_type> evlan_types();
// The types of eports. A key of type PORT or AP names an interface, and the port table, not the key, knows which of the
// two that is: so keys of either type may ask for ids of both.
std::span<const id_type> eport_types();

enum class verdict {
    granted,
    bad_type,      // a type that does not exist, or a wanted id of a type that the key's has no part in
    out_of_range,  // the wanted number must not be given
    taken,         // the wanted id belongs to another key
    shared,        // the key has another id, and others hold it
    none_left
};

// What an operator is told.
const char *verdict_text(verdict v);

struct decision {
    verdict why = verdict::granted;
    int32_t reply = -1;  // what is answered: the id, or -1
};

class allocator
{
  public:
    explicit allocator(std::span<const id_type> types);

    // Decides a request. `wanted` is the type in the top byte and a number: that id or none; number 0: the id that the
    // key has, or any of that type. A refused holder holds the key no longer: the answer in its record is what counts, and -1 is no
    // id. `holder` is any text that names it; `now`, in microseconds, must not go back.
    decision request(std::string_view holder, const id_key &key, uint32_t wanted, int64_t now);
    // The holder lets go of the key. Nothing when it does not hold it.
    void release(std::string_view holder, const id_key &key, int64_t now);
    // Takes over a grant that was answered before this allocator existed; ranges do not matter. False changes nothing:
    // the id belongs to another key, the key has another id already, or the id is of no type that the key may ask for.
    bool adopt(std::string_view holder, const id_key &key, uint32_t id);
    // Full ids or plain numbers: the low 24 bits count, as far as the type has such numbers (a VLAN has 1 to 4094). False
    // for an unknown type.
    bool set_range(uint32_t type, uint32_t min, uint32_t max);
    // Back to the type's own numbers.
    bool reset_range(uint32_t type);
    // What may be given of a known type.
    number_range range_of(uint32_t type) const { return pools_.at(type).range(); }

    uint32_t id_of(const id_key &key) const;      // 0: none
    size_t holders_of(const id_key &key) const;   // 0: not held
    size_t size() const { return held_.size(); }  // keys held

  private:
    struct held_id {
        uint32_t id;
        std::vector<std::string> holders;
    };
    using entries = std::unordered_map<id_key, held_id, id_key_hash>;

    // The entry of a key that holds nothing yet. It goes again when it is not given an id.
    class new_entry
    {
      public:
        new_entry(entries &all, const id_key &key, std::string_view holder)
            : all_(all), at_(all.emplace(key, held_id{0, {std::string(holder)}}).first)
        {
        }
        ~new_entry()
        {
            if (at_->second.id == 0)
                all_.erase(at_);
        }
        new_entry(const new_entry &) = delete;
        new_entry &operator=(const new_entry &) = delete;
        void give(uint32_t id) { at_->second.id = id; }

      private:
        entries &all_;
        const entries::iterator at_;
    };

    const id_type *find_type(uint32_t type) const;  // null: there is none
    bool may_have(const id_key &key, uint32_t id) const;
    decision decide(std::string_view holder, const id_key &key, uint32_t wanted, int64_t now);
    decision grant_new(std::string_view holder, const id_key &key, uint32_t wanted, int64_t now);
    decision grant_held(std::string_view holder, entries::iterator held, uint32_t wanted, int64_t now);
    static verdict may_take(const id_pool &pool, uint32_t number);
    void move(held_id *entry, uint32_t id, int64_t now);
    id_pool &pool_of(uint32_t id) { return pools_.at(id >> 24); }

    std::span<const id_type> types_;
    std::map<uint32_t, id_pool> pools_;  // by type
    entries held_;
};

}  // namespace ebridged
