// Deciding among the users whose rules have one key, and writing the verdicts to their records.
#include "ematch_fixture.hpp"

namespace
{

using namespace ematch_test;
using EmatchDecision = EmatchTest;
using EmatchPriorities = EmatchTest;
using EmatchWinner = EmatchTest;
using EmatchPublishing = EmatchTest;
using EmatchCalculation = EmatchTest;
using EmatchResultReply = EmatchTest;

using numbers = std::vector<int32_t>;

// Registers so many users, and returns them in the order in which walks meet them.
strings add_users(size_t count)
{
    static const char *const names[] = {"isp", "vlan-mapping", "security", "qos", "vxlan", "mirror"};
    for (size_t i = 0; i < count; ++i)
        add_user({.name = names[i]});
    return registry_order();
}

// A rule of the key that these tests are about, of that priority.
struct contender : rule {
    contender(const std::string &owner, int32_t priority) : rule(nullptr), owner_(owner)
    {
        index.t_user = owner_.data();
        with_priority(priority).with_evlan(0x10000064).with_mac(full_mac);
    }

  private:
    std::string owner_;
};

// Gives each user, in their order, an item of its own with that priority.
std::vector<sw_ematch_item *> insert_each(const strings &users, const numbers &priorities)
{
    std::vector<sw_ematch_item *> items;
    for (size_t i = 0; i < priorities.size(); ++i)
        items.push_back(insert(contender(users.at(i), priorities[i])));
    return items;
}

sw_ematch_item *calculate(int32_t publish = 0, int32_t priority = 0, const char *caller = nullptr)
{
    contender key("", priority);
    key.index.t_user = text(caller);
    spoil_memory();
    return sw_ematch_calc_final_values(recording::other_handle(), &key.index, publish);
}

numbers final_results(const std::vector<sw_ematch_item *> &items)
{
    numbers results;
    for (const sw_ematch_item *item : items)
        results.push_back(item->final_result);
    return results;
}

numbers current_results(const std::vector<sw_ematch_item *> &items)
{
    numbers results;
    for (const sw_ematch_item *item : items)
        results.push_back(item->current_result);
    return results;
}

// What users of these priorities are told, in the order of the walk, and who of them is the winner.
void expect_decision(const numbers &priorities, const numbers &results, size_t winner)
{
    const strings users = add_users(priorities.size());
    const std::vector<sw_ematch_item *> items = insert_each(users, priorities);
    for (sw_ematch_item *item : items)
        item->final_result = fail_hw_hash;
    const sw_ematch_item *best = calculate();
    ASSERT_NE(best, nullptr);
    EXPECT_EQ(name_of(*best), users[winner]);
    EXPECT_EQ(best->match_priority, priorities[winner]);
    EXPECT_EQ(final_results(items), results);
}

// ---- neighbour against neighbour

TEST_F(EmatchDecision, OneUserWins) { expect_decision({3}, {success}, 0); }

TEST_F(EmatchDecision, TheHigherOfTwoWins) { expect_decision({5, 3}, {success, fail_priority}, 0); }

TEST_F(EmatchDecision, TheHigherOfTwoWinsWhenItIsMetLater) { expect_decision({3, 5}, {fail_priority, success}, 1); }

TEST_F(EmatchDecision, OfEqualsTheOneMetFirstWins) { expect_decision({4, 4}, {success, fail_priority}, 0); }

TEST_F(EmatchDecision, ALoserIsSetBackByALowerSuccessor)
{
    expect_decision({5, 3, 2}, {success, success, fail_priority}, 0);
}

TEST_F(EmatchDecision, ALoserIsSetBackByAnEqualSuccessor)
{
    expect_decision({5, 3, 3}, {success, success, fail_priority}, 0);
}

TEST_F(EmatchDecision, WhoBeatsThePredecessorIsTheWinnerThoughAnotherIsHigher)
{
    expect_decision({5, 3, 4}, {success, fail_priority, success}, 2);
}

TEST_F(EmatchDecision, OnlyTheLastOfARisingRowWins)
{
    expect_decision({1, 2, 3}, {fail_priority, fail_priority, success}, 2);
}

TEST_F(EmatchDecision, AllButTheLastOfAFallingRowWin)
{
    expect_decision({6, 5, 4, 3, 2}, {success, success, success, success, fail_priority}, 0);
}

TEST_F(EmatchDecision, AllButTheLastOfEqualsWin)
{
    expect_decision({0, 0, 0, 0}, {success, success, success, fail_priority}, 0);
}

TEST_F(EmatchDecision, PrioritiesUpAndDown)
{
    expect_decision({3, 7, 1, 6, 6, 0}, {fail_priority, success, fail_priority, success, success, fail_priority}, 3);
}

TEST_F(EmatchDecision, UsersWithoutTheRuleAreNoNeighbours)
{
    const strings users = add_users(5);
    const std::vector<sw_ematch_item *> items = {insert(contender(users[0], 5)), insert(contender(users[2], 3)),
                                                 insert(contender(users[4], 4))};
    insert(contender(users[1], 7).with_evlan(1));
    insert(contender(users[3], 0).with_evlan(2));
    const sw_ematch_item *best = calculate();
    ASSERT_NE(best, nullptr);
    EXPECT_EQ(name_of(*best), users[4]);
    EXPECT_EQ(final_results(items), (numbers{success, fail_priority, success}));
}

TEST_F(EmatchDecision, NobodyHasTheRule)
{
    const strings users = add_users(2);
    insert(contender(users[0], 5).with_evlan(1));
    recording::reset();
    EXPECT_EQ(calculate(1), nullptr);
    EXPECT_THAT(recording::calls(), IsEmpty());
    EXPECT_THAT(trace(), ElementsAre("debug sw_ematch_calc_final_values: a second ematch result scan started."));
    recording::reset();
    EXPECT_EQ(calculate(0), nullptr);
    EXPECT_THAT(trace(), IsEmpty());
}

// An index that was made from the last winner points into it.
TEST_F(EmatchDecision, TheLastWinnerMayBeAskedForAgain)
{
    const strings users = add_users(2);
    for (const std::string &name : users) {
        contender each(name, 3);
        each.with_mac({2, 0, 0, 0, 0, 1}).with_v6(ipv6_address());
        insert(each);
    }
    contender key(users[0], 3);
    key.with_mac({2, 0, 0, 0, 0, 1}).with_v6(ipv6_address());
    sw_ematch_item *best = sw_ematch_calc_final_values(recording::other_handle(), &key.index, 0);
    ASSERT_NE(best, nullptr);
    ASSERT_EQ(sw_ematch_index_copy(&key.index, best, 0), 0);
    key.index.t_user = static_cast<char *>(static_cast<void *>(best->user));
    EXPECT_EQ(sw_ematch_calc_final_values(recording::other_handle(), &key.index, 0), best);
    EXPECT_EQ(name_of(*best), users[0]);
    EXPECT_EQ(sw_ebridge_list_item_hash_size(0), 2u);
}

TEST_F(EmatchDecision, TouchesNoItemOfAnotherKey)
{
    const strings users = add_users(2);
    insert_each(users, {3, 5});
    sw_ematch_item *other = insert(contender(users[0], 7).with_evlan(1));
    other->current_result = other->final_result = fail_hw_hash;
    const std::string before = bytes_of(*other);
    calculate(1);
    EXPECT_EQ(bytes_of(*other), before);
}

TEST_F(EmatchDecision, FollowsARemoval)
{
    const strings users = add_users(2);
    const std::vector<sw_ematch_item *> items = insert_each(users, {7, 5});
    calculate(1);
    EXPECT_EQ(items[1]->current_result, fail_priority);
    EXPECT_EQ(sw_ematch_db_hash_del_item(users[0].c_str(), index_of(contender(users[0], 7))), 0);
    const sw_ematch_item *best = calculate(1);
    ASSERT_NE(best, nullptr);
    EXPECT_EQ(name_of(*best), users[1]);
    EXPECT_EQ(items[1]->current_result, success);
}

TEST_F(EmatchDecision, IsTheSameEveryTime)
{
    const strings users = add_users(3);
    const std::vector<sw_ematch_item *> items = insert_each(users, {5, 3, 4});
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(name_of(*calculate(1)), users[2]);
        EXPECT_EQ(final_results(items), (numbers{success, fail_priority, success}));
    }
}

TEST_F(EmatchDecision, TakesAddressesThatAreNotSetAsZeroOnes)
{
    add_user({.name = "app"});
    sw_ematch_item *stored = insert(rule().with_mac(bytes(6)).with_mask(bytes(6)).with_v4(0));
    stored->final_result = fail_hw_hash;
    spoil_memory();
    EXPECT_NE(sw_ematch_calc_final_values(recording::handle(), index_of(rule()), 0), nullptr);
    EXPECT_EQ(stored->final_result, success);
}

TEST_F(EmatchDecision, ComparesTheWholeKeyButUserAndPriority)
{
    const strings users = add_users(2);
    full_rule first(users[0].c_str()), second(users[1].c_str());
    first.with_v6(ipv6_address()).with_priority(7);
    second.with_v6(ipv6_address()).with_priority(2);
    const std::vector<sw_ematch_item *> items = {insert(first), insert(second)};
    EXPECT_NE(sw_ematch_calc_final_values(recording::handle(), &second.index, 0), nullptr);
    EXPECT_EQ(final_results(items), (numbers{success, fail_priority}));
    second.index.ip_mask ^= 1;
    EXPECT_EQ(sw_ematch_calc_final_values(recording::handle(), &second.index, 0), nullptr);
}

// ---- priorities

TEST_F(EmatchPriorities, OfTheIndexDoesNotMatter)
{
    const strings users = add_users(2);
    const std::vector<sw_ematch_item *> items = insert_each(users, {2, 6});
    for (int32_t priority = -1; priority <= 8; ++priority) {
        const sw_ematch_item *best = calculate(0, priority);
        ASSERT_NE(best, nullptr) << priority;
        EXPECT_EQ(best->match_priority, 6) << priority;
        EXPECT_EQ(final_results(items), (numbers{fail_priority, success})) << priority;
    }
}

TEST_F(EmatchPriorities, TheHighestOfAUserIsItsRule)
{
    const strings users = add_users(2);
    const numbers of_first = {0, 3, 5}, of_second = {4, 1};
    for (const int32_t priority : of_first)
        insert(contender(users[0], priority));
    for (const int32_t priority : of_second)
        insert(contender(users[1], priority));
    const std::vector<sw_ematch_item *> counted = {held(users[0].c_str(), contender("", 5)),
                                                   held(users[1].c_str(), contender("", 4))};
    const std::vector<sw_ematch_item *> others = {held(users[0].c_str(), contender("", 0)),
                                                  held(users[0].c_str(), contender("", 3)),
                                                  held(users[1].c_str(), contender("", 1))};
    for (sw_ematch_item *item : others)
        item->current_result = item->final_result = fail_hw_hash;
    recording::reset();
    EXPECT_EQ(calculate(1, 3)->match_priority, 5);
    EXPECT_EQ(final_results(counted), (numbers{success, fail_priority}));
    EXPECT_EQ(current_results(counted), (numbers{success, fail_priority}));
    EXPECT_EQ(final_results(others), numbers(3, fail_hw_hash));
    EXPECT_EQ(current_results(others), numbers(3, fail_hw_hash));
    EXPECT_THAT(recording::calls(), SizeIs(2));
}

TEST_F(EmatchPriorities, EachOfTheRangeIsFound)
{
    add_users(1);
    for (int32_t priority = 0; priority <= 7; ++priority) {
        insert(contender("isp", priority));
        EXPECT_EQ(calculate()->match_priority, priority);
    }
    for (int32_t priority = 7; priority > 0; --priority) {
        EXPECT_EQ(calculate()->match_priority, priority);
        sw_ematch_db_hash_del_item("isp", index_of(contender("isp", priority)));
    }
}

TEST_F(EmatchPriorities, OutsideTheRangeAreFoundByTheirOwnOnly)
{
    add_users(1);
    for (const int32_t priority : {INT32_MIN, -1, 8, 255, INT32_MAX}) {
        insert(contender("isp", priority));
        EXPECT_EQ(calculate(0, 3), nullptr) << priority;
        const sw_ematch_item *best = calculate(0, priority);
        ASSERT_NE(best, nullptr) << priority;
        EXPECT_EQ(best->match_priority, priority);
    }
    EXPECT_EQ(calculate(0, 9), nullptr);
}

TEST_F(EmatchPriorities, InsideTheRangeComeFirst)
{
    add_users(1);
    insert(contender("isp", 8));
    insert(contender("isp", 0));
    EXPECT_EQ(calculate(0, 8)->match_priority, 0);
}

TEST_F(EmatchPriorities, AreComparedAsSignedNumbers)
{
    const strings users = add_users(2);
    const std::vector<sw_ematch_item *> items = insert_each(users, {-1, 0});
    EXPECT_EQ(name_of(*calculate(0, -1)), users[1]);
    EXPECT_EQ(final_results(items), (numbers{fail_priority, success}));
}

// ---- the winner

TEST_F(EmatchWinner, IsACopyUnderANameOfItsOwn)
{
    add_users(1);
    sw_ematch_item *stored = insert(full_rule("isp"));
    stored->current_result = stored->final_result = fail_hw_hash;
    const sw_ematch_item *best = sw_ematch_calc_final_values(recording::handle(), index_of(full_rule()), 0);
    ASSERT_NE(best, nullptr);
    EXPECT_NE(best, stored);
    EXPECT_NE(best->user, stored->user);
    EXPECT_STREQ(name_of(*best), "isp");
    sw_ematch_item expected = full_item(best->user);
    expected.mom_db = ematch_db;
    expected.current_result = fail_hw_hash;
    expected.final_result = success;
    EXPECT_EQ(bytes_of(*best), bytes_of(expected));
}

TEST_F(EmatchWinner, IsAsTheFirstPassSawIt)
{
    const strings users = add_users(3);
    const std::vector<sw_ematch_item *> items = insert_each(users, {5, 3, 4});
    for (sw_ematch_item *item : items)
        item->current_result = fail_hw_hash;
    const sw_ematch_item *best = calculate(1);
    EXPECT_EQ(best->current_result, fail_hw_hash);
    EXPECT_EQ(best->final_result, success);
    EXPECT_EQ(items[2]->current_result, success);
}

TEST_F(EmatchWinner, IsOverwrittenByTheNextCalculation)
{
    const strings users = add_users(2);
    insert(contender(users[0], 3));
    const sw_ematch_item *first = calculate();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(name_of(*first), users[0]);
    insert(contender(users[1], 4));
    EXPECT_EQ(calculate(), first);
    EXPECT_EQ(name_of(*first), users[1]);
    EXPECT_EQ(first->match_priority, 4);
}

TEST_F(EmatchWinner, IsEmptyAfterACalculationWithoutOne)
{
    add_users(1);
    insert(full_rule("isp"));
    const sw_ematch_item *best = sw_ematch_calc_final_values(recording::handle(), index_of(full_rule()), 0);
    ASSERT_NE(best, nullptr);
    EXPECT_EQ(calculate(), nullptr);
    EXPECT_STREQ(name_of(*best), "");
    sw_ematch_item expected = blank_item();
    expected.user = best->user;
    EXPECT_EQ(bytes_of(*best), bytes_of(expected));
}

TEST_F(EmatchWinner, OutlivesItsItem)
{
    add_users(1);
    insert(contender("isp", 3));
    const sw_ematch_item *best = calculate();
    sw_ematch_db_hash_del_item("isp", index_of(contender("isp", 3)));
    EXPECT_STREQ(name_of(*best), "isp");
    EXPECT_EQ(best->match_priority, 3);
}

TEST_F(EmatchWinner, MayHaveALongName)
{
    add_user({.name = name_of_31});
    insert(contender(name_of_31, 3));
    EXPECT_STREQ(name_of(*calculate()), name_of_31);
}

// ---- publishing

// The record that a verdict is written to.
std::string verdict_of(const std::string &owner, int32_t priority, int32_t result)
{
    contender told(owner, priority);
    told.with_mask(bytes(6)).with_v4(0);
    told.entry.result = static_cast<UBridge__MatchResult>(result);
    return told.rendered();
}

TEST_F(EmatchPublishing, WritesOneResultToItsRecord)
{
    add_users(1);
    insert("isp", contender("isp", 6), 11)->current_result = fail_priority;
    recording::reset();
    EXPECT_NE(calculate(1), nullptr);
    ASSERT_THAT(recording::calls(), SizeIs(1));
    const recording::call &made = recording::calls()[0];
    EXPECT_EQ(made.function, "qz_mom_hmupdate");
    EXPECT_EQ(made.handle, recording::other_handle());
    EXPECT_EQ(made.db, 11u);
    EXPECT_EQ(made.record, verdict_of("isp", 6, success));
    EXPECT_THAT(made.fields, ElementsAre(30u));
    EXPECT_EQ(made.count, 1u);
    EXPECT_EQ(made.callback, nullptr);
    EXPECT_EQ(made.args, nullptr);
}

TEST_F(EmatchPublishing, WritesEveryResultInTheOrderOfTheWalkChangedOrNot)
{
    const strings users = add_users(3);
    const numbers priorities = {5, 3, 4}, results = {success, fail_priority, success};
    for (size_t i = 0; i < 3; ++i)
        insert(users[i].c_str(), contender(users[i], priorities[i]), 20 + static_cast<uint32_t>(i));
    for (int round = 0; round < 2; ++round) {
        recording::reset();
        EXPECT_NE(calculate(1), nullptr);
        const auto calls = recording::calls();
        ASSERT_THAT(calls, SizeIs(3));
        for (size_t i = 0; i < 3; ++i)
            EXPECT_EQ(call_text(calls[i]),
                      format("qz_mom_hmupdate %zu ", 20 + i) + verdict_of(users[i], priorities[i], results[i]));
    }
}

TEST_F(EmatchPublishing, RemembersWhatItPublished)
{
    const strings users = add_users(2);
    const std::vector<sw_ematch_item *> items = insert_each(users, {3, 5});
    items[0]->current_result = items[1]->current_result = fail_hw_hash;
    calculate(0);
    EXPECT_EQ(current_results(items), numbers(2, fail_hw_hash));
    calculate(-1);
    EXPECT_EQ(current_results(items), (numbers{fail_priority, success}));
    EXPECT_EQ(final_results(items), (numbers{fail_priority, success}));
}

TEST_F(EmatchPublishing, IsLeftOutWhenNotAskedFor)
{
    const strings users = add_users(2);
    insert_each(users, {3, 5});
    recording::reset();
    EXPECT_NE(calculate(0), nullptr);
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TEST_F(EmatchPublishing, GoesOnAfterARefusal)
{
    const strings users = add_users(3);
    const std::vector<sw_ematch_item *> items = insert_each(users, {1, 2, 3});
    recording::reset();
    recording::set_result("qz_mom_hmupdate", -6, 1);  // which ends a walk when it is the step's
    recording::set_result("qz_mom_hmupdate", -105, 3);
    EXPECT_NE(calculate(1), nullptr);
    EXPECT_THAT(recording::calls(), SizeIs(3));
    EXPECT_THAT(errors(),
                ElementsAre("Assert:qz_mom_hmupdate failed, rv: -6\n", "Assert:qz_mom_hmupdate failed, rv: -105\n"));
    EXPECT_EQ(current_results(items), (numbers{fail_priority, fail_priority, success}));
}

TEST_F(EmatchPublishing, TakesTheHandleAsItIs)
{
    add_users(1);
    insert(contender("isp", 3));
    recording::reset();
    EXPECT_NE(sw_ematch_calc_final_values(nullptr, index_of(contender("", 3)), 1), nullptr);
    ASSERT_THAT(recording::calls(), SizeIs(1));
    EXPECT_EQ(recording::calls()[0].handle, nullptr);
}

// ---- what is logged

// What a verdict is written with.
strings reply_trace(const sw_ematch_item &item, int32_t result, const qz_mom_handle *handle)
{
    contender told(item.user->user_name, item.match_priority);
    told.with_mask(bytes(6)).with_v4(0);
    told.entry.result = static_cast<UBridge__MatchResult>(result);
    const UBridge__EmatchIndex &index = told.index;
    return joined(
        joined({"debug sw_ematch_result_reply: " +
                format("mom_handle: %p, mom_db: %u, reply priority result to user: %s, match_type: 0x%x, match_flag: "
                       "0x%x, match_priority: %d, evlan1: 0x%x, evlan2: 0x%x, eport: 0x%x, ipv4: 0x%x, vnid: %d, "
                       "label: %d, current_result: %d, .",
                       static_cast<const void *>(handle), item.mom_db, index.t_user,
                       static_cast<uint32_t>(index.match_type), static_cast<uint32_t>(index.match_flag),
                       index.match_priority, static_cast<uint32_t>(index.evlan1), static_cast<uint32_t>(index.evlan2),
                       static_cast<uint32_t>(index.eport), index.ipv4, index.vnid, index.label, result)},
               entry_lines(told.entry)),
        {"debug sw_ematch_result_reply: qz_mom_hmset udp_ematch_entry: 0.",
         format("qz_mom_hmupdate %u ", item.mom_db) + told.rendered()});
}

std::string seen_line(const sw_ematch_item &item)
{
    return format("debug sw_ematch_calc_final_values: calc_final_values,ebridge_list_item user: %s: 0, ",
                  item.user->user_name);
}

std::string change_line(const sw_ematch_item &item, int32_t from, int32_t to)
{
    return format("debug sw_ematch_calc_final_values: user %s ematch result changes from %d to %d.",
                  item.user->user_name, from, to);
}

TEST_F(EmatchCalculation, LogsBothPassesAndTheWinner)
{
    const strings users = add_users(2);
    const std::vector<sw_ematch_item *> items = insert_each(users, {3, 5});
    items[0]->current_result = fail_hw_hash;
    recording::reset();
    const sw_ematch_item *best = calculate(1);
    ASSERT_NE(best, nullptr);
    strings expected = {item_line(*items[0]),
                        seen_line(*items[0]),
                        item_line(*items[1]),
                        seen_line(*items[1]),
                        "debug sw_ematch_calc_final_values: a second ematch result scan started.",
                        change_line(*items[0], fail_hw_hash, fail_priority)};
    expected = joined(expected, reply_trace(*items[0], fail_priority, recording::other_handle()));
    expected.push_back(change_line(*items[1], success, success));
    expected = joined(expected, reply_trace(*items[1], success, recording::other_handle()));
    expected.push_back(item_line(*best));
    expected.push_back("debug sw_ematch_calc_final_values: calc_final_values,final_ematch_item: 0, ");
    EXPECT_EQ(trace(), expected);
}

TEST_F(EmatchCalculation, LogsOnePassWithoutPublishing)
{
    const strings users = add_users(1);
    const sw_ematch_item *item = insert(contender(users[0], 3));
    recording::reset();
    const sw_ematch_item *best = calculate();
    ASSERT_NE(best, nullptr);
    EXPECT_EQ(trace(), (strings{item_line(*item), seen_line(*item), item_line(*best),
                                "debug sw_ematch_calc_final_values: calc_final_values,final_ematch_item: 0, "}));
}

TEST_F(EmatchCalculation, LogsNothingBelowTheDebugLevel)
{
    const strings users = add_users(2);
    insert_each(users, {3, 5});
    recording::reset();
    g_sw_vlan_file_zlog_level = 4;
    EXPECT_NE(calculate(1), nullptr);
    EXPECT_THAT(recording::log(), IsEmpty());
    EXPECT_THAT(recording::calls(), SizeIs(2));
}

// ---- who calls, and with what

TEST_F(EmatchCalculation, LeavesTheIndexAlone)
{
    const strings users = add_users(1);
    insert(contender(users[0], 3));
    contender key("isp", 5);
    const UBridge__EmatchIndex before = key.index;
    EXPECT_NE(sw_ematch_calc_final_values(recording::handle(), &key.index, 1), nullptr);
    EXPECT_EQ(std::memcmp(&key.index, &before, sizeof before), 0);
}

TEST_F(EmatchCalculation, RegistersACallerWhoIsNotYet)
{
    const strings users = add_users(1);
    insert(contender(users[0], 3));
    EXPECT_NE(calculate(0, 0, "arbiter"), nullptr);
    const sw_ebridge_list_item *arbiter = sw_ebridge_list_item_get("arbiter");
    ASSERT_NE(arbiter, nullptr);
    EXPECT_EQ(arbiter->mom_handle, nullptr);
    EXPECT_EQ(registry_order().size(), 2u);
    EXPECT_NE(calculate(0, 0, "arbiter"), nullptr);
    EXPECT_EQ(registry_order().size(), 2u);
}

TEST_F(EmatchCalculation, RegistersNobodyWithoutAName)
{
    const strings users = add_users(1);
    insert(contender(users[0], 3));
    EXPECT_NE(calculate(0, 0, nullptr), nullptr);
    EXPECT_EQ(registry_order(), users);
}

TEST_F(EmatchCalculation, MakesTheTableWhenThereIsNone)
{
    EXPECT_EQ(calculate(1, 0, "arbiter"), nullptr);
    EXPECT_NE(sw_ebridge_list_item_get("arbiter"), nullptr);
    EXPECT_NE(insert(contender("arbiter", 3)), nullptr);
    EXPECT_NE(calculate(0, 0, "arbiter"), nullptr);
}

TEST_F(EmatchCalculation, LooksAtUsersOfSlot0Only)
{
    const strings users = add_users(1);
    insert(contender(users[0], 3));
    add_user_in_slot(1, "elsewhere");
    sw_ematch_item foreign = converted(contender("elsewhere", 7));
    foreign.user = sw_ebridge_list_item_get_inst(1, "elsewhere");
    sw_ematch_item *stored = nullptr;
    sw_ematch_item_cache_create(0, &stored, &foreign);
    EXPECT_EQ(name_of(*calculate(1)), users[0]);
    EXPECT_THAT(recording::calls(), SizeIs(1));
}

// Between the other two it would be the one that both are compared with.
TEST_F(EmatchCalculation, PassesOverAUserWhoIsGone)
{
    const strings users = add_users(3);
    const std::vector<sw_ematch_item *> items = insert_each(users, {5, 3, 4});
    sw_ebridge_list_item_cache_destroy(0, sw_ebridge_list_item_get(users[1].c_str()));
    recording::reset();
    EXPECT_EQ(name_of(*calculate(1)), users[0]);
    EXPECT_EQ(items[0]->current_result, success);
    EXPECT_EQ(items[2]->current_result, fail_priority);
    EXPECT_THAT(recording::calls(), SizeIs(2));
}

TEST_F(EmatchCalculation, RefusesANullIndex)
{
    add_users(1);
    EXPECT_EQ(sw_ematch_calc_final_values(recording::handle(), nullptr, 1), nullptr);
    EXPECT_THAT(trace(), ElementsAre(StartsWith("error sw_ematch_calc_final_values: Assert:")));
}

TEST_F(EmatchCalculation, WithoutATableIsReported)
{
    sw_vlan_debug_init("app", nullptr);
    recording::reset();
    recording::fail_allocation(1, true);
    EXPECT_EQ(sw_ematch_calc_final_values(recording::handle(), index_of(contender("isp", 3)), 1), nullptr);
    recording::fail_allocation(0);
    EXPECT_EQ(trace().back(), "error sw_ematch_calc_final_values: Assert:sw_ebridge_match_db_init failed.\n");
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TEST_F(EmatchCalculation, WithoutMemoryForTheCallerDecidesAmongTheOthers)
{
    const strings users = add_users(2);
    insert_each(users, {3, 5});
    recording::fail_allocation(1, true);
    const sw_ematch_item *best = calculate(0, 0, "arbiter");
    recording::fail_allocation(0);
    ASSERT_NE(best, nullptr);
    EXPECT_EQ(name_of(*best), users[1]);
    EXPECT_EQ(sw_ebridge_list_item_get("arbiter"), nullptr);
}

TEST_F(EmatchCalculation, NeedsNoMemory)
{
    const strings users = add_users(3);
    insert_each(users, {5, 3, 4});
    const contender key(users[0], 0);
    recording::fail_allocation(1, true);
    EXPECT_NE(sw_ematch_calc_final_values(recording::handle(), &key.index, 1), nullptr);
    const uint64_t made = recording::allocations();
    recording::fail_allocation(0);
    EXPECT_EQ(made, 0u);
}

// ---- one verdict

sw_ematch_item verdict_item(sw_ebridge_list_item *owner, int32_t result)
{
    sw_ematch_item item = full_item(owner);
    item.mom_db = 11;
    item.current_result = result;
    return item;
}

// The record of full_item with nothing but key and result.
std::string full_verdict(const char *owner, int32_t result)
{
    full_rule told(owner);
    const UBridge__EmatchEntry blank = U_BRIDGE__EMATCH_ENTRY__INIT;
    told.entry = blank;
    told.entry.index = &told.index;
    told.entry.result = static_cast<UBridge__MatchResult>(result);
    return told.rendered();
}

TEST_F(EmatchResultReply, UpdatesTheResultOfTheRecordThatTheItemNames)
{
    sw_ebridge_list_item *app = add_user({.name = "app"});
    for (const int32_t result : {success, fail_priority, fail_hw_hash}) {
        recording::reset();
        sw_ematch_item item = verdict_item(app, result);
        item.final_result = -1;
        spoil_memory();
        EXPECT_EQ(sw_ematch_result_reply(recording::other_handle(), &item), 0);
        ASSERT_THAT(recording::calls(), SizeIs(1));
        const recording::call &made = recording::calls()[0];
        EXPECT_EQ(call_text(made), "qz_mom_hmupdate 11 " + full_verdict("app", result));
        EXPECT_EQ(made.handle, recording::other_handle());
        EXPECT_THAT(made.fields, ElementsAre(30u));
        EXPECT_EQ(made.count, 1u);
        EXPECT_EQ(made.callback, nullptr);
        EXPECT_EQ(made.args, nullptr);
    }
}

// Where an owner wrote no address, the verdict has a zero one: a store takes them for the same key.
TEST_F(EmatchResultReply, NamesEveryAddress)
{
    sw_ebridge_list_item *app = add_user({.name = "app"});
    sw_ematch_item item = blank_item();
    item.user = app;
    EXPECT_EQ(sw_ematch_result_reply(recording::handle(), &item), 0);
    EXPECT_EQ(recording::calls().at(0).record,
              "u_bridge.ematch_entry{index{t_user:\"app\" mac{data:000000000000} "
              "ip{v4{}} mask{data:000000000000}}}");
}

TEST_F(EmatchResultReply, NamesAVersionSixAddress)
{
    add_user({.name = "app"});
    full_rule v6;
    v6.with_v6(ipv6_address());
    sw_ematch_item item = *insert(v6);
    for (const uint32_t version : {1u, 2u, UINT32_MAX}) {  // all but 0
        recording::reset();
        item.ip_ver = version;
        EXPECT_EQ(sw_ematch_result_reply(recording::handle(), &item), 0);
        EXPECT_THAT(recording::calls().at(0).record,
                    testing::HasSubstr(" ip{v6{data:20010db8000000000000000000000042}} "));
    }
}

TEST_F(EmatchResultReply, SaysWhatItWrites)
{
    sw_ebridge_list_item *app = add_user({.name = "app"});
    sw_ematch_item item = verdict_item(app, fail_priority);
    EXPECT_EQ(sw_ematch_result_reply(recording::handle(), &item), 0);
    const std::string told = format(
        "debug sw_ematch_result_reply: mom_handle: %p, mom_db: 11, reply priority result "
        "to user: app, match_type: 0x9, match_flag: 0x105, match_priority: 6, evlan1: "
        "0x10000064, evlan2: 0x100000c8, eport: 0x80000007, ipv4: 0x%x, vnid: 5001, "
        "label: 77, current_result: 1, .",
        static_cast<void *>(recording::handle()), ipv4_word(10, 0, 0, 1));
    full_rule record;
    record.entry = U_BRIDGE__EMATCH_ENTRY__INIT;
    record.entry.index = &record.index;
    record.entry.result = U_BRIDGE__MATCH_RESULT__FAIL_PRIORITY;
    EXPECT_EQ(trace(), joined(joined({told}, entry_lines(record.entry)),
                              {"debug sw_ematch_result_reply: qz_mom_hmset udp_ematch_entry: 0.",
                               "qz_mom_hmupdate 11 " + record.rendered()}));
}

TEST_F(EmatchResultReply, SaysNothingBelowTheDebugLevel)
{
    sw_ebridge_list_item *app = add_user({.name = "app"});
    sw_ematch_item item = verdict_item(app, fail_priority);
    g_sw_vlan_file_zlog_level = 4;
    EXPECT_EQ(sw_ematch_result_reply(recording::handle(), &item), 0);
    EXPECT_THAT(trace(), ElementsAre("qz_mom_hmupdate 11 " + full_verdict("app", fail_priority)));
}

TEST_F(EmatchResultReply, PassesTheStoresCodeOn)
{
    sw_ebridge_list_item *app = add_user({.name = "app"});
    sw_ematch_item item = verdict_item(app, fail_priority);
    recording::set_result("qz_mom_hmupdate", -105);
    EXPECT_EQ(sw_ematch_result_reply(recording::handle(), &item), -105);
    EXPECT_EQ(trace().back(), "error sw_ematch_result_reply: Assert:qz_mom_hmupdate failed, rv: -105\n");
    EXPECT_THAT(errors(), SizeIs(1));
}

TEST_F(EmatchResultReply, LeavesTheItemAlone)
{
    sw_ebridge_list_item *app = add_user({.name = "app"});
    sw_ematch_item item = verdict_item(app, fail_priority);
    const std::string before = bytes_of(item);
    EXPECT_EQ(sw_ematch_result_reply(recording::handle(), &item), 0);
    EXPECT_EQ(bytes_of(item), before);
}

TEST_F(EmatchResultReply, OfTheWinnerGoesToItsOwner)
{
    add_user({.name = name_of_31});
    insert(full_rule(name_of_31));
    sw_ematch_item *best = sw_ematch_calc_final_values(recording::handle(), index_of(full_rule()), 0);
    ASSERT_NE(best, nullptr);
    recording::reset();
    EXPECT_EQ(sw_ematch_result_reply(recording::handle(), best), 0);
    EXPECT_EQ(recording::calls().at(0).record, full_verdict(name_of_31, success));
}

TEST_F(EmatchResultReply, OfNobodyNamesNobody)
{
    add_user({.name = "app"});
    sw_ematch_item item = verdict_item(nullptr, fail_priority);
    EXPECT_EQ(sw_ematch_result_reply(recording::handle(), &item), 0);
    EXPECT_EQ(recording::calls().at(0).record, full_verdict("", fail_priority));
}

TEST_F(EmatchResultReply, RefusesNull)
{
    add_user({.name = "app"});
    EXPECT_EQ(sw_ematch_result_reply(recording::handle(), nullptr), -2);
    EXPECT_THAT(trace(), ElementsAre(StartsWith("error sw_ematch_result_reply: Assert:")));
}

}  // namespace
