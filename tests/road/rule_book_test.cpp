// Which user of a run publishes which match rules, and what is made of what is heard and read of them; without a store.
#include "rule_book.hpp"

#include <gmock/gmock.h>

#include <algorithm>
#include <map>
#include <optional>
#include <set>

#include "evaluation.hpp"

using namespace ebridge_tool;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

constexpr int32_t SUCCESS = 0, LOST = 1;

class RuleBook : public testing::Test
{
  protected:
    // Rules by their names: "VLAN@PRIORITY".
    void open(const std::vector<std::pair<uint32_t, uint32_t>> &rules, size_t users)
    {
        config.acl_rules.emplace();
        for (const auto &[vlan, priority] : rules) {
            acl_rule rule;
            rule.key = "t|" + std::to_string(vlan) + '@' + std::to_string(priority);
            rule.vlan = vlan;
            rule.priority = priority;
            config.acl_rules->push_back(rule);
        }
        std::vector<std::string> names;
        for (size_t user = 1; user <= users; ++user)
            names.push_back("user" + std::to_string(user));
        result = {};
        book.emplace(config, names, &result);
    }

    // "user1 10@4": VLAN and level, of rules of the configuration and their rivals.
    std::vector<std::string> published() const
    {
        std::vector<std::string> all;
        for (size_t i = 0; i < book->size(); ++i)
            if (const published_rule &of = book->at(i); !of.tells_order())
                all.push_back(book->user_of(of) + ' ' + std::to_string(of.item.evlan1) + '@' +
                              std::to_string(of.item.match_priority));
        return all;
    }

    size_t order_rules() const { return book->size() - published().size(); }

    // Each user hears what the library's comparison, in the order of these names, would say, and the observer reads that.
    void decide(const std::vector<std::string> &walk)
    {
        for (size_t i = 0; i < book->size(); ++i) {
            std::vector<claim> claims;
            size_t own = 0;
            for (const std::string &user : walk)
                for (size_t j = 0; j < book->size(); ++j)
                    if (book->at(j).key == book->at(i).key && book->user_of(book->at(j)) == user &&
                        !book->at(j).dropped) {
                        own = j == i ? claims.size() : own;
                        claims.push_back({user, book->at(j).item.match_priority});
                    }
            const int32_t made = ebridge_tool::decide(claims).at(own).result;
            hear(i, made == NOT_COMPARED ? SUCCESS : made, made != NOT_COMPARED);
        }
        book->calculate();
    }
    void hear(size_t index, int32_t said, bool heard = true)
    {
        book->set(index, rule_facts{.code = 0, .sent = true, .heard = heard, .result = said});
        book->set(index, rule_sight{.found = true, .equal = true, .result = said});
    }

    std::vector<std::string> problems()
    {
        result.problems.clear();
        result.rules.clear();
        result.tables[0].granted = result.tables[0].refused = result.tables[0].verified = 0;
        evaluate(*book, &result);
        return result.problems;
    }

    switch_config config;
    run_result result;
    std::optional<rule_book> book;
};

}  // namespace

// ---- who publishes what ---------------------------------------------------------------------------------------------

TEST_F(RuleBook, OneUserPublishesAllAndHasNoRivals)
{
    open({{10, 3}, {20, 4}}, 1);
    EXPECT_THAT(published(), ElementsAre("user1 10@3", "user1 20@4"));
    EXPECT_EQ(order_rules(), 0U);
    ASSERT_EQ(result.tables.size(), 1U);
    EXPECT_EQ(result.tables[0].requested, 2U);
    EXPECT_EQ(result.tables[0].not_expressed, 0U);
    EXPECT_THAT(result.notes, IsEmpty());
}

TEST_F(RuleBook, EveryRuleIsContestedByOneOrTwoRivalsOfOtherLevels)
{
    open({{10, 3}, {20, 3}, {30, 3}, {40, 7}}, 4);
    EXPECT_THAT(published(), ElementsAre("user1 10@3", "user2 10@5",                //
                                         "user2 20@3", "user3 20@6", "user4 20@7",  //
                                         "user3 30@3", "user4 30@7",                //
                                         "user4 40@7", "user1 40@4", "user2 40@5"));
    EXPECT_EQ(order_rules(), 12U) << "two for each two of four users";
}

TEST_F(RuleBook, WhatTellsTheOrderOfTwoUsersHasAKeyOfTheirsInEveryRun)
{
    std::vector<std::set<std::string>> of_runs;
    for (const size_t users : {3U, 5U}) {
        open({{10, 3}, {20, 3}, {30, 3}, {40, 3}, {50, 3}}, users);
        std::map<int32_t, std::string> pairs;
        for (size_t i = 0; i < book->size(); ++i)
            if (const published_rule &of = book->at(i); of.tells_order())
                pairs[of.item.match_id] += ' ' + book->user_of(of);
        of_runs.emplace_back();
        for (const auto &[id, both] : pairs)
            of_runs.back().insert(std::to_string(id) + both);
    }
    EXPECT_THAT(of_runs[0], ElementsAre("102 user1 user2", "103 user1 user3", "203 user2 user3"));
    EXPECT_EQ(of_runs[1].size(), 10U);
    EXPECT_TRUE(std::ranges::includes(of_runs[1], of_runs[0]));
}

TEST_F(RuleBook, RulesOfOneKeyContestEachOtherAndTheHighestGoesToTheFirst)
{
    open({{10, 1}, {10, 6}, {10, 2}, {10, 7}}, 3);
    EXPECT_THAT(published(), ElementsAre("user1 10@7", "user2 10@6", "user3 10@2", "user1 10@1"));
    EXPECT_EQ(result.tables[0].requested, 4U);
}

TEST_F(RuleBook, RulesThatNoUserIsLeftForAreNotExpressed)
{
    open({{10, 3}, {10, 3}, {10, 3}}, 2);
    EXPECT_THAT(published(), ElementsAre("user1 10@3", "user2 10@3"));
    EXPECT_EQ(result.tables[0].requested, 2U);
    EXPECT_EQ(result.tables[0].not_expressed, 1U);
    EXPECT_THAT(result.notes,
                ElementsAre("ACL_RULE|t|10@3: not expressed: ACL_RULE|t|10@3 has the same match and level"));
}

TEST_F(RuleBook, ARuleOfWhichOnlyAPartIsLeftIsExpressedAndNamed)
{
    config.acl_rules.emplace();
    for (const std::vector<acl_port> &ports :
         {std::vector<acl_port>{{"a", 0x07000001}}, {{"a", 0x07000001}, {"b", 0x07000002}}}) {
        acl_rule rule;
        rule.key = "t|" + std::to_string(ports.size());
        rule.in_ports = ports;
        config.acl_rules->push_back(rule);
    }
    book.emplace(config, std::vector<std::string>{"user1"}, &result);
    EXPECT_EQ(book->size(), 2U);
    EXPECT_EQ(result.tables[0].requested, 2U);
    EXPECT_EQ(result.tables[0].not_expressed, 0U);
    EXPECT_THAT(result.notes,
                ElementsAre("ACL_RULE|t|2: partly not expressed: ACL_RULE|t|1 has the same match and level"));
}

TEST_F(RuleBook, TheSameConfigurationIsSpreadInTheSameWay)
{
    std::vector<std::pair<uint32_t, uint32_t>> rules;
    for (uint32_t i = 0; i < 500; ++i)
        rules.emplace_back(i * 7 % 100 + 1, i * i % 900);
    open(rules, 7);
    const std::vector<std::string> first = published();
    open(rules, 7);
    EXPECT_EQ(published(), first);
    EXPECT_EQ(std::set<std::string>(first.begin(), first.end()).size(), first.size());
}

TEST_F(RuleBook, ARuleIsFoundByItsUserKeyAndPriority)
{
    open({{10, 3}, {20, 3}}, 2);
    for (size_t i = 0; i < book->size(); ++i)
        EXPECT_EQ(book->find(book->user_of(book->at(i)), book->at(i).item), i);
    sw_ematch_item item = book->at(0).item;
    EXPECT_EQ(book->find("nobody", item), book->size());
    item.match_priority = 0;
    EXPECT_EQ(book->find("user1", item), book->size());
    item.evlan1 = 30;
    EXPECT_EQ(book->find("user1", item), book->size());
}

// ---- what is made of it ---------------------------------------------------------------------------------------------

TEST_F(RuleBook, TheOrderOfTheUsersIsHeardOfAndAllIsAsCalculated)
{
    for (const std::vector<std::string> &walk : {std::vector<std::string>{"user1", "user2", "user3", "user4"},
                                                 {"user3", "user1", "user4", "user2"},
                                                 {"user4", "user3", "user2", "user1"}}) {
        open({{10, 5}, {10, 3}, {10, 2}, {20, 5}, {20, 3}, {20, 4}, {30, 4}, {30, 4}, {30, 4}, {30, 4}, {40, 1}}, 4);
        decide(walk);
        EXPECT_EQ(book->as_calculated(), book->wanted());
        EXPECT_THAT(problems(), IsEmpty()) << testing::PrintToString(walk);
        EXPECT_EQ(result.tables[0].verified, 11U);
    }
}

TEST_F(RuleBook, EachUserCountsWhatItHoldsAndWhatItHasLost)
{
    open({{10, 7}, {10, 2}, {10, 1}}, 2);
    decide({"user1", "user2"});
    EXPECT_THAT(problems(), IsEmpty());
    ASSERT_EQ(result.rules.size(), 2U);
    EXPECT_EQ(result.rules[0].published, 2U);
    EXPECT_EQ(result.rules[0].holding, 1U);
    EXPECT_EQ(result.rules[0].shadowed, 1U) << "by its own one of level 7";
    EXPECT_EQ(result.rules[0].verified, 2U);
    EXPECT_EQ(result.rules[1].lost, 1U);
}

TEST_F(RuleBook, AVerdictThatTheCalculationDoesNotGiveDiffers)
{
    open({{10, 7}, {20, 3}}, 2);
    decide({"user1", "user2"});
    const size_t rival = 1;
    ASSERT_EQ(book->at(rival).asked.result, LOST);
    hear(rival, SUCCESS);
    EXPECT_EQ(book->as_calculated(), book->wanted() - 1);
    EXPECT_THAT(problems(), ElementsAre("ACL_RULE|t|10@7: user2: differs: its user heard that it holds, and by the "
                                        "calculation it loses to user1"));
    hear(rival, 2);
    EXPECT_THAT(problems(), ElementsAre("ACL_RULE|t|10@7: user2: differs: its user heard the result 2, and by the "
                                        "calculation it loses to user1"));
    hear(rival, LOST);
    hear(0, LOST);
    EXPECT_THAT(problems(), ElementsAre("ACL_RULE|t|10@7: user1: differs: its user heard that it has lost, and by the "
                                        "calculation it holds"));
    EXPECT_EQ(result.tables[0].verified, 1U) << "the other one: a rule and its rival are one entry";
}

TEST_F(RuleBook, WhatIsReadIsComparedWithWhatWasPublishedAndHeard)
{
    open({{10, 3}}, 1);
    decide({"user1"});
    book->set(0, rule_sight{.found = true, .equal = true, .result = LOST});
    EXPECT_THAT(problems(),
                ElementsAre("ACL_RULE|t|10@3: differs: the observer reads another result than its user heard"));
    book->set(0, rule_sight{.found = true, .equal = false, .result = SUCCESS});
    EXPECT_THAT(
        problems(),
        ElementsAre("ACL_RULE|t|10@3: differs: the rule that the observer reads is not the one that was published"));
    book->set(0, rule_sight());
    EXPECT_THAT(problems(), ElementsAre("ACL_RULE|t|10@3: differs: the observer's scan does not find the rule"));
}

TEST_F(RuleBook, ARuleWithoutAVerdictIsRefused)
{
    open({{10, 3}, {20, 3}}, 1);
    book->set(0, rule_facts{.code = -105, .sent = true});
    EXPECT_EQ(book->unheard_of(0), 1U) << "nothing will be heard of what was not published";
    EXPECT_THAT(problems(), ElementsAre("ACL_RULE|t|10@3: refused: it cannot be published, code -105",
                                        "ACL_RULE|t|20@3: refused: no verdict"));
    EXPECT_EQ(result.tables[0].refused, 2U);
    EXPECT_EQ(result.tables[0].granted, 0U);
}

TEST_F(RuleBook, RulesOfOthersCountWhereTheyHaveTheKey)
{
    open({{10, 3}, {20, 3}}, 1);
    other_rule other{.user = "other", .item = book->at(0).item};
    other.item.match_priority = 6;
    book->add_other(other);
    hear(0, LOST);
    hear(1, SUCCESS);
    book->calculate();
    EXPECT_THAT(problems(), IsEmpty());
    hear(0, SUCCESS);
    EXPECT_THAT(problems(),
                ElementsAre("ACL_RULE|t|10@3: differs: its user heard that it holds, and by the calculation "
                            "it loses to other"));
    book->forget_others();
    book->calculate();
    EXPECT_THAT(problems(), IsEmpty());
}

TEST_F(RuleBook, ALeftRuleOfTheUserItselfStandsAboveItsOwn)
{
    open({{10, 3}}, 1);
    other_rule left{.user = "user1", .item = book->at(0).item};
    left.item.match_priority = 6;
    book->add_other(left);
    book->calculate();
    EXPECT_FALSE(book->at(0).is_compared());
    EXPECT_EQ(book->unheard_of(0), 0U);
}

// ---- after a restart ------------------------------------------------------------------------------------------------

TEST_F(RuleBook, WhatWasDroppedLeavesTheContestToTheOthers)
{
    open({{10, 7}, {10, 3}, {20, 5}}, 2);
    decide({"user2", "user1"});
    EXPECT_THAT(problems(), IsEmpty());
    switch_config reduced = config;
    (*reduced.acl_rules)[0].dropped = true;
    result.restarted = {{.name = "ACL_RULE"}};
    book->restart(reduced);
    EXPECT_EQ(book->settled(), 0U);
    decide({"user2", "user1"});
    book->set(0, rule_sight());
    evaluate_restart(*book, &result);
    EXPECT_THAT(result.problems, IsEmpty());
    EXPECT_EQ(book->at(1).asked.result, SUCCESS) << "it had lost to the one that is gone";
    EXPECT_EQ(result.restarted[0].kept, 2U);
    EXPECT_EQ(result.restarted[0].unchanged, 2U);
    EXPECT_EQ(result.restarted[0].dropped, 1U);
    EXPECT_EQ(result.restarted[0].gone, 1U);
}

TEST_F(RuleBook, WhatIsStillThereOrDiffersAfterARestartIsNamed)
{
    open({{10, 7}, {20, 5}, {30, 1}}, 1);
    switch_config reduced = config;
    (*reduced.acl_rules)[0].dropped = true;
    result.restarted = {{.name = "ACL_RULE"}};
    book->restart(reduced);
    hear(0, SUCCESS);
    hear(1, LOST);
    evaluate_restart(*book, &result);
    EXPECT_THAT(
        result.problems,
        ElementsAre("ACL_RULE|t|10@7: dropped: the rule is still there",
                    "ACL_RULE|t|20@5: kept: differs: its user heard that it has lost, and by the calculation it holds",
                    "ACL_RULE|t|30@1: kept: refused: no verdict"));
    EXPECT_EQ(result.restarted[0].unchanged, 0U);
    EXPECT_EQ(result.restarted[0].gone, 0U);
}
