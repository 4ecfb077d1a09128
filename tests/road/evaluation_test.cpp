// What "ebridge run" makes of the facts that requester and observer report, without a store and without a library.
#include <gmock/gmock.h>

#include "requests.hpp"

using namespace ebridge_tool;
using testing::ElementsAre;

namespace
{

constexpr int32_t VLAN_20 = 0x10000014;

class Evaluation : public testing::Test
{
  protected:
    Evaluation()
    {
        std::string error;
        switch_config config;
        EXPECT_TRUE(parse_config("file", R"({"VLAN": {"Vlan20": {}}})", &config, &error)) << error;
        requests.emplace(config, 1, &result);
        asked.answered = true;
        asked.reply = VLAN_20;
        asked.map = {VLAN_20, true};
        seen.heard = VLAN_20;
        seen.held = true;
        seen.map = {VLAN_20, true};
        seen.found = true;
        seen.request_value = VLAN_20;
        seen.reply_value = VLAN_20;
        seen.reply = 1;
        seen.mom_db = 4;
    }

    // The one line about the request; "" when it is verified.
    std::string line()
    {
        requests->set(0, asked);
        requests->set(0, seen);
        evaluate(*requests, &result);
        EXPECT_EQ(result.tables[0].granted + result.tables[0].refused, 1U);
        EXPECT_EQ(result.tables[0].verified, result.problems.empty() ? 1U : 0U);
        return result.problems.empty() ? "" : result.problems[0];
    }

    run_result result;
    std::optional<request_book> requests;
    requester_facts asked;
    observer_facts seen;
};

}  // namespace

TEST_F(Evaluation, EqualFactsAreVerified) { EXPECT_EQ(line(), ""); }

TEST_F(Evaluation, AnotherIdThanTheOneAskedForDiffers)
{
    asked.reply = VLAN_20 + 1;
    EXPECT_EQ(line(), "VLAN|Vlan20: differs: granted another id than the one asked for");
}

TEST_F(Evaluation, WhatTheObserverDidNotHearDiffers)
{
    seen.heard = -1;
    EXPECT_EQ(line(), "VLAN|Vlan20: differs: the observer did not hear of the grant");
}

TEST_F(Evaluation, WhatTheObserverHeardOtherwiseDiffers)
{
    seen.heard = VLAN_20 + 1;
    EXPECT_EQ(line(), "VLAN|Vlan20: differs: the observer heard of another id");
}

TEST_F(Evaluation, TheRequestersTranslationCounts)
{
    asked.map.id = 0;
    EXPECT_EQ(line(), "VLAN|Vlan20: differs: the key does not translate to the id");
}

TEST_F(Evaluation, TheObserversTranslationCounts)
{
    seen.map.id = VLAN_20 + 1;
    EXPECT_EQ(line(), "VLAN|Vlan20: differs: the key does not translate to the id");
}

TEST_F(Evaluation, TheWayBackOfBothCounts)
{
    asked.map.back = false;
    EXPECT_EQ(line(), "VLAN|Vlan20: differs: the id does not translate back to the key");
    result.problems.clear();
    asked.map.back = true;
    seen.map.back = false;
    requests->set(0, asked);
    requests->set(0, seen);
    EXPECT_STREQ(difference(requests->at(0)), "the id does not translate back to the key");
}

TEST_F(Evaluation, TheObserversLocalDatabaseCounts)
{
    seen.held = false;
    EXPECT_EQ(line(), "VLAN|Vlan20: differs: the observer has no record of the id");
}

TEST_F(Evaluation, ASessionThatIsNotFoundDiffers)
{
    seen.found = false;
    EXPECT_EQ(line(), "VLAN|Vlan20: differs: the observer's scan does not find the session");
}

TEST_F(Evaluation, EveryFieldOfTheSessionCounts)
{
    for (int32_t observer_facts::*field : {&observer_facts::request_value, &observer_facts::reply_value,
                                           &observer_facts::reply, &observer_facts::mom_db}) {
        observer_facts read = seen;
        ++(read.*field);
        requests->set(0, asked);
        requests->set(0, read);
        EXPECT_STREQ(difference(requests->at(0)),
                     "the session that the observer reads is not the one that was granted");
    }
}

TEST_F(Evaluation, RefusalsSayWhy)
{
    asked = {};
    EXPECT_EQ(line(), "VLAN|Vlan20: refused: no answer");
    asked.code = -105;
    requests->set(0, asked);
    asked.code = 0;
    asked.answered = true;
    result.problems.clear();
    requests->set(0, asked);
    evaluate(*requests, &result);
    EXPECT_THAT(result.problems, ElementsAre("VLAN|Vlan20: refused: id 0x10000014 cannot be given"));
}

TEST_F(Evaluation, ARequestIsSettledOnceItIsAnsweredAndHeardOrRefused)
{
    EXPECT_EQ(requests->settled(), 0U);
    requests->set(0, asked);
    EXPECT_EQ(requests->settled(), 0U);
    EXPECT_EQ(requests->answered(), 1U);
    requests->set(0, seen);
    requests->set(0, seen);
    EXPECT_EQ(requests->settled(), 1U);
    seen.heard = VLAN_20 + 1;
    requests->set(0, seen);
    EXPECT_EQ(requests->settled(), 0U);
    asked.reply = -1;
    requests->set(0, asked);
    EXPECT_EQ(requests->settled(), 1U);
}

TEST(RequestBook, RequestsAreSpreadInTurns)
{
    std::string error;
    switch_config config;
    run_result result;
    ASSERT_TRUE(parse_config("file", R"({"VLAN": {"Vlan1": {}, "Vlan2": {}, "Vlan3": {}}})", &config, &error));
    const request_book alone(config, 1, &result);
    EXPECT_THAT(alone.users(), ElementsAre("ebridge_run"));
    const request_book two(config, 2, &result);
    EXPECT_THAT(two.users(), ElementsAre("ebridge_run_1", "ebridge_run_2"));
    EXPECT_EQ(two.user_of(two.at(0)), "ebridge_run_1");
    EXPECT_EQ(two.user_of(two.at(1)), "ebridge_run_2");
    EXPECT_EQ(two.user_of(two.at(2)), "ebridge_run_1");
    EXPECT_EQ(two.find(16, 3), 2U);
    EXPECT_EQ(two.find(16, 4), two.size());
}
