// Reading and following the session tables: the argument pairs per instance, and the calls of the store.
#include <set>

#include "evlan_fixture.hpp"

namespace
{

using namespace evlan_test;
using EvlanScan = EvlanTest;
using EvlanSubscribe = EvlanTest;
using EvlanSlots = EvlanTest;

int32_t some_func(qz_mom_handle *, const qz_mom_notification *, void *) { return 0; }
int32_t another_func(qz_mom_handle *, const qz_mom_notification *, void *) { return 0; }

int first_argument, second_argument;

const sw_ebridge_callback_args *pair_of(const recording::call &made)
{
    return static_cast<const sw_ebridge_callback_args *>(made.args);
}

// The pattern that matches every session: a key at its defaults.
std::string every_session()
{
    const session any("", 0, 0);
    return recording::render(&any.base);
}

// ---- the slots

TEST_F(EvlanSlots, AreTheLastFourOfTheInstance)
{
    sw_ebridge_list_item *item = add_user({.name = "app"});
    EXPECT_EQ(sw_evlan_get_mom_ds_args(4, 29, item), &item->mom_ds_args[4]);
    EXPECT_EQ(sw_evlan_get_mom_ds_args(4, 30, item), &item->mom_ds_args[5]);
    EXPECT_EQ(sw_evlan_get_mom_ds_args(8, 29, item), &item->mom_ds_args[6]);
    EXPECT_EQ(sw_evlan_get_mom_ds_args(8, 30, item), &item->mom_ds_args[7]);
}

TEST_F(EvlanSlots, ExistForNoOtherPair)
{
    sw_ebridge_list_item *item = add_user({.name = "app"});
    for (int32_t db = -1; db <= 16; ++db)
        for (uint32_t cmd = 0; cmd <= 40; ++cmd)
            EXPECT_EQ(sw_evlan_get_mom_ds_args(db, cmd, item) != nullptr,
                      (db == 4 || db == 8) && (cmd == 29 || cmd == 30));
    EXPECT_EQ(sw_evlan_get_mom_ds_args(4, 29, nullptr), nullptr);
}

// ---- scan

TEST_F(EvlanScan, RefusesUnknownUsers)
{
    add_user({.name = "app"});
    EXPECT_EQ(sw_evlan_data_scan_with_db("nobody", 4, nullptr, nullptr), -2);
    EXPECT_EQ(sw_evlan_data_scan("nobody", nullptr, nullptr), -2);
    EXPECT_EQ(sw_evlan_data_scan_with_db(nullptr, 4, nullptr, nullptr), -2);
    EXPECT_EQ(sw_evlan_data_scan(nullptr, nullptr, nullptr), -2);
    EXPECT_THAT(recording::logged(), ElementsAre("Assert:No user named 'nobody'.\n", "Assert:No user named 'nobody'.\n",
                                                 "Assert:Bad user NULL.", "Assert:No user named 'NULL'.\n",
                                                 "Assert:Bad user NULL.", "Assert:No user named 'NULL'.\n"));
    EXPECT_EQ(trace().front(), "error sw_evlan_data_scan_with_db: Assert:No user named 'nobody'.\n");
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TEST_F(EvlanScan, RefusesADatabaseWithoutSlot)
{
    add_user({.name = "app"});
    for (const int32_t db : {5, 0, -1, 29}) {
        recording::reset();
        EXPECT_EQ(sw_evlan_data_scan_with_db("app", db, some_func, &first_argument), -2);
        EXPECT_THAT(trace(), ElementsAre("error sw_evlan_data_scan_with_db: Assert:ds args errors."));
    }
}

TEST_F(EvlanScan, AsksTheStoreForEverySession)
{
    add_user({.name = "app", .handle = recording::other_handle()});
    EXPECT_EQ(sw_evlan_data_scan_with_db("app", 8, some_func, &first_argument), 0);
    EXPECT_THAT(trace(),
                ElementsAre(format("info sw_evlan_data_scan_with_db: scan evlan_data, user: app, db: 8, func_callback: "
                                   "%p, args: %p.",
                                   address(some_func), static_cast<void *>(&first_argument)),
                            "qz_mom_scan 8 " + every_session()));
    const recording::call &made = recording::calls().at(0);
    EXPECT_EQ(made.handle, recording::other_handle());
    EXPECT_EQ(made.flags, 0u);
    EXPECT_EQ(made.callback, address(sw_vlan_mom_msg_evlan_session_reply));
    ASSERT_NE(pair_of(made), nullptr);
    EXPECT_EQ(pair_of(made)->func, some_func);
    EXPECT_EQ(pair_of(made)->arg, &first_argument);
}

TEST_F(EvlanScan, OverwritesThePairOfTheSameDatabase)
{
    sw_ebridge_list_item *item = add_user({.name = "app"});
    EXPECT_EQ(sw_evlan_data_scan_with_db("app", 4, some_func, &first_argument), 0);
    recording::fail_allocation(1, true);
    EXPECT_EQ(sw_evlan_data_scan_with_db("app", 4, another_func, &second_argument), 0);
    recording::fail_allocation(0);
    const auto calls = recording::calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].args, calls[1].args);
    EXPECT_EQ(calls[0].args, item->mom_ds_args[5]);
    EXPECT_EQ(pair_of(calls[1])->func, another_func);
    EXPECT_EQ(pair_of(calls[1])->arg, &second_argument);
    EXPECT_EQ(sw_evlan_data_scan_with_db("app", 4, nullptr, nullptr), 0);
    EXPECT_EQ(pair_of(calls[1])->func, nullptr);
    EXPECT_EQ(pair_of(calls[1])->arg, nullptr);
}

TEST_F(EvlanScan, OnTheUsersOwnDatabase)
{
    add_user({.name = "app", .db = 8});
    EXPECT_EQ(sw_evlan_data_scan("app", some_func, &first_argument), 0);
    EXPECT_EQ(trace().back(), "qz_mom_scan 8 " + every_session());
    EXPECT_EQ(pair_of(recording::calls().at(0))->func, some_func);
    EXPECT_EQ(pair_of(recording::calls().at(0))->arg, &first_argument);
}

TEST_F(EvlanScan, OnAnOwnDatabaseWithoutSlotIsRefused)
{
    add_user({.name = "app", .db = 5});
    EXPECT_EQ(sw_evlan_data_scan("app", some_func, &first_argument), -2);
    EXPECT_TRUE(traced("error sw_evlan_data_scan_with_db: Assert:ds args errors."));
}

TEST_F(EvlanScan, WithoutMemoryForThePairAsksNothing)
{
    sw_ebridge_list_item *item = add_user({.name = "app"});
    recording::fail_allocation(1);
    EXPECT_EQ(sw_evlan_data_scan_with_db("app", 4, some_func, nullptr), -4);
    recording::fail_allocation(0);
    EXPECT_THAT(trace(), ElementsAre("error sw_evlan_data_scan_with_db: Assert:Malloc failed."));
    EXPECT_EQ(item->mom_ds_args[5], nullptr);
    EXPECT_EQ(sw_evlan_data_scan_with_db("app", 4, some_func, nullptr), 0);
}

TEST_F(EvlanScan, PassesTheStoresCodeOn)
{
    add_user({.name = "app"});
    recording::set_result("qz_mom_scan", -105);
    EXPECT_EQ(sw_evlan_data_scan_with_db("app", 4, nullptr, nullptr), -105);
    EXPECT_THAT(recording::logged(100), ElementsAre(StartsWith("Assert:")));
}

TEST_F(EvlanScan, KeepsServingAPairThatWasHandedOutBeforeTheUserWasRegisteredAgain)
{
    add_user({.name = "app"});
    sw_evlan_data_scan_with_db("app", 4, some_func, &first_argument);
    void *handed_out = recording::calls().at(0).args;
    const sw_ebridge_list_item *item = add_user({.name = "app"});
    EXPECT_EQ(item->mom_ds_args[5], nullptr);
    sw_evlan_data_scan_with_db("app", 4, another_func, &second_argument);
    EXPECT_NE(recording::calls().at(0).args, handed_out);
    notice end(QZ_MOM_CMD_NONE);
    end.end = QZ_MOM_END_SCAN;
    EXPECT_EQ(sw_vlan_mom_msg_evlan_session_reply(recording::handle(), &end, handed_out), 0);
    EXPECT_TRUE(recording::has_logged(format("scan end callback %p.", address(some_func)), 40));
    std::free(handed_out);
}

// ---- subscribe

TEST_F(EvlanSubscribe, RefusesUnknownUsers)
{
    add_user({.name = "app"});
    EXPECT_EQ(sw_evlan_subscribe_db_exec("nobody", 4, nullptr, nullptr), -2);
    EXPECT_THAT(trace(), ElementsAre("error sw_evlan_subscribe_db_exec: Assert:No user named 'nobody'.\n"));
    for (const char *name : {"nobody", static_cast<const char *>(nullptr)}) {
        recording::reset();
        EXPECT_EQ(sw_evlan_subscribe_db_exec(name, 4, nullptr, nullptr), -2);
        EXPECT_EQ(sw_evlan_subscribe_with_db(name, 4, nullptr, nullptr), -2);
        EXPECT_EQ(sw_evlan_subscribe(name, nullptr, nullptr), -2);
        EXPECT_EQ(sw_vlan_subscribe(name, nullptr, nullptr), -2);
        size_t refusals = 0;
        for (const std::string &line : recording::logged(100))
            refusals += line == format("Assert:No user named '%s'.\n", name ? name : "NULL");
        EXPECT_EQ(refusals, 4u);
        EXPECT_THAT(recording::calls(), IsEmpty());
    }
}

TEST_F(EvlanSubscribe, RefusesADatabaseWithoutSlot)
{
    add_user({.name = "app"});
    EXPECT_EQ(sw_evlan_subscribe_db_exec("app", 5, some_func, nullptr), -2);
    EXPECT_THAT(trace(), ElementsAre("error sw_evlan_subscribe_db_exec: Assert:ds args errors."));
}

TEST_F(EvlanSubscribe, FollowsTheReplyFieldOfEverySession)
{
    sw_ebridge_list_item *item = add_user({.name = "app", .handle = recording::other_handle()});
    EXPECT_EQ(sw_evlan_subscribe_db_exec("app", 8, some_func, &first_argument), 0);
    EXPECT_THAT(trace(), ElementsAre("qz_mom_subscribe_field 8 " + every_session()));
    const recording::call &made = recording::calls().at(0);
    EXPECT_EQ(made.handle, recording::other_handle());
    EXPECT_EQ(made.flags, 0u);
    EXPECT_THAT(made.fields, ElementsAre(11u));
    EXPECT_EQ(made.count, 1u);
    EXPECT_EQ(made.callback, address(sw_vlan_mom_msg_evlan_session_reply));
    ASSERT_NE(pair_of(made), nullptr);
    EXPECT_EQ(pair_of(made), item->mom_ds_args[6]);
    EXPECT_EQ(pair_of(made)->func, some_func);
    EXPECT_EQ(pair_of(made)->arg, &first_argument);
}

TEST_F(EvlanSubscribe, OverwritesThePairOfTheSameDatabase)
{
    add_user({.name = "app"});
    sw_evlan_subscribe_db_exec("app", 4, some_func, &first_argument);
    sw_evlan_subscribe_db_exec("app", 4, another_func, &second_argument);
    const auto calls = recording::calls();
    EXPECT_EQ(calls.at(0).args, calls.at(1).args);
    EXPECT_EQ(pair_of(calls.at(0))->func, another_func);
    EXPECT_EQ(pair_of(calls.at(0))->arg, &second_argument);
}

TEST_F(EvlanSubscribe, KeepsAPairForEachUserDatabaseAndCommand)
{
    add_user({.name = "a"});
    add_user({.name = "b"});
    for (const char *name : {"a", "b"}) {
        for (const int32_t db : {4, 8}) {
            sw_evlan_subscribe_db_exec(name, db, some_func, nullptr);
            sw_evlan_data_scan_with_db(name, db, another_func, nullptr);
        }
    }
    std::set<const void *> pairs;
    for (const auto &made : recording::calls()) {
        pairs.insert(made.args);
        EXPECT_EQ(pair_of(made)->func, made.function == "qz_mom_scan" ? another_func : some_func);
    }
    EXPECT_EQ(pairs.size(), 8u);
}

TEST_F(EvlanSubscribe, OnADatabaseIsLogged)
{
    add_user({.name = "app"});
    EXPECT_EQ(sw_evlan_subscribe_with_db("app", 8, some_func, &first_argument), 0);
    EXPECT_THAT(trace(),
                ElementsAre(format("info sw_evlan_subscribe_with_db: User 'app' subscribe EVLAN, DB is 8, func is %p, "
                                   "args is %p.",
                                   address(some_func), static_cast<void *>(&first_argument)),
                            "qz_mom_subscribe_field 8 " + every_session()));
}

TEST_F(EvlanSubscribe, OnADatabaseWithoutSlotIsLoggedAndRefused)
{
    add_user({.name = "app"});
    EXPECT_EQ(sw_evlan_subscribe_with_db("app", 12, nullptr, nullptr), -2);
    EXPECT_THAT(trace(), ElementsAre("info sw_evlan_subscribe_with_db: User 'app' subscribe EVLAN, DB is 12, func is "
                                     "(nil), args is (nil).",
                                     "error sw_evlan_subscribe_db_exec: Assert:ds args errors."));
}

TEST_F(EvlanSubscribe, OnTheUsersOwnDatabaseIsLogged)
{
    add_user({.name = "app", .db = 8});
    const std::string line = format("info sw_evlan_subscribe: User 'app' subscribe EVLAN, func is %p, args is %p.",
                                    address(some_func), static_cast<void *>(&first_argument));
    EXPECT_EQ(sw_evlan_subscribe("app", some_func, &first_argument), 0);
    EXPECT_THAT(trace(), ElementsAre(line, "qz_mom_subscribe_field 8 " + every_session()));
    recording::reset();
    EXPECT_EQ(sw_vlan_subscribe("app", some_func, &first_argument), 0);
    EXPECT_THAT(trace(), ElementsAre(line, "qz_mom_subscribe_field 8 " + every_session()));
}

TEST_F(EvlanSubscribe, WithoutMemoryForThePairAsksNothing)
{
    sw_ebridge_list_item *item = add_user({.name = "app"});
    recording::fail_allocation(1);
    EXPECT_EQ(sw_evlan_subscribe_db_exec("app", 4, some_func, nullptr), -4);
    recording::fail_allocation(0);
    EXPECT_THAT(trace(), ElementsAre("error sw_evlan_subscribe_db_exec: Assert:Malloc *ebridge_evlan_args failed."));
    EXPECT_EQ(item->mom_ds_args[4], nullptr);
}

TEST_F(EvlanSubscribe, ReportsTheStoresCodeAndKeepsThePair)
{
    sw_ebridge_list_item *item = add_user({.name = "app"});
    recording::set_result("qz_mom_subscribe_field", -105);
    EXPECT_EQ(sw_evlan_subscribe_db_exec("app", 4, some_func, nullptr), -105);
    EXPECT_EQ(trace().back(), "error sw_evlan_subscribe_db_exec: qz_mom_subscribe_field failed, rv: -105.");
    EXPECT_NE(item->mom_ds_args[4], nullptr);
}

TEST_F(EvlanSubscribe, DeliversThroughThePair)
{
    add_user({.name = "app"});
    static const qz_mom_notification *heard_of;
    const sw_ebridge_mom_func func = [](qz_mom_handle *, const qz_mom_notification *msg, void *) -> int32_t {
        heard_of = msg;
        return 0;
    };
    sw_evlan_subscribe("app", func, nullptr);
    const notice confirmed(QZ_MOM_CMD_SUBSCRIBED);
    EXPECT_EQ(sw_vlan_mom_msg_evlan_session_reply(recording::handle(), &confirmed, recording::calls().at(0).args), 0);
    EXPECT_EQ(heard_of, &confirmed);
}

}  // namespace
