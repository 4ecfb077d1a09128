// Hardware objects behind evlans: the pairs in the index map, and who hears of them.
#include "sda_fixture.hpp"

namespace
{

using namespace sda_test;
using SdaEvlanCreate = SdaTest;
using SdaEvlanDestroy = SdaTest;

constexpr uint32_t vxlan_5 = 0x20000005, vxlan_6 = 0x20000006;

int32_t create(uint32_t unit, uint32_t id, evlan_sdk sdk)
{
    evlan index(id);
    return sda_evlan_create_callback(unit, &index, &sdk);
}

int32_t destroy(uint32_t unit, uint32_t id)
{
    evlan index(id);
    return sda_evlan_destroy_callback(unit, &index, nullptr);
}

std::string said(const char *function, const std::string &what) { return format("info %s: ", function) + what; }
std::string create_said(const std::string &what) { return said("sda_evlan_create_callback", what); }
std::string destroy_said(const std::string &what) { return said("sda_evlan_destroy_callback", what); }

std::string to_sdk(const char *change, uint32_t unit, uint32_t id, const char *sdk)
{
    return format("%s EVLAN Index map for sdavlan.unit%u, UDPIndex[0x%x] map to SDKIndex[%s].\n", change, unit, id,
                  sdk);
}
std::string to_udp(const char *change, uint32_t unit, const char *sdk, uint32_t id)
{
    return format("%s EVLAN Index map for sdavlan.unit%u, SDKIndex[%s] map to UDPIndex[0x%x].\n", change, unit, sdk,
                  id);
}
std::string inserted(const std::string &what) { return said("sw_evlan_index_map_create_item", what); }
std::string updated(const std::string &what) { return said("sw_evlan_index_map_update_item", what); }
std::string removed(const std::string &what) { return said("sw_evlan_index_map_delete_item", what); }

// The stored item of a key; zeroes with kind 99 when there is none.
sw_evlan_index_map stored(uint32_t unit, uint32_t kind, uint32_t a, uint32_t b = 0, uint32_t c = 0)
{
    sw_evlan_index_map key{};
    key.kind = kind;
    key.key[0] = a;
    key.key[1] = b;
    key.key[2] = c;
    const sw_evlan_index_map *item = sw_evlan_index_map_hash_find(unit, &key);
    sw_evlan_index_map none{};
    none.kind = 99;
    return item != nullptr ? *item : none;
}

// ---- create

TEST_F(SdaEvlanCreate, KeepsBothDirectionsInTheDriversName)
{
    add_user(3, "bridge");
    EXPECT_EQ(create(3, vxlan_5, evlan_sdk(32, 7, 9)), 0);
    const auto forward = stored(3, SW_INDEX_MAP_UDP2SDK, vxlan_5);
    EXPECT_THAT(forward.value, ElementsAre(32u, 7u, 9u));
    EXPECT_STREQ(forward.user_name, "sdavlan.unit3");
    const auto reverse = stored(3, SW_INDEX_MAP_SDK2UDP, 32, 7, 9);
    EXPECT_THAT(reverse.value, ElementsAre(vxlan_5, 0u, 0u));
    EXPECT_STREQ(reverse.user_name, "sdavlan.unit3");
    for (uint32_t unit = 0; unit < SW_EBRIDGE_SLOTS; ++unit)
        EXPECT_EQ(items_of(unit), unit == 3 ? 2u : 0u) << unit;
}

TEST_F(SdaEvlanCreate, TellsTheUsersOfTheUnitWhenThePairIsKept)
{
    add_user(0, "elsewhere");
    add_user(1, "bridge");
    add_user(1, "deaf", no_callbacks);
    evlan index(vxlan_5);
    evlan_sdk sdk(32, 258, 9);
    EXPECT_THAT(traced_by(0, [&] { return sda_evlan_create_callback(1, &index, &sdk); }),
                ElementsAre(create_said("create evlan_index_id: 0x20000005, sdk_index_vsi: 258, sdk_index_type: 32\n"),
                            inserted(to_sdk("Insert", 1, vxlan_5, "type(32), vsi(0x102), vid(0x9)")),
                            inserted(to_udp("Insert", 1, "type(32), vsi(0x102), vid(0x9)", vxlan_5)),
                            create_said("received evlan creating msg,  evlan_id: 0x20000005, vpn_id: 0x102\n"),
                            "bridge hears evlan made 1: driver/0x20000005 is chip/type 32 vsi 258 vid 9"));
    EXPECT_EQ(heard_index, &index);
    EXPECT_EQ(heard_sdk, &sdk);
}

// A callback's result would end the walk if anyone looked at it.
TEST_F(SdaEvlanCreate, TellsEveryUserWhoListens)
{
    for (const char *name : {"a", "b", "c"})
        add_user(0, name);
    add_user(0, "deaf", no_callbacks);
    EXPECT_EQ(create(0, vxlan_5, evlan_sdk(32, 7)), 0);
    EXPECT_THAT(heard(),
                testing::UnorderedElementsAre("a hears evlan made 0: driver/0x20000005 is chip/type 32 vsi 7 vid 0",
                                              "b hears evlan made 0: driver/0x20000005 is chip/type 32 vsi 7 vid 0",
                                              "c hears evlan made 0: driver/0x20000005 is chip/type 32 vsi 7 vid 0"));
}

TEST_F(SdaEvlanCreate, OfAUnitWithoutUsersKeepsThePair)
{
    start_without_users();
    EXPECT_THAT(traced_by(0, [] { return create(5, vxlan_5, evlan_sdk(32, 7)); }), SizeIs(3));
    EXPECT_EQ(items_of(5), 2u);
}

TEST_F(SdaEvlanCreate, AgainReplacesBothItems)
{
    start_without_users();
    EXPECT_EQ(create(0, vxlan_5, evlan_sdk(32, 7, 9)), 0);
    EXPECT_THAT(traced_by(0, [] { return create(0, vxlan_5, evlan_sdk(32, 7, 9)); }),
                ElementsAre(create_said("create evlan_index_id: 0x20000005, sdk_index_vsi: 7, sdk_index_type: 32\n"),
                            updated(to_sdk("Update", 0, vxlan_5, "type(32), vsi(0x7), vid(0x9)")),
                            updated(to_udp("Update", 0, "type(32), vsi(0x7), vid(0x9)", vxlan_5))));
    EXPECT_EQ(items_of(0), 2u);
}

TEST_F(SdaEvlanCreate, AcrossTwoPairsReplacesTheContentsOfBothItems)
{
    start_without_users();
    EXPECT_EQ(create(0, vxlan_5, evlan_sdk(32, 7, 9)), 0);
    EXPECT_EQ(create(0, vxlan_6, evlan_sdk(33, 8, 10)), 0);
    EXPECT_EQ(create(0, vxlan_5, evlan_sdk(33, 8, 10)), 0);
    EXPECT_THAT(stored(0, SW_INDEX_MAP_UDP2SDK, vxlan_5).value, ElementsAre(33u, 8u, 10u));
    EXPECT_THAT(stored(0, SW_INDEX_MAP_SDK2UDP, 33, 8, 10).value, ElementsAre(vxlan_5, 0u, 0u));
    EXPECT_EQ(items_of(0), 4u);
}

TEST_F(SdaEvlanCreate, OfAnotherEvlanTakesTheChipKeyOver)
{
    start_without_users();
    EXPECT_EQ(create(0, vxlan_5, evlan_sdk(32, 7, 9)), 0);
    EXPECT_EQ(create(0, vxlan_6, evlan_sdk(32, 7, 9)), 0);
    EXPECT_EQ(stored(0, SW_INDEX_MAP_SDK2UDP, 32, 7, 9).value[0], vxlan_6);
    EXPECT_EQ(items_of(0), 3u);
}

TEST_F(SdaEvlanCreate, WithAnotherChipKeyLeavesTheOldOneLeadingHere)
{
    start_without_users();
    EXPECT_EQ(create(0, vxlan_5, evlan_sdk(32, 7, 9)), 0);
    EXPECT_EQ(create(0, vxlan_5, evlan_sdk(32, 8, 9)), 0);
    EXPECT_THAT(stored(0, SW_INDEX_MAP_UDP2SDK, vxlan_5).value, ElementsAre(32u, 8u, 9u));
    EXPECT_EQ(stored(0, SW_INDEX_MAP_SDK2UDP, 32, 7, 9).value[0], vxlan_5);
    EXPECT_EQ(stored(0, SW_INDEX_MAP_SDK2UDP, 32, 8, 9).value[0], vxlan_5);
}

TEST_F(SdaEvlanCreate, LeavesTheApplicationsItemsAlone)
{
    start_without_users();
    sw_evlan_index_map item{};
    sw_evlan_index_map_init_udpkey(&item, vxlan_5);
    item.value[1] = 77;
    ASSERT_NE(sw_evlan_index_map_update_item(0, &item), nullptr);
    EXPECT_EQ(create(0, vxlan_5, evlan_sdk(32, 7)), 0);
    EXPECT_EQ(stored(0, SW_INDEX_MAP_UDP2APP, vxlan_5).value[1], 77u);
    EXPECT_EQ(destroy(0, vxlan_5), 0);
    EXPECT_EQ(stored(0, SW_INDEX_MAP_UDP2APP, vxlan_5).value[1], 77u);
}

TEST_F(SdaEvlanCreate, RefusesNullAndOfTwoTheEvlanFirst)
{
    add_user(0, "bridge");
    evlan index(vxlan_5);
    evlan_sdk sdk(32, 7);
    for (evlan_sdk *second : {&sdk, static_cast<evlan_sdk *>(nullptr)})
        EXPECT_THAT(traced_by(-2, [=] { return sda_evlan_create_callback(0, nullptr, second); }),
                    ElementsAre(format("error sda_evlan_create_callback: Assert:evlan_index(%p) is null\n",
                                       static_cast<void *>(nullptr))));
    EXPECT_THAT(traced_by(-2, [&] { return sda_evlan_create_callback(0, &index, nullptr); }),
                ElementsAre(format("error sda_evlan_create_callback: Assert:sdk_index(%p) is null\n",
                                   static_cast<void *>(nullptr))));
    EXPECT_EQ(items_of(0), 0u);
}

TEST_F(SdaEvlanCreate, RefusesAUnitThatIsNotThereBeforeAnythingElse)
{
    add_user(0, "bridge");
    for (const auto &call : {+[] { return create(no_unit, vxlan_5, evlan_sdk(32, 7)); },
                             +[] { return sda_evlan_create_callback(no_unit, nullptr, nullptr); }})
        EXPECT_THAT(traced_by(-2, call), ElementsAre("error sda_evlan_create_callback: Assert:Bad inst 6."));
    EXPECT_EQ(create(UINT32_MAX, vxlan_5, evlan_sdk(32, 7)), -2);
}

TEST_F(SdaEvlanCreate, BeforeAnyUserKeepsNothingAndSucceeds)
{
    sw_vlan_debug_init("driver", nullptr);
    recording::reset();
    EXPECT_THAT(traced_by(0, [] { return create(0, vxlan_5, evlan_sdk(32, 7)); }),
                Contains("error sw_evlan_index_map_update_item: Assert:EVLAN Index map failed").Times(2));
    EXPECT_EQ(items_of(0), 0u);
}

// In a map of two items the forward one takes a block, the reverse one another and room for more.
TEST_F(SdaEvlanCreate, WithoutMemoryTellsTheUsersAllTheSame)
{
    for (uint32_t unit = 0; unit < SW_EBRIDGE_SLOTS; ++unit) {
        SCOPED_TRACE(unit);
        add_user(unit, "bridge");
        EXPECT_EQ(create(unit, vxlan_6, evlan_sdk(32, 8)), 0);
        const auto errors =
            errors_when_allocation_fails(unit + 1, [=] { EXPECT_EQ(create(unit, vxlan_5, evlan_sdk(32, 7, 9)), 0); });
        const std::string which = unit == 0 ? "2, keyid1 is 0x0, keyid2 is 0x0." : "3, keyid1 is 0x7, keyid2 is 0x9.";
        EXPECT_THAT(errors,
                    ElementsAre(format("Assert:EVLAN Index map failed, user is sdavlan.unit%u, type is ", unit) + which,
                                "Assert:EVLAN Index map failed"));
        EXPECT_EQ(heard(),
                  strings{format("bridge hears evlan made %u: driver/0x20000005 is chip/type 32 vsi 7 vid 9", unit)});
        EXPECT_EQ(items_of(unit), 3u);
        EXPECT_EQ(stored(unit, SW_INDEX_MAP_UDP2SDK, vxlan_5).kind, unit == 0 ? 99u : 2u);
        EXPECT_EQ(stored(unit, SW_INDEX_MAP_SDK2UDP, 32, 7, 9).kind, unit == 0 ? 3u : 99u);
    }
}

TEST_F(SdaEvlanCreate, CallbackMayAskForThePair)
{
    add_user(2, "bridge");
    inside_callback = [] {
        evlan index(vxlan_5);
        evlan_sdk sdk;
        EXPECT_EQ(sda_evlan_udp2sdk(2, &index, &sdk), 0);
        EXPECT_EQ(sdk.vsi, 7);
    };
    EXPECT_EQ(create(2, vxlan_5, evlan_sdk(32, 7)), 0);
    EXPECT_THAT(heard(), SizeIs(1));
}

// ---- destroy

TEST_F(SdaEvlanDestroy, DropsBothDirectionsAndTellsTheChipKeyThatWasKept)
{
    add_user(1, "bridge");
    add_user(1, "deaf", no_callbacks);
    EXPECT_EQ(create(1, vxlan_5, evlan_sdk(33, 258, 9)), 0);
    evlan index(vxlan_5);
    EXPECT_THAT(traced_by(0, [&] { return sda_evlan_destroy_callback(1, &index, nullptr); }),
                ElementsAre(destroy_said("destroy evlan_index_id: 0x20000005\n"),
                            removed(to_sdk("Remove", 1, vxlan_5, "type(33), vsi(0x102), vid(0x9)")),
                            removed(to_udp("Remove", 1, "type(33), vsi(0x102), vid(0x9)", vxlan_5)),
                            destroy_said("release db, evlan_id: 0x20000005, sdk-vsi: 258, type: 33, rv: 0\n"),
                            destroy_said("received evlan destroying msg,  evlan_id: 0x20000005, vpn_id: 0x102\n"),
                            "bridge hears evlan gone 1: driver/0x20000005 is /type 33 vsi 258 vid 9"));
    EXPECT_EQ(heard_index, &index);
    EXPECT_EQ(items_of(1), 0u);
}

// Whatever their callbacks return, as with create.
TEST_F(SdaEvlanDestroy, TellsEveryUserWhoListens)
{
    for (const char *name : {"a", "b", "c"})
        add_user(0, name);
    EXPECT_EQ(create(0, vxlan_5, evlan_sdk(32, 7)), 0);
    recording::reset();
    EXPECT_EQ(destroy(0, vxlan_5), 0);
    const std::string what = " hears evlan gone 0: driver/0x20000005 is /type 32 vsi 7 vid 0";
    EXPECT_THAT(heard(), testing::UnorderedElementsAre("a" + what, "b" + what, "c" + what));
}

TEST_F(SdaEvlanDestroy, DoesNotLookAtTheGivenChipKey)
{
    add_user(0, "bridge");
    EXPECT_EQ(create(0, vxlan_5, evlan_sdk(32, 7)), 0);
    EXPECT_EQ(create(0, vxlan_6, evlan_sdk(32, 8)), 0);
    recording::reset();
    evlan index(vxlan_5);
    evlan_sdk other(32, 8);
    EXPECT_EQ(sda_evlan_destroy_callback(0, &index, &other), 0);
    EXPECT_EQ(heard(), strings{"bridge hears evlan gone 0: driver/0x20000005 is /type 32 vsi 7 vid 0"});
    EXPECT_NE(heard_sdk, &other);
    EXPECT_EQ(shown(other), "chip/type 32 vsi 8 vid 0");
    EXPECT_EQ(stored(0, SW_INDEX_MAP_SDK2UDP, 32, 8).value[0], vxlan_6);
}

// Not even an object whose whole chip key is 0 is touched.
TEST_F(SdaEvlanDestroy, OfAnUnknownEvlanTellsZeros)
{
    add_user(0, "bridge");
    EXPECT_EQ(create(0, vxlan_6, evlan_sdk(0, 0)), 0);
    recording::reset();
    EXPECT_THAT(traced_by(0, [] { return destroy(0, vxlan_5); }),
                ElementsAre(destroy_said("destroy evlan_index_id: 0x20000005\n"),
                            destroy_said("release db, evlan_id: 0x20000005, sdk-vsi: 0, type: 0, rv: -1\n"),
                            destroy_said("received evlan destroying msg,  evlan_id: 0x20000005, vpn_id: 0x0\n"),
                            "bridge hears evlan gone 0: driver/0x20000005 is /type 0 vsi 0 vid 0"));
    EXPECT_EQ(items_of(0), 2u);
}

TEST_F(SdaEvlanDestroy, KnowsThePairsOfItsUnitAlone)
{
    start_without_users();
    EXPECT_EQ(create(1, vxlan_5, evlan_sdk(32, 7)), 0);
    EXPECT_EQ(destroy(2, vxlan_5), 0);
    EXPECT_EQ(items_of(1), 2u);
    EXPECT_EQ(destroy(1, vxlan_5), 0);
    EXPECT_EQ(items_of(1), 0u);
}

TEST_F(SdaEvlanDestroy, FreesWhatItDrops)
{
    start_without_users();
    EXPECT_EQ(create(0, vxlan_5, evlan_sdk(32, 7)), 0);
    EXPECT_THAT(freed_by([] { EXPECT_EQ(destroy(0, vxlan_5), 0); }), SizeIs(2));
}

TEST_F(SdaEvlanDestroy, RefusesNullAndUnitsThatAreNotThere)
{
    add_user(0, "bridge");
    EXPECT_THAT(traced_by(-2, [] { return sda_evlan_destroy_callback(0, nullptr, nullptr); }),
                ElementsAre(format("error sda_evlan_destroy_callback: Assert:evlan_index(%p) is null\n",
                                   static_cast<void *>(nullptr))));
    for (const auto &call : {+[] { return destroy(no_unit, vxlan_5); },
                             +[] { return sda_evlan_destroy_callback(no_unit, nullptr, nullptr); }})
        EXPECT_THAT(traced_by(-2, call), ElementsAre("error sda_evlan_destroy_callback: Assert:Bad inst 6."));
}

}  // namespace
