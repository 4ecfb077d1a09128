// Hardware objects behind eports: the pairs in the index map, and who hears of them.
#include "sda_fixture.hpp"

namespace
{

using namespace sda_test;
using SdaEportCreate = SdaTest;
using SdaEportDestroy = SdaTest;

constexpr uint32_t ac_5 = 0x30000005, ac_6 = 0x30000006, l3intf_7 = 0x90000007;

int32_t create(uint32_t unit, uint32_t id, eport_sdk sdk)
{
    eport index(id);
    return sda_eport_create_callback(unit, &index, &sdk);
}

int32_t destroy(uint32_t unit, uint32_t id)
{
    eport index(id);
    return sda_eport_destroy_callback(unit, &index, nullptr);
}

std::string create_said(const std::string &what) { return "info sda_eport_create_callback: " + what; }
std::string destroy_said(const std::string &what) { return "info sda_eport_destroy_callback: " + what; }
std::string updated(const std::string &what) { return "info sw_eport_index_map_update_item: " + what; }
std::string removed(const std::string &what) { return "info sw_eport_index_map_delete_item: " + what; }

// The stored item of a key; zeroes with kind 99 when there is none.
sw_eport_index_map stored(uint32_t unit, uint32_t kind, uint32_t a, uint32_t b = 0)
{
    sw_eport_index_map key{};
    key.kind = kind;
    key.key[0] = a;
    key.key[1] = b;
    const sw_eport_index_map *item = sw_eport_index_map_hash_find(unit, &key);
    sw_eport_index_map none{};
    none.kind = 99;
    return item != nullptr ? *item : none;
}

// ---- create

TEST_F(SdaEportCreate, KeepsBothDirectionsInTheDriversName)
{
    add_user(3, "bridge");
    EXPECT_EQ(create(3, l3intf_7, eport_sdk(48, 0x80000007)), 0);
    const auto forward = stored(3, SW_INDEX_MAP_UDP2SDK, l3intf_7);
    EXPECT_THAT(forward.value, ElementsAre(48u, 0x80000007, 0u));
    EXPECT_STREQ(forward.user_name, "sdavlan.unit3");
    const auto reverse = stored(3, SW_INDEX_MAP_SDK2UDP, 0, 0x80000007);
    EXPECT_THAT(reverse.value, ElementsAre(l3intf_7, 0u, 0u));
    EXPECT_STREQ(reverse.user_name, "sdavlan.unit3");
    for (uint32_t unit = 0; unit < SW_EBRIDGE_SLOTS; ++unit)
        EXPECT_EQ(items_of(unit), unit == 3 ? 2u : 0u) << unit;
}

TEST_F(SdaEportCreate, TellsTheUsersOfTheUnitWhenThePairIsKept)
{
    add_user(0, "elsewhere");
    add_user(1, "bridge");
    add_user(1, "deaf", no_callbacks);
    eport index(ac_5);
    eport_sdk sdk(48, 0x102);
    EXPECT_THAT(
        traced_by(0, [&] { return sda_eport_create_callback(1, &index, &sdk); }),
        ElementsAre(
            create_said("create eport_index_id: 0x30000005, sdk_index_vport: 0x102, sdk_index_type: 0x30\n"),
            updated("Insert EPORT Index map for sdavlan.unit1, UDPIndex is 0x30000005, SDKIndex is 0x30 + 0x102."),
            updated("Insert EPORT Index map for sdavlan.unit1, SDKIndex is 0x0 + 0x102, UDPIndex is 0x30000005."),
            create_said("User[bridge] eport create callback for eport[0x30000005].\n"),
            "bridge hears eport made 1: driver/0x30000005 is chip/type 48 vport 0x102 unit 0 port 0 tid 0"));
    EXPECT_EQ(heard_index, &index);
    EXPECT_EQ(heard_sdk, &sdk);
}

// A callback's result would end the walk if anyone looked at it.
TEST_F(SdaEportCreate, TellsEveryUserWhoListens)
{
    for (const char *name : {"a", "b", "c"})
        add_user(0, name);
    add_user(0, "deaf", no_callbacks);
    EXPECT_EQ(create(0, ac_5, eport_sdk(48, 7)), 0);
    const std::string what = " hears eport made 0: driver/0x30000005 is chip/type 48 vport 0x7 unit 0 port 0 tid 0";
    EXPECT_THAT(heard(), testing::UnorderedElementsAre("a" + what, "b" + what, "c" + what));
}

TEST_F(SdaEportCreate, OfAUnitWithoutUsersKeepsThePair)
{
    start_without_users();
    EXPECT_THAT(traced_by(0, [] { return create(5, ac_5, eport_sdk(48, 7)); }), SizeIs(3));
    EXPECT_EQ(items_of(5), 2u);
}

TEST_F(SdaEportCreate, AgainReplacesBothItems)
{
    start_without_users();
    EXPECT_EQ(create(0, ac_5, eport_sdk(48, 7)), 0);
    EXPECT_THAT(
        traced_by(0, [] { return create(0, ac_5, eport_sdk(49, 7)); }),
        ElementsAre(
            create_said("create eport_index_id: 0x30000005, sdk_index_vport: 0x7, sdk_index_type: 0x31\n"),
            updated("Update EPORT Index map for sdavlan.unit0, UDPIndex is 0x30000005, SDKIndex is 0x31 + 0x7."),
            updated("Update EPORT Index map for sdavlan.unit0, SDKIndex is 0x0 + 0x7, UDPIndex is 0x30000005.")));
    EXPECT_EQ(items_of(0), 2u);
}

TEST_F(SdaEportCreate, AcrossTwoPairsReplacesTheContentsOfBothItems)
{
    start_without_users();
    EXPECT_EQ(create(0, ac_5, eport_sdk(48, 7)), 0);
    EXPECT_EQ(create(0, ac_6, eport_sdk(49, 8)), 0);
    EXPECT_EQ(create(0, ac_5, eport_sdk(49, 8)), 0);
    EXPECT_THAT(stored(0, SW_INDEX_MAP_UDP2SDK, ac_5).value, ElementsAre(49u, 8u, 0u));
    EXPECT_THAT(stored(0, SW_INDEX_MAP_SDK2UDP, 0, 8).value, ElementsAre(ac_5, 0u, 0u));
    EXPECT_EQ(items_of(0), 4u);
}

TEST_F(SdaEportCreate, OfAnotherEportTakesTheVportOver)
{
    start_without_users();
    EXPECT_EQ(create(0, ac_5, eport_sdk(48, 7)), 0);
    EXPECT_EQ(create(0, ac_6, eport_sdk(48, 7)), 0);
    EXPECT_EQ(stored(0, SW_INDEX_MAP_SDK2UDP, 0, 7).value[0], ac_6);
    EXPECT_EQ(items_of(0), 3u);
}

TEST_F(SdaEportCreate, RefusesNullAndOfTwoTheEportFirst)
{
    add_user(0, "bridge");
    eport index(ac_5);
    eport_sdk sdk(48, 7);
    for (eport_sdk *second : {&sdk, static_cast<eport_sdk *>(nullptr)})
        EXPECT_THAT(traced_by(-2, [=] { return sda_eport_create_callback(0, nullptr, second); }),
                    ElementsAre("error sda_eport_create_callback: Assert:eport_indexis null\n"));
    EXPECT_THAT(traced_by(-2, [&] { return sda_eport_create_callback(0, &index, nullptr); }),
                ElementsAre("error sda_eport_create_callback: Assert:sdk_index is null\n"));
    EXPECT_EQ(items_of(0), 0u);
}

TEST_F(SdaEportCreate, RefusesAUnitThatIsNotThereBeforeAnythingElse)
{
    add_user(0, "bridge");
    for (const auto &call : {+[] { return create(no_unit, ac_5, eport_sdk(48, 7)); },
                             +[] { return sda_eport_create_callback(no_unit, nullptr, nullptr); }})
        EXPECT_THAT(traced_by(-2, call), ElementsAre("error sda_eport_create_callback: Assert:Bad inst 6."));
}

// In a map of two items the forward one takes a block, the reverse one another and room for more.
TEST_F(SdaEportCreate, WithoutMemoryTellsTheUsersAllTheSame)
{
    for (uint32_t unit = 0; unit < SW_EBRIDGE_SLOTS; ++unit) {
        SCOPED_TRACE(unit);
        add_user(unit, "bridge");
        EXPECT_EQ(create(unit, ac_6, eport_sdk(48, 8)), 0);
        const auto errors =
            errors_when_allocation_fails(unit + 1, [=] { EXPECT_EQ(create(unit, ac_5, eport_sdk(48, 7)), 0); });
        EXPECT_THAT(errors, ElementsAre(format("Assert:EPort Index map failed, user is sdavlan.unit%u, type is %d",
                                               unit, unit == 0 ? 2 : 3)));
        EXPECT_THAT(heard(), SizeIs(1));
        EXPECT_EQ(items_of(unit), 3u);
        EXPECT_EQ(stored(unit, SW_INDEX_MAP_UDP2SDK, ac_5).kind, unit == 0 ? 99u : 2u);
        EXPECT_EQ(stored(unit, SW_INDEX_MAP_SDK2UDP, 0, 7).kind, unit == 0 ? 3u : 99u);
    }
}

// ---- destroy

TEST_F(SdaEportDestroy, DropsBothDirectionsAndTellsTheChipKeyThatWasKept)
{
    add_user(1, "bridge");
    add_user(1, "deaf", no_callbacks);
    EXPECT_EQ(create(1, ac_5, eport_sdk(48, 0x102)), 0);
    eport index(ac_5);
    EXPECT_THAT(
        traced_by(0, [&] { return sda_eport_destroy_callback(1, &index, nullptr); }),
        ElementsAre(
            removed("Remove EPORT Index map for sdavlan.unit1, UDPIndex is 0x30000005, SDKIndex is 0x30 + 0x102."),
            removed("Remove EPORT Index map for sdavlan.unit1, SDKIndex is 0x0 + 0x102, UDPIndex is 0x30000005."),
            destroy_said("release db, eport_id: 0x30000005, sdk-eport: 0x102, rv: 0\n"),
            destroy_said("received eport destroy msg, eport_id: 0x30000005, vport: 0x102\n"),
            "bridge hears eport gone 1: driver/0x30000005 is /type 48 vport 0x102 unit 0 port 0 tid 0"));
    EXPECT_EQ(heard_index, &index);
    EXPECT_EQ(items_of(1), 0u);
}

// Whatever their callbacks return, as with create.
TEST_F(SdaEportDestroy, TellsEveryUserWhoListens)
{
    for (const char *name : {"a", "b", "c"})
        add_user(0, name);
    EXPECT_EQ(create(0, ac_5, eport_sdk(48, 7)), 0);
    recording::reset();
    EXPECT_EQ(destroy(0, ac_5), 0);
    const std::string what = " hears eport gone 0: driver/0x30000005 is /type 48 vport 0x7 unit 0 port 0 tid 0";
    EXPECT_THAT(heard(), testing::UnorderedElementsAre("a" + what, "b" + what, "c" + what));
}

TEST_F(SdaEportDestroy, DoesNotLookAtTheGivenChipKey)
{
    add_user(0, "bridge");
    EXPECT_EQ(create(0, ac_5, eport_sdk(48, 7)), 0);
    EXPECT_EQ(create(0, ac_6, eport_sdk(48, 8)), 0);
    recording::reset();
    eport index(ac_5);
    eport_sdk other(48, 8);
    EXPECT_EQ(sda_eport_destroy_callback(0, &index, &other), 0);
    EXPECT_EQ(heard(), strings{"bridge hears eport gone 0: driver/0x30000005 is "
                               "/type 48 vport 0x7 unit 0 port 0 tid 0"});
    EXPECT_EQ(stored(0, SW_INDEX_MAP_SDK2UDP, 0, 8).value[0], ac_6);
}

// Not even an object whose vport is 0 is touched.
TEST_F(SdaEportDestroy, OfAnUnknownEportTellsZeros)
{
    add_user(0, "bridge");
    EXPECT_EQ(create(0, ac_6, eport_sdk(48, 0)), 0);
    recording::reset();
    EXPECT_THAT(traced_by(0, [] { return destroy(0, ac_5); }),
                ElementsAre(destroy_said("release db, eport_id: 0x30000005, sdk-eport: 0x0, rv: -1\n"),
                            destroy_said("received eport destroy msg, eport_id: 0x30000005, vport: 0x0\n"),
                            "bridge hears eport gone 0: driver/0x30000005 is /type 0 vport 0x0 unit 0 port 0 tid 0"));
    EXPECT_EQ(items_of(0), 2u);
}

TEST_F(SdaEportDestroy, KnowsThePairsOfItsUnitAlone)
{
    start_without_users();
    EXPECT_EQ(create(1, ac_5, eport_sdk(48, 7)), 0);
    EXPECT_EQ(destroy(2, ac_5), 0);
    EXPECT_EQ(items_of(1), 2u);
    EXPECT_THAT(freed_by([] { EXPECT_EQ(destroy(1, ac_5), 0); }), SizeIs(2));
    EXPECT_EQ(items_of(1), 0u);
}

TEST_F(SdaEportDestroy, RefusesNullAndUnitsThatAreNotThere)
{
    add_user(0, "bridge");
    EXPECT_THAT(traced_by(-2, [] { return sda_eport_destroy_callback(0, nullptr, nullptr); }),
                ElementsAre("error sda_eport_destroy_callback: Assert:eport_index is null\n"));
    for (const auto &call : {+[] { return destroy(no_unit, ac_5); },
                             +[] { return sda_eport_destroy_callback(no_unit, nullptr, nullptr); }})
        EXPECT_THAT(traced_by(-2, call), ElementsAre("error sda_eport_destroy_callback: Assert:Bad inst 6."));
}

}  // namespace
