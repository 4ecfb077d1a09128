// What a client knows of a table: each record in a slot of its own, found by its key.
//
// A record keeps its slot as long as it lives. So who walks the slots one after the other, with other work in between,
// meets each record that is there all the time exactly once.
//
// Every change that is heard looks its record up, in memory that it has not touched for long. So a look-up goes to few
// places: the hash of the key leads to the slot, the slot to the record, and the key stands with the record.
#ifndef MOM_REPLICA_HPP
#define MOM_REPLICA_HPP

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "record_codec.hpp"

namespace mom
{

class replica
{
  public:
    // It does not move as long as it lives.
    struct record {
        std::string_view key;
        std::shared_ptr<const content> body;
        uint64_t seen = 0;  // the newest load that has met it
    };

    replica() = default;
    replica(const replica &) = delete;
    replica &operator=(const replica &) = delete;

    // Null: there is none.
    record *find(std::string_view key) noexcept { return entry_of(key, hash_of(key))->known; }
    // The record of that key, or a new one. Without memory nothing has changed.
    record &put(std::string_view key, std::shared_ptr<const content> body);
    void erase(record &gone) noexcept;

    // Has the processor fetch what find() and put() look at first, while the caller does something else.
    void fetch_entry(std::string_view key) const noexcept;

    size_t slots() const { return slots_.size(); }
    // Null: the slot is free.
    record *slot(size_t number) { return slots_[number].get(); }

  private:
    struct free_record {
        void operator()(record *gone) const noexcept;
    };
    using record_ptr = std::unique_ptr<record, free_record>;
    // An entry lies where its hash says, or as close behind as there was room.
    struct entry {
        record *known = nullptr;  // null: none
        uint32_t hash = 0;
        uint32_t slot = 0;
    };

    static record_ptr make(std::string_view key);
    static uint32_t hash_of(std::string_view key) noexcept;
    entry *entry_of(std::string_view key, uint32_t hash) noexcept;
    static void enter(std::vector<entry> &index, const entry &added) noexcept;
    void make_room();

    std::vector<record_ptr> slots_;
    std::vector<uint32_t> free_;    // slots; there is room for all, so that erase() needs no memory
    std::vector<entry> index_{{}};  // 2^n of them, a quarter free at least
};

}  // namespace mom
#endif
