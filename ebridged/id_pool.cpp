// The numbers of one id type. See id_pool.hpp.
#include "id_pool.hpp"

#include <algorithm>
#include <utility>

namespace ebridged
{

bool interval_set::contains(uint32_t number) const
{
    auto after = last_of_.upper_bound(number);
    return after != last_of_.begin() && std::prev(after)->second >= number;
}

void interval_set::add(uint32_t number)
{
    const auto after = last_of_.upper_bound(number);
    const bool meets_next = after != last_of_.end() && after->first == number + 1;
    if (after != last_of_.begin() && std::prev(after)->second + 1 == number) {
        std::prev(after)->second = meets_next ? after->second : number;
        if (meets_next)
            last_of_.erase(after);
    } else if (meets_next) {
        auto interval = last_of_.extract(after);
        interval.key() = number;
        last_of_.insert(std::move(interval));
    } else {
        last_of_.emplace(number, number);
    }
}

void interval_set::remove(uint32_t number)
{
    auto interval = std::prev(last_of_.upper_bound(number));
    const auto [first, last] = *interval;
    if (last != number)
        last_of_.emplace(number + 1, last);
    if (first == number)
        last_of_.erase(interval);
    else
        interval->second = number - 1;
}

uint32_t interval_set::lowest(number_range range) const
{
    auto interval = last_of_.upper_bound(range.min);
    if (interval != last_of_.begin() && std::prev(interval)->second >= range.min)
        --interval;
    if (interval == last_of_.end())
        return 0;
    const uint32_t number = std::max(interval->first, range.min);
    return number <= range.max ? number : 0;
}

bool id_pool::take(uint32_t number)
{
    if (free_.contains(number)) {
        free_.remove(number);
        return true;
    }
    auto place = place_of_.find(number);
    if (place == place_of_.end())
        return false;
    resting_.erase(place->second);
    place_of_.erase(place);
    return true;
}

uint32_t id_pool::take_any(int64_t now)
{
    wake(now);
    const uint32_t number = free_.lowest(range_);
    if (number == 0)
        return take_longest_resting();
    free_.remove(number);
    return number;
}

void id_pool::give_back(uint32_t number, int64_t now)
{
    wake(now);
    std::list<resting_number> last{{number, now}};
    place_of_.emplace(number, last.begin());
    resting_.splice(resting_.end(), last);
}

// Numbers that have rested long enough become free.
void id_pool::wake(int64_t now)
{
    while (!resting_.empty() && now - resting_.front().since >= REST_USEC) {
        free_.add(resting_.front().number);
        place_of_.erase(resting_.front().number);
        resting_.pop_front();
    }
}

uint32_t id_pool::take_longest_resting()
{
    for (const resting_number &resting : resting_) {
        if (!in_range(resting.number))
            continue;
        const uint32_t number = resting.number;
        take(number);
        return number;
    }
    return 0;
}

}  // namespace ebridged
