// What a session change does: the subscription callback, grants, refusals and removals, and who hears of them.
#include "evlan_fixture.hpp"

namespace
{

using namespace evlan_test;
using EvlanSubscription = EvlanTest;
using EvlanGrant = EvlanTest;
using EvlanRefusal = EvlanTest;
using EvlanRemoval = EvlanTest;
using EvlanReentry = EvlanTest;
using EvlanCounters = EvlanTest;

// ---- the subscription callback

std::string func_line(sw_ebridge_mom_func func) { return bridge_test::func_line("EVLAN session", func); }

// Whether or not it also ends a scan.
void expect_refused_at_any_end(notice &msg, const char *text)
{
    for (const int32_t end : {QZ_MOM_END_NONE, QZ_MOM_END_SCAN}) {
        recording::reset();
        msg.end = end;
        EXPECT_EQ(deliver(msg, &with_func), -2);
        EXPECT_THAT(trace(), ElementsAre(arrival(msg, &with_func), refusal(text)));
    }
}

std::string scan_end_line(sw_ebridge_mom_func func)
{
    return callback_line("info", format("scan end callback %p.", address(func)));
}

TEST_F(EvlanSubscription, RefusesANullMessage)
{
    add_user({.name = "app"});
    EXPECT_EQ(sw_vlan_mom_msg_evlan_session_reply(recording::handle(), nullptr, nullptr), -2);
    EXPECT_THAT(trace(), ElementsAre(refusal("Assert:MOM, msg is NULL.")));
}

TEST_F(EvlanSubscription, RefusesNullArgumentsBeforeItLooksAtTheError)
{
    add_user({.name = "app"});
    notice msg(QZ_MOM_CMD_HMSET);
    msg.error = -105;
    EXPECT_EQ(deliver(msg, nullptr), -2);
    EXPECT_THAT(trace(), ElementsAre(refusal("Assert:MOM, args is NULL.")));
}

TEST_F(EvlanSubscription, RefusesAnErrorBeforeItLooksAtTheCommand)
{
    add_user({.name = "app"});
    notice msg(QZ_MOM_CMD_UNSUBSCRIBED);
    msg.error = -105;
    EXPECT_EQ(deliver(msg, &with_func), -2);
    EXPECT_THAT(trace(), ElementsAre(refusal("Assert:MOM, error is -105.")));
    EXPECT_THAT(func_calls, IsEmpty());
}

TEST_F(EvlanSubscription, EndsWithoutAWordToTheUserFunction)
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

TEST_F(EvlanSubscription, ConfirmationReachesTheUserFunction)
{
    add_user({.name = "app"});
    notice msg(QZ_MOM_CMD_SUBSCRIBED);
    msg.db = 0x1f;
    EXPECT_EQ(deliver(msg, &with_func), 0);
    EXPECT_THAT(trace(), ElementsAre(arrival(msg, &with_func), func_line(user_func), "user function"));
    expect_handed_on(msg);
}

TEST_F(EvlanSubscription, WorksWithoutAUserFunction)
{
    add_user({.name = "app"});
    notice msg(QZ_MOM_CMD_SUBSCRIBED);
    EXPECT_EQ(deliver(msg, &without_func), 0);
    EXPECT_THAT(trace(), ElementsAre(arrival(msg, &without_func), func_line(nullptr)));
}

TEST_F(EvlanSubscription, IgnoresOtherCommands)
{
    add_user({.name = "app"});
    for (const int32_t command : {0, 1, 2, 5, 7, 30, -1}) {
        recording::reset();
        session of("app", vxlan, 7);
        notice msg(command);
        msg.value = &of.answered(0x20000005).base;
        EXPECT_EQ(deliver(msg, &with_func), 0);
        EXPECT_THAT(trace(), ElementsAre(arrival(msg, &with_func)));
    }
    EXPECT_THAT(func_calls, IsEmpty());
    EXPECT_EQ(g_diagnosis_stat.evlan_add_reply, 0u);
}

TEST_F(EvlanSubscription, EndOfAScanReachesTheUserFunctionWithWhateverCommand)
{
    add_user({.name = "app"});
    for (const int32_t command : {0, 1, 30}) {
        recording::reset();
        notice msg(command);
        msg.end = QZ_MOM_END_SCAN;
        EXPECT_EQ(deliver(msg, &with_func), 0);
        EXPECT_THAT(trace(), ElementsAre(arrival(msg, &with_func), func_line(user_func), "user function",
                                         scan_end_line(user_func)));
    }
    EXPECT_EQ(func_calls.size(), 3u);
}

TEST_F(EvlanSubscription, AppliesNoSessionOfAConfirmationOrAnEnd)
{
    add_user({.name = "app"});
    session of("app", vxlan, 7);
    of.answered(0x20000005);
    for (const int32_t command : {QZ_MOM_CMD_SUBSCRIBED, QZ_MOM_CMD_SET}) {
        recording::reset();
        notice msg(command);
        msg.end = QZ_MOM_END_SCAN;
        msg.value = &of.base;
        EXPECT_EQ(deliver(msg, &with_func), 0);
        EXPECT_THAT(trace(), ElementsAre(arrival(msg, &with_func), func_line(user_func), "user function",
                                         scan_end_line(user_func)));
    }
    EXPECT_EQ(func_calls.size(), 2u);
    EXPECT_EQ(g_diagnosis_stat.evlan_add_reply + g_diagnosis_stat.evlan_del_reply, 0u);
    EXPECT_EQ(app_item(vxlan, 7), nullptr);
}

TEST_F(EvlanSubscription, EndOfAnExpiryIsNoEndOfAScan)
{
    add_user({.name = "app"});
    notice msg(QZ_MOM_CMD_NONE);
    msg.end = QZ_MOM_END_EXPIRY;
    EXPECT_EQ(deliver(msg, &with_func), 0);
    EXPECT_THAT(func_calls, IsEmpty());
}

class EvlanSubscriptionOfWrites : public EvlanTest, public testing::WithParamInterface<int32_t>
{
};

TEST_P(EvlanSubscriptionOfWrites, RunTheUserFunctionThenApplyTheSession)
{
    add_user({.name = "app"});
    session of("app", vxlan, 7);
    of.answered(0x20000005);
    session_notice msg(GetParam(), of);
    msg.db = 8;
    EXPECT_EQ(deliver(msg, &with_func), 0);
    const strings all = trace();
    ASSERT_GT(all.size(), 4u);
    EXPECT_EQ(all[0], arrival(msg, &with_func));
    EXPECT_EQ(all[1], func_line(user_func));
    EXPECT_EQ(all[2], "user function");
    EXPECT_EQ(all[3], "info sw_evlan_session_reply_add: user: app, keyid: 7, reply value: 0x20000005.");
    EXPECT_THAT(heard(), ElementsAre("app hears evlan app/32/7: app 0x20000005"));
    expect_handed_on(msg);
    ASSERT_NE(app_item(vxlan, 7), nullptr);
    EXPECT_EQ(app_item(vxlan, 7)->session_arg, 8u);
}

TEST_P(EvlanSubscriptionOfWrites, NeedAValue)
{
    add_user({.name = "app"});
    notice msg(GetParam());
    expect_refused_at_any_end(msg, "Assert:MOM, value is NULL.");
    EXPECT_THAT(func_calls, IsEmpty());
}

TEST_P(EvlanSubscriptionOfWrites, NeedAValueWithoutError)
{
    add_user({.name = "app"});
    session of("app", vxlan, 7);
    session_notice msg(GetParam(), of.answered(0x20000005));
    msg.hash.error = -101;
    expect_refused_at_any_end(msg, "Assert:MOM, error is -101.");
    EXPECT_THAT(func_calls, IsEmpty());
}

TEST_P(EvlanSubscriptionOfWrites, NeedADecodedSession)
{
    add_user({.name = "app"});
    session of("app", vxlan, 7);
    session_notice msg(GetParam(), of);
    msg.hash.record = nullptr;
    expect_refused_at_any_end(msg, "Assert:evlan session is NULL.");
    EXPECT_THAT(func_calls, IsEmpty());
}

TEST_P(EvlanSubscriptionOfWrites, WithoutIndexAreNoSessions)
{
    add_user({.name = "app"});
    session of("app", vxlan, 7);
    of.answered(0x20000005).index = nullptr;
    EXPECT_EQ(deliver(session_notice(GetParam(), of), &with_func), -2);
    EXPECT_THAT(recording::logged(100), ElementsAre("Assert:evlan session is NULL."));
    EXPECT_EQ(g_diagnosis_stat.evlan_add_reply, 0u);
}

TEST_P(EvlanSubscriptionOfWrites, OfABareRequestAreNoFailure)
{
    add_user({.name = "app"});
    session of("app", vxlan, 7);
    of.request = 1;
    EXPECT_EQ(deliver(session_notice(GetParam(), of), &with_func), 0);
    EXPECT_EQ(func_calls.size(), 1u);
    EXPECT_EQ(app_item(vxlan, 7), nullptr);
}

TEST_P(EvlanSubscriptionOfWrites, MayCarryTheEndOfAScanToo)
{
    add_user({.name = "app"});
    session of("app", vxlan, 7);
    session_notice msg(GetParam(), of.answered(0x20000005));
    msg.end = QZ_MOM_END_SCAN;
    EXPECT_EQ(deliver(msg, &with_func), 0);
    const strings all = trace();
    ASSERT_GT(all.size(), 5u);
    EXPECT_EQ(all[2], "user function");
    EXPECT_EQ(all[3], scan_end_line(user_func));
    EXPECT_EQ(all[4], "info sw_evlan_session_reply_add: user: app, keyid: 7, reply value: 0x20000005.");
    EXPECT_EQ(heard().size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Commands, EvlanSubscriptionOfWrites, testing::Values(4, 6));

class EvlanSubscriptionOfRemovals : public EvlanTest, public testing::WithParamInterface<int32_t>
{
};

TEST_P(EvlanSubscriptionOfRemovals, RunTheUserFunctionThenRemove)
{
    add_user({.name = "app"});
    grant("app", vxlan, 7, 0x20000005);
    recording::reset();
    session of("app", vxlan, 7);
    session_notice msg(GetParam(), of.answered(0x20000005));
    EXPECT_EQ(deliver(msg, &with_func), 0);
    const strings all = trace();
    ASSERT_GT(all.size(), 4u);
    EXPECT_EQ(all[0], arrival(msg, &with_func));
    EXPECT_EQ(all[1], func_line(user_func));
    EXPECT_EQ(all[2], "user function");
    EXPECT_THAT(heard(), ElementsAre("app hears release app/32/7: app 0x20000005 event 2"));
    expect_handed_on(msg);
    EXPECT_EQ(app_item(vxlan, 7), nullptr);
    EXPECT_EQ(g_diagnosis_stat.evlan_del_reply, 1u);
}

TEST_P(EvlanSubscriptionOfRemovals, NeedASession)
{
    add_user({.name = "app"});
    notice msg(GetParam());
    expect_refused_at_any_end(msg, "Assert:evlan session is NULL.");
    EXPECT_THAT(func_calls, IsEmpty());
}

TEST_P(EvlanSubscriptionOfRemovals, MayCarryTheEndOfAScanToo)
{
    add_user({.name = "app"});
    grant("app", vxlan, 7, 0x20000005);
    recording::reset();
    session of("app", vxlan, 7);
    session_notice msg(GetParam(), of.answered(0x20000005));
    msg.end = QZ_MOM_END_SCAN;
    EXPECT_EQ(deliver(msg, &with_func), 0);
    const strings all = trace();
    ASSERT_GT(all.size(), 5u);
    EXPECT_EQ(all[2], "user function");
    EXPECT_EQ(all[3], scan_end_line(user_func));
    EXPECT_EQ(all[4], "info sw_evlan_app2udp: Mapping APP-index[32+0x7] to EVLAN-index[0x20000005].");
    EXPECT_EQ(heard().size(), 1u);
    EXPECT_EQ(app_item(vxlan, 7), nullptr);
    EXPECT_EQ(g_diagnosis_stat.evlan_del_reply, 1u);
}

TEST_P(EvlanSubscriptionOfRemovals, WithoutIndexAreNoSessions)
{
    add_user({.name = "app"});
    session of("app", vxlan, 7);
    of.index = nullptr;
    EXPECT_EQ(deliver(session_notice(GetParam(), of), &with_func), -2);
    EXPECT_THAT(recording::logged(100), ElementsAre("Assert:evlan session is NULL."));
    EXPECT_EQ(g_diagnosis_stat.evlan_del_reply, 0u);
}

INSTANTIATE_TEST_SUITE_P(Commands, EvlanSubscriptionOfRemovals, testing::Values(3, 27));

TEST_F(EvlanSubscription, AppliesAChangeOnceForEachDelivery)
{
    add_user({.name = "app"});
    session of("app", vxlan, 7);
    of.answered(0x20000005);
    deliver(session_notice(QZ_MOM_CMD_HMSET, of), &without_func);
    deliver(session_notice(QZ_MOM_CMD_HMSET, of), &with_func);
    EXPECT_EQ(g_diagnosis_stat.evlan_add_reply, 2u);
    EXPECT_EQ(heard().size(), 2u);
}

// ---- a session change

TEST_F(EvlanGrant, OfNoSessionIsRefused)
{
    add_user({.name = "app"});
    session without("app", vxlan, 7);
    without.answered(0x20000005).index = nullptr;
    for (const int32_t add : {0, 1}) {
        EXPECT_EQ(sw_evlan_session_reply(4, nullptr, add), -2);
        EXPECT_EQ(sw_evlan_session_reply(4, &without, add), -2);
    }
    EXPECT_EQ(recording::logged(100).size(), 4u);
    EXPECT_THAT(recording::logged(), Each(StartsWith("Assert:")));
    EXPECT_EQ(g_diagnosis_stat.evlan_add_reply + g_diagnosis_stat.evlan_del_reply, 0u);
}

TEST_F(EvlanGrant, WaitsForTheAnswer)
{
    add_user({.name = "app"});
    session bare("app", vxlan, 7);
    bare.request = 1;
    bare.reply_value = 0x20000005;
    EXPECT_EQ(apply(bare, 1), -2);
    EXPECT_THAT(trace(), IsEmpty());
    EXPECT_EQ(g_diagnosis_stat.evlan_add_reply, 0u);
    EXPECT_EQ(app_item(vxlan, 7), nullptr);
}

TEST_F(EvlanGrant, TakesAnyAnswerButZero)
{
    add_user({.name = "app"});
    session of("app", vxlan, 7);
    of.answered(0x20000005).reply = -3;
    EXPECT_EQ(apply(of, 1), 0);
    EXPECT_EQ(g_diagnosis_stat.evlan_add_reply, 1u);
}

TEST_F(EvlanGrant, OfARequestedKeyFillsTheItemInPlace)
{
    add_user({.name = "app"});
    request("app", vxlan, 0x7b);
    sw_evlan_index_map *item = app_item(vxlan, 0x7b);
    recording::reset();
    session of("app", vxlan, 0x7b);
    of.priority = U_BRIDGE__RES_PRIORITY__LEVEL_1;
    EXPECT_EQ(apply(of.answered(0x20000005), 1), 0);
    EXPECT_THAT(
        trace(),
        ElementsAre("info sw_evlan_session_reply_add: user: app, keyid: 123, reply value: 0x20000005.",
                    "info sw_evlan_session_reply_db_update: app_index-user: app, type: 32, keyid: 123, "
                    "evlan_index-evlan_id: 0x20000005(priority: 1).",
                    "info sw_evlan_session_reply_db_update: updating old app2udp data, type: 0x20, keyid: "
                    "123(old_evlan_id: 0x0, new_evlan_id: 0x20000005).",
                    "info sw_evlan_index_map_create_item: Insert EVLAN Index map for app, UDPIndex[0x20000005] map to "
                    "appIndex[0x7b].\n",
                    "info sw_evlan_db_insert_item: Insert user[app].evlan[0x20000005]!",
                    "info sw_evlan_session_reply_add_foreach: successfully reply evlan_id: 0x20000005.",
                    "app hears evlan app/32/123: app 0x20000005"));
    EXPECT_EQ(app_item(vxlan, 0x7b), item);
    EXPECT_EQ(item->value[0], 0x20000005u);
    EXPECT_EQ(item->ds_flag, 3u);
    EXPECT_EQ(item->session_arg, 0u);
    EXPECT_EQ(item->priority, 0u);
    EXPECT_EQ(g_diagnosis_stat.evlan_add_reply, 1u);
    EXPECT_EQ(g_diagnosis_stat.evlan_reply_evlancb, 1u);
    EXPECT_EQ(g_diagnosis_stat.evlan_reply_vlancb, 0u);
}

TEST_F(EvlanGrant, OfAnUnknownKeyMakesBothItems)
{
    const sw_ebridge_list_item *owner = add_user({.name = "app", .callbacks = no_callbacks});
    session of("app", l3vpn, 7);
    of.priority = U_BRIDGE__RES_PRIORITY__LEVEL_2;
    EXPECT_EQ(apply(of.answered(0x80000005), 1, 8), 0);
    EXPECT_THAT(
        trace(),
        ElementsAre("info sw_evlan_session_reply_add: user: app, keyid: 7, reply value: 0x80000005.",
                    "info sw_evlan_session_reply_db_update: app_index-user: app, type: 128, keyid: 7, "
                    "evlan_index-evlan_id: 0x80000005(priority: 2).",
                    "info sw_evlan_index_map_create_item: Insert EVLAN Index map for app, appIndex[0x7] map to "
                    "UDPIndex[0x80000005], ds_flag[0]\n",
                    "info sw_evlan_index_map_create_item: Insert EVLAN Index map for app, UDPIndex[0x80000005] map to "
                    "appIndex[0x7].\n",
                    "info sw_evlan_db_insert_item: Insert user[app].evlan[0x80000005]!"));
    const sw_evlan_index_map *forward = app_item(l3vpn, 7);
    const sw_evlan_index_map *reverse = udp_item(0x80000005);
    ASSERT_TRUE(forward && reverse);
    EXPECT_EQ(forward->value[0], 0x80000005u);
    EXPECT_EQ(forward->ds_flag, 1u);
    EXPECT_EQ(reverse->value[0], 128u);
    EXPECT_EQ(reverse->value[1], 7u);
    EXPECT_EQ(reverse->ds_flag, 0u);
    for (const auto *item : {forward, reverse}) {
        EXPECT_EQ(item->session_arg, 8u);
        EXPECT_EQ(item->priority, 2u);
        EXPECT_STREQ(item->user_name, "app");
    }
    EXPECT_EQ(list_length(owner->evlan_maps), 2u);
}

TEST_F(EvlanGrant, HeardAgainUpdatesBothItems)
{
    add_user({.name = "app", .callbacks = no_callbacks});
    request("app", vxlan, 7);
    grant("app", vxlan, 7, 0x20000005, 4);
    app_item(vxlan, 7)->ds_flag = SW_INDEX_MAP_REQUESTED;
    recording::reset();
    session of("other", vxlan, 7);
    of.priority = U_BRIDGE__RES_PRIORITY__LEVEL_1;
    EXPECT_EQ(apply(of.answered(0x20000005), 1, 8), 0);
    EXPECT_THAT(
        trace(),
        ElementsAre("info sw_evlan_session_reply_add: user: other, keyid: 7, reply value: 0x20000005.",
                    "info sw_evlan_session_reply_db_update: app_index-user: other, type: 32, keyid: 7, "
                    "evlan_index-evlan_id: 0x20000005(priority: 1).",
                    "info sw_evlan_index_map_update_item: Update EVLAN Index map for other, appIndex[0x7] map to "
                    "UDPIndex[0x20000005], ds_flag[2]\n",
                    "info sw_evlan_index_map_update_item: Update EVLAN Index map for other, UDPIndex[0x20000005] map "
                    "to appIndex[0x7].\n"));
    const sw_evlan_index_map *forward = app_item(vxlan, 7);
    EXPECT_STREQ(forward->user_name, "other");
    EXPECT_EQ(forward->session_arg, 8u);
    EXPECT_EQ(forward->priority, 1u);
    EXPECT_EQ(forward->ds_flag, 3u);
}

TEST_F(EvlanGrant, OfAnotherIdReplacesTheOldReverseItem)
{
    add_user({.name = "app", .callbacks = no_callbacks});
    grant("app", vxlan, 7, 0x20000003, 4);
    app_item(vxlan, 7)->ds_flag = 0;
    recording::reset();
    session of("other", vxlan, 7);
    of.priority = U_BRIDGE__RES_PRIORITY__LEVEL_2;
    EXPECT_EQ(apply(of.answered(0x20000005), 1, 8), 0);
    EXPECT_THAT(
        trace(),
        ElementsAre("info sw_evlan_session_reply_add: user: other, keyid: 7, reply value: 0x20000005.",
                    "info sw_evlan_session_reply_db_update: app_index-user: other, type: 32, keyid: 7, "
                    "evlan_index-evlan_id: 0x20000005(priority: 2).",
                    "info sw_evlan_session_reply_db_update: updating old app2udp data, type: 0x20, keyid: "
                    "7(old_evlan_id: 0x20000003, new_evlan_id: 0x20000005).",
                    "info sw_evlan_session_reply_db_update: deleting old udp2app data, evlan_id: 0x20000003.",
                    "info sw_evlan_index_map_delete_item: Remove EVLAN Index map for app, UDPIndex[0x20000003] map to "
                    "appIndex[0x7].\n",
                    "info sw_evlan_index_map_create_item: Insert EVLAN Index map for other, UDPIndex[0x20000005] map "
                    "to appIndex[0x7].\n",
                    "info sw_evlan_db_insert_item: Insert user[app].evlan[0x20000005]!"));
    const sw_evlan_index_map *forward = app_item(vxlan, 7);
    EXPECT_EQ(forward->value[0], 0x20000005u);
    EXPECT_EQ(forward->ds_flag, 1u);
    EXPECT_STREQ(forward->user_name, "app");
    EXPECT_EQ(forward->session_arg, 4u);
    EXPECT_EQ(forward->priority, 0u);
    EXPECT_EQ(udp_item(0x20000003), nullptr);
    const sw_evlan_index_map *reverse = udp_item(0x20000005);
    ASSERT_NE(reverse, nullptr);
    EXPECT_STREQ(reverse->user_name, "other");
    EXPECT_EQ(reverse->session_arg, 8u);
    EXPECT_EQ(reverse->priority, 2u);
    EXPECT_EQ(reverse->ds_flag, 0u);
}

TEST_F(EvlanGrant, OfAnotherIdLeavesAReverseItemOfAnotherKeyAlone)
{
    add_user({.name = "app", .callbacks = no_callbacks});
    grant("app", vxlan, 7, 0x20000003);
    for (const auto &[type, keyid] : {std::pair{vxlan, 8u}, std::pair{vlan, 7u}}) {
        udp_item(0x20000003)->value[0] = type;
        udp_item(0x20000003)->value[1] = keyid;
        app_item(vxlan, 7)->value[0] = 0x20000003;
        recording::reset();
        EXPECT_EQ(grant("app", vxlan, 7, 0x20000005), 0);
        ASSERT_NE(udp_item(0x20000003), nullptr);
        EXPECT_THAT(recording::logged(), Not(Contains("deleting old udp2app data, evlan_id: 0x20000003.")));
        EXPECT_NE(udp_item(0x20000005), nullptr);
    }
}

TEST_F(EvlanGrant, OfAnIdThatAnotherKeyHadTakesItsReverseItem)
{
    add_user({.name = "app"});
    grant("app", vxlan, 7, 0x20000005);
    grant("app", vxlan, 8, 0x20000005);
    EXPECT_EQ(app_item(vxlan, 7)->value[0], 0x20000005u);
    EXPECT_EQ(app_item(vxlan, 8)->value[0], 0x20000005u);
    EXPECT_EQ(udp_item(0x20000005)->value[1], 8u);
    session of("app", vxlan, 8);
    apply(of.answered(0x20000005), 0);
    EXPECT_EQ(udp_item(0x20000005), nullptr);
    EXPECT_NE(app_item(vxlan, 7), nullptr);
}

TEST_F(EvlanGrant, FillsTheMapOnceAndTheDatabaseOfEveryUser)
{
    for (const char *name : {"a", "b", "c"})
        add_user({.name = name});
    EXPECT_EQ(grant("b", vxlan, 7, 0x20000005), 0);
    size_t passes = 0;
    for (const std::string &line : recording::logged())
        passes += line.rfind("app_index-user: ", 0) == 0;
    EXPECT_EQ(passes, 1u);
    strings expected;
    for (const std::string &name : registry_order()) {
        EXPECT_NE(sw_evlan_db_get_item(0, name.c_str(), 0x20000005), nullptr) << name;
        expected.push_back(name + " hears evlan b/32/7: b 0x20000005");
    }
    EXPECT_EQ(heard(), expected);
    EXPECT_EQ(g_diagnosis_stat.evlan_reply_evlancb, 3u);
    EXPECT_EQ(g_diagnosis_stat.evlan_add_reply, 1u);
}

class EvlanGrantOfUnderlay : public EvlanTest, public testing::WithParamInterface<uint32_t>
{
};

TEST_P(EvlanGrantOfUnderlay, CallsTheVlanCallbackWithTheNumber)
{
    add_user({.name = "app"});
    EXPECT_EQ(grant("app", GetParam(), 77, evlan_id(GetParam(), 0xabcdef)), 0);
    const strings all = trace();
    ASSERT_GE(all.size(), 2u);
    EXPECT_EQ(all[all.size() - 2],
              format("info sw_evlan_session_reply_add_foreach: success  fully reply vlan_id: 0xabcdef, type: %d.",
                     GetParam()));
    EXPECT_EQ(all.back(), format("app hears vlan app/%u/77: 11259375", GetParam()));
    EXPECT_EQ(heard().size(), 1u);
    EXPECT_EQ(g_diagnosis_stat.evlan_reply_vlancb, 1u);
    EXPECT_EQ(g_diagnosis_stat.evlan_reply_evlancb, 0u);
}

INSTANTIATE_TEST_SUITE_P(Underlay, EvlanGrantOfUnderlay, testing::Values(vlan, l3intf_sub));

TEST_F(EvlanGrant, DecidesTheCallbackByTheGrantedIdNotByTheKey)
{
    add_user({.name = "app"});
    EXPECT_EQ(grant("app", vxlan, 7, 0x10000005), 0);
    EXPECT_EQ(grant("app", vlan, 8, 0x20000005), 0);
    EXPECT_THAT(heard(), ElementsAre("app hears vlan app/32/7: 5", "app hears evlan app/16/8: app 0x20000005"));
    EXPECT_TRUE(recording::has_logged("success  fully reply vlan_id: 0x5, type: 32.", 40));
}

TEST_F(EvlanGrant, CountsOnlyCallbacksThatExist)
{
    add_user({.name = "app", .callbacks = hears_release});
    grant("app", vlan, 7, 0x10000005);
    grant("app", vxlan, 7, 0x20000005);
    EXPECT_THAT(heard(), IsEmpty());
    EXPECT_THAT(recording::logged(), Not(Contains(testing::HasSubstr("fully reply"))));
    EXPECT_EQ(g_diagnosis_stat.evlan_reply_vlancb, 0u);
    EXPECT_EQ(g_diagnosis_stat.evlan_reply_evlancb, 0u);
    EXPECT_NE(sw_evlan_db_get_item(0, "app", 0x20000005), nullptr);
}

TEST_F(EvlanGrant, KeepsARecordThatIsThere)
{
    add_user({.name = "app"});
    sw_evlan_attr *mine = insert("app", 0x20000005);
    mine->class_id = 9;
    grant("app", vxlan, 7, 0x20000005);
    EXPECT_EQ(sw_evlan_db_get_item(0, "app", 0x20000005), mine);
    EXPECT_EQ(mine->class_id, 9u);
}

TEST_F(EvlanGrant, WithFailingAllocationsStillReachesTheCallbacks)
{
    add_user({.name = "app"});
    uint32_t failures = 0;
    for (uint32_t nth = 1; nth <= 8; ++nth) {
        const uint32_t id = 0x20000000 | nth;
        const strings errors = errors_when_allocation_fails(
            nth, [&] { EXPECT_EQ(grant("app", vxlan, static_cast<int32_t>(nth), id), 0); });
        EXPECT_EQ(heard(), strings{format("app hears evlan app/32/%u: app 0x%x", nth, id)});
        EXPECT_THAT(errors, Each(StartsWith("Assert:")));
        failures += !errors.empty();
    }
    EXPECT_GE(failures, 3u);
}

TEST_F(EvlanGrant, WithoutAnyMemoryIsReported)
{
    add_user({.name = "app"});
    recording::fail_allocation(1, true);
    EXPECT_EQ(grant("app", vxlan, 7, 0x20000005), 0);
    recording::fail_allocation(0);
    EXPECT_THAT(recording::logged(100),
                ElementsAre("Assert:EVLAN Index map failed, user is app, type is 0, keyid1 is 0x7, keyid2 is 0x0.",
                            "Assert:EVLAN Index map failed",
                            "Assert:EVLAN Index map failed, user is app, type is 1, keyid1 is 0x0, keyid2 is 0x0.",
                            "Assert:EVLAN Index map failed", "Assert:Insert user[app].evlan[0x20000005] failed!"));
    EXPECT_EQ(heard().size(), 1u);
}

TEST_F(EvlanGrant, BeforeAnyUserChangesNothing)
{
    EXPECT_EQ(grant("app", vxlan, 7, 0x20000005), 0);
    EXPECT_EQ(g_diagnosis_stat.evlan_add_reply, 1u);
}

// ---- who hears what: each data type, type of evlan, own and foreign sessions

struct scope_case {
    uint32_t scope;
    uint32_t type;
    bool own;
};

void PrintTo(const scope_case &one, std::ostream *out)
{
    *out << "data type " << one.scope << ", evlan type " << one.type << (one.own ? ", own" : ", foreign");
}

std::vector<scope_case> scope_cases()
{
    std::vector<scope_case> all;
    for (const uint32_t scope : {0u, 1u, 2u, 3u, 4u, 0xfffffffeu, 0xffffffffu})
        for (const uint32_t type : {vlan, vxlan, l3intf_sub, l3vpn})
            for (const bool own : {true, false})
                all.push_back({scope, type, own});
    return all;
}

class EvlanScope : public EvlanTest, public testing::WithParamInterface<scope_case>
{
  protected:
    const char *requester() const { return GetParam().own ? "app" : "other"; }
    uint32_t id() const { return evlan_id(GetParam().type, 5); }
    bool takes_grants() const
    {
        const auto &[scope, type, own] = GetParam();
        return scope == 2 || (scope % 2 == 1 && type == vlan) || (scope == 0 && own);
    }
};

TEST_P(EvlanScope, OfGrants)
{
    add_user({.name = "app", .scope = GetParam().scope});
    EXPECT_EQ(grant(requester(), GetParam().type, 7, id()), 0);
    EXPECT_EQ(app_item(GetParam().type, 7) != nullptr, takes_grants());
    EXPECT_EQ(udp_item(id()) != nullptr, takes_grants());
    EXPECT_EQ(sw_evlan_db_get_item(0, "app", id()) != nullptr, takes_grants());
    EXPECT_EQ(heard().size(), takes_grants() ? 1u : 0u);
    EXPECT_EQ(g_diagnosis_stat.evlan_add_reply, 1u);
}

TEST_P(EvlanScope, OfRemovals)
{
    add_user({.name = "app", .scope = GetParam().scope});
    session of(requester(), GetParam().type, 7);
    EXPECT_EQ(apply(of.answered(id()), 0), 0);
    const bool takes = GetParam().scope == 2 || (GetParam().scope == 0 && GetParam().own);
    EXPECT_EQ(heard().size(), takes ? 1u : 0u);
    EXPECT_EQ(g_diagnosis_stat.evlan_release_cb, takes ? 1u : 0u);
    EXPECT_EQ(g_diagnosis_stat.evlan_del_reply, 1u);
}

TEST_P(EvlanScope, OfRefusalsGovernsTheErrorEntryOnly)
{
    add_user({.name = "app", .scope = GetParam().scope});
    session of(requester(), GetParam().type, 7);
    EXPECT_EQ(apply(of.refused(), 1), 0);
    const bool takes = GetParam().scope == 2 || (GetParam().scope == 0 && GetParam().own);
    EXPECT_EQ(g_diagnosis_stat.evlan_err_msg, takes ? 1u : 0u);
    EXPECT_EQ(g_diagnosis_stat.evlan_auto_release, GetParam().own ? 1u : 0u);
    EXPECT_EQ(recording::calls_of("qz_mom_del").size(), GetParam().own ? 1u : 0u);
    EXPECT_EQ(heard().size(), GetParam().own ? 2u : 0u);
}

INSTANTIATE_TEST_SUITE_P(All, EvlanScope, testing::ValuesIn(scope_cases()));

TEST_F(EvlanGrant, ComparesNamesWhole)
{
    add_user({.name = name_of_31, .scope = 0});
    grant(name_of_40, vxlan, 7, 0x20000005);
    EXPECT_THAT(heard(), IsEmpty());
    EXPECT_EQ(app_item(vxlan, 7), nullptr);
    session gone(name_of_40, vxlan, 7);
    apply(gone.answered(0x20000005), 0);
    EXPECT_THAT(heard(), IsEmpty());
    grant(name_of_31, vxlan, 7, 0x20000005);
    EXPECT_EQ(heard().size(), 1u);
}

TEST_F(EvlanGrant, OfTheEmptyNameBelongsToTheEmptyUser)
{
    add_user({.name = "", .scope = 0});
    add_user({.name = "app", .scope = 0});
    grant("", vxlan, 7, 0x20000005);
    EXPECT_THAT(heard(), ElementsAre(" hears evlan /32/7:  0x20000005"));
    EXPECT_STREQ(app_item(vxlan, 7)->user_name, "");
}

TEST_F(EvlanGrant, OfASessionWithoutNameIsRefused)
{
    add_user({.name = "app"});
    session nameless(nullptr, vxlan, 7);
    EXPECT_EQ(apply(nameless, 0), -2);
    EXPECT_EQ(apply(nameless.answered(0x20000005), 1), -2);
    EXPECT_EQ(apply(nameless.refused(), 1), -2);
    EXPECT_EQ(deliver(session_notice(QZ_MOM_CMD_HMSET, nameless), &with_func), -2);
    EXPECT_EQ(deliver(session_notice(QZ_MOM_CMD_DEL, nameless), &with_func), -2);
    EXPECT_EQ(recording::logged(100).size(), 5u);
    EXPECT_THAT(heard(), IsEmpty());
    EXPECT_EQ(g_diagnosis_stat.evlan_add_reply + g_diagnosis_stat.evlan_del_reply, 0u);
}

// ---- refusals

TEST_F(EvlanRefusal, ReleasesTheSessionAndTellsBothCallbacks)
{
    add_user({.name = "app"});
    request("app", vxlan, 0x7b);
    recording::reset();
    session of("app", vxlan, 0x7b);
    EXPECT_EQ(apply(of.refused(), 1), 0);
    EXPECT_THAT(
        trace(),
        ElementsAre("warning sw_evlan_session_reply_add: no more evlan id available, user: app, app_index->type: 0x20, "
                    "keyid: 123.",
                    "error sw_evlan_session_reply_rollback_foreach: User[app].evlan[type:0x20, keyid: 7b] reply failed "
                    "result.",
                    "info sw_evlan_release_exec: user: app, type: 0x20, key(vid or ifx or vni) id: 123.",
                    "info sw_evlan_app2udp: Mapping APP-index[32+0x7b] to EVLAN-index[0x0].",
                    "info sw_evlan_release_exec: app2udp evlan_id: 0x0, rv: 0.",
                    "qz_mom_del 4 " + session_key("app", vxlan, 0x7b),
                    "info sw_evlan_session_reply_rollback_foreach: successfully reply vlan_id: 0xffffffff, type: 32.",
                    "app hears vlan app/32/123: -1",
                    "info sw_evlan_session_reply_rollback_foreach: reply evlan_id: 0xffffffff.",
                    "app hears evlan app/32/123: app 0xffffffff"));
    ASSERT_NE(app_item(vxlan, 0x7b), nullptr);
    EXPECT_EQ(app_item(vxlan, 0x7b)->ds_flag, 0u);
    EXPECT_EQ(app_item(vxlan, 0x7b)->value[0], 0u);
    EXPECT_EQ(udp_item(0xffffffff), nullptr);
    EXPECT_EQ(sw_evlan_hash_size(0), 0u);
}

TEST_F(EvlanRefusal, OfAHeldIdWithdrawsItBeforeTheSession)
{
    add_user({.name = "app"});
    grant("app", vxlan, 7, 0x20000005);
    request("app", vxlan, 7);
    recording::reset();
    session of("app", vxlan, 7);
    EXPECT_EQ(apply(of.refused(), 1), 0);
    const auto calls = recording::calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(call_text(calls[0]), "qz_mom_del 12 " + attribute_key("app", 0x20000005));
    EXPECT_EQ(call_text(calls[1]), "qz_mom_del 4 " + session_key("app", vxlan, 7));
    EXPECT_EQ(sw_evlan_db_get_item(0, "app", 0x20000005), nullptr);
    EXPECT_EQ(app_item(vxlan, 7)->ds_flag, 1u);
    EXPECT_EQ(app_item(vxlan, 7)->value[0], 0x20000005u);
}

TEST_F(EvlanRefusal, CountsEachStep)
{
    add_user({.name = "app"});
    session of("app", vlan, 7);
    apply(of.refused(), 1);
    EXPECT_EQ(g_diagnosis_stat.evlan_add_reply, 1u);
    EXPECT_EQ(g_diagnosis_stat.evlan_auto_release, 1u);
    EXPECT_EQ(g_diagnosis_stat.evlan_total_release, 1u);
    EXPECT_EQ(g_diagnosis_stat.evlan_reply_vlancb, 1u);
    EXPECT_EQ(g_diagnosis_stat.evlan_reply_evlancb, 1u);
    EXPECT_EQ(g_diagnosis_stat.evlan_err_msg, 1u);
    EXPECT_EQ(g_diagnosis_stat.evlan_release_cb, 0u);
    EXPECT_EQ(g_diagnosis_stat.evlan_del_reply, 0u);
}

TEST_F(EvlanRefusal, CallsTheCallbacksThatExist)
{
    for (const unsigned callbacks : {no_callbacks, hears_vlan, hears_evlan}) {
        const strings names = {"silent", "by-vlan", "by-evlan"};
        const std::string &name = names[callbacks];
        add_user({.name = name.c_str(), .callbacks = callbacks});
        std::memset(&g_diagnosis_stat, 0, sizeof g_diagnosis_stat);
        session of(name.c_str(), vxlan, 7);
        apply(of.refused(), 1);
        EXPECT_EQ(heard().size(), callbacks == no_callbacks ? 0u : 1u);
        EXPECT_EQ(g_diagnosis_stat.evlan_reply_vlancb, callbacks == hears_vlan ? 1u : 0u);
        EXPECT_EQ(g_diagnosis_stat.evlan_reply_evlancb, callbacks == hears_evlan ? 1u : 0u);
        EXPECT_EQ(g_diagnosis_stat.evlan_auto_release, 1u);
    }
}

TEST_F(EvlanRefusal, IsHeardByTheRequesterAlone)
{
    for (const char *name : {"a", "b", "c"})
        add_user({.name = name});
    session of("b", vxlan, 7);
    apply(of.refused(), 1);
    EXPECT_THAT(heard(), ElementsAre("b hears vlan b/32/7: -1", "b hears evlan b/32/7: b 0xffffffff"));
    EXPECT_EQ(recording::calls().size(), 1u);
    EXPECT_EQ(g_diagnosis_stat.evlan_err_msg, 3u);
}

TEST_F(EvlanRefusal, LeavesTheMapAlone)
{
    add_user({.name = "app"});
    grant("other", vxlan, 7, 0x20000005);
    const sw_evlan_index_map before = *app_item(vxlan, 7);
    session of("other", vxlan, 7);
    apply(of.refused(), 1);
    EXPECT_EQ(std::memcmp(app_item(vxlan, 7), &before, sizeof before), 0);
    EXPECT_NE(udp_item(0x20000005), nullptr);
}

TEST_F(EvlanRefusal, TellsTheCallbacksThoughTheReleaseFailed)
{
    add_user({.name = "app"});
    recording::set_result("qz_mom_del", -105);
    session of("app", vxlan, 7);
    EXPECT_EQ(apply(of.refused(), 1), 0);
    EXPECT_TRUE(recording::has_logged("Assert:qz_mom_del failed, rv: -105.", 100));
    EXPECT_EQ(heard().size(), 2u);
    EXPECT_EQ(g_diagnosis_stat.evlan_auto_release, 1u);
}

TEST_F(EvlanRefusal, RecordsTheRequest)
{
    add_user({.name = "app"});
    session of("other", l3vpn, 7);
    of.priority = U_BRIDGE__RES_PRIORITY__LEVEL_2;
    of.mom_db = 9;
    apply(of.refused(), 1, 8);
    const sw_evlan_index_map &entry = sw_evlan_get_err_msg_array()[0];
    EXPECT_EQ(entry.kind, 1u);
    EXPECT_EQ(entry.key[0], 0xffffffffu);
    EXPECT_EQ(entry.key[1], 0u);
    EXPECT_EQ(entry.key[2], 0u);
    EXPECT_EQ(entry.value[0], 128u);
    EXPECT_EQ(entry.value[1], 7u);
    EXPECT_EQ(entry.session_arg, 9u);
    EXPECT_EQ(entry.priority, 2u);
    EXPECT_STREQ(entry.user_name, "other");
    EXPECT_EQ(entry.ds_flag, 1u);
    EXPECT_EQ(g_diagnosis_stat.evlan_err_msg, 1u);
}

// ---- removals

TEST_F(EvlanRemoval, TellsTheUsersThenEmptiesTheMap)
{
    add_user({.name = "app"});
    grant("app", vxlan, 0x7b, 0x20000005);
    recording::reset();
    session of("app", vxlan, 0x7b);
    EXPECT_EQ(apply(of.answered(0x20000005), 0), 0);
    EXPECT_THAT(
        trace(),
        ElementsAre("info sw_evlan_app2udp: Mapping APP-index[32+0x7b] to EVLAN-index[0x20000005].",
                    "info sw_evlan_session_reply_del: release db app_user: app, type: 32, keyid: 123, evlan_id: "
                    "0x20000005, rv: 0.",
                    "info sw_evlan_session_reply_del_foreach: reply destroy msg evlan_id: 0x20000005.",
                    "app hears release app/32/123: app 0x20000005 event 2",
                    "info sw_evlan_index_map_delete_item: Remove EVLAN Index map for app, appIndex[0x7b] map to "
                    "UDPIndex[0x20000005], ds_flag[1]\n",
                    "info sw_evlan_session_reply_del: release db app_user: app, type: 32, keyid: 123, evlan_id: "
                    "0x20000005.",
                    "info sw_evlan_index_map_delete_item: Remove EVLAN Index map for app, UDPIndex[0x20000005] map to "
                    "appIndex[0x7b].\n"));
    EXPECT_EQ(sw_evlan_index_map_hash_size(0), 0u);
    EXPECT_EQ(g_diagnosis_stat.evlan_del_reply, 1u);
    EXPECT_EQ(g_diagnosis_stat.evlan_release_cb, 1u);
}

TEST_F(EvlanRemoval, LeavesTheLocalDatabaseAlone)
{
    add_user({.name = "app"});
    grant("app", vxlan, 7, 0x20000005);
    session of("app", vxlan, 7);
    apply(of.answered(0x20000005), 0);
    EXPECT_NE(sw_evlan_db_get_item(0, "app", 0x20000005), nullptr);
}

TEST_F(EvlanRemoval, OfAnUnknownKeyStillTellsTheUsers)
{
    add_user({.name = "app"});
    session of("other", l3vpn, 7);
    EXPECT_EQ(apply(of.answered(0x80000005), 0), 0);
    EXPECT_THAT(
        trace(),
        ElementsAre("warning sw_evlan_app2udp: EVLAN not exist, type[0x80], key[0x7].",
                    "info sw_evlan_session_reply_del: release db app_user: other, type: 128, keyid: 7, evlan_id: 0x0, "
                    "rv: -1.",
                    "info sw_evlan_session_reply_del_foreach: reply destroy msg evlan_id: 0x80000005.",
                    "app hears release other/128/7: other 0x80000005 event 2",
                    "info sw_evlan_session_reply_del: release db app_user: other, type: 128, keyid: 7, evlan_id: "
                    "0x0."));
}

TEST_F(EvlanRemoval, TellsTheSessionsIdAndRemovesTheMapsId)
{
    add_user({.name = "app"});
    grant("app", vxlan, 7, 0x20000005);
    grant("app", vxlan, 8, 0x20000006);
    session of("app", vxlan, 7);
    apply(of.answered(0x20000006), 0);
    EXPECT_EQ(heard().back(), "app hears release app/32/7: app 0x20000006 event 2");
    EXPECT_EQ(udp_item(0x20000005), nullptr);
    EXPECT_NE(udp_item(0x20000006), nullptr);
    EXPECT_NE(app_item(vxlan, 8), nullptr);
}

TEST_F(EvlanRemoval, OfABareRequestIsHeardToo)
{
    add_user({.name = "app"});
    request("app", vxlan, 7);
    app_key key("app", vxlan, 7);
    sw_evlan_release_direct(&key);
    session of("app", vxlan, 7);
    EXPECT_EQ(apply(of, 0), 0);
    EXPECT_THAT(heard(), ElementsAre("app hears release app/32/7: app 0x0 event 2"));
    EXPECT_EQ(app_item(vxlan, 7), nullptr);
}

TEST_F(EvlanRemoval, WhileRequestedAgainKeepsBothItems)
{
    add_user({.name = "app"});
    grant("app", vxlan, 7, 0x20000005);
    request("app", vxlan, 7);
    recording::reset();
    session of("app", vxlan, 7);
    EXPECT_EQ(apply(of.answered(0x20000005), 0), 0);
    EXPECT_EQ(trace().back(), "info sw_evlan_session_reply_del: active evlan item, no allow del.");
    EXPECT_EQ(heard().size(), 1u);
    ASSERT_NE(app_item(vxlan, 7), nullptr);
    EXPECT_EQ(app_item(vxlan, 7)->ds_flag, 3u);
    EXPECT_NE(udp_item(0x20000005), nullptr);
    EXPECT_EQ(g_diagnosis_stat.evlan_del_reply, 1u);
}

// The key alone names an item, so whose session goes makes no difference.
TEST_F(EvlanRemoval, OfAnotherUsersSessionOfTheKeyEmptiesTheMapToo)
{
    add_user({.name = "holder"});
    grant("holder", vxlan, 7, 0x20000005);
    session of("other", vxlan, 7);
    EXPECT_EQ(apply(of.answered(0x20000006), 0), 0);
    EXPECT_EQ(sw_evlan_index_map_hash_size(0), 0u);
}

// An odd scope takes the grants of VLANs and hears no removal.
TEST_F(EvlanRemoval, ThatNobodyHearsEmptiesTheMapAllTheSame)
{
    add_user({.name = "app", .scope = 1});
    grant("other", vlan, 7, 0x10000005);
    ASSERT_EQ(sw_evlan_index_map_hash_size(0), 2u);
    recording::reset();
    session of("other", vlan, 7);
    EXPECT_EQ(apply(of.answered(0x10000005), 0), 0);
    EXPECT_THAT(heard(), IsEmpty());
    EXPECT_EQ(sw_evlan_index_map_hash_size(0), 0u);
}

TEST_F(EvlanRemoval, OfAnotherUsersSessionOfARequestedKeyKeepsBothItems)
{
    add_user({.name = "holder"});
    request("holder", vxlan, 7);
    grant("holder", vxlan, 7, 0x20000005);
    session of("other", vxlan, 7);
    EXPECT_EQ(apply(of.answered(0x20000006), 0), 0);
    EXPECT_NE(app_item(vxlan, 7), nullptr);
    EXPECT_NE(udp_item(0x20000005), nullptr);
}

TEST_F(EvlanRemoval, IsHeardByEveryUserWithACallback)
{
    add_user({.name = "a"});
    add_user({.name = "b", .callbacks = hears_vlan | hears_evlan});
    add_user({.name = "c", .scope = 0});
    add_user({.name = "d", .scope = 1});
    session of("c", vlan, 7);
    apply(of.answered(0x10000005), 0);
    EXPECT_THAT(heard(), testing::UnorderedElementsAre("a hears release c/16/7: c 0x10000005 event 2",
                                                       "c hears release c/16/7: c 0x10000005 event 2"));
    EXPECT_EQ(g_diagnosis_stat.evlan_release_cb, 2u);
}

// Whoever is out of scope and comes first in the registry must not end the walk for those behind it.
TEST_F(EvlanRemoval, IsHeardBehindUsersOutOfScope)
{
    for (const char *name : {"a", "b", "c", "d", "e", "f"})
        add_user({.name = name, .scope = 0});
    const strings order = registry_order();
    ASSERT_EQ(order.size(), 6u);
    session of(order.back().c_str(), vxlan, 7);
    apply(of.answered(0x20000005), 0);
    EXPECT_EQ(heard().size(), 1u);
}

TEST_F(EvlanGrant, ReachesMapDatabaseAndCallbackBehindUsersOutOfScope)
{
    for (const char *name : {"a", "b", "c", "d", "e", "f"})
        add_user({.name = name, .scope = 0});
    const strings order = registry_order();
    ASSERT_EQ(order.size(), 6u);
    const char *last = order.back().c_str();
    grant(last, vxlan, 7, 0x20000005);
    EXPECT_EQ(heard().size(), 1u);
    EXPECT_NE(sw_evlan_db_get_item(0, last, 0x20000005), nullptr);
    UBridge__EvlanAppIndex app = U_BRIDGE__EVLAN_APP_INDEX__INIT;
    app.type = static_cast<int32_t>(vxlan);
    app.keyid = 7;
    UBridge__EvlanIndex out = U_BRIDGE__EVLAN_INDEX__INIT;
    EXPECT_EQ(sw_evlan_app2udp(&app, &out), 0);
    EXPECT_EQ(out.evlan_id, 0x20000005);
}

TEST_F(EvlanRemoval, BeforeAnyUserIsCounted)
{
    session of("app", vxlan, 7);
    EXPECT_EQ(apply(of, 0), 0);
    EXPECT_EQ(g_diagnosis_stat.evlan_del_reply, 1u);
}

// ---- callbacks that read the counters

TEST_F(EvlanCounters, WithinAGrantOmitTheCallbackThatReadsThem)
{
    add_user({.name = "a"});
    add_user({.name = "b"});
    expect_omitted_by_their_readers(&sw_diagnosis_stat::evlan_reply_evlancb, &sw_diagnosis_stat::evlan_add_reply,
                                    [] { grant("a", vxlan, 7, 0x20000005); });
}

TEST_F(EvlanCounters, WithinAGrantOfAVlanOmitTheCallbackThatReadsThem)
{
    add_user({.name = "a"});
    add_user({.name = "b"});
    expect_omitted_by_their_readers(&sw_diagnosis_stat::evlan_reply_vlancb, &sw_diagnosis_stat::evlan_add_reply,
                                    [] { grant("a", vlan, 7, 0x10000005); });
}

TEST_F(EvlanCounters, WithinARemovalOmitTheCallbackThatReadsThem)
{
    add_user({.name = "a"});
    add_user({.name = "b"});
    session of("a", vxlan, 7);
    expect_omitted_by_their_readers(&sw_diagnosis_stat::evlan_release_cb, &sw_diagnosis_stat::evlan_del_reply,
                                    [&] { apply(of.answered(0x20000005), 0); });
}

TEST_F(EvlanCounters, WithinARefusalHoldTheReleaseAlready)
{
    add_user({.name = "app"});
    const auto read = [] {
        return readings{g_diagnosis_stat.evlan_err_msg,       g_diagnosis_stat.evlan_total_release,
                        g_diagnosis_stat.evlan_auto_release,  g_diagnosis_stat.evlan_reply_vlancb,
                        g_diagnosis_stat.evlan_reply_evlancb, g_diagnosis_stat.evlan_add_reply};
    };
    session of("app", vxlan, 7);
    EXPECT_THAT(seen_within_callbacks(read, [&] { apply(of.refused(), 1); }),
                ElementsAre(readings{1, 1, 1, 0, 0, 0}, readings{1, 1, 1, 1, 0, 0}));
    EXPECT_EQ(read(), (readings{1, 1, 1, 1, 1, 1}));
}

// ---- callbacks that call the library again

TEST_F(EvlanReentry, RequestWithinTheReleaseCallbackProtectsTheItems)
{
    add_user({.name = "app"});
    grant("app", vxlan, 7, 0x20000005);
    inside_callback = [] { request("app", vxlan, 7); };
    session of("app", vxlan, 7);
    EXPECT_EQ(apply(of.answered(0x20000005), 0), 0);
    EXPECT_TRUE(recording::has_logged("active evlan item, no allow del.", 40));
    EXPECT_EQ(app_item(vxlan, 7)->ds_flag, 3u);
    EXPECT_NE(udp_item(0x20000005), nullptr);
    EXPECT_EQ(recording::calls_of("qz_mom_hmset").size(), 1u);
}

TEST_F(EvlanReentry, RequestWithinAReleaseCallbackDoesNotKeepTheNewsFromTheOthers)
{
    add_user({.name = "a"});
    add_user({.name = "b"});
    grant("a", vxlan, 7, 0x20000005);
    recording::reset();
    inside_callback = [] { request("a", vxlan, 7); };
    session of("a", vxlan, 7);
    EXPECT_EQ(apply(of.answered(0x20000005), 0), 0);
    EXPECT_EQ(heard().size(), 2u);
    EXPECT_NE(udp_item(0x20000005), nullptr);
}

TEST_F(EvlanReentry, ReleaseWithinTheGrantCallbackTakesTheNewRecord)
{
    add_user({.name = "app"});
    request("app", vxlan, 7);
    inside_callback = [] {
        app_key key("app", vxlan, 7);
        EXPECT_EQ(sw_evlan_release_direct(&key), 0);
    };
    EXPECT_EQ(grant("app", vxlan, 7, 0x20000005), 0);
    EXPECT_EQ(sw_evlan_db_get_item(0, "app", 0x20000005), nullptr);
    EXPECT_EQ(app_item(vxlan, 7)->ds_flag, 1u);
    EXPECT_EQ(recording::calls_of("qz_mom_del").size(), 2u);
}

TEST_F(EvlanReentry, RequestWithinTheRefusalCallbackOutlivesTheRemoval)
{
    add_user({.name = "app", .callbacks = hears_evlan});
    request("app", vxlan, 7);
    inside_callback = [] { request("app", vxlan, 7); };
    session of("app", vxlan, 7);
    EXPECT_EQ(apply(of.refused(), 1), 0);
    inside_callback = nullptr;
    EXPECT_EQ(apply(of, 0), 0);
    ASSERT_NE(app_item(vxlan, 7), nullptr);
    EXPECT_EQ(app_item(vxlan, 7)->ds_flag, 2u);
}

TEST_F(EvlanReentry, RemovalWithinTheReleaseCallbackIsNotAppliedTwice)
{
    add_user({.name = "app"});
    grant("app", vxlan, 7, 0x20000005);
    inside_callback = [] {
        inside_callback = nullptr;
        session again("app", vxlan, 7);
        apply(again.answered(0x20000005), 0);
    };
    session of("app", vxlan, 7);
    EXPECT_EQ(apply(of.answered(0x20000005), 0), 0);
    EXPECT_EQ(sw_evlan_index_map_hash_size(0), 0u);
}

TEST_F(EvlanReentry, ManyRequestsWithinAGrantCallbackGrowTheMapSafely)
{
    add_user({.name = "app"});
    inside_callback = [] {
        inside_callback = nullptr;
        for (int32_t keyid = 1000; keyid < 1100; ++keyid)
            request("app", vxlan, keyid);
    };
    EXPECT_EQ(grant("app", vxlan, 7, 0x20000005), 0);
    EXPECT_EQ(sw_evlan_index_map_hash_size(0), 102u);
    EXPECT_NE(app_item(vxlan, 7), nullptr);
}

TEST_F(EvlanReentry, AUserRegisteredAgainWithinItsCallbackHearsOn)
{
    add_user({.name = "app"});
    request("app", vxlan, 7);
    inside_callback = [] {
        inside_callback = nullptr;
        ebridge_args args{};
        args.user_name = "app";
        args.handle = recording::handle();
        args.evlan_data_type = 2;
        EXPECT_EQ(sw_ebridge_init(&args), 0);
    };
    EXPECT_EQ(grant("app", vxlan, 7, 0x20000005), 0);
    session of("app", vxlan, 7);
    app_item(vxlan, 7)->ds_flag = 1;
    EXPECT_EQ(apply(of.answered(0x20000005), 0), 0);
    EXPECT_EQ(sw_evlan_index_map_hash_size(0), 0u);
}

// ---- users of the other slots

TEST_F(EvlanGrant, IsForTheUsersOfSlot0)
{
    add_to_other_slots(add_user({.name = "app"}));
    grant("app", vxlan, 7, 0x20000005);
    EXPECT_EQ(heard().size(), 1u);
    EXPECT_EQ(g_diagnosis_stat.evlan_reply_evlancb, 1u);
    for (uint32_t slot = 1; slot < SW_EBRIDGE_SLOTS; ++slot) {
        EXPECT_EQ(sw_evlan_index_map_hash_size(slot), 0u);
        EXPECT_EQ(sw_evlan_hash_size(slot), 0u);
    }
}

TEST_F(EvlanRefusal, IsForTheUsersOfSlot0)
{
    add_to_other_slots(add_user({.name = "app"}));
    session of("app", vxlan, 7);
    apply(of.refused(), 1);
    EXPECT_EQ(heard().size(), 2u);
    EXPECT_EQ(recording::calls_of("qz_mom_del").size(), 1u);
    EXPECT_EQ(g_diagnosis_stat.evlan_err_msg, 1u);
}

TEST_F(EvlanRemoval, IsForTheUsersAndItemsOfSlot0)
{
    add_to_other_slots(add_user({.name = "app"}));
    grant("app", vxlan, 7, 0x20000005);
    const sw_evlan_index_map forward = *app_item(vxlan, 7), reverse = *udp_item(0x20000005);
    for (uint32_t slot = 1; slot < SW_EBRIDGE_SLOTS; ++slot) {
        ASSERT_NE(sw_evlan_index_map_update_item(slot, &forward), nullptr);
        ASSERT_NE(sw_evlan_index_map_update_item(slot, &reverse), nullptr);
    }
    recording::reset();
    session of("app", vxlan, 7);
    apply(of.answered(0x20000005), 0);
    EXPECT_EQ(heard().size(), 1u);
    EXPECT_EQ(g_diagnosis_stat.evlan_release_cb, 1u);
    EXPECT_EQ(sw_evlan_index_map_hash_size(0), 0u);
    for (uint32_t slot = 1; slot < SW_EBRIDGE_SLOTS; ++slot)
        EXPECT_EQ(sw_evlan_index_map_hash_size(slot), 2u);
}

}  // namespace
