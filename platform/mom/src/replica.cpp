// What a client knows of a table. See replica.hpp.
#include "replica.hpp"

#include <algorithm>
#include <functional>
#include <new>
#include <utility>

namespace mom
{

void replica::free_record::operator()(record *gone) const noexcept
{
    gone->~record();
    ::operator delete(gone);
}

// The text of its key stands behind it.
replica::record_ptr replica::make(std::string_view key)
{
    void *memory = ::operator new(sizeof(record) + key.size());
    char *text = static_cast<char *>(memory) + sizeof(record);
    std::ranges::copy(key, text);
    return record_ptr(new (memory) record{{text, key.size()}, nullptr});
}

uint32_t replica::hash_of(std::string_view key) noexcept
{
    return static_cast<uint32_t>(std::hash<std::string_view>()(key));
}

// The entry of that key, or where it would be. There is at least one that is free.
replica::entry *replica::entry_of(std::string_view key, uint32_t hash) noexcept
{
    const size_t last = index_.size() - 1;
    size_t at = hash & last;
    while (index_[at].known != nullptr && (index_[at].hash != hash || index_[at].known->key != key))
        at = (at + 1) & last;
    return &index_[at];
}

void replica::enter(std::vector<entry> &index, const entry &added) noexcept
{
    const size_t last = index.size() - 1;
    size_t at = added.hash & last;
    while (index[at].known != nullptr)
        at = (at + 1) & last;
    index[at] = added;
}

void replica::fetch_entry(std::string_view key) const noexcept
{
    __builtin_prefetch(&index_[hash_of(key) & (index_.size() - 1)]);
}

// For one more: a free slot, and an entry.
void replica::make_room()
{
    if (!free_.empty())
        return;
    const size_t count = slots_.size() + 1;
    if (count > index_.size() / 4 * 3) {
        std::vector<entry> larger(std::max<size_t>(8, 2 * index_.size()));
        for (const entry &each : index_)
            if (each.known != nullptr)
                enter(larger, each);
        index_ = std::move(larger);
    }
    if (free_.capacity() < count)
        free_.reserve(2 * count);
    slots_.emplace_back();
    free_.push_back(static_cast<uint32_t>(count - 1));
}

replica::record &replica::put(std::string_view key, std::shared_ptr<const content> body)
{
    const uint32_t hash = hash_of(key);
    if (record *known = entry_of(key, hash)->known) {
        known->body = std::move(body);
        return *known;
    }
    make_room();
    record_ptr &made = slots_[free_.back()] = make(key);
    made->body = std::move(body);
    enter(index_, {made.get(), hash, free_.back()});
    free_.pop_back();
    return *made;
}

// What lies behind the gap moves up, as far as it would have lain there.
void replica::erase(record &gone) noexcept
{
    const size_t last = index_.size() - 1;
    const auto way = [last](size_t from, size_t to) { return (to - from) & last; };
    const entry *found = entry_of(gone.key, hash_of(gone.key));
    const uint32_t slot = found->slot;
    auto gap = static_cast<size_t>(found - index_.data());
    for (size_t at = (gap + 1) & last; index_[at].known != nullptr; at = (at + 1) & last) {
        if (way(index_[at].hash & last, at) >= way(gap, at))
            index_[std::exchange(gap, at)] = index_[at];
    }
    index_[gap] = {};
    slots_[slot].reset();
    free_.push_back(slot);
}

}  // namespace mom
