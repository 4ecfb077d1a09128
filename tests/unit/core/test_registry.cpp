// The registry of users: six tables, look-up by name, replacement in place, walks, and the tables made beside it.
#include <algorithm>
#include <cstdio>

#include "core_fixture.hpp"

namespace core_test
{
namespace
{

class Registry : public CoreTest
{
};

const std::string kName31(31, 'n');

sw_ebridge_list_item *registered(const char *name, uint32_t table = 0)
{
    const auto record = record_of(name);
    EXPECT_EQ(0, sw_ebridge_list_add_inst(table, &record));
    return sw_ebridge_list_item_get_inst(table, name);
}

// ---- making the tables

TEST_F(Registry, ListInitMakesSixTables)
{
    EXPECT_EQ(0, sw_ebridge_list_init());
    for (uint32_t table = 0; table < SW_EBRIDGE_SLOTS; ++table) {
        EXPECT_NE(nullptr, registered("user", table)) << table;
        EXPECT_EQ(1u, sw_ebridge_list_item_hash_size(table)) << table;
    }
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(Registry, ListInitAgainKeepsTheUsers)
{
    EXPECT_EQ(0, sw_ebridge_list_init());
    const auto *user = registered("user");
    EXPECT_EQ(0, sw_ebridge_list_init());
    EXPECT_EQ(user, sw_ebridge_list_item_get("user"));
}

TEST_F(Registry, FailedTableCreationIsNotRetried)
{
    recording::fail_allocation(1, true);
    EXPECT_EQ(-1, sw_ebridge_list_init());
    recording::fail_allocation(0);
    expect_line("Assert:HASH[0] init failed.", kError, kCoreFile, "sw_ebridge_list_init");
    recording::reset();
    EXPECT_EQ(-1, sw_ebridge_list_init());
    EXPECT_THAT(errors(), ElementsAre("Assert:HASH[0] init failed."));
    recording::reset();
    EXPECT_EQ(nullptr, sw_ebridge_list_item_get("user"));
    EXPECT_THAT(errors(), ElementsAre("Assert:List uninit."));
    recording::reset();
    const auto record = record_of("user");
    EXPECT_EQ(-5, sw_ebridge_list_add(&record));
    EXPECT_THAT(errors(), ElementsAre("Assert:DL_HASH_CREATE fail."));
}

TEST_F(Registry, ListInitNamesTheFirstMissingTable)
{
    EXPECT_EQ(0, sw_ebridge_list_item_hash_init(3));
    EXPECT_EQ(-1, sw_ebridge_list_init());
    EXPECT_THAT(errors(), ElementsAre("Assert:HASH[3] init failed."));
}

TEST_F(Registry, EveryFailingAllocationOfListInitIsReported)
{
    const auto runs = fail_each_allocation([](uint64_t nth) {
        recording::fail_allocation(nth);
        const int32_t result = sw_ebridge_list_init();
        const bool failed = recording::allocations() >= nth;
        EXPECT_EQ(failed ? -1 : 0, result);
        return !failed;
    });
    EXPECT_GE(runs.size(), 2u);
    for (size_t i = 0; i + 1 < runs.size(); ++i)
        EXPECT_THAT(runs[i], ElementsAre("Assert:HASH[0] init failed."));
}

// ---- look-up

TEST_F(Registry, LookUpRefusesABadSlotFirst)
{
    EXPECT_EQ(nullptr, sw_ebridge_list_item_get_inst(6, nullptr));
    expect_line("Assert:Bad inst[6].", kError, kCoreFile, "sw_ebridge_list_item_get_inst");
    EXPECT_EQ(1u, errors().size());
    sw_ebridge_list_init();
    recording::reset();
    EXPECT_EQ(nullptr, sw_ebridge_list_item_get_inst(7, "user"));
    EXPECT_THAT(errors(), ElementsAre("Assert:Bad inst[7]."));
}

TEST_F(Registry, LookUpRefusesANullNameBeforeItLooksAtTheTables)
{
    EXPECT_EQ(nullptr, sw_ebridge_list_item_get_inst(0, nullptr));
    expect_line("Assert:Bad user NULL.", kError, kCoreFile, "sw_ebridge_list_item_get_inst");
    EXPECT_EQ(1u, errors().size());
}

TEST_F(Registry, LookUpBeforeInitialisationFindsNothing)
{
    EXPECT_EQ(nullptr, sw_ebridge_list_item_get("user"));
    expect_line("Assert:List uninit.", kError, kCoreFile, "sw_ebridge_list_item_get_inst");
    EXPECT_EQ(1u, errors().size());
}

TEST_F(Registry, LookUpOfAnUnknownNameIsSilent)
{
    sw_ebridge_list_init();
    registered("user");
    recording::reset();
    EXPECT_EQ(nullptr, sw_ebridge_list_item_get("use"));
    EXPECT_EQ(nullptr, sw_ebridge_list_item_get("users"));
    EXPECT_THAT(recording::logged(), IsEmpty());
}

TEST_F(Registry, LookUpComparesTheFirst31Characters)
{
    sw_ebridge_list_init();
    const auto *user = registered(kName31.c_str());
    ASSERT_NE(nullptr, user);
    EXPECT_STREQ(kName31.c_str(), user->user_name);
    EXPECT_EQ(user, sw_ebridge_list_item_get((kName31 + "-and-more-than-fits-any-record").c_str()));
    EXPECT_EQ(nullptr, sw_ebridge_list_item_get(kName31.substr(1).c_str()));
}

TEST_F(Registry, EmptyNameIsAName)
{
    sw_ebridge_list_init();
    const auto *user = registered("");
    EXPECT_NE(nullptr, user);
    EXPECT_EQ(user, sw_ebridge_list_item_get(""));
}

TEST_F(Registry, TablesAreIndependent)
{
    sw_ebridge_list_init();
    const auto *in_three = registered("user", 3);
    ASSERT_NE(nullptr, in_three);
    EXPECT_EQ(nullptr, sw_ebridge_list_item_get("user"));
    const auto *in_zero = registered("user", 0);
    EXPECT_NE(in_zero, in_three);
    EXPECT_EQ(in_zero, sw_ebridge_list_item_get("user"));
}

// ---- adding

TEST_F(Registry, AddStoresACopyWithEmptyLists)
{
    sw_ebridge_list_init();
    auto record = record_of("user", 0x24);
    record.stat = 17;
    EXPECT_EQ(0, sw_ebridge_list_add(&record));
    expect_line("user: user, reg mom_db: 0x24.", kInfo, kCoreFile, "sw_ebridge_list_add_inst");
    const auto *stored = sw_ebridge_list_item_get("user");
    ASSERT_NE(nullptr, stored);
    EXPECT_NE(&record, stored);
    record.stat = 18;
    EXPECT_EQ(17, stored->stat);
    EXPECT_EQ(0x24u, stored->mod_db);
    EXPECT_TRUE(linked_to_itself(stored->eport_maps));
    EXPECT_TRUE(linked_to_itself(stored->evlan_maps));
}

TEST_F(Registry, AddOverwritesInPlace)
{
    sw_ebridge_list_init();
    auto *user = registered("user");
    user->age_timer_armed = 1;
    user->stat = 4;
    user->mom_ds_args[5] = user;
    user->scan_args = user;
    const auto record = record_of("user", 8);
    EXPECT_EQ(0, sw_ebridge_list_add(&record));
    EXPECT_EQ(user, sw_ebridge_list_item_get("user"));
    EXPECT_EQ(1u, sw_ebridge_list_item_hash_size(0));
    EXPECT_EQ(8u, user->mod_db);
    EXPECT_EQ(0, user->age_timer_armed);
    EXPECT_EQ(0, user->stat);
    EXPECT_EQ(nullptr, user->mom_ds_args[5]);
    EXPECT_EQ(nullptr, user->scan_args);
}

// A record of the caller's own may carry a name without an end, or something behind its end; look-ups take neither.
TEST_F(Registry, AddStoresTheFirst31CharactersOfTheNameAndZeros)
{
    sw_ebridge_list_init();
    auto record = record_of("");
    std::memset(record.user_name, 'n', sizeof record.user_name);
    EXPECT_EQ(0, sw_ebridge_list_add(&record));
    EXPECT_TRUE(recording::has_logged("user: " + kName31 + ", reg mom_db: 0x0.", kInfo));
    const auto *stored = sw_ebridge_list_item_get(kName31.c_str());
    ASSERT_NE(nullptr, stored);
    EXPECT_EQ('\0', stored->user_name[31]);
    std::memcpy(record.user_name, "short", sizeof "short");
    EXPECT_EQ(0, sw_ebridge_list_add(&record));
    EXPECT_NE(nullptr, sw_ebridge_list_item_get("short"));
    EXPECT_EQ(2u, sw_ebridge_list_item_hash_size(0));
}

void link_two(sw_list_head &head, sw_list_head (&links)[2])
{
    head.next = &links[0];
    links[0] = {&links[1], &head};
    links[1] = {&head, &links[0]};
    head.prev = &links[1];
}

TEST_F(Registry, OverwritingLetsLinkedMapItemsGo)
{
    sw_ebridge_list_init();
    auto *user = registered("user");
    sw_list_head evlans[2], eports[2];
    link_two(user->evlan_maps, evlans);
    link_two(user->eport_maps, eports);
    registered("user");
    for (const auto &links : {evlans, eports}) {
        EXPECT_TRUE(linked_to_itself(links[0]));
        EXPECT_TRUE(linked_to_itself(links[1]));
    }
    EXPECT_TRUE(linked_to_itself(user->evlan_maps));
    EXPECT_TRUE(linked_to_itself(user->eport_maps));
}

TEST_F(Registry, MapItemOfAnOverwrittenUserCanStillBeDeleted)
{
    sw_ebridge_list_init();
    ASSERT_EQ(0, sw_ebridge_map_db_init(0));
    auto *user = registered("user");
    sw_evlan_index_map item{};
    item.key[0] = 32;
    item.key[1] = 7;
    std::snprintf(item.user_name, sizeof item.user_name, "user");
    auto *stored = sw_evlan_index_map_create_item(0, &item);
    ASSERT_NE(nullptr, stored);
    ASSERT_EQ(&stored->link, user->evlan_maps.next);
    registered("user");
    EXPECT_TRUE(linked_to_itself(stored->link));
    EXPECT_EQ(stored, sw_evlan_index_map_get_item(0, &item));
    EXPECT_EQ(0, sw_evlan_index_map_delete_item(0, &item));
    EXPECT_EQ(nullptr, sw_evlan_index_map_get_item(0, &item));
    EXPECT_TRUE(linked_to_itself(user->evlan_maps));
}

TEST_F(Registry, AddRefusesNull)
{
    sw_ebridge_list_init();
    EXPECT_EQ(-2, sw_ebridge_list_add_inst(0, nullptr));
    expect_line("Assert:Bad list", kError, kCoreFile, "sw_ebridge_list_add_inst");
    EXPECT_EQ(-2, sw_ebridge_list_add(nullptr));
}

TEST_F(Registry, AddToATableThatIsNotThereFails)
{
    const auto record = record_of("user");
    EXPECT_EQ(-5, sw_ebridge_list_add(&record));
    expect_line("Assert:DL_HASH_CREATE fail.", kError, kCoreFile, "sw_ebridge_list_add_inst");
    sw_ebridge_list_init();
    recording::reset();
    EXPECT_EQ(-5, sw_ebridge_list_add_inst(6, &record));
    EXPECT_THAT(recording::logged(), ElementsAre("user: user, reg mom_db: 0x0.", "Assert:DL_HASH_CREATE fail."));
}

TEST_F(Registry, AddWithoutMemoryLeavesNothingBehind)
{
    sw_ebridge_list_init();
    uint64_t nth = 1;
    for (bool failed = true; failed; ++nth) {
        recording::reset();
        const auto record = record_of("user");
        recording::fail_allocation(nth);
        const int32_t result = sw_ebridge_list_add(&record);
        failed = recording::allocations() >= nth;
        recording::fail_allocation(0);
        EXPECT_EQ(failed ? -5 : 0, result) << nth;
        EXPECT_EQ(failed ? strings{"Assert:DL_HASH_CREATE fail."} : strings{}, errors()) << nth;
        EXPECT_EQ(failed, sw_ebridge_list_item_get("user") == nullptr) << nth;
        ASSERT_LT(nth, 50u);
    }
    EXPECT_GT(nth, 2u);
}

// ---- walking

struct visit {
    sw_ebridge_list_item *record;
    int32_t position;
};

struct walk {
    std::vector<visit> visits;
    int32_t result = 0;
};

int32_t note_visit(sw_ebridge_list_item *record, void *arg, int32_t position)
{
    auto *noted = static_cast<walk *>(arg);
    noted->visits.push_back({record, position});
    return noted->result;
}

TEST_F(Registry, WalkVisitsEveryUserInSlotOrder)
{
    sw_ebridge_list_init();
    strings names;
    for (int i = 0; i < 20; ++i) {
        names.push_back("user" + std::to_string(i));
        registered(names.back().c_str(), 2);
    }
    walk noted;
    EXPECT_EQ(0, sw_ebridge_list_for_each(2, note_visit, &noted));
    strings seen;
    int32_t before = -1;
    for (const auto &one : noted.visits) {
        seen.push_back(one.record->user_name);
        EXPECT_GT(one.position, before);
        before = one.position;
    }
    EXPECT_THAT(seen, testing::UnorderedElementsAreArray(names));
}

TEST_F(Registry, WalkStopsAtMinusSixOnly)
{
    sw_ebridge_list_init();
    for (const char *name : {"a", "b", "c"})
        registered(name);
    for (const int32_t result : {0, 1, -1, -2, -5, -7, 6}) {
        walk noted;
        noted.result = result;
        EXPECT_EQ(0, sw_ebridge_list_for_each(0, note_visit, &noted));
        EXPECT_EQ(3u, noted.visits.size()) << result;
    }
    walk noted;
    noted.result = SW_EBRIDGE_WALK_STOP;
    EXPECT_EQ(0, sw_ebridge_list_for_each(0, note_visit, &noted));
    EXPECT_EQ(1u, noted.visits.size());
}

TEST_F(Registry, WalkTestsTheTableBeforeTheVisitor)
{
    const auto refused = [](uint32_t table, sw_ebridge_list_item_visitor visitor, int32_t code) {
        recording::reset();
        EXPECT_EQ(code, sw_ebridge_list_for_each(table, visitor, nullptr));
        ASSERT_EQ(1u, errors().size());
        EXPECT_THAT(errors()[0], testing::StartsWith("Assert:"));
        EXPECT_EQ("sw_ebridge_list_for_each", recording::log()[0].function);
    };
    refused(0, nullptr, -1);
    refused(0, note_visit, -1);
    sw_ebridge_list_init();
    refused(6, nullptr, -1);
    refused(6, note_visit, -1);
    refused(0, nullptr, -2);
}

// ---- the local databases and index maps

TEST_F(Registry, AttrDbInitRegistersABlankUser)
{
    EXPECT_EQ(0, sw_ebridge_attr_db_init(2, "user"));
    const auto *user = sw_ebridge_list_item_get_inst(2, "user");
    ASSERT_NE(nullptr, user);
    sw_ebridge_list_item expected = record_of("user");
    expected.evlan_maps = user->evlan_maps;
    expected.eport_maps = user->eport_maps;
    EXPECT_EQ(0, std::memcmp(&expected, user, sizeof expected));
    EXPECT_TRUE(linked_to_itself(user->evlan_maps));
    EXPECT_EQ(nullptr, sw_ebridge_list_item_get("user"));
}

TEST_F(Registry, AttrDbInitKeepsAKnownUser)
{
    EXPECT_EQ(0, sw_ebridge_attr_db_init(0, nullptr));
    EXPECT_EQ(0u, sw_ebridge_list_item_hash_size(0));
    auto *user = registered("user");
    user->stat = 5;
    EXPECT_EQ(0, sw_ebridge_attr_db_init(0, "user"));
    EXPECT_EQ(5, user->stat);
    EXPECT_EQ(1u, sw_ebridge_list_item_hash_size(0));
}

TEST_F(Registry, AttrDbInitMakesTheLocalDatabases)
{
    EXPECT_EQ(0, sw_ebridge_attr_db_init(0, "user"));
    sw_evlan_attr evlan{};
    evlan.evlan_id = 0x20000001;
    EXPECT_NE(nullptr, sw_evlan_db_insert_item(0, "user", &evlan));
    sw_eport_attr eport{};
    sw_eport_attr *stored = nullptr;
    sw_eport_cache_create(5, &stored, &eport);
    EXPECT_NE(nullptr, stored);
}

TEST_F(Registry, AttrDbInitOfASlotThatIsNotThereSucceeds)
{
    EXPECT_EQ(0, sw_ebridge_attr_db_init(6, "user"));
    EXPECT_EQ(nullptr, sw_ebridge_list_item_get("user"));
}

// The distinct error lines of the runs, as they first appear.
strings distinct(const std::vector<strings> &runs)
{
    strings all;
    for (const auto &run : runs)
        for (const auto &line : run)
            if (std::find(all.begin(), all.end(), line) == all.end())
                all.push_back(line);
    return all;
}

TEST_F(Registry, AttrDbInitReportsTheStepThatFailed)
{
    const auto runs = fail_each_allocation([](uint64_t nth) {
        recording::fail_allocation(nth);
        const int32_t result = sw_ebridge_attr_db_init(0, nullptr);
        const bool failed = recording::allocations() >= nth;
        EXPECT_EQ(failed ? -1 : 0, result);
        return !failed;
    });
    EXPECT_THAT(distinct(runs),
                ElementsAre("Assert:HASH[0] init failed.", "Assert:sw_ebridge_list_init failed.",
                            "Assert:sw_eport_attr_db_init failed", "Assert:sw_evlan_attr_db_init failed"));
}

TEST_F(Registry, MapDbInitMakesTheIndexMaps)
{
    EXPECT_EQ(0, sw_ebridge_map_db_init(3));
    expect_line("db_init, hash_id: 3.", kInfo, kCoreFile, "sw_ebridge_map_db_init");
    sw_evlan_index_map evlan{}, *stored_evlan = nullptr;
    sw_evlan_index_map_cache_create(5, &stored_evlan, &evlan);
    EXPECT_NE(nullptr, stored_evlan);
    sw_eport_index_map eport{}, *stored_eport = nullptr;
    sw_eport_index_map_cache_create(5, &stored_eport, &eport);
    EXPECT_NE(nullptr, stored_eport);
    EXPECT_EQ(0, sw_ebridge_map_db_init(3));
}

TEST_F(Registry, MapDbInitReportsTheMapThatFailed)
{
    const auto runs = fail_each_allocation([](uint64_t nth) {
        recording::fail_allocation(nth);
        const int32_t result = sw_ebridge_map_db_init(0);
        const bool failed = recording::allocations() >= nth;
        EXPECT_EQ(failed ? -1 : 0, result);
        EXPECT_NE(failed, recording::has_logged("db_init, hash_id: 0.", kInfo));
        return !failed;
    });
    EXPECT_THAT(distinct(runs), ElementsAre("Assert:HASH[%] init failed.", "Assert:sw_eport_db_init fail.",
                                            "Assert:sw_evlan_db_init fail."));
}

TEST_F(Registry, PvidTableFailsOnce)
{
    recording::fail_allocation(1, true);
    EXPECT_EQ(-1, sw_vlan_pvid_db_init());
    recording::fail_allocation(0);
    expect_line("Assert:sw_vlan_pvid_entry_hash_init() failed.", kError, "app/lib/ebridge/libsw_ebridge_port_vid.cpp",
                "sw_vlan_pvid_db_init");
    EXPECT_EQ(0, sw_vlan_pvid_db_init());
    EXPECT_EQ(1u, errors().size());
    sw_vlan_pvid_entry entry{7, 1, 1}, *stored = nullptr;
    sw_vlan_pvid_entry_cache_create(0, &stored, &entry);
    EXPECT_EQ(nullptr, stored);  // and it is not made later
}

TEST_F(Registry, PvidTableIsMade)
{
    EXPECT_EQ(0, sw_vlan_pvid_db_init());
    sw_vlan_pvid_entry entry{7, 1, 1}, *stored = nullptr;
    sw_vlan_pvid_entry_cache_create(0, &stored, &entry);
    EXPECT_NE(nullptr, stored);
}

TEST_F(Registry, MatchDbInitMakesTheTableAndABlankUser)
{
    EXPECT_EQ(0, sw_ebridge_match_db_init(1, "user"));
    const auto *user = sw_ebridge_list_item_get_inst(1, "user");
    ASSERT_NE(nullptr, user);
    EXPECT_STREQ("user", user->user_name);
    EXPECT_EQ(0, sw_ebridge_match_db_init(0, nullptr));
    EXPECT_EQ(0u, sw_ebridge_list_item_hash_size(0));
    sw_ematch_item rule{}, *stored = nullptr;
    sw_ematch_item_cache_create(0, &stored, &rule);
    EXPECT_NE(nullptr, stored);
}

TEST_F(Registry, MatchDbInitKeepsAKnownUserAndCutsTheName)
{
    sw_ebridge_list_init();
    registered("user")->stat = 5;
    EXPECT_EQ(0, sw_ebridge_match_db_init(0, "user"));
    EXPECT_EQ(5, sw_ebridge_list_item_get("user")->stat);
    EXPECT_EQ(0, sw_ebridge_match_db_init(0, (kName31 + "more").c_str()));
    ASSERT_NE(nullptr, sw_ebridge_list_item_get(kName31.c_str()));
    EXPECT_STREQ(kName31.c_str(), sw_ebridge_list_item_get(kName31.c_str())->user_name);
}

TEST_F(Registry, MatchDbInitReportsTheTableThatFailed)
{
    const auto runs = fail_each_allocation([](uint64_t nth) {
        recording::fail_allocation(nth);
        const int32_t result = sw_ebridge_match_db_init(0, nullptr);
        const bool failed = recording::allocations() >= nth;
        EXPECT_EQ(failed ? -1 : 0, result);
        return !failed;
    });
    EXPECT_THAT(distinct(runs), ElementsAre("Assert:HASH[0] init failed.", "Assert:EBIDGE user list init failed.\n",
                                            "Assert:EMatch DB init failed.\n"));
}

}  // namespace
}  // namespace core_test
