// What "ebridge run" makes of the facts that requester and observer report, without a store and without a library.
#include <gmock/gmock.h>

#include "evaluation.hpp"

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
        EXPECT_TRUE(parse_config("file", R"({"VLAN": {"Vlan20": {}}})", &config, &error)) << error;
        requests.emplace(config, 1, &result);
        asked.sent = true;
        asked.answered = true;
        asked.reply = VLAN_20;
        asked.held = true;
        asked.map = {VLAN_20, true};
        seen.heard = VLAN_20;
        seen.held = true;
        seen.map = {VLAN_20, true};
        seen.found = true;
        seen.request_value = VLAN_20;
        seen.reply_value = VLAN_20;
        seen.reply = 1;
        seen.mom_db = 4;
        requests->set(0, asked);
        set_attributes();
    }

    held_id id(int32_t number = VLAN_20) const { return {id_kind::evlan, 0, number}; }
    void set_attributes()
    {
        const attributes read = requests->wanted_attributes(requests->at(0));
        requests->set(id(), &read);
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

    switch_config config;
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
    EXPECT_EQ(difference(*requests, requests->at(0)), "the id does not translate back to the key");
}

TEST_F(Evaluation, TheObserversLocalDatabaseCounts)
{
    seen.held = false;
    EXPECT_EQ(line(), "VLAN|Vlan20: differs: the observer has no record of the id");
}

TEST_F(Evaluation, TheRequestersLocalDatabaseCounts)
{
    asked.held = false;
    EXPECT_EQ(line(), "VLAN|Vlan20: differs: the requester has no record of the id");
}

TEST_F(Evaluation, AttributesThatCannotBeSetDiffer)
{
    asked.attr_code = -105;
    EXPECT_EQ(line(), "VLAN|Vlan20: differs: the attributes cannot be set, code -105");
}

TEST_F(Evaluation, AttributesThatAreNotFoundDiffer)
{
    requests->set(id(), nullptr);
    EXPECT_EQ(line(), "VLAN|Vlan20: differs: the observer does not find the attributes");
}

TEST_F(Evaluation, AttributesThatReadOtherwiseAreNamed)
{
    sw_evlan_attr other = requests->evlan_attributes(requests->at(0));
    other.attr.underlay.fid = 21;
    const attributes read = attributes_of(other);
    requests->set(id(), &read);
    EXPECT_EQ(line(), "VLAN|Vlan20: differs: the observer reads another fid than was set");
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
        EXPECT_EQ(difference(*requests, requests->at(0)),
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
    requests->set(0, requester_facts{});
    EXPECT_EQ(requests->answered(), 0U);
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

TEST_F(Evaluation, ItMayWaitForTheAttributesToo)
{
    requests->wait_for(request_book::patience::described);
    requests->set(0, seen);
    EXPECT_EQ(requests->settled(), 1U);
    requests->set(id(), nullptr);
    EXPECT_EQ(requests->settled(), 0U);
    set_attributes();
    EXPECT_EQ(requests->settled(), 1U);
    requests->forget_attributes();
    EXPECT_EQ(requests->settled(), 0U);
    requests->wait_for(request_book::patience::answered);
    EXPECT_EQ(requests->settled(), 1U);
}

// ---- a restart ------------------------------------------------------------------------------------------------------

namespace
{

class RestartEvaluation : public Evaluation
{
  protected:
    // The line about the entry after a restart; "" when all is as it should be.
    std::string line_after(bool dropped)
    {
        requests->set(0, before);
        requests->set(0, seen_before);
        reduced = config;
        std::string error;
        EXPECT_TRUE(!dropped || drop_entry("VLAN|Vlan20", &reduced, &error)) << error;
        requests->restart(reduced);
        requests->set(0, dropped ? requester_facts{} : asked);
        requests->set(0, seen);
        if (attributes_there)
            set_attributes();
        result.problems.clear();
        result.restarted.clear();
        evaluate_restart(*requests, &result);
        EXPECT_EQ(result.restarted[0].kept, dropped ? 0U : 1U);
        EXPECT_EQ(result.restarted[0].dropped, dropped ? 1U : 0U);
        EXPECT_EQ(result.restarted[0].unchanged + result.restarted[0].gone, result.problems.empty() ? 1U : 0U);
        return result.problems.empty() ? "" : result.problems[0];
    }
    void let_go()
    {
        seen.heard = -1;
        seen.removals = 1;
        seen.found = false;
        attributes_there = false;
    }

    switch_config reduced;
    requester_facts before = asked;
    observer_facts seen_before = seen;
    bool attributes_there = true;
};

}  // namespace

TEST_F(RestartEvaluation, WhatIsKeptAndEqualIsUnchanged) { EXPECT_EQ(line_after(false), ""); }

TEST_F(RestartEvaluation, AnotherIdThanBeforeIsNamed)
{
    before.reply = VLAN_20 + 1;
    EXPECT_EQ(line_after(false), "VLAN|Vlan20: kept: the id was 0x10000015 and is 0x10000014");
}

TEST_F(RestartEvaluation, WhatWasKeptAndRemovedMeanwhileIsNamed)
{
    seen.removals = 1;
    EXPECT_EQ(line_after(false), "VLAN|Vlan20: kept: the observer heard of its removal");
    seen_before.removals = 1;
    EXPECT_EQ(line_after(false), "") << "that was before";
}

TEST_F(RestartEvaluation, WhatIsKeptHasToReadEqual)
{
    attributes_there = false;
    EXPECT_EQ(line_after(false), "VLAN|Vlan20: kept: differs: the observer does not find the attributes");
}

TEST_F(RestartEvaluation, WhatIsKeptHasToBeAnswered)
{
    asked = {};
    attributes_there = false;
    EXPECT_EQ(line_after(false), "VLAN|Vlan20: kept: refused: no answer");
}

TEST_F(RestartEvaluation, WhatWasDroppedAndHasGoneIsRight)
{
    let_go();
    EXPECT_EQ(line_after(true), "");
}

TEST_F(RestartEvaluation, ADroppedSessionThatIsThereIsNamed)
{
    let_go();
    seen.found = true;
    EXPECT_EQ(line_after(true), "VLAN|Vlan20: dropped: the session is still there");
}

TEST_F(RestartEvaluation, ARemovalThatNobodyHeardIsNamed)
{
    let_go();
    seen.heard = VLAN_20;
    EXPECT_EQ(line_after(true), "VLAN|Vlan20: dropped: the observer did not hear of its removal");
    EXPECT_EQ(requests->left(), 1U);
}

TEST_F(RestartEvaluation, DroppedAttributesThatAreThereAreNamed)
{
    let_go();
    const attributes read = requests->wanted_attributes(requests->at(0));
    line_after(true);
    requests->set(id(), &read);
    result.problems.clear();
    result.restarted.clear();
    evaluate_restart(*requests, &result);
    EXPECT_THAT(result.problems, ElementsAre("VLAN|Vlan20: dropped: the attributes are still there"));
    EXPECT_THAT(left_attributes(*requests), testing::IsEmpty()) << "told once";
}

TEST_F(RestartEvaluation, AttributesThatBelongToNothingAreNamed)
{
    const attributes read = requests->wanted_attributes(requests->at(0));
    requests->set(id(VLAN_20 + 1), &read);
    EXPECT_THAT(left_attributes(*requests), ElementsAre("ebridge_run: attributes of evlan 0x10000015 are left over"));
}

// ---- what is requested, by whom -------------------------------------------------------------------------------------

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
    EXPECT_EQ(two.find({id_kind::evlan, 16, 3}), 2U);
    EXPECT_EQ(two.find({id_kind::evlan, 16, 4}), two.size());
    EXPECT_EQ(two.find({id_kind::eport, 16, 3}), two.size());
}
