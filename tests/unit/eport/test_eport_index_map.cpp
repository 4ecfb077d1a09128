// The eport index map: keys, updating and deleting items, and the users' lists.
#include "eport_fixture.hpp"

namespace
{

using namespace eport_test;
using EportIndexMap = EportTest;

TEST_F(EportIndexMap, TablesAreMadeOnce)
{
    EXPECT_EQ(sw_eport_index_map_db_init(), 0);
    recording::fail_allocation(1, true);
    EXPECT_EQ(sw_eport_index_map_db_init(), 0);
    EXPECT_EQ(recording::allocations(), 0u);
}

TEST_F(EportIndexMap, MissingTablesAreReportedWithoutTheirNumber)
{
    sw_vlan_debug_init("app", nullptr);
    recording::reset();
    recording::fail_allocation(1);
    EXPECT_EQ(sw_eport_index_map_db_init(), -1);
    recording::fail_allocation(0);
    EXPECT_EQ(sw_eport_index_map_db_init(), -1);
    EXPECT_THAT(trace(), ElementsAre("error sw_eport_index_map_db_init: Assert:HASH[%] init failed.",
                                     "error sw_eport_index_map_db_init: Assert:HASH[%] init failed."));
}

// ---- keys

void expect_key(const sw_eport_index_map &item, uint32_t kind, uint32_t a, uint32_t b, uint32_t c)
{
    EXPECT_EQ(item.kind, kind);
    EXPECT_THAT(item.key, ElementsAre(a, b, c, 0u));
}

// An item with no word at 0, and one whose key words alone may have changed since.
sw_eport_index_map scribbled()
{
    sw_eport_index_map item;
    std::memset(&item, 0xff, sizeof item);
    return item;
}

TEST_F(EportIndexMap, AppKeyClearsTheWholeKeyFirst)
{
    sw_eport_index_map item = scribbled();
    const session of("app", l3intf_ac, -7, -8);
    sw_eport_index_map_init_appkey(&item, &of);
    expect_key(item, 0, 144, 0xfffffff9, 0xfffffff8);
}

TEST_F(EportIndexMap, UdpKeyClearsTheWholeKeyFirst)
{
    sw_eport_index_map item = scribbled();
    sw_eport_index_map_init_udpkey(&item, 0x90000005);
    expect_key(item, 1, 0x90000005, 0, 0);
}

TEST_F(EportIndexMap, SdkKeyIsTheVportAlone)
{
    sw_eport_index_map item = scribbled();
    UBridge__EportSdkIndex sdk = U_BRIDGE__EPORT_SDK_INDEX__INIT;
    sdk.t_user = text("app");
    sdk.type = 1;
    sdk.vport = static_cast<int32_t>(0x8000002a);
    sdk.unit = 2;
    sdk.port = 3;
    sdk.tid = 4;
    sw_eport_index_map_init_sdkkey(&item, &sdk);
    expect_key(item, 3, 0, 0x8000002a, 0);
}

TEST_F(EportIndexMap, KeysOfNothingAreRefused)
{
    sw_eport_index_map item = scribbled();
    const sw_eport_index_map before = item;
    session without("app", ac, 1, 2);
    without.index = nullptr;
    sw_eport_index_map_init_appkey(&item, nullptr);
    sw_eport_index_map_init_appkey(&item, &without);
    sw_eport_index_map_init_appkey(nullptr, &without);
    sw_eport_index_map_init_udpkey(nullptr, 5);
    sw_eport_index_map_init_sdkkey(&item, nullptr);
    sw_eport_index_map_init_sdkkey(nullptr, nullptr);
    EXPECT_EQ(std::memcmp(item.value, before.value, sizeof item.value), 0);
}

TEST_F(EportIndexMap, GetFindsByKindAndKeyOnly)
{
    add_user({.name = "app"});
    const sw_eport_index_map *made = update(app_to_udp("app", ac, 7, 8, 0x30000005));
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(stored(app_to_udp("other", ac, 7, 8, 99)), made);
    EXPECT_EQ(stored(map_key(0, ac, 7, 9)), nullptr);
    EXPECT_EQ(stored(map_key(0, ac, 6, 8)), nullptr);
    EXPECT_EQ(stored(map_key(0, pw, 7, 8)), nullptr);
    EXPECT_EQ(stored(map_key(0, ac, 7, 8, 1)), nullptr);
    EXPECT_EQ(stored(map_key(1, ac, 7, 8)), nullptr);
    EXPECT_EQ(stored(map_key(0, ac, 7, 8), 1), nullptr);
}

// The evlan map complains.
TEST_F(EportIndexMap, BadSlotsAndNullHaveNoItemsAndNothingIsSaid)
{
    add_user({.name = "app"});
    const sw_eport_index_map item = app_to_udp("app", ac, 7, 8);
    for (const uint32_t slot : {6u, 10u, 0xffffffffu}) {
        EXPECT_EQ(sw_eport_index_map_get_item(slot, &item), nullptr);
        EXPECT_EQ(sw_eport_index_map_delete_item(slot, &item), 0);
    }
    EXPECT_EQ(sw_eport_index_map_get_item(0, nullptr), nullptr);
    EXPECT_EQ(sw_eport_index_map_delete_item(0, nullptr), 0);
    EXPECT_THAT(trace(), IsEmpty());
}

TEST_F(EportIndexMap, NothingIsStoredForABadSlotOrOfNull)
{
    add_user({.name = "app"});
    const sw_eport_index_map item = app_to_udp("app", ac, 7, 8);
    const std::string error = "error sw_eport_index_map_update_item: Assert:Bad ";
    EXPECT_EQ(sw_eport_index_map_update_item(6, &item), nullptr);
    EXPECT_EQ(sw_eport_index_map_update_item(0xffffffff, nullptr), nullptr);
    EXPECT_EQ(sw_eport_index_map_update_item(0, nullptr), nullptr);
    EXPECT_THAT(trace(), ElementsAre(error + "inst 6.", error + "inst -1.", error + "map info."));
}

// ---- storing

TEST_F(EportIndexMap, UpdateOfAnAbsentItemStoresACopyAtTheHeadOfItsUsersList)
{
    const sw_ebridge_list_item *owner = add_user({.name = "app"});
    sw_eport_index_map item = app_to_udp("app", ac, 7, 8, 0x30000005);
    item.value[1] = 1;
    item.value[2] = 2;
    item.carried[0] = 4;
    item.carried[1] = 5;
    item.priority = 2;
    item.ds_flag = 3;
    const sw_eport_index_map *first = update(item);
    const sw_eport_index_map *second = update(app_to_udp("app", ac, 7, 9));
    ASSERT_TRUE(first && second);
    EXPECT_NE(first, &item);
    item.link = first->link;
    EXPECT_EQ(std::memcmp(first, &item, sizeof item), 0);
    EXPECT_EQ(owner->eport_maps.next, &second->link);
    EXPECT_EQ(owner->eport_maps.next->next, &first->link);
    EXPECT_EQ(list_length(owner->eport_maps), 2u);
    EXPECT_TRUE(linked_to_itself(owner->evlan_maps));
    EXPECT_THAT(trace(),
                ElementsAre("info sw_eport_index_map_update_item: Insert EPORT Index map for app, appIndex is 0x7+0x8, "
                            "UDPIndex is 0x30000005 ds_flag:3.",
                            "info sw_eport_index_map_update_item: Insert EPORT Index map for app, appIndex is 0x7+0x9, "
                            "UDPIndex is 0x0 ds_flag:0."));
}

TEST_F(EportIndexMap, LooksForTheOwnerInItsOwnSlot)
{
    const sw_ebridge_list_item *in_slot_0 = add_user({.name = "app"});
    const sw_eport_index_map *made = update(app_to_udp("app", ac, 7, 8), 1);
    ASSERT_NE(made, nullptr);
    EXPECT_TRUE(linked_to_itself(made->link));
    EXPECT_TRUE(linked_to_itself(in_slot_0->eport_maps));
    add_user_in_slot(1, "app");
    const sw_eport_index_map *linked = update(app_to_udp("app", ac, 7, 9), 1);
    EXPECT_EQ(sw_ebridge_list_item_get_inst(1, "app")->eport_maps.next, &linked->link);
    EXPECT_EQ(stored(map_key(0, ac, 7, 8)), nullptr);
}

TEST_F(EportIndexMap, AnItemOfAnUnknownUserIsLinkedToItself)
{
    add_user({.name = "app"});
    sw_eport_index_map item = app_to_udp("nobody", ac, 7, 8);
    item.link = {nullptr, nullptr};
    const sw_eport_index_map *made = update(item);
    ASSERT_NE(made, nullptr);
    EXPECT_TRUE(linked_to_itself(made->link));
    EXPECT_EQ(sw_eport_index_map_delete_item(0, &item), 0);
}

TEST_F(EportIndexMap, EachKindIsLoggedInItsFormat)
{
    add_user({.name = "app"});
    update(udp_to_app("app", 0x90000005, 144, 7, 0xfffffff8));
    sw_eport_index_map to_sdk = map_key(SW_INDEX_MAP_UDP2SDK, 0x90000005);
    to_sdk.value[0] = 1;
    to_sdk.value[1] = 0x2a;
    sw_eport_index_map of_sdk = map_key(SW_INDEX_MAP_SDK2UDP, 0, 0x2a);
    of_sdk.value[0] = 0x90000005;
    update(to_sdk);
    update(of_sdk);
    EXPECT_THAT(recording::logged(40),
                ElementsAre("Insert EPORT Index map for app, UDPIndex is 0x90000005, appIndex is 0x7+0xfffffff8.",
                            "Insert EPORT Index map for , UDPIndex is 0x90000005, SDKIndex is 0x1 + 0x2a.",
                            "Insert EPORT Index map for , SDKIndex is 0x0 + 0x2a, UDPIndex is 0x90000005."));
}

TEST_F(EportIndexMap, AnItemOfAnUnknownKindIsStoredWithoutAWord)
{
    add_user({.name = "app"});
    const sw_eport_index_map item = map_key(4, 1);
    const sw_eport_index_map *made = update(item);
    EXPECT_NE(made, nullptr);
    EXPECT_EQ(update(item), made);
    EXPECT_EQ(stored(item), made);
    EXPECT_EQ(sw_eport_index_map_delete_item(0, &item), 0);
    EXPECT_EQ(stored(item), nullptr);
    EXPECT_THAT(trace(), IsEmpty());
}

// One line, where the evlan map writes two.
TEST_F(EportIndexMap, WithoutMemoryLeavesNothing)
{
    const sw_ebridge_list_item *owner = add_user({.name = "app"});
    uint32_t failures = 0;
    for (uint32_t nth = 1; nth <= 5; ++nth) {
        const uint32_t before = sw_eport_index_map_hash_size(0);
        sw_eport_index_map item = map_key(3, 0, 0x10 + nth);
        std::strcpy(item.user_name, "app");
        const sw_eport_index_map *made = nullptr;
        const strings errors = errors_when_allocation_fails(nth, [&] { made = update(item); });
        EXPECT_EQ(stored(item), made);
        EXPECT_EQ(sw_eport_index_map_hash_size(0), before + (made ? 1 : 0));
        EXPECT_EQ(list_length(owner->eport_maps), before + (made ? 1 : 0));
        if (!made) {
            EXPECT_THAT(trace(), ElementsAre("error sw_eport_index_map_update_item: Assert:EPort Index map failed, "
                                             "user is app, type is 3"));
        }
        failures += made == nullptr;
    }
    EXPECT_GE(failures, 1u);
}

TEST_F(EportIndexMap, UpdateOfAStoredItemKeepsItsKeyFlagAndList)
{
    const sw_ebridge_list_item *a = add_user({.name = "a"});
    const sw_ebridge_list_item *b = add_user({.name = "b"});
    sw_eport_index_map first = app_to_udp("a", ac, 7, 8, 1);
    first.ds_flag = 2;
    sw_eport_index_map *made = update(first);
    update(app_to_udp("a", ac, 7, 9));
    recording::reset();
    sw_eport_index_map newer = app_to_udp("b", ac, 7, 8, 0x30000005);
    newer.value[1] = 11;
    newer.value[2] = 12;
    newer.carried[0] = 8;
    newer.carried[1] = 9;
    newer.priority = 1;
    newer.ds_flag = 1;
    EXPECT_EQ(update(newer), made);
    newer.ds_flag = 2;
    newer.link = made->link;
    EXPECT_EQ(std::memcmp(made, &newer, sizeof newer), 0);
    EXPECT_EQ(a->eport_maps.next->next, &made->link);
    EXPECT_EQ(list_length(a->eport_maps), 2u);
    EXPECT_TRUE(linked_to_itself(b->eport_maps));
    EXPECT_THAT(trace(),
                ElementsAre("info sw_eport_index_map_update_item: Update EPORT Index map for b, appIndex is 0x7+0x8, "
                            "UDPIndex is 0x30000005 ds_flag:2."));
}

TEST_F(EportIndexMap, AGrantOfAnotherIdUpdatesTheReverseItemThatAnotherKeyHasOfIt)
{
    const sw_ebridge_list_item *owner = add_user({.name = "app", .callbacks = no_callbacks});
    grant("app", ac, 7, 7, 0x30000003);
    grant("app", ac, 7, 8, 0x30000005);
    grant("app", ac, 7, 9, 0x30000006);
    const sw_eport_index_map *reverse = udp_item(0x30000005);
    recording::reset();
    grant("other", ac, 7, 7, 0x30000005);
    EXPECT_TRUE(
        traced("info sw_eport_index_map_update_item: Update EPORT Index map for other, UDPIndex is 0x30000005, "
               "appIndex is 0x7+0x7."));
    EXPECT_EQ(udp_item(0x30000005), reverse);
    EXPECT_EQ(reverse->value[2], 7u);
    EXPECT_EQ(owner->eport_maps.next, &udp_item(0x30000006)->link);
    EXPECT_EQ(owner->eport_maps.next->next->next, &reverse->link);
}

TEST_F(EportIndexMap, UpdateOfAStoredItemNeedsNoMemory)
{
    add_user({.name = "app"});
    const sw_eport_index_map *made = update(app_to_udp("app", ac, 7, 8));
    recording::fail_allocation(1, true);
    EXPECT_EQ(update(app_to_udp("app", ac, 7, 8, 5)), made);
    recording::fail_allocation(0);
    EXPECT_EQ(made->value[0], 5u);
}

TEST_F(EportIndexMap, AStoredItemMayBeGivenBackToTheMap)
{
    const sw_ebridge_list_item *owner = add_user({.name = "app"});
    sw_eport_index_map *made = update(app_to_udp("app", ac, 7, 8, 5));
    made->value[0] = 6;
    EXPECT_EQ(update(*made), made);
    EXPECT_EQ(made->value[0], 6u);
    EXPECT_STREQ(made->user_name, "app");
    EXPECT_EQ(list_length(owner->eport_maps), 1u);
    const auto blocks = freed_by([&] { EXPECT_EQ(sw_eport_index_map_delete_item(0, made), 0); });
    EXPECT_THAT(blocks, SizeIs(1));
    EXPECT_TRUE(linked_to_itself(owner->eport_maps));
}

TEST_F(EportIndexMap, AnUnterminatedNameIsCutAt31Characters)
{
    add_user({.name = "app"});
    sw_eport_index_map item = app_to_udp("", ac, 7, 8);
    std::memset(item.user_name, 'x', sizeof item.user_name);
    const sw_eport_index_map *made = update(item);
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(std::string(made->user_name, 32), std::string(31, 'x') + '\0');
    std::memset(item.user_name, 'y', sizeof item.user_name);
    EXPECT_EQ(update(item), made);
    EXPECT_EQ(std::string(made->user_name, 32), std::string(31, 'y') + '\0');
}

TEST_F(EportIndexMap, ANameOf31CharactersFindsItsOwner)
{
    const sw_ebridge_list_item *owner = add_user({.name = name_of_31});
    const sw_eport_index_map *made = update(app_to_udp(name_of_31, ac, 7, 8));
    EXPECT_EQ(owner->eport_maps.next, &made->link);
}

// ---- deletion

TEST_F(EportIndexMap, DeleteUnlinksAndFreesTheItem)
{
    const sw_ebridge_list_item *owner = add_user({.name = "app"});
    void *made = update(app_to_udp("app", ac, 7, 8, 5));
    const sw_eport_index_map *other = update(app_to_udp("app", ac, 7, 9));
    recording::reset();
    const sw_eport_index_map key = map_key(0, ac, 7, 8);
    const auto blocks = freed_by([&] { EXPECT_EQ(sw_eport_index_map_delete_item(0, &key), 0); });
    EXPECT_THAT(blocks, ElementsAre(made));
    EXPECT_EQ(stored(key), nullptr);
    EXPECT_EQ(owner->eport_maps.next, &other->link);
    EXPECT_EQ(list_length(owner->eport_maps), 1u);
    EXPECT_THAT(trace(),
                ElementsAre("info sw_eport_index_map_delete_item: Remove EPORT Index map for app, appIndex is 0x7+0x8, "
                            "UDPIndex is 0x5 ds_flag:0."));
}

TEST_F(EportIndexMap, DeletingAnAbsentItemIsNoFailure)
{
    add_user({.name = "app"});
    const sw_eport_index_map key = map_key(0, ac, 7, 8);
    EXPECT_EQ(sw_eport_index_map_delete_item(0, &key), 0);
    EXPECT_THAT(trace(), IsEmpty());
}

TEST_F(EportIndexMap, ItemsLeaveTheirUsersListWhenTheUserIsRegisteredAgain)
{
    const sw_ebridge_list_item *owner = add_user({.name = "app"});
    const sw_eport_index_map *first = update(app_to_udp("app", ac, 7, 7));
    const sw_eport_index_map *second = update(app_to_udp("app", ac, 7, 8));
    EXPECT_EQ(add_user({.name = "app"}), owner);
    EXPECT_TRUE(linked_to_itself(owner->eport_maps));
    EXPECT_TRUE(linked_to_itself(first->link));
    EXPECT_TRUE(linked_to_itself(second->link));
    const sw_eport_index_map *third = update(app_to_udp("app", ac, 7, 9));
    const sw_eport_index_map key = map_key(0, ac, 7, 7);
    EXPECT_EQ(sw_eport_index_map_delete_item(0, &key), 0);
    EXPECT_EQ(list_length(owner->eport_maps), 1u);
    EXPECT_EQ(owner->eport_maps.next, &third->link);
    EXPECT_EQ(owner->eport_maps.prev, &third->link);
}

TEST_F(EportIndexMap, BeforeAnyInitialisationIsEmpty)
{
    const sw_eport_index_map item = app_to_udp("app", ac, 7, 8);
    EXPECT_EQ(stored(item), nullptr);
    EXPECT_EQ(update(item), nullptr);
    EXPECT_EQ(sw_eport_index_map_delete_item(0, &item), 0);
}

}  // namespace
