// Deciding among users in the order of another process, and finding the places of users in it.
#include "walks.hpp"

#include <gmock/gmock.h>

#include <algorithm>
#include <random>

using namespace ebridge_tool;
using testing::ElementsAre;

namespace
{

std::vector<int32_t> results_of(const std::vector<claim> &claims, const std::vector<std::string> &walk)
{
    std::vector<int32_t> results;
    for (const verdict &each : decide_walked(claims, walked_places(walk)))
        results.push_back(each.result);
    return results;
}

}  // namespace

TEST(Walks, ClaimsAreDecidedInTheOrderOfTheWalkAndToldInTheirOwn)
{
    const std::vector<claim> claims{{"a", 3}, {"b", 5}, {"c", 2}};
    EXPECT_THAT(results_of(claims, {"b", "a", "c"}), ElementsAre(0, 0, 1));
    EXPECT_THAT(results_of(claims, {"b", "c", "a"}), ElementsAre(0, 0, 1));
    EXPECT_THAT(results_of(claims, {"c", "a", "b"}), ElementsAre(1, 0, 1));
    EXPECT_EQ(decide_walked(claims, walked_places({"c", "a", "b"}))[2].lost_to, 0);
    EXPECT_EQ(decide_walked(claims, walked_places({"b", "a", "c"}))[2].lost_to, 0);
}

TEST(Walks, OnlyTheHighestClaimOfAUserIsDecidedWhereverItsClaimsStand)
{
    const std::vector<claim> claims{{"a", 3}, {"b", 4}, {"a", 6}};
    EXPECT_THAT(results_of(claims, {"a", "b"}), ElementsAre(NOT_COMPARED, 1, 0));
    EXPECT_THAT(results_of(claims, {"b", "a"}), ElementsAre(NOT_COMPARED, 1, 0));
}

TEST(Walks, OthersStandWhereTheyBringOutWhatWasHeard)
{
    const walked_places walk({"a", "b"});
    const std::vector<claim> claims{{"b", 4}, {"x", 7}, {"a", 6}};
    constexpr int32_t UNKNOWN = NOT_COMPARED;
    // In the order a, b alone: a holds, b has lost. x above both can stand before them, between them and behind.
    for (const std::vector<int32_t> &heard :
         {std::vector<int32_t>{1, UNKNOWN, 0}, {1, UNKNOWN, 1}, {UNKNOWN, UNKNOWN, 1}, {1, UNKNOWN, UNKNOWN}}) {
        const std::vector<verdict> verdicts = decide_as_heard(claims, heard, walk);
        for (size_t i = 0; i < heard.size(); ++i)
            EXPECT_TRUE(heard[i] == UNKNOWN || verdicts[i].result == heard[i]) << testing::PrintToString(heard);
    }
}

TEST(Walks, WhatNoPlaceOfOthersBringsOutIsDecidedWithThemLast)
{
    const walked_places walk({"a"});
    EXPECT_EQ(decide_as_heard({{"a", 5}, {"x", 4}}, {1, NOT_COMPARED}, walk)[0].result, 0) << "nobody is above it";
    const std::vector<verdict> verdicts = decide_as_heard({{"a", 4}, {"x", 5}}, {0, NOT_COMPARED}, walk);
    EXPECT_EQ(verdicts[0].result, 1);
    EXPECT_EQ(verdicts[0].lost_to, 1);
}

// Whatever the order of all users was, it is one in which those that are known stand as they are known to.
TEST(Walks, EveryOrderOfOthersIsFound)
{
    std::mt19937 random(7);
    const auto draw = [&random](uint32_t below) { return static_cast<int32_t>(random() % below); };
    for (int round = 0; round < 2000; ++round) {
        std::vector<std::string> real{"a", "b", "c", "d", "e", "u", "v", "w", "x", "y", "z"};
        std::ranges::shuffle(real, random);
        real.resize(1 + static_cast<size_t>(draw(11)));
        std::vector<std::string> known = real;
        std::erase_if(known, [](const std::string &user) { return user >= "u"; });
        std::vector<claim> claims;
        for (const std::string &user : real)
            claims.push_back({user, draw(round % 2 == 0 ? 8 : 3)});
        std::ranges::shuffle(claims, random);
        std::vector<int32_t> heard = results_of(claims, real);
        for (size_t i = 0; i < claims.size(); ++i)
            if (claims[i].user >= "u" || draw(4) == 0)
                heard[i] = NOT_COMPARED;
        const std::vector<verdict> verdicts = decide_as_heard(claims, heard, walked_places(known));
        for (size_t i = 0; i < claims.size(); ++i)
            ASSERT_TRUE(heard[i] == NOT_COMPARED || verdicts[i].result == heard[i]) << "round " << round;
    }
}

TEST(Walks, ManyOthersAreNoReasonToSearchForever)
{
    std::vector<claim> claims{{"a", 3}, {"b", 7}};
    for (int i = 0; i < 200; ++i)
        claims.push_back({"x" + std::to_string(i), i % 8});
    std::vector<int32_t> heard(claims.size(), NOT_COMPARED);
    heard[0] = 1;
    heard[1] = 0;
    EXPECT_EQ(decide_as_heard(claims, heard, walked_places({"a", "b"}))[0].result, 1);
    heard[1] = 1;  // nothing is above it
    EXPECT_EQ(decide_as_heard(claims, heard, walked_places({"b", "a"})).size(), claims.size());
}
