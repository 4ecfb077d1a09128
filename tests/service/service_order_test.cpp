// The service against a store whose every callback the test times: the order of the start, what outweighs what, and
// writes that fail at once or later. Each for evlans and for eports, with memory and without.
#include <gmock/gmock.h>

#include <utility>

#include "ebridged.h"
#include "scripted_store.hpp"

using namespace scripted;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

class ServiceOfBoth : public testing::Test
{
  protected:
    ~ServiceOfBoth() override { ebridged_stop(service); }

    void start() { ASSERT_EQ(ebridged_start(store.handle(), nullptr, &service), 0); }
    // Up to the scans, none of which has delivered anything yet.
    void follow()
    {
        start();
        for (const table of : {table::evlan, table::eport}) {
            store.confirm(ranges("subscribe 4", of), 4);
            store.confirm(live(of), 4);
        }
    }
    void end_scans(table of)
    {
        store.end_scan(ranges("scan 4", of), 4);
        store.end_scan(scan(of), 4);
        store.end_scan(mirrors(of), 8);
    }
    void end_scans()
    {
        end_scans(table::evlan);
        end_scans(table::eport);
    }
    void serve()
    {
        follow();
        end_scans();
        ASSERT_EQ(stat().serving, 1U);
    }
    ebridged_stat stat() const
    {
        ebridged_stat now{};
        ebridged_get_stat(service, &now);
        return now;
    }
    // What has been written since the last time, mirrors that were held included.
    std::vector<std::string> written()
    {
        store.run_timers();
        auto texts = store.texts();
        store.writes.clear();
        return texts;
    }
    static std::string sessions(const char *call, table of)
    {
        return call + std::string(of == table::evlan ? " evlan_session" : " eport_session");
    }
    const listener &ranges(const char *call, table of) { return store.follows.at(sessions(call, of) + "_range"); }
    const listener &live(table of) { return store.follows.at(sessions("subscribe_field 4", of)); }
    const listener &scan(table of) { return store.follows.at(sessions("scan 4", of)); }
    const listener &mirrors(table of) { return store.follows.at(sessions("scan 8", of)); }

    scripted::store &store = the_store();
    ebridged_service *service = nullptr;
};

struct circumstances {
    table of;
    bool lacks_memory;
};

// The same for one table, while the other one is empty.
class ServiceOrder : public ServiceOfBoth, public testing::WithParamInterface<circumstances>
{
  protected:
    ServiceOrder() { store.lacks_memory = GetParam().lacks_memory; }

    bool follows(const char *call) const { return store.follows.contains(sessions(call, of)); }
    const listener &live() { return ServiceOfBoth::live(of); }
    const listener &scan() { return ServiceOfBoth::scan(of); }
    const listener &mirrors() { return ServiceOfBoth::mirrors(of); }
    const listener &ranges(const char *call) { return ServiceOfBoth::ranges(call, of); }

    const table of = GetParam().of;
};

const circumstances CIRCUMSTANCES[] = {
    {table::evlan, false}, {table::eport, false}, {table::evlan, true}, {table::eport, true}};

INSTANTIATE_TEST_SUITE_P(Tables, ServiceOrder, testing::ValuesIn(CIRCUMSTANCES), [](const auto &now) {
    return std::string(now.param.of == table::evlan ? "evlan" : "eport") +
           (now.param.lacks_memory ? "WithoutMemory" : "");
});

}  // namespace

TEST_P(ServiceOrder, NothingIsScannedBeforeBothSubscriptionsAreConfirmed)
{
    start();
    EXPECT_FALSE(follows("scan 4"));
    store.confirm(live(), 4);
    EXPECT_FALSE(follows("scan 4"));
    store.confirm(ranges("subscribe 4"), 4);
    EXPECT_TRUE(follows("scan 4"));
    EXPECT_NO_THROW(ranges("scan 4"));
}

TEST_P(ServiceOrder, NothingIsAnsweredBeforeEveryTableIsRead)
{
    const table other = of == table::evlan ? table::eport : table::evlan;
    follow();
    store.written(live(), 4, "a", 1);
    store.end_scan(scan(), 4);
    store.end_scan(ranges("scan 4"), 4);
    end_scans(other);
    EXPECT_THAT(store.writes, IsEmpty());
    store.end_scan(mirrors(), 8);
    EXPECT_THAT(written(), ElementsAre("hmupdate 4 a/32/1 0x20000001", "hmset 8 a/32/1 0x20000001"));
}

TEST_P(ServiceOrder, ARemovalHeardDuringTheScanOutweighsTheScansCopy)
{
    follow();
    store.removed(live(), 4, "a", 1);
    store.written(scan(), 4, "a", 1, 0x20000005);
    end_scans();
    EXPECT_THAT(store.writes, IsEmpty());
    EXPECT_EQ(stat().keys, 0U);
}

TEST_P(ServiceOrder, AWriteHeardDuringTheScanOutweighsTheScansCopy)
{
    follow();
    store.written(live(), 4, "a", 1, 0x20000007);
    store.written(scan(), 4, "a", 1, 0x20000005);
    end_scans();
    EXPECT_THAT(written(), ElementsAre("hmupdate 4 a/32/1 0x20000007", "hmset 8 a/32/1 0x20000007"));
}

TEST_P(ServiceOrder, ASessionRemovedAfterTheScanSawItIsNotTakenOver)
{
    follow();
    store.written(scan(), 4, "a", 1, 0x20000005);
    store.removed(live(), 4, "a", 1);
    end_scans();
    EXPECT_EQ(stat().keys, 0U);
}

TEST_P(ServiceOrder, GrantedIdsAreTakenOverBeforeAnythingIsDecided)
{
    follow();
    store.written(scan(), 4, "a", 1);
    store.written(scan(), 4, "b", 2, 0x20000001);
    end_scans();
    EXPECT_THAT(store.texts(), testing::IsSupersetOf({"hmupdate 4 a/32/1 0x20000002", "hmupdate 4 b/32/2 0x20000001"}));
}

// Its old id is another's by then. What lacks memory in between is done again from what there was before.
TEST_P(ServiceOrder, AnotherIdThatWasAskedForWhileNobodyServedIsGivenAtTheStart)
{
    follow();
    store.written(scan(), 4, "a", 1, 0x20000005, 0x20000007);
    store.written(scan(), 4, "b", 2, 0, 0x20000005);
    end_scans();
    store.run_timers();
    const auto all = store.texts();
    EXPECT_THAT(all, testing::IsSupersetOf({"hmupdate 4 a/32/1 0x20000007", "hmset 8 a/32/1 0x20000007",
                                            "hmupdate 4 b/32/2 0x20000005", "hmset 8 b/32/2 0x20000005"}));
    EXPECT_THAT(all, testing::Not(testing::Contains(testing::HasSubstr("0xffffffff"))));
}

TEST_P(ServiceOrder, AScanThatFailsIsMadeAgain)
{
    follow();
    const listener first = scan();
    store.follows.erase(sessions("scan 4", of));
    store.end_scan(first, 4, QZ_MOM_EDOWN);
    store.run_timers();
    ASSERT_TRUE(follows("scan 4"));
    end_scans();
    EXPECT_EQ(stat().serving, 1U);
}

TEST_P(ServiceOrder, AStoreThatIsDownAtTheStartIsAskedAgain)
{
    store.codes = {{"subscribe", QZ_MOM_EDOWN}, {"subscribe_field", QZ_MOM_EDOWN}};
    start();
    store.run_timers();
    EXPECT_FALSE(follows("subscribe_field 4"));
    store.codes.clear();
    store.run_timers();
    EXPECT_TRUE(follows("subscribe_field 4"));
    EXPECT_NO_THROW(ranges("subscribe 4"));
}

TEST_P(ServiceOrder, AnswersThatTheStoreRefusesComeLaterAndInOrder)
{
    serve();
    store.codes = {{"hmupdate", QZ_MOM_EFULL}};
    for (uint32_t key : {1U, 2U})
        store.written(live(), 4, "a", key);
    EXPECT_THAT(store.writes, IsEmpty());
    EXPECT_EQ(stat().waiting, 4U);
    store.run_timers();
    EXPECT_THAT(store.writes, IsEmpty());
    store.codes = {{"hmset", QZ_MOM_EDOWN}};
    store.run_timers();
    store.codes.clear();
    store.run_timers();
    EXPECT_THAT(store.texts(), ElementsAre("hmupdate 4 a/32/1 0x20000001", "hmset 8 a/32/1 0x20000001",
                                           "hmupdate 4 a/32/2 0x20000002", "hmset 8 a/32/2 0x20000002"));
    EXPECT_EQ(stat().waiting, 0U);
    EXPECT_THAT(store.timers, IsEmpty());
}

TEST_P(ServiceOrder, WhatIsDueTwiceIsWrittenOnceAsThingsStandThen)
{
    serve();
    store.codes = {{"hmupdate", QZ_MOM_EFULL}};
    for (int again = 0; again < 100; ++again)
        store.written(live(), 4, "a", 1);
    EXPECT_EQ(stat().waiting, 2U);
    store.codes.clear();
    store.run_timers();
    EXPECT_THAT(store.texts(), ElementsAre("hmupdate 4 a/32/1 0x20000001", "hmset 8 a/32/1 0x20000001"));
}

// A timer that lacks memory is not called again by itself. The name is so long that a record of it takes some.
TEST_P(ServiceOrder, WhatWaitsOutlivesATimerWithoutMemory)
{
    const std::string user = "a-user-with-a-name-of-31-letter";
    serve();
    store.codes = {{"hmupdate", QZ_MOM_EFULL}};
    store.written(live(), 4, user.c_str(), 1);
    store.codes.clear();
    store.run_timers();
    EXPECT_THAT(store.texts(),
                ElementsAre("hmupdate 4 " + user + "/32/1 0x20000001", "hmset 8 " + user + "/32/1 0x20000001"));
    EXPECT_THAT(store.timers, IsEmpty());
}

TEST_P(ServiceOrder, AnAnswerThatWaitsIsNotWrittenOnceItsSessionIsGone)
{
    serve();
    store.codes = {{"hmupdate", QZ_MOM_EFULL}};
    store.written(live(), 4, "a", 1);
    store.removed(live(), 4, "a", 1);
    store.codes.clear();
    store.run_timers();
    EXPECT_THAT(store.texts(), testing::Each("del 8 a/32/1"));
}

// The answer to the first request is applied after the second one was written, so it answers that.
TEST_P(ServiceOrder, ASessionRequestedAgainWhileItsAnswerIsUnderWayKeepsTheId)
{
    serve();
    store.written(live(), 4, "a", 1);
    written();
    for (int again = 0; again < 2; ++again) {
        store.removed(live(), 4, "a", 1);
        store.written(live(), 4, "a", 1);
        EXPECT_THAT(written(),
                    ElementsAre("hmupdate 4 a/32/1 0x20000001", "del 8 a/32/1", "hmset 8 a/32/1 0x20000001"));
    }
}

TEST_P(ServiceOrder, WhoAsksAgainForACertainIdIsGivenThatOne)
{
    serve();
    store.written(live(), 4, "a", 1);
    store.removed(live(), 4, "a", 1);
    written();
    store.written(live(), 4, "a", 1, 0, 0x20000009);
    EXPECT_THAT(written(), ElementsAre("hmupdate 4 a/32/1 0x20000009", "hmset 8 a/32/1 0x20000009"));
}

TEST_P(ServiceOrder, AnIdRestsOnceItsAnswerIsDone)
{
    serve();
    store.written(live(), 4, "a", 1);
    store.write_done(store.writes[0], 4, "a", 1, 0);
    store.removed(live(), 4, "a", 1);
    written();
    store.written(live(), 4, "a", 1);
    EXPECT_THAT(written(), ElementsAre("hmupdate 4 a/32/1 0x20000002", "hmset 8 a/32/1 0x20000002"));
}

TEST_P(ServiceOrder, AnIdWhoseAnswerIsUnderWayCanBeAnothersMeanwhile)
{
    serve();
    store.written(live(), 4, "a", 1);
    store.removed(live(), 4, "a", 1);
    store.written(live(), 4, "b", 2, 0, 0x20000001);
    written();
    store.written(live(), 4, "a", 1);
    EXPECT_THAT(written(), ElementsAre("hmupdate 4 a/32/1 0x20000002", "hmset 8 a/32/1 0x20000002"));
}

// The first answer is still under way when the third request comes, but the second one has been answered, too.
TEST_P(ServiceOrder, AnAnswerStandsWhenAnEarlierOneIsUnderWay)
{
    serve();
    store.written(live(), 4, "a", 1);
    store.removed(live(), 4, "a", 1);
    store.written(live(), 4, "b", 2, 0, 0x20000001);
    store.written(live(), 4, "a", 1);
    written();
    store.written(live(), 4, "a", 1);
    store.removed(live(), 4, "b", 2);
    store.written(live(), 4, "a", 1);
    EXPECT_THAT(written(), ElementsAre("hmupdate 4 a/32/1 0x20000002", "hmupdate 4 a/32/1 0x20000002",
                                       "hmset 8 a/32/1 0x20000002", "del 8 b/32/2", "hmset 8 a/32/1 0x20000002"));
}

TEST_P(ServiceOrder, AWriteThatFailsLaterIsMadeAgain)
{
    serve();
    store.written(live(), 4, "a", 1);
    store.run_timers();
    const std::vector<store_write> first = std::exchange(store.writes, {});
    ASSERT_EQ(first.size(), 2U);
    store.write_done(first[0], 4, "a", 1, QZ_MOM_EDOWN);
    EXPECT_THAT(written(), ElementsAre("hmupdate 4 a/32/1 0x20000001"));
    store.write_done(first[1], 8, "a", 1, QZ_MOM_EDOWN);
    EXPECT_THAT(written(), ElementsAre("hmset 8 a/32/1 0x20000001"));
}

TEST_P(ServiceOrder, ARemovalThatFailsLaterIsMadeAgain)
{
    serve();
    store.written(live(), 4, "a", 1);
    written();
    store.removed(live(), 4, "a", 1);
    store.run_timers();
    const std::vector<store_write> removal = std::exchange(store.writes, {});
    ASSERT_EQ(removal.size(), 1U);
    store.write_done(removal[0], 8, "a", 1, QZ_MOM_EDOWN);
    EXPECT_THAT(written(), ElementsAre("del 8 a/32/1"));
}

TEST_P(ServiceOrder, AWriteThatCanNeverSucceedIsNotMadeAgain)
{
    serve();
    store.written(live(), 4, "a", 1);
    store.run_timers();
    const std::vector<store_write> first = std::exchange(store.writes, {});
    ASSERT_EQ(first.size(), 2U);
    store.write_done(first[0], 4, "a", 1, QZ_MOM_EFORM);
    store.write_done(first[1], 8, "a", 1, 0);
    EXPECT_THAT(store.timers, IsEmpty());
    store.codes = {{"hmupdate", QZ_MOM_EFORM}};
    store.written(live(), 4, "a", 2);
    EXPECT_THAT(written(), ElementsAre("hmset 8 a/32/2 0x20000002"));
    EXPECT_EQ(stat().waiting, 0U);
}

TEST_P(ServiceOrder, CallbacksAfterTheEndDoNothing)
{
    serve();
    store.written(live(), 4, "a", 1);
    const std::vector<store_write> pending = store.writes;
    store.codes = {{"hmupdate", QZ_MOM_EFULL}};
    store.written(live(), 4, "a", 2);
    ebridged_stop(service);
    service = nullptr;
    store.writes.clear();
    store.codes.clear();
    store.written(live(), 4, "a", 3);
    store.end_scan(scan(), 4);
    store.write_done(pending[0], 4, "a", 1, QZ_MOM_EDOWN);
    store.run_timers();
    EXPECT_THAT(store.writes, IsEmpty());
}

// A user who follows the mirrors hears the answers to its own requests there, also those to what it has already.
TEST_P(ServiceOrder, ARequestForWhatIsAnsweredIsAnsweredAndMirroredAgain)
{
    serve();
    for (int again = 0; again < 3; ++again) {
        store.written(live(), 4, "a", 1);
        EXPECT_THAT(written(), ElementsAre("hmupdate 4 a/32/1 0x20000001", "hmset 8 a/32/1 0x20000001"));
    }
}

// ---- mirrors that wait for each other -------------------------------------------------------------------------------

TEST_P(ServiceOrder, MirrorsAreHeldForAMomentAndWrittenTogether)
{
    serve();
    for (const uint32_t key : {1U, 2U})
        store.written(live(), 4, "a", key);
    EXPECT_THAT(store.texts(), ElementsAre("hmupdate 4 a/32/1 0x20000001", "hmupdate 4 a/32/2 0x20000002"));
    EXPECT_EQ(store.timers.size(), 1U);
    store.writes.clear();
    EXPECT_THAT(written(), ElementsAre("hmset 8 a/32/1 0x20000001", "hmset 8 a/32/2 0x20000002"));
    EXPECT_THAT(store.timers, IsEmpty());
}

// Another key gets the id: who follows the mirrors hears first that it is free.
TEST_P(ServiceOrder, EveryStepOfASessionIsMirroredInItsOrder)
{
    serve();
    store.written(live(), 4, "a", 1);
    store.removed(live(), 4, "a", 1);
    store.written(live(), 4, "b", 2, 0, 0x20000001);
    store.written(live(), 4, "a", 1);
    store.writes.clear();
    EXPECT_THAT(written(), ElementsAre("hmset 8 a/32/1 0x20000001", "del 8 a/32/1", "hmset 8 b/32/2 0x20000001",
                                       "hmset 8 a/32/1 0x20000002"));
}

TEST_P(ServiceOrder, AsManyMirrorsAsAreSentInOneCallWaitForNothing)
{
    serve();
    for (uint32_t key = 1; key <= 127; ++key)
        store.written(live(), 4, "a", key);
    EXPECT_EQ(store.writes.size(), 127U);
    store.written(live(), 4, "a", 128);
    EXPECT_EQ(store.writes.size(), 256U);
    EXPECT_EQ(store.writes.back().text, "hmset 8 a/32/128 0x20000080");
}

TEST_P(ServiceOrder, MirrorsAreWrittenAtOnceWhenThereIsNoTimer)
{
    serve();
    store.codes = {{"timer", QZ_MOM_ENOMEM}};
    store.written(live(), 4, "a", 1);
    EXPECT_THAT(store.texts(), ElementsAre("hmupdate 4 a/32/1 0x20000001", "hmset 8 a/32/1 0x20000001"));
}

TEST_P(ServiceOrder, HeldMirrorsThatTheStoreRefusesComeLaterAsThingsStandThen)
{
    serve();
    for (const uint32_t key : {1U, 2U})
        store.written(live(), 4, "a", key);
    store.codes = {{"hmset", QZ_MOM_EFULL}, {"del", QZ_MOM_EFULL}};
    store.run_timers();
    EXPECT_EQ(stat().waiting, 2U);
    store.removed(live(), 4, "a", 1);
    EXPECT_EQ(stat().waiting, 3U);
    store.codes.clear();
    store.writes.clear();
    EXPECT_THAT(written(), ElementsAre("del 8 a/32/1", "hmset 8 a/32/2 0x20000002"));
    EXPECT_THAT(store.timers, IsEmpty());
}

// The mirror of b is due from before: its refusal.
TEST_P(ServiceOrder, ARemovalThatWaitsIsMirroredBeforeItsIdIsAnothers)
{
    serve();
    store.written(live(), 4, "a", 1, 0, 0x20000001);
    written();
    store.codes = {{"hmset", QZ_MOM_EFULL}, {"del", QZ_MOM_EFULL}};
    store.written(live(), 4, "b", 2, 0, 0x20000001);
    store.run_timers();
    store.removed(live(), 4, "a", 1);
    store.written(live(), 4, "b", 2, 0, 0x20000001);
    store.codes.clear();
    store.writes.clear();
    EXPECT_THAT(written(), ElementsAre("del 8 a/32/1", "hmset 8 b/32/2 0x20000001", "hmupdate 4 b/32/2 0x20000001"));
    EXPECT_EQ(stat().waiting, 0U);
}

TEST_P(ServiceOrder, WhatIsHeldIsWrittenBeforeTheEnd)
{
    serve();
    store.written(live(), 4, "a", 1);
    store.removed(live(), 4, "a", 1);
    store.writes.clear();
    ebridged_stop(service);
    service = nullptr;
    EXPECT_THAT(written(), ElementsAre("hmset 8 a/32/1 0x20000001", "del 8 a/32/1"));
}

// Of one that was killed before it had written the mirrors.
TEST_P(ServiceOrder, AnAnswerWithoutAMirrorIsMirroredAtTheNextStart)
{
    follow();
    store.written(scan(), 4, "a", 1, 0x20000005);
    end_scans();
    EXPECT_THAT(written(), testing::Contains("hmset 8 a/32/1 0x20000005"));
}

// ---- both at once ---------------------------------------------------------------------------------------------------

TEST_F(ServiceOfBoth, EvlansAndEportsHaveIdsOfTheirOwn)
{
    serve();
    store.written(live(table::evlan), 4, "a", 1);
    store.written(live(table::eport), 4, "a", 1);
    EXPECT_EQ(stat().keys, 2U);
    EXPECT_EQ(stat().sessions, 2U);
    store.removed(live(table::evlan), 4, "a", 1);
    store.run_timers();
    EXPECT_THAT(store.texts(), ElementsAre("hmupdate 4 a/32/1 0x20000001", "hmupdate 4 a/32/1 0x20000001",
                                           "hmset 8 a/32/1 0x20000001", "hmset 8 a/32/1 0x20000001", "del 8 a/32/1"));
    EXPECT_EQ(store.writes.back().done.of, table::evlan);
    EXPECT_EQ(stat().keys, 1U);
}

TEST_F(ServiceOfBoth, WhatWaitsIsWrittenInTheOrderOfTheRequests)
{
    serve();
    store.codes = {{"hmupdate", QZ_MOM_EFULL}};
    for (const table of : {table::eport, table::evlan, table::eport})
        store.written(live(of), 4, "a", static_cast<uint32_t>(1 + stat().answered));
    store.codes.clear();
    store.run_timers();
    std::vector<table> order;
    for (const store_write &each : store.writes)
        order.push_back(each.done.of);
    EXPECT_THAT(order, ElementsAre(table::eport, table::eport, table::evlan, table::evlan, table::eport, table::eport));
}
