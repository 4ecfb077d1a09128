// Asking for an eport id: arguments, the mark in the index map, and what is written to the store.
#include "eport_fixture.hpp"

namespace
{

using namespace eport_test;
using EportRequest = EportTest;

std::string written_session(const char *name, uint32_t type, int32_t keyid1, int32_t keyid2, uint32_t wanted,
                            UBridge__ResPriority priority = U_BRIDGE__RES_PRIORITY__LEVEL_0)
{
    session written(name, type, keyid1, keyid2);
    written.request_value = static_cast<int32_t>(wanted);
    written.priority = priority;
    written.request = 1;
    return recording::render(&written.base);
}

TEST_F(EportRequest, RefusesANullIndex)
{
    add_user({.name = "app"});
    EXPECT_EQ(sw_eport_request(nullptr, 0, U_BRIDGE__RES_PRIORITY__LEVEL_0), -2);
    EXPECT_THAT(trace(), ElementsAre("error sw_eport_request: Assert:Bad index."));
    EXPECT_EQ(g_diagnosis_stat.eport_request, 0u);
}

TEST_F(EportRequest, RefusesType0BeforeItLooksForTheUser)
{
    add_user({.name = "app"});
    EXPECT_EQ(request("nobody", 0, 7, 8), -2);
    EXPECT_THAT(trace(), ElementsAre("error sw_eport_request: Assert:Bad eport type 0"));
    EXPECT_EQ(g_diagnosis_stat.eport_request, 0u);
}

TEST_F(EportRequest, RefusesAnUnknownUser)
{
    add_user({.name = "app"});
    EXPECT_EQ(request("nobody", ac, 7, 8), -2);
    EXPECT_THAT(trace(), ElementsAre("error sw_eport_request: Assert:No user named 'nobody'.\n"));
    EXPECT_EQ(app_item(ac, 7, 8), nullptr);
    EXPECT_EQ(g_diagnosis_stat.eport_request, 0u);
}

TEST_F(EportRequest, RefusesANullName)
{
    add_user({.name = "app"});
    EXPECT_EQ(request(nullptr, ac, 7, 8), -2);
    EXPECT_TRUE(traced("error sw_eport_request: Assert:No user named 'NULL'.\n"));
    EXPECT_THAT(recording::calls(), IsEmpty());
}

// A wanted evlan id has to be of the type that is asked for.
TEST_F(EportRequest, TakesAWantedIdOfAnyTypeAsItStands)
{
    add_user({.name = "app"});
    EXPECT_EQ(request("app", ap, 7, 8, 0x10000001), 0);
    EXPECT_EQ(request("app", ac, 7, 8, 5), 0);
    EXPECT_EQ(request("app", ac, 7, 9, 0xffffffff), 0);
    EXPECT_THAT(recording::logged(100), IsEmpty());
    EXPECT_EQ(recording::calls().at(0).record, written_session("app", ap, 7, 8, 0x10000001));
    EXPECT_EQ(recording::calls().at(1).record, written_session("app", ac, 7, 8, 5));
    EXPECT_EQ(recording::calls().at(2).record, written_session("app", ac, 7, 9, 0xffffffff));
}

// Of an evlan it is refused.
TEST_F(EportRequest, TakesATypeThatIsNoByte)
{
    add_user({.name = "app"});
    EXPECT_EQ(request("app", 272, 7, 8), 0);
    EXPECT_EQ(recording::calls().at(0).record, written_session("app", 272, 7, 8, 0x10000000));
}

TEST_F(EportRequest, MarksTheKeyThenWritesTheRequest)
{
    add_user({.name = "app"});
    app_key key("app", ac, 0x7b, -8);
    EXPECT_EQ(sw_eport_request(&key, 0, U_BRIDGE__RES_PRIORITY__LEVEL_2), 0);
    EXPECT_THAT(
        trace(),
        ElementsAre(
            "info sw_eport_request: type: 0x30, user: app, keyid1: 123, keyid2: -8, eport_id: 0x30000000.",
            "info sw_eport_index_map_update_item: Insert EPORT Index map for app, appIndex is 0x7b+0xfffffff8, "
            "UDPIndex is 0x0 ds_flag:0.",
            "qz_mom_hmset 4 " + written_session("app", ac, 0x7b, -8, 0x30000000, U_BRIDGE__RES_PRIORITY__LEVEL_2)));
    EXPECT_EQ(g_diagnosis_stat.eport_request, 1u);
    EXPECT_EQ(g_diagnosis_stat.evlan_request, 0u);
}

TEST_F(EportRequest, HandsTheStoreExactlyTheFieldList)
{
    add_user({.name = "app", .db = 9, .handle = recording::other_handle()});
    request("app", ac, 7, 8);
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

TEST_F(EportRequest, StoresKeyNameAndMarkOnly)
{
    const sw_ebridge_list_item *owner = add_user({.name = "app"});
    app_key key("app", ac, 7, 8);
    EXPECT_EQ(sw_eport_request(&key, 0x30000005, U_BRIDGE__RES_PRIORITY__LEVEL_2), 0);
    const sw_eport_index_map *item = app_item(ac, 7, 8);
    ASSERT_NE(item, nullptr);
    sw_eport_index_map expected = app_to_udp("app", ac, 7, 8);
    expected.ds_flag = SW_INDEX_MAP_REQUESTED;
    expected.link = item->link;
    EXPECT_EQ(std::memcmp(item, &expected, sizeof expected), 0);
    EXPECT_EQ(owner->eport_maps.next, &item->link);
    EXPECT_TRUE(linked_to_itself(owner->evlan_maps));
    EXPECT_EQ(sw_eport_index_map_hash_size(0), 1u);
    EXPECT_EQ(sw_eport_hash_size(0), 0u);
}

TEST_F(EportRequest, ComputesWithUnsignedIds)
{
    add_user({.name = "app"});
    EXPECT_EQ(request("app", l3intf_ac, 7, 8), 0);
    EXPECT_EQ(request("app", 255, 7, 8), 0);
    EXPECT_TRUE(traced("info sw_eport_request: type: 0x90, user: app, keyid1: 7, keyid2: 8, eport_id: 0x90000000."));
    EXPECT_EQ(recording::calls().at(0).record, written_session("app", l3intf_ac, 7, 8, 0x90000000));
    EXPECT_EQ(recording::calls().at(1).record, written_session("app", 255, 7, 8, 0xff000000));
}

TEST_F(EportRequest, TellsBothKeysApart)
{
    add_user({.name = "app"});
    request("app", ac, 7, 8);
    request("app", ac, 8, 7);
    request("app", pw, 7, 8);
    EXPECT_EQ(sw_eport_index_map_hash_size(0), 3u);
}

TEST_F(EportRequest, KeepsAnItemThatIsThere)
{
    add_user({.name = "app"});
    grant("app", ac, 7, 8, 0x30000005);
    sw_eport_index_map *item = app_item(ac, 7, 8);
    const sw_eport_index_map before = *item;
    recording::reset();
    EXPECT_EQ(request("app", ac, 7, 8), 0);
    EXPECT_EQ(app_item(ac, 7, 8), item);
    EXPECT_EQ(item->ds_flag, 3u);
    item->ds_flag = before.ds_flag;
    EXPECT_EQ(std::memcmp(item, &before, sizeof before), 0);
}

TEST_F(EportRequest, OfAHeldIdCancelsItsPendingReleaseBeforeTheWrite)
{
    add_user({.name = "app", .db = 9, .handle = recording::other_handle()});
    grant("app", ac, 7, 8, 0x30000005);
    recording::reset();
    EXPECT_EQ(request("app", ac, 7, 8), 0);
    const std::string record = written_session("app", ac, 7, 8, 0x30000000);
    EXPECT_THAT(
        trace(),
        ElementsAre("info sw_eport_request: type: 0x30, user: app, keyid1: 7, keyid2: 8, eport_id: 0x30000000.",
                    "info sw_eport_request: clear expire, user: app, type: 0x30, keyid1: 7, keyid2: 8, eport_id: "
                    "0x30000005.",
                    "qz_mom_clear_expire 9 " + record, "qz_mom_hmset 9 " + record));
    const recording::call &clear = recording::calls().at(0);
    EXPECT_EQ(clear.handle, recording::other_handle());
    EXPECT_EQ(clear.callback, nullptr);
    EXPECT_EQ(clear.args, nullptr);
}

// The evlan request ignores it without a word.
TEST_F(EportRequest, ReportsAFailedCancellationAndGoesOn)
{
    add_user({.name = "app"});
    grant("app", ac, 7, 8, 0x30000005);
    recording::reset();
    recording::set_result("qz_mom_clear_expire", QZ_MOM_EDOWN);
    EXPECT_EQ(request("app", ac, 7, 8), 0);
    const strings all = trace();
    ASSERT_EQ(all.size(), 5u);
    EXPECT_EQ(all[3], format("error sw_eport_request: Assert:qz_mom_clear_expire failed, rv: %d.", QZ_MOM_EDOWN));
    EXPECT_THAT(all[4], StartsWith("qz_mom_hmset "));
    EXPECT_EQ(g_diagnosis_stat.eport_request, 1u);
}

class EportRequestOfAType : public EportTest, public testing::WithParamInterface<uint32_t>
{
};

// No exemption for ports, unlike VLANs on the other side.
TEST_P(EportRequestOfAType, CancelsThePendingRelease)
{
    add_user({.name = "app"});
    grant("app", GetParam(), 7, 8, eport_id(GetParam(), 5));
    recording::reset();
    EXPECT_EQ(request("app", GetParam(), 7, 8), 0);
    EXPECT_EQ(recording::calls_of("qz_mom_clear_expire").size(), 1u);
    EXPECT_EQ(recording::calls_of("qz_mom_hmset").size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(All, EportRequestOfAType, testing::Values(port, local_port, ap, ac, pw, 112u, l3intf_ac));

TEST_F(EportRequest, CancelsNothingForAKeyNotYetGranted)
{
    add_user({.name = "app"});
    request("app", ac, 7, 8);
    request("app", ac, 7, 8);
    EXPECT_THAT(recording::calls_of("qz_mom_clear_expire"), IsEmpty());
    EXPECT_EQ(g_diagnosis_stat.eport_request, 2u);
}

TEST_F(EportRequest, GoesByTheIdNotByTheGrantedBit)
{
    add_user({.name = "app"});
    request("app", ac, 7, 8);
    app_item(ac, 7, 8)->ds_flag = SW_INDEX_MAP_GRANTED;
    request("app", ac, 7, 8);
    EXPECT_THAT(recording::calls_of("qz_mom_clear_expire"), IsEmpty());
    app_item(ac, 7, 8)->ds_flag = 0;
    app_item(ac, 7, 8)->value[0] = 0x30000005;
    request("app", ac, 7, 8);
    EXPECT_EQ(recording::calls_of("qz_mom_clear_expire").size(), 1u);
}

TEST_F(EportRequest, OfAKeyThatAnotherUserHoldsMarksItButCancelsNothing)
{
    const sw_ebridge_list_item *holder = add_user({.name = "holder"});
    const sw_ebridge_list_item *other = add_user({.name = "other"});
    grant("holder", ac, 7, 8, 0x30000005);
    recording::reset();
    EXPECT_EQ(request("other", ac, 7, 8), 0);
    EXPECT_THAT(recording::calls_of("qz_mom_clear_expire"), IsEmpty());
    EXPECT_STREQ(app_item(ac, 7, 8)->user_name, "holder");
    EXPECT_EQ(app_item(ac, 7, 8)->ds_flag, 3u);
    EXPECT_TRUE(linked_to_itself(other->eport_maps));
    EXPECT_EQ(list_length(holder->eport_maps), 2u);
}

TEST_F(EportRequest, OfAPortAsksNoPortTable)
{
    add_user({.name = "app"});
    EXPECT_EQ(request("app", port, 0, 33), 0);
    EXPECT_EQ(recording::calls().size(), 1u);
    EXPECT_NE(app_item(port, 0, 33), nullptr);
}

TEST_F(EportRequest, FailedWriteLeavesTheKeyMarkedAndIsCounted)
{
    add_user({.name = "app"});
    recording::set_result("qz_mom_hmset", -104);
    EXPECT_EQ(request("app", ac, 7, 8), -104);
    EXPECT_EQ(trace().back(), "error sw_eport_request: Assert:qz_mom_hmset failed, rv: -104.");
    ASSERT_NE(app_item(ac, 7, 8), nullptr);
    EXPECT_EQ(app_item(ac, 7, 8)->ds_flag, 2u);
    EXPECT_EQ(g_diagnosis_stat.eport_request, 1u);
}

TEST_F(EportRequest, PositiveCodesOfTheStoreAreFailuresToo)
{
    add_user({.name = "app"});
    recording::set_result("qz_mom_hmset", 3);
    EXPECT_EQ(request("app", ac, 7, 8), 3);
    EXPECT_TRUE(traced("error sw_eport_request: Assert:qz_mom_hmset failed, rv: 3."));
}

TEST_F(EportRequest, WithoutMemoryForTheItemWritesNothing)
{
    add_user({.name = "app"});
    uint32_t failures = 0, granted = 0;
    for (int32_t nth = 1; nth <= 5; ++nth) {
        int32_t result = 0;
        const strings errors =
            errors_when_allocation_fails(static_cast<uint64_t>(nth), [&] { result = request("app", ac, 7, nth); });
        EXPECT_TRUE(result == 0 || result == -4) << result;
        EXPECT_EQ(app_item(ac, 7, nth) != nullptr, result == 0);
        EXPECT_EQ(recording::calls_of("qz_mom_hmset").size(), result == 0 ? 1u : 0u);
        if (result != 0)
            EXPECT_THAT(errors, ElementsAre("Assert:EPort Index map failed, user is app, type is 0",
                                            "Assert:create eport map item fail"));
        else
            EXPECT_THAT(errors, IsEmpty());
        ++(result == 0 ? granted : failures);
    }
    EXPECT_GE(failures, 1u);
    EXPECT_EQ(g_diagnosis_stat.eport_request, granted);
}

TEST_F(EportRequest, KeepsAtMost31CharactersOfTheName)
{
    const sw_ebridge_list_item *owner = add_user({.name = name_of_31});
    EXPECT_EQ(request(name_of_40, ac, 7, 8), 0);
    EXPECT_STREQ(app_item(ac, 7, 8)->user_name, name_of_31);
    EXPECT_EQ(owner->eport_maps.next, &app_item(ac, 7, 8)->link);
    EXPECT_EQ(recording::calls().at(0).record, written_session(name_of_40, ac, 7, 8, 0x30000000));
}

TEST_F(EportRequest, OfTheEmptyNameWorks)
{
    add_user({.name = ""});
    EXPECT_EQ(request("", ac, 7, 8), 0);
    EXPECT_STREQ(app_item(ac, 7, 8)->user_name, "");
}

}  // namespace
