// The table of match rules: what makes an item one of its own, and the calls that store, find, remove and visit items.
#include <functional>
#include <set>

#include "ematch_fixture.hpp"

namespace
{

using namespace ematch_test;
using EmatchInsert = EmatchTest;
using EmatchGet = EmatchTest;
using EmatchDelete = EmatchTest;
using EmatchEach = EmatchTest;
using EmatchVerify = EmatchTest;
using EmatchCompare = EmatchTest;
using EmatchMemory = EmatchTest;

constexpr char null_index[] = "Assert:Bad args EMATCH index.\n";

// One thing done to an item, and what it is called.
struct item_change {
    const char *name;
    std::function<void(sw_ematch_item &)> apply;
};

// The ways in which a key can differ from full_item's, its user apart.
std::vector<item_change> key_changes()
{
    std::vector<item_change> all = {
        {"match_type", [](sw_ematch_item &item) { ++item.match_type; }},
        {"match_flag", [](sw_ematch_item &item) { item.match_flag ^= 0x80000000; }},
        {"match_priority", [](sw_ematch_item &item) { --item.match_priority; }},
        {"evlan1", [](sw_ematch_item &item) { item.evlan1 ^= 1; }},
        {"evlan2", [](sw_ematch_item &item) { item.evlan2 ^= 1; }},
        {"eport", [](sw_ematch_item &item) { item.eport ^= 1; }},
        {"ipv4", [](sw_ematch_item &item) { item.ipv4 ^= 1; }},
        {"vnid", [](sw_ematch_item &item) { item.vnid ^= 1; }},
        {"label", [](sw_ematch_item &item) { item.label ^= 1; }},
        {"ip_mask", [](sw_ematch_item &item) { item.ip_mask ^= 1; }},
        {"frame_type", [](sw_ematch_item &item) { item.frame_type ^= 1; }},
        {"ether_type", [](sw_ematch_item &item) { item.ether_type ^= 1; }},
        {"ip_ver", [](sw_ematch_item &item) { item.ip_ver = 1; }},
        {"match_id", [](sw_ematch_item &item) { item.match_id ^= 1; }},
    };
    for (size_t i = 0; i < 6; ++i) {
        all.push_back({"mac", [i](sw_ematch_item &item) { item.mac[i] ^= 1; }});
        all.push_back({"mask", [i](sw_ematch_item &item) { item.mask[i] ^= 1; }});
    }
    for (size_t i = 0; i < 16; ++i)
        all.push_back({"ip", [i](sw_ematch_item &item) { item.ip[i] ^= 1; }});
    return all;
}

std::vector<item_change> other_changes()
{
    return {
        {"action_type", [](sw_ematch_item &item) { ++item.action_type; }},
        {"new_evlan1", [](sw_ematch_item &item) { ++item.new_evlan1; }},
        {"new_evlan2", [](sw_ematch_item &item) { ++item.new_evlan2; }},
        {"new_eport", [](sw_ematch_item &item) { ++item.new_eport; }},
        {"new_vnid", [](sw_ematch_item &item) { ++item.new_vnid; }},
        {"new_pri", [](sw_ematch_item &item) { ++item.new_pri; }},
        {"l3_iif", [](sw_ematch_item &item) { ++item.l3_iif; }},
        {"flag", [](sw_ematch_item &item) { ++item.flag; }},
        {"result", [](sw_ematch_item &item) { ++item.result; }},
        {"mom_db", [](sw_ematch_item &item) { ++item.mom_db; }},
        {"current_result", [](sw_ematch_item &item) { ++item.current_result; }},
        {"final_result", [](sw_ematch_item &item) { ++item.final_result; }},
    };
}

uint32_t items() { return sw_ematch_item_hash_size(0); }

// ---- storing

TEST_F(EmatchInsert, StoresACopyThatCarriesTheUser)
{
    sw_ebridge_list_item *app = add_user({.name = "app"});
    sw_ematch_item wanted = full_item(nullptr);
    wanted.mom_db = 14;
    wanted.current_result = fail_priority;
    wanted.final_result = fail_hw_hash;
    sw_ematch_item *stored = sw_ematch_db_hash_insert_item("app", &wanted);
    ASSERT_NE(stored, nullptr);
    EXPECT_NE(stored, &wanted);
    EXPECT_EQ(wanted.user, app);
    EXPECT_EQ(bytes_of(*stored), bytes_of(wanted));
    EXPECT_EQ(items(), 1u);
}

TEST_F(EmatchInsert, TakesTheUserThatItIsToldWhateverTheItemSays)
{
    add_user({.name = "app"});
    sw_ebridge_list_item *other = add_user({.name = "other"});
    sw_ematch_item wanted = full_item(sw_ebridge_list_item_get("app"));
    EXPECT_EQ(sw_ematch_db_hash_insert_item("other", &wanted)->user, other);
    EXPECT_EQ(wanted.user, other);
    EXPECT_EQ(held("app", full_rule()), nullptr);
}

TEST_F(EmatchInsert, OfTwoUsersGivesTwoItemsOfOneIndex)
{
    add_user({.name = "app"});
    add_user({.name = "other"});
    const full_rule shared;
    const sw_ematch_item *of_app = insert("app", shared), *of_other = insert("other", shared);
    EXPECT_EQ(items(), 2u);
    EXPECT_NE(of_app, of_other);
    EXPECT_EQ(held("app", shared), of_app);
    EXPECT_EQ(held("other", shared), of_other);
}

TEST_F(EmatchInsert, OfOneUserTwiceLeavesTheSecondContent)
{
    add_user({.name = "app"});
    sw_ematch_item first = full_item(nullptr), second = full_item(nullptr);
    for (const item_change &change : other_changes())
        change.apply(second);
    sw_ematch_item *stored = sw_ematch_db_hash_insert_item("app", &first);
    EXPECT_EQ(sw_ematch_db_hash_insert_item("app", &second), stored);
    EXPECT_EQ(items(), 1u);
    EXPECT_EQ(bytes_of(*stored), bytes_of(second));
}

TEST_F(EmatchInsert, StoresTheStoredItemItself)
{
    add_user({.name = "app"});
    sw_ematch_item *stored = insert(full_rule());
    stored->final_result = fail_priority;
    EXPECT_EQ(sw_ematch_db_hash_insert_item("app", stored), stored);
    EXPECT_EQ(stored->final_result, fail_priority);
    EXPECT_EQ(items(), 1u);
}

TEST_F(EmatchInsert, StoresAnotherUsersStoredItemForThisOneAsWell)
{
    add_user({.name = "app"});
    add_user({.name = "other"});
    sw_ematch_item *stored = insert(full_rule());
    const sw_ematch_item *others = sw_ematch_db_hash_insert_item("other", stored);
    ASSERT_NE(others, nullptr);
    EXPECT_NE(others, stored);
    EXPECT_STREQ(stored->user->user_name, "app");
    EXPECT_STREQ(others->user->user_name, "other");
    const full_rule rule;
    EXPECT_EQ(sw_ematch_db_hash_get_item("app", &rule.index), stored);
    EXPECT_EQ(sw_ematch_db_hash_get_item("other", &rule.index), others);
    EXPECT_EQ(items(), 2u);
}

TEST_F(EmatchInsert, KeepsRulesApartThatDifferInAnyFieldOfTheKey)
{
    add_user({.name = "app"});
    uint32_t expected = 1;
    sw_ematch_item whole = full_item(nullptr);
    sw_ematch_db_hash_insert_item("app", &whole);
    for (const item_change &change : key_changes()) {
        sw_ematch_item changed = full_item(nullptr);
        change.apply(changed);
        const sw_ematch_item *stored = sw_ematch_db_hash_insert_item("app", &changed);
        ASSERT_NE(stored, nullptr);
        EXPECT_EQ(bytes_of(*stored), bytes_of(changed)) << change.name;
        EXPECT_EQ(items(), ++expected) << change.name;
    }
    EXPECT_EQ(bytes_of(*held("app", full_rule())), bytes_of(whole));
}

TEST_F(EmatchInsert, OverwritesARuleThatDiffersInAnyOtherField)
{
    add_user({.name = "app"});
    for (const item_change &change : other_changes()) {
        sw_ematch_item changed = full_item(nullptr);
        change.apply(changed);
        const sw_ematch_item *stored = sw_ematch_db_hash_insert_item("app", &changed);
        ASSERT_NE(stored, nullptr);
        EXPECT_EQ(bytes_of(*stored), bytes_of(changed)) << change.name;
        EXPECT_EQ(items(), 1u) << change.name;
    }
}

// Flips each byte: those of the key make another item, those behind it do not.
TEST_F(EmatchInsert, ComparesEveryByteOfTheKeyAndNoneBehindIt)
{
    add_user({.name = "app"});
    constexpr size_t key_size = sizeof(void *) == 4 ? 92 : 96;
    uint32_t expected = 1;
    sw_ematch_item whole = full_item(nullptr);
    sw_ematch_db_hash_insert_item("app", &whole);
    for (size_t at = sizeof whole.user; at < sizeof whole; ++at) {
        sw_ematch_item changed = full_item(nullptr);
        reinterpret_cast<uint8_t *>(&changed)[at] ^= 0x80;
        sw_ematch_db_hash_insert_item("app", &changed);
        expected += at < key_size ? 1 : 0;
        EXPECT_EQ(items(), expected) << at;
    }
}

TEST_F(EmatchInsert, LogsTheItemAndItsPrintersResult)
{
    add_user({.name = "app"});
    const sw_ematch_item *stored = insert(full_rule());
    ASSERT_NE(stored, nullptr);
    EXPECT_THAT(trace(), ElementsAre(item_line(*stored),
                                     "debug sw_ematch_db_hash_insert_item: sw_ematch_db_hash_insert_item: 0."));
}

// The info level admits the printer's line, but nobody asks for it then.
TEST_F(EmatchInsert, PrintsNothingBelowTheDebugLevel)
{
    add_user({.name = "app"});
    g_sw_vlan_file_zlog_level = 4;
    insert(full_rule());
    EXPECT_THAT(trace(), IsEmpty());
    g_sw_vlan_file_zlog_level = 5;
    insert(full_rule());
    EXPECT_THAT(trace(), SizeIs(2));
}

TEST_F(EmatchInsert, RefusesAnUnknownUser)
{
    add_user({.name = "app"});
    sw_ematch_item wanted = full_item(nullptr);
    EXPECT_EQ(sw_ematch_db_hash_insert_item("nobody", &wanted), nullptr);
    EXPECT_THAT(trace(), ElementsAre("error sw_ematch_db_hash_insert_item: " + no_user("nobody")));
    EXPECT_EQ(sw_ematch_db_hash_insert_item(nullptr, &wanted), nullptr);
    EXPECT_EQ(errors().back(), no_user("NULL"));
    EXPECT_EQ(wanted.user, nullptr);
    EXPECT_EQ(items(), 0u);
}

TEST_F(EmatchInsert, RefusesNull)
{
    add_user({.name = "app"});
    EXPECT_EQ(sw_ematch_db_hash_insert_item("app", nullptr), nullptr);
    EXPECT_THAT(errors(), ElementsAre(StartsWith("Assert:")));
    EXPECT_EQ(items(), 0u);
}

TEST_F(EmatchInsert, MakesNoTable)
{
    sw_ebridge_list_init();
    sw_ebridge_list_item bare{};
    strcpy(bare.user_name, "app");
    sw_ebridge_list_add(&bare);
    EXPECT_EQ(insert(full_rule()), nullptr);
    EXPECT_EQ(held("app", full_rule()), nullptr);
    EXPECT_EQ(sw_ematch_db_hash_each_item(nullptr, nullptr, nullptr), -5);
}

TEST_F(EmatchInsert, GoesByTheFirst31CharactersOfAName)
{
    sw_ebridge_list_item *app = add_user({.name = name_of_31});
    EXPECT_EQ(insert(name_of_40, full_rule())->user, app);
    EXPECT_NE(held(name_of_31, full_rule()), nullptr);
}

// ---- finding

TEST_F(EmatchGet, GoesByTheUserThatItIsToldAndNotByTheIndex)
{
    add_user({.name = "app"});
    add_user({.name = "other"});
    const full_rule of_app("app"), of_other("other"), of_nobody("nobody");
    const sw_ematch_item *stored = insert(of_app);
    EXPECT_EQ(held("app", of_other), stored);
    EXPECT_EQ(held("app", of_nobody), stored);
    EXPECT_EQ(held("other", of_app), nullptr);
    recording::reset();
    full_rule nameless(nullptr);
    EXPECT_EQ(held("app", nameless), stored);
    EXPECT_THAT(trace(), IsEmpty());
}

TEST_F(EmatchGet, FindsWhatHasTheSameKeyOnly)
{
    add_user({.name = "app"});
    insert(full_rule());
    const auto absent = [](const std::function<void(UBridge__EmatchIndex &)> &change) {
        full_rule other;
        change(other.index);
        return held("app", other) == nullptr;
    };
    EXPECT_FALSE(absent([](UBridge__EmatchIndex &) {}));
    EXPECT_TRUE(absent([](UBridge__EmatchIndex &index) { index.match_type = 0; }));
    EXPECT_TRUE(absent([](UBridge__EmatchIndex &index) { index.match_flag = 0; }));
    EXPECT_TRUE(absent([](UBridge__EmatchIndex &index) { index.match_priority = 5; }));
    EXPECT_TRUE(absent([](UBridge__EmatchIndex &index) { index.evlan1 = 0; }));
    EXPECT_TRUE(absent([](UBridge__EmatchIndex &index) { index.evlan2 = 0; }));
    EXPECT_TRUE(absent([](UBridge__EmatchIndex &index) { index.eport = 0; }));
    EXPECT_TRUE(absent([](UBridge__EmatchIndex &index) { index.ipv4 = 0; }));
    EXPECT_TRUE(absent([](UBridge__EmatchIndex &index) { index.vnid = 0; }));
    EXPECT_TRUE(absent([](UBridge__EmatchIndex &index) { index.label = 0; }));
    EXPECT_TRUE(absent([](UBridge__EmatchIndex &index) { index.ip_mask = 0; }));
    EXPECT_TRUE(absent([](UBridge__EmatchIndex &index) { index.mac = nullptr; }));
    EXPECT_TRUE(absent([](UBridge__EmatchIndex &index) { index.mask = nullptr; }));
    EXPECT_TRUE(absent([](UBridge__EmatchIndex &index) { index.frame_type = 0; }));
    EXPECT_TRUE(absent([](UBridge__EmatchIndex &index) { index.ether_type = 0; }));
    EXPECT_TRUE(absent([](UBridge__EmatchIndex &index) { index.ip = nullptr; }));
    EXPECT_TRUE(absent([](UBridge__EmatchIndex &index) { index.match_id = 0; }));
}

TEST_F(EmatchGet, TakesAddressesThatAreNotSetAsZeroOnes)
{
    add_user({.name = "app"});
    const rule bare;
    const sw_ematch_item *stored = insert(bare);
    rule zeros;
    zeros.with_mac(bytes(6)).with_mask(bytes(6)).with_v4(0);
    EXPECT_EQ(held("app", zeros), stored);
    rule empty;
    empty.with_mac({}).with_mask({}).with_hollow_ip(P_LIBPUB__IP__IP__NOT_SET);
    EXPECT_EQ(held("app", empty), stored);
    EXPECT_EQ(insert(zeros), stored);
    EXPECT_EQ(insert(empty), stored);
    EXPECT_EQ(insert(bare), stored);
    EXPECT_EQ(items(), 1u);
}

// An address of 16 zero bytes is a v6 one.
TEST_F(EmatchGet, TellsTheZeroAddressesOfTwoFormsApart)
{
    add_user({.name = "app"});
    rule v4, v6;
    v4.with_v4(0);
    v6.with_v6(bytes(16));
    EXPECT_NE(insert(v4), insert(v6));
    EXPECT_EQ(items(), 2u);
}

TEST_F(EmatchGet, TellsAVersionFourAddressFromItsBytesInAVersionSixOne)
{
    add_user({.name = "app"});
    rule v4, v6;
    v4.with_v4(ipv4_word(192, 168, 1, 1));
    bytes same(16);
    same[0] = 192, same[1] = 168, same[2] = 1, same[3] = 1;
    v6.with_v6(same);
    EXPECT_NE(insert(v4), insert(v6));
    EXPECT_EQ(items(), 2u);
}

TEST_F(EmatchGet, RefusesUnknownUsersAndNull)
{
    add_user({.name = "app"});
    EXPECT_EQ(held("nobody", full_rule()), nullptr);
    EXPECT_THAT(trace(), ElementsAre("error sw_ematch_db_hash_get_item: " + no_user("nobody")));
    EXPECT_EQ(held(nullptr, full_rule()), nullptr);
    EXPECT_EQ(errors().back(), no_user("NULL"));
    recording::reset();
    EXPECT_EQ(sw_ematch_db_hash_get_item("app", nullptr), nullptr);
    EXPECT_THAT(errors(), ElementsAre(StartsWith("Assert:")));
}

TEST_F(EmatchGet, SaysNothingOfWhatItFindsOrDoesNotFind)
{
    add_user({.name = "app"});
    EXPECT_EQ(held("app", full_rule()), nullptr);
    EXPECT_THAT(trace(), IsEmpty());
    insert(full_rule());
    recording::reset();
    EXPECT_NE(held("app", full_rule()), nullptr);
    EXPECT_THAT(trace(), IsEmpty());
}

// ---- removing

TEST_F(EmatchDelete, FreesTheItemAndLogsItBefore)
{
    add_user({.name = "app"});
    sw_ematch_item *stored = insert(full_rule());
    const std::string line = item_line(*stored);
    recording::reset();
    int32_t result = -1;
    const auto blocks = freed_by([&] { result = sw_ematch_db_hash_del_item("app", index_of(full_rule())); });
    EXPECT_EQ(result, 0);
    EXPECT_THAT(blocks, Contains(stored));
    EXPECT_THAT(trace(), ElementsAre(line, "debug sw_ematch_db_hash_del_item: sw_ematch_db_hash_del_item: 0."));
    EXPECT_EQ(held("app", full_rule()), nullptr);
    EXPECT_EQ(items(), 0u);
}

TEST_F(EmatchDelete, TakesTheUsersItemAndNoOther)
{
    add_user({.name = "app"});
    add_user({.name = "other"});
    insert("app", full_rule());
    sw_ematch_item *kept = insert("other", full_rule());
    EXPECT_EQ(sw_ematch_db_hash_del_item("app", index_of(full_rule("other"))), 0);
    EXPECT_EQ(held("app", full_rule()), nullptr);
    EXPECT_EQ(held("other", full_rule()), kept);
}

TEST_F(EmatchDelete, WarnsOfWhatIsNotThere)
{
    add_user({.name = "app"});
    add_user({.name = "other"});
    insert("other", full_rule());
    recording::reset();
    EXPECT_EQ(sw_ematch_db_hash_del_item("app", index_of(full_rule())), 0);
    EXPECT_THAT(trace(), ElementsAre("warning sw_ematch_db_hash_del_item: match_type: 0x9, match_flag: 0x105, "
                                     "match_priority: 6 not in ematch db hash."));
    EXPECT_EQ(items(), 1u);
    full_rule negative;
    negative.with_priority(-1);
    recording::reset();
    EXPECT_EQ(sw_ematch_db_hash_del_item("app", &negative.index), 0);
    EXPECT_TRUE(
        recording::has_logged("match_type: 0x9, match_flag: 0x105, match_priority: -1 not in ematch db hash.", 80));
}

TEST_F(EmatchDelete, WarnsAtTheSecondTime)
{
    add_user({.name = "app"});
    insert(full_rule());
    EXPECT_EQ(sw_ematch_db_hash_del_item("app", index_of(full_rule())), 0);
    EXPECT_THAT(recording::logged(80), IsEmpty());
    EXPECT_EQ(sw_ematch_db_hash_del_item("app", index_of(full_rule())), 0);
    EXPECT_THAT(recording::logged(80), SizeIs(1));
}

TEST_F(EmatchDelete, RefusesUnknownUsersAndNull)
{
    add_user({.name = "app"});
    EXPECT_EQ(sw_ematch_db_hash_del_item("nobody", index_of(full_rule())), -2);
    EXPECT_THAT(errors(), ElementsAre(no_user("nobody")));
    EXPECT_EQ(sw_ematch_db_hash_del_item(nullptr, index_of(full_rule())), -2);
    EXPECT_EQ(errors().back(), no_user("NULL"));
    EXPECT_THAT(recording::logged(80), IsEmpty());
    recording::reset();
    EXPECT_EQ(sw_ematch_db_hash_del_item("app", nullptr), -2);
    EXPECT_THAT(errors(), ElementsAre(StartsWith("Assert:")));
}

// ---- visiting

struct visit {
    std::set<const sw_ematch_item *> items;
    std::vector<int32_t> positions;
    size_t stop_after = SIZE_MAX;
    bool deletes = false;
};

int32_t visitor(sw_ematch_item *item, void *args, int32_t position)
{
    auto *made = static_cast<visit *>(args);
    EXPECT_TRUE(made->items.insert(item).second) << "visited twice";
    made->positions.push_back(position);
    if (made->deletes)
        sw_ematch_item_cache_destroy(0, item);
    return made->items.size() >= made->stop_after ? -9 : 0;
}

visit visited(const char *name, size_t stop_after = SIZE_MAX, bool deletes = false)
{
    visit made;
    made.stop_after = stop_after;
    made.deletes = deletes;
    EXPECT_EQ(sw_ematch_db_hash_each_item(name, visitor, &made), 0);
    return made;
}

std::set<const sw_ematch_item *> insert_many(const char *name, int32_t count)
{
    std::set<const sw_ematch_item *> stored;
    for (int32_t evlan = 1; evlan <= count; ++evlan)
        stored.insert(insert(name, rule().with_evlan(evlan)));
    return stored;
}

TEST_F(EmatchEach, NeedsATable)
{
    sw_vlan_debug_init("app", nullptr);
    recording::reset();
    EXPECT_EQ(sw_ematch_db_hash_each_item(nullptr, visitor, nullptr), -5);
    EXPECT_EQ(sw_ematch_db_hash_each_item("app", visitor, nullptr), -5);
    const std::string missing = "error sw_ematch_db_hash_each_item: Assert:EMATCH DB not inited.\n";
    EXPECT_THAT(trace(), ElementsAre(missing, missing));
}

TEST_F(EmatchEach, VisitsTheItemsOfAllUsersInTheTablesOrder)
{
    add_user({.name = "app"});
    add_user({.name = "other"});
    EXPECT_THAT(visited(nullptr).items, IsEmpty());
    std::set<const sw_ematch_item *> all = insert_many("app", 20);
    all.merge(insert_many("other", 20));
    const visit made = visited(nullptr);
    EXPECT_EQ(made.items, all);
    EXPECT_TRUE(std::is_sorted(made.positions.begin(), made.positions.end(), std::less_equal<>()));
}

TEST_F(EmatchEach, EndsWithTheFirstResultThatIsNot0)
{
    add_user({.name = "app"});
    insert_many("app", 20);
    EXPECT_EQ(visited(nullptr, 3).items.size(), 3u);
    EXPECT_EQ(visited(nullptr, 1).items.size(), 1u);
}

TEST_F(EmatchEach, OfAUserVisitsThatUsersItemsWhateverTheResults)
{
    add_user({.name = "app"});
    add_user({.name = "other"});
    const std::set<const sw_ematch_item *> own = insert_many("app", 20);
    insert_many("other", 20);
    EXPECT_EQ(visited("app").items, own);
    EXPECT_EQ(visited("app", 1).items, own);
}

TEST_F(EmatchEach, OfAUserWithoutItemsVisitsNone)
{
    add_user({.name = "app"});
    add_user({.name = "idle"});
    insert_many("app", 20);
    EXPECT_THAT(visited("idle").items, IsEmpty());
    EXPECT_THAT(visited("nobody").items, IsEmpty());
    EXPECT_THAT(visited("").items, IsEmpty());
    EXPECT_THAT(visited("ap").items, IsEmpty());
}

TEST_F(EmatchEach, LetsTheVisitorDeleteWhatItIsGiven)
{
    add_user({.name = "app"});
    add_user({.name = "other"});
    const std::set<const sw_ematch_item *> own = insert_many("app", 40), others = insert_many("other", 40);
    EXPECT_EQ(visited("app", SIZE_MAX, true).items, own);
    EXPECT_EQ(visited(nullptr).items, others);
    EXPECT_EQ(visited(nullptr, SIZE_MAX, true).items, others);
    EXPECT_EQ(items(), 0u);
}

TEST_F(EmatchEach, RefusesANullVisitor)
{
    add_user({.name = "app"});
    insert_many("app", 2);
    recording::reset();
    EXPECT_EQ(sw_ematch_db_hash_each_item(nullptr, nullptr, nullptr), -2);
    EXPECT_EQ(sw_ematch_db_hash_each_item("app", nullptr, nullptr), -2);
    EXPECT_THAT(errors(), testing::AllOf(SizeIs(2), Each(StartsWith("Assert:"))));
}

// ---- making what is missing

TEST_F(EmatchVerify, GivesTheItemThatIsThereAsItIs)
{
    add_user({.name = "app"});
    sw_ematch_item *stored = insert(full_rule());
    const std::string before = bytes_of(*stored);
    recording::reset();
    EXPECT_EQ(sw_ematch_db_verify(0, index_of(full_rule())), stored);
    EXPECT_EQ(bytes_of(*stored), before);
    EXPECT_THAT(trace(), IsEmpty());
}

TEST_F(EmatchVerify, MakesAnItemOfTheIndexAlone)
{
    sw_ebridge_list_item *app = add_user({.name = "app"});
    const full_rule wanted;
    spoil_memory();
    sw_ematch_item *made = sw_ematch_db_verify(0, &wanted.index);
    ASSERT_NE(made, nullptr);
    sw_ematch_item expected = blank_item();
    const sw_ematch_item whole = full_item(app);
    std::memcpy(static_cast<void *>(&expected), &whole, offsetof(sw_ematch_item, action_type));
    EXPECT_EQ(bytes_of(*made), bytes_of(expected));
    EXPECT_EQ(held("app", wanted), made);
    EXPECT_EQ(items(), 1u);
}

TEST_F(EmatchVerify, MakesTableAndUserToo)
{
    sw_ematch_item *made = sw_ematch_db_verify(0, index_of(full_rule("stranger")));
    ASSERT_NE(made, nullptr);
    const sw_ebridge_list_item *stranger = sw_ebridge_list_item_get("stranger");
    ASSERT_NE(stranger, nullptr);
    EXPECT_EQ(made->user, stranger);
    EXPECT_EQ(stranger->mom_handle, nullptr);
    EXPECT_EQ(sw_ematch_db_verify(0, index_of(full_rule("stranger"))), made);
}

TEST_F(EmatchVerify, LeavesARegisteredUserAlone)
{
    add_user({.name = "app", .handle = recording::other_handle()});
    sw_ematch_db_verify(0, index_of(full_rule()));
    EXPECT_EQ(sw_ebridge_list_item_get("app")->mom_handle, recording::other_handle());
    EXPECT_EQ(sw_ebridge_list_item_hash_size(0), 1u);
}

// Whoever initialises only afterwards finds the name taken: its arguments count, nothing is connected.
TEST_F(EmatchVerify, MakesALaterInitialisationARefresh)
{
    sw_ematch_item *made = sw_ematch_db_verify(0, index_of(full_rule()));
    sw_ebridge_list_item *app = add_user({.name = "app", .handle = recording::other_handle()});
    EXPECT_EQ(app->mom_handle, recording::other_handle());
    EXPECT_EQ(held("app", full_rule()), made);
}

// Items belong to users of slot 0.
TEST_F(EmatchVerify, OfAnotherListRegistersThereAndMakesNoItem)
{
    add_user({.name = "app"});
    EXPECT_EQ(sw_ematch_db_verify(3, index_of(full_rule("stranger"))), nullptr);
    EXPECT_NE(sw_ebridge_list_item_get_inst(3, "stranger"), nullptr);
    EXPECT_EQ(sw_ebridge_list_item_get("stranger"), nullptr);
    EXPECT_THAT(errors(), Contains(no_user("stranger")));
    EXPECT_EQ(sw_ematch_db_verify(6, index_of(full_rule("stranger"))), nullptr);
    EXPECT_EQ(items(), 0u);
}

TEST_F(EmatchVerify, RefusesNull)
{
    add_user({.name = "app"});
    EXPECT_EQ(sw_ematch_db_verify(0, nullptr), nullptr);
    EXPECT_THAT(trace(), ElementsAre(std::string("error sw_ematch_db_verify: ") + null_index));
    recording::reset();
    EXPECT_EQ(sw_ematch_db_verify(0, index_of(full_rule(nullptr))), nullptr);
    EXPECT_THAT(trace(), ElementsAre("error sw_ematch_db_verify: Assert:Bad args EMATCH user.\n"));
    EXPECT_EQ(items(), 0u);
}

TEST_F(EmatchVerify, CutsALongName)
{
    const sw_ematch_item *made = sw_ematch_db_verify(0, index_of(full_rule(name_of_40)));
    ASSERT_NE(made, nullptr);
    EXPECT_STREQ(made->user->user_name, name_of_31);
    EXPECT_EQ(sw_ematch_db_verify(0, index_of(full_rule(name_of_31))), made);
}

// ---- making the table

using EmatchInit = EmatchTest;

TEST_F(EmatchInit, KeepsTheTableAndItsItems)
{
    add_user({.name = "app"});
    sw_ematch_item *stored = insert(full_rule());
    EXPECT_EQ(sw_ebridge_match_db_init(0, "app"), 0);
    EXPECT_EQ(sw_ebridge_match_db_init(0, nullptr), 0);
    add_user({.name = "app"});
    EXPECT_EQ(held("app", full_rule()), stored);
    EXPECT_EQ(items(), 1u);
}

TEST_F(EmatchInit, WithoutANameAddsNobody)
{
    EXPECT_EQ(sw_ebridge_match_db_init(0, nullptr), 0);
    EXPECT_EQ(sw_ebridge_list_item_hash_size(0), 0u);
    EXPECT_THAT(visited(nullptr).items, IsEmpty());
}

TEST_F(EmatchInit, OfAListThatIsNotThereMakesTheTableAndAddsNobody)
{
    sw_vlan_debug_init("app", nullptr);
    for (const int32_t list : {6, 7, -1, INT32_MIN}) {
        recording::reset();
        EXPECT_EQ(sw_ebridge_match_db_init(list, "app"), 0);
        EXPECT_THAT(errors(), ElementsAre(format("Assert:Bad inst[%d].", list), "Assert:DL_HASH_CREATE fail."));
    }
    for (uint32_t table = 0; table < SW_EBRIDGE_SLOTS; ++table)
        EXPECT_EQ(sw_ebridge_list_item_hash_size(table), 0u);
    EXPECT_THAT(visited(nullptr).items, IsEmpty());
}

// ---- the comparison for programs

// Differs from full_item in mac, mask and ip, and in nothing else.
sw_ematch_item other_addresses()
{
    sw_ematch_item item = full_item(nullptr);
    item.mac[5] ^= 1;
    item.mask[0] ^= 1;
    item.ip[15] ^= 1;
    return item;
}

int32_t compared(const sw_ematch_item &a, const sw_ematch_item &b) { return sw_ematch_db_hash_cmp_key(&a, &b); }

TEST_F(EmatchCompare, AnItemIsNotTheSameAsItself)
{
    const sw_ematch_item item = full_item(nullptr), blank = blank_item();
    EXPECT_EQ(compared(item, item), -1);
    EXPECT_EQ(compared(item, full_item(nullptr)), -1);
    EXPECT_EQ(compared(blank, blank), -1);
}

TEST_F(EmatchCompare, SaysSameWhenAllThreeAddressesDiffer)
{
    EXPECT_EQ(compared(full_item(nullptr), other_addresses()), 0);
    EXPECT_EQ(compared(other_addresses(), full_item(nullptr)), 0);
}

TEST_F(EmatchCompare, OneEqualAddressIsEnoughForAnother)
{
    const sw_ematch_item whole = full_item(nullptr);
    sw_ematch_item same_mac = other_addresses(), same_mask = other_addresses(), same_ip = other_addresses();
    std::copy(std::begin(whole.mac), std::end(whole.mac), same_mac.mac);
    std::copy(std::begin(whole.mask), std::end(whole.mask), same_mask.mask);
    std::copy(std::begin(whole.ip), std::end(whole.ip), same_ip.ip);
    EXPECT_EQ(compared(whole, same_mac), -1);
    EXPECT_EQ(compared(whole, same_mask), -1);
    EXPECT_EQ(compared(whole, same_ip), -1);
    same_ip.ip_ver = 1;
    EXPECT_EQ(compared(whole, same_ip), 0);
}

TEST_F(EmatchCompare, LooksAtSixBytesOfMacAndMask)
{
    const sw_ematch_item whole = full_item(nullptr);
    for (const bool is_mac : {true, false}) {
        sw_ematch_item padded = other_addresses();
        uint8_t(&address)[8] = is_mac ? padded.mac : padded.mask;
        std::copy_n(is_mac ? whole.mac : whole.mask, 6, address);
        address[6] = address[7] = 0xff;
        EXPECT_EQ(compared(whole, padded), -1);
    }
}

TEST_F(EmatchCompare, AnyOtherDifferenceOfTheRuleIsOne)
{
    const std::set<std::string> not_compared = {"match_priority", "ip_mask", "mac", "mask", "ip", "ip_ver"};
    for (const item_change &change : key_changes()) {
        sw_ematch_item changed = other_addresses();
        change.apply(changed);
        if (not_compared.count(change.name) != 0)
            continue;
        EXPECT_EQ(compared(full_item(nullptr), changed), -1) << change.name;
    }
}

TEST_F(EmatchCompare, UserPriorityAndAllThatIsNoKeyDoNotCount)
{
    sw_ebridge_list_item owner{};
    sw_ematch_item changed = other_addresses();
    changed.user = &owner;
    changed.match_priority = -1;
    changed.ip_mask = 0;
    for (const item_change &change : other_changes())
        change.apply(changed);
    EXPECT_EQ(compared(full_item(nullptr), changed), 0);
}

TEST_F(EmatchCompare, NullIsNotTheSameAsAnything)
{
    add_user({.name = "app"});
    const sw_ematch_item item = full_item(nullptr);
    EXPECT_EQ(sw_ematch_db_hash_cmp_key(nullptr, &item), -1);
    EXPECT_EQ(sw_ematch_db_hash_cmp_key(&item, nullptr), -1);
    EXPECT_EQ(sw_ematch_db_hash_cmp_key(nullptr, nullptr), -1);
    EXPECT_THAT(trace(), IsEmpty());
}

// ---- memory

// A key is built in memory that holds something else, each time something different.
TEST_F(EmatchMemory, OfBeforeIsInNoKey)
{
    add_user({.name = "app"});
    const rule bare;
    spoil_memory();
    sw_ematch_item *made = sw_ematch_db_verify(0, &bare.index);
    ASSERT_NE(made, nullptr);
    sw_ematch_item expected = blank_item();
    expected.user = sw_ebridge_list_item_get("app");
    EXPECT_EQ(bytes_of(*made), bytes_of(expected));
    EXPECT_EQ(held("app", bare), made);
    spoil_memory();
    EXPECT_EQ(held("app", bare), made);
    spoil_memory();
    EXPECT_NE(sw_ematch_calc_final_values(recording::handle(), &bare.index, 0), nullptr);
    spoil_memory();
    EXPECT_EQ(sw_ematch_db_hash_del_item("app", &bare.index), 0);
    EXPECT_EQ(items(), 0u);
}

// What a program did not clear is part of its key, and the library's own keys do not find it.
TEST_F(EmatchMemory, ThatAProgramDidNotClearMakesAnotherKey)
{
    add_user({.name = "app"});
    sw_ematch_item wanted = full_item(nullptr);
    wanted.mac[7] = 0xa5;
    EXPECT_NE(sw_ematch_db_hash_insert_item("app", &wanted), nullptr);
    EXPECT_EQ(held("app", full_rule()), nullptr);
    EXPECT_NE(insert(full_rule()), nullptr);
    EXPECT_EQ(items(), 2u);
}

TEST_F(EmatchMemory, MissingForAnItemIsReportedAndLeavesTheTableAsItWas)
{
    add_user({.name = "app"});
    insert(rule().with_evlan(1));
    for (uint64_t nth = 1;; ++nth) {
        sw_ematch_item wanted = full_item(nullptr);
        const sw_ematch_item *stored = nullptr;
        const strings said =
            errors_when_allocation_fails(nth, [&] { stored = sw_ematch_db_hash_insert_item("app", &wanted); });
        if (stored != nullptr) {
            EXPECT_THAT(said, IsEmpty());
            EXPECT_GT(nth, 1u);
            break;
        }
        EXPECT_THAT(said, ElementsAre("sw_ematch_item DL_CACHE_CREATE failed."));
        EXPECT_EQ(held("app", full_rule()), nullptr);
        EXPECT_EQ(items(), 1u);
    }
    EXPECT_EQ(items(), 2u);
}

TEST_F(EmatchMemory, IsNotNeededToOverwriteAnItem)
{
    add_user({.name = "app"});
    sw_ematch_item *stored = insert(full_rule());
    recording::fail_allocation(1, true);
    EXPECT_EQ(insert(full_rule()), stored);
    EXPECT_EQ(sw_ematch_db_verify(0, index_of(full_rule())), stored);
    recording::fail_allocation(0);
}

TEST_F(EmatchMemory, MissingForTheFirstItemLeavesATableThatWorks)
{
    add_user({.name = "app"});
    recording::fail_allocation(1, true);
    EXPECT_EQ(sw_ematch_db_verify(0, index_of(full_rule())), nullptr);
    recording::fail_allocation(0);
    EXPECT_EQ(items(), 0u);
    EXPECT_NE(sw_ematch_db_verify(0, index_of(full_rule())), nullptr);
    EXPECT_EQ(items(), 1u);
}

TEST_F(EmatchMemory, MissingForTableOrUserGivesNoItem)
{
    sw_vlan_debug_init("app", nullptr);
    recording::fail_allocation(1, true);
    EXPECT_EQ(sw_ematch_db_verify(0, index_of(full_rule())), nullptr);
    recording::fail_allocation(0);
    EXPECT_THAT(errors(), Contains("Assert:EBIDGE user list init failed.\n"));
}

}  // namespace
