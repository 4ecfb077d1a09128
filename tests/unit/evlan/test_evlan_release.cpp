// Giving an evlan id back: at once or after the release delay, what goes with it, and the end of the delay.
#include "evlan_fixture.hpp"

namespace
{

using namespace evlan_test;
using EvlanRelease = EvlanTest;
using EvlanReleaseEnd = EvlanTest;
using VlanRelease = EvlanTest;
using ReleaseDelay = EvlanTest;

int32_t release(const char *name, uint32_t type, int32_t keyid)
{
    app_key key(name, type, keyid);
    return sw_evlan_release(&key);
}

int32_t release_direct(const char *name, uint32_t type, int32_t keyid)
{
    app_key key(name, type, keyid);
    return sw_evlan_release_direct(&key);
}

TEST_F(EvlanRelease, RefusesANullIndex)
{
    add_user({.name = "app"});
    EXPECT_EQ(sw_evlan_release_exec(nullptr, 0), -2);
    EXPECT_EQ(sw_evlan_release(nullptr), -2);
    EXPECT_EQ(sw_evlan_release_direct(nullptr), -2);
    EXPECT_THAT(recording::logged(100), ElementsAre("Assert:Bad index.", "Assert:Bad index.", "Assert:Bad index."));
    EXPECT_EQ(trace().front(), "error sw_evlan_release_exec: Assert:Bad index.");
    EXPECT_EQ(g_diagnosis_stat.evlan_total_release, 0u);
}

TEST_F(EvlanRelease, RefusesAnUnknownUser)
{
    add_user({.name = "app"});
    EXPECT_EQ(release("nobody", vxlan, 7), -2);
    EXPECT_THAT(trace(), ElementsAre("error sw_evlan_release_exec: Assert:No user named 'nobody'.\n"));
    recording::reset();
    EXPECT_EQ(release(nullptr, vxlan, 7), -2);
    EXPECT_TRUE(traced("error sw_evlan_release_exec: Assert:No user named 'NULL'.\n"));
    EXPECT_THAT(recording::calls(), IsEmpty());
    EXPECT_EQ(g_diagnosis_stat.evlan_total_release, 0u);
}

TEST_F(EvlanRelease, OfAHeldIdDropsItsAttributesThenDelaysTheSession)
{
    add_user({.name = "app"});
    grant("app", vxlan, 0x7b, 0x20000005);
    recording::reset();
    EXPECT_EQ(release("app", vxlan, 0x7b), 0);
    EXPECT_THAT(trace(),
                ElementsAre("info sw_evlan_release_exec: user: app, type: 0x20, key(vid or ifx or vni) id: 123.",
                            "info sw_evlan_app2udp: Mapping APP-index[32+0x7b] to EVLAN-index[0x20000005].",
                            "info sw_evlan_release_exec: app2udp evlan_id: 0x20000005, rv: 0.",
                            "info sw_evlan_db_delete_item: Remove user[app].evlan[0x20000005].",
                            "qz_mom_del 12 " + attribute_key("app", 0x20000005),
                            "qz_mom_pexpire 4 " + session_key("app", vxlan, 0x7b)));
    EXPECT_EQ(sw_evlan_db_get_item(0, "app", 0x20000005), nullptr);
    EXPECT_EQ(g_diagnosis_stat.evlan_total_release, 1u);
    end_delays();
}

// The record goes with the release, and the caller's name with it.
TEST_F(EvlanRelease, TakesANameThatStandsInTheRecordItWithdraws)
{
    const sw_ebridge_list_item *user = add_user({.name = "app"});
    for (const uint32_t delayed : {0u, 1u}) {
        grant("app", vxlan, 7, 0x20000005);
        sw_evlan_attr *record = sw_evlan_db_get_item(0, "app", 0x20000005);
        ASSERT_NE(record, nullptr);
        recording::reset();
        app_key key(record->user_name, vxlan, 7);
        spoiling(record, [&] { EXPECT_EQ(sw_evlan_release_exec(&key, delayed), 0); });
        ASSERT_EQ(recording::calls().size(), 2u);
        for (const auto &call : recording::calls())
            EXPECT_THAT(call.record, testing::HasSubstr("t_user:\"app\""));
    }
    const auto *kept = static_cast<const UBridge__EvlanAppIndex *>(recording::calls().back().args);
    ASSERT_NE(kept, nullptr);
    EXPECT_EQ(kept->t_user, user->user_name);  // read again when the delay is over
    end_delays();
}

// A record that came in through the exported cache is on no list, and its link may be null.
TEST_F(EvlanRelease, OfARecordWithoutALinkIsNoHarm)
{
    add_user({.name = "app"});
    sw_evlan_attr made{};
    sw_evlan_init(&made, "app", 0x20000005);
    sw_evlan_attr *stored = nullptr;
    sw_evlan_cache_create(0, &stored, &made);
    ASSERT_NE(stored, nullptr);
    sw_evlan_db_delete_item(0, "app", 0x20000005);
    EXPECT_EQ(sw_evlan_hash_size(0), 0u);
}

TEST_F(EvlanRelease, HandsTheStoreTheDelayAndACopyOfTheKey)
{
    add_user({.name = "app", .db = 9, .handle = recording::other_handle()});
    app_key key("app", l3vpn, 7);
    EXPECT_EQ(sw_evlan_release(&key), 0);
    const auto calls = recording::calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].function, "qz_mom_pexpire");
    EXPECT_EQ(calls[0].handle, recording::other_handle());
    EXPECT_EQ(calls[0].db, 9u);
    EXPECT_EQ(calls[0].mode, 3);
    EXPECT_EQ(calls[0].delay.sec, 40);
    EXPECT_EQ(calls[0].delay.usec, 0);
    EXPECT_EQ(calls[0].callback, address(sw_evlan_release_callback));
    const auto *copy = static_cast<const UBridge__EvlanAppIndex *>(calls[0].args);
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy, &key);
    EXPECT_EQ(copy->t_user, key.t_user);
    EXPECT_EQ(copy->type, 128);
    EXPECT_EQ(copy->keyid, 7);
    EXPECT_EQ(copy->base.descriptor, &u_bridge__evlan_app_index__descriptor);
    end_delays();
}

TEST_F(EvlanRelease, DirectDeletesTheSessionAtOnce)
{
    add_user({.name = "app", .db = 9, .handle = recording::other_handle()});
    grant("app", vxlan, 7, 0x20000005);
    recording::reset();
    EXPECT_EQ(release_direct("app", vxlan, 7), 0);
    const auto calls = recording::calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(call_text(calls[0]), "qz_mom_del 12 " + attribute_key("app", 0x20000005));
    EXPECT_EQ(call_text(calls[1]), "qz_mom_del 9 " + session_key("app", vxlan, 7));
    for (const auto &made : calls) {
        EXPECT_EQ(made.handle, recording::other_handle());
        EXPECT_EQ(made.callback, nullptr);
        EXPECT_EQ(made.args, nullptr);
    }
    EXPECT_EQ(g_diagnosis_stat.evlan_total_release, 1u);
}

TEST_F(EvlanRelease, KeepsTheMapAndClearsOnlyTheMark)
{
    add_user({.name = "app"});
    request("app", vxlan, 7);
    grant("app", vxlan, 7, 0x20000005);
    EXPECT_EQ(app_item(vxlan, 7)->ds_flag, 3u);
    EXPECT_EQ(release_direct("app", vxlan, 7), 0);
    ASSERT_NE(app_item(vxlan, 7), nullptr);
    EXPECT_EQ(app_item(vxlan, 7)->ds_flag, 1u);
    EXPECT_EQ(app_item(vxlan, 7)->value[0], 0x20000005u);
    EXPECT_NE(udp_item(0x20000005), nullptr);
}

TEST_F(EvlanRelease, OfAKeyNotYetGrantedClearsTheMark)
{
    add_user({.name = "app"});
    request("app", vxlan, 7);
    recording::reset();
    EXPECT_EQ(release("app", vxlan, 7), 0);
    EXPECT_EQ(app_item(vxlan, 7)->ds_flag, 0u);
    EXPECT_TRUE(traced("info sw_evlan_release_exec: app2udp evlan_id: 0x0, rv: 0."));
    EXPECT_THAT(recording::calls_of("qz_mom_del"), IsEmpty());
    EXPECT_EQ(recording::calls_of("qz_mom_pexpire").size(), 1u);
    end_delays();
}

TEST_F(EvlanRelease, OfAnUnknownKeyStillReleasesTheSession)
{
    add_user({.name = "app"});
    EXPECT_EQ(release("app", vxlan, 7), 0);
    EXPECT_THAT(trace(), ElementsAre("info sw_evlan_release_exec: user: app, type: 0x20, key(vid or ifx or vni) id: 7.",
                                     "warning sw_evlan_app2udp: EVLAN not exist, type[0x20], key[0x7].",
                                     "info sw_evlan_release_exec: app2udp evlan_id: 0x0, rv: -1.",
                                     "qz_mom_pexpire 4 " + session_key("app", vxlan, 7)));
    end_delays();
    recording::reset();
    EXPECT_EQ(release_direct("app", vxlan, 7), 0);
    EXPECT_EQ(trace().back(), "qz_mom_del 4 " + session_key("app", vxlan, 7));
    EXPECT_EQ(g_diagnosis_stat.evlan_total_release, 2u);
}

TEST_F(EvlanRelease, OfAnIdWithoutALocalRecordLeavesTheAttributesAlone)
{
    add_user({.name = "app"});
    grant("app", vxlan, 7, 0x20000005);
    sw_evlan_db_delete_item(0, "app", 0x20000005);
    recording::reset();
    EXPECT_EQ(release_direct("app", vxlan, 7), 0);
    EXPECT_THAT(recording::calls(), SizeIs(1));
    EXPECT_EQ(trace().back(), "qz_mom_del 4 " + session_key("app", vxlan, 7));
}

TEST_F(EvlanRelease, OfAForeignKeyTakesTheReleasersOwnRecords)
{
    add_user({.name = "holder"});
    add_user({.name = "other"});
    grant("holder", vxlan, 7, 0x20000005);
    recording::reset();
    EXPECT_EQ(release_direct("other", vxlan, 7), 0);
    EXPECT_NE(sw_evlan_db_get_item(0, "holder", 0x20000005), nullptr);
    EXPECT_EQ(sw_evlan_db_get_item(0, "other", 0x20000005), nullptr);
    EXPECT_EQ(call_text(recording::calls().at(0)), "qz_mom_del 12 " + attribute_key("other", 0x20000005));
    EXPECT_EQ(call_text(recording::calls().at(1)), "qz_mom_del 4 " + session_key("other", vxlan, 7));
}

// The user is found by 31 characters of the name; its session carries the name as it was asked for.
TEST_F(EvlanRelease, NamesTheSessionAsTheCallerDoes)
{
    const std::string shown(31, 'n'), longer = shown + "and more";
    add_user({.name = shown.c_str()});
    EXPECT_EQ(release_direct(longer.c_str(), vxlan, 7), 0);
    ASSERT_EQ(recording::calls().size(), 1u);
    EXPECT_EQ(call_text(recording::calls().at(0)), "qz_mom_del 4 " + session_key(longer.c_str(), vxlan, 7));
}

TEST_F(EvlanRelease, OfAForeignKeyEndsTheHoldersRequest)
{
    add_user({.name = "holder"});
    add_user({.name = "other"});
    request("holder", vxlan, 7);
    grant("holder", vxlan, 7, 0x20000005);
    ASSERT_EQ(app_item(vxlan, 7)->ds_flag, 3u);
    EXPECT_EQ(release("other", vxlan, 7), 0);
    EXPECT_EQ(app_item(vxlan, 7)->ds_flag, 1u);
    end_delays();
}

class EvlanReleaseOfUnderlay : public EvlanTest, public testing::WithParamInterface<uint32_t>
{
};

TEST_P(EvlanReleaseOfUnderlay, IsImmediateWhateverWasAsked)
{
    add_user({.name = "app"});
    const uint32_t id = evlan_id(GetParam(), 5);
    request("app", GetParam(), 7);
    grant("app", GetParam(), 7, id);
    recording::reset();
    EXPECT_EQ(release("app", GetParam(), 7), 0);
    EXPECT_EQ(trace().back(), "qz_mom_del 4 " + session_key("app", GetParam(), 7));
    EXPECT_THAT(recording::calls_of("qz_mom_pexpire"), IsEmpty());
    EXPECT_EQ(app_item(GetParam(), 7)->ds_flag, 1u);
    EXPECT_EQ(g_diagnosis_stat.evlan_total_release, 1u);
}

TEST_P(EvlanReleaseOfUnderlay, IsImmediateWithoutAnItemToo)
{
    add_user({.name = "app"});
    EXPECT_EQ(release("app", GetParam(), 7), 0);
    EXPECT_THAT(recording::calls(), SizeIs(1));
    EXPECT_EQ(trace().back(), "qz_mom_del 4 " + session_key("app", GetParam(), 7));
    EXPECT_EQ(g_diagnosis_stat.evlan_total_release, 1u);
}

class EvlanReleaseOfOverlay : public EvlanTest, public testing::WithParamInterface<uint32_t>
{
};

TEST_P(EvlanReleaseOfOverlay, IsDelayed)
{
    add_user({.name = "app"});
    EXPECT_EQ(release("app", GetParam(), 7), 0);
    EXPECT_EQ(trace().back(), "qz_mom_pexpire 4 " + session_key("app", GetParam(), 7));
    end_delays();
}

INSTANTIATE_TEST_SUITE_P(Overlay, EvlanReleaseOfOverlay, testing::Values(vxlan, 48u, 64u, 80u, 96u, l3vpn, 17u));

INSTANTIATE_TEST_SUITE_P(Underlay, EvlanReleaseOfUnderlay, testing::Values(vlan, l3intf_sub));

TEST_F(EvlanRelease, GoesOnWhenTheAttributesCannotBeDeleted)
{
    add_user({.name = "app"});
    grant("app", vxlan, 7, 0x20000005);
    recording::reset();
    recording::set_result("qz_mom_del", -104, 1);
    EXPECT_EQ(release("app", vxlan, 7), 0);
    EXPECT_THAT(recording::logged(100),
                ElementsAre("Assert:qz_mom_del failed, user: app, evlan_id: 0x20000005, rv: -104."));
    EXPECT_EQ(recording::calls_of("qz_mom_pexpire").size(), 1u);
    EXPECT_EQ(sw_evlan_db_get_item(0, "app", 0x20000005), nullptr);
    end_delays();
}

TEST_F(EvlanRelease, FailedDeletionIsReportedAndCounted)
{
    add_user({.name = "app"});
    recording::set_result("qz_mom_del", -105);
    EXPECT_EQ(release_direct("app", vxlan, 7), -105);
    EXPECT_EQ(trace().back(), "error sw_evlan_release_exec: Assert:qz_mom_del failed, rv: -105.");
    EXPECT_EQ(g_diagnosis_stat.evlan_total_release, 1u);
}

TEST_F(EvlanRelease, FailedDelayIsReportedAndKeepsTheCopy)
{
    add_user({.name = "app", .db = 19});
    recording::set_result("qz_mom_pexpire", -105);
    app_key key("app", vxlan, 0x7b);
    int32_t result = 0;
    const auto blocks = freed_by([&] { result = sw_evlan_release(&key); });
    EXPECT_EQ(result, -105);
    EXPECT_EQ(trace().back(),
              format("error sw_evlan_release_exec: Assert:evlan release, qz_mom_pexpire failed, user: app, type: 0x20, "
                     "key(vid or ifx or vni) id: 123, mom_handle: %p, mom_db: 19, rv: -105.",
                     static_cast<void *>(recording::handle())));
    EXPECT_THAT(blocks, IsEmpty());
    EXPECT_EQ(g_diagnosis_stat.evlan_total_release, 1u);
    end_delays();
}

TEST_F(EvlanRelease, WithoutMemoryForTheCopyStopsBeforeTheStore)
{
    add_user({.name = "app"});
    request("app", vxlan, 0x7b);
    grant("app", vxlan, 0x7b, 0x20000005);
    recording::reset();
    recording::fail_allocation(1);
    EXPECT_EQ(release("app", vxlan, 0x7b), -2);
    recording::fail_allocation(0);
    EXPECT_EQ(trace().back(), "error sw_evlan_release_exec: Assert:Malloc for user[app].type[32].keyid[0x7b] failed.");
    EXPECT_THAT(recording::calls_of("qz_mom_pexpire"), IsEmpty());
    EXPECT_EQ(recording::calls_of("qz_mom_del").size(), 1u);
    EXPECT_EQ(app_item(vxlan, 0x7b)->ds_flag, 1u);
    EXPECT_EQ(g_diagnosis_stat.evlan_total_release, 0u);
}

TEST_F(EvlanRelease, DirectNeedsNoMemory)
{
    add_user({.name = "app"});
    recording::fail_allocation(1, true);
    EXPECT_EQ(release_direct("app", vxlan, 7), 0);
    EXPECT_EQ(release("app", vlan, 7), 0);
    recording::fail_allocation(0);
}

TEST_F(EvlanRelease, ExecTakesTheDelayAsAnArgument)
{
    add_user({.name = "app"});
    app_key key("app", vxlan, 7);
    EXPECT_EQ(sw_evlan_release_exec(&key, 1), 0);
    EXPECT_EQ(recording::calls().back().function, "qz_mom_pexpire");
    end_delays();
    EXPECT_EQ(sw_evlan_release_exec(&key, 0), 0);
    EXPECT_EQ(recording::calls().back().function, "qz_mom_del");
}

TEST_F(EvlanRelease, ExecReleasesAtOnceUnlessTheArgumentIsOne)
{
    add_user({.name = "app"});
    app_key key("app", vxlan, 7);
    for (const uint32_t delayed : {2u, 3u, 0x100u, 0x101u, UINT32_MAX}) {
        recording::reset();
        EXPECT_EQ(sw_evlan_release_exec(&key, delayed), 0);
        ASSERT_EQ(recording::calls().size(), 1u) << delayed;
        EXPECT_EQ(recording::calls()[0].function, "qz_mom_del") << delayed;
    }
}

// ---- the delay

TEST_F(ReleaseDelay, SetsTheSecondsOfLaterReleases)
{
    add_user({.name = "app"});
    recording::printed().clear();
    EXPECT_EQ(sw_ebridge_delay_time_set(7, 9), 0);
    EXPECT_EQ(recording::printed(),
              "evlan_delay_del_second has been set to 7, eport_delay_del_second has been set to 9\n");
    release("app", vxlan, 7);
    EXPECT_EQ(recording::calls().at(0).delay.sec, 7);
    EXPECT_EQ(recording::calls().at(0).delay.usec, 0);
    sw_ebridge_delay_time_set(0, -1);
    release("app", vxlan, 7);
    EXPECT_EQ(recording::calls().at(1).delay.sec, 0);
    recording::printed().clear();
    sw_ebridge_delay_time_set(-3, INT32_MIN);
    EXPECT_EQ(recording::printed(),
              "evlan_delay_del_second has been set to -3, eport_delay_del_second has been set to -2147483648\n");
    release("app", vxlan, 7);
    EXPECT_EQ(recording::calls().at(2).delay.sec, -3);
    end_delays();
}

// ---- the end of the delay

TEST_F(EvlanReleaseEnd, RefusesANullMessageFirst)
{
    add_user({.name = "app"});
    EXPECT_EQ(sw_evlan_release_callback(recording::handle(), nullptr, nullptr), -2);
    EXPECT_THAT(trace(), ElementsAre("error sw_evlan_release_callback: Assert:MOM msg is NULL.\n"));
}

TEST_F(EvlanReleaseEnd, RefusesAnErrorBeforeItLooksAtTheArgument)
{
    add_user({.name = "app"});
    notice failed(QZ_MOM_CMD_NONE);
    failed.error = -105;
    failed.end = QZ_MOM_END_EXPIRY;
    EXPECT_EQ(sw_evlan_release_callback(recording::handle(), &failed, nullptr), -2);
    EXPECT_THAT(trace(), ElementsAre("error sw_evlan_release_callback: Assert:MOM error is -105.\n"));
}

TEST_F(EvlanReleaseEnd, RefusesANullArgument)
{
    add_user({.name = "app"});
    notice over(QZ_MOM_CMD_NONE);
    over.end = QZ_MOM_END_EXPIRY;
    EXPECT_EQ(sw_evlan_release_callback(recording::handle(), &over, nullptr), -2);
    EXPECT_THAT(trace(), ElementsAre("error sw_evlan_release_callback: Assert:MOM args is NULL.\n"));
}

TEST_F(EvlanReleaseEnd, FreesTheCopy)
{
    add_user({.name = "app"});
    release("app", vxlan, 0x7b);
    void *copy = recording::calls().at(0).args;
    recording::reset();
    notice over(QZ_MOM_CMD_EXPIRED);
    over.db = 0x1f;
    over.end = QZ_MOM_END_EXPIRY;
    const auto blocks = freed_by([&] { EXPECT_EQ(sw_evlan_release_callback(recording::handle(), &over, copy), 0); });
    EXPECT_THAT(blocks, ElementsAre(copy));
    EXPECT_THAT(
        trace(),
        ElementsAre(
            format("info sw_evlan_release_callback: db: 0x1f, key: the key, field: the field, cmd: 27, args: %p.",
                   copy),
            "info sw_evlan_release_callback: pexpire_end, user: app, type: 0x20, keyid: 123."));
}

// The store took the call, and its server has refused it: nothing more comes.
TEST_F(EvlanReleaseEnd, WithAnErrorFreesTheCopyToo)
{
    add_user({.name = "app"});
    release("app", vxlan, 0x7b);
    void *copy = recording::calls().at(0).args;
    recording::reset();
    notice failed(QZ_MOM_CMD_NONE);
    failed.error = -105;
    const auto refused = [&] { EXPECT_EQ(sw_evlan_release_callback(recording::handle(), &failed, copy), -2); };
    EXPECT_THAT(freed_by(refused), IsEmpty()) << "more may come";
    failed.end = QZ_MOM_END_EXPIRY;
    EXPECT_THAT(freed_by(refused), ElementsAre(copy));
    EXPECT_THAT(trace(), Each("error sw_evlan_release_callback: Assert:MOM error is -105.\n"));
}

TEST_F(EvlanReleaseEnd, KeepsTheCopyUntilTheEnd)
{
    add_user({.name = "app"});
    app_key copy("app", vxlan, 7);
    for (const int32_t end : {QZ_MOM_END_NONE, QZ_MOM_END_SCAN}) {
        recording::reset();
        notice other(QZ_MOM_CMD_NONE);
        other.end = end;
        const auto blocks =
            freed_by([&] { EXPECT_EQ(sw_evlan_release_callback(recording::handle(), &other, &copy), 0); });
        EXPECT_THAT(blocks, IsEmpty());
        EXPECT_THAT(trace(), SizeIs(1));
    }
}

// ---- plain VLANs

TEST_F(VlanRelease, IsImmediate)
{
    add_user({.name = "app"});
    for (const uint32_t type : {0u, 16u, 32u, 128u}) {
        recording::reset();
        vlan_key key("app", type, 77);
        EXPECT_EQ(sw_vlan_release(&key), 0);
        EXPECT_EQ(trace().back(), "qz_mom_del 4 " + session_key("app", vlan, 77)) << type;
    }
    recording::reset();
    vlan_key key("app", l3intf_sub, 77);
    EXPECT_EQ(sw_vlan_release(&key), 0);
    EXPECT_EQ(trace().back(), "qz_mom_del 4 " + session_key("app", l3intf_sub, 77));
    EXPECT_EQ(g_diagnosis_stat.evlan_total_release, 5u);
}

TEST_F(VlanRelease, RefusesNullAndUnknownUsers)
{
    add_user({.name = "app"});
    EXPECT_EQ(sw_vlan_release(nullptr), -2);
    EXPECT_THAT(recording::logged(100), ElementsAre("Assert:Bad index."));
    vlan_key key("nobody", vlan, 77);
    EXPECT_EQ(sw_vlan_release(&key), -2);
    EXPECT_EQ(recording::logged().back(), "Assert:No user named 'nobody'.\n");
}

TEST_F(VlanRelease, PassesTheStoresCodeOn)
{
    add_user({.name = "app"});
    recording::set_result("qz_mom_del", -102);
    vlan_key key("app", vlan, 77);
    EXPECT_EQ(sw_vlan_release(&key), -102);
}

}  // namespace
