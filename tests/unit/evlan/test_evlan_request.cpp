// Asking for an evlan id: arguments, the mark in the index map, and what is written to the store.
#include "evlan_fixture.hpp"

namespace
{

using namespace evlan_test;
using EvlanRequest = EvlanTest;
using VlanRequest = EvlanTest;

TEST_F(EvlanRequest, RefusesANullIndex)
{
    add_user({.name = "app"});
    EXPECT_EQ(sw_evlan_request(nullptr, 0, U_BRIDGE__RES_PRIORITY__LEVEL_0), -2);
    EXPECT_THAT(trace(), ElementsAre("error sw_evlan_request: Assert:Bad index."));
    EXPECT_EQ(g_diagnosis_stat.evlan_request, 0u);
}

TEST_F(EvlanRequest, RefusesType0BeforeItLooksForTheUser)
{
    add_user({.name = "app"});
    EXPECT_EQ(request("nobody", 0, 7), -2);
    EXPECT_THAT(trace(), ElementsAre("error sw_evlan_request: Assert:Bad evlan type 0"));
}

TEST_F(EvlanRequest, RefusesAnUnknownUserBeforeItComparesTypes)
{
    add_user({.name = "app"});
    EXPECT_EQ(request("nobody", vxlan, 7, 0x10000005), -2);
    EXPECT_THAT(trace(), ElementsAre("error sw_evlan_request: Assert:No user named 'nobody'.\n"));
    EXPECT_EQ(app_item(vxlan, 7), nullptr);
    EXPECT_EQ(g_diagnosis_stat.evlan_request, 0u);
}

TEST_F(EvlanRequest, RefusesANullName)
{
    add_user({.name = "app"});
    EXPECT_EQ(request(nullptr, vxlan, 7), -2);
    EXPECT_TRUE(traced("error sw_evlan_request: Assert:No user named 'NULL'.\n"));
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TEST_F(EvlanRequest, RefusesAWantedIdOfAnotherType)
{
    add_user({.name = "app"});
    EXPECT_EQ(request("app", vxlan, 7, 0x10000005), -2);
    EXPECT_THAT(trace(), ElementsAre("error sw_evlan_request: Assert:Bad EVLAN type, IDType(16) vs APPType(32)"));
    EXPECT_EQ(app_item(vxlan, 7), nullptr);
    EXPECT_EQ(g_diagnosis_stat.evlan_request, 0u);
}

TEST_F(EvlanRequest, RefusesATypeThatIsNoByte)
{
    add_user({.name = "app"});
    EXPECT_EQ(request("app", 272, 7), -2);
    EXPECT_EQ(request("app", 0xffffffff, 7), -2);
    EXPECT_THAT(trace(), ElementsAre("error sw_evlan_request: Assert:Bad EVLAN type, IDType(16) vs APPType(272)",
                                     "error sw_evlan_request: Assert:Bad EVLAN type, IDType(255) vs APPType(-1)"));
}

TEST_F(EvlanRequest, MarksTheKeyThenWritesTheThreeRequestFields)
{
    add_user({.name = "app"});
    app_key key("app", vxlan, 0x7b);
    EXPECT_EQ(sw_evlan_request(&key, 0, U_BRIDGE__RES_PRIORITY__LEVEL_2), 0);

    session written("app", vxlan, 0x7b);
    written.request_value = 0x20000000;
    written.priority = U_BRIDGE__RES_PRIORITY__LEVEL_2;
    written.request = 1;
    EXPECT_THAT(trace(), ElementsAre("info sw_evlan_request: user: app, type: 0x20, key(vid or ifx or vni) id: 123, "
                                     "evlan_id: 0x20000000.",
                                     "info sw_evlan_index_map_create_item: Insert EVLAN Index map for app, "
                                     "appIndex[0x7b] map to UDPIndex[0x0], ds_flag[0]\n",
                                     "qz_mom_hmset 4 " + recording::render(&written.base)));
    EXPECT_EQ(g_diagnosis_stat.evlan_request, 1u);
}

TEST_F(EvlanRequest, HandsTheStoreExactlyTheFieldList)
{
    add_user({.name = "app", .db = 9, .handle = recording::other_handle()});
    request("app", vxlan, 7);
    const auto calls = recording::calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].function, "qz_mom_hmset");
    EXPECT_EQ(calls[0].handle, recording::other_handle());
    EXPECT_EQ(calls[0].db, 9u);
    EXPECT_THAT(calls[0].fields, ElementsAre(6u, 7u, 8u));
    EXPECT_EQ(calls[0].count, 3u);
    EXPECT_EQ(calls[0].callback, nullptr);
    EXPECT_EQ(calls[0].args, nullptr);
}

TEST_F(EvlanRequest, StoresKeyNameAndMarkOnly)
{
    const sw_ebridge_list_item *owner = add_user({.name = "app"});
    app_key key("app", vxlan, 7);
    EXPECT_EQ(sw_evlan_request(&key, 0x20000005, U_BRIDGE__RES_PRIORITY__LEVEL_2), 0);
    const sw_evlan_index_map *item = app_item(vxlan, 7);
    ASSERT_NE(item, nullptr);
    sw_evlan_index_map expected = map_key(SW_INDEX_MAP_APP2UDP, vxlan, 7);
    std::strcpy(expected.user_name, "app");
    expected.ds_flag = SW_INDEX_MAP_REQUESTED;
    expected.link = item->link;
    EXPECT_EQ(std::memcmp(item, &expected, sizeof expected), 0);
    EXPECT_EQ(owner->evlan_maps.next, &item->link);
    EXPECT_EQ(sw_evlan_index_map_hash_size(0), 1u);
    EXPECT_EQ(sw_evlan_hash_size(0), 0u);
}

TEST_F(EvlanRequest, PassesAWantedIdOn)
{
    add_user({.name = "app"});
    EXPECT_EQ(request("app", vxlan, 7, 0x20000005), 0);
    session written("app", vxlan, 7);
    written.request_value = 0x20000005;
    written.request = 1;
    EXPECT_EQ(recording::calls().at(0).record, recording::render(&written.base));
}

TEST_F(EvlanRequest, ComputesWithUnsignedIds)
{
    add_user({.name = "app"});
    EXPECT_EQ(request("app", l3vpn, 7), 0);
    EXPECT_EQ(request("app", l3vpn, 8, 0x80000005), 0);
    EXPECT_EQ(request("app", 255, 9), 0);
    EXPECT_TRUE(
        traced("info sw_evlan_request: user: app, type: 0x80, key(vid or ifx or vni) id: 7, evlan_id: "
               "0x80000000."));
    session written("app", l3vpn, 7);
    written.request_value = INT32_MIN;
    written.request = 1;
    EXPECT_EQ(recording::calls().at(0).record, recording::render(&written.base));
    EXPECT_EQ(recording::calls().size(), 3u);
}

TEST_F(EvlanRequest, KeepsAnItemThatIsThere)
{
    add_user({.name = "app"});
    grant("app", vxlan, 7, 0x20000005);
    sw_evlan_index_map *item = app_item(vxlan, 7);
    const sw_evlan_index_map before = *item;
    recording::reset();
    EXPECT_EQ(request("app", vxlan, 7), 0);
    EXPECT_EQ(app_item(vxlan, 7), item);
    EXPECT_EQ(item->ds_flag, 3u);
    item->ds_flag = before.ds_flag;
    EXPECT_EQ(std::memcmp(item, &before, sizeof before), 0);
}

TEST_F(EvlanRequest, OfAHeldIdCancelsItsPendingReleaseBeforeTheWrite)
{
    add_user({.name = "app", .db = 9, .handle = recording::other_handle()});
    grant("app", vxlan, 0x7b, 0x20000005);
    recording::reset();
    EXPECT_EQ(request("app", vxlan, 0x7b), 0);
    session written("app", vxlan, 0x7b);
    written.request_value = 0x20000000;
    written.request = 1;
    const std::string record = recording::render(&written.base);
    EXPECT_THAT(trace(),
                ElementsAre("info sw_evlan_request: user: app, type: 0x20, key(vid or ifx or vni) id: 123, evlan_id: "
                            "0x20000000.",
                            "info sw_evlan_request: clear expire, user: app, type: 0x20, keyid: 123, evlan_id: "
                            "0x20000005.",
                            "qz_mom_clear_expire 9 " + record, "qz_mom_hmset 9 " + record));
    const recording::call &clear = recording::calls().at(0);
    EXPECT_EQ(clear.handle, recording::other_handle());
    EXPECT_EQ(clear.callback, nullptr);
    EXPECT_EQ(clear.args, nullptr);
}

TEST_F(EvlanRequest, IgnoresAFailedCancellation)
{
    add_user({.name = "app"});
    grant("app", vxlan, 7, 0x20000005);
    recording::reset();
    recording::set_result("qz_mom_clear_expire", QZ_MOM_EDOWN);
    EXPECT_EQ(request("app", vxlan, 7), 0);
    EXPECT_THAT(recording::logged(100), IsEmpty());
    EXPECT_EQ(recording::calls_of("qz_mom_hmset").size(), 1u);
}

class EvlanRequestOfUnderlay : public EvlanTest, public testing::WithParamInterface<uint32_t>
{
};

TEST_P(EvlanRequestOfUnderlay, CancelsNothing)
{
    add_user({.name = "app"});
    grant("app", GetParam(), 7, evlan_id(GetParam(), 5));
    recording::reset();
    EXPECT_EQ(request("app", GetParam(), 7), 0);
    EXPECT_THAT(recording::calls_of("qz_mom_clear_expire"), IsEmpty());
    EXPECT_EQ(recording::calls_of("qz_mom_hmset").size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Underlay, EvlanRequestOfUnderlay, testing::Values(vlan, l3intf_sub));

class EvlanRequestOfOverlay : public EvlanTest, public testing::WithParamInterface<uint32_t>
{
};

TEST_P(EvlanRequestOfOverlay, CancelsThePendingRelease)
{
    add_user({.name = "app"});
    grant("app", GetParam(), 7, evlan_id(GetParam(), 5));
    recording::reset();
    EXPECT_EQ(request("app", GetParam(), 7), 0);
    EXPECT_EQ(recording::calls_of("qz_mom_clear_expire").size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Overlay, EvlanRequestOfOverlay, testing::Values(vxlan, 48u, 64u, 80u, 96u, l3vpn, 17u));

TEST_F(EvlanRequest, CancelsNothingForAKeyNotYetGranted)
{
    add_user({.name = "app"});
    request("app", vxlan, 7);
    request("app", vxlan, 7);
    EXPECT_THAT(recording::calls_of("qz_mom_clear_expire"), IsEmpty());
    EXPECT_EQ(g_diagnosis_stat.evlan_request, 2u);
}

TEST_F(EvlanRequest, GoesByTheIdNotByTheGrantedBit)
{
    add_user({.name = "app"});
    request("app", vxlan, 7);
    app_item(vxlan, 7)->ds_flag = SW_INDEX_MAP_GRANTED;
    request("app", vxlan, 7);
    EXPECT_THAT(recording::calls_of("qz_mom_clear_expire"), IsEmpty());
    app_item(vxlan, 7)->ds_flag = 0;
    app_item(vxlan, 7)->value[0] = 0x20000005;
    request("app", vxlan, 7);
    EXPECT_EQ(recording::calls_of("qz_mom_clear_expire").size(), 1u);
}

TEST_F(EvlanRequest, OfAKeyThatAnotherUserHoldsMarksItButCancelsNothing)
{
    const sw_ebridge_list_item *holder = add_user({.name = "holder"});
    const sw_ebridge_list_item *other = add_user({.name = "other"});
    grant("holder", vxlan, 7, 0x20000005);
    recording::reset();
    EXPECT_EQ(request("other", vxlan, 7), 0);
    EXPECT_THAT(recording::calls_of("qz_mom_clear_expire"), IsEmpty());
    EXPECT_STREQ(app_item(vxlan, 7)->user_name, "holder");
    EXPECT_EQ(app_item(vxlan, 7)->ds_flag, 3u);
    EXPECT_TRUE(linked_to_itself(other->evlan_maps));
    EXPECT_EQ(list_length(holder->evlan_maps), 2u);
}

TEST_F(EvlanRequest, FailedWriteLeavesTheKeyMarkedAndIsCounted)
{
    add_user({.name = "app"});
    recording::set_result("qz_mom_hmset", -104);
    EXPECT_EQ(request("app", vxlan, 7), -104);
    EXPECT_THAT(recording::logged(100), ElementsAre("Assert:qz_mom_hmset failed, rv: -104."));
    EXPECT_EQ(trace().back(), "error sw_evlan_request: Assert:qz_mom_hmset failed, rv: -104.");
    ASSERT_NE(app_item(vxlan, 7), nullptr);
    EXPECT_EQ(app_item(vxlan, 7)->ds_flag, 2u);
    EXPECT_EQ(g_diagnosis_stat.evlan_request, 1u);
}

TEST_F(EvlanRequest, PositiveCodesOfTheStoreAreFailuresToo)
{
    add_user({.name = "app"});
    recording::set_result("qz_mom_hmset", 3);
    EXPECT_EQ(request("app", vxlan, 7), 3);
    EXPECT_TRUE(traced("error sw_evlan_request: Assert:qz_mom_hmset failed, rv: 3."));
}

TEST_F(EvlanRequest, WithoutMemoryForTheItemWritesNothing)
{
    add_user({.name = "app"});
    uint32_t failures = 0, granted = 0;
    for (int32_t nth = 1; nth <= 5; ++nth) {
        int32_t result = 0;
        const strings errors =
            errors_when_allocation_fails(static_cast<uint64_t>(nth), [&] { result = request("app", vxlan, nth); });
        EXPECT_TRUE(result == 0 || result == -4) << result;
        EXPECT_EQ(app_item(vxlan, nth) != nullptr, result == 0);
        EXPECT_EQ(recording::calls_of("qz_mom_hmset").size(), result == 0 ? 1u : 0u);
        if (result != 0)
            EXPECT_EQ(trace().back(), "error sw_evlan_request: Assert:create evlan map item fail");
        else
            EXPECT_THAT(errors, IsEmpty());
        ++(result == 0 ? granted : failures);
    }
    EXPECT_GE(failures, 1u);
    EXPECT_EQ(g_diagnosis_stat.evlan_request, granted);
}

TEST_F(EvlanRequest, KeepsAtMost31CharactersOfTheName)
{
    add_user({.name = name_of_31});
    EXPECT_EQ(request(name_of_40, vxlan, 7), 0);
    EXPECT_STREQ(app_item(vxlan, 7)->user_name, name_of_31);
    session written(name_of_40, vxlan, 7);
    written.request_value = 0x20000000;
    written.request = 1;
    EXPECT_EQ(recording::calls().at(0).record, recording::render(&written.base));
}

TEST_F(EvlanRequest, OfTheEmptyNameWorks)
{
    add_user({.name = ""});
    EXPECT_EQ(request("", vxlan, 7), 0);
    EXPECT_STREQ(app_item(vxlan, 7)->user_name, "");
}

// ---- plain VLANs

int32_t request_vlan(uint32_t type, int32_t vid)
{
    vlan_key key("app", type, 77);
    return sw_vlan_request(&key, vid, U_BRIDGE__RES_PRIORITY__LEVEL_1);
}

std::string vlan_session(uint32_t type, uint32_t wanted)
{
    session written("app", type, 77);
    written.request_value = static_cast<int32_t>(wanted);
    written.priority = U_BRIDGE__RES_PRIORITY__LEVEL_1;
    written.request = 1;
    return recording::render(&written.base);
}

TEST_F(VlanRequest, AsksForTheNumberAsAVlan)
{
    add_user({.name = "app"});
    EXPECT_EQ(request_vlan(vlan, 5), 0);
    EXPECT_THAT(trace(), ElementsAre("info sw_evlan_request: user: app, type: 0x10, key(vid or ifx or vni) id: 77, "
                                     "evlan_id: 0x10000005.",
                                     "info sw_evlan_index_map_create_item: Insert EVLAN Index map for app, "
                                     "appIndex[0x4d] map to UDPIndex[0x0], ds_flag[0]\n",
                                     "qz_mom_hmset 4 " + vlan_session(vlan, 0x10000005)));
}

TEST_F(VlanRequest, TakesEveryTypeButSubinterfaceForVlan)
{
    add_user({.name = "app"});
    for (const uint32_t type : {0u, 16u, 32u, 128u, 0xffffffffu}) {
        recording::reset();
        EXPECT_EQ(request_vlan(type, 5), 0);
        EXPECT_EQ(recording::calls().at(0).record, vlan_session(vlan, 0x10000005)) << type;
    }
}

TEST_F(VlanRequest, OfASubinterfaceKeepsItsType)
{
    add_user({.name = "app"});
    EXPECT_EQ(request_vlan(l3intf_sub, 5), 0);
    EXPECT_EQ(recording::calls().at(0).record, vlan_session(l3intf_sub, 0x70000005));
}

TEST_F(VlanRequest, OfVid0AsksForAnyNumber)
{
    add_user({.name = "app"});
    EXPECT_EQ(request_vlan(vlan, 0), 0);
    EXPECT_EQ(recording::calls().at(0).record, vlan_session(vlan, 0x10000000));
}

TEST_F(VlanRequest, OfAVidThatSpoilsTheTypeIsRefused)
{
    add_user({.name = "app"});
    EXPECT_EQ(request_vlan(vlan, -1), -2);
    EXPECT_THAT(trace(), ElementsAre("error sw_evlan_request: Assert:Bad EVLAN type, IDType(255) vs APPType(16)"));
}

TEST_F(VlanRequest, RefusesNull)
{
    add_user({.name = "app"});
    EXPECT_EQ(sw_vlan_request(nullptr, 5, U_BRIDGE__RES_PRIORITY__LEVEL_0), -2);
    EXPECT_THAT(recording::logged(100), ElementsAre("Assert:Bad index."));
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TEST_F(VlanRequest, RefusesAnUnknownUser)
{
    add_user({.name = "other"});
    EXPECT_EQ(request_vlan(vlan, 5), -2);
    EXPECT_THAT(trace(), ElementsAre("error sw_evlan_request: Assert:No user named 'app'.\n"));
}

}  // namespace
