// Reading and following the session tables: the argument pairs per instance, and the calls of the store.
#include <cstdlib>

#include <set>

#include "twin_fixture.hpp"

namespace
{

using namespace twin_test;

template <typename Kind>
using Scan = Twin<Kind>;
TYPED_TEST_SUITE(Scan, kinds);
template <typename Kind>
using Subscribe = Twin<Kind>;
TYPED_TEST_SUITE(Subscribe, kinds);
template <typename Kind>
using Slots = Twin<Kind>;
TYPED_TEST_SUITE(Slots, kinds);

int32_t some_func(qz_mom_handle *, const qz_mom_notification *, void *) { return 0; }
int32_t another_func(qz_mom_handle *, const qz_mom_notification *, void *) { return 0; }

int first_argument, second_argument;

// "func is %p, args is %p." of some_func and its argument, as lines put it.
std::string with_some_func(const char *pattern)
{
    std::string out = pattern;
    for (const void *pointer :
         {static_cast<const void *>(address(some_func)), static_cast<const void *>(&first_argument)})
        out.replace(out.find("%p"), 2, format("%p", pointer));
    return out;
}

// ---- the slots

TYPED_TEST(Slots, AreFourInARowOfTheInstance)
{
    sw_ebridge_list_item *item = add_twin();
    void **first = &item->mom_ds_args[TypeParam::first_slot];
    EXPECT_EQ(TypeParam::slot(4, 29, item), first);
    EXPECT_EQ(TypeParam::slot(4, 30, item), first + 1);
    EXPECT_EQ(TypeParam::slot(8, 29, item), first + 2);
    EXPECT_EQ(TypeParam::slot(8, 30, item), first + 3);
}

TYPED_TEST(Slots, ExistForNoOtherPair)
{
    sw_ebridge_list_item *item = add_twin();
    for (int32_t db = -1; db <= 16; ++db)
        for (uint32_t cmd = 0; cmd <= 40; ++cmd)
            EXPECT_EQ(TypeParam::slot(db, cmd, item) != nullptr, (db == 4 || db == 8) && (cmd == 29 || cmd == 30));
    EXPECT_EQ(TypeParam::slot(4, 29, nullptr), nullptr);
}

// ---- scan

TYPED_TEST(Scan, RefusesUnknownUsers)
{
    add_twin();
    EXPECT_EQ(TypeParam::scan_with_db("nobody", 4, nullptr, nullptr), -2);
    EXPECT_EQ(TypeParam::scan("nobody", nullptr, nullptr), -2);
    EXPECT_EQ(TypeParam::scan_with_db(nullptr, 4, nullptr, nullptr), -2);
    EXPECT_EQ(TypeParam::scan(nullptr, nullptr, nullptr), -2);
    EXPECT_THAT(recording::logged(),
                ElementsAre(no_such_user, no_such_user, "Assert:Bad user NULL.", "Assert:No user named 'NULL'.\n",
                            "Assert:Bad user NULL.", "Assert:No user named 'NULL'.\n"));
    EXPECT_EQ(trace().front(), line<TypeParam>("error", "data_scan_with_db", no_such_user));
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TYPED_TEST(Scan, RefusesADatabaseWithoutSlot)
{
    add_twin();
    for (const int32_t db : {5, 0, -1, 29}) {
        recording::reset();
        EXPECT_EQ(TypeParam::scan_with_db("app", db, some_func, &first_argument), -2);
        EXPECT_THAT(trace(), ElementsAre(line<TypeParam>("error", "data_scan_with_db", "Assert:ds args errors.")));
    }
}

TYPED_TEST(Scan, AsksTheStoreForEverySession)
{
    add_twin();
    EXPECT_EQ(TypeParam::scan_with_db("app", 8, some_func, &first_argument), 0);
    EXPECT_THAT(trace(),
                ElementsAre(line<TypeParam>("info", "data_scan_with_db",
                                            words<TypeParam>(with_some_func("scan NAME_data, user: app, db: 8, "
                                                                            "func_callback: %p, args: %p."))),
                            "qz_mom_scan 8 " + every_session<TypeParam>()));
    const recording::call &made = recording::calls().at(0);
    EXPECT_EQ(made.handle, recording::other_handle());
    EXPECT_EQ(made.flags, 0u);
    EXPECT_EQ(made.callback, address(TypeParam::heard_by));
    ASSERT_NE(pair_of(made), nullptr);
    EXPECT_EQ(pair_of(made)->func, some_func);
    EXPECT_EQ(pair_of(made)->arg, &first_argument);
}

TYPED_TEST(Scan, OverwritesThePairOfTheSameDatabase)
{
    sw_ebridge_list_item *item = add_twin();
    EXPECT_EQ(TypeParam::scan_with_db("app", 4, some_func, &first_argument), 0);
    recording::fail_allocation(1, true);
    EXPECT_EQ(TypeParam::scan_with_db("app", 4, another_func, &second_argument), 0);
    recording::fail_allocation(0);
    const auto calls = recording::calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].args, calls[1].args);
    EXPECT_EQ(calls[0].args, item->mom_ds_args[TypeParam::first_slot + 1]);
    EXPECT_EQ(pair_of(calls[1])->func, another_func);
    EXPECT_EQ(pair_of(calls[1])->arg, &second_argument);
    EXPECT_EQ(TypeParam::scan_with_db("app", 4, nullptr, nullptr), 0);
    EXPECT_EQ(pair_of(calls[1])->func, nullptr);
    EXPECT_EQ(pair_of(calls[1])->arg, nullptr);
}

TYPED_TEST(Scan, OnTheUsersOwnDatabase)
{
    add_twin({.db = 8});
    EXPECT_EQ(TypeParam::scan("app", some_func, &first_argument), 0);
    EXPECT_EQ(trace().back(), "qz_mom_scan 8 " + every_session<TypeParam>());
    EXPECT_EQ(pair_of(recording::calls().at(0))->func, some_func);
    EXPECT_EQ(pair_of(recording::calls().at(0))->arg, &first_argument);
}

TYPED_TEST(Scan, OnAnOwnDatabaseWithoutSlotIsRefused)
{
    add_twin({.db = 5});
    EXPECT_EQ(TypeParam::scan("app", some_func, &first_argument), -2);
    EXPECT_THAT(errors(), ElementsAre("Assert:ds args errors."));
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TYPED_TEST(Scan, WithoutMemoryForThePairAsksNothing)
{
    sw_ebridge_list_item *item = add_twin();
    recording::fail_allocation(1);
    EXPECT_EQ(TypeParam::scan_with_db("app", 4, some_func, nullptr), -4);
    recording::fail_allocation(0);
    EXPECT_THAT(trace(), ElementsAre(line<TypeParam>("error", "data_scan_with_db", "Assert:Malloc failed.")));
    EXPECT_EQ(item->mom_ds_args[TypeParam::first_slot + 1], nullptr);
    EXPECT_EQ(TypeParam::scan_with_db("app", 4, some_func, nullptr), 0);
}

TYPED_TEST(Scan, PassesTheStoresCodeOnAndKeepsThePair)
{
    sw_ebridge_list_item *item = add_twin();
    recording::set_result("qz_mom_scan", -105);
    EXPECT_EQ(TypeParam::scan_with_db("app", 4, nullptr, nullptr), -105);
    EXPECT_EQ(trace().back(), line<TypeParam>("error", "data_scan_with_db", "Assert:qz_mom_scan failed, rv: -105\n"));
    EXPECT_NE(item->mom_ds_args[TypeParam::first_slot + 1], nullptr);
}

TYPED_TEST(Scan, KeepsServingAPairThatWasHandedOutBeforeTheUserWasRegisteredAgain)
{
    add_twin();
    TypeParam::scan_with_db("app", 4, some_func, &first_argument);
    void *handed_out = recording::calls().at(0).args;
    const sw_ebridge_list_item *item = add_twin();
    EXPECT_EQ(item->mom_ds_args[TypeParam::first_slot + 1], nullptr);
    TypeParam::scan_with_db("app", 4, another_func, &second_argument);
    EXPECT_NE(recording::calls().at(0).args, handed_out);
    notice end(QZ_MOM_CMD_NONE);
    end.end = QZ_MOM_END_SCAN;
    EXPECT_EQ(TypeParam::heard_by(recording::handle(), &end, handed_out), 0);
    EXPECT_TRUE(recording::has_logged(TypeParam::end_line(address(some_func), &first_argument), 40));
    std::free(handed_out);
}

// ---- subscribe

TYPED_TEST(Subscribe, RefusesUnknownUsers)
{
    add_twin();
    EXPECT_EQ(TypeParam::subscribe_with_db("nobody", 4, nullptr, nullptr), -2);
    EXPECT_EQ(trace().back(), line<TypeParam>("error", TypeParam::subscriber, no_such_user));
    for (const char *name : {"nobody", static_cast<const char *>(nullptr)}) {
        recording::reset();
        EXPECT_EQ(TypeParam::subscribe_with_db(name, 4, nullptr, nullptr), -2);
        EXPECT_EQ(TypeParam::subscribe(name, nullptr, nullptr), -2);
        size_t refusals = 0;
        for (const std::string &line : errors())
            refusals += line == format("Assert:No user named '%s'.\n", name ? name : "NULL");
        EXPECT_EQ(refusals, 2u);
        EXPECT_THAT(recording::calls(), IsEmpty());
    }
}

TYPED_TEST(Subscribe, FollowsTheReplyFieldOfEverySession)
{
    sw_ebridge_list_item *item = add_twin();
    EXPECT_EQ(TypeParam::subscribe_with_db("app", 8, some_func, &first_argument), 0);
    EXPECT_THAT(
        trace(),
        ElementsAre(line<TypeParam>("info", "subscribe_with_db",
                                    words<TypeParam>(with_some_func("User 'app' subscribe TITLE, DB is 8, func is %p, "
                                                                    "args is %p."))),
                    "qz_mom_subscribe_field 8 " + every_session<TypeParam>()));
    const recording::call &made = recording::calls().at(0);
    EXPECT_EQ(made.handle, recording::other_handle());
    EXPECT_EQ(made.flags, 0u);
    EXPECT_THAT(made.fields, ElementsAre(11u));
    EXPECT_EQ(made.count, 1u);
    EXPECT_EQ(made.callback, address(TypeParam::heard_by));
    ASSERT_NE(pair_of(made), nullptr);
    EXPECT_EQ(pair_of(made), item->mom_ds_args[TypeParam::first_slot + 2]);
    EXPECT_EQ(pair_of(made)->func, some_func);
    EXPECT_EQ(pair_of(made)->arg, &first_argument);
}

TYPED_TEST(Subscribe, OverwritesThePairOfTheSameDatabase)
{
    add_twin();
    TypeParam::subscribe_with_db("app", 4, some_func, &first_argument);
    TypeParam::subscribe_with_db("app", 4, another_func, &second_argument);
    const auto calls = recording::calls();
    EXPECT_EQ(calls.at(0).args, calls.at(1).args);
    EXPECT_EQ(pair_of(calls.at(0))->func, another_func);
    EXPECT_EQ(pair_of(calls.at(0))->arg, &second_argument);
}

TYPED_TEST(Subscribe, KeepsAPairForEachUserDatabaseAndCommand)
{
    add_twin({.name = "a"});
    add_twin({.name = "b"});
    for (const char *name : {"a", "b"}) {
        for (const int32_t db : {4, 8}) {
            TypeParam::subscribe_with_db(name, db, some_func, nullptr);
            TypeParam::scan_with_db(name, db, another_func, nullptr);
        }
    }
    std::set<const void *> pairs;
    for (const auto &made : recording::calls()) {
        pairs.insert(made.args);
        EXPECT_EQ(pair_of(made)->func, made.function == "qz_mom_scan" ? another_func : some_func);
    }
    EXPECT_EQ(pairs.size(), 8u);
}

TYPED_TEST(Subscribe, OnADatabaseWithoutSlotIsLoggedAndRefused)
{
    add_twin();
    EXPECT_EQ(TypeParam::subscribe_with_db("app", 12, nullptr, nullptr), -2);
    EXPECT_THAT(trace(), ElementsAre(line<TypeParam>("info", "subscribe_with_db",
                                                     words<TypeParam>("User 'app' subscribe TITLE, DB is 12, func is "
                                                                      "(nil), args is (nil).")),
                                     line<TypeParam>("error", TypeParam::subscriber, "Assert:ds args errors.")));
}

TYPED_TEST(Subscribe, OnTheUsersOwnDatabaseIsLogged)
{
    add_twin({.db = 8});
    EXPECT_EQ(TypeParam::subscribe("app", some_func, &first_argument), 0);
    EXPECT_THAT(trace(),
                ElementsAre(line<TypeParam>("info", "subscribe",
                                            words<TypeParam>(with_some_func("User 'app' subscribe TITLE, func is %p, "
                                                                            "args is %p."))),
                            "qz_mom_subscribe_field 8 " + every_session<TypeParam>()));
}

TYPED_TEST(Subscribe, OnAnOwnDatabaseWithoutSlotIsRefused)
{
    add_twin({.db = 12});
    EXPECT_EQ(TypeParam::subscribe("app", some_func, nullptr), -2);
    EXPECT_THAT(errors(), ElementsAre("Assert:ds args errors."));
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TYPED_TEST(Subscribe, WithoutMemoryForThePairAsksNothing)
{
    sw_ebridge_list_item *item = add_twin();
    recording::fail_allocation(1);
    EXPECT_EQ(TypeParam::subscribe_with_db("app", 4, some_func, nullptr), -4);
    recording::fail_allocation(0);
    EXPECT_EQ(trace().back(), line<TypeParam>("error", TypeParam::subscriber, TypeParam::no_pair));
    EXPECT_THAT(recording::calls(), IsEmpty());
    EXPECT_EQ(item->mom_ds_args[TypeParam::first_slot], nullptr);
}

TYPED_TEST(Subscribe, ReportsTheStoresCodeAndKeepsThePair)
{
    sw_ebridge_list_item *item = add_twin();
    recording::set_result("qz_mom_subscribe_field", -105);
    EXPECT_EQ(TypeParam::subscribe_with_db("app", 4, some_func, nullptr), -105);
    EXPECT_EQ(trace().back(), line<TypeParam>("error", TypeParam::subscriber, TypeParam::not_subscribed(-105)));
    EXPECT_NE(item->mom_ds_args[TypeParam::first_slot], nullptr);
}

TYPED_TEST(Subscribe, DeliversThroughThePair)
{
    add_twin();
    static const qz_mom_notification *heard_of;
    const sw_ebridge_mom_func func = [](qz_mom_handle *, const qz_mom_notification *msg, void *) -> int32_t {
        heard_of = msg;
        return 0;
    };
    TypeParam::subscribe("app", func, nullptr);
    const notice confirmed(QZ_MOM_CMD_SUBSCRIBED);
    EXPECT_EQ(TypeParam::heard_by(recording::handle(), &confirmed, recording::calls().at(0).args), 0);
    EXPECT_EQ(heard_of, &confirmed);
}

using EvlanAndEport = EvlanTest;

TEST_F(EvlanAndEport, HaveArgumentPairsOfTheirOwn)
{
    add_twin();
    sw_evlan_subscribe_with_db("app", 4, some_func, &first_argument);
    sw_eport_subscribe_with_db("app", 4, another_func, &second_argument);
    const auto calls = recording::calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(pair_of(calls[0])->func, some_func);
    EXPECT_EQ(pair_of(calls[1])->func, another_func);
}

// ---- evlans have two more names

using EvlanSubscribe = EvlanTest;

TEST_F(EvlanSubscribe, WithoutAWordIsTheStepThatTheOthersTake)
{
    add_twin();
    EXPECT_EQ(sw_evlan_subscribe_db_exec("app", 8, some_func, &first_argument), 0);
    EXPECT_THAT(trace(), ElementsAre("qz_mom_subscribe_field 8 " + every_session<evlans>()));
    recording::reset();
    EXPECT_EQ(sw_evlan_subscribe_db_exec("app", 5, some_func, nullptr), -2);
    EXPECT_EQ(sw_evlan_subscribe_db_exec("nobody", 4, nullptr, nullptr), -2);
    EXPECT_THAT(trace(), ElementsAre("error sw_evlan_subscribe_db_exec: Assert:ds args errors.",
                                     line<evlans>("error", "subscribe_db_exec", no_such_user)));
}

TEST_F(EvlanSubscribe, IsCalledVlanSubscribeToo)
{
    add_twin({.db = 8});
    EXPECT_EQ(sw_vlan_subscribe("app", some_func, &first_argument), 0);
    EXPECT_THAT(trace(), ElementsAre(line<evlans>("info", "subscribe",
                                                  with_some_func("User 'app' subscribe EVLAN, func is %p, args is "
                                                                 "%p.")),
                                     "qz_mom_subscribe_field 8 " + every_session<evlans>()));
    EXPECT_EQ(sw_vlan_subscribe("nobody", nullptr, nullptr), -2);
    EXPECT_EQ(sw_vlan_subscribe(nullptr, nullptr, nullptr), -2);
    EXPECT_THAT(errors(), ElementsAre(no_such_user, "Assert:Bad user NULL.", "Assert:No user named 'NULL'.\n"));
}

}  // namespace
