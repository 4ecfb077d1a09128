// The arbiter of match rules against a store whose every callback the test times: the order of the start, what is
// published and what is not, and writes that fail at once or later. With memory and without.
#include <gmock/gmock.h>

#include <algorithm>
#include <map>
#include <utility>

#include "allocation_failure.hpp"
#include "ebridged.h"
#include "rule_results.hpp"
#include "scripted_store.hpp"
#include "sw_ebridge.h"

using namespace scripted;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace
{

constexpr int32_t LOST = U_BRIDGE__MATCH_RESULT__FAIL_PRIORITY;

class Arbiter : public testing::TestWithParam<bool>
{
  protected:
    Arbiter() { store.lacks_memory = GetParam(); }
    ~Arbiter() override { ebridged_stop(service); }

    void start(std::vector<uint32_t> databases = {4})
    {
        const ebridged_options options{.databases = databases.data(),
                                       .database_count = static_cast<uint32_t>(databases.size()),
                                       .log = add_log,
                                       .log_args = &log,
                                       .log_level = 0};
        ASSERT_EQ(ebridged_start(store.handle(), &options, &service), 0);
    }
    // Up to the scans, none of which has delivered anything yet.
    void follow(const std::vector<uint32_t> &databases = {4})
    {
        start(databases);
        for (const uint32_t db : databases)
            store.confirm(live(db), db);
    }
    void end_scan(uint32_t db = 4)
    {
        store.end_scan(scan(db), db);
        store.run_posted();
    }
    void decide()
    {
        follow();
        end_scan();
    }
    // One that was there, and whose result is known.
    void found(const rule &which) { store.rule_written(scan(), 4, which, ""); }
    void heard(const rule &which, uint32_t db = 4)
    {
        store.rule_written(live(db), db, which);
        store.run_posted();
    }
    void gone(const rule &which, uint32_t db = 4, int32_t cmd = QZ_MOM_CMD_DEL)
    {
        store.rule_removed(live(db), db, which, cmd);
        store.run_posted();
    }
    // All that was written since the last time, once the store has acknowledged it.
    std::vector<std::string> written()
    {
        std::vector<std::string> all;
        while (!store.writes.empty()) {
            for (const store_write &each : std::exchange(store.writes, {})) {
                all.push_back(each.text);
                store.write_done(each, 4, rule{.user = "a"});
            }
            store.run_posted();
        }
        return all;
    }
    ebridged_stat stat() const
    {
        ebridged_stat now{};
        ebridged_get_stat(service, &now);
        return now;
    }
    static void add_log(ebridged_log_level level, const char *line, void *to)
    {
        const memory_for_the_test mine;
        if (level != EBRIDGED_LOG_DEBUG)
            static_cast<std::vector<std::string> *>(to)->emplace_back(line);
    }
    static std::string rules(const char *call, uint32_t db)
    {
        return call + (' ' + std::to_string(db)) + " ematch_entry";
    }
    bool follows(const char *call, uint32_t db = 4) const { return store.follows.contains(rules(call, db)); }
    const listener &live(uint32_t db = 4) { return store.follows.at(rules("subscribe", db)); }
    const listener &scan(uint32_t db = 4) { return store.follows.at(rules("scan", db)); }

    scripted::store &store = the_store();
    ebridged_service *service = nullptr;
    std::vector<std::string> log;
};

INSTANTIATE_TEST_SUITE_P(Memory, Arbiter, testing::Values(false, true),
                         [](const auto &lacks) { return std::string(lacks.param ? "Lacking" : "Enough"); });

}  // namespace

// ---- the start ------------------------------------------------------------------------------------------------------

TEST_P(Arbiter, NothingIsScannedBeforeItsSubscriptionIsConfirmed)
{
    start({4, 5});
    EXPECT_FALSE(follows("scan", 4));
    store.confirm(live(5), 5);
    EXPECT_FALSE(follows("scan", 4));
    EXPECT_TRUE(follows("scan", 5));
    store.confirm(live(4), 4);
    EXPECT_TRUE(follows("scan", 4));
}

TEST_P(Arbiter, NoVerdictIsGivenBeforeEveryTableIsRead)
{
    follow({4, 5});
    heard({"a", 10, 3});
    end_scan(4);
    EXPECT_THAT(store.writes, IsEmpty());
    EXPECT_EQ(stat().deciding, 0U);
    store.rule_written(scan(5), 5, {"b", 10, 5, 0}, "");
    end_scan(5);
    EXPECT_THAT(written(), UnorderedElementsAre("hmupdate 4 a/10/3 = 1", "hmupdate 5 b/10/5 = 0"));
    EXPECT_EQ(stat().deciding, 1U);
}

TEST_P(Arbiter, TheStartPublishesOnlyKeysWhoseRecordsSaySomethingElse)
{
    follow();
    found({"a", 10, 5, 0});
    found({"b", 10, 3, LOST});
    found({"a", 20, 5, LOST});
    found({"a", 30, 5, 0});
    found({"b", 30, 3, 0});
    end_scan();
    EXPECT_THAT(written(),
                UnorderedElementsAre("hmupdate 4 a/20/5 = 0", "hmupdate 4 a/30/5 = 0", "hmupdate 4 b/30/3 = 1"));
    EXPECT_THAT(log, testing::Contains("5 rules with 3 keys are decided"));
    EXPECT_EQ(stat().rules, 5U);
    EXPECT_EQ(stat().rule_keys, 3U);
    EXPECT_EQ(stat().contested_keys, 2U);
    EXPECT_EQ(stat().calculations, 3U);
    EXPECT_EQ(stat().results, 3U);
    EXPECT_EQ(stat().waiting_keys + stat().waiting_results, 0U);
}

TEST_P(Arbiter, AStoreWithoutRulesIsDecidedAtOnce)
{
    decide();
    EXPECT_THAT(log, testing::Contains("0 rules with 0 keys are decided"));
    EXPECT_EQ(stat().deciding, 1U);
}

TEST_P(Arbiter, ARemovalHeardDuringTheScanOutweighsTheScansCopy)
{
    follow();
    found({"b", 10, 3, LOST});
    gone({"a", 10, 5});
    found({"a", 10, 5});
    end_scan();
    EXPECT_THAT(written(), ElementsAre("hmupdate 4 b/10/3 = 0"));
}

TEST_P(Arbiter, ARuleRemovedAfterTheScanSawItDecidesNothing)
{
    follow();
    found({"a", 10, 5});
    found({"b", 10, 3, LOST});
    gone({"a", 10, 5});
    end_scan();
    EXPECT_THAT(written(), ElementsAre("hmupdate 4 b/10/3 = 0"));
    EXPECT_EQ(stat().rules, 1U);
}

// A result that another arbiter had under way when this one started.
TEST_P(Arbiter, AResultHeardDuringTheScanOutweighsTheScansCopy)
{
    follow();
    store.rule_written(live(), 4, {"a", 10, 5, LOST}, "result");
    found({"a", 10, 5, 0});
    end_scan();
    EXPECT_THAT(written(), ElementsAre("hmupdate 4 a/10/5 = 0"));
}

TEST_P(Arbiter, ARuleWrittenDuringTheScanIsPublishedWhateverItsRecordSays)
{
    follow();
    heard({"a", 10, 5, 0});
    found({"b", 20, 5, 0});
    end_scan();
    EXPECT_THAT(written(), ElementsAre("hmupdate 4 a/10/5 = 0"));
}

TEST_P(Arbiter, AScanThatFailsIsMadeAgain)
{
    follow();
    const listener first = scan();
    store.follows.erase(rules("scan", 4));
    store.end_scan(first, 4, QZ_MOM_EDOWN);
    EXPECT_FALSE(follows("scan"));
    store.run_timers();
    ASSERT_TRUE(follows("scan"));
    end_scan();
    EXPECT_EQ(stat().deciding, 1U);
}

TEST_P(Arbiter, AStoreThatIsDownAtTheStartIsAskedAgain)
{
    store.codes = {{"subscribe", QZ_MOM_EDOWN}, {"scan", QZ_MOM_EDOWN}};
    start();
    store.run_timers();
    EXPECT_FALSE(follows("subscribe"));
    store.codes.erase("subscribe");
    store.run_timers();
    store.confirm(live(), 4);
    EXPECT_FALSE(follows("scan"));
    store.codes.clear();
    store.run_timers();
    end_scan();
    EXPECT_EQ(stat().deciding, 1U);
}

// ---- changes --------------------------------------------------------------------------------------------------------

TEST_P(Arbiter, ARuleAndItsRivalsHearTheVerdict)
{
    decide();
    heard({"a", 10, 5});
    EXPECT_THAT(written(), ElementsAre("hmupdate 4 a/10/5 = 0"));
    heard({"b", 10, 7});
    EXPECT_THAT(written(), UnorderedElementsAre("hmupdate 4 a/10/5 = 1", "hmupdate 4 b/10/7 = 0"));
    heard({"c", 20, 1});
    EXPECT_THAT(written(), ElementsAre("hmupdate 4 c/20/1 = 0"));
}

TEST_P(Arbiter, ARuleWrittenAgainIsPublishedAgain)
{
    decide();
    for (int again = 0; again < 3; ++again) {
        heard({"a", 10, 5, 0});
        EXPECT_THAT(written(), ElementsAre("hmupdate 4 a/10/5 = 0"));
    }
    EXPECT_EQ(stat().rules, 1U);
}

TEST_P(Arbiter, AKeyThatChangesOftenBeforeThePassIsCalculatedOnce)
{
    decide();
    for (int again = 0; again < 100; ++again) {
        store.rule_written(live(), 4, {"a", 10, 5});
        store.rule_written(live(), 4, {"b", 10, 3});
    }
    EXPECT_EQ(stat().waiting_keys, 1U);
    store.run_posted();
    EXPECT_THAT(written(), UnorderedElementsAre("hmupdate 4 a/10/5 = 0", "hmupdate 4 b/10/3 = 1"));
    EXPECT_EQ(stat().calculations, 1U);
}

TEST_P(Arbiter, AChangeOfTheResultAloneChangesNothing)
{
    decide();
    heard({"a", 10, 5});
    written();
    for (const int32_t result : {U_BRIDGE__MATCH_RESULT__SUCCESS, U_BRIDGE__MATCH_RESULT__FAIL_HW_HASH})
        store.rule_written(live(), 4, {"a", 10, 5, result}, "result");
    store.run_posted();
    EXPECT_THAT(written(), IsEmpty());
    EXPECT_EQ(stat().calculations, 1U);
}

TEST_P(Arbiter, WhenTheWinnerGoesTheLoserWins)
{
    decide();
    for (const int32_t cmd : {QZ_MOM_CMD_DEL, QZ_MOM_CMD_EXPIRED}) {
        heard({"a", 10, 5});
        heard({"b", 10, 3});
        written();
        gone({"a", 10, 5}, 4, cmd);
        EXPECT_THAT(written(), ElementsAre("hmupdate 4 b/10/3 = 0"));
    }
    gone({"b", 10, 3});
    EXPECT_THAT(written(), IsEmpty());
    EXPECT_EQ(stat().rules + stat().rule_keys + stat().contested_keys, 0U);
}

// As after every change, also when they are what they were.
TEST_P(Arbiter, TheRivalsOfARuleThatGoesHearTheirVerdictsAgain)
{
    decide();
    heard({"a", 10, 7});
    heard({"b", 10, 5});
    heard({"b", 10, 3});
    written();
    gone({"b", 10, 3});
    EXPECT_THAT(written(), UnorderedElementsAre("hmupdate 4 a/10/7 = 0", "hmupdate 4 b/10/5 = 1"));
}

TEST_P(Arbiter, OfOneUsersRulesTheHighestPriorityCounts)
{
    decide();
    heard({"a", 10, 3});
    written();
    heard({"a", 10, 6});
    EXPECT_THAT(written(), ElementsAre("hmupdate 4 a/10/6 = 0"));
    heard({"b", 10, 5});
    EXPECT_THAT(written(), UnorderedElementsAre("hmupdate 4 a/10/6 = 0", "hmupdate 4 b/10/5 = 1"));
    gone({"a", 10, 6});
    EXPECT_THAT(written(), UnorderedElementsAre("hmupdate 4 a/10/3 = 1", "hmupdate 4 b/10/5 = 0"));
}

TEST_P(Arbiter, RulesThatCannotBeDecidedAreSkipped)
{
    decide();
    const std::string longest(SW_EBRIDGE_NAME_SIZE - 1, 'u');
    heard({longest, 10, 7});
    EXPECT_THAT(written(), ElementsAre("hmupdate 4 " + longest + "/10/7 = 0"));
    log.clear();
    heard({longest + 'u', 10, 3});
    heard({"a", 10, 8});
    heard({"a", 10, -1});
    EXPECT_THAT(log, ElementsAre(HasSubstr("not decided"), HasSubstr("user a, match type 2, priority 8: not decided"),
                                 HasSubstr("priority -1")));
    EXPECT_THAT(written(), IsEmpty());
    EXPECT_EQ(stat().rules, 1U);
    gone({longest + 'u', 10, 7});
    EXPECT_EQ(stat().rules, 1U);
}

// The result of a rule goes to the record that its item names.
TEST_P(Arbiter, RulesWhoseRecordsTheirItemsDoNotNameAreSkipped)
{
    decide();
    heard({.user = "a", .vlan = 10, .priority = 3, .mac = std::string(6, '\2')});
    heard({.user = "a", .vlan = 11, .priority = 3, .mac = std::string(2, '\0')});
    heard({.user = "a", .vlan = 12, .priority = 3, .v6 = std::string(16, '\2')});
    EXPECT_EQ(written().size(), 3U);
    log.clear();
    const rule too_short{.user = "a", .vlan = 10, .priority = 3, .mac = std::string(5, '\2')};
    const rule too_long{.user = "a", .vlan = 12, .priority = 3, .v6 = std::string(17, '\2')};
    for (const rule &each : {too_short, too_long}) {
        heard(each);
        gone(each);
    }
    EXPECT_THAT(log, ElementsAre(HasSubstr("not decided: a mac has 6 bytes"), HasSubstr("not decided: a mac has")));
    EXPECT_THAT(written(), IsEmpty());
    EXPECT_EQ(stat().rules, 3U);
}

// An address of zeros, of whatever form, is none, and names the same record.
TEST_P(Arbiter, AnAddressOfZerosIsNone)
{
    decide();
    heard({.user = "a", .vlan = 10, .priority = 3, .v6 = std::string(16, '\0')});
    heard({.user = "a", .vlan = 10, .priority = 3});
    written();
    EXPECT_EQ(stat().rules, 1U);
    gone({.user = "a", .vlan = 10, .priority = 3, .v6 = std::string(16, '\0')});
    EXPECT_EQ(stat().rules, 0U);
}

TEST_P(Arbiter, ForeignRecordsAreSkipped)
{
    decide();
    log.clear();
    store.written(live(), 4, "a", 1);
    EXPECT_THAT(log, ElementsAre(HasSubstr("not a match rule, skipped")));
    heard({"a", 10, 5});
    EXPECT_THAT(written(), ElementsAre("hmupdate 4 a/10/5 = 0"));
}

TEST_P(Arbiter, OfTwoDatabasesTheOneCountsThatWasWrittenLast)
{
    follow({4, 5});
    end_scan(4);
    end_scan(5);
    heard({"a", 10, 5}, 5);
    heard({"a", 10, 5}, 4);
    heard({"a", 10, 5}, 5);
    EXPECT_EQ(stat().rules, 1U);
    written();
    heard({"b", 10, 7}, 4);
    EXPECT_THAT(written(), UnorderedElementsAre("hmupdate 5 a/10/5 = 1", "hmupdate 4 b/10/7 = 0"));
    gone({"a", 10, 5}, 4);
    EXPECT_EQ(stat().rules, 2U);
    gone({"a", 10, 5}, 5);
    EXPECT_EQ(stat().rules, 1U);
}

// Registering users makes the registry grow, and then they stand in another order: of equals the last one loses.
TEST_P(Arbiter, UsersThatAreMovedByNewOnesAreComparedAgain)
{
    const std::map<int32_t, std::string> keys{{10, "abcd"}, {11, "ab"}};  // users of a key
    std::map<std::string, std::string> results;
    const auto hear = [&](const rule &which) {
        heard(which);
        for (const std::string &text : written())
            results[text.substr(0, text.find(" = "))] = text.substr(text.find(" = "));
    };
    decide();
    for (const auto &[vlan, users] : keys)
        for (const char user : users)
            hear({std::string(1, user), vlan, 3});
    std::map<int32_t, std::string> losers;
    std::map<int32_t, int> changes;
    for (int32_t more = 0; more < 60; ++more) {
        hear({"user" + std::to_string(more), 100 + more, 3});
        for (const auto &[vlan, users] : keys) {
            std::string last;
            for (const std::string &user : support::users_in_order())
                last = user.size() == 1 && users.find(user) != std::string::npos ? user : last;
            for (const char user : users)
                EXPECT_EQ(results["hmupdate 4 " + std::string(1, user) + '/' + std::to_string(vlan) + "/3"],
                          last[0] == user ? " = 1" : " = 0")
                    << more;
            changes[vlan] += losers.contains(vlan) && losers[vlan] != last;
            losers[vlan] = last;
        }
    }
    for (const auto &[vlan, users] : keys)
        EXPECT_GT(changes[vlan], 0) << users;
}

// ---- writes that fail -----------------------------------------------------------------------------------------------

TEST_P(Arbiter, ResultsThatTheStoreRefusesComeLater)
{
    decide();
    for (const int32_t code : {QZ_MOM_EFULL, QZ_MOM_EDOWN, QZ_MOM_ENOMEM}) {
        store.codes = {{"hmupdate", code}};
        heard({"a", 10, 5});
        heard({"a", 20, 5});
        EXPECT_THAT(store.writes, IsEmpty());
        EXPECT_EQ(stat().waiting_keys, 2U);
        store.run_timers();
        store.run_posted();
        EXPECT_THAT(store.writes, IsEmpty());
        store.codes.clear();
        store.run_timers();
        store.run_posted();
        EXPECT_THAT(written(), UnorderedElementsAre("hmupdate 4 a/10/5 = 0", "hmupdate 4 a/20/5 = 0"));
        EXPECT_THAT(store.timers, IsEmpty());
        EXPECT_EQ(stat().waiting_keys + stat().waiting_results, 0U);
    }
}

// As none of them may have been heard, all are written.
TEST_P(Arbiter, AKeyOfWhichAPartWasWrittenIsWrittenAgainAsThingsStandThen)
{
    decide();
    for (const char *user : {"a", "b"})
        heard({user, 10, user[0] == 'a' ? 5 : 3});
    written();
    store.room = 1;
    heard({"c", 10, 4});
    EXPECT_EQ(store.writes.size(), 1U);
    store.room = SIZE_MAX;
    gone({"a", 10, 5});
    written();
    store.run_timers();
    store.run_posted();
    EXPECT_THAT(written(), UnorderedElementsAre("hmupdate 4 b/10/3 = 1", "hmupdate 4 c/10/4 = 0"));
}

TEST_P(Arbiter, ARefusalAtTheStartIsNoReasonToPublishLess)
{
    follow();
    found({"a", 10, 5, LOST});
    found({"b", 10, 3, 0});
    store.room = 1;
    end_scan();
    EXPECT_EQ(store.writes.size(), 1U);
    written();
    store.room = SIZE_MAX;
    store.run_timers();
    store.run_posted();
    EXPECT_THAT(written(), UnorderedElementsAre("hmupdate 4 a/10/5 = 0", "hmupdate 4 b/10/3 = 1"));
}

TEST_P(Arbiter, AKeyThatWaitsOutlivesTheRuleThatWasNoted)
{
    decide();
    heard({"b", 10, 3});
    written();
    store.codes = {{"hmupdate", QZ_MOM_EFULL}};
    heard({"a", 10, 5});
    gone({"b", 10, 3});
    heard({"a", 20, 5});
    gone({"a", 20, 5});
    EXPECT_EQ(stat().waiting_keys, 1U);
    store.codes.clear();
    store.run_timers();
    store.run_posted();
    EXPECT_THAT(written(), ElementsAre("hmupdate 4 a/10/5 = 0"));
}

TEST_P(Arbiter, AResultThatFailsLaterIsWrittenAgain)
{
    decide();
    heard({"a", 10, 5});
    const store_write first = std::exchange(store.writes, {}).at(0);
    store.write_done(first, 4, {"a", 10, 5}, QZ_MOM_EDOWN);
    EXPECT_EQ(stat().waiting_results, 0U);
    EXPECT_EQ(stat().waiting_keys, 1U);
    EXPECT_THAT(store.posted, IsEmpty());
    store.run_timers();
    store.run_posted();
    EXPECT_THAT(written(), ElementsAre("hmupdate 4 a/10/5 = 0"));
}

TEST_P(Arbiter, AResultOfARuleThatIsGoneIsNotWrittenAgain)
{
    decide();
    heard({"a", 10, 5});
    const store_write first = std::exchange(store.writes, {}).at(0);
    gone({"a", 10, 5});
    store.write_done(first, 4, {"a", 10, 5}, QZ_MOM_EDOWN);
    store.run_timers();
    store.run_posted();
    EXPECT_THAT(store.writes, IsEmpty());
    EXPECT_EQ(stat().waiting_keys + stat().waiting_results, 0U);
}

TEST_P(Arbiter, AResultThatCanNeverBeWrittenIsNotWrittenAgain)
{
    decide();
    heard({"a", 10, 5});
    log.clear();
    store.write_done(std::exchange(store.writes, {}).at(0), 4, {"a", 10, 5}, QZ_MOM_EFORM);
    EXPECT_THAT(log, ElementsAre(HasSubstr("write failed")));
    store.codes = {{"hmupdate", QZ_MOM_EFORM}};
    heard({"a", 20, 5});
    EXPECT_THAT(log, testing::Contains(HasSubstr("cannot be written")));
    EXPECT_THAT(store.timers, IsEmpty());
    EXPECT_EQ(stat().waiting_keys + stat().waiting_results, 0U);
}

// Another one decides now, and this one is about to hear of it.
TEST_P(Arbiter, AFencedHandleIsNotAskedAgain)
{
    decide();
    heard({"a", 10, 5});
    store.write_done(std::exchange(store.writes, {}).at(0), 4, {"a", 10, 5}, QZ_MOM_EFENCED);
    store.codes = {{"hmupdate", QZ_MOM_EFENCED}};
    heard({"a", 20, 5});
    EXPECT_THAT(store.timers, IsEmpty());
    EXPECT_THAT(store.posted, IsEmpty());
}

TEST_P(Arbiter, WhatIsUnderWayIsBounded)
{
    constexpr size_t ENOUGH = 2000;
    decide();
    store.lacks_memory = false;  // of 4000 rules this would take long
    for (int32_t vlan = 1; vlan <= 4000; ++vlan)
        heard({"a", vlan, 5});
    std::map<std::string, int> times;
    while (!store.writes.empty()) {
        EXPECT_LT(store.writes.size(), ENOUGH);
        EXPECT_EQ(store.writes.size(), stat().waiting_results);
        for (const store_write &each : std::exchange(store.writes, {})) {
            ++times[each.text];
            store.write_done(each, 4, rule{.user = "a"});
        }
        store.run_posted();
    }
    EXPECT_EQ(times.size(), 4000U);
    EXPECT_TRUE(std::ranges::all_of(times, [](const auto &each) { return each.second == 1; }));
    EXPECT_EQ(stat().waiting_keys + stat().waiting_results, 0U);
}

// Of a key that changes all the time the others do not suffer.
TEST_P(Arbiter, NoKeyWaitsForEver)
{
    decide();
    store.codes = {{"hmupdate", QZ_MOM_EFULL}};
    for (int32_t vlan = 1; vlan <= 100; ++vlan)
        store.rule_written(live(), 4, {"a", vlan, 5});
    store.run_posted();
    store.codes.clear();
    store.run_timers();
    std::map<std::string, int> times;
    for (int turn = 0; turn < 300; ++turn) {
        store.rule_written(live(), 4, {"a", 1 + turn % 3, 5});
        store.room = store.writes.size() + 1;
        if (!store.posted.empty()) {
            const auto [func, arg] = store.posted.front();
            store.posted.erase(store.posted.begin());
            func(arg);
        }
        store.run_timers();
        for (const store_write &each : std::exchange(store.writes, {})) {
            ++times[each.text];
            store.write_done(each, 4, rule{.user = "a"});
        }
    }
    EXPECT_EQ(times.size(), 100U);
}

TEST_P(Arbiter, ALoopThatTakesNoCallDelaysThePass)
{
    decide();
    store.codes = {{"post", QZ_THREAD_ENOMEM}};
    heard({"a", 10, 5});
    EXPECT_THAT(store.writes, IsEmpty());
    store.codes.clear();
    store.run_timers();
    store.run_posted();
    EXPECT_THAT(written(), ElementsAre("hmupdate 4 a/10/5 = 0"));
}

// ---- the end --------------------------------------------------------------------------------------------------------

TEST_P(Arbiter, CallbacksAfterTheEndDoNothingAndTheTableIsEmpty)
{
    decide();
    heard({"a", 10, 5});
    heard({"a", 20, 5});
    const std::vector<store_write> pending = std::exchange(store.writes, {});
    store.codes = {{"hmupdate", QZ_MOM_EFULL}};
    heard({"b", 10, 7});
    store.rule_written(live(), 4, {"c", 10, 7});
    EXPECT_EQ(sw_ematch_item_hash_size(0), 4U);
    ebridged_stop(std::exchange(service, nullptr));
    EXPECT_EQ(sw_ematch_item_hash_size(0), 0U);
    store.codes.clear();
    heard({"a", 30, 3});
    gone({"a", 10, 5});
    end_scan();
    store.write_done(pending.at(0), 4, {"a", 10, 5}, QZ_MOM_EDOWN);
    store.run_timers();
    store.run_posted();
    EXPECT_THAT(store.writes, IsEmpty());
}

TEST_P(Arbiter, TheNextServiceReadsTheRulesAgain)
{
    decide();
    heard({"a", 10, 5});
    heard({"b", 10, 3});
    written();
    ebridged_stop(std::exchange(service, nullptr));
    follow();
    found({"a", 10, 5, 0});
    found({"b", 10, 3, LOST});
    end_scan();
    EXPECT_THAT(written(), IsEmpty());
    gone({"a", 10, 5});
    EXPECT_THAT(written(), ElementsAre("hmupdate 4 b/10/3 = 0"));
}

TEST_P(Arbiter, OfTwoServicesInAProcessTheFirstOneDecides)
{
    decide();
    heard({"a", 10, 5});
    written();
    ebridged_service *const first = std::exchange(service, nullptr);
    store.follows.clear();
    start();
    EXPECT_FALSE(follows("subscribe"));
    EXPECT_THAT(log, testing::Contains(HasSubstr("decided by another service of this process")));
    ebridged_stop(std::exchange(service, nullptr));
    EXPECT_EQ(sw_ematch_item_hash_size(0), 1U);
    ebridged_stop(first);
    decide();
    EXPECT_EQ(stat().deciding, 1U);
}

TEST_P(Arbiter, AStartThatLacksMemoryIsRefusedAndLeavesTheTableToTheNext)
{
    const auto start_anew = [this] {
        store.follows.clear();
        return ebridged_start(store.handle(), nullptr, &service);
    };
    EXPECT_GT(failures_reported(start_anew, QZ_MOM_ENOMEM), 10U);
    ASSERT_TRUE(follows("subscribe"));
    store.confirm(live(), 4);
    end_scan();
    heard({"a", 10, 5});
    EXPECT_THAT(written(), ElementsAre("hmupdate 4 a/10/5 = 0"));
}
