// Giving an eport id back: at once or after the release delay, what goes with it, and the end of the delay.
#include "eport_fixture.hpp"

namespace
{

using namespace eport_test;
using EportRelease = EportTest;
using EportReleaseEnd = EportTest;

int32_t release(const char *name, uint32_t type, int32_t keyid1, int32_t keyid2)
{
    app_key key(name, type, keyid1, keyid2);
    return sw_eport_release(&key);
}

int32_t release_direct(const char *name, uint32_t type, int32_t keyid1, int32_t keyid2)
{
    app_key key(name, type, keyid1, keyid2);
    return sw_eport_release_direct(&key);
}

TEST_F(EportRelease, RefusesANullIndex)
{
    add_user({.name = "app"});
    EXPECT_EQ(sw_eport_release_exec(nullptr, 0), -2);
    EXPECT_EQ(sw_eport_release(nullptr), -2);
    EXPECT_EQ(sw_eport_release_direct(nullptr), -2);
    EXPECT_THAT(trace(), SizeIs(3));
    EXPECT_THAT(trace(), Each("error sw_eport_release_exec: Assert:EPORT index is NULL."));
    EXPECT_EQ(g_diagnosis_stat.eport_total_release, 0u);
}

TEST_F(EportRelease, RefusesAnUnknownUser)
{
    add_user({.name = "app"});
    EXPECT_EQ(release("nobody", ac, 7, 8), -2);
    EXPECT_THAT(trace(), ElementsAre("error sw_eport_release_exec: Assert:No user named 'nobody'.\n"));
    recording::reset();
    EXPECT_EQ(release(nullptr, ac, 7, 8), -2);
    EXPECT_TRUE(traced("error sw_eport_release_exec: Assert:No user named 'NULL'.\n"));
    EXPECT_THAT(recording::calls(), IsEmpty());
    EXPECT_EQ(g_diagnosis_stat.eport_total_release, 0u);
}

TEST_F(EportRelease, OfAHeldIdDropsItsAttributesThenDelaysTheSession)
{
    add_user({.name = "app"});
    grant("app", ac, 7, -8, 0x30000005);
    recording::reset();
    EXPECT_EQ(release("app", ac, 7, -8), 0);
    EXPECT_THAT(trace(),
                ElementsAre("info sw_eport_release_exec: app2udp eport_id: 0x30000005, rv: 0.",
                            "info sw_eport_db_delete_item: Remove user[app].eport[0x30000005].",
                            "qz_mom_del 13 " + attribute_key("app", 0x30000005),
                            "qz_mom_pexpire 4 " + session_key("app", ac, 7, -8),
                            "info sw_eport_release_exec: User[app] release eport[type:0x30, keyid1:7, keyid2:-8]."));
    EXPECT_EQ(held("app", 0x30000005), nullptr);
    EXPECT_EQ(g_diagnosis_stat.eport_total_release, 1u);
    EXPECT_EQ(g_diagnosis_stat.evlan_total_release, 0u);
    end_delays();
}

TEST_F(EportRelease, HandsTheStoreTheDelayAndACopyOfTheKey)
{
    add_user({.name = "app", .db = 9, .handle = recording::other_handle()});
    app_key key("app", l3intf_ac, 7, 8);
    EXPECT_EQ(sw_eport_release(&key), 0);
    const auto calls = recording::calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].function, "qz_mom_pexpire");
    EXPECT_EQ(calls[0].handle, recording::other_handle());
    EXPECT_EQ(calls[0].db, 9u);
    EXPECT_EQ(calls[0].mode, 4);
    EXPECT_EQ(calls[0].delay.sec, 40);
    EXPECT_EQ(calls[0].delay.usec, 0);
    EXPECT_EQ(calls[0].callback, address(sw_eport_release_callback));
    const auto *copy = static_cast<const UBridge__EportAppIndex *>(calls[0].args);
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy, &key);
    EXPECT_EQ(copy->t_user, key.t_user);
    EXPECT_EQ(copy->type, 144);
    EXPECT_EQ(copy->keyid1, 7);
    EXPECT_EQ(copy->keyid2, 8);
    EXPECT_EQ(copy->base.descriptor, &u_bridge__eport_app_index__descriptor);
    end_delays();
}

TEST_F(EportRelease, HasADelayOfItsOwn)
{
    add_user({.name = "app"});
    EXPECT_EQ(sw_ebridge_delay_time_set(7, 9), 0);
    release("app", ac, 7, 8);
    EXPECT_EQ(recording::calls().at(0).delay.sec, 9);
    EXPECT_EQ(recording::calls().at(0).delay.usec, 0);
    sw_ebridge_delay_time_set(-1, 0);
    release("app", ac, 7, 8);
    EXPECT_EQ(recording::calls().at(1).delay.sec, 0);
    sw_ebridge_delay_time_set(0, -3);
    release("app", ac, 7, 8);
    EXPECT_EQ(recording::calls().at(2).delay.sec, -3);
    end_delays();
}

TEST_F(EportRelease, DirectDeletesTheSessionAtOnce)
{
    add_user({.name = "app", .db = 9, .handle = recording::other_handle()});
    grant("app", ac, 7, 8, 0x30000005);
    recording::reset();
    EXPECT_EQ(release_direct("app", ac, 7, 8), 0);
    const auto calls = recording::calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(call_text(calls[0]), "qz_mom_del 13 " + attribute_key("app", 0x30000005));
    EXPECT_EQ(call_text(calls[1]), "qz_mom_del 9 " + session_key("app", ac, 7, 8));
    for (const auto &made : calls) {
        EXPECT_EQ(made.handle, recording::other_handle());
        EXPECT_EQ(made.callback, nullptr);
        EXPECT_EQ(made.args, nullptr);
    }
    EXPECT_EQ(trace().back(), "info sw_eport_release_exec: User[app] release eport[type:0x30, keyid1:7, keyid2:8].");
    EXPECT_EQ(g_diagnosis_stat.eport_total_release, 1u);
}

// The evlan release takes the mark of the request off.
TEST_F(EportRelease, LeavesTheMapAsItIsTheMarkToo)
{
    add_user({.name = "app"});
    request("app", ac, 7, 8);
    grant("app", ac, 7, 8, 0x30000005);
    EXPECT_EQ(app_item(ac, 7, 8)->ds_flag, 3u);
    const sw_eport_index_map before = *app_item(ac, 7, 8);
    EXPECT_EQ(release("app", ac, 7, 8), 0);
    EXPECT_EQ(release_direct("app", ac, 7, 8), 0);
    EXPECT_EQ(std::memcmp(app_item(ac, 7, 8), &before, sizeof before), 0);
    EXPECT_NE(udp_item(0x30000005), nullptr);
    end_delays();
}

TEST_F(EportRelease, OfAKeyNotYetGrantedReleasesTheSessionAlone)
{
    add_user({.name = "app"});
    request("app", ac, 7, 8);
    recording::reset();
    EXPECT_EQ(release_direct("app", ac, 7, 8), 0);
    EXPECT_THAT(trace(),
                ElementsAre("info sw_eport_release_exec: app2udp eport_id: 0x0, rv: 0.",
                            "qz_mom_del 4 " + session_key("app", ac, 7, 8),
                            "info sw_eport_release_exec: User[app] release eport[type:0x30, keyid1:7, keyid2:8]."));
    EXPECT_EQ(app_item(ac, 7, 8)->ds_flag, 2u);
}

TEST_F(EportRelease, OfAnUnknownKeyStillReleasesTheSession)
{
    add_user({.name = "app"});
    EXPECT_EQ(release("app", ac, 7, 8), 0);
    EXPECT_THAT(trace(),
                ElementsAre("info sw_eport_release_exec: app2udp eport_id: 0x0, rv: -1.",
                            "qz_mom_pexpire 4 " + session_key("app", ac, 7, 8),
                            "info sw_eport_release_exec: User[app] release eport[type:0x30, keyid1:7, keyid2:8]."));
    end_delays();
    EXPECT_EQ(sw_eport_index_map_hash_size(0), 0u);
    EXPECT_EQ(g_diagnosis_stat.eport_total_release, 1u);
}

TEST_F(EportRelease, OfAPortTakesTheIdFromThePortTable)
{
    add_user({.name = "app"});
    grant("app", port, 0, 33, 0x10000063);
    insert("app", 0x10000005);
    recording::reset();
    add_row(33, 7u << 24 | 5);
    EXPECT_EQ(release_direct("app", port, 0, 33), 0);
    EXPECT_EQ(held("app", 0x10000005), nullptr);
    EXPECT_NE(held("app", 0x10000063), nullptr);
    EXPECT_THAT(trace(),
                ElementsAre(look_up("libddm_get_phyid_by_ifx"),
                            "info sw_eport_app2udp: libddm ifx: 33 => phyid: 0x7000005, rv: 0.",
                            "info sw_eport_app2udp: eport[0x10000005].",
                            "info sw_eport_release_exec: app2udp eport_id: 0x10000005, rv: 0.",
                            "info sw_eport_db_delete_item: Remove user[app].eport[0x10000005].",
                            "qz_mom_del 13 " + attribute_key("app", 0x10000005),
                            "qz_mom_del 4 " + session_key("app", port, 0, 33),
                            "info sw_eport_release_exec: User[app] release eport[type:0x10, keyid1:0, keyid2:33]."));
}

TEST_F(EportRelease, OfAPortThatThePortTableDoesNotKnowGoesOn)
{
    add_user({.name = "app"});
    EXPECT_EQ(release_direct("app", ap, 0, 33), 0);
    EXPECT_TRUE(traced("info sw_eport_release_exec: app2udp eport_id: 0x20000000, rv: -2."));
    EXPECT_EQ(recording::calls_of("qz_mom_del").size(), 1u);
    EXPECT_EQ(g_diagnosis_stat.eport_total_release, 1u);
}

// Its id is then that of aggregate 0, like any translation that fails.
TEST_F(EportRelease, OfAPortThatThePortTableDoesNotKnowTakesTheRecordOfAggregate0)
{
    add_user({.name = "app"});
    ASSERT_NE(sw_eport_attr_db_verify(0, "app", 0x20000000), nullptr);
    recording::reset();
    EXPECT_EQ(release_direct("app", ap, 0, 33), 0);
    EXPECT_EQ(held("app", 0x20000000), nullptr);
    ASSERT_EQ(recording::calls_of("qz_mom_del").size(), 2u);
    EXPECT_EQ(call_text(recording::calls_of("qz_mom_del").at(0)), "qz_mom_del 13 " + attribute_key("app", 0x20000000));
}

TEST_F(EportRelease, OfAnIdWithoutALocalRecordLeavesTheAttributesAlone)
{
    add_user({.name = "app"});
    grant("app", ac, 7, 8, 0x30000005);
    sw_eport_db_delete_glb_item(0, "app", 0x30000005);
    recording::reset();
    EXPECT_EQ(release_direct("app", ac, 7, 8), 0);
    EXPECT_THAT(recording::calls(), SizeIs(1));
    EXPECT_EQ(call_text(recording::calls().at(0)), "qz_mom_del 4 " + session_key("app", ac, 7, 8));
}

// A grant makes the requester's record alone, so a foreign key has no record of the releaser's.
TEST_F(EportRelease, OfAForeignKeyLeavesTheHoldersRecord)
{
    add_user({.name = "holder"});
    add_user({.name = "other"});
    grant("holder", ac, 7, 8, 0x30000005);
    recording::reset();
    EXPECT_EQ(release_direct("other", ac, 7, 8), 0);
    EXPECT_NE(held("holder", 0x30000005), nullptr);
    ASSERT_EQ(recording::calls().size(), 1u);
    EXPECT_EQ(call_text(recording::calls().at(0)), "qz_mom_del 4 " + session_key("other", ac, 7, 8));
}

// The record goes with the release, and the caller's name with it.
TEST_F(EportRelease, TakesANameThatStandsInTheRecordItWithdraws)
{
    const sw_ebridge_list_item *user = add_user({.name = "app"});
    for (const uint32_t delayed : {0u, 1u}) {
        grant("app", ac, 7, 8, 0x30000005);
        sw_eport_attr *record = held("app", 0x30000005);
        ASSERT_NE(record, nullptr);
        recording::reset();
        app_key key(record->user_name, ac, 7, 8);
        spoiling(record, [&] { EXPECT_EQ(sw_eport_release_exec(&key, delayed), 0); });
        ASSERT_EQ(recording::calls().size(), 2u);
        for (const auto &call : recording::calls())
            EXPECT_THAT(call.record, testing::HasSubstr("t_user:\"app\""));
        EXPECT_EQ(recording::logged().back(), "User[app] release eport[type:0x30, keyid1:7, keyid2:8].");
    }
    const auto *kept = static_cast<const UBridge__EportAppIndex *>(recording::calls().back().args);
    ASSERT_NE(kept, nullptr);
    EXPECT_EQ(kept->t_user, user->user_name);  // read again when the delay is over
    end_delays();
}

class EportReleaseOfAType : public EportTest, public testing::WithParamInterface<uint32_t>
{
};

TEST_P(EportReleaseOfAType, IsDelayedWhateverTheType)
{
    add_user({.name = "app"});
    EXPECT_EQ(release("app", GetParam(), 7, 8), 0);
    const auto calls = recording::calls_of("qz_mom_pexpire");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(call_text(calls[0]), "qz_mom_pexpire 4 " + session_key("app", GetParam(), 7, 8));
    EXPECT_EQ(calls[0].mode, 4);
    EXPECT_THAT(recording::calls_of("qz_mom_del"), IsEmpty());
    end_delays();
}

INSTANTIATE_TEST_SUITE_P(All, EportReleaseOfAType,
                         testing::Values(port, local_port, ap, ac, pw, 112u, l3intf_ac, 255u));

// On the evlan side only 1 delays.
TEST_F(EportRelease, ExecDelaysForAnythingButZero)
{
    add_user({.name = "app"});
    app_key key("app", ac, 7, 8);
    for (const uint32_t delayed : {1u, 2u, 0x80000000u, 0xffffffffu}) {
        EXPECT_EQ(sw_eport_release_exec(&key, delayed), 0);
        EXPECT_EQ(recording::calls().back().function, "qz_mom_pexpire") << delayed;
    }
    end_delays();
    EXPECT_EQ(sw_eport_release_exec(&key, 0), 0);
    EXPECT_EQ(recording::calls().back().function, "qz_mom_del");
}

TEST_F(EportRelease, GoesOnWhenTheAttributesCannotBeDeleted)
{
    add_user({.name = "app"});
    grant("app", ac, 7, 8, 0x30000005);
    recording::reset();
    recording::set_result("qz_mom_del", -104, 1);
    EXPECT_EQ(release_direct("app", ac, 7, 8), 0);
    EXPECT_THAT(recording::logged(100),
                ElementsAre("Assert:qz_mom_del failed, user: app, eport_id: 0x30000005, rv: -104."));
    EXPECT_TRUE(
        traced("error sw_eport_release_exec: Assert:qz_mom_del failed, user: app, eport_id: 0x30000005, "
               "rv: -104."));
    EXPECT_EQ(recording::calls_of("qz_mom_del").size(), 2u);
    EXPECT_EQ(held("app", 0x30000005), nullptr);
}

TEST_F(EportRelease, FailedDeletionIsReportedAndCounted)
{
    add_user({.name = "app"});
    recording::set_result("qz_mom_del", -105);
    EXPECT_EQ(release_direct("app", ac, 7, 8), -105);
    EXPECT_THAT(recording::logged(100),
                ElementsAre("User[app] release eport[type:0x30, keyid1:7, keyid2:8] failed, error is -105."));
    EXPECT_THAT(trace().back(), StartsWith("error sw_eport_release_exec: User[app] release "));
    EXPECT_EQ(g_diagnosis_stat.eport_total_release, 1u);
}

TEST_F(EportRelease, FailedDelayIsReportedAndKeepsTheCopy)
{
    add_user({.name = "app"});
    recording::set_result("qz_mom_pexpire", 3);
    app_key key("app", ac, 7, 8);
    int32_t result = 0;
    const auto blocks = freed_by([&] { result = sw_eport_release(&key); });
    EXPECT_EQ(result, 3);
    EXPECT_THAT(recording::logged(100),
                ElementsAre("User[app] release eport[type:0x30, keyid1:7, keyid2:8] failed, error is 3."));
    EXPECT_THAT(blocks, IsEmpty());
    EXPECT_EQ(g_diagnosis_stat.eport_total_release, 1u);
    end_delays();
}

// On the evlan side it is -2, and not counted.
TEST_F(EportRelease, WithoutMemoryForTheCopyIsReportedAndCounted)
{
    add_user({.name = "app"});
    grant("app", ac, 7, 8, 0x30000005);
    recording::reset();
    recording::fail_allocation(1);
    EXPECT_EQ(release("app", ac, 7, 8), -3);
    recording::fail_allocation(0);
    EXPECT_THAT(recording::logged(100),
                ElementsAre("User[app] release eport[type:0x30, keyid1:7, keyid2:8] failed, error is -3."));
    EXPECT_THAT(recording::calls_of("qz_mom_pexpire"), IsEmpty());
    EXPECT_EQ(recording::calls_of("qz_mom_del").size(), 1u);
    EXPECT_EQ(g_diagnosis_stat.eport_total_release, 1u);
}

TEST_F(EportRelease, DirectNeedsNoMemory)
{
    add_user({.name = "app"});
    grant("app", ac, 7, 8, 0x30000005);
    recording::fail_allocation(1, true);
    EXPECT_EQ(release_direct("app", ac, 7, 8), 0);
    recording::fail_allocation(0);
}

// ---- the end of the delay

TEST_F(EportReleaseEnd, RefusesANullMessageFirst)
{
    add_user({.name = "app"});
    EXPECT_EQ(sw_eport_release_callback(recording::handle(), nullptr, nullptr), -2);
    EXPECT_THAT(trace(), ElementsAre("error sw_eport_release_callback: Assert:MOM msg is NULL.\n"));
}

TEST_F(EportReleaseEnd, RefusesAnErrorBeforeItLooksAtTheArgument)
{
    add_user({.name = "app"});
    notice failed(QZ_MOM_CMD_NONE);
    failed.error = -105;
    failed.end = QZ_MOM_END_EXPIRY;
    EXPECT_EQ(sw_eport_release_callback(recording::handle(), &failed, nullptr), -2);
    EXPECT_THAT(trace(), ElementsAre("error sw_eport_release_callback: Assert:MOM error is -105.\n"));
}

TEST_F(EportReleaseEnd, RefusesANullArgument)
{
    add_user({.name = "app"});
    notice over(QZ_MOM_CMD_NONE);
    over.end = QZ_MOM_END_EXPIRY;
    EXPECT_EQ(sw_eport_release_callback(recording::handle(), &over, nullptr), -2);
    EXPECT_THAT(trace(), ElementsAre("error sw_eport_release_callback: Assert:MOM args is NULL.\n"));
}

TEST_F(EportReleaseEnd, FreesTheCopy)
{
    add_user({.name = "app"});
    release("app", ac, 7, -8);
    void *copy = recording::calls().at(0).args;
    recording::reset();
    notice over(QZ_MOM_CMD_EXPIRED);
    over.db = 0x1f;
    over.end = QZ_MOM_END_EXPIRY;
    const auto blocks = freed_by([&] { EXPECT_EQ(sw_eport_release_callback(recording::handle(), &over, copy), 0); });
    EXPECT_THAT(blocks, ElementsAre(copy));
    EXPECT_THAT(
        trace(),
        ElementsAre(
            format("info sw_eport_release_callback: db: 0x1f, key: the key, field: the field, cmd: 27, args: %p.",
                   copy),
            "info sw_eport_release_callback: pexpire_end, user: app, type: 0x30, keyid1: 7, keyid2: -8."));
}

// The store took the call, and its server has refused it: nothing more comes.
TEST_F(EportReleaseEnd, WithAnErrorFreesTheCopyToo)
{
    add_user({.name = "app"});
    release("app", ac, 7, -8);
    void *copy = recording::calls().at(0).args;
    recording::reset();
    notice failed(QZ_MOM_CMD_NONE);
    failed.error = -105;
    const auto refused = [&] { EXPECT_EQ(sw_eport_release_callback(recording::handle(), &failed, copy), -2); };
    EXPECT_THAT(freed_by(refused), IsEmpty()) << "more may come";
    failed.end = QZ_MOM_END_EXPIRY;
    EXPECT_THAT(freed_by(refused), ElementsAre(copy));
    EXPECT_THAT(trace(), Each("error sw_eport_release_callback: Assert:MOM error is -105.\n"));
}

TEST_F(EportReleaseEnd, KeepsTheCopyUntilTheEnd)
{
    add_user({.name = "app"});
    app_key copy("app", ac, 7, 8);
    for (const int32_t end : {QZ_MOM_END_NONE, QZ_MOM_END_SCAN}) {
        recording::reset();
        notice other(QZ_MOM_CMD_NONE);
        other.end = end;
        const auto blocks =
            freed_by([&] { EXPECT_EQ(sw_eport_release_callback(recording::handle(), &other, &copy), 0); });
        EXPECT_THAT(blocks, IsEmpty());
        EXPECT_THAT(trace(), SizeIs(1));
    }
}

}  // namespace
