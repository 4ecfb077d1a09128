// The command's link to a store: how long it tries a call again that the store cannot take.
#include "store_link.hpp"

#include <gtest/gtest.h>

#include <string>

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
