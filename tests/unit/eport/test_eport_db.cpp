// The local eport database: ids and types, making the tables, records by user and eport, and those of users of other
// processes.
#include "eport_fixture.hpp"

namespace
{

using namespace eport_test;
using EportId = EportTest;
using EportDb = EportTest;
using EportGlobalInsert = EportTest;
using EportDelete = EportTest;
using EportVerify = EportTest;

sw_eport_attr *insert_new(const char *name, uint32_t id, uint8_t *created, uint32_t slot = 0)
{
    sw_eport_attr record{};
    record.eport_id = id;
    return sw_eport_db_insert_item_new(slot, name, &record, created);
}

uint32_t records_of_all_slots()
{
    uint32_t records = 0;
    for (uint32_t slot = 0; slot < SW_EBRIDGE_SLOTS; ++slot)
        records += sw_eport_hash_size(slot);
    return records;
}

TEST_F(EportId, OnlyPortLocalPortAndAggregateAreUnderlay)
{
    for (uint32_t type = 0; type < 300; ++type)
        EXPECT_EQ(sw_eport_type_underlay(type), type == 16 || type == 17 || type == 32 ? 1 : 0) << type;
    EXPECT_EQ(sw_eport_type_underlay(0x80000010), 0);
    EXPECT_EQ(sw_eport_type_underlay(0xffffffff), 0);
}

TEST_F(EportId, TypeIsTheWholeTopByte)
{
    EXPECT_EQ(sw_eport_id_underlay(0x10000000), 1);
    EXPECT_EQ(sw_eport_id_underlay(0x10ffffff), 1);
    EXPECT_EQ(sw_eport_id_underlay(0x11000005), 1);
    EXPECT_EQ(sw_eport_id_underlay(0x20000003), 1);
    EXPECT_EQ(sw_eport_id_underlay(0x12000000), 0);
    EXPECT_EQ(sw_eport_id_underlay(0x21000000), 0);
    EXPECT_EQ(sw_eport_id_underlay(0x30000010), 0);
    EXPECT_EQ(sw_eport_id_underlay(16), 0);
    EXPECT_EQ(sw_eport_id_underlay(0x90000005), 0);
    EXPECT_EQ(sw_eport_id_underlay(0xa0000020), 0);
}

TEST_F(EportDb, InitZeroesTheWholeRecordAndSetsKeyAndFilter)
{
    sw_eport_attr record;
    std::memset(&record, 0xff, sizeof record);
    sw_eport_init(&record, "app", 0x90000001);
    sw_eport_attr expected;
    std::memset(&expected, 0, sizeof expected);
    std::strcpy(expected.user_name, "app");
    expected.eport_id = 0x90000001;
    expected.vlan_filter = U_BRIDGE__VLAN_FILTER_TYPE__FILTER_ALL;
    EXPECT_EQ(std::memcmp(&record, &expected, sizeof record), 0);
    EXPECT_EQ(record.vlan_filter, 7u);
}

TEST_F(EportDb, InitTakesAtMost31CharactersOfTheName)
{
    sw_eport_attr record;
    std::memset(&record, 0xff, sizeof record);
    sw_eport_init(&record, name_of_40, 1);
    EXPECT_STREQ(record.user_name, name_of_31);
    sw_eport_init(&record, name_of_31, 2);
    EXPECT_STREQ(record.user_name, name_of_31);
    EXPECT_EQ(record.eport_id, 2u);
}

TEST_F(EportDb, InitDoesNothingWithoutRecordOrName)
{
    sw_eport_attr record;
    std::memset(&record, 0xff, sizeof record);
    const sw_eport_attr before = record;
    sw_eport_init(&record, nullptr, 7);
    EXPECT_EQ(std::memcmp(&record, &before, sizeof record), 0);
    sw_eport_init(nullptr, "app", 7);
}

TEST_F(EportDb, TablesAreMadeOnce)
{
    EXPECT_EQ(sw_eport_db_init(), 0);
    recording::fail_allocation(1, true);
    EXPECT_EQ(sw_eport_db_init(), 0);
    EXPECT_EQ(recording::allocations(), 0u);
    EXPECT_EQ(records_of_all_slots(), 0u);
}

TEST_F(EportDb, MissingTablesAreReportedAndNotTriedAgain)
{
    sw_vlan_debug_init("app", nullptr);
    recording::reset();
    recording::fail_allocation(1);
    EXPECT_EQ(sw_eport_db_init(), -1);
    recording::fail_allocation(0);
    EXPECT_EQ(sw_eport_db_init(), -1);
    EXPECT_THAT(trace(), ElementsAre("error sw_eport_db_init: Assert:HASH[0] init failed.",
                                     "error sw_eport_db_init: Assert:HASH[0] init failed."));
}

TEST_F(EportDb, FirstMissingTableIsNamed)
{
    sw_vlan_debug_init("app", nullptr);
    recording::reset();
    EXPECT_EQ(sw_eport_hash_init(3), 0);
    EXPECT_EQ(sw_eport_db_init(), -1);
    EXPECT_THAT(trace(), ElementsAre("error sw_eport_db_init: Assert:HASH[3] init failed."));
}

// ---- insertion

// An evlan record starts empty whatever the caller's holds.
TEST_F(EportDb, InsertKeepsTheWholeRecordOfTheCaller)
{
    add_user({.name = "app"});
    sw_eport_attr filled;
    std::memset(&filled, 0x5a, sizeof filled);
    filled.eport_id = 0x10000007;
    const sw_eport_attr *made = sw_eport_db_insert_item(0, "app", &filled);
    ASSERT_NE(made, nullptr);
    EXPECT_NE(made, &filled);
    EXPECT_EQ(made->attr.underlay.pvid, 0x5a5au);
    EXPECT_EQ(made->vlan_filter, 0x5a5a5a5au);
    EXPECT_EQ(std::memcmp(made, &filled, sizeof filled), 0);
    EXPECT_THAT(trace(), IsEmpty());
}

TEST_F(EportDb, InsertWritesTheNameIntoTheCallersRecord)
{
    add_user({.name = "app"});
    sw_eport_attr record;
    std::memset(&record, 0x5a, sizeof record);
    record.eport_id = 5;
    ASSERT_NE(sw_eport_db_insert_item(0, "app", &record), nullptr);
    const char expected[SW_EBRIDGE_NAME_SIZE] = "app";
    EXPECT_EQ(std::memcmp(record.user_name, expected, sizeof expected), 0);
    EXPECT_NE(held("app", 5), nullptr);
}

TEST_F(EportDb, InsertTakesTheNameThatStandsInTheRecord)
{
    add_user({.name = "app"});
    sw_eport_attr record;
    sw_eport_init(&record, "app", 5);
    const sw_eport_attr *made = sw_eport_db_insert_item(0, record.user_name, &record);
    ASSERT_NE(made, nullptr);
    EXPECT_STREQ(made->user_name, "app");
    EXPECT_EQ(held("app", 5), made);
}

TEST_F(EportDb, InsertingAgainReturnsTheRecordUntouched)
{
    add_user({.name = "app"});
    sw_eport_attr *made = insert("app", 0x10000007);
    ASSERT_NE(made, nullptr);
    made->attr.underlay.pvid = 9;
    const sw_eport_attr before = *made;
    sw_eport_attr other;
    std::memset(&other, 0x5a, sizeof other);
    other.eport_id = 0x10000007;
    uint8_t created = 42;
    EXPECT_EQ(sw_eport_db_insert_item(0, "app", &other), made);
    EXPECT_EQ(sw_eport_db_insert_item_new(0, "app", &other, &created), made);
    EXPECT_EQ(created, 42);
    EXPECT_EQ(std::memcmp(made, &before, sizeof before), 0);
    EXPECT_EQ(other.user_name[0], 0x5a);
    EXPECT_EQ(sw_eport_hash_size(0), 1u);
    EXPECT_THAT(trace(), IsEmpty());
}

TEST_F(EportDb, InsertNewTellsThatItMadeTheRecord)
{
    add_user({.name = "app"});
    uint8_t created = 0;
    const sw_eport_attr *made = insert_new("app", 0x10000007, &created);
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(created, 1);
    EXPECT_EQ(made->vlan_filter, 0u);
    EXPECT_THAT(trace(), IsEmpty());
}

TEST_F(EportDb, OneEportOfTwoUsersIsTwoRecords)
{
    add_user({.name = "a"});
    add_user({.name = "b"});
    const sw_eport_attr *of_a = insert("a", 5);
    const sw_eport_attr *of_b = insert("b", 5);
    EXPECT_NE(of_a, of_b);
    EXPECT_EQ(held("a", 5), of_a);
    EXPECT_EQ(held("b", 5), of_b);
    const udp_index index("", 5);
    sw_eport_db_delete_item(0, "a", &index);
    EXPECT_EQ(held("a", 5), nullptr);
    EXPECT_EQ(held("b", 5), of_b);
}

TEST_F(EportDb, SlotsAreIndependent)
{
    add_user({.name = "app"});
    add_user_in_slot(3, "app");
    const sw_eport_attr *in_slot_3 = insert("app", 5, 3);
    ASSERT_NE(in_slot_3, nullptr);
    EXPECT_EQ(held("app", 5), nullptr);
    EXPECT_EQ(held("app", 5, 3), in_slot_3);
    EXPECT_EQ(sw_eport_hash_size(0), 0u);
    EXPECT_EQ(sw_eport_hash_size(3), 1u);
}

TEST_F(EportDb, NamesAreTheSameWhenTheirFirst31CharactersAre)
{
    add_user({.name = name_of_31});
    const sw_eport_attr *made = insert(name_of_40, 5);
    ASSERT_NE(made, nullptr);
    EXPECT_STREQ(made->user_name, name_of_31);
    EXPECT_EQ(held(name_of_31, 5), made);
    EXPECT_EQ(held("a-name-of-forty-characters-goes another way", 5), made);
    EXPECT_EQ(held("a-name-of-forty-characters-goe", 5), nullptr);
    EXPECT_EQ(sw_eport_db_insert_glb_item(0, name_of_40, 5), made);
    sw_eport_db_delete_glb_item(0, name_of_40, 5);
    EXPECT_EQ(sw_eport_hash_size(0), 0u);
}

TEST_F(EportDb, TheEmptyNameIsAUser)
{
    add_user({.name = ""});
    const sw_eport_attr *made = insert("", 5);
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(held("", 5), made);
}

TEST_F(EportDb, AnUnknownUserIsRefused)
{
    add_user({.name = "app"});
    uint8_t created = 42;
    EXPECT_EQ(insert("nobody", 5), nullptr);
    EXPECT_EQ(insert_new("nobody", 5, &created), nullptr);
    EXPECT_THAT(trace(), ElementsAre("error sw_eport_db_insert_item: Assert:No user named 'nobody'.",
                                     "error sw_eport_db_insert_item_new: Assert:No user named 'nobody'."));
    recording::reset();
    EXPECT_EQ(held("nobody", 5), nullptr);
    EXPECT_THAT(trace(), IsEmpty());
    EXPECT_EQ(created, 42);
    EXPECT_EQ(sw_eport_hash_size(0), 0u);
}

TEST_F(EportDb, AUserOfAnotherSlotIsUnknown)
{
    add_user({.name = "app"});
    EXPECT_EQ(insert("app", 5, 1), nullptr);
    EXPECT_THAT(trace(), ElementsAre("error sw_eport_db_insert_item: Assert:No user named 'app'."));
}

TEST_F(EportDb, ANullNameIsRefused)
{
    add_user({.name = "app"});
    EXPECT_EQ(insert(nullptr, 5), nullptr);
    EXPECT_THAT(recording::logged(100), ElementsAre("Assert:Bad user NULL.", StartsWith("Assert:No user named '")));
    EXPECT_EQ(held(nullptr, 5), nullptr);
    EXPECT_EQ(sw_eport_db_insert_glb_item(0, nullptr, 5), nullptr);
    const udp_index index("", 5);
    sw_eport_db_delete_item(0, nullptr, &index);
    sw_eport_db_delete_glb_item(0, nullptr, 5);
    EXPECT_EQ(sw_eport_hash_size(0), 0u);
    EXPECT_THAT(recording::logged(), Each(StartsWith("Assert:")));
}

TEST_F(EportDb, ANullRecordIsRefused)
{
    add_user({.name = "app"});
    uint8_t created = 42;
    EXPECT_EQ(sw_eport_db_insert_item(0, "app", nullptr), nullptr);
    EXPECT_EQ(sw_eport_db_insert_item_new(0, "app", nullptr, &created), nullptr);
    EXPECT_EQ(created, 42);
    EXPECT_EQ(sw_eport_hash_size(0), 0u);
    EXPECT_EQ(recording::logged(100).size(), 2u);
    EXPECT_THAT(recording::logged(), Each(StartsWith("Assert:")));
}

TEST_F(EportDb, InsertNewWorksWithoutAFlag)
{
    add_user({.name = "app"});
    EXPECT_NE(insert_new("app", 5, nullptr), nullptr);
}

TEST_F(EportDb, Slot6IsRefused)
{
    add_user({.name = "app"});
    uint8_t created = 42;
    EXPECT_EQ(insert("app", 5, 6), nullptr);
    EXPECT_TRUE(recording::has_logged("Assert:Bad inst[6].", 100));
    EXPECT_EQ(insert_new("app", 5, &created, 6), nullptr);
    EXPECT_EQ(created, 42);
    EXPECT_EQ(held("app", 5, 6), nullptr);
    EXPECT_EQ(held("app", 5, 0xffffffff), nullptr);
    EXPECT_EQ(sw_eport_db_insert_glb_item(6, "app", 5), nullptr);
    const udp_index index("app", 5);
    sw_eport_db_delete_item(6, "app", &index);
    sw_eport_db_delete_glb_item(6, "app", 5);
    sw_eport_db_delete_glb_item(0xffffffff, "app", 5);
    EXPECT_EQ(sw_eport_attr_db_verify(6, "app", 5), nullptr);
    EXPECT_EQ(sw_eport_attr_db_verify_new(6, "app", 5, &created), nullptr);
    EXPECT_EQ(records_of_all_slots(), 0u);
}

TEST_F(EportDb, NothingIsFoundBeforeAnyInitialisation)
{
    EXPECT_EQ(insert("app", 5), nullptr);
    EXPECT_EQ(held("app", 5), nullptr);
    EXPECT_EQ(sw_eport_db_insert_glb_item(0, "app", 5), nullptr);
    const udp_index index("app", 5);
    sw_eport_db_delete_item(0, "app", &index);
    sw_eport_db_delete_glb_item(0, "app", 5);
    EXPECT_EQ(sw_eport_clear_all_db(), 0);
}

TEST_F(EportDb, InsertWithoutMemoryLeavesTheTableAsItWas)
{
    add_user({.name = "app"});
    uint32_t id = 1;
    uint32_t failures = 0;
    for (uint64_t nth = 1; nth <= 5; ++nth, ++id) {
        const uint32_t before = sw_eport_hash_size(0);
        const sw_eport_attr *made = nullptr;
        const strings errors = errors_when_allocation_fails(nth, [&] { made = insert("app", id); });
        EXPECT_EQ(held("app", id), made);
        EXPECT_EQ(sw_eport_hash_size(0), before + (made ? 1 : 0));
        if (made)
            EXPECT_THAT(errors, IsEmpty());
        else
            EXPECT_THAT(errors, ElementsAre(format("Assert:Insert inst[0].user[app].eport[0x%x] failed.", id)));
        failures += made == nullptr;
    }
    EXPECT_GE(failures, 1u);
}

TEST_F(EportDb, InsertNewWithoutMemoryLeavesTheFlagAlone)
{
    add_user({.name = "app"});
    add_user_in_slot(2, "app");
    uint8_t created = 42;
    recording::fail_allocation(1, true);
    EXPECT_EQ(insert_new("app", 5, &created, 2), nullptr);
    recording::fail_allocation(0);
    EXPECT_EQ(created, 42);
    EXPECT_THAT(trace(),
                ElementsAre("error sw_eport_db_insert_item_new: Assert:Insert inst[2].user[app].eport[0x5] failed."));
}

TEST_F(EportDb, InsertWithoutMemoryHasWrittenTheNameIntoTheCallersRecord)
{
    add_user({.name = "app"});
    sw_eport_attr record;
    std::memset(&record, 0x5a, sizeof record);
    recording::fail_allocation(1, true);
    EXPECT_EQ(sw_eport_db_insert_item(0, "app", &record), nullptr);
    recording::fail_allocation(0);
    EXPECT_STREQ(record.user_name, "app");
}

TEST_F(EportDb, OutlivesASecondRegistrationOfItsUser)
{
    add_user({.name = "app"});
    const sw_eport_attr *made = insert("app", 5);
    add_user({.name = "app"});
    EXPECT_EQ(held("app", 5), made);
}

// ---- the insertion that asks for no registered user

TEST_F(EportGlobalInsert, MakesAFreshRecordOfAnybody)
{
    add_user({.name = "app"});
    const sw_eport_attr *made = sw_eport_db_insert_glb_item(0, "elsewhere", 0x30000007);
    ASSERT_NE(made, nullptr);
    sw_eport_attr expected;
    sw_eport_init(&expected, "elsewhere", 0x30000007);
    EXPECT_EQ(std::memcmp(made, &expected, sizeof expected), 0);
    EXPECT_EQ(found_in_table("elsewhere", 0x30000007), made);
    EXPECT_EQ(held("elsewhere", 0x30000007), nullptr);
    EXPECT_EQ(sw_ebridge_list_item_get("elsewhere"), nullptr);
    EXPECT_THAT(trace(), IsEmpty());
}

TEST_F(EportGlobalInsert, KeepsTheRecordOfARegisteredUser)
{
    add_user({.name = "app"});
    sw_eport_attr *made = insert("app", 0x30000007);
    made->attr.overlay.mtu = 1500;
    EXPECT_EQ(sw_eport_db_insert_glb_item(0, "app", 0x30000007), made);
    EXPECT_EQ(made->attr.overlay.mtu, 1500u);
    EXPECT_EQ(sw_eport_hash_size(0), 1u);
}

// The look-up before it wants a registered user, so it finds nothing for one of another process.
TEST_F(EportGlobalInsert, MakesTheRecordOfAnUnknownUserAnewInItsPlace)
{
    add_user({.name = "app"});
    sw_eport_attr *made = sw_eport_db_insert_glb_item(0, "elsewhere", 0x30000007);
    ASSERT_NE(made, nullptr);
    made->attr.overlay.mtu = 1500;
    made->vlan_filter = 0;
    EXPECT_EQ(sw_eport_db_insert_glb_item(0, "elsewhere", 0x30000007), made);
    EXPECT_EQ(made->attr.overlay.mtu, 0u);
    EXPECT_EQ(made->vlan_filter, 7u);
    EXPECT_EQ(sw_eport_hash_size(0), 1u);
}

TEST_F(EportGlobalInsert, WorksInEverySlotThatThereIs)
{
    add_user({.name = "app"});
    for (uint32_t slot = 0; slot <= 6; ++slot)
        EXPECT_EQ(sw_eport_db_insert_glb_item(slot, "elsewhere", 5) != nullptr, slot < 6);
    EXPECT_EQ(records_of_all_slots(), 6u);
    EXPECT_TRUE(traced("error sw_eport_db_insert_glb_item: Assert:Insert inst[6].user[elsewhere].eport[0x5] failed."));
}

TEST_F(EportGlobalInsert, WithoutMemoryIsReported)
{
    add_user({.name = "app"});
    recording::fail_allocation(1, true);
    EXPECT_EQ(sw_eport_db_insert_glb_item(0, "elsewhere", 0x30000007), nullptr);
    recording::fail_allocation(0);
    EXPECT_THAT(
        trace(),
        ElementsAre(
            "error sw_eport_db_insert_glb_item: Assert:Insert inst[0].user[elsewhere].eport[0x30000007] failed."));
    EXPECT_EQ(sw_eport_hash_size(0), 0u);
}

// ---- deletion

TEST_F(EportDelete, FreesTheRecord)
{
    add_user({.name = "app"});
    void *made = insert("app", 0x30000007);
    const sw_eport_attr *other = insert("app", 0x30000008);
    const udp_index index("somebody else", 0x30000007);
    const auto blocks = freed_by([&] { sw_eport_db_delete_item(0, "app", &index); });
    EXPECT_THAT(blocks, ElementsAre(made));
    EXPECT_EQ(held("app", 0x30000007), nullptr);
    EXPECT_EQ(held("app", 0x30000008), other);
    EXPECT_THAT(trace(), ElementsAre("info sw_eport_db_delete_item: Remove user[app].eport[0x30000007]."));
}

TEST_F(EportDelete, OfAnAbsentRecordDoesNothing)
{
    add_user({.name = "app"});
    insert("app", 5);
    const udp_index index("app", 6);
    sw_eport_db_delete_item(0, "app", &index);
    sw_eport_db_delete_glb_item(0, "app", 6);
    EXPECT_THAT(trace(), IsEmpty());
    EXPECT_EQ(sw_eport_hash_size(0), 1u);
}

TEST_F(EportDelete, OfAnUnknownUserTakesTheGlobalCall)
{
    add_user({.name = "app"});
    void *made = sw_eport_db_insert_glb_item(0, "elsewhere", 0x30000007);
    const udp_index index("elsewhere", 0x30000007);
    sw_eport_db_delete_item(0, "elsewhere", &index);
    EXPECT_EQ(found_in_table("elsewhere", 0x30000007), made);
    EXPECT_THAT(trace(), IsEmpty());
    const auto blocks = freed_by([] { sw_eport_db_delete_glb_item(0, "elsewhere", 0x30000007); });
    EXPECT_THAT(blocks, ElementsAre(made));
    EXPECT_EQ(sw_eport_hash_size(0), 0u);
    EXPECT_THAT(trace(), ElementsAre("info sw_eport_db_delete_glb_item: Remove user[elsewhere].eport[0x30000007]."));
}

TEST_F(EportDelete, TakesANameThatStandsInTheRecord)
{
    add_user({.name = "app"});
    sw_eport_attr *made = insert("app", 5);
    const udp_index index("app", 5);
    spoiling(made, [&] { sw_eport_db_delete_item(0, made->user_name, &index); });
    made = sw_eport_db_insert_glb_item(0, "elsewhere", 6);
    spoiling(made, [&] { sw_eport_db_delete_glb_item(0, made->user_name, made->eport_id); });
    EXPECT_THAT(recording::logged(40),
                ElementsAre("Remove user[app].eport[0x5].", "Remove user[elsewhere].eport[0x6]."));
    EXPECT_EQ(sw_eport_hash_size(0), 0u);
}

TEST_F(EportDelete, RefusesANullIndex)
{
    add_user({.name = "app"});
    insert("app", 0);
    sw_eport_db_delete_item(0, "app", nullptr);
    EXPECT_EQ(sw_eport_hash_size(0), 1u);
    EXPECT_THAT(recording::logged(), Each(StartsWith("Assert:")));
}

TEST_F(EportDelete, OfAllEmptiesEverySlot)
{
    add_user({.name = "app"});
    std::vector<void *> made;
    for (uint32_t slot = 0; slot < SW_EBRIDGE_SLOTS; ++slot)
        for (uint32_t id = 1; id <= 30; ++id)
            made.push_back(sw_eport_db_insert_glb_item(slot, id % 2 ? "app" : "elsewhere", id));
    recording::reset();
    int32_t result = -1;
    const auto blocks = freed_by([&] { result = sw_eport_clear_all_db(); });
    EXPECT_EQ(result, 0);
    EXPECT_THAT(blocks, testing::IsSupersetOf(made));
    EXPECT_EQ(records_of_all_slots(), 0u);
    EXPECT_THAT(trace(), ElementsAre("info sw_eport_clear_all_db: clear all eport db!"));
    EXPECT_NE(insert("app", 5), nullptr);
}

TEST_F(EportDelete, OfAllWithoutTablesIsNoFailure)
{
    sw_vlan_debug_init("app", nullptr);
    g_sw_vlan_file_zlog_level = 7;
    recording::reset();
    EXPECT_EQ(sw_eport_clear_all_db(), 0);
    EXPECT_THAT(trace(), ElementsAre("info sw_eport_clear_all_db: clear all eport db!"));
}

// ---- verification

TEST_F(EportVerify, MakesAFreshRecordThatFiltersAll)
{
    add_user({.name = "app"});
    const sw_eport_attr *made = sw_eport_attr_db_verify(0, "app", eport_id(port, 100));
    ASSERT_NE(made, nullptr);
    sw_eport_attr expected;
    sw_eport_init(&expected, "app", 0x10000064);
    EXPECT_EQ(std::memcmp(made, &expected, sizeof expected), 0);
    EXPECT_EQ(made->vlan_filter, 7u);
    EXPECT_EQ(sw_eport_attr_db_verify(0, "app", eport_id(port, 100)), made);
}

TEST_F(EportVerify, KeepsARecordThatIsThere)
{
    add_user({.name = "app"});
    sw_eport_attr *made = insert("app", eport_id(port, 5));
    made->vlan_filter = 2;
    made->attr.underlay.pvid = 10;
    EXPECT_EQ(sw_eport_attr_db_verify(0, "app", eport_id(port, 5)), made);
    EXPECT_EQ(made->vlan_filter, 2u);
    EXPECT_EQ(made->attr.underlay.pvid, 10u);
}

// The evlan verification leaves the flag alone.
TEST_F(EportVerify, NewClearsTheFlagFirst)
{
    add_user({.name = "app"});
    uint8_t created = 42;
    const sw_eport_attr *made = sw_eport_attr_db_verify_new(0, "app", eport_id(ap, 3), &created);
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(created, 1);
    EXPECT_EQ(made->vlan_filter, 7u);
    EXPECT_EQ(sw_eport_attr_db_verify_new(0, "app", eport_id(ap, 3), &created), made);
    EXPECT_EQ(created, 0);
    created = 42;
    EXPECT_EQ(sw_eport_attr_db_verify_new(6, "app", eport_id(ap, 3), &created), nullptr);
    EXPECT_EQ(created, 0);
}

TEST_F(EportVerify, NewWithoutMemorySaysThatNothingWasMade)
{
    add_user({.name = "app"});
    uint8_t created = 42;
    recording::fail_allocation(1, true);
    EXPECT_EQ(sw_eport_attr_db_verify_new(0, "app", eport_id(ap, 3), &created), nullptr);
    recording::fail_allocation(0);
    EXPECT_EQ(created, 0);
    EXPECT_TRUE(recording::has_logged("Assert:Insert inst[0].user[app].eport[0x20000003] failed.", 100));
}

TEST_F(EportVerify, WithoutMemoryIsReported)
{
    add_user({.name = "app"});
    recording::fail_allocation(1, true);
    EXPECT_EQ(sw_eport_attr_db_verify(0, "app", eport_id(ap, 3)), nullptr);
    recording::fail_allocation(0);
    EXPECT_THAT(
        trace(),
        ElementsAre("error sw_eport_db_insert_item: Assert:Insert inst[0].user[app].eport[0x20000003] failed."));
}

TEST_F(EportVerify, WithoutMemoryForTheUserIsReportedTwice)
{
    add_user({.name = "app"});
    recording::fail_allocation(1, true);
    EXPECT_EQ(sw_eport_attr_db_verify(0, "late", eport_id(ap, 3)), nullptr);
    recording::fail_allocation(0);
    EXPECT_THAT(recording::logged(100), ElementsAre("Assert:DL_HASH_CREATE fail.", "Assert:No user named 'late'."));
}

TEST_F(EportVerify, NewWorksWithoutAFlag)
{
    add_user({.name = "app"});
    EXPECT_NE(sw_eport_attr_db_verify_new(0, "app", eport_id(ap, 3), nullptr), nullptr);
}

TEST_F(EportVerify, RegistersTheUserInItsSlot)
{
    const sw_eport_attr *made = sw_eport_attr_db_verify(2, "late", eport_id(ac, 7));
    ASSERT_NE(made, nullptr);
    const sw_ebridge_list_item *registered = sw_ebridge_list_item_get_inst(2, "late");
    ASSERT_NE(registered, nullptr);
    EXPECT_EQ(registered->mom_handle, nullptr);
    EXPECT_EQ(sw_ebridge_list_item_get_inst(0, "late"), nullptr);
    EXPECT_EQ(held("late", eport_id(ac, 7), 2), made);
}

TEST_F(EportVerify, RefusesANullName)
{
    add_user({.name = "app"});
    uint8_t created = 42;
    EXPECT_EQ(sw_eport_attr_db_verify(0, nullptr, 5), nullptr);
    EXPECT_EQ(sw_eport_attr_db_verify_new(0, nullptr, 5, &created), nullptr);
    EXPECT_EQ(created, 0);
    EXPECT_GE(recording::logged(100).size(), 2u);
    EXPECT_THAT(recording::logged(), Each(StartsWith("Assert:")));
    EXPECT_EQ(sw_eport_hash_size(0), 0u);
}

}  // namespace
