// What an eport session change does: the subscription callback, grants, refusals and removals, and who hears of them.
#include "eport_fixture.hpp"

namespace
{

using namespace eport_test;
using EportSlots = EportTest;
using EportSubscription = EportTest;
using EportGrant = EportTest;
using EportRefusal = EportTest;
using EportRemoval = EportTest;
using EportCounters = EportTest;
using EportReentry = EportTest;

// ---- the slots of callback arguments

TEST_F(EportSlots, AreTheFirstFourOfTheInstance)
{
    sw_ebridge_list_item *item = add_user({.name = "app"});
    EXPECT_EQ(sw_eport_get_mom_ds_args(4, 29, item), &item->mom_ds_args[0]);
    EXPECT_EQ(sw_eport_get_mom_ds_args(4, 30, item), &item->mom_ds_args[1]);
    EXPECT_EQ(sw_eport_get_mom_ds_args(8, 29, item), &item->mom_ds_args[2]);
    EXPECT_EQ(sw_eport_get_mom_ds_args(8, 30, item), &item->mom_ds_args[3]);
}

TEST_F(EportSlots, ExistForNoOtherPair)
{
    sw_ebridge_list_item *item = add_user({.name = "app"});
    for (int32_t db = -1; db <= 16; ++db)
        for (uint32_t cmd = 0; cmd <= 40; ++cmd)
            EXPECT_EQ(sw_eport_get_mom_ds_args(db, cmd, item) != nullptr,
                      (db == 4 || db == 8) && (cmd == 29 || cmd == 30));
    EXPECT_EQ(sw_eport_get_mom_ds_args(4, 29, nullptr), nullptr);
}

// ---- the subscription callback

TEST_F(EportSubscription, RefusesANullMessage)
{
    add_user({.name = "app"});
    EXPECT_EQ(sw_vlan_mom_msg_eport_session_reply(recording::handle(), nullptr, nullptr), -2);
    EXPECT_THAT(trace(), ElementsAre(refusal("Assert:MOM, msg is NULL.")));
}

TEST_F(EportSubscription, RefusesNullArgumentsBeforeItLooksAtTheError)
{
    add_user({.name = "app"});
    notice msg(QZ_MOM_CMD_HMSET);
    msg.error = -105;
    EXPECT_EQ(deliver(msg, nullptr), -2);
    EXPECT_THAT(trace(), ElementsAre(refusal("Assert:MOM, args is NULL.")));
}

TEST_F(EportSubscription, RefusesAnErrorBeforeItLooksAtTheCommand)
{
    add_user({.name = "app"});
    notice msg(QZ_MOM_CMD_UNSUBSCRIBED);
    msg.error = -105;
    EXPECT_EQ(deliver(msg, &with_func), -2);
    EXPECT_THAT(trace(), ElementsAre(refusal("Assert:MOM, error is -105.")));
    EXPECT_THAT(func_calls, IsEmpty());
}

TEST_F(EportSubscription, EndsWithoutAWordToTheUserFunction)
{
    add_user({.name = "app"});
    notice msg(QZ_MOM_CMD_UNSUBSCRIBED);
    msg.db = 12;
    msg.end = QZ_MOM_END_SCAN;
    EXPECT_EQ(deliver(msg, &with_func), 0);
    EXPECT_THAT(trace(), ElementsAre(callback_line("warning", format("unsubscribe from DB[12], args is %p.",
                                                                     static_cast<void *>(&with_func)))));
    EXPECT_THAT(func_calls, IsEmpty());
}

TEST_F(EportSubscription, ConfirmationReachesTheUserFunctionUnderItsOwnName)
{
    add_user({.name = "app"});
    notice msg(QZ_MOM_CMD_SUBSCRIBED);
    msg.db = 0x1f;
    EXPECT_EQ(deliver(msg, &with_func), 0);
    EXPECT_THAT(trace(), ElementsAre(arrival(msg, &with_func), func_line("subscribe", user_func), "user function"));
    expect_handed_on(msg);
}

TEST_F(EportSubscription, ConfirmationComesBeforeTheEndOfAScan)
{
    add_user({.name = "app"});
    notice msg(QZ_MOM_CMD_SUBSCRIBED);
    msg.end = QZ_MOM_END_SCAN;
    EXPECT_EQ(deliver(msg, &with_func), 0);
    EXPECT_THAT(trace(), ElementsAre(arrival(msg, &with_func), func_line("subscribe", user_func), "user function"));
}

TEST_F(EportSubscription, WorksWithoutAUserFunction)
{
    add_user({.name = "app"});
    notice confirmed(QZ_MOM_CMD_SUBSCRIBED);
    EXPECT_EQ(deliver(confirmed, &without_func), 0);
    notice over(QZ_MOM_CMD_NONE);
    over.end = QZ_MOM_END_SCAN;
    EXPECT_EQ(deliver(over, &without_func), 0);
    session of("app", ac, 7, 8);
    const session_notice written(QZ_MOM_CMD_HMSET, of.answered(0x30000005));
    EXPECT_EQ(deliver(written, &without_func), 0);
    const strings all = trace();
    ASSERT_GT(all.size(), 6u);
    EXPECT_EQ(all[1], func_line("subscribe", nullptr));
    EXPECT_EQ(all[3], func_line("scanover", nullptr));
    EXPECT_EQ(all[5], func_line("EPORT session", nullptr));
    EXPECT_EQ(g_diagnosis_stat.eport_add_reply, 1u);
}

TEST_F(EportSubscription, IgnoresOtherCommands)
{
    add_user({.name = "app"});
    for (const int32_t command : {0, 1, 2, 5, 7, 30, -1}) {
        recording::reset();
        session of("app", ac, 7, 8);
        notice msg(command);
        msg.value = &of.answered(0x30000005).base;
        EXPECT_EQ(deliver(msg, &with_func), 0);
        EXPECT_THAT(trace(), ElementsAre(arrival(msg, &with_func)));
    }
    EXPECT_THAT(func_calls, IsEmpty());
    EXPECT_EQ(g_diagnosis_stat.eport_add_reply, 0u);
}

TEST_F(EportSubscription, EndOfAnExpiryIsNoEndOfAScan)
{
    add_user({.name = "app"});
    notice msg(QZ_MOM_CMD_NONE);
    msg.end = QZ_MOM_END_EXPIRY;
    EXPECT_EQ(deliver(msg, &with_func), 0);
    EXPECT_THAT(func_calls, IsEmpty());
}

// The evlan callback applies a session that comes with the end of a scan.
TEST_F(EportSubscription, EndOfAScanAppliesNoSessionWhateverComesWithIt)
{
    add_user({.name = "app"});
    grant("app", ac, 7, 9, 0x30000006);
    for (const int32_t command : {0, 1, 3, 4, 6, 27, 30}) {
        recording::reset();
        session of("app", ac, 7, command == 3 || command == 27 ? 9 : 8);
        session_notice msg(command, of.answered(0x30000005));
        msg.end = QZ_MOM_END_SCAN;
        EXPECT_EQ(deliver(msg, &with_func), 0);
        EXPECT_THAT(trace(), ElementsAre(arrival(msg, &with_func), func_line("scanover", user_func), "user function"));
    }
    EXPECT_EQ(func_calls.size(), 7u);
    EXPECT_EQ(g_diagnosis_stat.eport_add_reply, 1u);
    EXPECT_EQ(g_diagnosis_stat.eport_del_reply, 0u);
    EXPECT_EQ(app_item(ac, 7, 8), nullptr);
    EXPECT_NE(app_item(ac, 7, 9), nullptr);
}

// Its value is not even looked at.
TEST_F(EportSubscription, EndOfAScanNeedsNoValue)
{
    add_user({.name = "app"});
    for (const int32_t command : {3, 4}) {
        notice msg(command);
        msg.end = QZ_MOM_END_SCAN;
        EXPECT_EQ(deliver(msg, &with_func), 0);
    }
    EXPECT_EQ(func_calls.size(), 2u);
    EXPECT_THAT(recording::logged(100), IsEmpty());
}

class EportSubscriptionOfWrites : public EportTest, public testing::WithParamInterface<int32_t>
{
};

TEST_P(EportSubscriptionOfWrites, RunTheUserFunctionThenApplyTheSession)
{
    add_user({.name = "app"});
    session of("app", ac, 7, 8);
    of.answered(0x30000005);
    session_notice msg(GetParam(), of);
    msg.db = 8;
    EXPECT_EQ(deliver(msg, &with_func), 0);
    const strings all = trace();
    ASSERT_GT(all.size(), 4u);
    EXPECT_EQ(all[0], arrival(msg, &with_func));
    EXPECT_EQ(all[1], func_line("EPORT session", user_func));
    EXPECT_EQ(all[2], "user function");
    EXPECT_EQ(all[3], "info sw_eport_session_reply_add: user: app, keyid1: 7, keyid2: 8, reply value: 0x30000005.");
    EXPECT_THAT(heard(), ElementsAre("app hears eport app/48/7/8: app 0x30000005"));
    expect_handed_on(msg);
    ASSERT_NE(app_item(ac, 7, 8), nullptr);
    EXPECT_EQ(app_item(ac, 7, 8)->carried[0], 8u);
}

TEST_P(EportSubscriptionOfWrites, NeedAValue)
{
    add_user({.name = "app"});
    notice msg(GetParam());
    EXPECT_EQ(deliver(msg, &with_func), -2);
    EXPECT_THAT(trace(), ElementsAre(arrival(msg, &with_func), refusal("Assert:MOM, value is NULL.")));
    EXPECT_THAT(func_calls, IsEmpty());
}

TEST_P(EportSubscriptionOfWrites, NeedAValueWithoutError)
{
    add_user({.name = "app"});
    session of("app", ac, 7, 8);
    session_notice msg(GetParam(), of.answered(0x30000005));
    msg.hash.error = -101;
    EXPECT_EQ(deliver(msg, &with_func), -2);
    EXPECT_THAT(trace(), ElementsAre(arrival(msg, &with_func), refusal("Assert:MOM, error is -101.")));
    EXPECT_THAT(func_calls, IsEmpty());
}

TEST_P(EportSubscriptionOfWrites, NeedADecodedSession)
{
    add_user({.name = "app"});
    session of("app", ac, 7, 8);
    session_notice msg(GetParam(), of);
    msg.hash.record = nullptr;
    EXPECT_EQ(deliver(msg, &with_func), -2);
    EXPECT_THAT(trace(), ElementsAre(arrival(msg, &with_func), refusal("Assert:EPORT session is NULL.")));
    EXPECT_THAT(func_calls, IsEmpty());
}

TEST_P(EportSubscriptionOfWrites, OfABareRequestAreNoFailure)
{
    add_user({.name = "app"});
    session of("app", ac, 7, 8);
    of.request = 1;
    EXPECT_EQ(deliver(session_notice(GetParam(), of), &with_func), 0);
    EXPECT_EQ(func_calls.size(), 1u);
    EXPECT_EQ(app_item(ac, 7, 8), nullptr);
}

INSTANTIATE_TEST_SUITE_P(Commands, EportSubscriptionOfWrites, testing::Values(4, 6));

class EportSubscriptionOfRemovals : public EportTest, public testing::WithParamInterface<int32_t>
{
};

TEST_P(EportSubscriptionOfRemovals, RunTheUserFunctionThenRemove)
{
    add_user({.name = "app"});
    grant("app", ac, 7, 8, 0x30000005);
    recording::reset();
    session of("app", ac, 7, 8);
    session_notice msg(GetParam(), of.answered(0x30000005));
    EXPECT_EQ(deliver(msg, &with_func), 0);
    const strings all = trace();
    ASSERT_GT(all.size(), 4u);
    EXPECT_EQ(all[0], arrival(msg, &with_func));
    EXPECT_EQ(all[1], func_line("EPORT session", user_func));
    EXPECT_EQ(all[2], "user function");
    EXPECT_THAT(heard(), ElementsAre("app hears release app/48/7/8: app 0x30000005 event 2"));
    expect_handed_on(msg);
    EXPECT_EQ(app_item(ac, 7, 8), nullptr);
    EXPECT_EQ(g_diagnosis_stat.eport_del_reply, 1u);
}

TEST_P(EportSubscriptionOfRemovals, NeedASession)
{
    add_user({.name = "app"});
    notice msg(GetParam());
    EXPECT_EQ(deliver(msg, &with_func), -2);
    EXPECT_THAT(trace(), ElementsAre(arrival(msg, &with_func), refusal("Assert:EPORT session is NULL.")));
    EXPECT_THAT(func_calls, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Commands, EportSubscriptionOfRemovals, testing::Values(3, 27));

class EportSubscriptionOfChanges : public EportTest, public testing::WithParamInterface<int32_t>
{
};

// Of an evlan session the line is that of a missing session.
TEST_P(EportSubscriptionOfChanges, NeedAnIndex)
{
    add_user({.name = "app"});
    session of("app", ac, 7, 8);
    of.answered(0x30000005).index = nullptr;
    const session_notice msg(GetParam(), of);
    EXPECT_EQ(deliver(msg, &with_func), -2);
    EXPECT_THAT(trace(), ElementsAre(arrival(msg, &with_func), refusal("Assert:EPORT session index is NULL.")));
    EXPECT_THAT(func_calls, IsEmpty());
    EXPECT_EQ(g_diagnosis_stat.eport_add_reply + g_diagnosis_stat.eport_del_reply, 0u);
}

INSTANTIATE_TEST_SUITE_P(Commands, EportSubscriptionOfChanges, testing::Values(3, 4, 6, 27));

// ---- a session change

TEST_F(EportGrant, OfNoSessionIsRefused)
{
    add_user({.name = "app"});
    session without("app", ac, 7, 8);
    without.answered(0x30000005).index = nullptr;
    for (const int32_t add : {0, 1}) {
        EXPECT_EQ(sw_eport_session_reply(4, nullptr, add), -2);
        EXPECT_EQ(sw_eport_session_reply(4, &without, add), -2);
    }
    EXPECT_EQ(recording::logged(100).size(), 4u);
    EXPECT_THAT(recording::logged(), Each(StartsWith("Assert:")));
    EXPECT_EQ(g_diagnosis_stat.eport_add_reply + g_diagnosis_stat.eport_del_reply, 0u);
}

TEST_F(EportGrant, WaitsForTheAnswer)
{
    add_user({.name = "app"});
    session bare("app", ac, 7, 8);
    bare.request = 1;
    bare.reply_value = 0x30000005;
    EXPECT_EQ(apply(bare, 1), -2);
    EXPECT_THAT(trace(), IsEmpty());
    EXPECT_EQ(g_diagnosis_stat.eport_add_reply, 0u);
    EXPECT_EQ(app_item(ac, 7, 8), nullptr);
}

TEST_F(EportGrant, TakesAnyAnswerButZero)
{
    add_user({.name = "app"});
    session of("app", ac, 7, 8);
    of.answered(0x30000005).reply = -3;
    EXPECT_EQ(apply(of, 1), 0);
    EXPECT_EQ(g_diagnosis_stat.eport_add_reply, 1u);
}

TEST_F(EportGrant, OfARequestedKeyFillsTheItemInPlace)
{
    add_user({.name = "app"});
    request("app", ac, 7, -8);
    sw_eport_index_map *item = app_item(ac, 7, -8);
    recording::reset();
    session of("app", ac, 7, -8);
    of.priority = U_BRIDGE__RES_PRIORITY__LEVEL_1;
    EXPECT_EQ(apply(of.answered(0x30000005), 1), 0);
    EXPECT_THAT(
        trace(),
        ElementsAre("info sw_eport_session_reply_add: user: app, keyid1: 7, keyid2: -8, reply value: 0x30000005.",
                    "info sw_eport_session_reply_db_update: app_index-user: app, type: 48, keyid1: 7, keyid2: -8, "
                    "eport_index-eport_id: 0x30000005(priority: 1)\n",
                    "info sw_eport_session_reply_db_update: updating old app2udp data, type: 0x30, keyid1: 7, keyid2: "
                    "-8(old_eport_id: 0x0, new_eport_id: 0x30000005).",
                    "info sw_eport_index_map_update_item: Insert EPORT Index map for app, UDPIndex is 0x30000005, "
                    "appIndex is 0x7+0xfffffff8.",
                    "info sw_eport_session_reply_add_foreach: successfully reply eport_id: 0x30000005.",
                    "app hears eport app/48/7/-8: app 0x30000005"));
    EXPECT_EQ(app_item(ac, 7, -8), item);
    EXPECT_EQ(item->value[0], 0x30000005u);
    EXPECT_EQ(item->ds_flag, 3u);
    EXPECT_EQ(item->priority, 0u);
    EXPECT_EQ(g_diagnosis_stat.eport_add_reply, 1u);
    EXPECT_EQ(g_diagnosis_stat.eport_reply_cb, 1u);
    EXPECT_EQ(g_diagnosis_stat.evlan_add_reply, 0u);
}

TEST_F(EportGrant, OfAnUnknownKeyMakesBothItems)
{
    const sw_ebridge_list_item *owner = add_user({.name = "app", .callbacks = no_callbacks});
    session of("app", l3intf_ac, 7, 8);
    of.priority = U_BRIDGE__RES_PRIORITY__LEVEL_2;
    EXPECT_EQ(apply(of.answered(0x90000005), 1, 8), 0);
    EXPECT_THAT(
        trace(),
        ElementsAre(
            "info sw_eport_session_reply_add: user: app, keyid1: 7, keyid2: 8, reply value: 0x90000005.",
            "info sw_eport_session_reply_db_update: app_index-user: app, type: 144, keyid1: 7, keyid2: 8, "
            "eport_index-eport_id: 0x90000005(priority: 2)\n",
            "info sw_eport_index_map_update_item: Insert EPORT Index map for app, appIndex is 0x7+0x8, UDPIndex "
            "is 0x90000005 ds_flag:0.",
            "info sw_eport_index_map_update_item: Insert EPORT Index map for app, UDPIndex is 0x90000005, "
            "appIndex is 0x7+0x8."));
    const sw_eport_index_map *forward = app_item(l3intf_ac, 7, 8);
    const sw_eport_index_map *reverse = udp_item(0x90000005);
    ASSERT_TRUE(forward && reverse);
    EXPECT_THAT(forward->value, ElementsAre(0x90000005u, 0u, 0u));
    EXPECT_EQ(forward->ds_flag, 1u);
    EXPECT_THAT(reverse->value, ElementsAre(144u, 7u, 8u));
    EXPECT_EQ(reverse->ds_flag, 0u);
    for (const auto *item : {forward, reverse}) {
        EXPECT_THAT(item->carried, ElementsAre(8u, 0u));
        EXPECT_EQ(item->priority, 2u);
        EXPECT_STREQ(item->user_name, "app");
    }
    EXPECT_EQ(list_length(owner->eport_maps), 2u);
    EXPECT_TRUE(linked_to_itself(owner->evlan_maps));
}

TEST_F(EportGrant, HeardAgainUpdatesBothItems)
{
    add_user({.name = "app", .callbacks = no_callbacks});
    request("app", ac, 7, 8);
    grant("app", ac, 7, 8, 0x30000005, 4);
    app_item(ac, 7, 8)->ds_flag = SW_INDEX_MAP_REQUESTED;
    recording::reset();
    session of("other", ac, 7, 8);
    of.priority = U_BRIDGE__RES_PRIORITY__LEVEL_1;
    EXPECT_EQ(apply(of.answered(0x30000005), 1, 8), 0);
    EXPECT_THAT(
        trace(),
        ElementsAre("info sw_eport_session_reply_add: user: other, keyid1: 7, keyid2: 8, reply value: 0x30000005.",
                    "info sw_eport_session_reply_db_update: app_index-user: other, type: 48, keyid1: 7, keyid2: 8, "
                    "eport_index-eport_id: 0x30000005(priority: 1)\n",
                    "info sw_eport_index_map_update_item: Update EPORT Index map for other, appIndex is 0x7+0x8, "
                    "UDPIndex is 0x30000005 ds_flag:2.",
                    "info sw_eport_index_map_update_item: Update EPORT Index map for other, UDPIndex is 0x30000005, "
                    "appIndex is 0x7+0x8."));
    const sw_eport_index_map *forward = app_item(ac, 7, 8);
    EXPECT_STREQ(forward->user_name, "other");
    EXPECT_EQ(forward->carried[0], 8u);
    EXPECT_EQ(forward->priority, 1u);
    EXPECT_EQ(forward->ds_flag, 3u);
}

TEST_F(EportGrant, OfAnotherIdReplacesTheOldReverseItem)
{
    add_user({.name = "app", .callbacks = no_callbacks});
    grant("app", ac, 7, 8, 0x30000003, 4);
    app_item(ac, 7, 8)->ds_flag = 0;
    recording::reset();
    session of("other", ac, 7, 8);
    of.priority = U_BRIDGE__RES_PRIORITY__LEVEL_2;
    EXPECT_EQ(apply(of.answered(0x30000005), 1, 8), 0);
    EXPECT_THAT(
        trace(),
        ElementsAre("info sw_eport_session_reply_add: user: other, keyid1: 7, keyid2: 8, reply value: 0x30000005.",
                    "info sw_eport_session_reply_db_update: app_index-user: other, type: 48, keyid1: 7, keyid2: 8, "
                    "eport_index-eport_id: 0x30000005(priority: 2)\n",
                    "info sw_eport_session_reply_db_update: updating old app2udp data, type: 0x30, keyid1: 7, keyid2: "
                    "8(old_eport_id: 0x30000003, new_eport_id: 0x30000005).",
                    "info sw_eport_session_reply_db_update: deleting old udp2app data, eport_id: 0x30000003.",
                    "info sw_eport_index_map_delete_item: Remove EPORT Index map for app, UDPIndex is 0x30000003, "
                    "appIndex is 0x7+0x8.",
                    "info sw_eport_index_map_update_item: Insert EPORT Index map for other, UDPIndex is 0x30000005, "
                    "appIndex is 0x7+0x8."));
    const sw_eport_index_map *forward = app_item(ac, 7, 8);
    EXPECT_EQ(forward->value[0], 0x30000005u);
    EXPECT_EQ(forward->ds_flag, 1u);
    EXPECT_STREQ(forward->user_name, "app");
    EXPECT_EQ(forward->carried[0], 4u);
    EXPECT_EQ(forward->priority, 0u);
    EXPECT_EQ(udp_item(0x30000003), nullptr);
    const sw_eport_index_map *reverse = udp_item(0x30000005);
    ASSERT_NE(reverse, nullptr);
    EXPECT_STREQ(reverse->user_name, "other");
    EXPECT_EQ(reverse->carried[0], 8u);
    EXPECT_EQ(reverse->priority, 2u);
    EXPECT_EQ(reverse->ds_flag, 0u);
}

TEST_F(EportGrant, OfAnotherIdLeavesAReverseItemOfAnotherKeyAlone)
{
    add_user({.name = "app", .callbacks = no_callbacks});
    grant("app", ac, 7, 8, 0x30000003);
    for (const auto &[type, keyid1, keyid2] : {std::tuple{pw, 7u, 8u}, {ac, 6u, 8u}, {ac, 7u, 9u}}) {
        udp_item(0x30000003)->value[0] = type;
        udp_item(0x30000003)->value[1] = keyid1;
        udp_item(0x30000003)->value[2] = keyid2;
        app_item(ac, 7, 8)->value[0] = 0x30000003;
        recording::reset();
        EXPECT_EQ(grant("app", ac, 7, 8, 0x30000005), 0);
        ASSERT_NE(udp_item(0x30000003), nullptr);
        EXPECT_THAT(recording::logged(), Not(Contains("deleting old udp2app data, eport_id: 0x30000003.")));
        EXPECT_NE(udp_item(0x30000005), nullptr);
    }
}

TEST_F(EportGrant, OfAnIdThatAnotherKeyHadTakesItsReverseItem)
{
    add_user({.name = "app"});
    grant("app", ac, 7, 8, 0x30000005);
    grant("app", ac, 7, 9, 0x30000005);
    EXPECT_EQ(app_item(ac, 7, 8)->value[0], 0x30000005u);
    EXPECT_EQ(app_item(ac, 7, 9)->value[0], 0x30000005u);
    EXPECT_EQ(udp_item(0x30000005)->value[2], 9u);
}

// On the evlan side each user in scope gets a record of its own.
TEST_F(EportGrant, MakesTheRequestersRecordWhoeverHearsOfIt)
{
    for (const char *name : {"a", "b", "c"})
        add_user({.name = name});
    EXPECT_EQ(grant("b", ac, 7, 8, 0x30000005), 0);
    EXPECT_NE(held("b", 0x30000005), nullptr);
    EXPECT_EQ(held("a", 0x30000005), nullptr);
    EXPECT_EQ(held("c", 0x30000005), nullptr);
    EXPECT_EQ(sw_eport_hash_size(0), 1u);
}

TEST_F(EportGrant, MakesTheRecordOfARequesterInAnotherProcess)
{
    add_user({.name = "app"});
    EXPECT_EQ(grant("elsewhere", ac, 7, 8, 0x30000005), 0);
    EXPECT_THAT(heard(), ElementsAre("app hears eport elsewhere/48/7/8: elsewhere 0x30000005"));
    EXPECT_EQ(held("app", 0x30000005), nullptr);
    ASSERT_NE(found_in_table("elsewhere", 0x30000005), nullptr);
    EXPECT_EQ(found_in_table("elsewhere", 0x30000005)->vlan_filter, 7u);
    EXPECT_EQ(sw_ebridge_list_item_get("elsewhere"), nullptr);
}

TEST_F(EportGrant, FillsTheMapOnceAndTellsEveryUser)
{
    for (const char *name : {"a", "b", "c"})
        add_user({.name = name});
    EXPECT_EQ(grant("b", ac, 7, 8, 0x30000005), 0);
    size_t passes = 0;
    for (const std::string &line : recording::logged())
        passes += line.rfind("app_index-user: ", 0) == 0;
    EXPECT_EQ(passes, 1u);
    strings expected;
    for (const std::string &name : registry_order())
        expected.push_back(name + " hears eport b/48/7/8: b 0x30000005");
    EXPECT_EQ(heard(), expected);
    EXPECT_EQ(g_diagnosis_stat.eport_reply_cb, 3u);
    EXPECT_EQ(g_diagnosis_stat.eport_add_reply, 1u);
}

class EportGrantOfAType : public EportTest, public testing::WithParamInterface<uint32_t>
{
};

// Ports and aggregates too: there is one callback, and no test of the type.
TEST_P(EportGrantOfAType, ReachesTheCallbackWithTheWholeId)
{
    add_user({.name = "app"});
    const uint32_t id = eport_id(GetParam(), 0xabcdef);
    EXPECT_EQ(grant("app", GetParam(), 7, 8, id), 0);
    EXPECT_THAT(heard(), ElementsAre(format("app hears eport app/%u/7/8: app 0x%x", GetParam(), id)));
    EXPECT_TRUE(traced(format("info sw_eport_session_reply_add_foreach: successfully reply eport_id: 0x%x.", id)));
    EXPECT_NE(app_item(GetParam(), 7, 8), nullptr);
    EXPECT_NE(udp_item(id), nullptr);
    EXPECT_NE(held("app", id), nullptr);
    EXPECT_THAT(recording::calls(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(All, EportGrantOfAType, testing::Values(port, local_port, ap, ac, pw, 112u, l3intf_ac, 255u));

TEST_F(EportGrant, CountsOnlyCallbacksThatExist)
{
    add_user({.name = "app", .callbacks = hears_release});
    grant("app", ac, 7, 8, 0x30000005);
    EXPECT_THAT(heard(), IsEmpty());
    EXPECT_THAT(recording::logged(), Not(Contains(StartsWith("successfully reply"))));
    EXPECT_EQ(g_diagnosis_stat.eport_reply_cb, 0u);
    EXPECT_NE(held("app", 0x30000005), nullptr);
}

TEST_F(EportGrant, KeepsARecordThatIsThere)
{
    add_user({.name = "app"});
    sw_eport_attr *mine = insert("app", 0x30000005);
    mine->attr.overlay.mtu = 9;
    grant("app", ac, 7, 8, 0x30000005);
    EXPECT_EQ(held("app", 0x30000005), mine);
    EXPECT_EQ(mine->attr.overlay.mtu, 9u);
}

TEST_F(EportGrant, WithFailingAllocationsStillReachesTheCallbacks)
{
    add_user({.name = "app"});
    uint32_t failures = 0;
    for (uint32_t nth = 1; nth <= 8; ++nth) {
        const uint32_t id = 0x30000000 | nth;
        const strings errors = errors_when_allocation_fails(
            nth, [&] { EXPECT_EQ(grant("app", ac, 7, static_cast<int32_t>(nth), id), 0); });
        EXPECT_EQ(heard(), strings{format("app hears eport app/48/7/%u: app 0x%x", nth, id)});
        EXPECT_THAT(errors, Each(StartsWith("Assert:")));
        failures += !errors.empty();
    }
    EXPECT_GE(failures, 3u);
}

TEST_F(EportGrant, WithoutAnyMemoryIsReported)
{
    add_user({.name = "app"});
    recording::fail_allocation(1, true);
    EXPECT_EQ(grant("app", ac, 7, 8, 0x30000005), 0);
    recording::fail_allocation(0);
    EXPECT_THAT(recording::logged(100), ElementsAre("Assert:EPort Index map failed, user is app, type is 0",
                                                    "Assert:EPort Index map failed, user is app, type is 1",
                                                    "Assert:Insert inst[0].user[app].eport[0x30000005] failed."));
    EXPECT_EQ(heard().size(), 1u);
}

TEST_F(EportGrant, BeforeAnyUserChangesNothing)
{
    EXPECT_EQ(grant("app", ac, 7, 8, 0x30000005), 0);
    EXPECT_EQ(g_diagnosis_stat.eport_add_reply, 1u);
}

// ---- who hears what: each data type, own and foreign sessions

struct scope_case {
    uint32_t scope;
    uint32_t type;
    bool own;
};

void PrintTo(const scope_case &one, std::ostream *out)
{
    *out << "data type " << one.scope << ", eport type " << one.type << (one.own ? ", own" : ", foreign");
}

std::vector<scope_case> scope_cases()
{
    std::vector<scope_case> all;
    for (const uint32_t scope : {0u, 1u, 2u, 3u, 4u, 0xfffffffeu, 0xffffffffu})
        for (const uint32_t type : {port, ac, l3intf_ac})
            for (const bool own : {true, false})
                all.push_back({scope, type, own});
    return all;
}

// 1 takes all, 0 its own, anything else nothing; grants, refusals and removals alike. Of evlans 2 takes all.
class EportScope : public EportTest, public testing::WithParamInterface<scope_case>
{
  protected:
    const char *requester() const { return GetParam().own ? "app" : "other"; }
    uint32_t id() const { return eport_id(GetParam().type, 5); }
    bool takes() const { return GetParam().scope == 1 || (GetParam().scope == 0 && GetParam().own); }
};

TEST_P(EportScope, OfGrants)
{
    add_user({.name = "app", .scope = GetParam().scope});
    EXPECT_EQ(grant(requester(), GetParam().type, 7, 8, id()), 0);
    EXPECT_EQ(app_item(GetParam().type, 7, 8) != nullptr, takes());
    EXPECT_EQ(udp_item(id()) != nullptr, takes());
    EXPECT_EQ(found_in_table(requester(), id()) != nullptr, takes());
    EXPECT_EQ(heard().size(), takes() ? 1u : 0u);
    EXPECT_EQ(g_diagnosis_stat.eport_add_reply, 1u);
}

TEST_P(EportScope, OfRemovals)
{
    add_user({.name = "app", .scope = GetParam().scope});
    sw_eport_db_insert_glb_item(0, requester(), id());
    session of(requester(), GetParam().type, 7, 8);
    EXPECT_EQ(apply(of.answered(id()), 0), 0);
    EXPECT_EQ(heard().size(), takes() ? 1u : 0u);
    EXPECT_EQ(g_diagnosis_stat.eport_release_cb, takes() ? 1u : 0u);
    EXPECT_EQ(found_in_table(requester(), id()) == nullptr, takes());
    EXPECT_EQ(g_diagnosis_stat.eport_del_reply, 1u);
}

TEST_P(EportScope, OfRefusalsGovernsTheErrorEntryOnly)
{
    add_user({.name = "app", .scope = GetParam().scope});
    session of(requester(), GetParam().type, 7, 8);
    EXPECT_EQ(apply(of.refused(), 1), 0);
    EXPECT_EQ(g_diagnosis_stat.eport_err_msg, takes() ? 1u : 0u);
    EXPECT_EQ(g_diagnosis_stat.eport_auto_release, GetParam().own ? 1u : 0u);
    EXPECT_EQ(recording::calls_of("qz_mom_del").size(), GetParam().own ? 1u : 0u);
    EXPECT_EQ(heard().size(), GetParam().own ? 1u : 0u);
}

INSTANTIATE_TEST_SUITE_P(All, EportScope, testing::ValuesIn(scope_cases()));

TEST_F(EportGrant, IsNotGovernedByTheEvlanSetting)
{
    add_user({.name = "app", .scope = 2})->evlan_data_type = 2;
    EXPECT_EQ(grant("app", ac, 7, 8, 0x30000005), 0);
    EXPECT_THAT(heard(), IsEmpty());
    EXPECT_EQ(sw_eport_index_map_hash_size(0), 0u);
}

TEST_F(EportGrant, ComparesNamesWhole)
{
    add_user({.name = name_of_31, .scope = 0});
    grant(name_of_40, ac, 7, 8, 0x30000005);
    EXPECT_THAT(heard(), IsEmpty());
    EXPECT_EQ(app_item(ac, 7, 8), nullptr);
    session gone(name_of_40, ac, 7, 8);
    apply(gone.answered(0x30000005), 0);
    EXPECT_THAT(heard(), IsEmpty());
    grant(name_of_31, ac, 7, 8, 0x30000005);
    EXPECT_EQ(heard().size(), 1u);
}

TEST_F(EportGrant, OfALongForeignNameIsCutAt31Characters)
{
    add_user({.name = "app"});
    grant(name_of_40, ac, 7, 8, 0x30000005);
    EXPECT_STREQ(app_item(ac, 7, 8)->user_name, name_of_31);
    EXPECT_NE(found_in_table(name_of_31, 0x30000005), nullptr);
    session gone(name_of_40, ac, 7, 8);
    apply(gone.answered(0x30000005), 0);
    EXPECT_EQ(found_in_table(name_of_31, 0x30000005), nullptr);
}

TEST_F(EportGrant, OfTheEmptyNameBelongsToTheEmptyUser)
{
    add_user({.name = "", .scope = 0});
    add_user({.name = "app", .scope = 0});
    grant("", ac, 7, 8, 0x30000005);
    EXPECT_THAT(heard(), ElementsAre(" hears eport /48/7/8:  0x30000005"));
    EXPECT_STREQ(app_item(ac, 7, 8)->user_name, "");
}

TEST_F(EportGrant, OfASessionWithoutNameIsRefused)
{
    add_user({.name = "app"});
    session nameless(nullptr, ac, 7, 8);
    EXPECT_EQ(apply(nameless, 0), -2);
    EXPECT_EQ(apply(nameless.answered(0x30000005), 1), -2);
    EXPECT_EQ(apply(nameless.refused(), 1), -2);
    EXPECT_EQ(deliver(session_notice(QZ_MOM_CMD_HMSET, nameless), &with_func), -2);
    EXPECT_EQ(deliver(session_notice(QZ_MOM_CMD_DEL, nameless), &with_func), -2);
    EXPECT_EQ(recording::logged(100).size(), 5u);
    EXPECT_THAT(heard(), IsEmpty());
    EXPECT_EQ(g_diagnosis_stat.eport_add_reply + g_diagnosis_stat.eport_del_reply, 0u);
}

// ---- refusals

TEST_F(EportRefusal, ReleasesTheSessionAndTellsTheRequester)
{
    add_user({.name = "app"});
    request("app", ac, 7, -8);
    recording::reset();
    session of("app", ac, 7, -8);
    EXPECT_EQ(apply(of.refused(), 1), 0);
    EXPECT_THAT(
        trace(),
        ElementsAre("warning sw_eport_session_reply_add: no more eport id available, user: app, app_index->type: 0x30, "
                    "keyid1: 7, keyid2: -8.",
                    "info sw_eport_release_exec: app2udp eport_id: 0x0, rv: 0.",
                    "qz_mom_del 4 " + session_key("app", ac, 7, -8),
                    "info sw_eport_release_exec: User[app] release eport[type:0x30, keyid1:7, keyid2:-8].",
                    "info sw_eport_session_reply_rollback_foreach: reply eport_id: 0xffffffff.",
                    "app hears eport app/48/7/-8: app 0xffffffff"));
    EXPECT_EQ(udp_item(0xffffffff), nullptr);
    EXPECT_EQ(sw_eport_hash_size(0), 0u);
}

TEST_F(EportRefusal, OfAHeldIdWithdrawsItBeforeTheSession)
{
    add_user({.name = "app"});
    grant("app", ac, 7, 8, 0x30000005);
    request("app", ac, 7, 8);
    recording::reset();
    session of("app", ac, 7, 8);
    EXPECT_EQ(apply(of.refused(), 1), 0);
    const auto calls = recording::calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(call_text(calls[0]), "qz_mom_del 13 " + attribute_key("app", 0x30000005));
    EXPECT_EQ(call_text(calls[1]), "qz_mom_del 4 " + session_key("app", ac, 7, 8));
    EXPECT_EQ(held("app", 0x30000005), nullptr);
    EXPECT_EQ(app_item(ac, 7, 8)->value[0], 0x30000005u);
}

// The release takes no mark off on this side.
TEST_F(EportRefusal, LeavesTheKeyMarkedAsRequested)
{
    add_user({.name = "app"});
    request("app", ac, 7, 8);
    session of("app", ac, 7, 8);
    apply(of.refused(), 1);
    ASSERT_NE(app_item(ac, 7, 8), nullptr);
    EXPECT_EQ(app_item(ac, 7, 8)->ds_flag, 2u);
    EXPECT_EQ(app_item(ac, 7, 8)->value[0], 0u);
}

TEST_F(EportRefusal, CountsEachStep)
{
    add_user({.name = "app"});
    session of("app", ac, 7, 8);
    apply(of.refused(), 1);
    EXPECT_EQ(g_diagnosis_stat.eport_add_reply, 1u);
    EXPECT_EQ(g_diagnosis_stat.eport_auto_release, 1u);
    EXPECT_EQ(g_diagnosis_stat.eport_total_release, 1u);
    EXPECT_EQ(g_diagnosis_stat.eport_reply_cb, 1u);
    EXPECT_EQ(g_diagnosis_stat.eport_err_msg, 1u);
    EXPECT_EQ(g_diagnosis_stat.eport_release_cb, 0u);
    EXPECT_EQ(g_diagnosis_stat.eport_del_reply, 0u);
    EXPECT_EQ(g_diagnosis_stat.evlan_auto_release + g_diagnosis_stat.evlan_err_msg, 0u);
}

TEST_F(EportRefusal, OfAUserWithoutCallbackIsCountedAllTheSame)
{
    add_user({.name = "app", .callbacks = hears_release});
    session of("app", ac, 7, 8);
    apply(of.refused(), 1);
    EXPECT_THAT(heard(), IsEmpty());
    EXPECT_THAT(recording::logged(), Not(Contains(StartsWith("reply eport_id"))));
    EXPECT_EQ(g_diagnosis_stat.eport_reply_cb, 0u);
    EXPECT_EQ(g_diagnosis_stat.eport_auto_release, 1u);
    EXPECT_EQ(recording::calls_of("qz_mom_del").size(), 1u);
}

TEST_F(EportRefusal, IsHeardByTheRequesterAlone)
{
    for (const char *name : {"a", "b", "c"})
        add_user({.name = name});
    session of("b", ac, 7, 8);
    apply(of.refused(), 1);
    EXPECT_THAT(heard(), ElementsAre("b hears eport b/48/7/8: b 0xffffffff"));
    EXPECT_EQ(recording::calls().size(), 1u);
    EXPECT_EQ(g_diagnosis_stat.eport_err_msg, 3u);
}

TEST_F(EportRefusal, LeavesTheMapAndTheRecordOfAnotherUserAlone)
{
    add_user({.name = "app"});
    grant("other", ac, 7, 8, 0x30000005);
    const sw_eport_index_map before = *app_item(ac, 7, 8);
    session of("other", ac, 7, 8);
    apply(of.refused(), 1);
    EXPECT_EQ(std::memcmp(app_item(ac, 7, 8), &before, sizeof before), 0);
    EXPECT_NE(udp_item(0x30000005), nullptr);
    EXPECT_NE(found_in_table("other", 0x30000005), nullptr);
}

TEST_F(EportRefusal, TellsTheCallbackThoughTheReleaseFailed)
{
    add_user({.name = "app"});
    recording::set_result("qz_mom_del", -105);
    session of("app", ac, 7, 8);
    EXPECT_EQ(apply(of.refused(), 1), 0);
    EXPECT_TRUE(
        recording::has_logged("User[app] release eport[type:0x30, keyid1:7, keyid2:8] failed, error is -105.", 100));
    EXPECT_EQ(heard().size(), 1u);
    EXPECT_EQ(g_diagnosis_stat.eport_auto_release, 1u);
}

// Only -1 refuses; the id before it is one.
TEST_F(EportRefusal, IsMinusOneAndNothingElse)
{
    add_user({.name = "app"});
    EXPECT_EQ(grant("app", 255, 7, 8, 0xfffffffe), 0);
    EXPECT_THAT(heard(), ElementsAre("app hears eport app/255/7/8: app 0xfffffffe"));
    EXPECT_NE(udp_item(0xfffffffe), nullptr);
    EXPECT_EQ(g_diagnosis_stat.eport_err_msg, 0u);
}

TEST_F(EportRefusal, RecordsTheRequest)
{
    add_user({.name = "app"});
    session of("other", l3intf_ac, 7, -8);
    of.priority = U_BRIDGE__RES_PRIORITY__LEVEL_2;
    of.mom_db = 9;
    apply(of.refused(), 1, 8);
    const sw_eport_index_map &entry = sw_eport_get_err_msg_array()[0];
    EXPECT_EQ(entry.kind, 1u);
    EXPECT_THAT(entry.key, ElementsAre(0xffffffffu, 0u, 0u, 0u));
    EXPECT_THAT(entry.value, ElementsAre(144u, 7u, 0xfffffff8u));
    EXPECT_EQ(entry.carried[0], 9u);
    EXPECT_EQ(entry.priority, 2u);
    EXPECT_STREQ(entry.user_name, "other");
    EXPECT_EQ(entry.ds_flag, 1u);
    EXPECT_EQ(g_diagnosis_stat.eport_err_msg, 1u);
}

// ---- removals

TEST_F(EportRemoval, TellsTheUsersThenEmptiesDatabaseAndMap)
{
    add_user({.name = "app"});
    grant("app", ac, 7, -8, 0x30000005);
    recording::reset();
    session of("app", ac, 7, -8);
    EXPECT_EQ(apply(of.answered(0x30000005), 0), 0);
    EXPECT_THAT(
        trace(),
        ElementsAre("info sw_eport_session_release_reply: release db app_user: app, type: 48, keyid1: 7, keyid2: -8, "
                    "eport_id: 0x30000005, rv: 0.",
                    "info sw_eport_session_release_reply_foreach: reply destroy msg eport_id: 0x30000005.",
                    "app hears release app/48/7/-8: app 0x30000005 event 2",
                    "info sw_eport_db_delete_glb_item: Remove user[app].eport[0x30000005].",
                    "info sw_eport_index_map_delete_item: Remove EPORT Index map for app, appIndex is 0x7+0xfffffff8, "
                    "UDPIndex is 0x30000005 ds_flag:1.",
                    "info sw_eport_session_release_reply: release db app_user: app, type: 48, keyid1: 7, keyid2: -8, "
                    "eport_id: 0x30000005\n",
                    "info sw_eport_index_map_delete_item: Remove EPORT Index map for app, UDPIndex is 0x30000005, "
                    "appIndex is 0x7+0xfffffff8."));
    EXPECT_EQ(sw_eport_index_map_hash_size(0), 0u);
    EXPECT_EQ(sw_eport_hash_size(0), 0u);
    EXPECT_EQ(g_diagnosis_stat.eport_del_reply, 1u);
    EXPECT_EQ(g_diagnosis_stat.eport_release_cb, 1u);
    EXPECT_EQ(g_diagnosis_stat.evlan_del_reply, 0u);
}

// On the evlan side the record stays until the release takes it.
TEST_F(EportRemoval, TakesTheRequestersRecordWithACallbackAndWithout)
{
    for (const unsigned callbacks : {no_callbacks, hears_release}) {
        add_user({.name = "app", .callbacks = callbacks});
        for (const char *requester : {"app", "elsewhere"}) {
            grant(requester, ac, 7, 8, 0x30000005);
            insert("app", 0x30000006);
            session of(requester, ac, 7, 8);
            apply(of.answered(0x30000005), 0);
            EXPECT_EQ(found_in_table(requester, 0x30000005), nullptr);
            EXPECT_NE(held("app", 0x30000006), nullptr);
        }
    }
}

TEST_F(EportRemoval, LeavesTheRecordsThatOthersHaveOfTheEport)
{
    add_user({.name = "a"});
    add_user({.name = "b"});
    insert("a", 0x30000005);
    grant("b", ac, 7, 8, 0x30000005);
    session of("b", ac, 7, 8);
    apply(of.answered(0x30000005), 0);
    EXPECT_NE(held("a", 0x30000005), nullptr);
    EXPECT_EQ(held("b", 0x30000005), nullptr);
}

TEST_F(EportRemoval, OfAnUnknownKeyStillTellsTheUsers)
{
    add_user({.name = "app"});
    session of("other", l3intf_ac, 7, 8);
    EXPECT_EQ(apply(of.answered(0x90000005), 0), 0);
    EXPECT_THAT(
        trace(),
        ElementsAre("info sw_eport_session_release_reply: release db app_user: other, type: 144, keyid1: 7, keyid2: 8, "
                    "eport_id: 0x0, rv: -1.",
                    "info sw_eport_session_release_reply_foreach: reply destroy msg eport_id: 0x90000005.",
                    "app hears release other/144/7/8: other 0x90000005 event 2",
                    "info sw_eport_session_release_reply: release db app_user: other, type: 144, keyid1: 7, keyid2: 8, "
                    "eport_id: 0x0\n"));
}

TEST_F(EportRemoval, TellsTheSessionsIdAndRemovesTheMapsId)
{
    add_user({.name = "app"});
    grant("app", ac, 7, 8, 0x30000005);
    grant("app", ac, 7, 9, 0x30000006);
    session of("app", ac, 7, 8);
    apply(of.answered(0x30000006), 0);
    EXPECT_EQ(heard().back(), "app hears release app/48/7/8: app 0x30000006 event 2");
    EXPECT_EQ(udp_item(0x30000005), nullptr);
    EXPECT_NE(udp_item(0x30000006), nullptr);
    EXPECT_NE(app_item(ac, 7, 9), nullptr);
    EXPECT_NE(held("app", 0x30000005), nullptr);
    EXPECT_EQ(held("app", 0x30000006), nullptr);
}

TEST_F(EportRemoval, OfABareRequestIsHeardToo)
{
    add_user({.name = "app"});
    request("app", ac, 7, 8);
    session of("app", ac, 7, 8);
    EXPECT_EQ(apply(of, 0), 0);
    EXPECT_THAT(heard(), ElementsAre("app hears release app/48/7/8: app 0x0 event 2"));
    EXPECT_EQ(app_item(ac, 7, 8), nullptr);
}

// The key alone names an item, so whose session goes makes no difference.
TEST_F(EportRemoval, OfAnotherUsersSessionOfTheKeyEmptiesTheMapToo)
{
    add_user({.name = "holder"});
    grant("holder", ac, 7, 8, 0x30000005);
    session of("other", ac, 7, 8);
    EXPECT_EQ(apply(of.answered(0x30000006), 0), 0);
    EXPECT_EQ(sw_eport_index_map_hash_size(0), 0u);
    EXPECT_NE(held("holder", 0x30000005), nullptr);
}

// A user who has left the scope since the grant.
TEST_F(EportRemoval, ThatNobodyHearsEmptiesTheMapAllTheSame)
{
    sw_ebridge_list_item *user = add_user({.name = "app"});
    grant("other", ac, 7, 8, 0x30000005);
    ASSERT_EQ(sw_eport_index_map_hash_size(0), 2u);
    recording::reset();
    user->eport_data_type = 2;
    session of("other", ac, 7, 8);
    EXPECT_EQ(apply(of.answered(0x30000005), 0), 0);
    EXPECT_THAT(heard(), IsEmpty());
    EXPECT_EQ(sw_eport_index_map_hash_size(0), 0u);
}

// An evlan that was requested again keeps its items.
TEST_F(EportRemoval, WhileRequestedAgainRemovesBothItemsAllTheSame)
{
    add_user({.name = "app"});
    grant("app", ac, 7, 8, 0x30000005);
    request("app", ac, 7, 8);
    session of("app", ac, 7, 8);
    EXPECT_EQ(apply(of.answered(0x30000005), 0), 0);
    EXPECT_EQ(app_item(ac, 7, 8), nullptr);
    EXPECT_EQ(udp_item(0x30000005), nullptr);
}

TEST_F(EportRemoval, OfAPortRemovesTheReverseItemOfTheIdThatThePortTableGives)
{
    add_user({.name = "app"});
    grant("app", port, 0, 33, 0x10000005);
    recording::reset();
    add_row(33, 7u << 24 | 5);
    session of("app", port, 0, 33);
    EXPECT_EQ(apply(of.answered(0x10000005), 0), 0);
    EXPECT_EQ(sw_eport_index_map_hash_size(0), 0u);
    EXPECT_TRUE(
        traced("info sw_eport_session_release_reply: release db app_user: app, type: 16, keyid1: 0, keyid2: 33, "
               "eport_id: 0x10000005, rv: 0."));
}

// Aggregate 0 stands for an interface that the port table does not know, and that is not the id that was granted.
TEST_F(EportRemoval, OfAPortThatThePortTableDoesNotKnowLeavesTheReverseItem)
{
    add_user({.name = "app"});
    grant("app", port, 0, 33, 0x10000005);
    recording::reset();
    session of("app", port, 0, 33);
    EXPECT_EQ(apply(of.answered(0x10000005), 0), 0);
    EXPECT_EQ(app_item(port, 0, 33), nullptr);
    EXPECT_NE(udp_item(0x10000005), nullptr);
    EXPECT_EQ(held("app", 0x10000005), nullptr);
    EXPECT_TRUE(
        traced("info sw_eport_session_release_reply: release db app_user: app, type: 16, keyid1: 0, keyid2: 33, "
               "eport_id: 0x20000000, rv: -2."));
}

TEST_F(EportRemoval, IsHeardByEveryUserWithACallback)
{
    add_user({.name = "a"});
    add_user({.name = "b", .callbacks = hears_eport});
    add_user({.name = "c", .scope = 0});
    add_user({.name = "d", .scope = 2});
    session of("c", ac, 7, 8);
    apply(of.answered(0x30000005), 0);
    EXPECT_THAT(heard(), testing::UnorderedElementsAre("a hears release c/48/7/8: c 0x30000005 event 2",
                                                       "c hears release c/48/7/8: c 0x30000005 event 2"));
    EXPECT_EQ(g_diagnosis_stat.eport_release_cb, 2u);
}

// Whoever is out of scope and comes first in the registry must not end the walk for those behind it.
TEST_F(EportRemoval, IsHeardBehindUsersOutOfScope)
{
    for (const char *name : {"a", "b", "c", "d", "e", "f"})
        add_user({.name = name, .scope = 0});
    const strings order = registry_order();
    ASSERT_EQ(order.size(), 6u);
    const char *last = order.back().c_str();
    insert(last, 0x30000005);
    session of(last, ac, 7, 8);
    apply(of.answered(0x30000005), 0);
    EXPECT_EQ(heard().size(), 1u);
    EXPECT_EQ(held(last, 0x30000005), nullptr);
}

TEST_F(EportGrant, ReachesMapDatabaseAndCallbackBehindUsersOutOfScope)
{
    for (const char *name : {"a", "b", "c", "d", "e", "f"})
        add_user({.name = name, .scope = 0});
    const strings order = registry_order();
    ASSERT_EQ(order.size(), 6u);
    const char *last = order.back().c_str();
    grant(last, ac, 7, 8, 0x30000005);
    EXPECT_EQ(heard().size(), 1u);
    EXPECT_NE(held(last, 0x30000005), nullptr);
    ASSERT_NE(app_item(ac, 7, 8), nullptr);
    EXPECT_EQ(app_item(ac, 7, 8)->value[0], 0x30000005u);
}

TEST_F(EportRemoval, BeforeAnyUserIsCounted)
{
    session of("app", ac, 7, 8);
    EXPECT_EQ(apply(of, 0), 0);
    EXPECT_EQ(g_diagnosis_stat.eport_del_reply, 1u);
}

// ---- callbacks that read the counters

TEST_F(EportCounters, WithinAGrantOmitTheCallbackThatReadsThem)
{
    add_user({.name = "a"});
    add_user({.name = "b"});
    expect_omitted_by_their_readers(&sw_diagnosis_stat::eport_reply_cb, &sw_diagnosis_stat::eport_add_reply,
                                    [] { grant("a", ac, 7, 8, 0x30000005); });
}

TEST_F(EportCounters, WithinARemovalOmitTheCallbackThatReadsThem)
{
    add_user({.name = "a"});
    add_user({.name = "b"});
    session of("a", ac, 7, 8);
    expect_omitted_by_their_readers(&sw_diagnosis_stat::eport_release_cb, &sw_diagnosis_stat::eport_del_reply,
                                    [&] { apply(of.answered(0x30000005), 0); });
}

TEST_F(EportCounters, WithinARefusalHoldTheReleaseAlready)
{
    add_user({.name = "app"});
    const auto read = [] {
        return readings{g_diagnosis_stat.eport_err_msg, g_diagnosis_stat.eport_total_release,
                        g_diagnosis_stat.eport_auto_release, g_diagnosis_stat.eport_reply_cb,
                        g_diagnosis_stat.eport_add_reply};
    };
    session of("app", ac, 7, 8);
    EXPECT_THAT(seen_within_callbacks(read, [&] { apply(of.refused(), 1); }), ElementsAre(readings{1, 1, 1, 0, 0}));
    EXPECT_EQ(read(), (readings{1, 1, 1, 1, 1}));
}

// ---- callbacks that call the library again

TEST_F(EportReentry, RequestWithinTheReleaseCallbackDoesNotProtectTheItems)
{
    add_user({.name = "app"});
    grant("app", ac, 7, 8, 0x30000005);
    inside_callback = [] { request("app", ac, 7, 8); };
    session of("app", ac, 7, 8);
    EXPECT_EQ(apply(of.answered(0x30000005), 0), 0);
    EXPECT_EQ(recording::calls_of("qz_mom_hmset").size(), 1u);
    EXPECT_EQ(sw_eport_index_map_hash_size(0), 0u);
    // The answer to that request finds no item, and makes it again.
    inside_callback = nullptr;
    grant("app", ac, 7, 8, 0x30000009);
    EXPECT_EQ(app_item(ac, 7, 8)->value[0], 0x30000009u);
    EXPECT_NE(udp_item(0x30000009), nullptr);
}

TEST_F(EportReentry, ReleaseWithinTheGrantCallbackTakesTheNewRecord)
{
    add_user({.name = "app"});
    request("app", ac, 7, 8);
    inside_callback = [] {
        app_key key("app", ac, 7, 8);
        EXPECT_EQ(sw_eport_release_direct(&key), 0);
    };
    EXPECT_EQ(grant("app", ac, 7, 8, 0x30000005), 0);
    EXPECT_EQ(held("app", 0x30000005), nullptr);
    EXPECT_EQ(app_item(ac, 7, 8)->ds_flag, 3u);
    EXPECT_EQ(recording::calls_of("qz_mom_del").size(), 2u);
}

TEST_F(EportReentry, RecordDeletedWithinTheReleaseCallbackIsNoHarm)
{
    add_user({.name = "app"});
    grant("app", ac, 7, 8, 0x30000005);
    inside_callback = [] {
        inside_callback = nullptr;
        session again("app", ac, 7, 8);
        apply(again.answered(0x30000005), 0);
        sw_eport_clear_all_db();
    };
    session of("app", ac, 7, 8);
    EXPECT_EQ(apply(of.answered(0x30000005), 0), 0);
    EXPECT_EQ(sw_eport_index_map_hash_size(0), 0u);
    EXPECT_EQ(sw_eport_hash_size(0), 0u);
}

TEST_F(EportReentry, RequestWithinTheRefusalCallbackIsWritten)
{
    add_user({.name = "app"});
    request("app", ac, 7, 8);
    recording::reset();
    inside_callback = [] { request("app", ac, 7, 8); };
    session of("app", ac, 7, 8);
    EXPECT_EQ(apply(of.refused(), 1), 0);
    ASSERT_EQ(recording::calls().size(), 2u);
    EXPECT_EQ(recording::calls()[0].function, "qz_mom_del");
    EXPECT_EQ(recording::calls()[1].function, "qz_mom_hmset");
}

TEST_F(EportReentry, ManyRequestsWithinAGrantCallbackGrowTheMapSafely)
{
    add_user({.name = "app"});
    inside_callback = [] {
        inside_callback = nullptr;
        for (int32_t keyid2 = 1000; keyid2 < 1100; ++keyid2)
            request("app", ac, 7, keyid2);
    };
    EXPECT_EQ(grant("app", ac, 7, 8, 0x30000005), 0);
    EXPECT_EQ(sw_eport_index_map_hash_size(0), 102u);
    EXPECT_NE(app_item(ac, 7, 8), nullptr);
}

TEST_F(EportReentry, AUserRegisteredAgainWithinItsCallbackHearsOn)
{
    add_user({.name = "app"});
    request("app", ac, 7, 8);
    inside_callback = [] {
        inside_callback = nullptr;
        ebridge_args args{};
        args.user_name = "app";
        args.handle = recording::handle();
        args.eport_data_type = 1;
        EXPECT_EQ(sw_ebridge_init(&args), 0);
    };
    EXPECT_EQ(grant("app", ac, 7, 8, 0x30000005), 0);
    session of("app", ac, 7, 8);
    EXPECT_EQ(apply(of.answered(0x30000005), 0), 0);
    EXPECT_EQ(sw_eport_index_map_hash_size(0), 0u);
    EXPECT_EQ(sw_eport_hash_size(0), 0u);
}

// ---- users of the other slots

TEST_F(EportGrant, IsForTheUsersOfSlot0)
{
    add_to_other_slots(add_user({.name = "app"}));
    grant("app", ac, 7, 8, 0x30000005);
    EXPECT_EQ(heard().size(), 1u);
    EXPECT_EQ(g_diagnosis_stat.eport_reply_cb, 1u);
    for (uint32_t slot = 1; slot < SW_EBRIDGE_SLOTS; ++slot) {
        EXPECT_EQ(sw_eport_index_map_hash_size(slot), 0u);
        EXPECT_EQ(sw_eport_hash_size(slot), 0u);
    }
}

TEST_F(EportRefusal, IsForTheUsersOfSlot0)
{
    add_to_other_slots(add_user({.name = "app"}));
    session of("app", ac, 7, 8);
    apply(of.refused(), 1);
    EXPECT_EQ(heard().size(), 1u);
    EXPECT_EQ(recording::calls_of("qz_mom_del").size(), 1u);
    EXPECT_EQ(g_diagnosis_stat.eport_err_msg, 1u);
}

TEST_F(EportRemoval, IsForTheUsersAndItemsOfSlot0)
{
    add_to_other_slots(add_user({.name = "app"}));
    grant("app", ac, 7, 8, 0x30000005);
    const sw_eport_index_map forward = *app_item(ac, 7, 8), reverse = *udp_item(0x30000005);
    for (uint32_t slot = 1; slot < SW_EBRIDGE_SLOTS; ++slot) {
        ASSERT_NE(sw_eport_index_map_update_item(slot, &forward), nullptr);
        ASSERT_NE(sw_eport_index_map_update_item(slot, &reverse), nullptr);
        ASSERT_NE(sw_eport_db_insert_glb_item(slot, "app", 0x30000005), nullptr);
    }
    recording::reset();
    session of("app", ac, 7, 8);
    apply(of.answered(0x30000005), 0);
    EXPECT_EQ(heard().size(), 1u);
    EXPECT_EQ(g_diagnosis_stat.eport_release_cb, 1u);
    EXPECT_EQ(sw_eport_index_map_hash_size(0), 0u);
    for (uint32_t slot = 1; slot < SW_EBRIDGE_SLOTS; ++slot) {
        EXPECT_EQ(sw_eport_index_map_hash_size(slot), 2u);
        EXPECT_EQ(sw_eport_hash_size(slot), 1u);
    }
}

}  // namespace
