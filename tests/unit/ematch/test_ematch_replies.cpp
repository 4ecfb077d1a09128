// What the store tells of rules: confirmations and ends of scans to those who asked, verdicts to their owners.
#include "ematch_fixture.hpp"

namespace
{

using namespace ematch_test;
using EmatchNotice = EmatchTest;
using EmatchConfirmation = EmatchTest;
using EmatchScanEnd = EmatchTest;
using EmatchVerdict = EmatchTest;
using EmatchReply = EmatchTest;

// The notification of a rule that was written, found by a scan, or is gone.
struct rule_notice : session_notice {
    rule_notice(int32_t command, rule &of) : session_notice(command, of.entry) { db = ematch_db; }
};

int32_t deliver_notice(const qz_mom_notification &msg)
{
    return sw_ematch_mom_session_reply(recording::other_handle(), &msg, &user_argument);
}

std::string arrival_of(const qz_mom_notification &msg)
{
    return callback_line("debug", format("db: 0x%x, key: the key, field: the field, cmd: %d, args: %p\n", msg.db,
                                         msg.cmd, static_cast<void *>(&user_argument)));
}

std::string hears(const char *name, const rule &what) { return std::string(name) + " hears " + what.rendered(); }

// What a user's verdict is told with.
strings reply_lines(const rule &what)
{
    return joined(entry_lines(what.entry), {"debug sw_ematch_session_reply: reply ematch: 0.",
                                            "debug sw_ematch_session_reply: " + index_text(what.index)});
}

// ---- notifications that are none

TEST_F(EmatchNotice, RefusesNull)
{
    add_user({.name = "app"});
    EXPECT_EQ(sw_ematch_mom_session_reply(recording::handle(), nullptr, nullptr), -2);
    EXPECT_THAT(trace(), ElementsAre(refusal("Assert:MOM msg is NULL.\n")));
}

TEST_F(EmatchNotice, RefusesWhatTheStoreCallsAnErrorWhateverElseItSays)
{
    sw_ebridge_list_item *app = add_user({.name = "app"});
    app->subscribe_callback = app->scan_callback = user_func;
    full_rule verdict;
    rule_notice failed(QZ_MOM_CMD_HSET, verdict);
    failed.error = -105;
    notice confirmation(QZ_MOM_CMD_SUBSCRIBED);
    confirmation.error = 7;
    confirmation.end = QZ_MOM_END_SCAN;
    EXPECT_EQ(deliver_notice(failed), -2);
    EXPECT_EQ(deliver_notice(confirmation), -2);
    EXPECT_THAT(trace(), ElementsAre(refusal("Assert:MOM error is -105.\n"), refusal("Assert:MOM error is 7.\n")));
}

TEST_F(EmatchNotice, OfAnyOtherCommandIsLoggedAndDoneWith)
{
    sw_ebridge_list_item *app = add_user({.name = "app"});
    app->subscribe_callback = app->scan_callback = user_func;
    full_rule verdict;
    for (int32_t command = -1; command <= 40; ++command) {
        if (command == 4 || command == 6 || command == 29)
            continue;
        recording::reset();
        const rule_notice other(command, verdict);
        EXPECT_EQ(deliver_notice(other), 0) << command;
        EXPECT_THAT(trace(), ElementsAre(arrival_of(other)));
    }
}

TEST_F(EmatchNotice, OfAnEndOfExpiryIsNoEndOfAScan)
{
    sw_ebridge_list_item *app = add_user({.name = "app"});
    app->scan_callback = user_func;
    notice end(QZ_MOM_CMD_NONE);
    end.end = QZ_MOM_END_EXPIRY;
    EXPECT_EQ(deliver_notice(end), 0);
    EXPECT_THAT(trace(), ElementsAre(arrival_of(end)));
}

TEST_F(EmatchNotice, IsLoggedFromTheDebugLevelOn)
{
    add_user({.name = "app"});
    full_rule verdict;
    g_sw_vlan_file_zlog_level = 4;
    EXPECT_EQ(deliver_notice(rule_notice(QZ_MOM_CMD_HSET, verdict)), 0);
    EXPECT_THAT(trace(), ElementsAre(hears("app", verdict)));
}

// ---- confirmations

// Two users wait for it, a third one for the other kind, and a fourth one is gone: the two are told, in the order of
// the walk.
void expect_told(const qz_mom_notification &msg, const char *what, sw_ebridge_mom_func sw_ebridge_list_item::*callback,
                 void *sw_ebridge_list_item::*args, sw_ebridge_mom_func sw_ebridge_list_item::*other_callback)
{
    int first, second;
    sw_ebridge_list_item *app = add_user({.name = "app"}), *other = add_user({.name = "other"});
    add_user({.name = "idle"})->*other_callback = user_func;
    sw_ebridge_list_item *gone = add_user({.name = "gone"});
    app->*callback = other->*callback = gone->*callback = user_func;
    sw_ebridge_list_item_cache_destroy(0, gone);
    app->*args = &first;
    other->*args = &second;
    EXPECT_EQ(deliver_notice(msg), 0);

    strings expected = {arrival_of(msg)};
    std::vector<void *> handed;
    for (const std::string &name : registry_order()) {
        if (name == "idle")
            continue;
        expected.push_back(callback_line("debug", std::string(what) + " callback, t_user: " + name + "."));
        expected.push_back("user function");
        handed.push_back(name == "app" ? &first : &second);
    }
    EXPECT_EQ(trace(), expected);
    ASSERT_EQ(func_calls.size(), 2u);
    for (size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(func_calls[i].ctx, recording::other_handle());
        EXPECT_EQ(func_calls[i].msg, &msg);
        EXPECT_EQ(func_calls[i].arg, handed[i]);
    }
}

TEST_F(EmatchConfirmation, ReachesEveryUserWhoSetASubscribeCallback)
{
    expect_told(notice(QZ_MOM_CMD_SUBSCRIBED), "subscribe", &sw_ebridge_list_item::subscribe_callback,
                &sw_ebridge_list_item::subscribe_args, &sw_ebridge_list_item::scan_callback);
}

TEST_F(EmatchConfirmation, ComesToWhoeverSubscribed)
{
    add_user({.name = "app"});
    EXPECT_EQ(sw_ematch_subscribe("app", user_func, &user_argument), 0);
    EXPECT_EQ(deliver_notice(notice(QZ_MOM_CMD_SUBSCRIBED)), 0);
    ASSERT_EQ(func_calls.size(), 1u);
    EXPECT_EQ(func_calls[0].arg, &user_argument);
}

TEST_F(EmatchConfirmation, IsNoEndOfAScanWhateverItsMark)
{
    sw_ebridge_list_item *app = add_user({.name = "app"});
    app->scan_callback = user_func;
    notice confirmed(QZ_MOM_CMD_SUBSCRIBED);
    confirmed.end = QZ_MOM_END_SCAN;
    EXPECT_EQ(deliver_notice(confirmed), 0);
    EXPECT_EQ(func_calls.size(), 0u);
}

TEST_F(EmatchConfirmation, WithoutUsersIsFine)
{
    EXPECT_EQ(deliver_notice(notice(QZ_MOM_CMD_SUBSCRIBED)), 0);
    add_user({.name = "app"});
    EXPECT_EQ(deliver_notice(notice(QZ_MOM_CMD_SUBSCRIBED)), 0);
    EXPECT_EQ(func_calls.size(), 0u);
}

// ---- ends of scans

TEST_F(EmatchScanEnd, ReachesEveryUserWhoSetAScanCallback)
{
    notice end(QZ_MOM_CMD_NONE);
    end.end = QZ_MOM_END_SCAN;
    expect_told(end, "scan", &sw_ebridge_list_item::scan_callback, &sw_ebridge_list_item::scan_args,
                &sw_ebridge_list_item::subscribe_callback);
}

TEST_F(EmatchScanEnd, ComesToWhoeverScanned)
{
    add_user({.name = "app"});
    EXPECT_EQ(sw_ematch_scan("app", user_func, &user_argument), 0);
    notice end(QZ_MOM_CMD_NONE);
    end.end = QZ_MOM_END_SCAN;
    EXPECT_EQ(deliver_notice(end), 0);
    ASSERT_EQ(func_calls.size(), 1u);
    EXPECT_EQ(func_calls[0].arg, &user_argument);
}

// A record that ends a scan is not delivered.
TEST_F(EmatchScanEnd, ComesBeforeTheCommand)
{
    sw_ebridge_list_item *app = add_user({.name = "app"});
    app->scan_callback = user_func;
    full_rule verdict;
    rule_notice last(QZ_MOM_CMD_HMSET, verdict);
    last.end = QZ_MOM_END_SCAN;
    EXPECT_EQ(deliver_notice(last), 0);
    EXPECT_EQ(func_calls.size(), 1u);
    EXPECT_THAT(heard(), IsEmpty());
}

// ---- verdicts in notifications

TEST_F(EmatchVerdict, ReachesItsOwner)
{
    add_user({.name = "app"});
    add_user({.name = "other"});
    for (const int32_t command : {QZ_MOM_CMD_HSET, QZ_MOM_CMD_HMSET}) {
        recording::reset();
        full_rule verdict;
        const rule_notice written(command, verdict);
        EXPECT_EQ(deliver_notice(written), 0);
        EXPECT_EQ(trace(), joined(joined({arrival_of(written)}, reply_lines(verdict)), {hears("app", verdict)}));
    }
}

TEST_F(EmatchVerdict, WithoutHashIsRefused)
{
    add_user({.name = "app"});
    for (const int32_t command : {QZ_MOM_CMD_HSET, QZ_MOM_CMD_HMSET}) {
        recording::reset();
        const notice empty(command);
        EXPECT_EQ(deliver_notice(empty), 1);
        EXPECT_THAT(trace(), ElementsAre(arrival_of(empty), refusal("Assert:MOM hash is NULL.\n")));
    }
}

TEST_F(EmatchVerdict, ThatCouldNotBeDecodedIsRefused)
{
    add_user({.name = "app"});
    full_rule verdict;
    rule_notice damaged(QZ_MOM_CMD_HSET, verdict);
    damaged.hash.error = -101;
    EXPECT_EQ(deliver_notice(damaged), 1);
    EXPECT_THAT(trace(), ElementsAre(arrival_of(damaged), refusal("Assert:MOM hash error is -101.\n")));
}

TEST_F(EmatchVerdict, WithoutRecordIsRefused)
{
    add_user({.name = "app"});
    full_rule verdict;
    rule_notice empty(QZ_MOM_CMD_HMSET, verdict);
    empty.hash.record = nullptr;
    EXPECT_EQ(deliver_notice(empty), -2);
    EXPECT_THAT(trace(),
                ElementsAre(arrival_of(empty), refusal("Assert:MOM DB[14], KEY[the key], CMD[6] value is NULL.\n")));
}

TEST_F(EmatchVerdict, OfAUserOfAnotherProcessIsDropped)
{
    add_user({.name = "app"});
    full_rule foreign("foreign");
    const rule_notice written(QZ_MOM_CMD_HSET, foreign);
    EXPECT_EQ(deliver_notice(written), 0);
    EXPECT_THAT(trace(), ElementsAre(arrival_of(written)));
}

// The store says what it found; whether the owner can be told is no failure of its.
TEST_F(EmatchVerdict, WithoutKeyReachesNobody)
{
    add_user({.name = "app"});
    full_rule verdict;
    const rule_notice written(QZ_MOM_CMD_HSET, verdict);
    verdict.entry.index = nullptr;
    EXPECT_EQ(deliver_notice(written), 0);
    EXPECT_THAT(heard(), IsEmpty());
}

// ---- one record to its owner

TEST_F(EmatchReply, GoesToTheUserThatTheRecordNames)
{
    add_user({.name = "app"});
    add_user({.name = "other"});
    const full_rule verdict("other");
    EXPECT_EQ(sw_ematch_session_reply(&verdict.entry), 0);
    EXPECT_EQ(trace(), joined(reply_lines(verdict), {hears("other", verdict)}));
}

TEST_F(EmatchReply, HandsOverTheRecordItself)
{
    static const UBridge__EmatchEntry *handed;
    sw_ebridge_list_item *app = add_user({.name = "app"});
    app->ematch_reply = [](UBridge__EmatchEntry *entry) -> int32_t {
        handed = entry;
        return -7;
    };
    const full_rule verdict;
    EXPECT_EQ(sw_ematch_session_reply(&verdict.entry), 0);
    EXPECT_EQ(handed, &verdict.entry);
}

TEST_F(EmatchReply, GoesToNobodyWhoHasNoCallback)
{
    add_user({.name = "app", .callbacks = no_callbacks});
    EXPECT_EQ(sw_ematch_session_reply(entry_of(full_rule())), 0);
    EXPECT_THAT(trace(), IsEmpty());
}

TEST_F(EmatchReply, GoesToNobodyWhoIsGone)
{
    add_user({.name = "app"});
    sw_ebridge_list_item_cache_destroy(0, add_user({.name = "gone"}));
    EXPECT_EQ(sw_ematch_session_reply(entry_of(full_rule("gone"))), 0);
    EXPECT_THAT(trace(), IsEmpty());
}

TEST_F(EmatchReply, GoesToNobodyOfAnotherName)
{
    add_user({.name = "app"});
    add_user({.name = name_of_31});
    for (const char *name : {"ap", "apps", "APP", "", name_of_40, static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(sw_ematch_session_reply(entry_of(full_rule(name))), 0);
        EXPECT_THAT(trace(), IsEmpty()) << (name != nullptr ? name : "null");
    }
    const full_rule verdict(name_of_31);
    EXPECT_EQ(sw_ematch_session_reply(&verdict.entry), 0);
    EXPECT_THAT(heard(), ElementsAre(hears(name_of_31, verdict)));
}

TEST_F(EmatchReply, GoesToUsersOfSlot0Only)
{
    add_user({.name = "app", .callbacks = no_callbacks});
    sw_ebridge_list_item elsewhere{};
    strcpy(elsewhere.user_name, "other");
    elsewhere.ematch_reply = ears<0>::ematch_reply;
    EXPECT_EQ(sw_ebridge_list_add_inst(1, &elsewhere), 0);
    recording::reset();
    EXPECT_EQ(sw_ematch_session_reply(entry_of(full_rule("other"))), 0);
    EXPECT_THAT(trace(), IsEmpty());
}

TEST_F(EmatchReply, TouchesNoItem)
{
    add_user({.name = "app"});
    const sw_ematch_item *stored = insert(rule());
    const std::string before = bytes_of(*stored);
    rule verdict;
    verdict.entry.result = U_BRIDGE__MATCH_RESULT__FAIL_PRIORITY;
    EXPECT_EQ(sw_ematch_session_reply(&verdict.entry), 0);
    EXPECT_EQ(sw_ematch_session_reply(entry_of(full_rule())), 0);
    EXPECT_EQ(bytes_of(*stored), before);
    EXPECT_EQ(sw_ematch_item_hash_size(0), 1u);
}

TEST_F(EmatchReply, MayBeAnsweredWithCallsOfTheLibrary)
{
    add_user({.name = "app"});
    inside_callback = [] { EXPECT_EQ(sw_ematch_entry_del(entry_of(full_rule())), 0); };
    EXPECT_EQ(sw_ematch_session_reply(entry_of(full_rule())), 0);
    EXPECT_THAT(recording::calls_of("qz_mom_del"), SizeIs(1));
}

TEST_F(EmatchReply, RefusesNull)
{
    add_user({.name = "app"});
    UBridge__EmatchEntry keyless = U_BRIDGE__EMATCH_ENTRY__INIT;
    EXPECT_EQ(sw_ematch_session_reply(nullptr), -2);
    EXPECT_EQ(sw_ematch_session_reply(&keyless), -2);
    EXPECT_THAT(errors(), testing::AllOf(SizeIs(2), Each(StartsWith("Assert:"))));
    EXPECT_THAT(heard(), IsEmpty());
}

}  // namespace
