// Adding VLANs to a port and taking them off: what the local record holds afterwards, what is published, what is said.
#include "port_vlans_fixture.hpp"

namespace
{

using namespace port_vlans_test;
using PortVlansAdd = PortVlansTest;
using PortVlansDel = PortVlansTest;

const std::string written = line("debug", "range_vids_set", "setting port vlans bmp.");
const std::string removed = line("debug", "range_vids_set", "deleting port vlans bmp.");

int32_t add_range(const port_sets &sets, int32_t send_flag, int32_t ifx = port_3, const char *name = "app")
{
    return sw_vlan_port_range_vids_add_with_flag(name, ifx, bitmap(sets.vbmp), bitmap(sets.ubmp), bitmap(sets.mcbmp),
                                                 send_flag);
}

// ---- one VLAN

TEST_F(PortVlansAdd, TaggedIsAMemberWithTheMulticastMarkAndIsPublished)
{
    add_user();
    EXPECT_EQ(sw_vlan_port_add("app", 100, port_3, tagged), 0);
    const port_sets wanted{vlans({100}), {}, vlans({100})};
    EXPECT_EQ(local(port_3), wanted);
    EXPECT_THAT(trace(), ElementsAre(line("debug", "add", format("user: app, vid: 100, add ifx: %d, tag: 1.", port_3)),
                                     line("debug", "add_with_flag",
                                          format("user_name: app, vid: 100, ifx: %d, tag: 1, send_flag: 3.", port_3)),
                                     written, "qz_mom_set 6 " + record_of(wanted)));
    expect_call(only_call(), "qz_mom_set", own_db, record_of(wanted));
    expect_callback(only_call(), nullptr, nullptr);
}

TEST_F(PortVlansAdd, UntaggedHasThatMarkToo)
{
    add_user();
    EXPECT_EQ(sw_vlan_port_add("app", 100, port_3, untagged), 0);
    const port_sets wanted{vlans({100}), vlans({100}), vlans({100})};
    EXPECT_EQ(local(port_3), wanted);
    EXPECT_EQ(trace().front(), line("debug", "add", format("user: app, vid: 100, add ifx: %d, tag: 0.", port_3)));
    EXPECT_EQ(only_call().record, record_of(wanted));
}

TEST_F(PortVlansAdd, OnlyTag0IsUntagged)
{
    add_user();
    for (const int32_t tag : {1, 2, -1, 256, INT32_MIN}) {
        EXPECT_EQ(sw_vlan_port_add_with_flag("app", 100, port_3, tag, 0), 0);
        EXPECT_TRUE(local(port_3).ubmp.none()) << tag;
    }
}

TEST_F(PortVlansAdd, SendFlagSaysWhatIsDone)
{
    add_user();
    for (const int32_t send_flag : {0, 1, 2, 3, 4, 0x7fffffff, -1}) {
        const int32_t ifx = port_3 + (send_flag & 0xffff);
        recording::reset();
        EXPECT_EQ(sw_vlan_port_add_with_flag("app", 7, ifx, untagged, send_flag), 0);
        const port_sets wanted{vlans({7}), vlans({7}), (send_flag & multicast) != 0 ? vlans({7}) : vlan_set()};
        EXPECT_EQ(local(ifx), wanted) << send_flag;
        strings lines{line("debug", "add_with_flag",
                           format("user_name: app, vid: 7, ifx: %d, tag: 0, send_flag: %d.", ifx, send_flag))};
        if ((send_flag & publish) != 0) {
            lines.push_back(written);
            lines.push_back("qz_mom_set 6 " + record_of(wanted, ifx));
        }
        EXPECT_EQ(trace(), lines);
    }
}

TEST_F(PortVlansAdd, EveryVlanIsABitOfItsOwn)
{
    add_user();
    vlan_set all;
    for (int32_t vid = 0; vid < 4096; ++vid) {
        all.set(static_cast<size_t>(vid));
        EXPECT_EQ(sw_vlan_port_add_with_flag("app", vid, port_3, vid % 2, 0), 0);
        ASSERT_EQ(local(port_3).vbmp, all);
        ASSERT_EQ(local(port_3).ubmp[static_cast<size_t>(vid)], vid % 2 == 0);
    }
}

TEST_F(PortVlansAdd, FirstAndLastVlanAreTheOuterBits)
{
    add_user();
    EXPECT_EQ(sw_vlan_port_add("app", 0, port_3, untagged), 0);
    EXPECT_EQ(held(port_3)->attr.underlay.vbmp[0], 1u);
    EXPECT_EQ(sw_vlan_port_add("app", 4095, port_3, tagged), 0);
    EXPECT_EQ(held(port_3)->attr.underlay.vbmp[127], 0x80000000u);
    EXPECT_EQ(held(port_3)->attr.underlay.ubmp[127], 0u);
    EXPECT_EQ(held(port_3)->attr.underlay.mcbmp[127], 0x80000000u);
}

TEST_F(PortVlansAdd, AgainReplacesTheMarksOfThatVlanAlone)
{
    add_user();
    EXPECT_EQ(sw_vlan_port_add("app", 100, port_3, untagged), 0);
    EXPECT_EQ(sw_vlan_port_add("app", 200, port_3, untagged), 0);
    EXPECT_EQ(sw_vlan_port_add("app", 100, port_3, tagged), 0);
    EXPECT_EQ(local(port_3), (port_sets{vlans({100, 200}), vlans({200}), vlans({100, 200})}));
    EXPECT_EQ(sw_vlan_port_add_with_flag("app", 200, port_3, untagged, publish), 0);
    EXPECT_EQ(local(port_3), (port_sets{vlans({100, 200}), vlans({200}), vlans({100})}));
    EXPECT_EQ(recording::calls().back().record, record_of({vlans({100, 200}), vlans({200}), vlans({100})}));
}

TEST_F(PortVlansAdd, OutOfRangeChangesNothing)
{
    add_user();
    hold({vlans({1}), vlans({1}), {}});
    const port_sets before = local(port_3);
    for (const int32_t vid : {-1, 4096, 4097, INT32_MIN, INT32_MAX}) {
        recording::reset();
        EXPECT_EQ(sw_vlan_port_add_with_flag("app", vid, port_3, untagged, publish | multicast), -2);
        EXPECT_THAT(trace(), ElementsAre(line("error", "add_with_flag", format("Assert:Bad vid %d.", vid))));
        EXPECT_EQ(sw_vlan_port_add("app", vid, port_4, untagged), -2);
        EXPECT_EQ(trace().back(), line("error", "add_with_flag", format("Assert:Bad vid %d.", vid)));
        EXPECT_EQ(local(port_3), before);
        EXPECT_EQ(held(port_4), nullptr);
        EXPECT_THAT(recording::calls(), IsEmpty());
    }
}

// ---- the local record

TEST_F(PortVlansAdd, OfAnUnknownPortMakesARecordWithNothingElse)
{
    add_user();
    EXPECT_EQ(held(port_3), nullptr);
    EXPECT_EQ(sw_vlan_port_add("app", 5, port_3, untagged), 0);
    const sw_eport_attr *made = held(port_3);
    ASSERT_NE(made, nullptr);
    sw_eport_attr wanted{};
    std::strcpy(wanted.user_name, "app");
    wanted.eport_id = port_3;
    wanted.attr.underlay.vbmp[0] = wanted.attr.underlay.ubmp[0] = wanted.attr.underlay.mcbmp[0] = 1u << 5;
    EXPECT_EQ(std::memcmp(made, &wanted, sizeof wanted), 0);
    EXPECT_EQ(made->vlan_filter, 0u);
}

TEST_F(PortVlansAdd, LeavesTheRestOfTheRecord)
{
    add_user();
    sw_eport_attr record;
    sw_eport_init(&record, "app", port_3);
    record.attr_flags = 1;
    record.attr_flags2 = 2;
    record.attr.underlay.pvid = 10;
    record.attr.underlay.carried16 = 3;
    record.attr.underlay.vt_key = 4;
    record.attr.underlay.carried32 = 5;
    sw_eport_db_insert_item(0, "app", &record);
    EXPECT_EQ(sw_vlan_port_add("app", 33, port_3, tagged), 0);
    EXPECT_EQ(sw_vlan_port_add("app", 34, port_3, tagged), 0);
    EXPECT_EQ(sw_vlan_port_del("app", 34, port_3), 0);
    record.attr.underlay.vbmp[1] = record.attr.underlay.mcbmp[1] = 2;
    EXPECT_EQ(std::memcmp(held(port_3), &record, sizeof record), 0);
}

TEST_F(PortVlansAdd, IsOfOneUserAndOnePort)
{
    add_user("app");
    add_user("other", 8);
    EXPECT_EQ(sw_vlan_port_add("app", 1, port_3, tagged), 0);
    EXPECT_EQ(sw_vlan_port_add("app", 2, port_4, tagged), 0);
    EXPECT_EQ(sw_vlan_port_add("other", 3, port_3, tagged), 0);
    EXPECT_EQ(local(port_3).vbmp, vlans({1}));
    EXPECT_EQ(local(port_4).vbmp, vlans({2}));
    EXPECT_EQ(local(port_3, "other").vbmp, vlans({3}));
    const recording::call &made = recording::calls().back();
    EXPECT_EQ(made.db, 8u);
    EXPECT_EQ(made.record, record_of({vlans({3}), {}, vlans({3})}, port_3, "other"));
}

TEST_F(PortVlansAdd, TakesAnyPortNumber)
{
    add_user();
    for (const int32_t ifx : {0, 7, INT32_MAX, INT32_MIN, -1}) {
        recording::reset();
        EXPECT_EQ(sw_vlan_port_add("app", 4, ifx, tagged), 0);
        EXPECT_EQ(local(ifx).vbmp, vlans({4}));
        EXPECT_EQ(trace().front(), line("debug", "add", format("user: app, vid: 4, add ifx: %d, tag: 1.", ifx)));
        EXPECT_EQ(decoded(only_call().record).vbmp, vlans({4}));
    }
}

TEST_F(PortVlansAdd, WithoutMemoryForTheRecordPublishesNothing)
{
    add_user();
    recording::fail_allocation(1, true);
    EXPECT_EQ(sw_vlan_port_add("app", 5, port_3, tagged), -5);
    recording::fail_allocation(0);
    EXPECT_THAT(errors(), ElementsAre(format("Assert:Insert inst[0].user[app].eport[0x%x] failed.", port_3)));
    EXPECT_THAT(recording::calls(), IsEmpty());
    EXPECT_EQ(held(port_3), nullptr);
    EXPECT_EQ(sw_vlan_port_add("app", 5, port_3, tagged), 0);
}

TEST_F(PortVlansAdd, ToAKnownPortTakesNoMemory)
{
    add_user();
    hold({vlans({1}), {}, {}});
    recording::fail_allocation(1, true);
    EXPECT_EQ(sw_vlan_port_add("app", 5, port_3, tagged), 0);
    EXPECT_EQ(sw_vlan_port_del("app", 1, port_3), 0);
    EXPECT_EQ(recording::allocations(), 0u);
    recording::fail_allocation(0);
    EXPECT_EQ(local(port_3).vbmp, vlans({5}));
}

// ---- many VLANs

TEST_F(PortVlansAdd, OfManyVlansIsOnePublication)
{
    add_user();
    const port_sets all{vlan_range(1, 4094), vlan_range(2, 3000), {}};
    EXPECT_EQ(add_range(all, publish), 0);
    EXPECT_EQ(local(port_3), all);
    EXPECT_THAT(trace(), ElementsAre(written, "qz_mom_set 6 " + record_of(all)));
    EXPECT_EQ(decoded(only_call().record), all);
    recording::reset();
    EXPECT_EQ(sw_vlan_port_range_vids_del_with_flag("app", port_3, bitmap(vlan_range(1, 4093)), publish), 0);
    EXPECT_THAT(trace(), ElementsAre(line("debug", "range_vids_del_with_flag",
                                          format("user: app, del ifx: %d, send_flag: 1.", port_3)),
                                     written, "qz_mom_set 6 " + record_of({vlans({4094}), {}, {}})));
}

TEST_F(PortVlansAdd, OfManyReplacesTheMarksOfWhatIsAddedOnly)
{
    add_user();
    hold({vlan_range(0, 99), vlan_range(0, 49), vlan_range(25, 74)});
    EXPECT_EQ(add_range({vlan_range(40, 119), vlan_range(60, 200), vlan_range(0, 45)}, 0), 0);
    const port_sets wanted{vlan_range(0, 119), vlan_range(0, 39) | vlan_range(60, 119), vlan_range(25, 45)};
    EXPECT_EQ(local(port_3), wanted);
    EXPECT_THAT(trace(), IsEmpty());
}

TEST_F(PortVlansAdd, OfManyKeepsMarksOfNoMembers)
{
    add_user();
    hold({vlans({1}), vlans({70}), vlans({71})});
    EXPECT_EQ(add_range({vlans({2}), {}, {}}, 0), 0);
    EXPECT_EQ(local(port_3), (port_sets{vlans({1, 2}), vlans({70}), vlans({71})}));
}

TEST_F(PortVlansAdd, OfManyToAnUnknownPortTakesTheBitmapsAsTheyAre)
{
    add_user();
    const port_sets wanted{vlans({1, 2}), vlans({2, 3}), vlans({4095})};
    EXPECT_EQ(add_range(wanted, publish), 0);
    EXPECT_EQ(local(port_3), wanted);
    EXPECT_EQ(only_call().record, record_of(wanted));
}

TEST_F(PortVlansAdd, OfNothingToAnUnknownPortMakesTheRecord)
{
    add_user();
    EXPECT_EQ(add_range({}, publish | multicast), 0);
    EXPECT_NE(held(port_3), nullptr);
    EXPECT_THAT(trace(), ElementsAre(removed, "qz_mom_del 6 " + record_of({})));
}

// Only the walk of all ports passes over them.
TEST_F(PortVlansAdd, AndDeletionOnRoutedSubinterfacesArePublishedToo)
{
    add_user();
    const int32_t ifx = routed_subinterface;
    EXPECT_EQ(add_range({vlans({1, 2}), {}, {}}, publish, ifx), 0);
    EXPECT_EQ(only_call().record, record_of({vlans({1, 2}), {}, {}}, ifx));
    recording::reset();
    EXPECT_EQ(sw_vlan_port_range_vids_del_with_flag("app", ifx, bitmap(vlans({1})), publish), 0);
    EXPECT_EQ(only_call().record, record_of({vlans({2}), {}, {}}, ifx));
    recording::reset();
    EXPECT_EQ(sw_vlan_port_add_with_flag("app", 3, ifx, tagged, publish), 0);
    EXPECT_EQ(only_call().record, record_of({vlans({2, 3}), {}, {}}, ifx));
    recording::reset();
    EXPECT_EQ(sw_vlan_port_del_with_flag("app", 2, ifx, publish), 0);
    EXPECT_EQ(only_call().record, record_of({vlans({3}), {}, {}}, ifx));
}

// Bit 1 counts where one VLAN is added: here the caller's bitmap says it.
TEST_F(PortVlansAdd, OfManyTakesTheMulticastMarkFromTheBitmap)
{
    add_user();
    EXPECT_EQ(add_range({vlans({9}), {}, {}}, multicast), 0);
    EXPECT_EQ(local(port_3), (port_sets{vlans({9}), {}, {}}));
    EXPECT_THAT(recording::calls(), IsEmpty());
}

// As who swaps the marks of a port's VLANs, or takes all of them off.
TEST_F(PortVlansAdd, OfManyTakesBitmapsOfTheRecordItself)
{
    add_user();
    hold({vlans({1, 2, 3}), vlans({1}), vlans({3, 4})});
    const auto &port = held(port_3)->attr.underlay;
    EXPECT_EQ(sw_vlan_port_range_vids_add_with_flag("app", port_3, port.vbmp, port.mcbmp, port.ubmp, 0), 0);
    EXPECT_EQ(local(port_3), (port_sets{vlans({1, 2, 3}), vlans({3}), vlans({1, 4})}));
}

TEST_F(PortVlansDel, OfManyTakesABitmapOfTheRecordItself)
{
    add_user();
    hold({vlans({1, 2, 3}), vlans({1}), vlans({3, 4})});
    EXPECT_EQ(sw_vlan_port_range_vids_del_with_flag("app", port_3, held(port_3)->attr.underlay.vbmp, 0), 0);
    EXPECT_EQ(local(port_3), (port_sets{{}, {}, vlans({4})}));
}

TEST_F(PortVlansAdd, OfManyNeedsItsBitmaps)
{
    add_user();
    const bitmap one(vlans({1}));
    for (int missing = 0; missing < 3; ++missing) {
        recording::reset();
        const uint32_t *given[] = {one, one, one};
        given[missing] = nullptr;
        EXPECT_EQ(sw_vlan_port_range_vids_add_with_flag("app", port_3, given[0], given[1], given[2], publish), -2);
        EXPECT_THAT(trace(), ElementsAre(line("error", "range_vids_add_with_flag", "Assert:Bad bitmap.")));
    }
    EXPECT_EQ(held(port_3), nullptr);
    hold({vlans({1}), {}, {}});
    EXPECT_EQ(sw_vlan_port_range_vids_del_with_flag("app", port_3, nullptr, publish), -2);
    EXPECT_THAT(trace(), ElementsAre(line("error", "range_vids_del_with_flag", "Assert:Bad bitmap.")));
    EXPECT_EQ(local(port_3).vbmp, vlans({1}));
}

// ---- failures

TEST_F(PortVlansAdd, ThatIsNotPublishedTellsItsOwnCodeAndStaysLocally)
{
    add_user();
    for (const int32_t code : {-105, -104, 1}) {
        recording::reset();
        recording::set_result("qz_mom_set", code);
        EXPECT_EQ(sw_vlan_port_add("app", 100, port_3, tagged), -3);
        EXPECT_EQ(local(port_3).vbmp, vlans({100}));
        const strings steps = trace();
        ASSERT_EQ(steps.size(), 6u);
        EXPECT_EQ(steps[4], line("error", "range_vids_set", format("Assert:qz_mom oper failed, rv: %d.", code)));
        EXPECT_EQ(steps[5], line("error", "range_vids_add_with_flag",
                                 format("Assert:sw_vlan_port_range_vids_set failed, rv: %d.", code)));
    }
}

TEST_F(PortVlansAdd, RefusesUnknownUsers)
{
    add_user();
    const std::string refused = line("error", "range_vids_add_with_flag", no_such_user);
    const std::string asked =
        line("debug", "add_with_flag", format("user_name: nobody, vid: 1, ifx: %d, tag: 1, send_flag: 3.", port_3));
    EXPECT_EQ(sw_vlan_port_add_with_flag("nobody", 1, port_3, tagged, 3), -2);
    EXPECT_THAT(trace(), ElementsAre(asked, refused));
    recording::reset();
    EXPECT_EQ(sw_vlan_port_add("nobody", 1, port_3, tagged), -2);
    EXPECT_THAT(trace(), ElementsAre(line("debug", "add", format("user: nobody, vid: 1, add ifx: %d, tag: 1.", port_3)),
                                     asked, refused));
    recording::reset();
    EXPECT_EQ(add_range({vlans({1}), {}, {}}, 3, port_3, "nobody"), -2);
    EXPECT_THAT(trace(), ElementsAre(refused));
    recording::reset();
    EXPECT_EQ(sw_vlan_port_add(nullptr, 1, port_3, tagged), -2);
    EXPECT_EQ(sw_vlan_port_add_with_flag(nullptr, 1, port_3, tagged, 3), -2);
    EXPECT_EQ(add_range({vlans({1}), {}, {}}, 3, port_3, nullptr), -2);
    EXPECT_EQ(trace().front(), line("debug", "add", format("user: NULL, vid: 1, add ifx: %d, tag: 1.", port_3)));
    EXPECT_EQ(trace().at(1), line("debug", "add_with_flag",
                                  format("user_name: NULL, vid: 1, ifx: %d, tag: 1, send_flag: 3.", port_3)));
    EXPECT_THAT(errors(), testing::Contains("Assert:No user named 'NULL'.\n").Times(3));
    EXPECT_THAT(recording::calls(), IsEmpty());
}

// ---- taking off

TEST_F(PortVlansDel, TakesTheVlanAndItsMarksOffAndPublishes)
{
    add_user();
    hold({vlans({99, 100, 101}), vlans({100, 101}), vlans({99, 100})});
    EXPECT_EQ(sw_vlan_port_del("app", 100, port_3), 0);
    const port_sets wanted{vlans({99, 101}), vlans({101}), vlans({99})};
    EXPECT_EQ(local(port_3), wanted);
    EXPECT_THAT(trace(), ElementsAre(line("debug", "del", format("user: app, vid: 100, del ifx: %d.", port_3)),
                                     line("debug", "range_vids_del_with_flag",
                                          format("user: app, del ifx: %d, send_flag: 1.", port_3)),
                                     written, "qz_mom_set 6 " + record_of(wanted)));
    expect_call(only_call(), "qz_mom_set", own_db, record_of(wanted));
    expect_callback(only_call(), nullptr, nullptr);
}

TEST_F(PortVlansDel, PublishesAsTheFlagSays)
{
    add_user();
    hold({vlan_range(1, 20), {}, {}});
    vlan_set left = vlan_range(1, 20);
    int32_t vid = 0;
    for (const int32_t send_flag : {0, 1, 2, 3, 4, 5}) {
        recording::reset();
        left.reset(static_cast<size_t>(++vid));
        EXPECT_EQ(sw_vlan_port_del_with_flag("app", vid, port_3, send_flag), 0);
        EXPECT_EQ(local(port_3).vbmp, left);
        EXPECT_EQ(recording::calls().size(), (send_flag & publish) != 0 ? 1u : 0u) << send_flag;
        EXPECT_EQ(trace().front(), line("debug", "range_vids_del_with_flag",
                                        format("user: app, del ifx: %d, send_flag: %d.", port_3, send_flag)));
    }
}

TEST_F(PortVlansDel, TakesOffMarksOfNoMembersToo)
{
    add_user();
    hold({vlans({1}), vlans({70}), vlans({71})});
    EXPECT_EQ(sw_vlan_port_range_vids_del_with_flag("app", port_3, bitmap(vlans({70, 71})), 0), 0);
    EXPECT_EQ(local(port_3), (port_sets{vlans({1}), {}, {}}));
}

TEST_F(PortVlansDel, OfWhatIsNotThereIsNoError)
{
    add_user();
    hold({vlans({1}), vlans({1}), vlans({1})});
    EXPECT_EQ(sw_vlan_port_del("app", 2, port_3), 0);
    EXPECT_EQ(only_call().record, record_of({vlans({1}), vlans({1}), vlans({1})}));
}

TEST_F(PortVlansDel, OfTheLastVlanRemovesTheRecord)
{
    add_user();
    hold({vlans({1}), vlans({2}), vlans({3})});
    EXPECT_EQ(sw_vlan_port_del("app", 1, port_3), 0);
    const port_sets left{{}, vlans({2}), vlans({3})};
    EXPECT_EQ(local(port_3), left);
    EXPECT_EQ(trace()[2], removed);
    expect_call(only_call(), "qz_mom_del", own_db, record_of(left));
    expect_callback(only_call(), nullptr, nullptr);
    EXPECT_NE(held(port_3), nullptr);
}

TEST_F(PortVlansDel, OfAnUnknownPortIsRefused)
{
    add_user();
    add_user("other");
    EXPECT_EQ(sw_vlan_port_add("other", 1, port_3, tagged), 0);
    recording::reset();
    EXPECT_EQ(sw_vlan_port_del("app", 1, port_3), -5);
    EXPECT_THAT(
        trace(),
        ElementsAre(
            line("debug", "del", format("user: app, vid: 1, del ifx: %d.", port_3)),
            line("debug", "range_vids_del_with_flag", format("user: app, del ifx: %d, send_flag: 1.", port_3)),
            line("error", "range_vids_del_with_flag", format("Assert:User[app].IFX[0x%x] not exsit.", port_3))));
    EXPECT_EQ(held(port_3), nullptr);
    EXPECT_EQ(local(port_3, "other").vbmp, vlans({1}));
}

TEST_F(PortVlansDel, OutOfRangeChangesNothing)
{
    add_user();
    hold({vlan_range(0, 4095), {}, {}});
    for (const int32_t vid : {-1, 4096, INT32_MIN, INT32_MAX}) {
        recording::reset();
        EXPECT_EQ(sw_vlan_port_del_with_flag("app", vid, port_3, publish), -2);
        EXPECT_THAT(trace(), ElementsAre(line("error", "del_with_flag", format("Assert:Bad vid %d.", vid))));
        EXPECT_EQ(sw_vlan_port_del("app", vid, port_3), -2);
        EXPECT_TRUE(local(port_3).vbmp.all());
        EXPECT_THAT(recording::calls(), IsEmpty());
    }
}

TEST_F(PortVlansDel, ThatIsNotPublishedTellsTheStoresCode)
{
    add_user();
    for (const char *function : {"qz_mom_set", "qz_mom_del"}) {
        hold({vlans({1, 2}), {}, {}});
        const bool last = std::string(function) == "qz_mom_del";
        recording::set_result(function, -105);
        EXPECT_EQ(sw_vlan_port_range_vids_del_with_flag("app", port_3, bitmap(last ? vlans({1, 2}) : vlans({1})), 1),
                  -105);
        EXPECT_EQ(local(port_3).vbmp, last ? vlan_set() : vlans({2}));
        EXPECT_EQ(only_call().function, function);
        const strings steps = trace();
        ASSERT_EQ(steps.size(), 5u);
        EXPECT_EQ(steps[3], line("error", "range_vids_set", "Assert:qz_mom oper failed, rv: -105."));
        EXPECT_EQ(steps[4],
                  line("error", "range_vids_del_with_flag", "Assert:sw_vlan_port_range_vids_set failed, rv: -105."));
    }
}

TEST_F(PortVlansDel, RefusesUnknownUsers)
{
    add_user();
    const bitmap one(vlans({1}));
    EXPECT_EQ(sw_vlan_port_del_with_flag("nobody", 1, port_3, publish), -2);
    EXPECT_THAT(trace(), ElementsAre(line("error", "range_vids_del_with_flag", no_such_user)));
    recording::reset();
    EXPECT_EQ(sw_vlan_port_range_vids_del_with_flag("nobody", port_3, one, publish), -2);
    EXPECT_THAT(trace(), ElementsAre(line("error", "range_vids_del_with_flag", no_such_user)));
    recording::reset();
    EXPECT_EQ(sw_vlan_port_del(nullptr, 1, port_3), -2);
    EXPECT_EQ(sw_vlan_port_range_vids_del_with_flag(nullptr, port_3, one, publish), -2);
    EXPECT_EQ(trace().front(), line("debug", "del", format("user: NULL, vid: 1, del ifx: %d.", port_3)));
    EXPECT_THAT(errors(), testing::Contains("Assert:No user named 'NULL'.\n").Times(2));
    EXPECT_THAT(recording::calls(), IsEmpty());
}

}  // namespace
