// What a client knows of a table: each record in a slot of its own, found by its key.
//
// A record keeps its slot as long as it lives. So who walks the slots one after the other, with other work in between,
// meets each record that is there all the time exactly once.
#ifndef MOM_REPLICA_HPP
#define MOM_REPLICA_HPP

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "record_codec.hpp"

namespace mom
{

class replica
{
  public:
    struct record {
        std::string key;
        std::shared_ptr<const content> body;  // null: the slot is free
        uint64_t seen = 0;                    // the newest load that has met it
    };

    record *find(std::string_view key)
    {
        const auto at = by_key_.find(key);
        return at == by_key_.end() ? nullptr : &slots_[at->second];
    }
    // The record of that key, or a new one.
    record &put(std::string_view key, std::shared_ptr<const content> body);
    void erase(record &gone) noexcept;

    size_t slots() const { return slots_.size(); }
    record &slot(size_t number) { return slots_[number]; }

  private:
    std::deque<record> slots_;  // a record does not move, so that its key can be pointed at
    std::vector<size_t> free_;
    std::unordered_map<std::string_view, size_t> by_key_;
};

}  // namespace mom
#endif
