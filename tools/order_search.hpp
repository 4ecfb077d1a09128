// What results alone tell of the order in which users were compared, when that order is another process's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace ebridge_tool
{

// A user's rule that was compared with those of others.
struct contender {
    int32_t priority;
    bool lost;
};

struct found_order {
    std::vector<size_t>
        order{};  // one in which these results come out; empty: there is none, or there are too many users
    std::vector<int> lost_to{};  // of each contender: whom it lost to in all such orders; -1 nobody, or not known
};

// Of several orders the one that is found first, by index.
found_order find_order(const std::vector<contender> &contenders);

}  // namespace ebridge_tool
