// The decision among users as the command states it: who wins, who loses, and to whom.
#include <gmock/gmock.h>

#include "priorities.hpp"
#include "sw_ebridge.h"
#include "verdicts.hpp"

using namespace ebridge_tool;
using testing::ElementsAre;
using testing::IsEmpty;

namespace ebridge_tool
{

static void PrintTo(const verdict &of, std::ostream *out) { *out << of.result << " lost to " << of.lost_to; }

}  // namespace ebridge_tool

namespace
{

constexpr verdict WON{0, -1};
constexpr verdict UNCOMPARED{NOT_COMPARED, -1};
verdict lost_to(int index) { return {1, index}; }

// Of users "a", "b", "c" and so on.
std::vector<claim> claims(const std::vector<int32_t> &priorities)
{
    std::vector<claim> result;
    for (const int32_t priority : priorities)
        result.push_back({std::string(1, static_cast<char>('a' + result.size())), priority});
    return result;
}

// What the library does, step by step, each comparison writing over what the one before has said.
struct stepwise {
    std::vector<verdict> verdicts{};
    int winner = -1;
};

stepwise compare_step_by_step(const std::vector<claim> &claims)
{
    stepwise result;
    for (int i = 0; i < static_cast<int>(claims.size()); ++i) {
        const auto at = static_cast<size_t>(i);
        result.verdicts.push_back(WON);
        if (i == 0) {
            result.winner = 0;
        } else if (claims[at].priority > claims[at - 1].priority) {
            result.verdicts[at - 1] = lost_to(i);
            result.winner = i;
        } else {
            result.verdicts[at - 1] = WON;
            result.verdicts[at] = lost_to(i - 1);
        }
    }
    return result;
}

}  // namespace

TEST(Verdicts, NobodyHasNothingToDecide)
{
    EXPECT_THAT(decide({}), IsEmpty());
    EXPECT_EQ(winner({}), -1);
}

TEST(Verdicts, OneUserAloneWins)
{
    EXPECT_THAT(decide(claims({0})), ElementsAre(WON));
    EXPECT_EQ(winner(claims({0})), 0);
}

TEST(Verdicts, TheHigherOfTwoWinsAndATieGoesToTheFirst)
{
    EXPECT_THAT(decide(claims({5, 3})), ElementsAre(WON, lost_to(0)));
    EXPECT_THAT(decide(claims({3, 5})), ElementsAre(lost_to(1), WON));
    EXPECT_THAT(decide(claims({4, 4})), ElementsAre(WON, lost_to(0)));
    EXPECT_EQ(winner(claims({5, 3})), 0);
    EXPECT_EQ(winner(claims({3, 5})), 1);
    EXPECT_EQ(winner(claims({4, 4})), 0);
}

TEST(Verdicts, OfThreeUsersEachIsComparedWithItsNeighboursOnly)
{
    struct row {
        std::vector<int32_t> priorities;
        std::vector<verdict> verdicts;
        int winner;
    };
    const row rows[] = {{{5, 3, 2}, {WON, WON, lost_to(1)}, 0},           // the second lost, until the third lost to it
                        {{5, 3, 4}, {WON, lost_to(2), WON}, 2},           // the first and the third never meet
                        {{3, 4, 5}, {lost_to(1), lost_to(2), WON}, 2},    //
                        {{2, 5, 3}, {lost_to(1), WON, lost_to(1)}, 1},    //
                        {{4, 4, 4}, {WON, WON, lost_to(1)}, 0},           //
                        {{4, 4, 5}, {WON, lost_to(2), WON}, 2},           //
                        {{5, 4, 4}, {WON, WON, lost_to(1)}, 0},           //
                        {{4, 5, 5}, {lost_to(1), WON, lost_to(1)}, 1},    //
                        {{-1, 0, 8}, {lost_to(1), lost_to(2), WON}, 2}};  // signed, and not only levels
    for (const row &of : rows) {
        EXPECT_EQ(decide(claims(of.priorities)), of.verdicts) << testing::PrintToString(of.priorities);
        EXPECT_EQ(winner(claims(of.priorities)), of.winner) << testing::PrintToString(of.priorities);
    }
}

TEST(Verdicts, AgreeWithTheStepwiseComparisonForAllPrioritiesOfUpToFiveUsers)
{
    for (size_t users = 1; users <= 5; ++users) {
        std::vector<int32_t> priorities(users, 0);
        do {
            const std::vector<claim> of = claims(priorities);
            const stepwise expected = compare_step_by_step(of);
            ASSERT_EQ(decide(of), expected.verdicts) << testing::PrintToString(priorities);
            ASSERT_EQ(winner(of), expected.winner) << testing::PrintToString(priorities);
        } while (road::next_priorities(&priorities, 7));
    }
}

TEST(Verdicts, AgreeWithTheLibraryForAllPrioritiesOfThreeUsers)
{
    std::vector<claim> of = {{"acl", 0}, {"mirror", 0}, {"qos", 0}};
    walk_order({"acl", "mirror", "qos"}).sort(&of);
    std::vector<int32_t> priorities(of.size(), 0);
    UBridge__EmatchIndex index = U_BRIDGE__EMATCH_INDEX__INIT;
    index.t_user = const_cast<char *>("acl");
    do {
        std::vector<sw_ematch_item *> items;
        for (size_t i = 0; i < of.size(); ++i) {
            of[i].priority = priorities[i];
            sw_ematch_item item{};
            item.match_priority = priorities[i];
            items.push_back(sw_ematch_db_hash_insert_item(of[i].user.c_str(), &item));
            ASSERT_NE(items.back(), nullptr);
        }
        const sw_ematch_item *won = sw_ematch_calc_final_values(nullptr, &index, 0);
        ASSERT_NE(won, nullptr);
        ASSERT_EQ(won->user->user_name, of[static_cast<size_t>(winner(of))].user);
        const std::vector<verdict> decided = decide(of);
        for (size_t i = 0; i < of.size(); ++i) {
            ASSERT_EQ(items[i]->final_result, decided[i].result) << testing::PrintToString(priorities);
            index.match_priority = priorities[i];
            ASSERT_EQ(sw_ematch_db_hash_del_item(of[i].user.c_str(), &index), 0);
        }
    } while (road::next_priorities(&priorities, 7));
}

TEST(Verdicts, OfAUserWithSeveralPrioritiesTheHighestIsCompared)
{
    const std::vector<claim> of = {{"a", 2}, {"a", 6}, {"a", 4}, {"b", 5}, {"c", 0}, {"c", 5}};
    EXPECT_THAT(decide(of), ElementsAre(UNCOMPARED, WON, UNCOMPARED, WON, UNCOMPARED, lost_to(3)));
    EXPECT_EQ(winner(of), 1);
    EXPECT_THAT(decide({{"a", 9}, {"a", 1}, {"b", 5}}), ElementsAre(UNCOMPARED, lost_to(2), WON));
}

TEST(WalkOrder, IsThatOfTheRegistryOfThisProcess)
{
    std::vector<std::string> users;
    for (int i = 0; i < 40; ++i)
        users.push_back("user" + std::to_string(i));
    const walk_order order(users);

    std::vector<std::string> walked;
    sw_ebridge_list_for_each(
        0,
        [](sw_ebridge_list_item *user, void *names, int32_t) -> int32_t {
            static_cast<std::vector<std::string> *>(names)->emplace_back(user->user_name);
            return 0;
        },
        &walked);
    ASSERT_EQ(walked.size(), users.size());
    for (size_t i = 0; i < walked.size(); ++i)
        EXPECT_EQ(order.place(walked[i]), i);

    std::vector<claim> of;
    for (const std::string &user : users)
        of.insert(of.end(), {{user, 1}, {user, 0}});
    order.sort(&of);
    for (size_t i = 0; i < of.size(); ++i) {
        EXPECT_EQ(of[i].user, walked[i / 2]);
        EXPECT_EQ(of[i].priority, i % 2 == 0 ? 1 : 0);
    }
}

TEST(WalkOrder, ANameIsCutAsTheRegistryCutsIt)
{
    const std::string name = "a_user_with_a_name_longer_than_a_name_can_be";
    const walk_order order({name, "b"});
    EXPECT_LT(order.place(name), 2U);
    EXPECT_EQ(order.place(name), order.place(name.substr(0, SW_EBRIDGE_NAME_SIZE - 1)));
    EXPECT_THAT(decide({{name, 1}, {name.substr(0, SW_EBRIDGE_NAME_SIZE - 1), 2}}), ElementsAre(UNCOMPARED, WON));
    EXPECT_EQ(order.place("nobody"), 2U);
}
