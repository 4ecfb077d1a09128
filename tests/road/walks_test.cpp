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

TEST(Walks, WhatIsNotKnownNeedsNoExplanation)
{
    decided_key key{.claims = {{"a", 4}, {"b", 4}}, .results = {1, NOT_COMPARED}};
    EXPECT_FALSE(key.is_explained_by(walked_places({"a", "b"})));
    EXPECT_TRUE(key.is_explained_by(walked_places({"b", "a"})));
    key.results = {NOT_COMPARED, NOT_COMPARED};
    EXPECT_TRUE(key.is_explained_by(walked_places({"a", "b"})));
}

TEST(Walks, OthersArePlacedWhereTheyExplainWhatWasDecided)
{
    std::mt19937 random(7);
    const auto draw = [&random](int below) { return static_cast<int>(random() % static_cast<uint32_t>(below)); };
    const std::vector<std::string> own{"a", "b", "c", "d", "e", "f"};
    const std::vector<std::string> real{"c", "x", "a", "f", "y", "z", "e", "b", "d"};
    std::vector<std::string> own_walk = real;
    std::erase_if(own_walk, [](const std::string &user) { return user >= "x"; });
    std::vector<decided_key> decided;
    for (int i = 0; i < 300; ++i) {
        decided_key key;
        std::vector<std::string> users = real;
        std::ranges::shuffle(users, random);
        for (int claims = 2 + draw(3); claims > 0; --claims)
            key.claims.push_back({users[static_cast<size_t>(claims)], draw(8)});
        key.results = results_of(key.claims, real);
        decided.push_back(key);
    }
    const std::vector<std::string> walk = walk_with({"x", "y", "z"}, own_walk, decided);
    for (const decided_key &key : decided)
        EXPECT_TRUE(key.is_explained_by(walked_places(walk))) << testing::PrintToString(walk);
    std::vector<std::string> left = walk;
    std::erase_if(left, [](const std::string &user) { return user >= "x"; });
    EXPECT_EQ(left, own_walk) << "those whose order is known keep it";
}

TEST(Walks, AWrongDecisionIsExplainedByNoOrder)
{
    const decided_key key{.claims = {{"a", 5}, {"x", 4}}, .results = {1, 0}};
    EXPECT_FALSE(key.is_explained_by(walked_places(walk_with({"x"}, {"a"}, {key}))));
}
