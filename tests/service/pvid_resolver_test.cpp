// The resolver of default VLANs against a store whose every callback the test times: the order of the start, what is
// written and with which old values, what others write, and writes that fail at once or later. With memory and without.
#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <optional>
#include <random>
#include <utility>

#include "allocation_failure.hpp"
#include "ebridged.h"
#include "pvid_resolver.hpp"
#include "scripted_store.hpp"

using namespace scripted;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace
{

constexpr uint32_t MIRROR = 8;

class Resolver : public testing::TestWithParam<bool>
{
  protected:
    Resolver() { store.lacks_memory = GetParam(); }
    ~Resolver() override
    {
        ebridged_stop(service);
        store = {};
    }

    int32_t start(const std::vector<uint32_t> &databases = {4})
    {
        const ebridged_options options{.databases = databases.data(),
                                       .database_count = static_cast<uint32_t>(databases.size()),
                                       .log = add_log,
                                       .log_args = &log,
                                       .log_level = 0};
        return ebridged_start(store.handle(), &options, &service);
    }
    // Up to the scans, none of which has delivered anything yet.
    void follow(const std::vector<uint32_t> &databases = {4})
    {
        served = databases;
        ASSERT_EQ(start(databases), 0);
        for (const uint32_t db : databases)
            store.confirm(claims(db), db);
        for (const uint32_t db : tables())
            store.confirm(table(db), db);
    }
    void read()
    {
        for (const uint32_t db : served)
            store.end_scan(claim_scan(db), db);
        for (const uint32_t db : tables())
            store.end_scan(table_scan(db), db);
    }
    void serve(const std::vector<uint32_t> &databases = {4})
    {
        follow(databases);
        read();
    }
    void set(const claim &which, uint32_t db = 4) { store.claim_told(claims(db), db, which); }
    void let_go(const claim &which, uint32_t db = 4, int32_t cmd = QZ_MOM_CMD_DEL)
    {
        store.claim_told(claims(db), db, which, cmd);
    }
    void found(const claim &which, uint32_t db = 4) { store.claim_told(claim_scan(db), db, which); }
    void found(const pvid_entry &which) const
    {
        for (const uint32_t db : tables())
            store.entry_told(table_scan(db), db, which);
    }
    // All that was written since the last time, to database 4, or to another one. It is heard, then acknowledged.
    std::vector<std::string> written(uint32_t db = 4)
    {
        apply_all();
        return std::exchange(applied[db], {});
    }
    void apply_all()
    {
        for (int quiet = 0; quiet < 2; quiet += store.writes.empty()) {
            for (const store_write &each : std::exchange(store.writes, {}))
                apply(each);
            if (store.lacks_memory)
                store.run_timers();
        }
    }
    void apply(const store_write &each)
    {
        hear(each);
        store.write_done(each, database_of(each));
    }
    void hear(const store_write &each)
    {
        pvid_entry what;
        uint32_t db = 0;
        if (std::sscanf(each.text.c_str(), "set %u %d: %d -> %d", &db, &what.port, &what.old_pvid, &what.new_pvid) == 4)
            store.entry_told(table(db), db, what);
        else if (std::sscanf(each.text.c_str(), "del %u %d", &db, &what.port) == 2)
            store.entry_told(table(db), db, what, QZ_MOM_CMD_DEL);
        else
            ADD_FAILURE() << each.text;
        applied[db].push_back(each.text);
    }
    static uint32_t database_of(const store_write &each)
    {
        uint32_t db = 0;
        EXPECT_EQ(std::sscanf(each.text.c_str(), "%*s %u", &db), 1);
        return db;
    }
    // The writes under way to a database, without the others, which are done.
    std::vector<store_write> take(uint32_t db = 4)
    {
        std::vector<store_write> its;
        for (const store_write &each : std::exchange(store.writes, {})) {
            if (database_of(each) == db)
                its.push_back(each);
            else
                apply(each);
        }
        return its;
    }
    ebridged_stat stat() const
    {
        ebridged_stat now{};
        ebridged_get_stat(service, &now);
        return now;
    }
    static void add_log(ebridged_log_level level, const char *line, void *to)
    {
        const memory_for_the_test mine;
        auto &lines = *static_cast<std::vector<std::string> *>(to);
        if (level != EBRIDGED_LOG_DEBUG && (lines.empty() || lines.back() != line))
            lines.emplace_back(line);
    }
    std::vector<uint32_t> tables() const
    {
        std::vector<uint32_t> all = served;
        all.push_back(MIRROR);
        return all;
    }
    static std::string call(const char *name, uint32_t db, const char *table)
    {
        return name + (' ' + std::to_string(db)) + ' ' + table;
    }
    const listener &claims(uint32_t db = 4) const { return store.follows.at(call("subscribe", db, "port_vid")); }
    const listener &claim_scan(uint32_t db = 4) const { return store.follows.at(call("scan", db, "port_vid")); }
    const listener &table(uint32_t db = 4) const { return store.follows.at(call("subscribe", db, "pvid_table")); }
    const listener &table_scan(uint32_t db = 4) const { return store.follows.at(call("scan", db, "pvid_table")); }
    bool follows(const char *name, const char *table, uint32_t db = 4) const
    {
        return store.follows.contains(call(name, db, table));
    }

    scripted::store &store = the_store();
    ebridged_service *service = nullptr;
    std::vector<uint32_t> served{4};
    std::vector<std::string> log;
    std::map<uint32_t, std::vector<std::string>> applied;
};

INSTANTIATE_TEST_SUITE_P(Memory, Resolver, testing::Values(false, true),
                         [](const auto &lacks) { return std::string(lacks.param ? "Lacking" : "Enough"); });

constexpr int32_t PASSING[] = {QZ_MOM_EFULL, QZ_MOM_EDOWN, QZ_MOM_ENOMEM};

}  // namespace

// ---- the start ------------------------------------------------------------------------------------------------------

TEST_P(Resolver, NothingIsScannedBeforeItsSubscriptionIsConfirmed)
{
    ASSERT_EQ(start(), 0);
    EXPECT_FALSE(follows("scan", "port_vid"));
    EXPECT_FALSE(follows("scan", "pvid_table"));
    store.confirm(claims(), 4);
    EXPECT_TRUE(follows("scan", "port_vid"));
    EXPECT_FALSE(follows("scan", "pvid_table"));
    store.confirm(table(MIRROR), MIRROR);
    EXPECT_FALSE(follows("scan", "pvid_table"));
    EXPECT_TRUE(follows("scan", "pvid_table", MIRROR));
    store.confirm(table(), 4);
    EXPECT_TRUE(follows("scan", "pvid_table"));
    EXPECT_FALSE(follows("subscribe", "port_vid", MIRROR));
}

TEST_P(Resolver, NothingIsWrittenBeforeEverythingIsRead)
{
    follow({4, 5});
    set({"a", 1, 10});
    store.end_scan(claim_scan(4), 4);
    store.end_scan(claim_scan(5), 5);
    store.end_scan(table_scan(4), 4);
    store.end_scan(table_scan(MIRROR), MIRROR);
    EXPECT_THAT(store.writes, IsEmpty());
    store.end_scan(table_scan(5), 5);
    for (const uint32_t db : {4U, 5U, 8U})
        EXPECT_THAT(written(db), ElementsAre("set " + std::to_string(db) + " 1: 0 -> 10"));
}

TEST_P(Resolver, TheStartWritesOnlyWhatDiffersWithWhatTheRecordSaid)
{
    follow();
    found({"a", 1, 10});
    found({"a", 2, 20});
    found({"a", 3, 30});
    found({.port = 1, .old_pvid = 7, .new_pvid = 10});
    found({.port = 2, .old_pvid = 7, .new_pvid = 21});
    found({.port = 4, .old_pvid = 7, .new_pvid = 40});
    read();
    EXPECT_THAT(written(), UnorderedElementsAre("set 4 2: 21 -> 20", "set 4 3: 0 -> 30", "del 4 4"));
    EXPECT_THAT(written(MIRROR), UnorderedElementsAre("set 8 2: 21 -> 20", "set 8 3: 0 -> 30", "del 8 4"));
    EXPECT_THAT(log, Contains("default VLANs of 3 ports are set"));
    EXPECT_EQ(stat().pvid_ports, 3U);
    EXPECT_EQ(stat().pvids, 6U);
    EXPECT_EQ(stat().waiting_pvids, 0U);
}

// One that was killed between its two writes.
TEST_P(Resolver, TablesThatDifferAreMadeTheSame)
{
    follow();
    found({"a", 1, 10});
    found({"b", 1, 20});
    store.entry_told(table_scan(4), 4, {.port = 1, .old_pvid = 10, .new_pvid = 20});
    store.entry_told(table_scan(MIRROR), MIRROR, {.port = 1, .old_pvid = 0, .new_pvid = 10});
    read();
    EXPECT_THAT(written(4), IsEmpty());
    EXPECT_THAT(written(MIRROR), ElementsAre("set 8 1: 10 -> 20"));
}

// As one server's data may be older than another's: the later record is the one that names the other's pvid as its own before.
TEST_P(Resolver, OfTablesThatDifferTheLaterOneDecides)
{
    const std::map<uint32_t, pvid_entry> first{{4, {.port = 1, .old_pvid = 0, .new_pvid = 10}},
                                               {5, {.port = 1, .old_pvid = 10, .new_pvid = 20}},
                                               {8, {.port = 1, .old_pvid = 20, .new_pvid = 30}}};
    std::vector<uint32_t> order{4, 5, 8};
    do {
        follow({4, 5});
        for (const claim &each : {claim{"a", 1, 10}, claim{"b", 1, 20}, claim{"c", 1, 30}, claim{"d", 1, 40}})
            found(each);
        auto of = first.begin();
        for (const uint32_t db : order)
            store.entry_told(table_scan(db), db, (of++)->second);
        read();
        for (const uint32_t db : {order[0], order[1]})
            EXPECT_THAT(written(db), ElementsAre(testing::EndsWith(" -> 30")));
        EXPECT_THAT(written(order[2]), IsEmpty());
        let_go({"c", 1, 30});
        EXPECT_THAT(written(), ElementsAre("set 4 1: 30 -> 20"));
        ebridged_stop(std::exchange(service, nullptr));
        store.follows.clear();
        applied.clear();
    } while (std::ranges::next_permutation(order).found);
}

// Nothing tells which is the later one. Or each names the other.
TEST_P(Resolver, OfTablesThatDifferAndDoNotFollowEachOtherTheFirstOneDecides)
{
    for (const int32_t before : {7, 20}) {
        follow();
        found({"a", 1, 10});
        found({"b", 1, 20});
        store.entry_told(table_scan(4), 4, {.port = 1, .old_pvid = before, .new_pvid = 10});
        store.entry_told(table_scan(MIRROR), MIRROR, {.port = 1, .old_pvid = before == 7 ? 8 : 10, .new_pvid = 20});
        read();
        EXPECT_THAT(written(4), IsEmpty());
        EXPECT_THAT(written(MIRROR), ElementsAre("set 8 1: 20 -> 10"));
        ebridged_stop(std::exchange(service, nullptr));
        store.follows.clear();
        applied.clear();
    }
}

// Though it is the first one: the other two tell that of one of them a later one is known.
TEST_P(Resolver, ATableThatNoOtherOneFollowsDecidesNothingWhereOneFollowsAnother)
{
    follow({4, 5});
    for (const claim &each : {claim{"a", 1, 10}, claim{"b", 1, 20}, claim{"c", 1, 30}})
        found(each);
    store.entry_told(table_scan(4), 4, {.port = 1, .old_pvid = 7, .new_pvid = 10});
    store.entry_told(table_scan(5), 5, {.port = 1, .old_pvid = 8, .new_pvid = 20});
    store.entry_told(table_scan(MIRROR), MIRROR, {.port = 1, .old_pvid = 20, .new_pvid = 30});
    read();
    EXPECT_THAT(written(4), ElementsAre("set 4 1: 10 -> 30"));
    EXPECT_THAT(written(5), ElementsAre("set 5 1: 20 -> 30"));
    EXPECT_THAT(written(MIRROR), IsEmpty());
}

TEST_P(Resolver, OfThoseThatWereThereTheTableSaysWhichWasLastAndWhichWasBefore)
{
    follow();
    for (const claim &each : {claim{"a", 1, 10}, claim{"b", 1, 20}, claim{"d", 1, 30}, claim{"c", 1, 40}})
        found(each);
    found({.port = 1, .old_pvid = 10, .new_pvid = 20});
    read();
    EXPECT_THAT(written(), IsEmpty());
    let_go({"b", 1, 20});
    let_go({"a", 1, 10});
    let_go({"d", 1, 30});
    let_go({"c", 1, 40});
    EXPECT_THAT(written(), ElementsAre("set 4 1: 20 -> 10", "set 4 1: 10 -> 30", "set 4 1: 30 -> 40", "del 4 1"));
    EXPECT_EQ(stat().pvid_ports, 0U);
}

TEST_P(Resolver, WhenTheOneThatTheTableShowsIsGoneTheOneBeforeItCounts)
{
    follow();
    for (const claim &each : {claim{"a", 1, 10}, claim{"c", 1, 30}})
        found(each);
    found({.port = 1, .old_pvid = 10, .new_pvid = 20});
    read();
    EXPECT_THAT(written(), ElementsAre("set 4 1: 20 -> 10"));
}

// On another server, which has come back without its data.
TEST_P(Resolver, ATableThatWasLostIsNoReasonToDecideAnew)
{
    follow({4, 5});
    found({"a", 1, 20}, 5);
    found({"b", 1, 10}, 5);
    store.entry_told(table_scan(5), 5, {.port = 1, .old_pvid = 10, .new_pvid = 20});
    read();
    EXPECT_THAT(written(4), ElementsAre("set 4 1: 0 -> 20"));
    EXPECT_THAT(written(5), IsEmpty());
}

TEST_P(Resolver, WhatIsHeardDuringTheScansOutweighsThem)
{
    follow();
    set({"a", 1, 11});
    found({"a", 1, 10});
    let_go({"a", 2, 20});
    found({"a", 2, 20});
    found({"a", 3, 30});
    let_go({"a", 3, 30});
    for (const uint32_t db : tables()) {
        store.entry_told(table(db), db, {.port = 1, .new_pvid = 11});
        store.entry_told(table(db), db, {.port = 5, .new_pvid = 50}, QZ_MOM_CMD_DEL);
    }
    found({.port = 1, .new_pvid = 10});
    found({.port = 5, .new_pvid = 50});
    read();
    EXPECT_THAT(store.writes, IsEmpty());
    EXPECT_EQ(stat().pvid_ports, 1U);
}

// After those that were there before.
TEST_P(Resolver, WhatIsHeardDuringTheScansCountsInItsOrder)
{
    follow();
    set({"c", 1, 30});
    set({"a", 1, 10});
    found({"b", 1, 20});
    found({.port = 1, .new_pvid = 20});
    read();
    EXPECT_THAT(written(), ElementsAre("set 4 1: 20 -> 10"));
    let_go({"a", 1, 10});
    let_go({"c", 1, 30});
    EXPECT_THAT(written(), ElementsAre("set 4 1: 10 -> 30", "set 4 1: 30 -> 20"));
}

TEST_P(Resolver, EveryScanThatFailsIsMadeAgain)
{
    follow();
    for (const char *of : {"port_vid", "pvid_table"}) {
        const std::string name = call("scan", 4, of);
        const listener first = store.follows.at(name);
        store.follows.erase(name);
        store.end_scan(first, 4, QZ_MOM_EDOWN);
        EXPECT_FALSE(follows("scan", of));
        store.run_timers();
        ASSERT_TRUE(follows("scan", of));
    }
    found({"a", 1, 10});
    read();
    EXPECT_THAT(written(), ElementsAre("set 4 1: 0 -> 10"));
}

TEST_P(Resolver, ASubscriptionThatFailsIsMadeAgain)
{
    ASSERT_EQ(start(), 0);
    const listener first = table();
    const qz_mom_notification failed{.db = 4,
                                     .key = "",
                                     .field = "",
                                     .cmd = QZ_MOM_CMD_SUBSCRIBED,
                                     .value = nullptr,
                                     .end = 0,
                                     .error = QZ_MOM_EDOWN};
    store.follows.erase(call("subscribe", 4, "pvid_table"));
    first.cb(store.handle(), &failed, first.args);
    EXPECT_FALSE(follows("subscribe", "pvid_table"));
    EXPECT_FALSE(follows("scan", "pvid_table"));
    store.run_timers();
    EXPECT_TRUE(follows("subscribe", "pvid_table"));
}

TEST_P(Resolver, AStoreThatRefusesAtTheStartIsAskedAgain)
{
    for (const int32_t code : PASSING) {
        store.codes = {{"subscribe", code}, {"scan", code}};
        ASSERT_EQ(start(), 0);
        store.run_timers();
        EXPECT_FALSE(follows("subscribe", "port_vid"));
        store.codes.erase("subscribe");
        store.run_timers();
        store.confirm(claims(), 4);
        for (const uint32_t db : tables())
            store.confirm(table(db), db);
        EXPECT_FALSE(follows("scan", "port_vid"));
        store.codes.clear();
        store.run_timers();
        found({"a", 1, 10});
        read();
        EXPECT_THAT(written(), ElementsAre("set 4 1: 0 -> 10"));
        ebridged_stop(std::exchange(service, nullptr));
        store.follows.clear();
        store.timers.clear();
    }
}

TEST_P(Resolver, AStartThatCanNeverWorkIsRefused)
{
    store.codes = {{"subscribe 8", QZ_MOM_EDB}};
    EXPECT_EQ(start(), QZ_MOM_EDB);
    EXPECT_EQ(service, nullptr);
    EXPECT_THAT(log, Contains(HasSubstr("database 8: ")));
}

// Until it is its turn it follows, what another one writes included.
TEST_P(Resolver, WhoStandsByWritesNothingAndKnowsTheOrder)
{
    const std::vector<uint32_t> databases{4};
    const ebridged_options options{
        .databases = databases.data(), .database_count = 1, .log = add_log, .log_args = &log, .log_level = 0};
    ebridged::pvid_resolver resolver(store.handle(), &options);
    ASSERT_EQ(resolver.start(), 0);
    store.confirm(claims(), 4);
    for (const uint32_t db : tables())
        store.confirm(table(db), db);
    found({"b", 1, 20});
    found({"c", 1, 30});
    found({.port = 1, .new_pvid = 20});
    read();
    EXPECT_THAT(log, Contains("default VLANs of 1 ports are read"));
    set({"d", 1, 40});
    set({"a", 1, 10});
    for (const uint32_t db : tables())
        store.entry_told(table(db), db, {.port = 1, .old_pvid = 20, .new_pvid = 40});
    store.entry_told(table(), 4, {.port = 2, .new_pvid = 50});
    store.entry_told(table(), 4, {.port = 2, .new_pvid = 50}, QZ_MOM_CMD_DEL);
    EXPECT_THAT(store.writes, IsEmpty());
    resolver.serve();
    EXPECT_THAT(written(), ElementsAre("set 4 1: 40 -> 10"));
    for (const claim &each : {claim{"a", 1, 10}, claim{"d", 1, 40}, claim{"b", 1, 20}})
        let_go(each);
    EXPECT_THAT(written(), ElementsAre("set 4 1: 10 -> 40", "set 4 1: 40 -> 20", "set 4 1: 20 -> 30"));
}

// ---- changes --------------------------------------------------------------------------------------------------------

TEST_P(Resolver, TheLastOneWhoSetsItWinsAndTheOneBeforeItComesBack)
{
    serve();
    for (const int32_t cmd : {QZ_MOM_CMD_DEL, QZ_MOM_CMD_EXPIRED}) {
        set({"a", 1, 10});
        set({"b", 1, 20});
        set({"c", 1, 30});
        EXPECT_THAT(written(), ElementsAre("set 4 1: 0 -> 10", "set 4 1: 10 -> 20", "set 4 1: 20 -> 30"));
        let_go({"b", 1, 20}, 4, cmd);
        EXPECT_THAT(written(), IsEmpty());
        set({"a", 1, 11});
        EXPECT_THAT(written(), ElementsAre("set 4 1: 30 -> 11"));
        let_go({"a", 1, 11}, 4, cmd);
        EXPECT_THAT(written(), ElementsAre("set 4 1: 11 -> 30"));
        let_go({"c", 1, 30}, 4, cmd);
        EXPECT_THAT(written(), ElementsAre("del 4 1"));
    }
    EXPECT_EQ(stat().pvid_ports, 0U);
}

TEST_P(Resolver, WhoSetsTheSameAgainIsTheLastOne)
{
    serve();
    set({"a", 1, 10});
    set({"b", 1, 20});
    written();
    set({"a", 1, 10});
    EXPECT_THAT(written(), ElementsAre("set 4 1: 20 -> 10"));
    set({"a", 1, 10});
    EXPECT_THAT(written(), IsEmpty());
}

TEST_P(Resolver, AUserOfTwoDatabasesSetsTwo)
{
    serve({4, 5});
    set({"a", 1, 10}, 4);
    set({"a", 1, 20}, 5);
    let_go({"a", 1, 10}, 4);
    EXPECT_THAT(written(5), ElementsAre("set 5 1: 0 -> 10", "set 5 1: 10 -> 20"));
    let_go({"a", 1, 20}, 5);
    EXPECT_THAT(written(5), ElementsAre("del 5 1"));
}

TEST_P(Resolver, WhatIsNoVlanCountsAsNone)
{
    serve();
    set({"a", 1, 10});
    written();
    for (const int32_t pvid : {0, -1, 4095, INT32_MAX}) {
        log.clear();
        set({"b", 1, 4094});
        EXPECT_THAT(written(), ElementsAre("set 4 1: 10 -> 4094"));
        set({"b", 1, pvid});
        EXPECT_THAT(written(), ElementsAre("set 4 1: 4094 -> 10"));
        EXPECT_THAT(log, ElementsAre(HasSubstr(std::to_string(pvid) + " is no VLAN, taken for none")));
        let_go({"b", 1, pvid});
    }
    EXPECT_THAT(written(), IsEmpty());
}

TEST_P(Resolver, ForeignRecordsAreSkipped)
{
    serve();
    log.clear();
    store.written(claims(), 4, "a", 1);
    EXPECT_THAT(log, ElementsAre(HasSubstr("not a user's default VLAN, skipped")));
    log.clear();
    set({"", 1, 10});
    EXPECT_THAT(log, ElementsAre(HasSubstr("not a user's default VLAN, skipped")));
    log.clear();
    store.written(table(), 4, "a", 1);
    store.entry_told(table(), 4, {.port = 1, .new_pvid = 10, .user = "a"});
    EXPECT_THAT(log, ElementsAre(HasSubstr("not of the table of default VLANs"), HasSubstr("pvid:a/1: not of the")));
    EXPECT_THAT(store.writes, IsEmpty());
    EXPECT_EQ(stat().pvid_ports, 0U);
}

// ---- what others write into the table -------------------------------------------------------------------------------

TEST_P(Resolver, WhatItHearsOfItsOwnWritesLeadsToNoOther)
{
    serve();
    for (int32_t pvid = 1; pvid <= 20; ++pvid)
        set({"a", 1, pvid});
    let_go({"a", 1, 20});
    set({"a", 1, 30});
    const auto all = written();
    EXPECT_EQ(all.size(), 22U);
    EXPECT_EQ(all.back(), "set 4 1: 0 -> 30");
    EXPECT_EQ(stat().pvids, 44U);
}

TEST_P(Resolver, ARecordThatSomebodyChangesIsWrittenAgainAsAChangeOfThat)
{
    serve();
    set({"a", 1, 10});
    written();
    store.entry_told(table(), 4, {.port = 1, .old_pvid = 10, .new_pvid = 77});
    EXPECT_THAT(written(), ElementsAre("set 4 1: 77 -> 10"));
    EXPECT_THAT(written(MIRROR), ElementsAre("set 8 1: 0 -> 10"));
    for (const int32_t cmd : {QZ_MOM_CMD_DEL, QZ_MOM_CMD_EXPIRED}) {
        store.entry_told(table(), 4, {.port = 1, .new_pvid = 10}, cmd);
        EXPECT_THAT(written(), ElementsAre("set 4 1: 0 -> 10"));
    }
    store.entry_told(table(), 4, {.port = 2, .new_pvid = 20});
    EXPECT_THAT(written(), ElementsAre("del 4 2"));
    store.entry_told(table(), 4, {.port = 2, .new_pvid = 20}, QZ_MOM_CMD_DEL);
    EXPECT_THAT(written(), IsEmpty());
}

// Such a record can be written only by removing it first.
TEST_P(Resolver, ARecordOfAnotherFormIsReplaced)
{
    follow();
    found({"a", 1, 10});
    for (const uint32_t db : tables()) {
        store.entry_told(table_scan(db), db, {.port = 1, .new_pvid = 10}, QZ_MOM_CMD_HMSET);
        store.entry_told(table_scan(db), db, {.port = 2, .new_pvid = 0});
    }
    read();
    EXPECT_THAT(written(), UnorderedElementsAre("del 4 1", "set 4 1: 0 -> 10", "del 4 2"));
    store.entry_told(table(), 4, {.port = 3, .new_pvid = 30}, QZ_MOM_CMD_HSET);
    EXPECT_THAT(written(), ElementsAre("del 4 3"));
}

TEST_P(Resolver, OnARecordOfAnotherFormThatComesInTheWayTheWriteIsMadeAgain)
{
    serve();
    set({"a", 1, 10});
    const store_write failed = take().at(0);
    store.entry_told(table(), 4, {.port = 1, .new_pvid = 77}, QZ_MOM_CMD_HMSET);
    store.write_done(failed, 4, QZ_MOM_EFORM);
    EXPECT_THAT(written(), ElementsAre("del 4 1", "set 4 1: 0 -> 10"));
}

TEST_P(Resolver, OfAnothersWriteAndItsOwnTheLaterOneStands)
{
    serve();
    set({"a", 1, 10});
    written();
    for (const bool is_later : {false, true}) {
        set({"a", 1, is_later ? 12 : 11});
        const store_write own = take().back();
        if (is_later)
            hear(own);
        store.entry_told(table(), 4, {.port = 1, .new_pvid = 77});
        if (!is_later)
            hear(own);
        EXPECT_THAT(store.writes, IsEmpty());
        store.write_done(own, 4);
        applied.clear();
        if (is_later)
            EXPECT_THAT(written(), ElementsAre("set 4 1: 77 -> 12"));
        else
            EXPECT_THAT(written(), IsEmpty());
    }
}

// ---- writes that fail -----------------------------------------------------------------------------------------------

TEST_P(Resolver, WhatTheStoreRefusesComesLaterAsThingsStandThen)
{
    serve();
    set({"a", 3, 30});
    written();
    for (const int32_t code : PASSING) {
        store.codes = {{"set", code}, {"del", code}};
        set({"a", 1, 10});
        set({"a", 2, 20});
        let_go({"a", 3, 30});
        set({"a", 1, 11});
        EXPECT_EQ(stat().waiting_pvids, 6U);
        EXPECT_EQ(store.timers.size(), 1U);
        store.run_timers();
        EXPECT_THAT(store.writes, IsEmpty());
        store.codes.clear();
        store.run_timers();
        EXPECT_THAT(written(), UnorderedElementsAre("set 4 1: 0 -> 11", "set 4 2: 0 -> 20", "del 4 3"));
        EXPECT_EQ(stat().waiting_pvids, 0U);
        EXPECT_THAT(store.timers, IsEmpty());
        let_go({"a", 1, 11});
        let_go({"a", 2, 20});
        set({"a", 3, 30});
        written();
    }
}

TEST_P(Resolver, ADatabaseThatIsDownDoesNotHoldUpTheOthers)
{
    serve({4, 5});
    store.codes = {{"set 4", QZ_MOM_EDOWN}};
    set({"a", 1, 10});
    EXPECT_THAT(written(5), ElementsAre("set 5 1: 0 -> 10"));
    EXPECT_THAT(written(MIRROR), ElementsAre("set 8 1: 0 -> 10"));
    EXPECT_EQ(stat().waiting_pvids, 1U);
    store.codes.clear();
    store.run_timers();
    EXPECT_THAT(written(4), ElementsAre("set 4 1: 0 -> 10"));
}

TEST_P(Resolver, AFullStoreIsWrittenToInPieces)
{
    serve();
    store.room = 1;
    for (int32_t port = 1; port <= 5; ++port)
        set({"a", port, 10});
    std::vector<std::string> all;
    for (int turn = 0; turn < 20; ++turn) {
        EXPECT_LE(store.writes.size(), 1U);
        for (const store_write &each : std::exchange(store.writes, {}))
            apply(each);
        store.run_timers();
    }
    EXPECT_EQ(applied[4].size(), 5U);
    EXPECT_EQ(applied[MIRROR].size(), 5U);
    EXPECT_EQ(stat().waiting_pvids, 0U);
}

TEST_P(Resolver, AWriteThatFailsLaterIsMadeAgain)
{
    serve();
    set({"a", 1, 10});
    written();
    for (const int32_t code : PASSING) {
        set({"b", 1, 20});
        const auto failed = take();
        ASSERT_EQ(failed.size(), 1U);
        store.write_done(failed[0], 4, code);
        EXPECT_THAT(log, Contains(HasSubstr("write failed")));
        EXPECT_THAT(store.writes, IsEmpty());
        store.run_timers();
        EXPECT_THAT(written(), ElementsAre("set 4 1: 10 -> 20"));
        let_go({"b", 1, 20});
        written();
    }
}

// The later one is made, and with its answer it is known what became of the first.
TEST_P(Resolver, OfTwoWritesUnderWayTheFirstOfWhichFails)
{
    serve();
    set({"a", 1, 10});
    set({"a", 1, 20});
    const auto sent = take();
    ASSERT_EQ(sent.size(), 2U);
    store.write_done(sent[0], 4, QZ_MOM_EDOWN);
    apply(sent[1]);
    store.run_timers();
    applied.clear();
    EXPECT_THAT(written(), IsEmpty());
    store.entry_told(table(), 4, {.port = 1, .new_pvid = 20}, QZ_MOM_CMD_DEL);
    EXPECT_THAT(written(), ElementsAre("set 4 1: 0 -> 20"));
}

TEST_P(Resolver, ARemovalThatFailsLaterIsMadeAgain)
{
    serve();
    set({"a", 1, 10});
    written();
    let_go({"a", 1, 10});
    store.write_done(take().at(0), 4, QZ_MOM_EDOWN);
    store.run_timers();
    EXPECT_THAT(written(), ElementsAre("del 4 1"));
}

TEST_P(Resolver, WhatCanNeverBeWrittenIsNotTriedAgain)
{
    serve();
    set({"a", 1, 10});
    store.write_done(take().at(0), 4, QZ_MOM_EINVAL);
    store.codes = {{"set 4", QZ_MOM_EINVAL}};
    set({"a", 2, 10});
    EXPECT_THAT(log, Contains(HasSubstr("write failed")));
    EXPECT_THAT(log, Contains(HasSubstr("cannot be written")));
    EXPECT_THAT(written(), IsEmpty());
    EXPECT_THAT(store.timers, IsEmpty());
    EXPECT_EQ(stat().waiting_pvids, 0U);
    store.codes.clear();
    set({"a", 1, 11});
    EXPECT_THAT(written(), ElementsAre("set 4 1: 0 -> 11"));
}

// The store calls it another form's, and nobody has told of such a record: a removal would not make room.
TEST_P(Resolver, AFormThatNobodyToldOfIsNotWrittenAgain)
{
    serve();
    set({"a", 1, 10});
    written();
    set({"a", 1, 11});
    store.write_done(take().at(0), 4, QZ_MOM_EFORM);
    EXPECT_THAT(written(), IsEmpty());
    EXPECT_THAT(store.timers, IsEmpty());
    EXPECT_EQ(stat().waiting_pvids, 0U);
}

TEST_P(Resolver, AForeignRecordIsNoReasonToTryAgainWhatCanNeverBeWritten)
{
    serve();
    set({"a", 1, 10});
    const store_write failed = take().at(0);
    store.entry_told(table(), 4, {.port = 1, .new_pvid = 77}, QZ_MOM_CMD_HMSET);
    store.write_done(failed, 4, QZ_MOM_EINVAL);
    EXPECT_THAT(written(), IsEmpty());
    EXPECT_EQ(stat().waiting_pvids, 0U);
}

// Another one resolves now, and this one is about to hear of it.
TEST_P(Resolver, AFencedHandleIsNotAskedAgain)
{
    serve();
    set({"a", 1, 10});
    store.write_done(take().at(0), 4, QZ_MOM_EFENCED);
    store.codes = {{"set", QZ_MOM_EFENCED}};
    set({"a", 2, 20});
    EXPECT_THAT(store.writes, IsEmpty());
    EXPECT_THAT(store.timers, IsEmpty());
}

TEST_P(Resolver, WithoutATimerTheNextChangeBringsWhatWaits)
{
    serve();
    store.codes = {{"set", QZ_MOM_EDOWN}, {"timer", QZ_THREAD_ENOMEM}};
    set({"a", 1, 10});
    EXPECT_THAT(log, Contains(HasSubstr("no timer: default VLANs of 2 ports wait for the next change")));
    store.codes.clear();
    set({"a", 2, 20});
    EXPECT_THAT(written(), UnorderedElementsAre("set 4 1: 0 -> 10", "set 4 2: 0 -> 20"));
}

// ---- the end --------------------------------------------------------------------------------------------------------

TEST_P(Resolver, CallbacksAfterTheEndDoNothing)
{
    serve();
    set({"a", 1, 10});
    const std::vector<store_write> pending = take();
    store.codes = {{"set", QZ_MOM_EFULL}};
    set({"a", 2, 20});
    ebridged_stop(std::exchange(service, nullptr));
    store.codes.clear();
    set({"a", 3, 30});
    hear(pending.at(0));
    store.write_done(pending.at(0), 4, QZ_MOM_EDOWN);
    read();
    store.run_timers();
    EXPECT_THAT(store.writes, IsEmpty());
}

TEST_P(Resolver, AStopInTheMiddleOfTheStartIsNoHarm)
{
    follow();
    found({"a", 1, 10});
    ebridged_stop(std::exchange(service, nullptr));
    read();
    EXPECT_THAT(store.writes, IsEmpty());
    serve();
    EXPECT_EQ(stat().pvid_ports, 0U);
}

// ---- all of it ------------------------------------------------------------------------------------------------------

// A store that takes its time and refuses now and then; nobody else writes. What a follower of a table hears is a chain:
// each old value is the new one before it.
TEST_P(Resolver, WhateverTheStoreDoesTheTablesAreWhatAModelSaysAndOldValuesAreRight)
{
    store.lacks_memory = false;  // it would take long
    std::minstd_rand random(GetParam() ? 2 : 1);
    const auto draw = [&random](size_t count) { return static_cast<size_t>(random() >> 4) % count; };
    const std::array<std::string, 4> users{"a", "b", "c", "d"};
    std::map<int32_t, std::vector<claim>> model;
    std::map<std::pair<uint32_t, int32_t>, int32_t> shown;
    serve({4, 5});
    const auto change = [&] {
        const claim made{users[draw(4)], 1 + static_cast<int32_t>(draw(6)), 1 + static_cast<int32_t>(draw(20))};
        std::erase_if(model[made.port], [&](const claim &each) { return each.user == made.user; });
        if (draw(3) == 0)
            return let_go(made, 4, draw(2) == 0 ? QZ_MOM_CMD_DEL : QZ_MOM_CMD_EXPIRED);
        model[made.port].push_back(made);
        set(made);
    };
    const auto answer = [&] {
        if (store.writes.empty())
            return;
        const store_write first = store.writes.front();
        store.writes.erase(store.writes.begin());
        apply(first);
        uint32_t db = 0;
        int32_t port = 0, before = 0, now = 0;
        const int read = std::sscanf(first.text.c_str(), "%*s %u %d: %d -> %d", &db, &port, &before, &now);
        if (read == 4)
            EXPECT_EQ(before, (shown[{db, port}])) << first.text;
        else
            EXPECT_NE(0, (shown[{db, port}])) << first.text;
        shown[{db, port}] = now;
    };
    for (int turn = 0; turn < 20000; ++turn) {
        switch (draw(8)) {
            case 0:
                store.codes = {{draw(2) == 0 ? "set" : "set 5", PASSING[draw(3)]}, {"del", PASSING[draw(3)]}};
                break;
            case 1:
                store.codes.clear();
                break;
            case 2:
                store.run_timers();
                break;
            case 3:
            case 4:
                change();
                break;
            default:
                answer();
        }
    }
    store.codes.clear();
    while (!store.timers.empty() || !store.writes.empty()) {
        store.run_timers();
        answer();
    }
    for (const uint32_t db : tables())
        for (int32_t port = 1; port <= 6; ++port)
            EXPECT_EQ((shown[{db, port}]), model[port].empty() ? 0 : model[port].back().pvid) << db << ' ' << port;
    EXPECT_EQ(stat().waiting_pvids, 0U);
    EXPECT_GT(stat().pvids, 1000U);
}
