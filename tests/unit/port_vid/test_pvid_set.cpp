// A user's own default VLANs: the local record, the published one, and its aging.
#include "port_vid_fixture.hpp"

namespace
{

using namespace port_vid_test;
using PvidSet = PortVidTest;
using PvidAging = PortVidTest;

constexpr uint32_t port = port_1;

std::string record_of(int32_t vid, const char *user = "app", uint32_t of = port)
{
    const std::string pvid = vid != 0 ? format(" pvid:%d", vid) : "";
    return format("u_bridge.port_vid{index{t_user:\"%s\" port:%d}", user, static_cast<int32_t>(of)) + pvid + "}";
}

std::string begin_line(int32_t vid)
{
    return line("debug", "pvid_set", format("user: app, ifx: %u, vid: %d.", port, vid));
}

uint32_t local_pvid(uint32_t of = port, const char *user = "app")
{
    const sw_eport_attr *record = sw_eport_db_get_item(0, user, of);
    return record != nullptr ? record->attr.underlay.pvid : 0xdeadu;
}

TEST_F(PvidSet, PublishesAndKeepsAVlan)
{
    add_user();
    for (const int32_t vid : {1, 10, 4094, 1}) {
        recording::reset();
        EXPECT_EQ(sw_vlan_pvid_set("app", port, vid), 0);
        EXPECT_THAT(trace(), ElementsAre(begin_line(vid), line("debug", "pvid_set", "setting port vid."),
                                         "qz_mom_hmset 6 " + record_of(vid)));
        expect_call(only_call(), "qz_mom_hmset", own_db, record_of(vid));
        expect_callback(only_call(), nullptr, nullptr);
        EXPECT_THAT(only_call().fields, ElementsAre(6u));
        EXPECT_EQ(only_call().count, 1u);
        EXPECT_EQ(local_pvid(), static_cast<uint32_t>(vid));
    }
    EXPECT_EQ(counts(), "subscribe 0 set 4 get 0 delete 0 nums 0");
}

TEST_F(PvidSet, To0Withdraws)
{
    add_user();
    EXPECT_EQ(sw_vlan_pvid_set("app", port, 10), 0);
    recording::reset();
    EXPECT_EQ(sw_vlan_pvid_set("app", port, 0), 0);
    EXPECT_THAT(trace(), ElementsAre(begin_line(0), line("debug", "pvid_set", "deleting port vid."),
                                     "qz_mom_del 6 " + record_of(0)));
    expect_call(only_call(), "qz_mom_del", own_db, record_of(0));
    expect_callback(only_call(), nullptr, nullptr);
    EXPECT_EQ(local_pvid(), 0u);
    EXPECT_EQ(counts(), "subscribe 0 set 1 get 0 delete 1 nums 0");
}

TEST_F(PvidSet, BelowZeroStaysLocal)
{
    add_user();
    for (const int32_t vid : {-1, -2, INT32_MIN}) {
        recording::reset();
        EXPECT_EQ(sw_vlan_pvid_set("app", port, vid), 0);
        EXPECT_THAT(trace(), ElementsAre(begin_line(vid)));
        EXPECT_EQ(local_pvid(), static_cast<uint16_t>(vid));
    }
    EXPECT_EQ(counts(), "subscribe 0 set 0 get 0 delete 0 nums 0");
}

TEST_F(PvidSet, KeepsSixteenBitsAndPublishesAll)
{
    add_user();
    EXPECT_EQ(sw_vlan_pvid_set("app", port, 0x12345), 0);
    EXPECT_EQ(local_pvid(), 0x2345u);
    EXPECT_EQ(only_call().record, record_of(0x12345));
    EXPECT_EQ(sw_vlan_pvid_set("app", port, INT32_MAX), 0);
    EXPECT_EQ(local_pvid(), 0xffffu);
    EXPECT_EQ(recording::calls().back().record, record_of(INT32_MAX));
}

TEST_F(PvidSet, OfAnUnknownPortMakesAFreshRecord)
{
    add_user();
    EXPECT_EQ(sw_vlan_pvid_set("app", port, 10), 0);
    sw_eport_attr wanted;
    sw_eport_init(&wanted, "app", port);
    wanted.attr.underlay.pvid = 10;
    EXPECT_EQ(wanted.vlan_filter, 7u);
    ASSERT_NE(sw_eport_db_get_item(0, "app", port), nullptr);
    EXPECT_EQ(std::memcmp(sw_eport_db_get_item(0, "app", port), &wanted, sizeof wanted), 0);
}

TEST_F(PvidSet, LeavesTheRestOfTheRecord)
{
    add_user();
    EXPECT_EQ(sw_vlan_port_add("app", 100, port_1, U_BRIDGE__TAG_TYPE__TAGGED), 0);
    sw_eport_attr wanted = *sw_eport_db_get_item(0, "app", port);
    wanted.attr.underlay.pvid = 10;
    EXPECT_EQ(sw_vlan_pvid_set("app", port, 10), 0);
    EXPECT_EQ(std::memcmp(sw_eport_db_get_item(0, "app", port), &wanted, sizeof wanted), 0);
}

// The two views of a record share their storage: part of match_vid gives way.
TEST_F(PvidSet, GoesIntoTheRecordOfACircuitToo)
{
    add_user();
    sw_eport_attr wanted;
    sw_eport_init(&wanted, "app", circuit_4);
    wanted.attr.overlay.match_vid = UINT32_MAX;
    wanted.attr.overlay.match_port = port_1;
    wanted.attr.overlay.evlan_id = 0x20000005;
    ASSERT_NE(sw_eport_db_insert_item(0, "app", &wanted), nullptr);
    EXPECT_EQ(sw_vlan_pvid_set("app", circuit_4, 10), 0);
    wanted.attr.underlay.pvid = 10;
    EXPECT_EQ(std::memcmp(sw_eport_db_get_item(0, "app", circuit_4), &wanted, sizeof wanted), 0);
}

TEST_F(PvidSet, IsOfOneUserAndOnePort)
{
    add_user("app");
    add_user("other")->mod_db = 9;
    EXPECT_EQ(sw_vlan_pvid_set("app", port, 1), 0);
    EXPECT_EQ(sw_vlan_pvid_set("app", port + 1, 2), 0);
    EXPECT_EQ(sw_vlan_pvid_set("other", port, 3), 0);
    EXPECT_EQ(local_pvid(), 1u);
    EXPECT_EQ(local_pvid(port + 1), 2u);
    EXPECT_EQ(local_pvid(port, "other"), 3u);
    EXPECT_EQ(recording::calls().back().db, 9u);
    EXPECT_EQ(recording::calls().back().record, record_of(3, "other"));
}

TEST_F(PvidSet, TakesPortsWithTheHighestBit)
{
    add_user();
    EXPECT_EQ(sw_vlan_pvid_set("app", 0x90000005, 7), 0);
    EXPECT_EQ(local_pvid(0x90000005), 7u);
    EXPECT_EQ(only_call().record, record_of(7, "app", 0x90000005));
    EXPECT_EQ(trace().front(),
              line("debug", "pvid_set", format("user: app, ifx: %d, vid: 7.", static_cast<int32_t>(0x90000005))));
}

// What others have set counts in the table alone.
TEST_F(PvidSet, TouchesNoCacheAndTellsNobody)
{
    add_user();
    start_over();
    EXPECT_EQ(sw_vlan_pvid_set("app", port, 10), 0);
    EXPECT_EQ(sw_vlan_pvid_set("app", port, 0), 0);
    EXPECT_FALSE(is_cached(ifx_1));
    EXPECT_EQ(sw_vlan_pvid_entry_hash_size(0), 0u);
    EXPECT_THAT(heard(), IsEmpty());
}

TEST_F(PvidSet, ThatFailsTellsTheStoresCodeAndCounts)
{
    add_user();
    recording::set_result("qz_mom_hmset", -105);
    recording::set_result("qz_mom_del", -104);
    EXPECT_EQ(sw_vlan_pvid_set("app", port, 10), -105);
    EXPECT_EQ(trace().back(), line("error", "pvid_set", "Assert:sw_vlan_pvid_set failed, rv: -105."));
    EXPECT_EQ(local_pvid(), 10u);
    EXPECT_EQ(sw_vlan_pvid_set("app", port, 0), -104);
    EXPECT_EQ(trace().back(), line("error", "pvid_set", "Assert:sw_vlan_pvid_set failed, rv: -104."));
    EXPECT_EQ(local_pvid(), 0u);
    EXPECT_EQ(counts(), "subscribe 0 set 1 get 0 delete 1 nums 0");
}

TEST_F(PvidSet, WithoutMemoryForALocalRecordIsPublishedAllTheSame)
{
    add_user();
    recording::fail_allocation(1, true);
    EXPECT_EQ(sw_vlan_pvid_set("app", port, 10), 0);
    recording::fail_allocation(0);
    EXPECT_THAT(errors(), ElementsAre(format("Assert:Insert inst[0].user[app].eport[0x%x] failed.", port)));
    EXPECT_EQ(only_call().record, record_of(10));
    EXPECT_EQ(local_pvid(), 0xdeadu);
}

TEST_F(PvidSet, RefusesUnknownUsers)
{
    add_user();
    for (const int32_t vid : {10, 0, -1})
        EXPECT_EQ(sw_vlan_pvid_set("nobody", port, vid), -2);
    EXPECT_THAT(trace(), testing::AllOf(SizeIs(3), Each(line("error", "pvid_set", no_such_user))));
    EXPECT_EQ(sw_vlan_pvid_set(nullptr, port, 10), -2);
    EXPECT_EQ(trace().back(), line("error", "pvid_set", "Assert:No user named 'NULL'.\n"));
    EXPECT_THAT(recording::calls(), IsEmpty());
    EXPECT_EQ(counts(), "subscribe 0 set 0 get 0 delete 0 nums 0");
}

// ---- aging

constexpr char own_records[] = "u_bridge.port_vid{index{t_user:\"app\"}}";

TEST_F(PvidAging, MarksTheUsersRecords)
{
    add_user();
    EXPECT_EQ(sw_vlan_port_vid_aging_flag_set("app", &two_seconds, ended, &user_argument), 0);
    EXPECT_THAT(trace(), ElementsAre(std::string("qz_mom_pexpire 6 ") + own_records));
    expect_pattern_call(only_call(), "qz_mom_pexpire", own_db, own_records);
    expect_delay(only_call(), two_seconds);
    expect_callback(only_call(), ended, &user_argument);
}

TEST_F(PvidAging, MarksAtOnceWithoutCallback)
{
    add_user();
    EXPECT_EQ(sw_vlan_pvid_aging_flag_set_sync("app", &two_seconds), 0);
    EXPECT_THAT(trace(), ElementsAre(std::string("qz_mom_pexpire_sync 6 ") + own_records));
    expect_pattern_call(only_call(), "qz_mom_pexpire_sync", own_db, own_records);
    expect_delay(only_call(), two_seconds);
}

TEST_F(PvidAging, WithoutTimerLastsHalfAnHour)
{
    add_user();
    EXPECT_EQ(sw_vlan_port_vid_aging_flag_set("app", nullptr, nullptr, nullptr), 0);
    expect_default_delay(only_call());
    expect_callback(only_call(), nullptr, nullptr);
    recording::reset();
    EXPECT_EQ(sw_vlan_pvid_aging_flag_set_sync("app", nullptr), 0);
    expect_default_delay(only_call());
}

TEST_F(PvidAging, DeletesWhatIsStillMarkedWhateverTheStoreSays)
{
    add_user();
    for (const int32_t code : {0, -105}) {
        recording::reset();
        recording::set_result("qz_mom_del_expire", code);
        EXPECT_EQ(sw_vlan_pvid_aged_data_delete("app", ended, &user_argument), 0);
        EXPECT_THAT(trace(), ElementsAre(line("info", "pvid_aged_data_delete", "delete aged data\n"),
                                         std::string("qz_mom_del_expire 6 ") + own_records));
        expect_pattern_call(only_call(), "qz_mom_del_expire", own_db, own_records);
        expect_callback(only_call(), ended, &user_argument);
    }
}

TEST_F(PvidAging, ThatCannotMarkTellsTheStoresCode)
{
    add_user();
    recording::set_result("qz_mom_pexpire", -105);
    recording::set_result("qz_mom_pexpire_sync", -104);
    void *handle = recording::other_handle();
    EXPECT_EQ(sw_vlan_port_vid_aging_flag_set("app", nullptr, ended, nullptr), -105);
    EXPECT_EQ(trace().back(),
              line("error", "port_vid_aging_flag_set",
                   format("Assert:qz_mom_pexpire failed, user: app, mom_handle: %p, mom_db: 6, rv: -105.", handle)));
    EXPECT_EQ(sw_vlan_pvid_aging_flag_set_sync("app", nullptr), -104);
    EXPECT_EQ(trace().back(),
              line("error", "pvid_aging_flag_set_sync",
                   format("Assert:Aging all PVID of 'app' in db[6] failed, global is %p, error is -104.\n", handle)));
    EXPECT_THAT(errors(), SizeIs(2));
}

TEST_F(PvidAging, RefusesUnknownUsers)
{
    add_user();
    EXPECT_EQ(sw_vlan_port_vid_aging_flag_set("nobody", nullptr, ended, nullptr), -2);
    EXPECT_EQ(sw_vlan_pvid_aging_flag_set_sync("nobody", nullptr), -2);
    EXPECT_EQ(sw_vlan_pvid_aged_data_delete("nobody", ended, nullptr), -2);
    EXPECT_THAT(trace(), ElementsAre(line("error", "port_vid_aging_flag_set", no_such_user),
                                     line("error", "pvid_aging_flag_set_sync", no_such_user),
                                     line("error", "pvid_aged_data_delete", no_such_user)));
    EXPECT_EQ(sw_vlan_port_vid_aging_flag_set(nullptr, nullptr, ended, nullptr), -2);
    EXPECT_EQ(sw_vlan_pvid_aging_flag_set_sync(nullptr, nullptr), -2);
    EXPECT_EQ(sw_vlan_pvid_aged_data_delete(nullptr, ended, nullptr), -2);
    EXPECT_THAT(errors(), testing::Contains("Assert:No user named 'NULL'.\n").Times(3));
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TEST_F(PvidAging, LeavesLocalRecordsCacheAndCounters)
{
    add_user();
    start_over();
    EXPECT_EQ(sw_vlan_pvid_set("app", port, 10), 0);
    EXPECT_EQ(write(port_1, 10, 0), 0);
    const std::string before = counts();
    EXPECT_EQ(sw_vlan_port_vid_aging_flag_set("app", nullptr, ended, nullptr), 0);
    EXPECT_EQ(sw_vlan_pvid_aging_flag_set_sync("app", nullptr), 0);
    EXPECT_EQ(sw_vlan_pvid_aged_data_delete("app", ended, nullptr), 0);
    EXPECT_EQ(local_pvid(), 10u);
    EXPECT_EQ(cached_text(ifx_1), "10 was 0");
    EXPECT_EQ(counts(), before);
}

}  // namespace
