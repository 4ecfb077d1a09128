// The local evlan database: ids and types, making the tables, and records by user and evlan.
#include "evlan_fixture.hpp"

namespace
{

using namespace evlan_test;
using EvlanId = EvlanTest;
using EvlanDb = EvlanTest;

sw_evlan_attr *insert_new(const char *name, uint32_t id, uint8_t *created, uint32_t slot = 0)
{
    sw_evlan_attr record{};
    record.evlan_id = id;
    return sw_evlan_db_insert_item_new(slot, name, &record, created);
}

TEST_F(EvlanId, OnlyVlanAndSubinterfaceAreUnderlay)
{
    for (uint32_t type = 0; type < 300; ++type)
        EXPECT_EQ(sw_evlan_type_underlay(type), type == 16 || type == 112 ? 1 : 0) << type;
    EXPECT_EQ(sw_evlan_type_underlay(0x80000010), 0);
    EXPECT_EQ(sw_evlan_type_underlay(0xffffffff), 0);
}

TEST_F(EvlanId, TypeIsTheWholeTopByte)
{
    EXPECT_EQ(sw_evlan_id_underlay(0x10000000), 1);
    EXPECT_EQ(sw_evlan_id_underlay(0x10ffffff), 1);
    EXPECT_EQ(sw_evlan_id_underlay(0x70000005), 1);
    EXPECT_EQ(sw_evlan_id_underlay(0x11000000), 0);
    EXPECT_EQ(sw_evlan_id_underlay(0x20000010), 0);
    EXPECT_EQ(sw_evlan_id_underlay(16), 0);
    EXPECT_EQ(sw_evlan_id_underlay(0x80000010), 0);
    EXPECT_EQ(sw_evlan_id_underlay(0x90000001), 0);
    EXPECT_EQ(sw_evlan_id_underlay(0xf0000001), 0);
}

TEST_F(EvlanDb, InitZeroesTheWholeRecordAndSetsTheKey)
{
    sw_evlan_attr record;
    std::memset(&record, 0xff, sizeof record);
    sw_evlan_init(&record, "app", 0x80000001);
    sw_evlan_attr expected{};
    std::strcpy(expected.user_name, "app");
    expected.evlan_id = 0x80000001;
    EXPECT_EQ(std::memcmp(&record, &expected, sizeof record), 0);
}

TEST_F(EvlanDb, InitTakesAtMost31CharactersOfTheName)
{
    sw_evlan_attr record;
    std::memset(&record, 0xff, sizeof record);
    sw_evlan_init(&record, name_of_40, 1);
    EXPECT_STREQ(record.user_name, name_of_31);
    EXPECT_EQ(record.evlan_id, 1u);
}

TEST_F(EvlanDb, InitDoesNothingWithoutRecordOrName)
{
    sw_evlan_attr record;
    std::memset(&record, 0xff, sizeof record);
    const sw_evlan_attr before = record;
    sw_evlan_init(&record, nullptr, 7);
    EXPECT_EQ(std::memcmp(&record, &before, sizeof record), 0);
    sw_evlan_init(nullptr, "app", 7);
}

TEST_F(EvlanDb, TablesAreMadeOnce)
{
    EXPECT_EQ(sw_evlan_db_init(), 0);
    recording::fail_allocation(1, true);
    EXPECT_EQ(sw_evlan_db_init(), 0);
    EXPECT_EQ(recording::allocations(), 0u);
    for (uint32_t slot = 0; slot < SW_EBRIDGE_SLOTS; ++slot)
        EXPECT_EQ(sw_evlan_hash_size(slot), 0u);
}

TEST_F(EvlanDb, MissingTablesAreReportedAndNotTriedAgain)
{
    sw_vlan_debug_init("app", nullptr);
    recording::reset();
    recording::fail_allocation(1);
    EXPECT_EQ(sw_evlan_db_init(), -1);
    recording::fail_allocation(0);
    EXPECT_EQ(sw_evlan_db_init(), -1);
    EXPECT_THAT(trace(), ElementsAre("error sw_evlan_db_init: Assert:HASH[0] init failed.",
                                     "error sw_evlan_db_init: Assert:HASH[0] init failed."));
}

TEST_F(EvlanDb, FirstMissingTableIsNamed)
{
    sw_vlan_debug_init("app", nullptr);
    recording::reset();
    EXPECT_EQ(sw_evlan_hash_init(3), 0);
    EXPECT_EQ(sw_evlan_db_init(), -1);
    EXPECT_THAT(trace(), ElementsAre("error sw_evlan_db_init: Assert:HASH[3] init failed."));
}

TEST_F(EvlanDb, InsertMakesAnEmptyRecordOfTheUser)
{
    add_user({.name = "app"});
    sw_evlan_attr filled;
    std::memset(&filled, 0x5a, sizeof filled);
    filled.evlan_id = 0x20000007;
    const sw_evlan_attr *made = sw_evlan_db_insert_item(0, "app", &filled);
    ASSERT_NE(made, nullptr);
    EXPECT_THAT(trace(), ElementsAre("info sw_evlan_db_insert_item: Insert user[app].evlan[0x20000007]!"));
    EXPECT_TRUE(linked_to_itself(made->link));
    sw_evlan_attr expected{};
    sw_evlan_init(&expected, "app", 0x20000007);
    expected.link = made->link;
    EXPECT_EQ(std::memcmp(made, &expected, sizeof expected), 0);
}

TEST_F(EvlanDb, InsertingAgainReturnsTheRecordUntouched)
{
    add_user({.name = "app"});
    sw_evlan_attr *made = insert("app", 0x20000007);
    ASSERT_NE(made, nullptr);
    made->class_id = 9;
    recording::reset();
    uint8_t created = 42;
    EXPECT_EQ(insert("app", 0x20000007), made);
    EXPECT_EQ(insert_new("app", 0x20000007, &created), made);
    EXPECT_EQ(created, 42);
    EXPECT_EQ(made->class_id, 9u);
    EXPECT_EQ(sw_evlan_hash_size(0), 1u);
    EXPECT_THAT(trace(), IsEmpty());
}

TEST_F(EvlanDb, InsertNewTellsThatItMadeTheRecord)
{
    add_user({.name = "app"});
    uint8_t created = 0;
    const sw_evlan_attr *made = insert_new("app", 0x20000007, &created);
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(created, 1);
    EXPECT_TRUE(linked_to_itself(made->link));
    EXPECT_THAT(trace(), ElementsAre("info sw_evlan_db_insert_item_new: Insert user[app].evlan[0x20000007]!"));
}

TEST_F(EvlanDb, OneEvlanOfTwoUsersIsTwoRecords)
{
    add_user({.name = "a"});
    add_user({.name = "b"});
    const sw_evlan_attr *of_a = insert("a", 5);
    const sw_evlan_attr *of_b = insert("b", 5);
    EXPECT_NE(of_a, of_b);
    EXPECT_EQ(sw_evlan_db_get_item(0, "a", 5), of_a);
    EXPECT_EQ(sw_evlan_db_get_item(0, "b", 5), of_b);
    sw_evlan_db_delete_item(0, "a", 5);
    EXPECT_EQ(sw_evlan_db_get_item(0, "a", 5), nullptr);
    EXPECT_EQ(sw_evlan_db_get_item(0, "b", 5), of_b);
}

TEST_F(EvlanDb, SlotsAreIndependent)
{
    add_user({.name = "app"});
    add_user_in_slot(3, "app");
    const sw_evlan_attr *in_slot_3 = insert("app", 5, 3);
    ASSERT_NE(in_slot_3, nullptr);
    EXPECT_EQ(sw_evlan_db_get_item(0, "app", 5), nullptr);
    EXPECT_EQ(sw_evlan_db_get_item(3, "app", 5), in_slot_3);
    EXPECT_EQ(sw_evlan_hash_size(0), 0u);
    EXPECT_EQ(sw_evlan_hash_size(3), 1u);
}

TEST_F(EvlanDb, NamesAreTheSameWhenTheirFirst31CharactersAre)
{
    add_user({.name = name_of_31});
    const sw_evlan_attr *made = insert(name_of_40, 5);
    ASSERT_NE(made, nullptr);
    EXPECT_STREQ(made->user_name, name_of_31);
    EXPECT_EQ(sw_evlan_db_get_item(0, name_of_31, 5), made);
    EXPECT_EQ(sw_evlan_db_get_item(0, "a-name-of-forty-characters-goes another way", 5), made);
    EXPECT_EQ(sw_evlan_db_get_item(0, "a-name-of-forty-characters-goe", 5), nullptr);
    sw_evlan_db_delete_item(0, name_of_40, 5);
    EXPECT_EQ(sw_evlan_hash_size(0), 0u);
}

TEST_F(EvlanDb, TheEmptyNameIsAUser)
{
    add_user({.name = ""});
    const sw_evlan_attr *made = insert("", 5);
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(sw_evlan_db_get_item(0, "", 5), made);
}

TEST_F(EvlanDb, AnUnknownUserIsRefused)
{
    add_user({.name = "app"});
    uint8_t created = 42;
    EXPECT_EQ(insert("nobody", 5), nullptr);
    EXPECT_EQ(insert_new("nobody", 5, &created), nullptr);
    EXPECT_THAT(trace(), ElementsAre("error sw_evlan_db_insert_item: Assert:No user named as nobody.",
                                     "error sw_evlan_db_insert_item_new: Assert:No user named as nobody."));
    recording::reset();
    EXPECT_EQ(sw_evlan_db_get_item(0, "nobody", 5), nullptr);
    sw_evlan_db_delete_item(0, "nobody", 5);
    EXPECT_THAT(trace(), IsEmpty());
    EXPECT_EQ(created, 42);
    EXPECT_EQ(sw_evlan_hash_size(0), 0u);
}

TEST_F(EvlanDb, AUserOfAnotherSlotIsUnknown)
{
    add_user({.name = "app"});
    EXPECT_EQ(insert("app", 5, 1), nullptr);
    EXPECT_THAT(trace(), ElementsAre("error sw_evlan_db_insert_item: Assert:No user named as app."));
}

TEST_F(EvlanDb, ANullNameIsRefused)
{
    add_user({.name = "app"});
    EXPECT_EQ(insert(nullptr, 5), nullptr);
    EXPECT_THAT(recording::logged(100), ElementsAre("Assert:Bad user NULL.", StartsWith("Assert:No user named as ")));
    EXPECT_EQ(sw_evlan_db_get_item(0, nullptr, 5), nullptr);
    sw_evlan_db_delete_item(0, nullptr, 5);
    EXPECT_EQ(sw_evlan_hash_size(0), 0u);
}

TEST_F(EvlanDb, ANullRecordIsRefused)
{
    add_user({.name = "app"});
    uint8_t created = 42;
    EXPECT_EQ(sw_evlan_db_insert_item(0, "app", nullptr), nullptr);
    EXPECT_EQ(sw_evlan_db_insert_item_new(0, "app", nullptr, &created), nullptr);
    EXPECT_EQ(created, 42);
    EXPECT_EQ(sw_evlan_hash_size(0), 0u);
}

TEST_F(EvlanDb, InsertNewWorksWithoutAFlag)
{
    add_user({.name = "app"});
    EXPECT_NE(insert_new("app", 5, nullptr), nullptr);
}

TEST_F(EvlanDb, Slot6IsRefused)
{
    add_user({.name = "app"});
    uint8_t created = 42;
    EXPECT_EQ(insert("app", 5, 6), nullptr);
    EXPECT_TRUE(recording::has_logged("Assert:Bad inst[6].", 100));
    EXPECT_EQ(insert_new("app", 5, &created, 6), nullptr);
    EXPECT_EQ(sw_evlan_db_get_item(6, "app", 5), nullptr);
    sw_evlan_db_delete_item(6, "app", 5);
    const udp_index index("app", 5);
    EXPECT_EQ(sw_evlan_attr_db_verify(6, &index), nullptr);
    EXPECT_EQ(sw_evlan_attr_db_verify_new(6, &index, &created), nullptr);
    EXPECT_EQ(sw_evlan_db_get_item(0xffffffff, "app", 5), nullptr);
    EXPECT_EQ(created, 42);
    for (uint32_t slot = 0; slot < SW_EBRIDGE_SLOTS; ++slot)
        EXPECT_EQ(sw_evlan_hash_size(slot), 0u);
}

TEST_F(EvlanDb, NothingIsFoundBeforeAnyInitialisation)
{
    EXPECT_EQ(insert("app", 5), nullptr);
    EXPECT_EQ(sw_evlan_db_get_item(0, "app", 5), nullptr);
    sw_evlan_db_delete_item(0, "app", 5);
}

TEST_F(EvlanDb, InsertWithoutMemoryLeavesTheTableAsItWas)
{
    add_user({.name = "app"});
    uint32_t id = 1;
    uint32_t failures = 0;
    for (uint64_t nth = 1; nth <= 5; ++nth, ++id) {
        const uint32_t before = sw_evlan_hash_size(0);
        const sw_evlan_attr *made = nullptr;
        const strings errors = errors_when_allocation_fails(nth, [&] { made = insert("app", id); });
        EXPECT_EQ(sw_evlan_db_get_item(0, "app", id), made);
        EXPECT_EQ(sw_evlan_hash_size(0), before + (made ? 1 : 0));
        if (made)
            EXPECT_THAT(errors, IsEmpty());
        else
            EXPECT_THAT(errors, ElementsAre(format("Assert:Insert user[app].evlan[0x%x] failed!", id)));
        failures += made == nullptr;
    }
    EXPECT_GE(failures, 1u);
}

TEST_F(EvlanDb, InsertNewWithoutMemoryLeavesTheFlagAlone)
{
    add_user({.name = "app"});
    uint8_t created = 42;
    recording::fail_allocation(1, true);
    EXPECT_EQ(insert_new("app", 5, &created), nullptr);
    recording::fail_allocation(0);
    EXPECT_EQ(created, 42);
    EXPECT_THAT(trace(), ElementsAre("error sw_evlan_db_insert_item_new: Assert:Insert user[app].evlan[0x5] failed!"));
}

TEST_F(EvlanDb, DeleteUnlinksAndFreesTheRecord)
{
    add_user({.name = "app"});
    sw_evlan_attr *made = insert("app", 0x20000007);
    ASSERT_NE(made, nullptr);
    sw_list_head list = {&made->link, &made->link};
    made->link = {&list, &list};
    sw_vlan_ports ports{};
    made->ports = &ports;
    recording::reset();
    const auto blocks = freed_by([] { sw_evlan_db_delete_item(0, "app", 0x20000007); });
    EXPECT_THAT(blocks, ElementsAre(static_cast<void *>(made)));
    EXPECT_TRUE(linked_to_itself(list));
    EXPECT_EQ(sw_evlan_db_get_item(0, "app", 0x20000007), nullptr);
    EXPECT_EQ(sw_evlan_hash_size(0), 0u);
    EXPECT_THAT(trace(), ElementsAre("info sw_evlan_db_delete_item: Remove user[app].evlan[0x20000007]."));
}

TEST_F(EvlanDb, DeletingAnAbsentRecordDoesNothing)
{
    add_user({.name = "app"});
    insert("app", 5);
    recording::reset();
    sw_evlan_db_delete_item(0, "app", 6);
    EXPECT_THAT(trace(), IsEmpty());
    EXPECT_EQ(sw_evlan_hash_size(0), 1u);
}

TEST_F(EvlanDb, VerifyMakesTheRecordWithoutThePresetFid)
{
    add_user({.name = "app"});
    const udp_index index("app", evlan_id(vlan, 100));
    const sw_evlan_attr *made = sw_evlan_attr_db_verify(0, &index);
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(made->evlan_id, 0x10000064u);
    EXPECT_STREQ(made->user_name, "app");
    EXPECT_EQ(made->attr.underlay.fid, 0);
    EXPECT_EQ(sw_evlan_attr_db_verify(0, &index), made);
    EXPECT_TRUE(recording::has_logged("Insert user[app].evlan[0x10000064]!", 40));
}

TEST_F(EvlanDb, VerifyNewTellsThatItMadeTheRecord)
{
    add_user({.name = "app"});
    const udp_index index("app", evlan_id(l3intf_sub, 100));
    uint8_t created = 0;
    const sw_evlan_attr *made = sw_evlan_attr_db_verify_new(0, &index, &created);
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(created, 1);
    EXPECT_EQ(made->attr.underlay.fid, 0);
    created = 0;
    EXPECT_EQ(sw_evlan_attr_db_verify_new(0, &index, &created), made);
    EXPECT_EQ(created, 0);
}

TEST_F(EvlanDb, VerifyRegistersTheUserInItsSlot)
{
    const udp_index index("late", evlan_id(vxlan, 7));
    const sw_evlan_attr *made = sw_evlan_attr_db_verify(2, &index);
    ASSERT_NE(made, nullptr);
    const sw_ebridge_list_item *user_item = sw_ebridge_list_item_get_inst(2, "late");
    ASSERT_NE(user_item, nullptr);
    EXPECT_EQ(user_item->mom_handle, nullptr);
    EXPECT_EQ(sw_ebridge_list_item_get_inst(0, "late"), nullptr);
    EXPECT_EQ(sw_evlan_db_get_item(2, "late", evlan_id(vxlan, 7)), made);
}

TEST_F(EvlanDb, VerifyWithoutMemoryForTheUserIsReportedTwice)
{
    add_user({.name = "app"});
    const udp_index index("late", evlan_id(vlan, 7));
    uint8_t created = 42;
    recording::fail_allocation(1, true);
    EXPECT_EQ(sw_evlan_attr_db_verify(0, &index), nullptr);
    EXPECT_EQ(sw_evlan_attr_db_verify_new(0, &index, &created), nullptr);
    recording::fail_allocation(0);
    EXPECT_EQ(created, 42);
    EXPECT_THAT(recording::logged(100), ElementsAre("Assert:DL_HASH_CREATE fail.", "Assert:No user named as late.",
                                                    "Assert:DL_HASH_CREATE fail.", "Assert:No user named as late."));
    EXPECT_EQ(sw_ebridge_list_item_get("late"), nullptr);
}

TEST_F(EvlanDb, VerifyRefusesNull)
{
    add_user({.name = "app"});
    uint8_t created = 42;
    EXPECT_EQ(sw_evlan_attr_db_verify(0, nullptr), nullptr);
    EXPECT_EQ(sw_evlan_attr_db_verify_new(0, nullptr, &created), nullptr);
    const udp_index nameless(nullptr, 5);
    EXPECT_EQ(sw_evlan_attr_db_verify(0, &nameless), nullptr);
    EXPECT_EQ(recording::logged().size(), recording::logged(100).size());
    EXPECT_GE(recording::logged(100).size(), 3u);
    EXPECT_THAT(recording::logged(100), Each(StartsWith("Assert:")));
    EXPECT_EQ(created, 42);
    EXPECT_EQ(sw_evlan_hash_size(0), 0u);
}

}  // namespace
