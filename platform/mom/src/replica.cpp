// What a client knows of a table. See replica.hpp.
#include "replica.hpp"

#include <utility>

namespace mom
{

replica::record &replica::put(std::string_view key, std::shared_ptr<const content> body)
{
    if (record *known = find(key)) {
        known->body = std::move(body);
        return *known;
    }
    if (free_.empty()) {
        if (free_.capacity() == slots_.size())
            free_.reserve(2 * slots_.size() + 1);  // so that erase() needs no memory
        slots_.emplace_back();
        free_.push_back(slots_.size() - 1);
    }
    const size_t number = free_.back();
    record &made = slots_[number];
    made.key = key;
    by_key_.emplace(made.key, number);
    made.body = std::move(body);
    made.seen = 0;
    free_.pop_back();
    return made;
}

void replica::erase(record &gone) noexcept
{
    const auto at = by_key_.find(gone.key);
    free_.push_back(at->second);
    by_key_.erase(at);
    gone.body.reset();
}

}  // namespace mom
