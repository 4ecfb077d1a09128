// The evlan index map: keys, creating, updating and deleting items, the users' lists, and both translations.
#include "evlan_fixture.hpp"

namespace
{

using namespace evlan_test;
using EvlanIndexMap = EvlanTest;
using EvlanTranslation = EvlanTest;

sw_evlan_index_map app_to_udp(const char *name, uint32_t type, uint32_t keyid, uint32_t id = 0)
{
    sw_evlan_index_map item = map_key(SW_INDEX_MAP_APP2UDP, type, keyid);
    item.value[0] = id;
    snprintf(item.user_name, sizeof item.user_name, "%s", name);
    return item;
}

sw_evlan_index_map udp_to_app(const char *name, uint32_t id, uint32_t type, uint32_t keyid)
{
    sw_evlan_index_map item = map_key(SW_INDEX_MAP_UDP2APP, id);
    item.value[0] = type;
    item.value[1] = keyid;
    snprintf(item.user_name, sizeof item.user_name, "%s", name);
    return item;
}

sw_evlan_index_map *create(const sw_evlan_index_map &item, uint32_t slot = 0)
{
    return sw_evlan_index_map_create_item(slot, &item);
}

sw_evlan_index_map *update(const sw_evlan_index_map &item, uint32_t slot = 0)
{
    return sw_evlan_index_map_update_item(slot, &item);
}

TEST_F(EvlanIndexMap, TablesAreMadeOnce)
{
    EXPECT_EQ(sw_evlan_index_map_db_init(), 0);
    recording::fail_allocation(1, true);
    EXPECT_EQ(sw_evlan_index_map_db_init(), 0);
    EXPECT_EQ(recording::allocations(), 0u);
}

TEST_F(EvlanIndexMap, MissingTablesAreReportedWithoutTheirNumber)
{
    sw_vlan_debug_init("app", nullptr);
    recording::reset();
    recording::fail_allocation(1);
    EXPECT_EQ(sw_evlan_index_map_db_init(), -1);
    recording::fail_allocation(0);
    EXPECT_EQ(sw_evlan_index_map_db_init(), -1);
    EXPECT_THAT(trace(), ElementsAre("error sw_evlan_index_map_db_init: Assert:HASH[%] init failed.",
                                     "error sw_evlan_index_map_db_init: Assert:HASH[%] init failed."));
}

TEST_F(EvlanIndexMap, AppKeyClearsTheWholeKeyFirst)
{
    sw_evlan_index_map item;
    std::memset(&item, 0xff, sizeof item);
    const session of("app", l3vpn, -7);
    sw_evlan_index_map_init_appkey(&item, &of);
    EXPECT_EQ(item.kind, 0u);
    EXPECT_EQ(item.key[0], 128u);
    EXPECT_EQ(item.key[1], 0xfffffff9u);
    EXPECT_EQ(item.key[2], 0u);
}

TEST_F(EvlanIndexMap, UdpKeyClearsTheWholeKeyFirst)
{
    sw_evlan_index_map item;
    std::memset(&item, 0xff, sizeof item);
    sw_evlan_index_map_init_udpkey(&item, 0x80000005);
    EXPECT_EQ(item.kind, 1u);
    EXPECT_EQ(item.key[0], 0x80000005u);
    EXPECT_EQ(item.key[1], 0u);
    EXPECT_EQ(item.key[2], 0u);
}

TEST_F(EvlanIndexMap, KeysOfNothingAreRefused)
{
    sw_evlan_index_map item{};
    session without("app", vlan, 1);
    without.index = nullptr;
    sw_evlan_index_map_init_appkey(&item, nullptr);
    sw_evlan_index_map_init_appkey(&item, &without);
    sw_evlan_index_map_init_appkey(nullptr, &without);
    sw_evlan_index_map_init_udpkey(nullptr, 5);
    EXPECT_EQ(item.key[0], 0u);
    EXPECT_EQ(item.key[1], 0u);
}

TEST_F(EvlanIndexMap, GetFindsByKindAndKeyOnly)
{
    add_user({.name = "app"});
    const sw_evlan_index_map *made = create(app_to_udp("app", vxlan, 7, 0x20000005));
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(stored(app_to_udp("other", vxlan, 7, 99)), made);
    EXPECT_EQ(stored(map_key(0, vxlan, 8)), nullptr);
    EXPECT_EQ(stored(map_key(0, vlan, 7)), nullptr);
    EXPECT_EQ(stored(map_key(0, vxlan, 7, 1)), nullptr);
    EXPECT_EQ(stored(map_key(1, vxlan, 7)), nullptr);
    EXPECT_EQ(stored(map_key(0, vxlan, 7), 1), nullptr);
}

TEST_F(EvlanIndexMap, GetRefusesBadArguments)
{
    add_user({.name = "app"});
    const sw_evlan_index_map key{};
    EXPECT_EQ(sw_evlan_index_map_get_item(10, &key), nullptr);
    EXPECT_EQ(sw_evlan_index_map_get_item(0, nullptr), nullptr);
    EXPECT_EQ(sw_evlan_index_map_get_item(10, nullptr), nullptr);
    EXPECT_THAT(trace(), ElementsAre("error sw_evlan_index_map_get_item: Assert:Bad inst 10.",
                                     "error sw_evlan_index_map_get_item: Assert:Bad map info.",
                                     "error sw_evlan_index_map_get_item: Assert:Bad inst 10."));
}

TEST_F(EvlanIndexMap, CreateStoresACopyAtTheHeadOfItsUsersList)
{
    const sw_ebridge_list_item *owner = add_user({.name = "app"});
    sw_evlan_index_map item = app_to_udp("app", vxlan, 7, 0x20000005);
    item.value[1] = 1;
    item.value[2] = 2;
    item.session_arg = 4;
    item.priority = 2;
    item.ds_flag = 3;
    const sw_evlan_index_map *first = create(item);
    const sw_evlan_index_map *second = create(app_to_udp("app", vxlan, 8));
    ASSERT_TRUE(first && second);
    EXPECT_NE(first, &item);
    item.link = first->link;
    EXPECT_EQ(std::memcmp(first, &item, sizeof item), 0);
    EXPECT_EQ(owner->evlan_maps.next, &second->link);
    EXPECT_EQ(owner->evlan_maps.next->next, &first->link);
    EXPECT_EQ(list_length(owner->evlan_maps), 2u);
    EXPECT_TRUE(linked_to_itself(owner->eport_maps));
    EXPECT_THAT(trace(),
                ElementsAre("info sw_evlan_index_map_create_item: Insert EVLAN Index map for app, appIndex[0x7] map to "
                            "UDPIndex[0x20000005], ds_flag[3]\n",
                            "info sw_evlan_index_map_create_item: Insert EVLAN Index map for app, appIndex[0x8] map to "
                            "UDPIndex[0x0], ds_flag[0]\n"));
}

TEST_F(EvlanIndexMap, CreateLooksForTheOwnerInItsOwnSlot)
{
    const sw_ebridge_list_item *in_slot_0 = add_user({.name = "app"});
    const sw_evlan_index_map *made = create(app_to_udp("app", vxlan, 7), 1);
    ASSERT_NE(made, nullptr);
    EXPECT_TRUE(linked_to_itself(made->link));
    EXPECT_TRUE(linked_to_itself(in_slot_0->evlan_maps));
    add_user_in_slot(1, "app");
    const sw_evlan_index_map *linked = create(app_to_udp("app", vxlan, 8), 1);
    EXPECT_EQ(sw_ebridge_list_item_get_inst(1, "app")->evlan_maps.next, &linked->link);
    EXPECT_EQ(stored(map_key(0, vxlan, 7)), nullptr);
}

TEST_F(EvlanIndexMap, AnItemOfAnUnknownUserIsLinkedToItself)
{
    add_user({.name = "app"});
    sw_evlan_index_map item = app_to_udp("nobody", vxlan, 7);
    item.link = {nullptr, nullptr};
    const sw_evlan_index_map *made = create(item);
    ASSERT_NE(made, nullptr);
    EXPECT_TRUE(linked_to_itself(made->link));
    EXPECT_EQ(sw_evlan_index_map_delete_item(0, &item), 0);
}

TEST_F(EvlanIndexMap, CreateOverAStoredKeyReplacesItInPlaceAndLinksItAgain)
{
    const sw_ebridge_list_item *a = add_user({.name = "a"});
    const sw_ebridge_list_item *b = add_user({.name = "b"});
    const sw_evlan_index_map *first = create(app_to_udp("a", vxlan, 7, 1));
    create(app_to_udp("b", vxlan, 9));
    sw_evlan_index_map again = app_to_udp("b", vxlan, 7, 2);
    again.ds_flag = 2;
    EXPECT_EQ(create(again), first);
    EXPECT_STREQ(first->user_name, "b");
    EXPECT_EQ(first->value[0], 2u);
    EXPECT_EQ(first->ds_flag, 2u);
    EXPECT_EQ(sw_evlan_index_map_hash_size(0), 2u);
    EXPECT_TRUE(linked_to_itself(a->evlan_maps));
    EXPECT_EQ(b->evlan_maps.next, &first->link);
    EXPECT_EQ(list_length(b->evlan_maps), 2u);
}

TEST_F(EvlanIndexMap, CreateOverAStoredKeyOfTheSameUserKeepsTheListWhole)
{
    const sw_ebridge_list_item *owner = add_user({.name = "a"});
    const sw_evlan_index_map *first = create(app_to_udp("a", vxlan, 7));
    create(app_to_udp("a", vxlan, 8));
    EXPECT_EQ(create(app_to_udp("a", vxlan, 7)), first);
    EXPECT_EQ(owner->evlan_maps.next, &first->link);
    EXPECT_EQ(list_length(owner->evlan_maps), 2u);
}

TEST_F(EvlanIndexMap, EachKindIsLoggedInItsFormat)
{
    add_user({.name = "app"});
    create(udp_to_app("app", 0x80000005, 128, 7));
    sw_evlan_index_map to_sdk = map_key(SW_INDEX_MAP_UDP2SDK, 0x80000005);
    to_sdk.value[0] = 1;
    to_sdk.value[1] = 0x2a;
    to_sdk.value[2] = 0x3b;
    sw_evlan_index_map of_sdk = map_key(SW_INDEX_MAP_SDK2UDP, 1, 0x2a, 0x3b);
    of_sdk.value[0] = 0x80000005;
    create(to_sdk);
    create(of_sdk);
    EXPECT_THAT(recording::logged(40),
                ElementsAre("Insert EVLAN Index map for app, UDPIndex[0x80000005] map to appIndex[0x7].\n",
                            "Insert EVLAN Index map for , UDPIndex[0x80000005] map to SDKIndex[type(1), vsi(0x2a), "
                            "vid(0x3b)].\n",
                            "Insert EVLAN Index map for , SDKIndex[type(1), vsi(0x2a), vid(0x3b)] map to "
                            "UDPIndex[0x80000005].\n"));
}

TEST_F(EvlanIndexMap, AnItemOfAnUnknownKindIsStoredWithoutAWord)
{
    add_user({.name = "app"});
    const sw_evlan_index_map item = map_key(4, 1);
    const sw_evlan_index_map *made = create(item);
    EXPECT_NE(made, nullptr);
    EXPECT_EQ(update(item), made);
    EXPECT_EQ(stored(item), made);
    EXPECT_EQ(sw_evlan_index_map_delete_item(0, &item), 0);
    EXPECT_EQ(stored(item), nullptr);
    EXPECT_THAT(trace(), IsEmpty());
}

TEST_F(EvlanIndexMap, CreateRefusesBadArguments)
{
    add_user({.name = "app"});
    EXPECT_EQ(create(app_to_udp("app", vxlan, 7), 6), nullptr);
    EXPECT_EQ(sw_evlan_index_map_create_item(0, nullptr), nullptr);
    EXPECT_EQ(recording::logged(100).size(), 2u);
    EXPECT_THAT(recording::logged(), Each(StartsWith("Assert:")));
}

TEST_F(EvlanIndexMap, CreateWithoutMemoryLeavesNothing)
{
    const sw_ebridge_list_item *owner = add_user({.name = "app"});
    uint32_t failures = 0;
    for (uint32_t nth = 1; nth <= 5; ++nth) {
        const uint32_t before = sw_evlan_index_map_hash_size(0);
        const sw_evlan_index_map item = map_key(3, 0x10 + nth, 0x2a, 0x3b);
        sw_evlan_index_map named = item;
        std::strcpy(named.user_name, "app");
        const sw_evlan_index_map *made = nullptr;
        const strings errors = errors_when_allocation_fails(nth, [&] { made = create(named); });
        EXPECT_EQ(stored(item), made);
        EXPECT_EQ(sw_evlan_index_map_hash_size(0), before + (made ? 1 : 0));
        EXPECT_EQ(list_length(owner->evlan_maps), before + (made ? 1 : 0));
        if (!made) {
            EXPECT_THAT(errors, ElementsAre("Assert:EVLAN Index map failed, user is app, type is 3, keyid1 is 0x2a, "
                                            "keyid2 is 0x3b."));
        }
        failures += made == nullptr;
    }
    EXPECT_GE(failures, 1u);
}

TEST_F(EvlanIndexMap, UpdateOfAStoredItemKeepsItsKeyFlagAndList)
{
    const sw_ebridge_list_item *a = add_user({.name = "a"});
    const sw_ebridge_list_item *b = add_user({.name = "b"});
    sw_evlan_index_map first = app_to_udp("a", vxlan, 7, 1);
    first.ds_flag = 2;
    sw_evlan_index_map *made = create(first);
    create(app_to_udp("a", vxlan, 8));
    recording::reset();
    sw_evlan_index_map newer = app_to_udp("b", vxlan, 7, 0x20000005);
    newer.value[1] = 11;
    newer.value[2] = 12;
    newer.session_arg = 8;
    newer.priority = 1;
    newer.ds_flag = 1;
    EXPECT_EQ(update(newer), made);
    newer.ds_flag = 2;
    newer.link = made->link;
    EXPECT_EQ(std::memcmp(made, &newer, sizeof newer), 0);
    EXPECT_EQ(a->evlan_maps.next->next, &made->link);
    EXPECT_EQ(list_length(a->evlan_maps), 2u);
    EXPECT_TRUE(linked_to_itself(b->evlan_maps));
    EXPECT_THAT(trace(),
                ElementsAre("info sw_evlan_index_map_update_item: Update EVLAN Index map for b, appIndex[0x7] map to "
                            "UDPIndex[0x20000005], ds_flag[2]\n"));
}

TEST_F(EvlanIndexMap, AGrantOfAnotherIdUpdatesTheReverseItemThatAnotherKeyHasOfIt)
{
    const sw_ebridge_list_item *owner = add_user({.name = "app", .callbacks = no_callbacks});
    grant("app", vxlan, 7, 0x20000003);
    grant("app", vxlan, 8, 0x20000005);
    grant("app", vxlan, 9, 0x20000006);
    const sw_evlan_index_map *reverse = udp_item(0x20000005);
    recording::reset();
    grant("other", vxlan, 7, 0x20000005);
    EXPECT_TRUE(
        traced("info sw_evlan_index_map_update_item: Update EVLAN Index map for other, UDPIndex[0x20000005] "
               "map to appIndex[0x7].\n"));
    EXPECT_EQ(udp_item(0x20000005), reverse);
    EXPECT_EQ(reverse->value[1], 7u);
    EXPECT_EQ(owner->evlan_maps.next, &udp_item(0x20000006)->link);
    EXPECT_EQ(owner->evlan_maps.next->next->next, &reverse->link);
}

TEST_F(EvlanIndexMap, UpdateOfAnAbsentItemCreatesIt)
{
    const sw_ebridge_list_item *owner = add_user({.name = "app"});
    sw_evlan_index_map item = app_to_udp("app", vxlan, 7, 5);
    item.ds_flag = 1;
    const sw_evlan_index_map *made = update(item);
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(made->ds_flag, 1u);
    EXPECT_EQ(owner->evlan_maps.next, &made->link);
    EXPECT_THAT(trace(),
                ElementsAre("info sw_evlan_index_map_create_item: Insert EVLAN Index map for app, appIndex[0x7] map to "
                            "UDPIndex[0x5], ds_flag[1]\n"));
}

TEST_F(EvlanIndexMap, AStoredItemMayBeGivenBackToTheMap)
{
    const sw_ebridge_list_item *owner = add_user({.name = "app"});
    sw_evlan_index_map *made = create(app_to_udp("app", vxlan, 7, 5));
    made->value[0] = 6;
    EXPECT_EQ(update(*made), made);
    EXPECT_EQ(create(*made), made);
    EXPECT_EQ(made->value[0], 6u);
    EXPECT_STREQ(made->user_name, "app");
    EXPECT_EQ(list_length(owner->evlan_maps), 1u);
    const auto blocks = freed_by([&] { EXPECT_EQ(sw_evlan_index_map_delete_item(0, made), 0); });
    EXPECT_THAT(blocks, SizeIs(1));
    EXPECT_TRUE(linked_to_itself(owner->evlan_maps));
}

TEST_F(EvlanIndexMap, AnUnterminatedNameIsCutAt31Characters)
{
    add_user({.name = "app"});
    sw_evlan_index_map item = app_to_udp("", vxlan, 7);
    std::memset(item.user_name, 'x', sizeof item.user_name);
    const sw_evlan_index_map *made = create(item);
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(std::string(made->user_name, 32), std::string(31, 'x') + '\0');
    std::memset(item.user_name, 'y', sizeof item.user_name);
    EXPECT_EQ(update(item), made);
    EXPECT_EQ(std::string(made->user_name, 32), std::string(31, 'y') + '\0');
}

TEST_F(EvlanIndexMap, AnUnterminatedNameIsCutInTheLineOfAFailureToo)
{
    add_user({.name = "app"});
    sw_evlan_index_map item = app_to_udp("", vxlan, 7);
    std::memset(item.user_name, 'x', sizeof item.user_name);
    item.ds_flag = 0x79797979;  // what stands behind the name
    EXPECT_THAT(errors_when_allocation_fails(1, [&] { EXPECT_EQ(create(item), nullptr); }),
                ElementsAre("Assert:EVLAN Index map failed, user is " + std::string(31, 'x') +
                            ", type is 0, keyid1 is 0x7, keyid2 is 0x0."));
}

TEST_F(EvlanIndexMap, UpdateWithoutMemoryReportsBoth)
{
    add_user({.name = "app"});
    recording::fail_allocation(1);
    EXPECT_EQ(update(app_to_udp("app", vxlan, 7)), nullptr);
    recording::fail_allocation(0);
    EXPECT_THAT(trace(),
                ElementsAre("error sw_evlan_index_map_create_item: Assert:EVLAN Index map failed, user is app, "
                            "type is 0, keyid1 is 0x7, keyid2 is 0x0.",
                            "error sw_evlan_index_map_update_item: Assert:EVLAN Index map failed"));
    EXPECT_EQ(stored(map_key(0, vxlan, 7)), nullptr);
}

TEST_F(EvlanIndexMap, UpdateRefusesBadArguments)
{
    add_user({.name = "app"});
    EXPECT_EQ(update(app_to_udp("app", vxlan, 7), 10), nullptr);
    EXPECT_EQ(sw_evlan_index_map_update_item(0, nullptr), nullptr);
    EXPECT_EQ(sw_evlan_index_map_update_item(10, nullptr), nullptr);
    EXPECT_THAT(trace(), ElementsAre("error sw_evlan_index_map_update_item: Assert:Bad inst 10.",
                                     "error sw_evlan_index_map_update_item: Assert:Bad map info.",
                                     "error sw_evlan_index_map_update_item: Assert:Bad inst 10."));
}

TEST_F(EvlanIndexMap, DeleteUnlinksAndFreesTheItem)
{
    const sw_ebridge_list_item *owner = add_user({.name = "app"});
    void *made = create(app_to_udp("app", vxlan, 7, 5));
    const sw_evlan_index_map *other = create(app_to_udp("app", vxlan, 8));
    recording::reset();
    const sw_evlan_index_map key = map_key(0, vxlan, 7);
    const auto blocks = freed_by([&] { EXPECT_EQ(sw_evlan_index_map_delete_item(0, &key), 0); });
    EXPECT_THAT(blocks, ElementsAre(made));
    EXPECT_EQ(stored(key), nullptr);
    EXPECT_EQ(owner->evlan_maps.next, &other->link);
    EXPECT_EQ(list_length(owner->evlan_maps), 1u);
    EXPECT_THAT(trace(),
                ElementsAre("info sw_evlan_index_map_delete_item: Remove EVLAN Index map for app, appIndex[0x7] map to "
                            "UDPIndex[0x5], ds_flag[0]\n"));
}

TEST_F(EvlanIndexMap, DeletingAnAbsentItemIsNoFailure)
{
    add_user({.name = "app"});
    const sw_evlan_index_map key = map_key(0, vxlan, 7);
    EXPECT_EQ(sw_evlan_index_map_delete_item(0, &key), 0);
    EXPECT_THAT(trace(), IsEmpty());
}

TEST_F(EvlanIndexMap, DeleteRefusesBadArguments)
{
    add_user({.name = "app"});
    const sw_evlan_index_map key{};
    EXPECT_EQ(sw_evlan_index_map_delete_item(10, &key), -2);
    EXPECT_EQ(sw_evlan_index_map_delete_item(0, nullptr), -2);
    EXPECT_EQ(sw_evlan_index_map_delete_item(10, nullptr), -2);
    EXPECT_THAT(trace(), ElementsAre("error sw_evlan_index_map_delete_item: Assert:Bad inst 10.",
                                     "error sw_evlan_index_map_delete_item: Assert:Bad map info.",
                                     "error sw_evlan_index_map_delete_item: Assert:Bad inst 10."));
}

TEST_F(EvlanIndexMap, ItemsLeaveTheirUsersListWhenTheUserIsRegisteredAgain)
{
    const sw_ebridge_list_item *owner = add_user({.name = "app"});
    const sw_evlan_index_map *first = create(app_to_udp("app", vxlan, 7));
    const sw_evlan_index_map *second = create(app_to_udp("app", vxlan, 8));
    EXPECT_EQ(add_user({.name = "app"}), owner);
    EXPECT_TRUE(linked_to_itself(owner->evlan_maps));
    EXPECT_TRUE(linked_to_itself(first->link));
    EXPECT_TRUE(linked_to_itself(second->link));
    const sw_evlan_index_map *third = create(app_to_udp("app", vxlan, 9));
    const sw_evlan_index_map key = map_key(0, vxlan, 7);
    EXPECT_EQ(sw_evlan_index_map_delete_item(0, &key), 0);
    EXPECT_EQ(list_length(owner->evlan_maps), 1u);
    EXPECT_EQ(owner->evlan_maps.next, &third->link);
    EXPECT_EQ(owner->evlan_maps.prev, &third->link);
}

TEST_F(EvlanIndexMap, Slot6IsTheFirstThatDoesNotExist)
{
    add_user({.name = "app"});
    const sw_evlan_index_map item = app_to_udp("app", vxlan, 7);
    for (uint32_t slot = 0; slot <= 6; ++slot) {
        EXPECT_EQ(update(item, slot) != nullptr, slot < 6);
        EXPECT_EQ(stored(item, slot) != nullptr, slot < 6);
        EXPECT_EQ(sw_evlan_index_map_delete_item(slot, &item), slot < 6 ? 0 : -2);
    }
}

TEST_F(EvlanTranslation, OfAnApplicationKeyGivesItsEvlan)
{
    add_user({.name = "app"});
    create(app_to_udp("app", l3vpn, 7, 0x80000005));
    recording::reset();
    const app_key key("app", l3vpn, 7);
    udp_index out("mine", 99);
    EXPECT_EQ(sw_evlan_app2udp(&key, &out), 0);
    EXPECT_EQ(out.evlan_id, static_cast<int32_t>(0x80000005));
    EXPECT_STREQ(out.t_user, "mine");
    EXPECT_THAT(trace(), ElementsAre("info sw_evlan_app2udp: Mapping APP-index[128+0x7] to EVLAN-index[0x80000005]."));
}

TEST_F(EvlanTranslation, IsTheSameForEveryUser)
{
    add_user({.name = "a"});
    create(app_to_udp("a", vxlan, 7, 0x20000005));
    for (const char *name : {"a", "b", static_cast<const char *>(nullptr)}) {
        const app_key key(name, vxlan, 7);
        udp_index out("", 0);
        EXPECT_EQ(sw_evlan_app2udp(&key, &out), 0);
        EXPECT_EQ(out.evlan_id, 0x20000005);
    }
}

TEST_F(EvlanTranslation, OfAKeyNotYetGrantedGives0)
{
    add_user({.name = "app"});
    request("app", vxlan, 7);
    const app_key key("app", vxlan, 7);
    udp_index out("", 99);
    EXPECT_EQ(sw_evlan_app2udp(&key, &out), 0);
    EXPECT_EQ(out.evlan_id, 0);
}

TEST_F(EvlanTranslation, OfAnUnknownKeyClearsTheResult)
{
    add_user({.name = "app"});
    const app_key key("app", vxlan, 0x7b);
    udp_index out("", 99);
    EXPECT_EQ(sw_evlan_app2udp(&key, &out), -1);
    EXPECT_EQ(out.evlan_id, 0);
    EXPECT_THAT(trace(), ElementsAre("warning sw_evlan_app2udp: EVLAN not exist, type[0x20], key[0x7b]."));
}

TEST_F(EvlanTranslation, IsSilentBelowTheLevelOfItsLines)
{
    add_user({.name = "app"});
    create(app_to_udp("app", vxlan, 7, 5));
    recording::reset();
    const app_key known("app", vxlan, 7), unknown("app", vxlan, 8);
    udp_index out("", 0);
    g_sw_vlan_file_zlog_level = 1;
    EXPECT_EQ(sw_evlan_app2udp(&unknown, &out), -1);
    g_sw_vlan_file_zlog_level = 3;
    EXPECT_EQ(sw_evlan_app2udp(&known, &out), 0);
    EXPECT_THAT(trace(), IsEmpty());
    g_sw_vlan_file_zlog_level = 2;
    EXPECT_EQ(sw_evlan_app2udp(&unknown, &out), -1);
    g_sw_vlan_file_zlog_level = 4;
    EXPECT_EQ(sw_evlan_app2udp(&known, &out), 0);
    EXPECT_THAT(trace(), SizeIs(2));
}

TEST_F(EvlanTranslation, OfAnApplicationKeyRefusesNull)
{
    add_user({.name = "app"});
    const app_key key("app", vxlan, 7);
    udp_index out("", 99);
    EXPECT_EQ(sw_evlan_app2udp(nullptr, &out), -2);
    EXPECT_EQ(sw_evlan_app2udp(&key, nullptr), -2);
    EXPECT_EQ(sw_evlan_app2udp(nullptr, nullptr), -2);
    EXPECT_EQ(out.evlan_id, 99);
    EXPECT_THAT(trace(), ElementsAre("error sw_evlan_app2udp: Assert:Bad App index.",
                                     "error sw_evlan_app2udp: Assert:Bad EVLAN index.",
                                     "error sw_evlan_app2udp: Assert:Bad App index."));
}

TEST_F(EvlanTranslation, OfAnEvlanGivesItsApplicationKey)
{
    add_user({.name = "app"});
    create(udp_to_app("app", 0x80000005, l3vpn, 7));
    recording::reset();
    const udp_index index("whoever", 0x80000005);
    app_key out("mine", 1, 2);
    EXPECT_EQ(sw_evlan_udp2app(&index, &out), 0);
    EXPECT_EQ(out.type, 128);
    EXPECT_EQ(out.keyid, 7);
    EXPECT_STREQ(out.t_user, "mine");
    EXPECT_THAT(trace(), ElementsAre("info sw_evlan_udp2app: EVLAN[0x80000005] is type[128], key[7]."));
}

TEST_F(EvlanTranslation, OfAnUnknownEvlanFails)
{
    add_user({.name = "app"});
    create(app_to_udp("app", vxlan, 7, 0x20000005));
    recording::reset();
    const udp_index index("app", 0x20000005);
    app_key out("mine", 1, 2);
    EXPECT_EQ(sw_evlan_udp2app(&index, &out), -1);
    EXPECT_EQ(out.type, 1);
    EXPECT_EQ(out.keyid, 2);
    EXPECT_THAT(trace(), ElementsAre("warning sw_evlan_udp2app: EVLAN DB failed, key[0x20000005]."));
}

TEST_F(EvlanTranslation, OfAnEvlanRefusesNull)
{
    add_user({.name = "app"});
    const udp_index index("app", 5);
    app_key out("mine", 1, 2);
    EXPECT_EQ(sw_evlan_udp2app(&index, nullptr), -2);
    EXPECT_EQ(sw_evlan_udp2app(nullptr, &out), -2);
    EXPECT_EQ(sw_evlan_udp2app(nullptr, nullptr), -2);
    EXPECT_THAT(trace(), ElementsAre("error sw_evlan_udp2app: Assert:Bad App index.",
                                     "error sw_evlan_udp2app: Assert:Bad EVLAN index.",
                                     "error sw_evlan_udp2app: Assert:Bad App index."));
}

TEST_F(EvlanTranslation, LooksInSlot0Only)
{
    add_user({.name = "app"});
    create(app_to_udp("app", vxlan, 7, 0x20000005), 1);
    create(udp_to_app("app", 0x20000005, vxlan, 7), 1);
    const app_key key("app", vxlan, 7);
    udp_index out("", 0x20000005);
    app_key back("", 0, 0);
    EXPECT_EQ(sw_evlan_app2udp(&key, &out), -1);
    out.evlan_id = 0x20000005;
    EXPECT_EQ(sw_evlan_udp2app(&out, &back), -1);
}

TEST_F(EvlanTranslation, BeforeAnyInitialisationFindsNothing)
{
    const app_key key("app", vxlan, 7);
    udp_index out("", 99);
    app_key back("", 0, 0);
    EXPECT_EQ(sw_evlan_app2udp(&key, &out), -1);
    EXPECT_EQ(sw_evlan_udp2app(&out, &back), -1);
}

}  // namespace
