// The age timer: armed once per user, fires once, and then has both kinds cleared.
#include "twin_fixture.hpp"

namespace
{

using namespace twin_test;

class AgeTimer : public BridgeTest
{
  protected:
    AgeTimer() : BridgeTest("app/lib/ebridge/libsw_ebridge_ds.cpp") {}
};

// Lets the timer that was inserted last fire.
int32_t fire(const recording::call &timer)
{
    qz_thread_event event = {.arg = timer.args, .master = recording::master(), .name = timer.name.c_str()};
    return sw_ebridge_age_exec(&event);
}

const char *name_in(const recording::call &timer) { return static_cast<const char *>(timer.args); }

// ---- arming

TEST_F(AgeTimer, RefusesUnknownUsers)
{
    add_twin();
    EXPECT_EQ(sw_ebridge_age_timer_create("nobody"), -2);
    EXPECT_THAT(trace(), ElementsAre("error sw_ebridge_age_timer_create: Assert:No user named 'nobody'.\n"));
    EXPECT_EQ(sw_ebridge_age_timer_create(nullptr), -2);
    EXPECT_EQ(trace().back(), "error sw_ebridge_age_timer_create: Assert:No user named 'NULL'.\n");
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TEST_F(AgeTimer, IsInsertedForFortySecondsOnTheMasterOfTheUsersHandle)
{
    sw_ebridge_list_item *user = add_twin();
    EXPECT_EQ(sw_ebridge_age_timer_create("app"), 0);
    EXPECT_THAT(trace(), ElementsAre("warning sw_ebridge_age_timer_create: create age timer user_name:app",
                                     StartsWith("qz_thread_insert_timer")));
    const recording::call made = recording::calls()[0];
    EXPECT_EQ(made.handle, recording::master());
    EXPECT_EQ(made.seconds, 40);
    EXPECT_EQ(made.name, "sw-ebridge-age-timer");
    EXPECT_EQ(made.callback, address(sw_ebridge_age_exec));
    EXPECT_NE(made.extra, nullptr);
    EXPECT_STREQ(name_in(made), "app");
    EXPECT_NE(name_in(made), user->user_name);
    EXPECT_EQ(user->age_timer_armed, 1);
    EXPECT_EQ(user->stat, 1);
}

// The release delays are not its delay.
TEST_F(AgeTimer, IsOfFortySecondsWhateverTheReleaseDelays)
{
    add_twin();
    sw_ebridge_delay_time_set(7, 9);
    EXPECT_EQ(sw_ebridge_age_timer_create("app"), 0);
    EXPECT_EQ(recording::calls_of("qz_thread_insert_timer").at(0).seconds, 40);
}

TEST_F(AgeTimer, ThatIsArmedIsNotArmedAgain)
{
    sw_ebridge_list_item *user = add_twin();
    EXPECT_EQ(sw_ebridge_age_timer_create("app"), 0);
    recording::reset();
    recording::fail_allocation(1, true);
    EXPECT_EQ(sw_ebridge_age_timer_create("app"), 0);
    recording::fail_allocation(0);
    EXPECT_THAT(trace(), IsEmpty());
    EXPECT_EQ(user->stat, 1);
}

TEST_F(AgeTimer, IsOneForBothKindsOfAUser)
{
    sw_ebridge_list_item *user = add_twin();
    EXPECT_EQ(sw_evlan_aged_data_delete("app"), 0);
    EXPECT_EQ(sw_eport_aged_data_delete("app"), 0);
    EXPECT_EQ(sw_vlan_aged_data_delete("app"), 0);
    EXPECT_EQ(recording::calls_of("qz_thread_insert_timer").size(), 1u);
    EXPECT_EQ(user->stat, 1);
}

TEST_F(AgeTimer, OfEachUserIsItsOwnOnOneTimerObject)
{
    sw_ebridge_list_item *a = add_twin({.name = "a"});
    sw_ebridge_list_item *b = add_twin({.name = "b"});
    EXPECT_EQ(sw_ebridge_age_timer_create("a"), 0);
    EXPECT_EQ(b->age_timer_armed, 0);
    EXPECT_EQ(sw_ebridge_age_timer_create("b"), 0);
    const auto timers = recording::calls_of("qz_thread_insert_timer");
    ASSERT_EQ(timers.size(), 2u);
    EXPECT_EQ(timers[0].extra, timers[1].extra);
    EXPECT_STREQ(name_in(timers[0]), "a");
    EXPECT_STREQ(name_in(timers[1]), "b");
    EXPECT_EQ(a->stat, 1);
    EXPECT_EQ(b->stat, 1);
}

TEST_F(AgeTimer, WithoutMemoryIsNotArmed)
{
    sw_ebridge_list_item *user = add_twin();
    recording::fail_allocation(1, true);
    EXPECT_EQ(sw_ebridge_age_timer_create("app"), -4);
    recording::fail_allocation(0);
    EXPECT_THAT(trace(), ElementsAre("warning sw_ebridge_age_timer_create: create age timer user_name:app",
                                     "error sw_ebridge_age_timer_create: Assert:alloc failed."));
    EXPECT_EQ(user->age_timer_armed, 0);
    EXPECT_EQ(user->stat, 0);
    EXPECT_EQ(sw_ebridge_age_timer_create("app"), 0);
}

// It would never fire, and while it counts as armed no other could be.
TEST_F(AgeTimer, ThatTheThreadLibraryRefusesIsNotArmed)
{
    sw_ebridge_list_item *user = add_twin();
    recording::set_result("qz_thread_insert_timer", -2, 1);
    EXPECT_EQ(freed_by([] { EXPECT_EQ(sw_ebridge_age_timer_create("app"), -3); }).size(), 1u);
    EXPECT_THAT(errors(), ElementsAre("Assert:qz_thread_insert_timer failed, rv: -2."));
    EXPECT_EQ(user->age_timer_armed, 0);
    EXPECT_EQ(user->stat, 0);
    EXPECT_EQ(sw_ebridge_age_timer_create("app"), 0);
    EXPECT_EQ(user->age_timer_armed, 1);
    EXPECT_EQ(recording::calls_of("qz_thread_insert_timer").size(), 2u);
}

// A user who was only registered blank has no handle.
TEST_F(AgeTimer, OfAUserWithoutHandleIsAskedForWithoutMaster)
{
    add_twin();
    EXPECT_EQ(sw_ebridge_attr_db_init(0, "blank"), 0);
    recording::reset();
    sw_ebridge_age_timer_create("blank");
    ASSERT_EQ(recording::calls_of("qz_thread_insert_timer").size(), 1u);
    EXPECT_EQ(recording::calls_of("qz_thread_insert_timer")[0].handle, nullptr);
}

TEST_F(AgeTimer, CarriesAtMost31CharactersOfTheName)
{
    const std::string name(31, 'n');
    sw_ebridge_list_item *user = add_twin({.name = name.c_str()});
    EXPECT_EQ(sw_ebridge_age_timer_create((name + "and more").c_str()), 0);
    const recording::call timer = recording::calls_of("qz_thread_insert_timer").at(0);
    EXPECT_EQ(name_in(timer), name);
    EXPECT_EQ(fire(timer), 0);
    EXPECT_EQ(user->age_timer_armed, 0);
}

// ---- firing

TEST_F(AgeTimer, WithoutNameIsRefused)
{
    add_twin();
    qz_thread_event event = {.arg = nullptr, .master = recording::master(), .name = ""};
    EXPECT_EQ(sw_ebridge_age_exec(&event), -2);
    EXPECT_EQ(sw_ebridge_age_exec(nullptr), -2);
    EXPECT_THAT(trace(), testing::AllOf(SizeIs(2), Each("error sw_ebridge_age_exec: Assert:age timer arg is NULL")));
}

TEST_F(AgeTimer, ClearsEvlansThenEports)
{
    sw_ebridge_list_item *user = add_twin();
    add_item<eports>("app", 1, SW_INDEX_MAP_GRANTED);
    add_item<evlans>("app", 1, SW_INDEX_MAP_GRANTED);
    EXPECT_EQ(sw_ebridge_age_timer_create("app"), 0);
    const recording::call timer = recording::calls_of("qz_thread_insert_timer").at(0);
    recording::reset();
    EXPECT_EQ(fire(timer), 0);
    EXPECT_EQ(trace().front(), "warning sw_ebridge_age_exec: age timer exec user_name:app");
    const auto deletions = recording::calls_of("qz_mom_del");
    ASSERT_EQ(deletions.size(), 2u);
    EXPECT_EQ(deletions[0].record, evlans::session("app", 1));
    EXPECT_EQ(deletions[1].record, eports::session("app", 1));
    EXPECT_EQ(user->age_timer_armed, 0);
    EXPECT_EQ(user->stat, 1);
}

TEST_F(AgeTimer, ClearsItsOwnUserOnly)
{
    add_twin({.name = "a"});
    sw_ebridge_list_item *b = add_twin({.name = "b"});
    add_item<evlans>("a", 1, SW_INDEX_MAP_GRANTED);
    add_item<evlans>("b", 2, SW_INDEX_MAP_GRANTED);
    sw_ebridge_age_timer_create("a");
    sw_ebridge_age_timer_create("b");
    const auto timers = recording::calls_of("qz_thread_insert_timer");
    recording::reset();
    EXPECT_EQ(fire(timers.at(0)), 0);
    ASSERT_EQ(recording::calls_of("qz_mom_del").size(), 1u);
    EXPECT_EQ(recording::calls_of("qz_mom_del")[0].record, evlans::session("a", 1));
    EXPECT_EQ(b->age_timer_armed, 1);
}

TEST_F(AgeTimer, ClearsEportsThoughEvlansFail)
{
    add_twin();
    add_item<eports>("app", 1, SW_INDEX_MAP_GRANTED);
    add_item<evlans>("app", 1, SW_INDEX_MAP_GRANTED);
    sw_ebridge_age_timer_create("app");
    recording::set_result("qz_mom_del", -105, 1);
    EXPECT_EQ(fire(recording::calls_of("qz_thread_insert_timer").at(0)), 0);
    EXPECT_EQ(recording::calls_of("qz_mom_del").size(), 2u);
}

TEST_F(AgeTimer, FreesItsNameOnce)
{
    add_twin();
    sw_ebridge_age_timer_create("app");
    const recording::call timer = recording::calls_of("qz_thread_insert_timer").at(0);
    EXPECT_THAT(freed_by([&] { EXPECT_EQ(fire(timer), 0); }), Contains(timer.args).Times(1));
}

TEST_F(AgeTimer, OfAUserWhoIsGoneIsRefusedAndFreesItsName)
{
    sw_ebridge_list_item *user = add_twin();
    sw_ebridge_age_timer_create("app");
    const recording::call timer = recording::calls_of("qz_thread_insert_timer").at(0);
    sw_ebridge_list_item_cache_destroy(0, user);
    recording::reset();
    EXPECT_THAT(freed_by([&] { EXPECT_EQ(fire(timer), -2); }), Contains(timer.args).Times(1));
    EXPECT_THAT(trace(), ElementsAre("warning sw_ebridge_age_exec: age timer exec user_name:app",
                                     "error sw_ebridge_age_exec: Assert:No user named 'app'.\n"));
}

TEST_F(AgeTimer, MayBeArmedAgainAfterItFired)
{
    sw_ebridge_list_item *user = add_twin();
    sw_ebridge_age_timer_create("app");
    EXPECT_EQ(fire(recording::calls_of("qz_thread_insert_timer").at(0)), 0);
    EXPECT_EQ(sw_ebridge_age_timer_create("app"), 0);
    EXPECT_EQ(recording::calls_of("qz_thread_insert_timer").size(), 2u);
    EXPECT_EQ(user->age_timer_armed, 1);
    EXPECT_EQ(user->stat, 2);
}

// A second initialisation forgets that the timer is armed; the first one fires all the same and harms nothing.
TEST_F(AgeTimer, IsForgottenWhenTheUserIsRegisteredAgain)
{
    add_twin();
    sw_ebridge_age_timer_create("app");
    const recording::call first = recording::calls_of("qz_thread_insert_timer").at(0);
    sw_ebridge_list_item *user = add_twin();
    EXPECT_EQ(user->age_timer_armed, 0);
    EXPECT_EQ(user->stat, 0);
    EXPECT_EQ(sw_ebridge_age_timer_create("app"), 0);
    const recording::call second = recording::calls_of("qz_thread_insert_timer").at(0);
    EXPECT_NE(first.args, second.args);
    EXPECT_EQ(fire(first), 0);
    EXPECT_EQ(fire(second), 0);
    EXPECT_EQ(user->age_timer_armed, 0);
    EXPECT_EQ(user->stat, 1);
}

}  // namespace
