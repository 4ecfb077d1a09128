// Rules as records: writing and removing one's own, reading and following the verdicts, and aging.
#include "ematch_fixture.hpp"

namespace
{

using namespace ematch_test;
using EmatchAdd = EmatchTest;
using EmatchSubscribe = EmatchTest;
using EmatchAging = EmatchTest;
using EmatchAgedDelete = EmatchTest;

constexpr char all_rules[] = "u_bridge.ematch_entry{index{}}";
constexpr char rules_of_app[] = "u_bridge.ematch_entry{index{t_user:\"app\"}}";

// The user that most tests have, on a handle of its own.
sw_ebridge_list_item *add_app(const char *name = "app")
{
    return add_user({.name = name, .handle = recording::other_handle()});
}

// ---- writing and removing a rule, which are alike but for the call

struct publishing {
    const char *name;
    int32_t (*call)(const UBridge__EmatchEntry *entry);
    const char *store_call;
};
constexpr publishing adding = {"Add", sw_ematch_entry_add, "qz_mom_hmset"};
constexpr publishing removing = {"Remove", sw_ematch_entry_del, "qz_mom_del"};

class EmatchPublish : public EmatchTest, public testing::WithParamInterface<publishing>
{
  protected:
    static int32_t publish(const rule &what) { return GetParam().call(&what.entry); }
    static std::string line(const char *level, const std::string &said)
    {
        const char *function = GetParam().call == sw_ematch_entry_add ? "sw_ematch_entry_add" : "sw_ematch_entry_del";
        return std::string(level) + " " + function + ": " + said;
    }
    static std::string call_with(const std::string &record)
    {
        return format("%s %u ", GetParam().store_call, ematch_db) + record;
    }
    // The record that the store was handed for it.
    static std::string published(const rule &what)
    {
        recording::reset();
        EXPECT_EQ(publish(what), 0);
        EXPECT_THAT(recording::calls(), SizeIs(1));
        return recording::calls().empty() ? "" : recording::calls()[0].record;
    }
};

INSTANTIATE_TEST_SUITE_P(All, EmatchPublish, testing::Values(adding, removing),
                         [](const auto &tested) { return tested.param.name; });

TEST_P(EmatchPublish, HandsTheStoreTheWholeRule)
{
    add_app();
    const full_rule whole;
    EXPECT_EQ(publish(whole), 0);
    ASSERT_THAT(recording::calls(), SizeIs(1));
    const recording::call &made = recording::calls()[0];
    EXPECT_EQ(made.function, GetParam().store_call);
    EXPECT_EQ(made.handle, recording::other_handle());
    EXPECT_EQ(made.db, ematch_db);
    EXPECT_EQ(made.record, whole.rendered());
    EXPECT_EQ(made.callback, nullptr);
    EXPECT_EQ(made.args, nullptr);
}

TEST_P(EmatchPublish, LogsTheRuleThenItsIndexBeforeTheCall)
{
    add_app();
    const full_rule whole;
    EXPECT_EQ(publish(whole), 0);
    const strings rest = {line("debug", format("%s udp_ematch_entry: 0.", GetParam().store_call)),
                          line("debug", index_text(whole.index)), call_with(whole.rendered())};
    EXPECT_EQ(trace(), joined(entry_lines(whole.entry), rest));
    EXPECT_EQ(index_text(whole.index), format("index evlan1: 0x10000064, evlan2: 0x100000c8, eport: 0x80000007, ipv4: "
                                              "0x%x, vnid: 5001, label: 77.",
                                              ipv4_word(10, 0, 0, 1)));
}

TEST_P(EmatchPublish, LogsNothingBelowTheDebugLevel)
{
    add_app();
    g_sw_vlan_file_zlog_level = 4;
    const full_rule whole;
    EXPECT_EQ(publish(whole), 0);
    EXPECT_THAT(trace(), ElementsAre(call_with(whole.rendered())));
}

TEST_P(EmatchPublish, FillsInTheAddressesThatAreMissing)
{
    add_app();
    const std::string filled = "u_bridge.ematch_entry{index{t_user:\"app\" mac{} ip{v4{}} mask{}}}";
    EXPECT_EQ(published(rule()), filled);
    EXPECT_EQ(published(rule().with_mac({}).with_mask({})), filled);
    EXPECT_EQ(published(rule().with_v4(0)), filled);
    for (const auto form : {P_LIBPUB__IP__IP__NOT_SET, P_LIBPUB__IP__IP_V4, P_LIBPUB__IP__IP_V6, P_LIBPUB__IP__IP_V4B})
        EXPECT_EQ(published(rule().with_hollow_ip(form)), filled);
    rule hollow;
    hollow.with_mac({}).with_mask({});
    hollow.index.mac->data = {6, nullptr};
    hollow.index.mask->data = {6, nullptr};
    EXPECT_EQ(published(hollow), filled);
}

TEST_P(EmatchPublish, FillsInEachAddressByItself)
{
    add_app();
    EXPECT_EQ(published(rule().with_mac(full_mac)),
              "u_bridge.ematch_entry{index{t_user:\"app\" mac{data:02005e1020ff} ip{v4{}} mask{}}}");
    EXPECT_EQ(published(rule().with_mask(full_mac)),
              "u_bridge.ematch_entry{index{t_user:\"app\" mac{} ip{v4{}} mask{data:02005e1020ff}}}");
    EXPECT_EQ(published(rule().with_v6({1, 2})),
              "u_bridge.ematch_entry{index{t_user:\"app\" mac{} ip{v6{data:0102}} mask{}}}");
    EXPECT_EQ(published(rule().with_v4b({1, 2})),
              "u_bridge.ematch_entry{index{t_user:\"app\" mac{} ip{v4b{data:0102}} mask{}}}");
}

TEST_P(EmatchPublish, LeavesTheCallersRecordAlone)
{
    add_app();
    rule bare, empty;
    empty.with_mac({}).with_mask({});
    for (const rule *of_caller : {&bare, &empty}) {
        const UBridge__EmatchIndex index = of_caller->index;
        const UBridge__EmatchEntry entry = of_caller->entry;
        const std::string rendered = of_caller->rendered();
        EXPECT_EQ(publish(*of_caller), 0);
        EXPECT_EQ(std::memcmp(&of_caller->index, &index, sizeof index), 0);
        EXPECT_EQ(std::memcmp(&of_caller->entry, &entry, sizeof entry), 0);
        EXPECT_EQ(of_caller->rendered(), rendered);
    }
}

TEST_P(EmatchPublish, TakesWhatIsBehindTheIndexFromNobodyElse)
{
    add_app();
    const full_rule whole;
    const std::string before = published(whole);
    spoil_memory();
    EXPECT_EQ(published(rule()), "u_bridge.ematch_entry{index{t_user:\"app\" mac{} ip{v4{}} mask{}}}");
    EXPECT_EQ(published(whole), before);
}

TEST_P(EmatchPublish, GoesToTheDatabaseOfTheUserThatTheIndexNames)
{
    add_app();
    sw_ebridge_list_item *other = add_user({.name = "other"});
    other->ematch_mom_db = 3;
    EXPECT_EQ(publish(full_rule("other")), 0);
    EXPECT_EQ(publish(full_rule("app")), 0);
    const auto calls = recording::calls();
    ASSERT_THAT(calls, SizeIs(2));
    EXPECT_EQ(calls[0].db, 3u);
    EXPECT_EQ(calls[0].handle, recording::handle());
    EXPECT_EQ(calls[1].db, ematch_db);
    EXPECT_EQ(calls[1].handle, recording::other_handle());
}

TEST_P(EmatchPublish, TouchesNoItem)
{
    add_app();
    EXPECT_EQ(publish(full_rule()), 0);
    EXPECT_EQ(sw_ematch_item_hash_size(0), 0u);
    const sw_ematch_item *stored = insert(full_rule());
    const std::string before = bytes_of(*stored);
    EXPECT_EQ(publish(full_rule()), 0);
    EXPECT_EQ(held("app", full_rule()), stored);
    EXPECT_EQ(bytes_of(*stored), before);
}

TEST_P(EmatchPublish, PassesTheStoresCodeOn)
{
    add_app();
    recording::set_result(GetParam().store_call, -104);
    EXPECT_EQ(publish(full_rule()), -104);
    EXPECT_EQ(trace().back(), line("error", format("Assert:%s failed, rv: -104\n", GetParam().store_call)));
    EXPECT_THAT(errors(), SizeIs(1));
}

TEST_P(EmatchPublish, RefusesAnUnknownUserAndWritesNothing)
{
    add_app();
    EXPECT_EQ(publish(full_rule("nobody")), -2);
    EXPECT_EQ(trace().back(), line("error", no_user("nobody")));
    EXPECT_THAT(errors(), SizeIs(1));
    EXPECT_EQ(publish(full_rule(nullptr)), -2);
    EXPECT_EQ(trace().back(), line("error", no_user("NULL")));
    EXPECT_EQ(publish(full_rule("")), -2);
    EXPECT_EQ(trace().back(), line("error", no_user("")));
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TEST_P(EmatchPublish, RefusesNull)
{
    add_app();
    UBridge__EmatchEntry keyless = U_BRIDGE__EMATCH_ENTRY__INIT;
    EXPECT_EQ(GetParam().call(nullptr), -2);
    EXPECT_EQ(GetParam().call(&keyless), -2);
    EXPECT_THAT(trace(), ElementsAre(line("error", "Assert:Bad args EMATCH.\n"),
                                     line("error", "Assert:Bad args EMATCH index.\n")));
}

TEST_P(EmatchPublish, NeedsNoMemory)
{
    add_app();
    recording::fail_allocation(1, true);
    EXPECT_EQ(publish(rule()), 0);
    EXPECT_EQ(recording::allocations(), 0u);
}

// The result is for whoever decides; a second write of the rule leaves it as it is.
TEST_F(EmatchAdd, WritesEveryFieldButTheResult)
{
    add_app();
    EXPECT_EQ(sw_ematch_entry_add(entry_of(full_rule())), 0);
    ASSERT_THAT(recording::calls(), SizeIs(1));
    EXPECT_THAT(recording::calls()[0].fields, ElementsAre(6u, 11u, 12u, 14u, 15u, 16u, 17u, 18u));
    EXPECT_EQ(recording::calls()[0].count, 8u);
}

// ---- reading and following the verdicts, which are alike but for the call and its words

struct asking {
    const char *name;
    int32_t (*with_db)(const char *user_name, int32_t db, sw_ebridge_mom_func callback, void *args);
    int32_t (*of_own_db)(const char *user_name, sw_ebridge_mom_func callback, void *args);
    const char *function;
    const char *store_call;
    sw_ebridge_mom_func sw_ebridge_list_item::*callback;
    void *sw_ebridge_list_item::*args;
    sw_ebridge_mom_func sw_ebridge_list_item::*other_callback;
    bool names_db;
};
constexpr asking scanning = {"Scan",
                             sw_ematch_scan_with_db,
                             sw_ematch_scan,
                             "sw_ematch_scan",
                             "qz_mom_scan",
                             &sw_ebridge_list_item::scan_callback,
                             &sw_ebridge_list_item::scan_args,
                             &sw_ebridge_list_item::subscribe_callback,
                             true};
constexpr asking subscribing = {"Subscribe",
                                sw_ematch_subscribe_with_db,
                                sw_ematch_subscribe,
                                "sw_ematch_subscribe",
                                "qz_mom_subscribe_field",
                                &sw_ebridge_list_item::subscribe_callback,
                                &sw_ebridge_list_item::subscribe_args,
                                &sw_ebridge_list_item::scan_callback,
                                false};

class EmatchAsk : public EmatchTest, public testing::WithParamInterface<asking>
{
  protected:
    // What is said when user_func and its argument are given.
    static std::string words(uint32_t db)
    {
        return (GetParam().names_db ? format("scan ematch_entry, user: app, db: %u, ", db) : "user: app, ") +
               format("func_callback: %p, args: %p.", address(user_func), static_cast<void *>(&user_argument));
    }
    static std::string call_on(uint32_t db) { return format("%s %u ", GetParam().store_call, db) + all_rules; }
    static std::string failure() { return format("Assert:%s failed, rv: -105\n", GetParam().store_call); }
    static void expect_kept(const sw_ebridge_list_item &app, sw_ebridge_mom_func callback, void *args)
    {
        EXPECT_EQ(app.*GetParam().callback, callback);
        EXPECT_EQ(app.*GetParam().args, args);
        EXPECT_EQ(app.*GetParam().other_callback, nullptr);
    }
};

INSTANTIATE_TEST_SUITE_P(All, EmatchAsk, testing::Values(scanning, subscribing),
                         [](const auto &tested) { return tested.param.name; });

TEST_P(EmatchAsk, AsksForAllRulesAndKeepsTheCallback)
{
    const sw_ebridge_list_item *app = add_app();
    EXPECT_EQ(GetParam().with_db("app", 5, user_func, &user_argument), 0);
    expect_kept(*app, user_func, &user_argument);
    EXPECT_THAT(trace(), ElementsAre(format("debug %s_with_db: ", GetParam().function) + words(5), call_on(5)));
    const recording::call &made = recording::calls().at(0);
    EXPECT_EQ(made.handle, recording::other_handle());
    EXPECT_EQ(made.flags, 0u);
    EXPECT_EQ(made.callback, address(sw_ematch_mom_session_reply));
    EXPECT_EQ(made.args, nullptr);
}

TEST_P(EmatchAsk, AsksTheUsersOwnDatabase)
{
    sw_ebridge_list_item *app = add_app();
    app->ematch_mom_db = 9;
    EXPECT_EQ(GetParam().of_own_db("app", user_func, &user_argument), 0);
    expect_kept(*app, user_func, &user_argument);
    EXPECT_THAT(trace(), ElementsAre(format("debug %s: ", GetParam().function) + words(9), call_on(9)));
}

TEST_P(EmatchAsk, SaysNothingBelowTheDebugLevel)
{
    add_app();
    g_sw_vlan_file_zlog_level = 4;
    EXPECT_EQ(GetParam().of_own_db("app", user_func, &user_argument), 0);
    EXPECT_THAT(trace(), ElementsAre(call_on(ematch_db)));
}

TEST_P(EmatchAsk, ReplacesTheCallbackOfTheTimeBefore)
{
    const sw_ebridge_list_item *app = add_app();
    GetParam().of_own_db("app", user_func, &user_argument);
    EXPECT_EQ(GetParam().of_own_db("app", nullptr, nullptr), 0);
    expect_kept(*app, nullptr, nullptr);
}

TEST_P(EmatchAsk, PassesTheStoresCodeOnAndKeepsTheCallbackAllTheSame)
{
    const sw_ebridge_list_item *app = add_app();
    recording::set_result(GetParam().store_call, -105);
    EXPECT_EQ(GetParam().with_db("app", 5, user_func, &user_argument), -105);
    EXPECT_EQ(trace().back(), format("error %s_with_db: ", GetParam().function) + failure());
    expect_kept(*app, user_func, &user_argument);
    EXPECT_EQ(GetParam().of_own_db("app", nullptr, nullptr), -105);
    EXPECT_EQ(trace().back(), format("error %s: ", GetParam().function) + failure());
    expect_kept(*app, nullptr, nullptr);
    EXPECT_EQ(errors(), strings(2, failure()));
}

TEST_P(EmatchAsk, RefusesUnknownUsers)
{
    add_app();
    EXPECT_EQ(GetParam().with_db("nobody", 5, user_func, nullptr), -2);
    EXPECT_EQ(GetParam().of_own_db("nobody", user_func, nullptr), -2);
    EXPECT_EQ(errors(), strings(2, no_user("nobody")));
    EXPECT_EQ(GetParam().with_db(nullptr, 5, user_func, nullptr), -2);
    EXPECT_EQ(errors().back(), no_user("NULL"));
    EXPECT_EQ(GetParam().of_own_db(nullptr, user_func, nullptr), -2);
    EXPECT_EQ(errors().back(), no_user("NULL"));
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TEST_P(EmatchAsk, NeedsNoMemory)
{
    add_app();
    recording::fail_allocation(1, true);
    EXPECT_EQ(GetParam().of_own_db("app", user_func, &user_argument), 0);
    EXPECT_EQ(recording::allocations(), 0u);
}

TEST_F(EmatchSubscribe, FollowsTheResultAlone)
{
    add_app();
    EXPECT_EQ(sw_ematch_subscribe("app", nullptr, nullptr), 0);
    EXPECT_THAT(recording::calls().at(0).fields, ElementsAre(30u));
    EXPECT_EQ(recording::calls().at(0).count, 1u);
}

// Applications subscribe themselves.
TEST_F(EmatchSubscribe, IsNotDoneByInitialisation)
{
    ebridge_args args{};
    args.user_name = "app";
    args.handle = recording::handle();
    args.mom_db = SW_EBRIDGE_APP_DB;
    args.ematch_mom_db = ematch_db;
    args.auto_subscribe = args.auto_scan = 1;
    EXPECT_EQ(sw_ebridge_init(&args), 0);
    for (const recording::call &made : recording::calls())
        EXPECT_NE(made.db, ematch_db) << made.function;
}

// ---- aging

constexpr qz_mom_timeval two_seconds = {.sec = 2, .usec = 250'000};

TEST_F(EmatchAging, MarksEveryRuleOfTheUser)
{
    add_app();
    EXPECT_EQ(sw_ematch_aging_flag_set("app", &two_seconds, user_func, &user_argument), 0);
    EXPECT_THAT(trace(),
                ElementsAre(format("debug sw_ematch_aging_flag_set: user_name: app, aging_timer: %p, func_callback: "
                                   "%p, args: %p\n",
                                   static_cast<const void *>(&two_seconds), address(user_func),
                                   static_cast<void *>(&user_argument)),
                            format("qz_mom_pexpire %u ", ematch_db) + rules_of_app));
    const recording::call &made = recording::calls().at(0);
    EXPECT_EQ(made.handle, recording::other_handle());
    EXPECT_EQ(made.mode, 1);
    EXPECT_EQ(made.delay.sec, 2);
    EXPECT_EQ(made.delay.usec, 250'000);
    EXPECT_EQ(made.callback, address(user_func));
    EXPECT_EQ(made.args, &user_argument);
}

TEST_F(EmatchAging, WithoutTimerLastsHalfAnHour)
{
    add_app();
    EXPECT_EQ(sw_ematch_aging_flag_set("app", nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(trace().front(),
              "debug sw_ematch_aging_flag_set: user_name: app, aging_timer: (nil), func_callback: "
              "(nil), args: (nil)\n");
    const recording::call &made = recording::calls().at(0);
    EXPECT_EQ(made.delay.sec, 1800);
    EXPECT_EQ(made.delay.usec, 0);
    EXPECT_EQ(made.callback, nullptr);
}

TEST_F(EmatchAging, GoesByTheRegisteredName)
{
    add_app(name_of_31);
    EXPECT_EQ(sw_ematch_aging_flag_set(name_of_40, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(sw_ematch_aged_data_delete(name_of_40, nullptr, nullptr), 0);
    for (const recording::call &made : recording::calls())
        EXPECT_EQ(made.record, format("u_bridge.ematch_entry{index{t_user:\"%s\"}}", name_of_31));
}

TEST_F(EmatchAging, TouchesNoItem)
{
    add_app();
    const sw_ematch_item *stored = insert(full_rule());
    EXPECT_EQ(sw_ematch_aging_flag_set("app", nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(sw_ematch_aged_data_delete("app", nullptr, nullptr), 0);
    EXPECT_EQ(held("app", full_rule()), stored);
}

TEST_F(EmatchAging, PassesTheStoresCodeOn)
{
    add_app();
    recording::set_result("qz_mom_pexpire", -105);
    EXPECT_EQ(sw_ematch_aging_flag_set("app", nullptr, nullptr, nullptr), -105);
    EXPECT_EQ(trace().back(), format("error sw_ematch_aging_flag_set: Assert:qz_mom_pexpire failed, user: app, "
                                     "mom_handle: %p, ematch_mom_db: 14, rv: -105\n",
                                     static_cast<void *>(recording::other_handle())));
    EXPECT_THAT(errors(), SizeIs(1));
}

TEST_F(EmatchAging, RefusesUnknownUsers)
{
    add_app();
    EXPECT_EQ(sw_ematch_aging_flag_set("nobody", nullptr, user_func, nullptr), -2);
    EXPECT_THAT(errors(), ElementsAre(no_user("nobody")));
    EXPECT_EQ(sw_ematch_aging_flag_set(nullptr, nullptr, user_func, nullptr), -2);
    EXPECT_EQ(errors().back(), no_user("NULL"));
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TEST_F(EmatchAgedDelete, DeletesTheUsersRulesThatAreStillMarked)
{
    add_app();
    EXPECT_EQ(sw_ematch_aged_data_delete("app", user_func, &user_argument), 0);
    EXPECT_THAT(trace(), ElementsAre("debug sw_ematch_aged_data_delete: deleting aged data\n",
                                     format("qz_mom_del_expire %u ", ematch_db) + rules_of_app));
    const recording::call &made = recording::calls().at(0);
    EXPECT_EQ(made.handle, recording::other_handle());
    EXPECT_EQ(made.mode, 1);
    EXPECT_EQ(made.callback, address(user_func));
    EXPECT_EQ(made.args, &user_argument);
}

TEST_F(EmatchAgedDelete, PassesTheStoresCodeOn)
{
    add_app();
    recording::set_result("qz_mom_del_expire", -105);
    EXPECT_EQ(sw_ematch_aged_data_delete("app", nullptr, nullptr), -105);
    EXPECT_EQ(trace().back(),
              "error sw_ematch_aged_data_delete: Assert:qz_mom_del_expire failed, user: app, rv: -105\n");
    EXPECT_THAT(errors(), SizeIs(1));
}

TEST_F(EmatchAgedDelete, RefusesUnknownUsers)
{
    add_app();
    EXPECT_EQ(sw_ematch_aged_data_delete("nobody", user_func, nullptr), -2);
    EXPECT_THAT(errors(), ElementsAre(no_user("nobody")));
    EXPECT_EQ(sw_ematch_aged_data_delete(nullptr, user_func, nullptr), -2);
    EXPECT_EQ(errors().back(), no_user("NULL"));
    EXPECT_THAT(recording::calls(), IsEmpty());
}

}  // namespace
