// The command's link to a store: how long it tries a call again that the store cannot take.
#include "store_link.hpp"

#include <gtest/gtest.h>

#include <string>

#include "redis_server.hpp"

using ebridge_tool::store_link;

namespace
{

class StoreLink : public testing::Test
{
  protected:
    StoreLink()
    {
        const uint32_t db = 4;
        std::string error;
        EXPECT_EQ(link_.open("mem:link", {&db, 1}, &error), 0) << error;
    }
    // How many times a call is made whose result is `code`.
    int times_made(int32_t code)
    {
        int times = 0;
        const auto call = [&] { return ++times, code; };
        EXPECT_EQ(link_.patiently(call, 50'000), code);
        return times;
    }

  private:
    store_link link_{};
};

}  // namespace

TEST_F(StoreLink, WhatCannotBeTakenIsTriedAgainAndWhatIsRefusedIsNot)
{
    EXPECT_GT(times_made(QZ_MOM_EDOWN), 1);
    EXPECT_EQ(times_made(QZ_MOM_EINVAL), 1);
    EXPECT_GT(times_made(QZ_MOM_EFULL), 1);
    EXPECT_EQ(times_made(0), 1);
}

// Thousands of requests to a store that is gone must not wait each for itself.
TEST_F(StoreLink, PatienceEndsOnceAndComesBackWithACallThatIsTaken)
{
    EXPECT_GT(times_made(QZ_MOM_EDOWN), 1);
    EXPECT_EQ(times_made(QZ_MOM_EDOWN), 1);
    EXPECT_EQ(times_made(QZ_MOM_EFULL), 1);
    EXPECT_EQ(times_made(0), 1);
    EXPECT_GT(times_made(QZ_MOM_EDOWN), 1);
}

TEST(StoreLinkToAServer, TellsHowLongItHasBeenAway)
{
    constexpr int64_t LONG = 20'000'000;
    constexpr uint32_t DATABASES[] = {4, 8};
    support::redis_server redis;
    store_link link;
    std::string error;
    ASSERT_EQ(link.open(redis.url(), DATABASES, &error), 0) << error;
    EXPECT_EQ(link.away_since(), 0);
    const int64_t before = qz_thread_now(link.master());
    redis.kill();
    const auto away = [&] { return link.away_since() != 0; };
    for (int looks = 0; looks < 2000 && !away(); ++looks)
        link.wait_until(away, 10'000);
    EXPECT_GT(link.away_since(), before);
    EXPECT_LE(link.away_since(), qz_thread_now(link.master()));
    redis.start();
    EXPECT_TRUE(link.wait_until([&] { return link.away_since() == 0; }, LONG)) << "its return is heard of";
}
