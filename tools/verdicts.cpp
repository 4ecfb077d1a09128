// The decision among users for one key. See verdicts.hpp.
#include "verdicts.hpp"

#include <algorithm>
#include <string_view>
#include <utility>

#include "sw_ebridge.h"

namespace ebridge_tool
{

namespace
{

std::string_view registered_name(const std::string &user)
{
    return std::string_view(user).substr(0, SW_EBRIDGE_NAME_SIZE - 1);
}

// Which of a user's priorities counts: one that there is no level for only if there is no other.
std::pair<bool, int32_t> rank(int32_t priority) { return {priority >= 0 && priority <= 7, priority}; }

// Indexes of the claims that are compared: one for each user.
std::vector<int> compared(const std::vector<claim> &claims)
{
    std::vector<int> result;
    const claim *last = nullptr;
    for (size_t i = 0; i < claims.size(); ++i) {
        const bool same = last && same_user(last->user, claims[i].user);
        if (same && rank(claims[i].priority) <= rank(last->priority))
            continue;
        if (same)
            result.pop_back();
        result.push_back(static_cast<int>(i));
        last = &claims[i];
    }
    return result;
}

// The claims that are compared, by their place among these.
class contest
{
  public:
    explicit contest(const std::vector<claim> &claims) : claims_(claims), order_(compared(claims)) {}

    size_t size() const { return order_.size(); }
    int at(size_t place) const { return order_[place]; }
    bool beats_the_one_before(size_t place) const { return priority(place) > priority(place - 1); }

    // The last word on a claim is the comparison with the one after it; on the last claim, with the one before it.
    int lost_to(size_t place) const
    {
        if (place + 1 < size())
            return beats_the_one_before(place + 1) ? at(place + 1) : -1;
        return place == 0 || beats_the_one_before(place) ? -1 : at(place - 1);
    }

  private:
    int32_t priority(size_t place) const { return claims_[static_cast<size_t>(at(place))].priority; }

    const std::vector<claim> &claims_;
    std::vector<int> order_;
};

}  // namespace

bool same_user(const std::string &a, const std::string &b) { return registered_name(a) == registered_name(b); }

std::vector<verdict> decide(const std::vector<claim> &in_walk_order)
{
    std::vector<verdict> result(in_walk_order.size(), {NOT_COMPARED, -1});
    const contest claims(in_walk_order);
    for (size_t place = 0; place < claims.size(); ++place) {
        const int lost_to = claims.lost_to(place);
        result[static_cast<size_t>(claims.at(place))] = {lost_to < 0 ? 0 : 1, lost_to};
    }
    return result;
}

int winner(const std::vector<claim> &in_walk_order)
{
    const contest claims(in_walk_order);
    for (size_t place = claims.size(); place-- > 1;)
        if (claims.beats_the_one_before(place))
            return claims.at(place);
    return claims.size() == 0 ? -1 : claims.at(0);
}

walk_order::walk_order(const std::vector<std::string> &users)
{
    for (const std::string &user : users)
        sw_ebridge_match_db_init(0, user.c_str());
    sw_ebridge_list_for_each(
        0,
        [](sw_ebridge_list_item *user, void *places, int32_t) -> int32_t {
            auto *of = static_cast<std::map<std::string, size_t> *>(places);
            of->emplace(user->user_name, of->size());
            return 0;
        },
        &places_);
}

size_t walk_order::place(const std::string &user) const
{
    const auto found = places_.find(std::string(registered_name(user)));
    return found == places_.end() ? places_.size() : found->second;
}

void walk_order::sort(std::vector<claim> *claims) const
{
    std::ranges::stable_sort(*claims, {}, [this](const claim &of) { return place(of.user); });
}

}  // namespace ebridge_tool
