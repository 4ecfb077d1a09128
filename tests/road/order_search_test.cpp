// What results tell of the order in which users were compared: checked against all orders of small sets of users.
#include <gmock/gmock.h>

#include <algorithm>
#include <numeric>

#include "order_search.hpp"
#include "priorities.hpp"
#include "verdicts.hpp"

using namespace ebridge_tool;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

using priorities = std::vector<int32_t>;
using order = std::vector<size_t>;

order first_order(size_t users)
{
    order result(users);
    std::iota(result.begin(), result.end(), size_t{0});
    return result;
}

// The verdicts by user of a comparison in that order.
std::vector<verdict> decide_in(const order &by_place, const priorities &of)
{
    std::vector<claim> claims;
    for (const size_t user : by_place)
        claims.push_back({std::to_string(user), of[user]});
    const std::vector<verdict> in_order = decide(claims);
    std::vector<verdict> result(of.size());
    for (size_t place = 0; place < by_place.size(); ++place) {
        const int winner = in_order[place].lost_to;
        result[by_place[place]] = {in_order[place].result,
                                   winner < 0 ? -1 : static_cast<int>(by_place[static_cast<size_t>(winner)])};
    }
    return result;
}

std::vector<contender> contenders(const priorities &of, const std::vector<verdict> &decided)
{
    std::vector<contender> result;
    for (size_t i = 0; i < of.size(); ++i)
        result.push_back({of[i], decided[i].result != 0});
    return result;
}

bool same_results(const std::vector<contender> &of, const std::vector<verdict> &decided)
{
    return std::ranges::equal(of, decided,
                              [](const contender &a, const verdict &b) { return a.lost == (b.result != 0); });
}

// By trying all orders: whom each lost to, -1 nobody or not known; nothing when none fits.
std::vector<int> losses_by_trial(const priorities &of, const std::vector<contender> &results)
{
    std::vector<int> known;
    order tried = first_order(of.size());
    do {
        const std::vector<verdict> decided = decide_in(tried, of);
        if (!same_results(results, decided))
            continue;
        const bool is_first = known.empty();
        known.resize(of.size(), -1);
        for (size_t i = 0; i < of.size(); ++i)
            known[i] = is_first || known[i] == decided[i].lost_to ? decided[i].lost_to : -1;
    } while (std::next_permutation(tried.begin(), tried.end()));
    return known;
}

}  // namespace

TEST(OrderSearch, FindsWhatTryingAllOrdersFinds)
{
    for (size_t users = 1; users <= 4; ++users) {
        priorities of(users, 0);
        do {
            for (uint32_t lost = 0; lost < 1U << users; ++lost) {
                std::vector<contender> results;
                for (size_t i = 0; i < users; ++i)
                    results.push_back({of[i], (lost >> i & 1) != 0});
                const std::vector<int> expected = losses_by_trial(of, results);
                const found_order found = find_order(results);
                ASSERT_EQ(found.order.empty(), expected.empty());
                if (expected.empty())
                    continue;
                ASSERT_EQ(found.lost_to, expected) << testing::PrintToString(of) << ' ' << lost;
                ASSERT_TRUE(same_results(results, decide_in(found.order, of)));
            }
        } while (road::next_priorities(&of, 3));
    }
}

TEST(OrderSearch, FindsTheOrderThatItWasGivenInFirst)
{
    const priorities of = {5, 3, 4, 4, 7, 0, 0, 1};
    const order given = first_order(of.size());
    EXPECT_EQ(find_order(contenders(of, decide_in(given, of))).order, given);
}

TEST(OrderSearch, OfNobodyOrOfTooManyThereIsNone)
{
    EXPECT_THAT(find_order({}).order, IsEmpty());
    EXPECT_THAT(find_order({{1, false}}).order, ElementsAre(0));
    EXPECT_THAT(find_order(std::vector<contender>(9, {1, false})).order, IsEmpty());
}
