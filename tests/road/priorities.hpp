// All lists of priorities, one after the other.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

namespace road
{

// The next list of priorities from 0 to `highest`, after that of zeros; false when it was the last.
inline bool next_priorities(std::vector<int32_t> *priorities, int32_t highest)
{
    const auto counts_on = [highest](int32_t &priority) {
        priority = priority == highest ? 0 : priority + 1;
        return priority != 0;
    };
    return std::ranges::any_of(*priorities, counts_on);
}

}  // namespace road
