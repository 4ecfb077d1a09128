// Aging: marking a user's records, what that does to the index map, and deleting what nobody asked for again.
#include "twin_fixture.hpp"

namespace
{

using namespace twin_test;

template <typename Kind>
using Mark = Twin<Kind>;
TYPED_TEST_SUITE(Mark, kinds);
template <typename Kind>
using AgedDelete = Twin<Kind>;
TYPED_TEST_SUITE(AgedDelete, kinds);
template <typename Kind>
using Clear = Twin<Kind>;
TYPED_TEST_SUITE(Clear, kinds);
template <typename Kind>
using AttributeAging = Twin<Kind>;
TYPED_TEST_SUITE(AttributeAging, kinds);

constexpr uint32_t granted = SW_INDEX_MAP_GRANTED, requested = SW_INDEX_MAP_REQUESTED;

int argument;

// It tells the user's handle.
std::string sync_failure(const char *title, uint32_t db)
{
    return format("Assert:Aging all %s of 'app' in db[%u] failed, global is %p, error is -105.\n", title, db,
                  static_cast<void *>(recording::other_handle()));
}

template <typename Kind>
uint32_t flag_of(int n)
{
    const auto *item = Kind::item(n);
    return item != nullptr ? item->ds_flag : 0xdead;
}

// ---- marking sessions

TYPED_TEST(Mark, RefusesUnknownUsers)
{
    add_twin();
    EXPECT_EQ(TypeParam::mark("nobody", &two_seconds, ended, nullptr), -2);
    EXPECT_THAT(trace(), ElementsAre(line<TypeParam>("error", "aging_flag_set", no_such_user)));
    EXPECT_EQ(TypeParam::mark(nullptr, &two_seconds, ended, nullptr), -2);
    EXPECT_EQ(trace().back(), line<TypeParam>("error", "aging_flag_set", "Assert:No user named 'NULL'.\n"));
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TYPED_TEST(Mark, GivesEverySessionOfTheUserAnExpiry)
{
    add_twin();
    EXPECT_EQ(TypeParam::mark("app", &two_seconds, ended, &argument), 0);
    EXPECT_THAT(trace(),
                ElementsAre(line<TypeParam>("info", "aging_flag_set",
                                            format("user_name: app, aging_timer: %p, func_callback: %p, args: %p.",
                                                   static_cast<const void *>(&two_seconds), address(ended),
                                                   static_cast<void *>(&argument))),
                            "qz_mom_pexpire 4 " + sessions_of<TypeParam>("app")));
    const recording::call made = only_call();
    expect_pattern_call(made, "qz_mom_pexpire", 4, sessions_of<TypeParam>("app"));
    expect_delay(made, two_seconds);
    EXPECT_EQ(made.callback, address(ended));
    EXPECT_EQ(made.args, &argument);
}

TYPED_TEST(Mark, IsOfTheUsersOwnDatabase)
{
    add_twin({.db = 8});
    EXPECT_EQ(TypeParam::mark("app", nullptr, ended, nullptr), 0);
    EXPECT_EQ(only_call().db, 8u);
}

TYPED_TEST(Mark, WithoutTimerLastsHalfAnHour)
{
    add_twin();
    EXPECT_EQ(TypeParam::mark("app", nullptr, ended, nullptr), 0);
    expect_default_delay(only_call());
    EXPECT_EQ(
        trace().front(),
        line<TypeParam>("info", "aging_flag_set",
                        format("user_name: app, aging_timer: (nil), func_callback: %p, args: (nil).", address(ended))));
}

TYPED_TEST(Mark, WithoutCallbackTakesTheDefaultAndWarns)
{
    add_twin();
    EXPECT_EQ(TypeParam::mark("app", &two_seconds, nullptr, &argument), 0);
    EXPECT_THAT(
        trace(),
        ElementsAre(line<TypeParam>("info", "aging_flag_set",
                                    format("user_name: app, aging_timer: %p, func_callback: (nil), args: %p.",
                                           static_cast<const void *>(&two_seconds), static_cast<void *>(&argument))),
                    line<TypeParam>("warning", "aging_flag_set",
                                    words<TypeParam>("sw_NAME_aging_flag_set func_callback is null.")),
                    "qz_mom_pexpire 4 " + sessions_of<TypeParam>("app")));
    EXPECT_EQ(only_call().callback, address(TypeParam::default_callback));
    EXPECT_EQ(only_call().args, &argument);
}

TYPED_TEST(Mark, DefaultCallbackOnlyWarns)
{
    add_twin();
    notice end(QZ_MOM_CMD_NONE);
    end.end = QZ_MOM_END_EXPIRY;
    EXPECT_EQ(TypeParam::default_callback(recording::handle(), &end, nullptr), 0);
    EXPECT_EQ(TypeParam::default_callback(nullptr, nullptr, nullptr), 0);
    EXPECT_THAT(trace(), testing::AllOf(SizeIs(2), Each(line<TypeParam>("warning", "aging_default_callbak",
                                                                        "this is a default pexpire funcallback."))));
}

TYPED_TEST(Mark, ClearsTheActiveBitOfEveryItemOfTheUserAndNoOther)
{
    add_twin();
    add_twin({.name = "other"});
    add_item<TypeParam>("app", 1, granted | requested);
    add_item<TypeParam>("app", 2, requested);
    add_item<TypeParam>("app", 3, granted);
    add_item<TypeParam>("app", 4, 0xffffffff);
    add_item<TypeParam>("other", 5, granted | requested);
    EXPECT_EQ(TypeParam::mark("app", nullptr, ended, nullptr), 0);
    EXPECT_EQ(flag_of<TypeParam>(1), granted);
    EXPECT_EQ(flag_of<TypeParam>(2), 0u);
    EXPECT_EQ(flag_of<TypeParam>(3), granted);
    EXPECT_EQ(flag_of<TypeParam>(4), 0xfffffffd);
    EXPECT_EQ(flag_of<TypeParam>(5), granted | requested);
}

TYPED_TEST(Mark, ClearsTheActiveBitOfReverseAndChipItemsToo)
{
    add_twin();
    std::vector<typename TypeParam::map> keys;
    for (const uint32_t kind : {SW_INDEX_MAP_UDP2APP, SW_INDEX_MAP_UDP2SDK, SW_INDEX_MAP_SDK2UDP, SW_INDEX_MAP_APP2UDP})
        keys.emplace_back(TypeParam::key(1)).kind = kind;
    for (const auto &key : keys)
        add_item<TypeParam>("app", key, granted | requested);
    EXPECT_EQ(TypeParam::mark("app", nullptr, ended, nullptr), 0);
    for (const auto &key : keys)
        EXPECT_EQ(TypeParam::find(key)->ds_flag, granted) << "kind " << key.kind;
}

TYPED_TEST(Mark, LeavesTheOtherKindsItemsAlone)
{
    add_twin();
    add_item<evlans>("app", 1, granted | requested);
    add_item<eports>("app", 1, granted | requested);
    EXPECT_EQ(TypeParam::mark("app", nullptr, ended, nullptr), 0);
    EXPECT_EQ(flag_of<evlans>(1) + flag_of<eports>(1), granted + (granted | requested));
    EXPECT_EQ(flag_of<TypeParam>(1), granted);
}

TYPED_TEST(Mark, ThatFailsIsReportedAndLeavesTheBitsCleared)
{
    add_twin();
    add_item<TypeParam>("app", 1, granted | requested);
    recording::set_result("qz_mom_pexpire", -105);
    EXPECT_EQ(TypeParam::mark("app", nullptr, ended, nullptr), -105);
    EXPECT_EQ(trace().back(),
              line<TypeParam>("error", "aging_flag_set",
                              format("Assert:qz_mom_pexpire failed, user: app, mom_handle: %p, mom_db: 4, rv: -105.",
                                     static_cast<void *>(recording::other_handle()))));
    EXPECT_EQ(errors().size(), 1u);
    EXPECT_EQ(flag_of<TypeParam>(1), granted);
}

// A second initialisation empties the user's lists: what was on them is met neither by marks nor by the deletion.
TYPED_TEST(Mark, MeetsNoItemsFromBeforeTheUserWasRegisteredAgain)
{
    add_twin();
    add_item<TypeParam>("app", 1, granted | requested);
    sw_ebridge_list_item *user = add_twin();
    EXPECT_EQ(TypeParam::mark("app", nullptr, ended, nullptr), 0);
    EXPECT_EQ(flag_of<TypeParam>(1), granted | requested);
    TypeParam::item(1)->ds_flag = granted;
    recording::reset();
    EXPECT_EQ(TypeParam::clear(user), 0);
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TYPED_TEST(Mark, OfALongNameGoesByItsFirst31Characters)
{
    const std::string name(31, 'n');
    add_twin({.name = name.c_str()});
    EXPECT_EQ(TypeParam::mark((name + "and more").c_str(), nullptr, ended, nullptr), 0);
    EXPECT_EQ(only_call().record, sessions_of<TypeParam>(name));
}

// ---- marking sessions: eports at once

using EportMarkSync = EportTest;

TEST_F(EportMarkSync, RefusesUnknownUsers)
{
    add_twin();
    EXPECT_EQ(sw_eport_aging_flag_set_sync("nobody", nullptr), -2);
    EXPECT_THAT(trace(), ElementsAre(line<eports>("error", "aging_flag_set_sync", no_such_user)));
    EXPECT_EQ(sw_eport_aging_flag_set_sync(nullptr, nullptr), -2);
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TEST_F(EportMarkSync, MarksWithoutCallback)
{
    add_twin();
    EXPECT_EQ(sw_eport_aging_flag_set_sync("app", &two_seconds), 0);
    EXPECT_THAT(
        trace(),
        ElementsAre(line<eports>("info", "aging_flag_set_sync",
                                 format("user_name: app, aging_timer: %p\n", static_cast<const void *>(&two_seconds))),
                    "qz_mom_pexpire_sync 4 " + sessions_of<eports>("app")));
    const recording::call made = only_call();
    expect_pattern_call(made, "qz_mom_pexpire_sync", 4, sessions_of<eports>("app"));
    expect_delay(made, two_seconds);
}

TEST_F(EportMarkSync, WithoutTimerLastsHalfAnHour)
{
    add_twin();
    EXPECT_EQ(sw_eport_aging_flag_set_sync("app", nullptr), 0);
    expect_default_delay(only_call());
}

TEST_F(EportMarkSync, ClearsTheActiveBits)
{
    add_twin();
    add_item<eports>("app", 1, granted | requested);
    add_item<evlans>("app", 1, granted | requested);
    EXPECT_EQ(sw_eport_aging_flag_set_sync("app", nullptr), 0);
    EXPECT_EQ(flag_of<eports>(1), granted);
    EXPECT_EQ(flag_of<evlans>(1), granted | requested);
}

TEST_F(EportMarkSync, ThatFailsIsReportedAndLeavesTheBitsCleared)
{
    add_twin();
    add_item<eports>("app", 1, granted | requested);
    recording::set_result("qz_mom_pexpire_sync", -105);
    EXPECT_EQ(sw_eport_aging_flag_set_sync("app", nullptr), -105);
    EXPECT_THAT(errors(), ElementsAre(sync_failure("EPORT", 4)));
    EXPECT_EQ(flag_of<eports>(1), granted);
}

// ---- marking plain VLANs

using VlanMark = EvlanTest;

constexpr char plain_vlans[] = "u_bridge.evlan_session{index{t_user:\"app\" type:16}}";

TEST_F(VlanMark, RefusesUnknownUsers)
{
    add_twin();
    EXPECT_EQ(sw_vlan_aging_flag_set("nobody", nullptr, ended, nullptr), -2);
    EXPECT_EQ(sw_vlan_aging_flag_set_sync("nobody", nullptr), -2);
    EXPECT_THAT(errors(), ElementsAre(no_such_user, no_such_user));
    EXPECT_EQ(sw_vlan_aging_flag_set(nullptr, nullptr, ended, nullptr), -2);
    EXPECT_EQ(sw_vlan_aging_flag_set_sync(nullptr, nullptr), -2);
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TEST_F(VlanMark, MarksTheSessionsOfThatTypeOnly)
{
    add_twin();
    EXPECT_EQ(sw_vlan_aging_flag_set("app", &two_seconds, ended, &argument), 0);
    const recording::call made = only_call();
    expect_pattern_call(made, "qz_mom_pexpire", 4, plain_vlans);
    expect_delay(made, two_seconds);
    EXPECT_EQ(made.callback, address(ended));
    EXPECT_EQ(made.args, &argument);
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(VlanMark, AtOnceMarksTheSessionsOfThatTypeOnly)
{
    add_twin();
    EXPECT_EQ(sw_vlan_aging_flag_set_sync("app", &two_seconds), 0);
    const recording::call made = only_call();
    expect_pattern_call(made, "qz_mom_pexpire_sync", 4, plain_vlans);
    expect_delay(made, two_seconds);
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(VlanMark, WithoutTimerLastsHalfAnHour)
{
    add_twin();
    EXPECT_EQ(sw_vlan_aging_flag_set("app", nullptr, ended, nullptr), 0);
    expect_default_delay(only_call());
    recording::reset();
    EXPECT_EQ(sw_vlan_aging_flag_set_sync("app", nullptr), 0);
    expect_default_delay(only_call());
}

TEST_F(VlanMark, WithoutCallbackHasNone)
{
    add_twin();
    EXPECT_EQ(sw_vlan_aging_flag_set("app", nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(only_call().callback, nullptr);
    EXPECT_THAT(recording::logged(80), IsEmpty());
}

TEST_F(VlanMark, TouchesNoActiveBit)
{
    add_twin();
    const sw_evlan_index_map *plain =
        add_item<evlans>("app", evlan_test::map_key(SW_INDEX_MAP_APP2UDP, vlan, 100), granted | requested);
    add_item<evlans>("app", 1, granted | requested);
    EXPECT_EQ(sw_vlan_aging_flag_set("app", nullptr, ended, nullptr), 0);
    EXPECT_EQ(sw_vlan_aging_flag_set_sync("app", nullptr), 0);
    EXPECT_EQ(plain->ds_flag, granted | requested);
    EXPECT_EQ(flag_of<evlans>(1), granted | requested);
}

TEST_F(VlanMark, ThatFailsIsReported)
{
    add_twin();
    recording::set_result("qz_mom_pexpire", -105);
    EXPECT_EQ(sw_vlan_aging_flag_set("app", nullptr, ended, nullptr), -105);
    EXPECT_EQ(
        trace().back(),
        format("error sw_vlan_aging_flag_set: Assert:qz_mom_pexpire failed, user: app, mom_handle: %p, mom_db: 4, "
               "rv: -105.",
               static_cast<void *>(recording::other_handle())));
}

TEST_F(VlanMark, AtOnceThatFailsSaysThatOfEvlans)
{
    add_twin();
    recording::set_result("qz_mom_pexpire_sync", -105);
    EXPECT_EQ(sw_vlan_aging_flag_set_sync("app", nullptr), -105);
    EXPECT_THAT(errors(), ElementsAre(sync_failure("EVLAN", 4)));
}

// The plural is the mark of all types.
TEST_F(VlanMark, OfManyIsTheMarkOfEvlansUnderASecondName)
{
    add_twin();
    add_item<evlans>("app", 1, granted | requested);
    EXPECT_EQ(sw_vlans_aging_flag_set("app", &two_seconds, nullptr, &argument), 0);
    EXPECT_THAT(
        trace(),
        ElementsAre("info sw_vlans_aging_flag_set: setting aging flag.",
                    line<evlans>("info", "aging_flag_set",
                                 format("user_name: app, aging_timer: %p, func_callback: (nil), args: %p.",
                                        static_cast<const void *>(&two_seconds), static_cast<void *>(&argument))),
                    line<evlans>("warning", "aging_flag_set", "sw_evlan_aging_flag_set func_callback is null."),
                    "qz_mom_pexpire 4 " + sessions_of<evlans>("app")));
    expect_delay(only_call(), two_seconds);
    EXPECT_EQ(only_call().args, &argument);
    EXPECT_EQ(flag_of<evlans>(1), granted);
}

TEST_F(VlanMark, OfManyReturnsWhatTheMarkOfEvlansReturns)
{
    add_twin();
    EXPECT_EQ(sw_vlans_aging_flag_set("nobody", nullptr, ended, nullptr), -2);
    recording::set_result("qz_mom_pexpire", -105);
    EXPECT_EQ(sw_vlans_aging_flag_set("app", nullptr, ended, nullptr), -105);
}

// ---- starting the deletion

TYPED_TEST(AgedDelete, RefusesUnknownUsers)
{
    add_twin();
    EXPECT_EQ(TypeParam::aged_delete("nobody"), -2);
    EXPECT_EQ(trace().front(), line<TypeParam>("error", "aged_data_delete", no_such_user));
    EXPECT_EQ(TypeParam::aged_delete(nullptr), -2);
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TYPED_TEST(AgedDelete, ArmsTheAgeTimerAndDeletesNothingYet)
{
    sw_ebridge_list_item *user = add_twin();
    add_item<TypeParam>("app", 1, granted);
    EXPECT_EQ(TypeParam::aged_delete("app"), 0);
    EXPECT_EQ(trace().front(), line<TypeParam>("info", "aged_data_delete", "deleting aged data."));
    EXPECT_EQ(only_call().function, "qz_thread_insert_timer");
    EXPECT_EQ(user->age_timer_armed, 1);
}

TYPED_TEST(AgedDelete, WithoutMemoryForTheTimerSaysSo)
{
    add_twin();
    recording::fail_allocation(1, true);
    EXPECT_EQ(TypeParam::aged_delete("app"), -4);
    recording::fail_allocation(0);
    EXPECT_THAT(errors(), ElementsAre("Assert:alloc failed."));
}

TEST_F(VlanMark, IsFollowedByTheDeletionOfEvlansUnderASecondName)
{
    add_twin();
    EXPECT_EQ(sw_vlan_aged_data_delete("app"), 0);
    const strings steps = trace();
    ASSERT_GE(steps.size(), 2u);
    EXPECT_EQ(steps[0], "info sw_vlan_aged_data_delete: deleting aged data.");
    EXPECT_EQ(steps[1], "info sw_evlan_aged_data_delete: deleting aged data.");
    EXPECT_EQ(only_call().function, "qz_thread_insert_timer");
    EXPECT_EQ(sw_vlan_aged_data_delete("nobody"), -2);
}

// ---- what the timer does

TYPED_TEST(Clear, RefusesNull)
{
    add_twin();
    EXPECT_EQ(TypeParam::clear(nullptr), -2);
    EXPECT_THAT(errors(), ElementsAre(StartsWith("Assert:")));
}

TYPED_TEST(Clear, DeletesTheSessionsWhoseFlagIsExactlyGranted)
{
    sw_ebridge_list_item *user = add_twin();
    int n = 0;
    for (const uint32_t flags : {0u, 1u, 2u, 3u, 5u, 0x80000001u})
        add_item<TypeParam>("app", ++n, flags);
    EXPECT_EQ(TypeParam::clear(user), 0);
    const recording::call made = only_call();
    EXPECT_EQ(made.function, "qz_mom_del");
    EXPECT_EQ(made.handle, recording::other_handle());
    EXPECT_EQ(made.db, 4u);
    EXPECT_EQ(made.record, TypeParam::session("app", 2));
    EXPECT_EQ(made.callback, nullptr);
    EXPECT_EQ(made.args, nullptr);
    EXPECT_THAT(trace(),
                testing::UnorderedElementsAre(
                    "qz_mom_del 4 " + TypeParam::session("app", 2),
                    line<TypeParam>("info", "no_request_clear", words<TypeParam>("delete aged NAME: user=app"))));
}

TYPED_TEST(Clear, DeletesInTheUsersOwnDatabaseAndOfThatUserOnly)
{
    sw_ebridge_list_item *user = add_twin({.db = 8});
    add_twin({.name = "other"});
    add_item<TypeParam>("app", 1, granted);
    add_item<TypeParam>("other", 2, granted);
    EXPECT_EQ(TypeParam::clear(user), 0);
    EXPECT_EQ(only_call().db, 8u);
    EXPECT_EQ(only_call().record, TypeParam::session("app", 1));
}

TYPED_TEST(Clear, LeavesTheItemsToTheRemovalThatFollows)
{
    sw_ebridge_list_item *user = add_twin();
    add_item<TypeParam>("app", 1, granted);
    EXPECT_EQ(TypeParam::clear(user), 0);
    EXPECT_EQ(flag_of<TypeParam>(1), granted);
}

TYPED_TEST(Clear, PassesOverReverseItems)
{
    sw_ebridge_list_item *user = add_twin();
    add_item<TypeParam>("app", TypeParam::reverse_key(1), granted);
    EXPECT_EQ(TypeParam::clear(user), 0);
    EXPECT_THAT(recording::calls(), IsEmpty());
}

// An update gives an item another owner's name but leaves it on the list that it is on.
TYPED_TEST(Clear, DeletesUnderTheNameOfTheListsOwner)
{
    sw_ebridge_list_item *user = add_twin();
    add_twin({.name = "other"});
    add_item<TypeParam>("app", 1, granted);
    add_item<TypeParam>("other", 1, granted);
    EXPECT_EQ(TypeParam::clear(user), 0);
    EXPECT_EQ(only_call().record, TypeParam::session("app", 1));
}

TYPED_TEST(Clear, GoesOnAfterADeletionThatFails)
{
    sw_ebridge_list_item *user = add_twin();
    for (int n = 1; n <= 3; ++n)
        add_item<TypeParam>("app", n, granted);
    recording::set_result("qz_mom_del", -105, 2);
    EXPECT_EQ(TypeParam::clear(user), 0);
    EXPECT_EQ(recording::calls_of("qz_mom_del").size(), 3u);
    EXPECT_THAT(errors(), ElementsAre("Assert:qz_mom_del failed, rv: -105."));
    EXPECT_TRUE(traced(line<TypeParam>("error", "no_request_clear", "Assert:qz_mom_del failed, rv: -105.")));
}

TYPED_TEST(Clear, CountsNothing)
{
    sw_ebridge_list_item *user = add_twin();
    add_item<TypeParam>("app", 1, granted);
    const sw_diagnosis_stat before = g_diagnosis_stat;
    EXPECT_EQ(TypeParam::clear(user), 0);
    EXPECT_EQ(std::memcmp(&g_diagnosis_stat, &before, sizeof before), 0);
}

// ---- the three steps together

TYPED_TEST(Clear, AfterMarkAndRefreshOfOneOfTwoSessionsDeletesTheOther)
{
    sw_ebridge_list_item *user = add_twin();
    for (const int n : {1, 2}) {
        EXPECT_EQ(TypeParam::request("app", n), 0);
        EXPECT_EQ(TypeParam::grant("app", n), 0);
    }
    EXPECT_EQ(TypeParam::mark("app", nullptr, ended, nullptr), 0);
    EXPECT_EQ(TypeParam::request("app", 2), 0);
    recording::reset();
    EXPECT_EQ(TypeParam::clear(user), 0);
    EXPECT_EQ(only_call().record, TypeParam::session("app", 1));
}

TYPED_TEST(Clear, AfterAMarkDeletesNoRequestThatWasNeverAnswered)
{
    sw_ebridge_list_item *user = add_twin();
    EXPECT_EQ(TypeParam::request("app", 1), 0);
    EXPECT_EQ(TypeParam::mark("app", nullptr, ended, nullptr), 0);
    recording::reset();
    EXPECT_EQ(TypeParam::clear(user), 0);
    EXPECT_THAT(recording::calls(), IsEmpty());
}

// As a restarted application meets its sessions: heard in a scan, not asked for.
TYPED_TEST(Clear, DeletesASessionThatWasOnlyHeardOf)
{
    sw_ebridge_list_item *user = add_twin();
    EXPECT_EQ(TypeParam::grant("app", 1), 0);
    recording::reset();
    EXPECT_EQ(TypeParam::clear(user), 0);
    EXPECT_EQ(only_call().record, TypeParam::session("app", 1));
}

// ---- attributes

TYPED_TEST(AttributeAging, RefusesUnknownUsers)
{
    add_twin();
    EXPECT_EQ(TypeParam::attr_mark("nobody", nullptr, ended, nullptr), -2);
    EXPECT_EQ(TypeParam::attr_mark_sync("nobody", nullptr), -2);
    EXPECT_EQ(TypeParam::attr_aged_delete("nobody", ended, nullptr), -2);
    EXPECT_THAT(errors(), ElementsAre(no_such_user, no_such_user, no_such_user));
    EXPECT_EQ(TypeParam::attr_mark(nullptr, nullptr, ended, nullptr), -2);
    EXPECT_EQ(TypeParam::attr_mark_sync(nullptr, nullptr), -2);
    EXPECT_EQ(TypeParam::attr_aged_delete(nullptr, ended, nullptr), -2);
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TYPED_TEST(AttributeAging, MarksTheUsersAttributeRecords)
{
    add_twin();
    EXPECT_EQ(TypeParam::attr_mark("app", &two_seconds, ended, &argument), 0);
    const recording::call made = only_call();
    expect_pattern_call(made, "qz_mom_pexpire", TypeParam::attr_db, attributes_of<TypeParam>("app"));
    expect_delay(made, two_seconds);
    EXPECT_EQ(made.callback, address(ended));
    EXPECT_EQ(made.args, &argument);
    EXPECT_THAT(errors(), IsEmpty());
}

// Unlike the mark of sessions.
TYPED_TEST(AttributeAging, WithoutCallbackHasNoneAndWarnsOfNothing)
{
    add_twin();
    EXPECT_EQ(TypeParam::attr_mark("app", nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(only_call().callback, nullptr);
    EXPECT_THAT(recording::logged(80), IsEmpty());
}

TYPED_TEST(AttributeAging, WithoutTimerLastsHalfAnHour)
{
    add_twin();
    EXPECT_EQ(TypeParam::attr_mark("app", nullptr, ended, nullptr), 0);
    expect_default_delay(only_call());
    recording::reset();
    EXPECT_EQ(TypeParam::attr_mark_sync("app", nullptr), 0);
    expect_default_delay(only_call());
}

TYPED_TEST(AttributeAging, TouchesNoActiveBit)
{
    add_twin();
    add_item<TypeParam>("app", 1, granted | requested);
    EXPECT_EQ(TypeParam::attr_mark("app", nullptr, ended, nullptr), 0);
    EXPECT_EQ(TypeParam::attr_mark_sync("app", nullptr), 0);
    EXPECT_EQ(TypeParam::attr_aged_delete("app", ended, nullptr), 0);
    EXPECT_EQ(flag_of<TypeParam>(1), granted | requested);
}

TYPED_TEST(AttributeAging, ThatCannotMarkIsReported)
{
    add_twin();
    recording::set_result("qz_mom_pexpire", -105);
    EXPECT_EQ(TypeParam::attr_mark("app", nullptr, ended, nullptr), -105);
    EXPECT_EQ(trace().back(),
              line<TypeParam>("error", "attr_aging_flag_set", "Assert:qz_mom_pexpire failed, user: app, rv: -105."));
    EXPECT_EQ(errors().size(), 1u);
}

TYPED_TEST(AttributeAging, MarksAtOnceWithoutCallback)
{
    add_twin();
    EXPECT_EQ(TypeParam::attr_mark_sync("app", &two_seconds), 0);
    EXPECT_THAT(trace(),
                ElementsAre(line<TypeParam>(
                                "info", "attr_aging_flag_set_sync",
                                format("user_name: app, aging_timer: %p\n", static_cast<const void *>(&two_seconds))),
                            format("qz_mom_pexpire_sync %u ", TypeParam::attr_db) + attributes_of<TypeParam>("app")));
    const recording::call made = only_call();
    expect_pattern_call(made, "qz_mom_pexpire_sync", TypeParam::attr_db, attributes_of<TypeParam>("app"));
    expect_delay(made, two_seconds);
}

TYPED_TEST(AttributeAging, ThatCannotMarkAtOnceIsReported)
{
    add_twin();
    recording::set_result("qz_mom_pexpire_sync", -105);
    EXPECT_EQ(TypeParam::attr_mark_sync("app", nullptr), -105);
    EXPECT_THAT(errors(), ElementsAre(sync_failure(TypeParam::title, TypeParam::attr_db)));
}

TYPED_TEST(AttributeAging, DeletesWhatIsStillMarked)
{
    add_twin();
    EXPECT_EQ(TypeParam::attr_aged_delete("app", ended, &argument), 0);
    EXPECT_THAT(trace(),
                ElementsAre(line<TypeParam>("info", "attr_aged_data_delete", "deleting aged data."),
                            format("qz_mom_del_expire %u ", TypeParam::attr_db) + attributes_of<TypeParam>("app")));
    const recording::call made = only_call();
    expect_pattern_call(made, "qz_mom_del_expire", TypeParam::attr_db, attributes_of<TypeParam>("app"));
    EXPECT_EQ(made.callback, address(ended));
    EXPECT_EQ(made.args, &argument);
}

TYPED_TEST(AttributeAging, DeletesWithoutCallbackToo)
{
    add_twin();
    EXPECT_EQ(TypeParam::attr_aged_delete("app", nullptr, nullptr), 0);
    EXPECT_EQ(only_call().callback, nullptr);
    EXPECT_THAT(recording::logged(80), IsEmpty());
}

TYPED_TEST(AttributeAging, ThatCannotDeleteIsReported)
{
    add_twin();
    recording::set_result("qz_mom_del_expire", -105);
    EXPECT_EQ(TypeParam::attr_aged_delete("app", ended, nullptr), -105);
    EXPECT_EQ(trace().back(), line<TypeParam>("error", "attr_aged_data_delete",
                                              "Assert:qz_mom_del_expire failed, user: app, rv: -105."));
    EXPECT_EQ(errors().size(), 1u);
}

}  // namespace
