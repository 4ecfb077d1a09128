// What the results of match rules have to be, apart from the library: the order of the users in the registry of this
// process, and the decision among the rules of one key.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sw_ebridge.h"

namespace support
{

// The registered users of slot 0, in the order in which the library walks them.
inline std::vector<std::string> users_in_order()
{
    std::vector<std::string> order;
    sw_ebridge_list_for_each(
        0,
        [](sw_ebridge_list_item *user, void *to, int32_t) {
            static_cast<std::vector<std::string> *>(to)->emplace_back(user->user_name);
            return 0;
        },
        &order);
    return order;
}

// Of the rules of a key, one for each user and in the users' order: the last one stands against the one before it, each
// other one against the one behind it.
inline std::vector<int32_t> results_of(const std::vector<int32_t> &priorities)
{
    std::vector<int32_t> results;
    for (size_t i = 0; i < priorities.size(); ++i) {
        const bool last = i + 1 == priorities.size();
        const bool holds = last ? i == 0 || priorities[i] > priorities[i - 1] : priorities[i + 1] <= priorities[i];
        results.push_back(holds ? U_BRIDGE__MATCH_RESULT__SUCCESS : U_BRIDGE__MATCH_RESULT__FAIL_PRIORITY);
    }
    return results;
}

}  // namespace support
