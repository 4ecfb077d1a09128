// The numbers of one id type: lowest first, rest after release, intervals.
#include "id_pool.hpp"

#include <gtest/gtest.h>

using namespace ebridged;

namespace
{
constexpr int64_t SECOND = 1'000'000;
}

TEST(IdPool, GivesTheLowestNumberOfItsRange)
{
    id_pool pool({10, 12});
    EXPECT_EQ(pool.take_any(0), 10U);
    EXPECT_EQ(pool.take_any(0), 11U);
    EXPECT_EQ(pool.take_any(0), 12U);
    EXPECT_EQ(pool.take_any(0), 0U);
}

TEST(IdPool, FillsHolesBelowTheHighestTakenNumber)
{
    id_pool pool({1, 100});
    for (uint32_t number : {1U, 2U, 4U, 5U, 7U})
        ASSERT_TRUE(pool.take(number));
    EXPECT_EQ(pool.take_any(0), 3U);
    EXPECT_EQ(pool.take_any(0), 6U);
    EXPECT_EQ(pool.take_any(0), 8U);
}

TEST(IdPool, ANumberIsTakenOnlyOnce)
{
    id_pool pool({1, 100});
    EXPECT_TRUE(pool.take(50));
    EXPECT_FALSE(pool.take(50));
    EXPECT_FALSE(pool.is_free(50));
    EXPECT_TRUE(pool.is_free(49));
    EXPECT_TRUE(pool.is_free(51));
}

TEST(IdPool, AReleasedNumberIsPassedOverForSixtySeconds)
{
    id_pool pool({1, 100});
    ASSERT_EQ(pool.take_any(0), 1U);
    pool.give_back(1, 0);
    EXPECT_EQ(pool.take_any(60 * SECOND - 1), 2U);
    EXPECT_EQ(pool.take_any(60 * SECOND), 1U);
}

TEST(IdPool, WhenAllFreeNumbersRestTheLongestRestingOneIsGiven)
{
    id_pool pool({1, 3});
    for (int i = 0; i < 3; ++i)
        pool.take_any(0);
    pool.give_back(2, 1 * SECOND);
    pool.give_back(3, 2 * SECOND);
    pool.give_back(1, 3 * SECOND);
    EXPECT_EQ(pool.take_any(4 * SECOND), 2U);
    EXPECT_EQ(pool.take_any(4 * SECOND), 3U);
    EXPECT_EQ(pool.take_any(4 * SECOND), 1U);
    EXPECT_EQ(pool.take_any(4 * SECOND), 0U);
}

TEST(IdPool, ARestingNumberCanBeTakenByName)
{
    id_pool pool({1, 100});
    ASSERT_TRUE(pool.take(7));
    pool.give_back(7, 0);
    EXPECT_TRUE(pool.is_free(7));
    EXPECT_TRUE(pool.take(7));
    EXPECT_EQ(pool.resting(), 0U);
    EXPECT_FALSE(pool.take(7));
}

TEST(IdPool, ANarrowerRangeTakesNothingAway)
{
    id_pool pool({1, 100});
    ASSERT_TRUE(pool.take(90));
    pool.set_range({1, 50});
    EXPECT_FALSE(pool.is_free(90));
    pool.give_back(90, 0);
    pool.set_range({90, 100});
    EXPECT_EQ(pool.take_any(0), 91U);
}

TEST(IdPool, ARestingNumberOutsideTheRangeIsNotGiven)
{
    id_pool pool({1, 1});
    ASSERT_EQ(pool.take_any(0), 1U);
    ASSERT_TRUE(pool.take(2));
    pool.give_back(2, 0);
    pool.give_back(1, 1);
    EXPECT_EQ(pool.take_any(2), 1U);
    EXPECT_EQ(pool.take_any(2), 0U);
}

TEST(IdPool, AnEmptyRangeGivesNothing)
{
    id_pool pool({5, 4});
    EXPECT_EQ(pool.take_any(0), 0U);
}

TEST(IdPool, GivesTheLastNumberOfATypeAndNoneAfterIt)
{
    id_pool pool({NUMBER_MASK, NUMBER_MASK});
    EXPECT_EQ(pool.take_any(0), NUMBER_MASK);
    EXPECT_EQ(pool.take_any(0), 0U);
    pool.give_back(NUMBER_MASK, 0);
    EXPECT_EQ(pool.take_any(61 * SECOND), NUMBER_MASK);
}

TEST(IdPool, FreeIntervalsGrowTogetherAgain)
{
    id_pool pool({1, NUMBER_MASK});
    for (uint32_t number = 1; number <= 999; number += 2)
        ASSERT_TRUE(pool.take(number));
    EXPECT_EQ(pool.intervals(), 500U);
    for (uint32_t number = 1; number <= 999; number += 2)
        pool.give_back(number, 0);
    EXPECT_EQ(pool.take_any(61 * SECOND), 1U);
    EXPECT_EQ(pool.intervals(), 1U);
}
