// Match rules of several users, from the library's calls through store and arbiter to each user's callback: who wins, and
// who does when a winner goes. Embedded store, driven clock.
#include <gmock/gmock.h>

#include <algorithm>
#include <random>

#include "rule_results.hpp"
#include "world.hpp"

using namespace road;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace
{

constexpr int32_t HOLDS = U_BRIDGE__MATCH_RESULT__SUCCESS, LOST = U_BRIDGE__MATCH_RESULT__FAIL_PRIORITY;
constexpr uint32_t OTHER_DB = 5;

// Rules of the same VLAN have the same key.
struct rule {
    std::string user;
    int32_t vlan = 0;
    int32_t priority = 0;
    auto operator<=>(const rule &) const = default;
};

// The record of a rule. It points into the rule that it is made from.
struct rule_message {
    UBridge__EmatchIndex index = U_BRIDGE__EMATCH_INDEX__INIT;
    UBridge__EmatchEntry entry = U_BRIDGE__EMATCH_ENTRY__INIT;

    rule_message() { entry.index = &index; }
    explicit rule_message(const rule &of) : rule_message()
    {
        index.t_user = const_cast<char *>(of.user.c_str());
        index.match_type = U_BRIDGE__MATCH_TYPE__OVID;
        index.match_flag = U_BRIDGE__MATCH_FLAG__EMATCH_INGRESS;
        index.evlan1 = of.vlan;
        index.match_priority = of.priority;
        entry.action_type = U_BRIDGE__EMATCH_ACTION_TYPE__REPLACE_OVID;
    }
    rule_message(const rule_message &) = delete;
    rule_message &operator=(const rule_message &) = delete;
};

rule rule_of(const UBridge__EmatchEntry &entry)
{
    return {entry.index->t_user, entry.index->evlan1, entry.index->match_priority};
}

using verdicts = std::map<rule, int32_t>;

int32_t collect(qz_mom_handle *, const qz_mom_notification *msg, void *to)
{
    if (msg->cmd != QZ_MOM_CMD_HMSET)
        return 0;
    const auto *entry =
        reinterpret_cast<const UBridge__EmatchEntry *>(static_cast<const qz_mom_hash_value *>(msg->value)->record);
    static_cast<verdicts *>(to)->emplace(rule_of(*entry), static_cast<int32_t>(entry->result));
    return 0;
}

int32_t note_fields(qz_mom_handle *, const qz_mom_notification *msg, void *to)
{
    if (msg->cmd == QZ_MOM_CMD_HMSET || msg->cmd == QZ_MOM_CMD_HSET)
        static_cast<std::vector<std::string> *>(to)->push_back(std::string(msg->key) + ' ' + msg->field);
    return 0;
}

// What users hear about their rules: "USER VLAN/PRIORITY holds" and the like.
int32_t hear(UBridge__EmatchEntry *entry)
{
    const rule of = rule_of(*entry);
    events.push_back(of.user + ' ' + std::to_string(of.vlan) + '/' + std::to_string(of.priority) +
                     (entry->result == HOLDS ? " holds" : " lost"));
    return 0;
}

class RuleRoad : public world
{
  protected:
    // A user of the library, which hears of its rules as soon as it is there.
    void join(const char *name, uint32_t db = APP_DB)
    {
        ebridge_args args = user(0, name);
        args.ematch_mom_db = db;
        args.ematch_reply = hear;
        init(args);
        ASSERT_EQ(sw_ematch_subscribe(name, nullptr, nullptr), 0);
        settle();
    }
    void add(const rule &which)
    {
        const rule_message message(which);
        ASSERT_EQ(sw_ematch_entry_add(&message.entry), 0);
    }
    void remove(const rule &which)
    {
        const rule_message message(which);
        ASSERT_EQ(sw_ematch_entry_del(&message.entry), 0);
    }
    // As another process would, whose users this one does not know.
    int32_t put(const rule &which, uint32_t db = APP_DB)
    {
        const rule_message message(which);
        const uint32_t fields[] = {6, 11, 12, 14, 15, 16, 17, 18};
        return qz_mom_hmset(users, db, &message.entry.base, fields, std::size(fields), nullptr, nullptr);
    }
    int32_t take(const rule &which, uint32_t db = APP_DB)
    {
        const rule_message message(which);
        return qz_mom_del(users, db, &message.entry.base, nullptr, nullptr);
    }
    std::vector<std::string> heard()
    {
        settle();
        return std::exchange(events, {});
    }
    // What the records say.
    verdicts results(uint32_t db = APP_DB)
    {
        verdicts found;
        const rule_message any;
        settle();
        EXPECT_EQ(qz_mom_scan(users, db, &any.entry.base, 0, collect, &found), 0);
        settle();
        return found;
    }
    // What they should say. Of a user's rules that do not count they say anything.
    static verdicts expected(const verdicts &found)
    {
        const std::vector<std::string> order = support::users_in_order();
        const auto place = [&](const std::string &user) { return std::ranges::find(order, user) - order.begin(); };
        std::map<int32_t, std::map<ptrdiff_t, rule>> keys;
        for (const auto &[which, result] : found)  // in the order of their priorities
            keys[which.vlan].insert_or_assign(place(which.user), which);
        verdicts all = found;
        for (const auto &[vlan, rivals] : keys) {
            std::vector<int32_t> priorities;
            for (const auto &[at, which] : rivals)
                priorities.push_back(which.priority);
            const std::vector<int32_t> results = support::results_of(priorities);
            auto next = results.begin();
            for (const auto &[at, which] : rivals)
                all[which] = *next++;
        }
        return all;
    }
    void expect_all_decided()
    {
        const verdicts found = results();
        EXPECT_EQ(found, expected(found));
        EXPECT_EQ(stat().rules, found.size());
        EXPECT_EQ(stat().waiting_keys + stat().waiting_results, 0U);
    }
    // Notes which fields of which rules are written.
    void spy()
    {
        const rule_message any;
        ASSERT_EQ(qz_mom_subscribe(users, APP_DB, &any.entry.base, 0, note_fields, &written), 0);
        settle();
    }
    static void age(const char *name, int32_t seconds)
    {
        const qz_mom_timeval delay{.sec = seconds, .usec = 0};
        ASSERT_EQ(sw_ematch_aging_flag_set(name, &delay, nullptr, nullptr), 0);
    }
};

}  // namespace

// ---- two users ------------------------------------------------------------------------------------------------------

TEST_F(RuleRoad, EachUserHearsWhetherItsRuleHolds)
{
    start_service();
    join("low");
    join("high");
    add({"low", 10, 2});
    EXPECT_THAT(heard(), ElementsAre("low 10/2 holds"));
    add({"high", 10, 5});
    EXPECT_THAT(heard(), UnorderedElementsAre("low 10/2 lost", "high 10/5 holds"));
    EXPECT_EQ(results(), (verdicts{{{"low", 10, 2}, LOST}, {{"high", 10, 5}, HOLDS}}));
}

TEST_F(RuleRoad, ARemovedRuleLetsTheLoserWinWithoutAnyoneAsking)
{
    start_service();
    join("low");
    join("high");
    add({"low", 10, 2});
    add({"high", 10, 5});
    heard();
    remove({"high", 10, 5});
    EXPECT_THAT(heard(), ElementsAre("low 10/2 holds"));
    EXPECT_EQ(results(), (verdicts{{{"low", 10, 2}, HOLDS}}));
}

TEST_F(RuleRoad, RulesThatAgeOutLetTheLosersWin)
{
    start_service();
    join("low");
    join("high");
    for (const int32_t vlan : {10, 11}) {
        add({"low", vlan, 2});
        add({"high", vlan, 5});
    }
    heard();
    age("high", 1800);
    advance(1000 * SECOND);
    EXPECT_THAT(heard(), IsEmpty());
    add({"high", 11, 5});
    EXPECT_THAT(heard(), UnorderedElementsAre("low 11/2 lost", "high 11/5 holds"));
    advance(801 * SECOND);
    EXPECT_THAT(heard(), ElementsAre("low 10/2 holds"));
    expect_all_decided();
}

TEST_F(RuleRoad, WhatARestartedUserDoesNotAddAgainGoesAndLosersWin)
{
    start_service();
    join("low");
    join("high");
    for (const int32_t vlan : {10, 11, 12}) {
        add({"low", vlan, 2});
        add({"high", vlan, 5});
    }
    heard();
    age("high", 1800);
    add({"high", 11, 5});
    heard();
    ASSERT_EQ(sw_ematch_aged_data_delete("high", nullptr, nullptr), 0);
    EXPECT_THAT(heard(), UnorderedElementsAre("low 10/2 holds", "low 12/2 holds"));
    advance(2000 * SECOND);
    EXPECT_THAT(heard(), IsEmpty());
    EXPECT_EQ(results().size(), 4U);
}

// A verdict is no sign of life of the rule's owner.
TEST_F(RuleRoad, AVerdictLeavesAnExpiryMarkAlone)
{
    start_service();
    join("low");
    join("high");
    add({"high", 10, 5});
    settle();
    age("high", 100);
    add({"low", 10, 2});
    EXPECT_THAT(heard(), Contains("high 10/5 holds"));
    advance(101 * SECOND);
    EXPECT_THAT(heard(), ElementsAre("low 10/2 holds"));
}

TEST_F(RuleRoad, AVerdictBringsNoDeletedRuleBack)
{
    start_service();
    join("low");
    add({"low", 10, 2});
    remove({"low", 10, 2});
    EXPECT_THAT(results(), IsEmpty());
    EXPECT_EQ(stat().rules, 0U);
}

// Nobody but a user itself marks its rules. So whoever finds that it is dead registers its name.
TEST_F(RuleRoad, ADeadUsersRulesAgeOnceSomebodyMarksThemUnderItsName)
{
    start_service();
    join("low");
    for (const int32_t vlan : {10, 11}) {
        ASSERT_EQ(put({"dead", vlan, 5}), 0);
        add({"low", vlan, 2});
    }
    advance(10000 * SECOND);
    EXPECT_THAT(heard(), UnorderedElementsAre("low 10/2 lost", "low 11/2 lost"));
    join("dead");
    age("dead", 30);
    advance(31 * SECOND);
    EXPECT_THAT(heard(), UnorderedElementsAre("low 10/2 holds", "low 11/2 holds"));
    EXPECT_EQ(results(), (verdicts{{{"low", 10, 2}, HOLDS}, {{"low", 11, 2}, HOLDS}}));
}

TEST_F(RuleRoad, RulesOfAllServedDatabasesAreRivals)
{
    start_service({APP_DB, OTHER_DB});
    join("low");
    join("high", OTHER_DB);
    add({"low", 10, 2});
    add({"high", 10, 5});
    EXPECT_THAT(heard(), Contains("low 10/2 lost"));
    EXPECT_EQ(results(OTHER_DB), (verdicts{{{"high", 10, 5}, HOLDS}}));
    remove({"high", 10, 5});
    EXPECT_THAT(heard(), ElementsAre("low 10/2 holds"));
}

// Such rules have a text of the address in their key, and the record that is answered must be the same one.
TEST_F(RuleRoad, RulesWithAddressesAreDecidedToo)
{
    start_service();
    join("low");
    join("high");
    uint8_t mac[] = {2, 0, 0, 0, 0, 1}, v6[16] = {0x20, 1, 0xd, 0xb8, 1};
    for (const bool is_v6 : {false, true}) {
        for (const auto &[user, priority] : {std::pair("low", 2), std::pair("high", 5)}) {
            const rule of{user, 10, priority};
            rule_message message(of);
            PLibpub__Mac source = P_LIBPUB__MAC__INIT;
            source.data = {sizeof mac, mac};
            PLibpub__Ipv4 four = P_LIBPUB__IPV4__INIT;
            four.data = 0x0100007f;
            PLibpub__Ipv6 six = P_LIBPUB__IPV6__INIT;
            six.data = {sizeof v6, v6};
            PLibpub__Ip ip = P_LIBPUB__IP__INIT;
            ip.ip_case = is_v6 ? P_LIBPUB__IP__IP_V6 : P_LIBPUB__IP__IP_V4;
            if (is_v6)
                ip.v6 = &six;
            else
                ip.v4 = &four;
            message.index.mac = &source;
            message.index.mask = &source;
            message.index.ip = &ip;
            ASSERT_EQ(sw_ematch_entry_add(&message.entry), 0);
        }
        EXPECT_THAT(heard(), testing::IsSupersetOf({"low 10/2 lost", "high 10/5 holds"}));
    }
    EXPECT_EQ(stat().rules, 4U);
    EXPECT_EQ(stat().rule_keys, 2U);
    EXPECT_EQ(stat().contested_keys, 2U);
}

// ---- starts and losses ----------------------------------------------------------------------------------------------

TEST_F(RuleRoad, WhatChangedWhileNobodyDecidedIsDecidedAtTheStart)
{
    start_service();
    for (const int32_t vlan : {10, 11, 12, 13}) {
        ASSERT_EQ(put({"low", vlan, 2}), 0);
        ASSERT_EQ(put({"high", vlan, 5}), 0);
    }
    settle();
    stop_service();
    ASSERT_EQ(take({"high", 10, 5}), 0);
    ASSERT_EQ(put({"top", 11, 7}), 0);
    settle();
    spy();
    start_service();
    expect_all_decided();
    EXPECT_THAT(written, testing::Each(testing::EndsWith(" result")));
    EXPECT_THAT(written, testing::Not(Contains(HasSubstr(":12:"))));
    EXPECT_THAT(service_log, Contains("8 rules with 4 keys are decided"));
}

TEST_F(RuleRoad, ANewServiceThatFindsEverythingDecidedWritesNothing)
{
    start_service();
    for (int32_t vlan = 1; vlan <= 50; ++vlan)
        for (const auto &[user, priority] : {std::pair("a", 3), std::pair("b", 5), std::pair("c", 3)})
            ASSERT_EQ(put({user, vlan, priority}), 0);
    settle();
    kill_service();
    spy();
    start_service();
    EXPECT_THAT(written, IsEmpty());
    EXPECT_EQ(stat().calculations, 50U);
    expect_all_decided();
}

TEST_F(RuleRoad, StoppingInTheMiddleLeavesNothingUndecidedToTheNext)
{
    for (int32_t vlan = 1; vlan <= 20; ++vlan)
        for (const auto &[user, priority] : {std::pair("a", 3), std::pair("b", 5)})
            ASSERT_EQ(put({user, vlan, priority}), 0);
    for (int32_t calls = 0; calls < 60; ++calls) {
        ASSERT_EQ(ebridged_start(serving, nullptr, &service), 0);
        qz_thread_run_pending(master, calls);
        stop_service();
        EXPECT_EQ(sw_ematch_item_hash_size(0), 0U);
    }
    start_service();
    expect_all_decided();
}

TEST_F(RuleRoad, ALostStoreDelaysVerdictsAndLosesNone)
{
    start_service();
    for (int32_t vlan = 1; vlan <= 200; ++vlan)
        for (const auto &[user, priority] : {std::pair("a", 3), std::pair("b", 5)})
            ASSERT_EQ(put({user, vlan, priority}), 0);
    for (int loss = 0; loss < 5; ++loss) {
        qz_thread_run_pending(master, 3);
        ASSERT_EQ(qz_mom_embedded_lose(STORE), 0);
        advance(5 * SECOND);
        ASSERT_EQ(qz_mom_embedded_restore(STORE), 0);
    }
    advance(SECOND);
    EXPECT_EQ(results().size(), 400U);
    expect_all_decided();
}

TEST_F(RuleRoad, AFullQueueDelaysVerdictsAndLosesNone)
{
    start_service();
    qz_mom_handle *slow = nullptr;
    ASSERT_EQ(qz_mom_client_open("mem:road", master, &slow), 0);
    const rule_message any;
    ASSERT_EQ(qz_mom_subscribe(slow, APP_DB, &any.entry.base, 0, note_fields, &written), 0);
    settle();
    ASSERT_EQ(qz_mom_set_queue_limits(slow, 2, 4, 8), 0);
    for (int32_t vlan = 1; vlan <= 200; ++vlan) {
        for (const auto &[user, priority] : {std::pair("a", 3), std::pair("b", 5)}) {
            while (put({user, vlan, priority}) != 0)
                ASSERT_GT(qz_thread_run_pending(master, 1), 0);
        }
    }
    advance(60 * SECOND);
    EXPECT_EQ(results().size(), 400U);
    expect_all_decided();
    qz_mom_client_close(slow);
}

TEST_F(RuleRoad, ForeignBytesAreSkipped)
{
    ASSERT_EQ(put({"a", 10, 5}), 0);
    settle();
    const std::string key = "u_bridge.ematch_entry:b:2:1:3:10:0:0:0:0:0:0::0:0::0:";
    ASSERT_EQ(qz_mom_embedded_put_raw(STORE, APP_DB, key.c_str(), "\xff\xff\xff", 3, 1), 0);
    ASSERT_EQ(qz_mom_embedded_put_raw(STORE, APP_DB, "u_bridge.ematch_entry:c", "x", 1, 1), 0);
    start_service();
    EXPECT_EQ(stat().deciding, 1U);
    EXPECT_EQ(stat().rules, 1U);
}

// Rules of users that this process does not know until then, in bursts: what waits is never more than the keys.
TEST_F(RuleRoad, ABurstWaitsInTheKeysOnly)
{
    start_service();
    constexpr int32_t KEYS = 100;
    for (int32_t burst = 0; burst < 50; ++burst) {
        for (int32_t vlan = 1; vlan <= KEYS; ++vlan)
            ASSERT_EQ(put({"user" + std::to_string(burst % 8), vlan, burst % 8}), 0);
        qz_thread_run_pending(master, 1);
        EXPECT_LE(stat().waiting_keys, static_cast<uint32_t>(KEYS));
    }
    settle();
    EXPECT_EQ(stat().rules, 8U * KEYS);
    EXPECT_EQ(stat().rule_keys, static_cast<uint32_t>(KEYS));
    EXPECT_EQ(stat().contested_keys, static_cast<uint32_t>(KEYS));
    expect_all_decided();
}

// ---- whatever happens -----------------------------------------------------------------------------------------------

class RandomRuleRoad : public RuleRoad, public testing::WithParamInterface<uint32_t>
{
  protected:
    void act(std::mt19937 *random)
    {
        const auto below = [random](uint32_t n) { return static_cast<int32_t>((*random)() % n); };
        const rule which{"user" + std::to_string(below(6)), 1 + below(15), below(8)};
        const int32_t what = below(40);
        if (what < 12)
            take(which);
        else if (what < 14)
            expire(which, below(20));
        else if (what < 36)
            put(which);
        else
            act_on_service(what, below(30));
        qz_thread_run_pending(master, 1 + below(6));
    }
    void expire(const rule &which, int32_t seconds)
    {
        rule_message all_of_the_user;
        all_of_the_user.index.t_user = const_cast<char *>(which.user.c_str());
        const qz_mom_timeval delay{.sec = seconds, .usec = 0};
        qz_mom_pexpire(users, APP_DB, &all_of_the_user.entry.base, QZ_MOM_EXPIRE_PATTERN, &delay, nullptr, nullptr);
    }
    void act_on_service(int32_t what, int32_t how_long)
    {
        switch (what) {
            case 36:
                kill_service();
                return begin_service();
            case 37:
                stop_service();
                qz_thread_run_pending(master, 1 + how_long);
                return begin_service();
            case 38:
                qz_mom_embedded_lose(STORE);
                qz_thread_run_pending(master, 1 + how_long);
                qz_mom_embedded_restore(STORE);
                return;
            default:
                advance(how_long * SECOND);
        }
    }
    // Changes go on while it reads the tables.
    void begin_service()
    {
        if (!serving) {
            ASSERT_EQ(qz_mom_client_open("mem:road", master, &serving), 0);
        }
        ASSERT_EQ(ebridged_start(serving, nullptr, &service), 0);
    }
};

INSTANTIATE_TEST_SUITE_P(Seeds, RandomRuleRoad, testing::Range(1U, 41U));

TEST_P(RandomRuleRoad, EndsWithEveryVerdictAsItShouldBe)
{
    std::mt19937 random(GetParam());
    ASSERT_EQ(qz_mom_embedded_seed(STORE, GetParam()), 0);
    begin_service();
    for (int step = 0; step < 600; ++step) {
        act(&random);
        ASSERT_FALSE(HasFatalFailure()) << "step " << step;
    }
    advance(100 * SECOND);
    EXPECT_EQ(stat().deciding, 1U);
    EXPECT_GT(results().size(), 0U);
    expect_all_decided();
}
